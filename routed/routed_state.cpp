#include "routed/routed_state.h"

#include "routed/firewall.h"

ServiceMode routed_mode = ServiceMode::Invalid;
IptvInterfaceMode routed_interface = IptvInterfaceMode::Invalid;
RoutedState routed_state;

namespace {

/* Whether mappings were made since the chains were emptied last; one that succeeded in part has left rules, too. */
bool chains_used = false;

void empty_chains() {
    zep_firewall_static_chain_flush();
    zep_firewall_static_chain_default();
    chains_used = false;
}

} // namespace

bool routed_holds_address(const Client_lease *lease) {
    return lease->status == LeaseStatus::Connected || lease->status == LeaseStatus::Internal;
}

void zep_routed_set_ntpwwwserver(const char *ntp, const char *www) {
    if (ntp)
        copy_text(routed_state.ntp_server, ntp);
    if (www)
        copy_text(routed_state.www_server, www);
    zep_common_set_zephyrin_ntpwwwserver(ntp, www);
    zep_dhcp_server_options_ntp_www_set_value(ntp, www);
}

int zep_routed_iptv_intf_cleanup(const char *name) {
    if (is_empty(name))
        return 0;
    if (routed_interface != IptvInterfaceMode::Dedicated)
        return 1;
    zep_firewall_static_chain_delete(name);
    empty_chains();
    zep_ipv4_route_flush(name);
    zep_ipv4_route_cleanupList(&routed_state.routes);
    zep_ipv4_addr_flush(name);
    return 1;
}

void routed_empty_used_chains(void) {
    if (chains_used)
        empty_chains();
}

bool zep_routed_has_connected_lease(void) {
    for (const Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases))
        if (routed_holds_address(lease))
            return true;
    return false;
}

void routed_drop_unused_routes(void) {
    if (zep_routed_has_connected_lease())
        return;
    zep_ipv4_route_flush(routed_state.iptv_intf);
    zep_ipv4_route_cleanupList(&routed_state.routes);
}

int zep_routed_dhcp_cycle_kick(Client_lease *lease) {
    if (!lease || lease->status != LeaseStatus::Unconnected)
        return 0;
    return hull_timer_start(lease->start_timer, 0);
}

void zep_routed_slease_offer_all(const Client_lease *lease) {
    if (!lease)
        return;
    for (const Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases)) {
        if (lease->status == LeaseStatus::Unleased)
            zep_routed_slease_offer_unleased(device->lease_path);
        else if (lease->status == LeaseStatus::Connected || lease->status == LeaseStatus::Internal)
            zep_routed_slease_offer_leased(device->lease_path);
    }
}

void zep_routed_slease_offer_unleased(const char *lease_path) {
    if (is_empty(lease_path))
        return;
    zep_dhcp_server_options_ntp_www_set_enable(false);
    zep_dhcp_server_pool_set(unleased_lease_time_s, true);
    zep_dhcp_server_lease_offer(lease_path);
}

void zep_routed_slease_offer_leased(const char *lease_path) {
    if (is_empty(lease_path))
        return;
    zep_dhcp_server_options_ntp_www_set_enable(true);
    zep_dhcp_server_pool_set(variant_uint32(hull_client_get(rig_getSysbus(), "Keel.Zephyrin.DHCPConfig", "LeaseTime")),
                             true);
    zep_dhcp_server_lease_offer(lease_path);
}

void routed_drop_address(const Client_lease *lease, const char *address, const char *mask) {
    const uint8_t prefix = zep_ipv4_mask_to_prefixlen(mask);
    for (const Client_lease *other : RecordsOf<Client_lease>(&routed_state.client_leases))
        if (other != lease && routed_holds_address(other) && strcmp(other->ip_address, address) == 0 &&
            zep_ipv4_mask_to_prefixlen(other->subnet_mask) == prefix)
            return;
    zep_ipv4_addr_del(routed_state.iptv_intf, address, mask);
}

void routed_map_device(Server_lease *device, const char *wan_address) {
    chains_used = true;
    if (zep_firewall_static_port_mapping_append(device->ip_address, wan_address))
        device->nat_mapped = 1;
}

void routed_unmap_device(Server_lease *device, const char *wan_address) {
    if (device->nat_mapped && zep_firewall_static_port_mapping_delete(device->ip_address, wan_address))
        device->nat_mapped = 0;
}
