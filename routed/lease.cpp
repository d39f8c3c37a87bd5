#include "routed/lease.h"

#include "frame/trace.h"
#include "routed/dhcp_server.h"
#include "routed/lease_saves.h"

namespace {

enum { lease_watch_attributes = 7233 };

const char zone[] = "lease";
const char no_address[] = "0.0.0.0";

const char *const device_types[] = {"STB", "ITF", "UNKNOWN"};
const char *const lease_statuses[] = {"Unconnected", "Connected", "Internal", "Unleased"};
const char *const dhcpc_states[] = {"Idle", "Selecting", "Requesting", "Bound", "Renewing", "Rebinding"};

/* Watches the address of the device's lease object. */
request_t *watch_address(Server_lease *server_lease, request_reply_item_handler_t handler) {
    request_t *request = request_create_getObject(server_lease->lease_path, 0, lease_watch_attributes);
    request_addParameter(request, "IPAddress", nullptr);
    request_setData(request, server_lease);
    request_setReplyItemHandler(request, handler);
    hull_waitSendRequest(rig_getHull(), rig_getSysbus(), request);
    return request;
}

} // namespace

Client_lease *zep_client_lease_create(const char *name, const char *ip_address, const char *subnet_mask,
                                      int32_t client_id_offset) {
    if (!name) {
        ZEP_WARNING(zone, "Null clientid");
        return nullptr;
    }
    auto *client_lease = static_cast<Client_lease *>(calloc(1, sizeof(Client_lease)));
    if (!client_lease) {
        ZEP_ERROR(zone, "Failed to malloc Client_lease");
        return nullptr;
    }
    copy_text(client_lease->name, name);
    copy_text(client_lease->ip_address, ip_address ? ip_address : no_address);
    copy_text(client_lease->subnet_mask, subnet_mask ? subnet_mask : no_address);
    client_lease->client_id_offset = client_id_offset;
    client_lease->status = LeaseStatus::Unconnected;
    client_lease->dhcp_status = DhcpcState::Idle;
    variant_initialize(&client_lease->option121, variant_type_list);
    llist_initialize(&client_lease->server_leases);
    return client_lease;
}

int zep_client_lease_append_to_list(llist_t *list, Client_lease *client_lease) {
    if (!list || !client_lease)
        return 0;
    llist_iterator_initialize(&client_lease->link, client_lease);
    llist_append(list, &client_lease->link);
    return 1;
}

Client_lease *zep_client_lease_find(const llist_t *list, const char *name) {
    if (!name)
        return nullptr;
    for (Client_lease *client_lease : RecordsOf<Client_lease>(list))
        if (strcmp(client_lease->name, name) == 0)
            return client_lease;
    return nullptr;
}

void zep_client_lease_reinit(Client_lease *client_lease) {
    if (!client_lease) {
        ZEP_ERROR(zone, "Null client lease");
        return;
    }
    for (Server_lease *server_lease : RecordsOf<Server_lease>(&client_lease->server_leases))
        server_lease->nat_mapped = 0;
    copy_text(client_lease->ip_address, no_address);
    copy_text(client_lease->subnet_mask, no_address);
    variant_list_cleanup(variant_da_list(&client_lease->option121));
    client_lease->dhcp_status = DhcpcState::Idle;
    client_lease->status = LeaseStatus::Unconnected;
}

void zep_client_lease_cleanup(Client_lease *client_lease) {
    if (!client_lease)
        return;
    lease_saves_forget(client_lease);
    hull_timer_t **const timers[] = {&client_lease->start_timer, &client_lease->stop_timer,
                                     &client_lease->release_timer};
    for (hull_timer_t **timer : timers) {
        if (*timer)
            hull_timer_destroy(*timer);
        *timer = nullptr;
    }
    if (client_lease->status_request)
        request_destroy(client_lease->status_request);
    client_lease->status_request = nullptr;
    variant_cleanup(&client_lease->option121);
    while (llist_iterator_t *link = llist_takeFirst(&client_lease->server_leases))
        zep_server_lease_cleanup(static_cast<Server_lease *>(link->data));
}

int zep_client_lease_has_stb(const Client_lease *client_lease) {
    if (client_lease)
        for (const Server_lease *server_lease : RecordsOf<Server_lease>(&client_lease->server_leases))
            if (server_lease->device_type == DeviceType::STB)
                return 1;
    return 0;
}

int zep_client_lease_has_active_slease(const Client_lease *client_lease) {
    if (client_lease)
        for (const Server_lease *server_lease : RecordsOf<Server_lease>(&client_lease->server_leases))
            if (zep_server_lease_is_active(server_lease))
                return 1;
    return 0;
}

