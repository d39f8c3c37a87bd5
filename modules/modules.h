/*
 * The bridged-side sub-modules that keep no unit of their own in the exported interface beyond start and stop.
 */
#ifndef MODULES_MODULES_H
#define MODULES_MODULES_H

#include "frame/module_util.h"

/* ------------------------------------------------------------------------- WAN mode of the IPTV stack (wanmode) */

ZEP_EXPORT int zep_wanmode_start(void);
ZEP_EXPORT void zep_wanmode_stop(void);
void zep_wanmode_init(ServiceConfig *config);
void zep_wanmode_cleanup(void);
/* Reply item handler of the question for the WAN mode; data is the settings. Always true. */
bool zep_wanmode_onWanMode(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to, void *data);
/* How long, in s, the IPTV DHCP client outlives its line: 90 over DSL, else 0. */
void zep_wanmode_setResetTimeout(void);

/* --------------------------------------------------------------------------- the multicast daemon's settings (tide) */

ZEP_EXPORT int zep_tide_start(void);
ZEP_EXPORT void zep_tide_stop(void);
void zep_tide_init(ServiceConfig *config);
void zep_tide_cleanup(void);
/* Switches the daemon on an interface; a null or empty name does nothing. */
void zep_tide_setWanIntf(const char *name, uint8_t enable);
/* Result handler of the query on the stack's state: a boolean; data is the interface's name. */
void zep_tide_setWANEnable(const variant_t *result, void *name);

/* --------------------------------------------------------------------------- the mirror of the IPTV address (igdmap)
 */

ZEP_EXPORT int zep_igdmap_start(void);
ZEP_EXPORT void zep_igdmap_stop(void);
void zep_igdmap_init(ServiceConfig *config);
void zep_igdmap_cleanup(void);
/* Result handler of the query on the address: a text; data is the settings. */
void zep_igdmap_onAddress(const variant_t *result, void *config);
void zep_igdmap_set(const char *address, uint8_t enable, const char *status);

#endif
