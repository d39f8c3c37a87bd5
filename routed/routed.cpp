/*
 * The controller of the routed mode: sets its state up and tears it down, and moves it along when the interface that
 * carries IPTV changes.
 */
#include "frame/trace.h"
#include "routed/dhcp_client.h"
#include "routed/firewall.h"
#include "routed/lease_store.h"
#include "routed/routed_state.h"

namespace {

enum { rule_watch_attributes = 134081, rule_watch_depth = 3, rule_path_size = 100 };

const char zone[] = "routed";
const char no_server[] = "00000000";

ModuleContext context = {"routed",
                         nullptr,
                         {ServiceMode::Bridged, IptvInterfaceMode::Dedicated, nullptr},
                         zep_routed_dedicated_mode_init,
                         zep_routed_dedicated_mode_cleanup};

ModuleDescriptor descriptor = {"routed", zep_routed_start, zep_routed_stop, {}};

ZEP_REGISTER_MODULE(zep_order_routed, descriptor)

void open_interface_query() {
    if (!routed_state.iptv_query)
        routed_state.iptv_query = weft_openQuery_luckyIntf("iptv", "routed", "netdev && up", weft_traverse_down,
                                                           zep_routed_bridge_iptv_intf_setup, &routed_state);
}

void give_up_without_routes() {
    {
        LocalVariant none(variant_type_list);
        zep_ipv4_route_copyList(&routed_state.routes, none.get());
    }
    zep_routed_dedicated_mode_cleanup();
}

/* Records that an earlier, unfinished init left would be lost when the list starts anew. */
bool start_list(llist_t *list) {
    return llist_size(list) > 0 || llist_initialize(list);
}

bool load_stored_routes() {
    LocalVariant routes(variant_type_list);
    const bool read = zep_common_get_zephyrin_static_routes(routes.get());
    zep_ipv4_route_copyList(&routed_state.routes, routes.get());
    return read;
}

void resume(Client_lease *lease) {
    zep_routed_dhcp_client_init(lease);
    for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases))
        zep_server_lease_set_active_handler(device, zep_routed_slease_active_handler);
    hull_timer_start(lease->release_timer, release_delay_ms);
}

void watch_pool(unsigned index) {
    const char *pool = zep_dhcp_server_pool_path_get(index);
    char path[rule_path_size];
    format_text(path, "%s.Rule", pool);
    request_t *request = request_create_getObject(path, rule_watch_depth, rule_watch_attributes);
    routed_state.rule_requests[index] = request;
    request_setData(request, const_cast<char *>(pool));
    request_setReplyItemHandler(request, zep_routed_dhcp_server_lease_cb);
    hull_waitSendRequest(rig_getHull(), rig_getSysbus(), request);
}

/* Those that are not watched yet. */
void watch_pools() {
    for (unsigned index = 0; index < dhcp_pools; ++index)
        if (!routed_state.rule_requests[index])
            watch_pool(index);
}

/* The IPTV path leaves an interface that was in use. */
void leave_interface(const char *old) {
    zep_routed_set_ntpwwwserver(no_server, no_server);
    for (Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases)) {
        const ClientInterface client(lease);
        zep_dhcp_client_start_stop(client.name, false);
        zep_client_lease_reinit(lease);
        zep_client_lease_obj_save(lease);
        weft_unlinkIntfs(client.name, old);
    }
}

void enter_interface() {
    for (Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases)) {
        const ClientInterface client(lease);
        weft_linkIntfs(client.name, routed_state.iptv_intf);
        weft_linkIntfs("iptv", client.name);
        zep_dhcp_client_start_stop(client.name, lease->dhcp_started);
        /* It came into force while there was no interface, where it could not be put on one. */
        if (routed_holds_address(lease))
            zep_ipv4_addr_add(routed_state.iptv_intf, lease->ip_address, lease->subnet_mask);
    }
    if (zep_routed_has_connected_lease())
        routed_install_routes();
}

} // namespace

int zep_routed_start(void) {
    return zep_module_start(&context);
}

void zep_routed_stop(void) {
    zep_module_stop(&context);
}

void zep_routed_dedicated_mode_init(ServiceConfig *config) {
    if (!config || config->mode != ServiceMode::Routed)
        return;
    if (config->interface == IptvInterfaceMode::Internet)
        return;
    if (routed_interface == IptvInterfaceMode::Dedicated) {
        if (config->interface == IptvInterfaceMode::Dedicated) {
            open_interface_query(); /* the service runs: only what could not be opened before is opened now */
            watch_pools();
            return;
        }
        zep_routed_dedicated_mode_cleanup();
    }
    routed_mode = config->mode;
    routed_interface = config->interface;
    memset(routed_state.ntp_server, 0, sizeof routed_state.ntp_server);
    memset(routed_state.www_server, 0, sizeof routed_state.www_server);
    zep_common_get_zephyrin_ntpwwwserver(routed_state.ntp_server, routed_state.www_server);
    memset(routed_state.iptv_intf, 0, sizeof routed_state.iptv_intf);
    memset(routed_state.wan_addr, 0, sizeof routed_state.wan_addr);
    const char *wan_addr = getenv("WAN_ADDR");
    if (!wan_addr) {
        give_up_without_routes();
        return;
    }
    copy_text(routed_state.wan_addr, wan_addr);
    if (!start_list(&routed_state.routes)) {
        give_up_without_routes();
        return;
    }
    if (!load_stored_routes() || !start_list(&routed_state.client_leases)) {
        zep_routed_dedicated_mode_cleanup();
        return;
    }
    if (routed_interface != IptvInterfaceMode::Dedicated)
        return;
    ZEP_INFO(zone, "Zephyrin Routed/Dedicated mode init");
    open_interface_query();
    if (!zep_client_lease_obj_parse(&routed_state.client_leases)) {
        ZEP_ERROR(zone, "Failed to parse Keel.Zephyrin.ClientClease");
        zep_routed_dedicated_mode_cleanup();
        return;
    }
    for (Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases))
        resume(lease);
    watch_pools();
}

void zep_routed_bridge_iptv_intf_setup(const variant_t *result, void *data) {
    auto *state = static_cast<RoutedState *>(data);
    const char *name = variant_da_char(result);
    if (!state || !name || strcmp(name, state->iptv_intf) == 0)
        return;
    char old[sizeof state->iptv_intf];
    copy_text(old, state->iptv_intf);
    copy_text(state->iptv_intf, name);
    const bool dedicated = routed_interface == IptvInterfaceMode::Dedicated;
    if (dedicated && *old)
        leave_interface(old);
    zep_routed_iptv_intf_cleanup(old);
    if (!*state->iptv_intf)
        ZEP_INFO(zone, "Invalid argument");
    if (!dedicated || !*state->iptv_intf)
        return;
    zep_firewall_static_chain_append(state->iptv_intf);
    enter_interface();
}

void zep_routed_dedicated_mode_cleanup(void) {
    weft_closeQuery(routed_state.iptv_query);
    routed_state.iptv_query = nullptr;
    for (request_t *&request : routed_state.rule_requests) {
        request_destroy(request);
        request = nullptr;
    }
    for (Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases))
        zep_routed_client_lease_remove(lease);
    zep_routed_iptv_intf_cleanup(routed_state.iptv_intf);
    routed_empty_used_chains();
    routed_cancel_route_installation();
    ip_route_release(&routed_state.routes); /* those loaded while there was no interface to clean */
    routed_state.iptv_intf[0] = '\0';
    zep_routed_set_ntpwwwserver(no_server, no_server);
    routed_interface = IptvInterfaceMode::Invalid;
    routed_mode = ServiceMode::Invalid;
}
