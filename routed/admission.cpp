/*
 * Admission: which identity serves a device that the LAN DHCP server has leased an address to, and whether any does;
 * and how its presence and its address are followed.
 */
#include "frame/trace.h"
#include "routed/firewall.h"
#include "routed/lease_store.h"
#include "routed/routed_state.h"

namespace {

enum { pool_watch_settled = 4096 /* added to the watch's attributes once its leases were taken */ };

const char zone[] = "routed";

/* The lowest slot that no identity has; client_slots when all are taken. */
int32_t free_slot() {
    bool taken[client_slots] = {};
    for (const Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases))
        if (lease->client_id_offset >= 0 && lease->client_id_offset < client_slots)
            taken[lease->client_id_offset] = true;
    int32_t slot = 0;
    while (slot < client_slots && taken[slot])
        ++slot;
    return slot;
}

/* A new identity, stored and with its WAN client; null when the device is refused. */
Client_lease *create_identity(const char *name, DeviceType device_type, bool mono_client) {
    int32_t offset = client_offset_none;
    if (!mono_client) {
        offset = free_slot();
        if (offset == client_slots) {
            if (device_type == DeviceType::STB)
                return nullptr;
            offset = client_offset_overflow;
        }
    }
    Client_lease *lease = zep_client_lease_create(name, nullptr, nullptr, offset);
    if (!zep_client_lease_append_to_list(&routed_state.client_leases, lease))
        return nullptr;
    zep_client_lease_obj_save(lease);
    zep_routed_dhcp_client_init(lease);
    return lease;
}

/* A device's identifier as its record holds it: the device chose it, and may have chosen a longer one. */
struct RecordId {
    explicit RecordId(const char *id) { copy_text(text, id); }
    char text[sizeof(Server_lease::id)];
};

/* A release that has begun already has stopped the WAN client, which must then run again. */
void cancel_release(Client_lease *lease) {
    hull_timer_stop(lease->release_timer);
    if (!lease->release_deferred)
        return;
    lease->release_deferred = false;
    hull_timer_start(lease->start_timer, 0);
}

/* The lease of a known device is reported again. */
void readmit(Client_lease *lease, Server_lease *device, DeviceType device_type, const char *ip_address,
             const char *path) {
    char old_address[sizeof device->ip_address];
    copy_text(old_address, device->ip_address);
    if (!zep_server_lease_update(device, device_type, ip_address, path, 1, zep_routed_slease_ipaddress_handler, lease))
        return;
    if (device->nat_mapped && zep_firewall_static_port_mapping_delete(old_address, lease->ip_address))
        device->nat_mapped = 0;
    zep_server_lease_obj_save(lease->name, device, 0);
}

bool admit_new(Client_lease *lease, const char *id, DeviceType device_type, const char *ip_address,
               const char *mac_address, const char *path, bool mono_client) {
    if (mono_client && zep_client_lease_has_stb(lease) && device_type == DeviceType::STB) {
        ZEP_INFO(zone, "Only one STB can be managed. Don't reply to %s", id);
        return false;
    }
    ZEP_INFO(zone, "Adding new server lease {ClientId=%s, DeviceType=%d}", id, static_cast<int>(device_type));
    Server_lease *device = zep_server_lease_create(id, device_type, ip_address, mac_address, path, 1,
                                                   zep_routed_slease_ipaddress_handler, lease);
    if (!zep_server_lease_append_to_list(&lease->server_leases, device)) {
        ZEP_ERROR(zone, "Failed to create Server_lease.");
        if (device)
            zep_server_lease_cleanup(device);
        return false;
    }
    zep_server_lease_set_active_handler(device, zep_routed_slease_active_handler);
    zep_server_lease_obj_save(lease->name, device, 1);
    return true;
}

void lease_deleted(const char *path) {
    ZEP_INFO(zone, "DHCP Server Lease deleted");
    const char *dot = path ? strrchr(path, '.') : nullptr;
    if (!dot) {
        ZEP_ERROR(zone, "Failed to get ClientID");
        return;
    }
    if (routed_interface != IptvInterfaceMode::Dedicated)
        return;
    const RecordId id(dot + 1);
    for (Client_lease *lease : RecordsOf<Client_lease>(&routed_state.client_leases)) {
        bool found = false;
        bool others_present = false;
        for (Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases)) {
            if (strcmp(device->id, id.text) == 0) {
                device->active = 0;
                found = true;
            } else if (device->active) {
                others_present = true;
            }
        }
        if (found && !others_present)
            hull_timer_start(lease->release_timer, lease->client_id_offset == client_slots - 1 ? 0 : release_delay_ms);
    }
}

} // namespace

