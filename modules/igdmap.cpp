/*
 * The mirror of the address that carries IPTV, in the terms of a UPnP Internet Gateway Device's WAN connection.
 */
#include "frame/module_util.h"
#include "modules/modules.h"
#include "platform/weft.h"

namespace {

const char owner[] = "igdmap";
const char no_address[] = "0.0.0.0";

weft_query_t *addrQuery = nullptr;

ModuleContext context = {"igdmap",
                         nullptr,
                         {ServiceMode::Bridged, IptvInterfaceMode::Dedicated, nullptr},
                         zep_igdmap_init,
                         zep_igdmap_cleanup};

ModuleDescriptor descriptor = {"igdmap", zep_igdmap_start, zep_igdmap_stop, {}};

ZEP_REGISTER_MODULE(zep_order_igdmap, descriptor)

/* IPTV shares the Internet connection: its address is not IPTV's to show. */
bool over_internet(const ServiceConfig *config) {
    return config->mode == ServiceMode::SimplifiedV2 && config->interface == IptvInterfaceMode::Internet;
}

/* The interface whose address is mirrored, or null. */
const char *mirrored_interface(const ServiceConfig *config) {
    if (over_internet(config))
        return "data";
    const bool served = config->mode == ServiceMode::Routed || config->mode == ServiceMode::Simplified ||
                        config->mode == ServiceMode::SimplifiedV2;
    return served && config->interface == IptvInterfaceMode::Dedicated ? "iptv" : nullptr;
}

} // namespace

int zep_igdmap_start(void) {
    return zep_module_start(&context);
}

void zep_igdmap_stop(void) {
    zep_module_stop(&context);
}

void zep_igdmap_init(ServiceConfig *config) {
    const char *intf = config ? mirrored_interface(config) : nullptr;
    if (intf && !addrQuery)
        addrQuery =
            weft_openQuery_luckyAddrAddress(intf, "igdmap", "ipv4", weft_traverse_down, zep_igdmap_onAddress, config);
}

void zep_igdmap_onAddress(const variant_t *result, void *data) {
    const auto *config = static_cast<const ServiceConfig *>(data);
    const char *address = variant_da_char(result);
    if (is_empty(address) || strcmp(address, no_address) == 0)
        zep_igdmap_set("", false, "Idle");
    else
        zep_igdmap_set(config && over_internet(config) ? no_address : address, true, "Bound");
}

void zep_igdmap_set(const char *address, uint8_t enable, const char *status) {
    request_t *request = keel_request_create_setObject("Keel.Zephyrin.IGDMap");
    if (!request)
        return;
    add_text(request, "ExternalIPAddress", address);
    add_bool(request, "Enable", enable != 0);
    add_text(request, "ConnectionStatus", status);
    keel_request_push(owner, rig_getSysbus(), request, "Set Keel.Zephyrin.IGDMap");
}

void zep_igdmap_cleanup(void) {
    weft_closeQuery(addrQuery);
    addrQuery = nullptr;
    zep_igdmap_set("", false, "Idle");
}
