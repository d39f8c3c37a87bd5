/*
 * The frame of the sub-modules: how each is registered with the host, how it is started and stopped, and how the
 * service settings reach it.
 */
#ifndef FRAME_MODULE_UTIL_H
#define FRAME_MODULE_UTIL_H

#include "frame/helpers.h"
#include "platform/rig.h"

/* How the gateway carries IPTV; the texts of "Mode". */
enum class ServiceMode : uint32_t { Bridged = 0, Routed = 1, Simplified = 2, SimplifiedV2 = 3, Invalid = 4 };

/* Over which interface; the texts of "Interface" and "IPTVMode". */
enum class IptvInterfaceMode : uint32_t { Dedicated = 0, Internet = 1, Invalid = 2 };

/* The decoded settings of "Keel.Zephyrin", one copy per sub-module. */
struct ServiceConfig {
    ServiceMode mode;
    IptvInterfaceMode interface;
    char *wanMode; /* owned, or null; that of the last notification */
};

/* One framed sub-module; static, alive as long as the plug-in. Sub-modules keep the address of config. */
struct ModuleContext {
    const char *name;
    request_t *request; /* null while stopped */
    ServiceConfig config;
    void (*init)(ServiceConfig *config);
    void (*cleanup)(void);
};

/* Load-time order of the sub-modules' registrations, as constructor priorities: constructors of different files run in
 * the order of these, whatever the order of linking. 0 to 100 are the implementation's. */
enum {
    zep_order_routed = 101,
    zep_order_wanmode = 102,
    zep_order_l2fw = 103,
    zep_order_tide = 104,
    zep_order_igdmap = 105,
    zep_order_firewall = 106
};

/* Registers a sub-module's descriptor with the host while the plug-in is being loaded. */
#define ZEP_REGISTER_MODULE(order, descriptor)                                                                         \
    __attribute__((constructor(order))) static void register_##descriptor(void) {                                      \
        rig_module_register(&(descriptor));                                                                            \
    }

/* Starts a framed sub-module: opens its watch on "Keel". 0 for a null context, 1 otherwise, also when it runs. */
ZEP_EXPORT int zep_module_start(ModuleContext *context);
/* Stops it: ends the watch, cleans up, completes its writes. A null context does nothing. */
ZEP_EXPORT void zep_module_stop(ModuleContext *context);
/* Reply item handler of the watch; data is the context. Always true. */
ZEP_EXPORT bool zep_module_replyHandler(request_t *request, reply_item_t *item, sysbus_t *from, sysbus_t *to,
                                        void *data);
/* Decode a settings text, exactly; null and anything unknown is invalid. */
ZEP_EXPORT ServiceMode zep_module_parseMode(const char *text);
ZEP_EXPORT IptvInterfaceMode zep_module_parseInterface(const char *text);

#endif