bool zep_routed_dhcp_server_lease_cb(request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    const DeviceType device_type = zep_server_lease_device_type(static_cast<const char *>(data));
    if (const object_t *rules = reply_item_object(item)) {
        for (object_t *rule = object_firstInstance(rules); rule; rule = object_nextInstance(rule)) {
            object_t *lease = object_firstInstance(object_getObject(rule, "Lease", 1, nullptr));
            for (; lease; lease = object_nextInstance(lease))
                zep_routed_dhcp_server_lease_add(lease, device_type);
        }
        request_setAttributes(request, request_attributes(request) | pool_watch_settled);
        return true;
    }
    const notification_t *notification = reply_item_notification(item);
    const uint32_t type = notification_type(notification);
    const char *path = notification_objectPath(notification);
    if (type == notification_instance_added) {
        ZEP_INFO(zone, "DHCP Server Lease added");
        zep_routed_dhcp_server_lease_add(hull_client_get_object(rig_getSysbus(), path), device_type);
    } else if (type == notification_instance_deleted) {
        lease_deleted(path);
    }
    return true;
}

int zep_routed_dhcp_server_lease_add(const object_t *object, DeviceType device_type) {
    if (!object || device_type == DeviceType::UNKNOWN)
        return 0;
    const char *id = object_text(object, "ClientID");
    const char *ip_address = object_text(object, "IPAddress");
    const char *mac_address = object_text(object, "MACAddress");
    const OwnedText path(object_pathChar(object, 1));
    if (is_empty(id) || is_empty(ip_address) || is_empty(mac_address)) {
        ZEP_ERROR(zone, "Failed to get lease parameters: ClientID=%s IPAddress=%s MACAddress=%s", id ? id : "(null)",
                  ip_address ? ip_address : "(null)", mac_address ? mac_address : "(null)");
        return 0;
    }
    if (strchr(id, '.')) {
        ZEP_ERROR(zone, "ClientID=%s has a dot and cannot name an object. Don't reply to it", id);
        return 0;
    }
    if (routed_interface != IptvInterfaceMode::Dedicated)
        return 1;
    const RecordId record_id(id);
    const bool mono_client = variant_bool(hull_client_get(rig_getSysbus(), "Keel.Zephyrin", "MonoClient"));
    const char *name = mono_client ? "iptv" : device_type == DeviceType::ITF ? "itf" : record_id.text;
    Client_lease *lease = zep_client_lease_find(&routed_state.client_leases, name);
    if (!lease)
        lease = create_identity(name, device_type, mono_client);
    if (!lease)
        return 0;
    cancel_release(lease);

    Server_lease *device = zep_server_lease_find(&lease->server_leases, record_id.text);
    if (device)
        readmit(lease, device, device_type, ip_address, path.get());
    else if (!admit_new(lease, id, device_type, ip_address, mac_address, path.get(), mono_client))
        return 0;

    zep_routed_dhcp_cycle_kick(lease);
    zep_routed_slease_offer_all(lease);
    if (lease->status == LeaseStatus::Connected || lease->status == LeaseStatus::Internal)
        for (Server_lease *served : RecordsOf<Server_lease>(&lease->server_leases))
            if (!served->nat_mapped)
                routed_map_device(served, lease->ip_address);
    return 1;
}

bool zep_routed_slease_active_handler(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    if (reply_item_type(item) != reply_type_object)
        return true;
    auto *device = static_cast<Server_lease *>(data);
    const bool active = variant_bool(object_parameterValue(reply_item_object(item), "Active"));
    if (!device->active && active) {
        ZEP_INFO(zone, "Lease %s becomes Active", device->id);
        zep_routed_dhcp_cycle_kick(device->client_lease);
    }
    device->active = active;
    if (device->client_lease)
        zep_server_lease_obj_save(device->client_lease->name, device, 0);
    return true;
}

bool zep_routed_slease_ipaddress_handler(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    auto *device = static_cast<Server_lease *>(data);
    const notification_t *notification = reply_item_notification(item);
    if (notification_type(notification) != notification_value_changed)
        return true;
    const char *parameter = notification_text(notification, "parameter");
    const char *address = notification_text(notification, "newvalue");
    if (!parameter || strcmp(parameter, "IPAddress") != 0 || !address || strcmp(address, device->ip_address) == 0)
        return true;
    char old_address[sizeof device->ip_address];
    copy_text(old_address, device->ip_address);
    copy_text(device->ip_address, address);
    const Client_lease *lease = device->client_lease;
    if (!lease)
        return true;
    if (device->nat_mapped && zep_firewall_static_port_mapping_delete(old_address, lease->ip_address))
        device->nat_mapped =
            static_cast<uint8_t>(zep_firewall_static_port_mapping_append(device->ip_address, lease->ip_address));
    zep_server_lease_obj_save(lease->name, device, 0);
    return true;
}
