/*
 * The module host: how a plug-in announces its sub-modules and gets at the bus.
 */
#ifndef PLATFORM_RIG_H
#define PLATFORM_RIG_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct hull hull_t;     /* the plug-in's bus handle */
typedef struct sysbus sysbus_t; /* the system bus, the peer of every request */

/* One sub-module. The record stays the plug-in's and must outlive the plug-in's use by the host. */
typedef struct ModuleDescriptor {
    const char *name;
    int (*start)(void); /* 1 = started, 0 = refused */
    void (*stop)(void);
    void *reserved[4]; /* the host's; zero at registration */
} ModuleDescriptor;

/* Registers a sub-module; meant for load-time constructors. The host starts the sub-modules in the order of their
 * registration and stops them in the reverse order. False for null, an unnamed or a twice registered descriptor. */
bool rig_module_register(ModuleDescriptor *descriptor);
/* The plug-in's bus handle and the system bus. Never null, owned by the host. */
hull_t *rig_getHull(void);
sysbus_t *rig_getSysbus(void);

#ifdef __cplusplus
}
#endif

#endif
