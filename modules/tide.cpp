/*
 * The multicast daemon's settings: on for the IPTV interface in the routed and simplified modes, with the WAN side
 * enabled while the IPTV stack is up.
 */
#include "frame/module_util.h"
#include "frame/trace.h"
#include "modules/modules.h"
#include "platform/weft.h"

namespace {

const char zone[] = "tide"; /* also the owner of the writes */
char iptv[] = "iptv";

weft_query_t *tideQuery = nullptr;

ModuleContext context = {
    "tide", nullptr, {ServiceMode::Bridged, IptvInterfaceMode::Dedicated, nullptr}, zep_tide_init, zep_tide_cleanup};

ModuleDescriptor descriptor = {"tide", zep_tide_start, zep_tide_stop, {}};

ZEP_REGISTER_MODULE(zep_order_tide, descriptor)

} // namespace

int zep_tide_start(void) {
    return zep_module_start(&context);
}

void zep_tide_stop(void) {
    zep_module_stop(&context);
}

void zep_tide_init(ServiceConfig *config) {
    if (!config || config->mode == ServiceMode::Bridged || config->mode == ServiceMode::Invalid)
        return;
    zep_tide_setWanIntf(iptv, true);
    if (!tideQuery)
        tideQuery = weft_openQuery_isUp(iptv, "tide", "logical", weft_traverse_down, zep_tide_setWANEnable, iptv);
}

void zep_tide_setWanIntf(const char *name, uint8_t enable) {
    if (is_empty(name))
        return;
    const int on = enable != 0;
    ZEP_INFO(zone, "Set TIDE.Intf.%s.{ClientEnable=%d,MRTIIFEnable=%d}", name, on, on);
    request_t *request = keel_request_create_setObject("TIDE.Intf.%s", name);
    add_bool(request, "ClientEnable", on);
    add_bool(request, "MRTIIFEnable", on);
    keel_request_push(zone, rig_getSysbus(), request, "Set TIDE.Intf.%s.{ClientEnable=%d,MRTIIFEnable=%d}", name, on,
                      on);
}

void zep_tide_setWANEnable(const variant_t *result, void *data) {
    const auto *name = static_cast<const char *>(data);
    const int up = variant_bool(result);
    ZEP_INFO(zone, "Set TIDE.Intf.%s.{WANEnable=%d}", name, up);
    request_t *request = keel_request_create_setObject("TIDE.Intf.%s", name);
    add_bool(request, "WANEnable", up);
    keel_request_push(zone, rig_getSysbus(), request, "Set TIDE.Intf.%s.{WANEnable=%d}", name, up);
}

void zep_tide_cleanup(void) {
    ZEP_INFO(zone, "TIDE module cleaning");
    weft_closeQuery(tideQuery);
    tideQuery = nullptr;
    zep_tide_setWanIntf(iptv, false);
}
