/*
 * The DHCP cycle of an identity on the WAN side: its client is made, started, watched, given up for a while, and in the
 * end released.
 */
#include "frame/trace.h"
#include "routed/dhcp_client.h"
#include "routed/lease_store.h"
#include "routed/routed_state.h"
#include "routed/utils.h"

namespace {

enum { status_watch_attributes = 7233, client_id_offset_limit = 5 };

const char zone[] = "routed";

hull_timer_t *create_timer(Client_lease *lease, hull_timer_handler_t handler) {
    hull_timer_t *timer = hull_timer_create();
    hull_timer_setUserData(timer, lease);
    hull_timer_setHandler(timer, handler);
    return timer;
}

int zep_routed_dhcp_client_create(const Client_lease *lease, const char *client_path) {
    const char *name = strrchr(client_path, '.') + 1;
    if (lease->client_id_offset >= client_id_offset_limit) {
        ZEP_ERROR(zone, "Invalid DHCP client offset");
        return 0;
    }
    const char *identifier = lease->client_id_offset >= 0
                                 ? zep_utils_format_option61(routed_state.wan_addr, lease->client_id_offset)
                                 : nullptr;
    return zep_dhcp_client_create(name, identifier);
}

/* The client was given up but an address is held: it stays in force. */
void fall_back_to_internal(Client_lease *lease) {
    zep_ipv4_addr_add(routed_state.iptv_intf, lease->ip_address, lease->subnet_mask);
    zep_routed_dhcp_option121_handle(lease, false);
    lease->status = LeaseStatus::Internal;
    hull_timer_start(lease->start_timer, internal_retry_ms);
    for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases)) {
        if (!device->nat_mapped)
            routed_map_device(device, lease->ip_address);
        if (device->active)
            zep_routed_slease_offer_leased(device->lease_path);
    }
}

/* The client was given up and there is no address: the devices get short leases. */
void fall_back_to_unleased(Client_lease *lease) {
    lease->status = LeaseStatus::Unleased;
    variant_list_cleanup(variant_da_list(&lease->option121));
    hull_timer_start(lease->start_timer, unleased_retry_ms);
    for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases)) {
        routed_unmap_device(device, lease->ip_address);
        zep_routed_slease_offer_unleased(device->lease_path);
    }
    routed_drop_unused_routes();
}

/* A deferred release may come after the record went, after another took its place in memory, or after a device came
 * back. */
bool release_still_due(const Client_lease *lease) {
    for (const Client_lease *held : RecordsOf<Client_lease>(&routed_state.client_leases))
        if (held == lease)
            return held->release_deferred;
    return false;
}

} // namespace

int zep_routed_dhcp_client_init(Client_lease *lease) {
    if (!lease)
        return 0;
    lease->start_timer = create_timer(lease, zep_routed_start_dhcp_cycle_cb);
    lease->stop_timer = create_timer(lease, zep_routed_stop_dhcp_cycle_cb);
    lease->release_timer = create_timer(lease, zep_routed_client_release_cb);

    char client_path[client_interface_size];
    format_text(client_path, "Weft.Intf.dhcp_zep_%s", lease->name);
    if (!zep_routed_dhcp_client_create(lease, client_path)) {
        ZEP_ERROR(zone, "Could not create DHCP Client");
        return 0;
    }
    lease->status_request = request_create_getObject(client_path, 0, status_watch_attributes);
    request_addParameter(lease->status_request, "DHCPStatus", nullptr);
    request_addParameter(lease->status_request, "LastConnectionError", nullptr);
    request_setData(lease->status_request, lease);
    request_setReplyItemHandler(lease->status_request, zep_routed_dhcp_client_cb);
    return hull_waitSendRequest(rig_getHull(), rig_getSysbus(), lease->status_request);
}

void zep_routed_start_dhcp_cycle_cb(hull_timer_t *, void *data) {
    auto *lease = static_cast<Client_lease *>(data);
    if (!lease)
        return;
    const ClientInterface client(lease);
    if (!zep_dhcp_client_start_stop(client.name, true))
        ZEP_ERROR(zone, "Failed to start DHCP Client %s", client.name);
    else
        lease->dhcp_started = 1;
}

void zep_routed_stop_dhcp_cycle_cb(hull_timer_t *, void *data) {
    auto *lease = static_cast<Client_lease *>(data);
    if (!lease) {
        ZEP_ERROR(zone, "No DHCP client found");
        return;
    }
    const ClientInterface client(lease);
    if (!zep_dhcp_client_start_stop(client.name, false)) {
        ZEP_ERROR(zone, "Failed to stop %s", client.name);
        return;
    }
    lease->dhcp_started = 0;
    if (!is_empty(lease->ip_address) && strcmp(lease->ip_address, "0.0.0.0") != 0)
        fall_back_to_internal(lease);
    else
        fall_back_to_unleased(lease);
    zep_client_lease_obj_save(lease);
}

void zep_routed_client_release_cb(hull_timer_t *, void *data) {
    auto *lease = static_cast<Client_lease *>(data);
    if (!lease) {
        ZEP_ERROR(zone, "No DHCP client found");
        return;
    }
    const ClientInterface client(lease);
    if (!zep_dhcp_client_start_stop(client.name, false)) {
        ZEP_ERROR(zone, "Failed to stop %s", client.name);
        return;
    }
    lease->release_deferred = true;
    hull_timer_defer(zep_routed_client_lease_release, lease, 0);
}

void zep_routed_client_lease_release(void *data) {
    auto *lease = static_cast<Client_lease *>(data);
    if (!lease || !release_still_due(lease))
        return;
    routed_drop_address(lease, lease->ip_address, lease->subnet_mask);
    for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases))
        routed_unmap_device(device, lease->ip_address);
    zep_routed_client_lease_remove(lease);
    routed_drop_unused_routes();
}

void zep_routed_client_lease_remove(Client_lease *lease) {
    if (!lease) {
        ZEP_ERROR(zone, "Null client lease");
        return;
    }
    const ClientInterface client(lease);
    zep_client_lease_cleanup(lease);
    zep_dhcp_client_delete(client.name);
    zep_client_lease_obj_delete(lease->name);
    llist_iterator_take(&lease->link);
    free(lease);
}
