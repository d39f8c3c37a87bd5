/*
 * The IPTV interface stack in the gateway's WAN mode: enabled once the WAN mode is known; in the second simplified mode
 * with or without the DHCP interface in it.
 */
#include "frame/module_util.h"
#include "modules/modules.h"
#include "platform/weft.h"

namespace {

enum { steward_attributes = 4161, dsl_reset_timeout_s = 90 };

const char iptv_address_enable[] = "IPv4Addr.iptv.Enable";

request_t *wanModeRequest = nullptr;

ModuleContext context = {"wanmode",
                         nullptr,
                         {ServiceMode::Bridged, IptvInterfaceMode::Dedicated, nullptr},
                         zep_wanmode_init,
                         zep_wanmode_cleanup};

ModuleDescriptor descriptor = {"wanmode", zep_wanmode_start, zep_wanmode_stop, {}};

ZEP_REGISTER_MODULE(zep_order_wanmode, descriptor)

void ask_steward(ServiceConfig *config) {
    if (!wanModeRequest)
        wanModeRequest = request_create_getObject("Steward", 0, steward_attributes);
    request_addParameter(wanModeRequest, "WANMode", nullptr);
    request_setReplyItemHandler(wanModeRequest, zep_wanmode_onWanMode);
    request_setData(wanModeRequest, config);
    hull_waitSendRequest(rig_getHull(), rig_getSysbus(), wanModeRequest);
}

/* Takes the DHCP interface out from between the one above and the one below, which carries the addresses then. */
void take_out(const char *dhcp, const char *lower) {
    const OwnedText upper(weft_luckyIntf(dhcp, nullptr, weft_traverse_one_level_up));
    if (!upper.get())
        return;
    weft_unlinkIntfs(upper.get(), dhcp);
    weft_unlinkIntfs(dhcp, lower);
    weft_setFlag(lower, "logical", nullptr, weft_traverse_this);
    weft_linkIntfs(upper.get(), lower);
    weft_setFirstParameter(lower, iptv_address_enable, variant_true, nullptr, weft_traverse_this);
}

void adapt_stack(const ServiceConfig *config) {
    const OwnedText dhcp(weft_luckyIntf("iptv", "dhcp", weft_traverse_down_exclusive));
    if (!dhcp.get())
        return;
    {
        const OwnedText lower(weft_luckyIntf(dhcp.get(), nullptr, weft_traverse_one_level_down));
        if (config->interface == IptvInterfaceMode::Dedicated) {
            zep_wanmode_setResetTimeout();
            if (lower.get())
                weft_setFirstParameter(lower.get(), iptv_address_enable, variant_false, nullptr, weft_traverse_this);
        } else if (config->interface == IptvInterfaceMode::Internet && lower.get()) {
            take_out(dhcp.get(), lower.get());
        }
    }
    weft_setParameters("iptv", "Enable", variant_true, nullptr, weft_traverse_down);
}

} // namespace

int zep_wanmode_start(void) {
    return zep_module_start(&context);
}

void zep_wanmode_stop(void) {
    zep_module_stop(&context);
}

void zep_wanmode_init(ServiceConfig *config) {
    if (!config || config->mode == ServiceMode::Bridged)
        return;
    if (config->mode == ServiceMode::SimplifiedV2)
        adapt_stack(config);
    else
        ask_steward(config);
}

/* Judged by the settings of now, which may have changed since the question was sent. */
bool zep_wanmode_onWanMode(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    const auto *config = static_cast<const ServiceConfig *>(data);
    if (!config || reply_item_type(item) != reply_type_object)
        return true;
    if (is_empty(object_text(reply_item_object(item), "WANMode")))
        return true;
    if (config->interface == IptvInterfaceMode::Dedicated)
        weft_setParameters("iptv", "Enable", variant_true, "!zep-dhcp", weft_traverse_down);
    if (config->mode == ServiceMode::Simplified)
        zep_wanmode_setResetTimeout();
    return true;
}

void zep_wanmode_setResetTimeout(void) {
    LocalVariant timeout(variant_type_int32);
    variant_setInt32(timeout.get(),
                     weft_hasFlag("iptv", "dsl", nullptr, weft_traverse_down_exclusive) ? dsl_reset_timeout_s : 0);
    weft_setFirstParameter("iptv", "ResetOnPhysDownTimeout", timeout.get(), "dhcp", weft_traverse_down_exclusive);
}

void zep_wanmode_cleanup(void) {
    weft_setParameters("iptv", iptv_address_enable, variant_false, "zep-mcast", weft_traverse_all);
    weft_clearFlag("iptv", "logical", "zep-mcast", weft_traverse_all);
    request_destroy(wanModeRequest);
    wanModeRequest = nullptr;
}