DhcpcState zep_client_lease_get_dhcpp_status(const char *text) {
    return static_cast<DhcpcState>(index_of_text(dhcpc_states, text));
}

Server_lease *zep_server_lease_create(const char *id, DeviceType device_type, const char *ip_address,
                                      const char *mac_address, const char *lease_path, int active,
                                      request_reply_item_handler_t handler, Client_lease *client_lease) {
    if (!id || !ip_address || !mac_address || !lease_path) {
        ZEP_WARNING(zone, "NULL argument");
        return nullptr;
    }
    auto *server_lease = static_cast<Server_lease *>(calloc(1, sizeof(Server_lease)));
    if (!server_lease) {
        ZEP_ERROR(zone, "Failed to malloc Server_lease");
        return nullptr;
    }
    copy_text(server_lease->lease_path, lease_path);
    copy_text(server_lease->id, id);
    copy_text(server_lease->ip_address, ip_address);
    copy_text(server_lease->mac_address, mac_address);
    for (char &letter : server_lease->mac_address)
        if (letter >= 'a' && letter <= 'z')
            letter = static_cast<char>(letter - 'a' + 'A');
    server_lease->device_type = device_type;
    server_lease->active = static_cast<uint8_t>(active);
    if (handler)
        server_lease->ip_request = watch_address(server_lease, handler);
    server_lease->client_lease = client_lease;
    return server_lease;
}

int zep_server_lease_update(Server_lease *server_lease, DeviceType device_type, const char *ip_address,
                            const char *lease_path, int active, request_reply_item_handler_t handler,
                            Client_lease *client_lease) {
    if (!server_lease || !ip_address)
        return 0;
    int changed = 0;
    if (server_lease->device_type != device_type) {
        server_lease->device_type = device_type;
        changed = 1;
    }
    if (strcmp(server_lease->ip_address, ip_address) != 0) {
        copy_text(server_lease->ip_address, ip_address);
        changed = 1;
    }
    if (server_lease->active != static_cast<uint8_t>(active)) {
        server_lease->active = static_cast<uint8_t>(active);
        changed = 1;
    }
    copy_text(server_lease->lease_path, lease_path ? lease_path : "");
    if (handler && !server_lease->ip_request)
        server_lease->ip_request = watch_address(server_lease, handler);
    server_lease->client_lease = client_lease;
    return changed;
}

int zep_server_lease_append_to_list(llist_t *list, Server_lease *server_lease) {
    if (!list || !server_lease)
        return 0;
    llist_iterator_initialize(&server_lease->link, server_lease);
    llist_append(list, &server_lease->link);
    return 1;
}

Server_lease *zep_server_lease_find(const llist_t *list, const char *id) {
    if (!list || !id)
        return nullptr;
    for (Server_lease *server_lease : RecordsOf<Server_lease>(list))
        if (strcmp(server_lease->id, id) == 0)
            return server_lease;
    return nullptr;
}

void zep_server_lease_cleanup(Server_lease *server_lease) {
    if (!server_lease) {
        ZEP_WARNING(zone, "NULL argument");
        return;
    }
    if (server_lease->ip_request)
        request_destroy(server_lease->ip_request);
    if (server_lease->active_request)
        request_destroy(server_lease->active_request);
    server_lease->client_lease = nullptr;
    free(server_lease);
}

int zep_server_lease_is_active(const Server_lease *server_lease) {
    return server_lease ? server_lease->active : 0;
}

void zep_server_lease_set_active_handler(Server_lease *server_lease, request_reply_item_handler_t handler) {
    if (!server_lease || server_lease->active_request)
        return;
    request_t *request = keel_request_create_getObject("Hosts.Host.%s", 0, server_lease->mac_address);
    request_addParameter(request, "Active", nullptr);
    request_setData(request, server_lease);
    request_setReplyItemHandler(request, handler);
    hull_waitSendRequest(rig_getHull(), rig_getSysbus(), request);
    server_lease->active_request = request;
}

DeviceType zep_server_lease_device_type(const char *text) {
    if (!text)
        return DeviceType::UNKNOWN;
    if (strcmp(text, "STB") == 0 || strcmp(text, zep_dhcp_server_pool_path_get(dhcp_pool_stb)) == 0)
        return DeviceType::STB;
    if (strcmp(text, "ITF") == 0 || strcmp(text, zep_dhcp_server_pool_path_get(dhcp_pool_itf)) == 0)
        return DeviceType::ITF;
    return DeviceType::UNKNOWN;
}

const char *device_type_name(DeviceType type) {
    return device_types[static_cast<uint32_t>(type)];
}

const char *lease_status_name(LeaseStatus status) {
    return lease_statuses[static_cast<uint32_t>(status)];
}
