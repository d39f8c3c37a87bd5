/*
 * The binding of an identity's WAN lease: what follows from each state that its WAN DHCP client reports.
 */
#include "frame/trace.h"
#include "routed/dhcp_client.h"
#include "routed/lease_store.h"
#include "routed/routed_state.h"

namespace {

enum { option_ntp = 42, option_www = 72, option_routes = 121 };

const char zone[] = "routed";
const char no_server[] = "00000000";

/* The new value of a server, or null when it stays as it is. */
const char *new_server_value(const char *received, const char *current) {
    if (!received)
        return nullptr;
    if (!*received)
        return no_server;
    return strcmp(received, current) == 0 ? nullptr : received;
}

bool usable(const char *address, const char *current) {
    return !is_empty(address) && strcmp(address, "0.0.0.0") != 0 && strcmp(address, current) != 0;
}

/* The other identities bind anew, so that they see the routes or the mask that this one got. */
void restart_other_bound_clients(const Client_lease *lease) {
    for (Client_lease *other : RecordsOf<Client_lease>(&routed_state.client_leases)) {
        if (other == lease || other->dhcp_status != DhcpcState::Bound)
            continue;
        const ClientInterface client(other);
        zep_dhcp_client_start_stop(client.name, false);
        hull_timer_start(other->start_timer, 0);
    }
}

void take_servers(const char *client) {
    const char *ntp = zep_dhcp_client_get_reqoption(client, option_ntp);
    const char *www = zep_dhcp_client_get_reqoption(client, option_www);
    zep_routed_set_ntpwwwserver(new_server_value(ntp, routed_state.ntp_server),
                                new_server_value(www, routed_state.www_server));
}

void take_routes(Client_lease *lease, const char *client) {
    variant_t *routes = weft_getDHCPOption(client, "req", option_routes, weft_traverse_this);
    if (!routes)
        return;
    variant_copy(&lease->option121, routes);
    variant_cleanup(routes);
    free(routes);
}

void zep_routed_dhcp_client_bound(Client_lease *lease) {
    char path[client_interface_size];
    format_text(path, "Weft.Intf.dhcp_zep_%s", lease->name);
    const object_t *object = hull_client_get_object(rig_getSysbus(), path);
    if (!object) {
        ZEP_ERROR(zone, "Failed to get dhcp client");
        return;
    }
    const char *client = object_name(object, 1);
    if (!client) {
        ZEP_ERROR(zone, "Failed to get dhcp client name");
        return;
    }
    hull_timer_stop(lease->stop_timer);

    char previous_address[sizeof lease->ip_address];
    char previous_mask[sizeof lease->subnet_mask];
    copy_text(previous_address, lease->ip_address);
    copy_text(previous_mask, lease->subnet_mask);
    const LeaseStatus previous_status = lease->status;
    lease->status = LeaseStatus::Connected;

    if (*client)
        take_servers(client);

    const char *address = zep_dhcp_client_get_ipaddress(object);
    const bool address_changed = usable(address, lease->ip_address);
    if (address_changed) {
        ZEP_INFO(zone, "Chaning Wan IP Address old=%s , new=%s", lease->ip_address, address);
        copy_text(lease->ip_address, address);
    }
    const char *mask = zep_dhcp_client_get_subnetmask(object);
    const bool mask_changed = usable(mask, lease->subnet_mask);
    if (mask_changed) {
        ZEP_INFO(zone, "Chaning Subnetmask Address old=%s , new=%s", lease->subnet_mask, mask);
        copy_text(lease->subnet_mask, mask);
    }

    const bool first = previous_status == LeaseStatus::Unconnected || previous_status == LeaseStatus::Unleased;
    if (first || address_changed)
        for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases)) {
            routed_unmap_device(device, previous_address);
            routed_map_device(device, lease->ip_address);
        }

    if (first || address_changed || mask_changed)
        zep_ipv4_addr_add(routed_state.iptv_intf, lease->ip_address, lease->subnet_mask);
    if (address_changed || mask_changed)
        routed_drop_address(lease, previous_address, previous_mask);

    take_routes(lease, client);
    const bool routes_replaced = zep_routed_dhcp_option121_handle(lease, mask_changed);
    if (!first && (routes_replaced || mask_changed))
        restart_other_bound_clients(lease);

    if (lease->client_id_offset != client_slots - 1)
        zep_client_lease_obj_save(lease);
    zep_routed_slease_offer_all(lease);
}

void status_changed(Client_lease *lease, const char *status) {
    ZEP_INFO(zone, "DHCP Client: name=%s status=%s", lease->name, status);
    lease->dhcp_status = zep_client_lease_get_dhcpp_status(status);
    if (lease->dhcp_status == DhcpcState::Selecting || lease->dhcp_status == DhcpcState::Requesting)
        hull_timer_start(lease->stop_timer, dhcp_cycle_timeout_ms);
    else if (lease->dhcp_status == DhcpcState::Bound)
        zep_routed_dhcp_client_bound(lease);
}

void refused_by_server(Client_lease *lease) {
    ZEP_INFO(zone, "DHCP Client: name=%s RemoteNacked", lease->name);
    routed_drop_address(lease, lease->ip_address, lease->subnet_mask);
    for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases))
        routed_unmap_device(device, lease->ip_address);
    zep_client_lease_reinit(lease);
    routed_drop_unused_routes();
    zep_routed_dhcp_cycle_kick(lease);
    zep_client_lease_obj_save(lease);
}

} // namespace

bool zep_routed_dhcp_client_cb(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    const notification_t *notification = reply_item_notification(item);
    if (notification_type(notification) != notification_value_changed)
        return true;
    auto *lease = static_cast<Client_lease *>(data);
    if (!lease)
        return false;
    const char *parameter = notification_text(notification, "parameter");
    const char *value = notification_text(notification, "newvalue");
    if (!parameter || !value)
        return true;
    if (strcmp(parameter, "DHCPStatus") == 0)
        status_changed(lease, value);
    else if (strcmp(parameter, "LastConnectionError") == 0 && strcmp(value, "RemoteNack") == 0)
        refused_by_server(lease);
    return true;
}
