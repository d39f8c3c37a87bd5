#include "routed/lease_store.h"

#include "frame/trace.h"
#include "routed/lease_saves.h"

namespace {

enum { probe_attributes = 528445, listing_attributes = 4113, read_attributes = 131101 };

const char zone[] = "lease"; /* also the owner of the writes */
const char client_leases_path[] = "Keel.Zephyrin.ClientLease";

bool zep_client_lease_obj_add_done_handler(request_t *request, sysbus_t *, sysbus_t *, void *data) {
    auto *client_lease = static_cast<Client_lease *>(data);
    reply_t *reply = request_reply(request);
    bool failed = false;
    for (reply_item_t *item = reply_firstItem(reply); item && !failed; item = reply_nextItem(item)) {
        if (reply_item_type(item) != reply_type_error)
            continue;
        reply_addError(reply, reply_item_error(item), reply_item_errorDescription(item), reply_item_errorInfo(item));
        failed = true;
    }
    if (!failed && client_lease)
        for (const Server_lease *server_lease : RecordsOf<Server_lease>(&client_lease->server_leases))
            zep_server_lease_obj_save(client_lease->name, server_lease, 1);
    lease_save_finish(request);
    return true;
}

void zep_client_lease_obj_write(Client_lease *client_lease, bool add) {
    request_t *request = add ? request_create_addInstance(client_leases_path, 0, client_lease->name, 1)
                             : keel_request_create_setObject("Keel.Zephyrin.ClientLease.%s", client_lease->name);
    if (!request)
        return;
    add_text(request, "Name", client_lease->name);
    add_int32(request, "ClientIDOffset", client_lease->client_id_offset);
    add_text(request, "DHCPCStatus", lease_status_name(client_lease->status));
    add_text(request, "IPAddress", client_lease->ip_address);
    add_text(request, "SubnetMask", client_lease->subnet_mask);
    if (!add) {
        keel_request_push(zone, rig_getSysbus(), request, "Set Keel.Zephyrin.ClientLease.%s", client_lease->name);
        return;
    }
    request_setDoneHandler(request, zep_client_lease_obj_add_done_handler);
    request_setData(request, client_lease);
    lease_save_send(request, client_lease);
}

bool zep_client_lease_obj_save_handler(request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    auto *client_lease = static_cast<Client_lease *>(data);
    const uint32_t type = reply_item_type(item);
    if (type == reply_type_object)
        zep_client_lease_obj_write(client_lease, false);
    else if (type == reply_type_error)
        zep_client_lease_obj_write(client_lease, true);
    lease_save_finish(request);
    return true;
}

bool zep_client_lease_obj_flush_handler(request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *) {
    if (reply_item_type(item) != reply_type_object)
        return true;
    for (object_t *instance = object_firstInstance(reply_item_object(item)); instance;) {
        object_t *next = object_nextInstance(instance);
        zep_client_lease_obj_delete(object_name(instance, 1));
        instance = next;
    }
    request_destroy(request);
    return true;
}

bool zep_client_lease_parse_handler(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    if (reply_item_type(item) != reply_type_object)
        return true;
    auto *list = static_cast<llist_t *>(data);
    for (object_t *instance = object_firstInstance(reply_item_object(item)); instance;) {
        object_t *next = object_nextInstance(instance);
        if (!zep_client_lease_append_to_list(list, zep_client_lease_create_from_object(instance))) {
            ZEP_ERROR(zone, "Failed to parse Keel.Zephyrin.ClientLease.%s", object_name(instance, 1));
            zep_client_lease_obj_delete(object_name(instance, 1));
        }
        instance = next;
    }
    return true;
}

/* One stored device into the record: true when it is whole. */
bool zep_client_lease_add_server_lease_object(Client_lease *client_lease, const object_t *object) {
    const char *type_name = object_text(object, "DeviceType");
    DeviceType type = DeviceType::UNKNOWN;
    if (type_name && strcmp(type_name, "STB") == 0)
        type = DeviceType::STB;
    else if (type_name && strcmp(type_name, "ITF") == 0)
        type = DeviceType::ITF;
    Server_lease *server_lease =
        zep_server_lease_create(object_text(object, "Id"), type, object_text(object, "IPAddress"),
                                object_text(object, "MACAddress"), "", 0, nullptr, client_lease);
    if (!server_lease) {
        ZEP_ERROR(zone, "Failed to create Server lease from object_t");
        return false;
    }
    if (!zep_server_lease_append_to_list(&client_lease->server_leases, server_lease)) {
        ZEP_ERROR(zone, "Failed to load Server lease");
        zep_server_lease_cleanup(server_lease);
        return false;
    }
    return true;
}

} // namespace

void zep_client_lease_obj_save(Client_lease *client_lease) {
    if (!client_lease)
        return;
    char path[path_size];
    format_text(path, "Keel.Zephyrin.ClientLease.%s", client_lease->name);
    request_t *request = request_create_getObject(path, -1, probe_attributes);
    if (!request)
        return;
    request_setData(request, client_lease);
    request_setReplyItemHandler(request, zep_client_lease_obj_save_handler);
    lease_save_send(request, client_lease);
}

void zep_server_lease_obj_save(const char *client_name, const Server_lease *server_lease, int add) {
    if (is_empty(client_name) || !server_lease)
        return;
    request_t *request = nullptr;
    if (add) {
        char path[path_size];
        format_text(path, "Keel.Zephyrin.ClientLease.%s.ServerLease", client_name);
        request = request_create_addInstance(path, 0, server_lease->id, 1);
    } else {
        request =
            keel_request_create_setObject("Keel.Zephyrin.ClientLease.%s.ServerLease.%s", client_name, server_lease->id);
    }
    if (!request)
        return;
    add_text(request, "Id", server_lease->id);
    add_text(request, "DeviceType", device_type_name(server_lease->device_type));
    add_text(request, "IPAddress", server_lease->ip_address);
    add_text(request, "MACAddress", server_lease->mac_address);
    add_bool(request, "Active", server_lease->active != 0);
    keel_request_push(zone, rig_getSysbus(), request, "Add/Set ClientLease.%s.ServerLease.%s", client_name,
                      server_lease->id);
}

int zep_client_lease_obj_delete(const char *name) {
    if (is_empty(name))
        return 0;
    request_t *request = keel_request_create_deleteInstance("Keel.Zephyrin.ClientLease.%s", name);
    keel_request_push(zone, rig_getSysbus(), request, "Delete Keel.Zephyrin.ClientLease.%s", name);
    return 1;
}

int zep_client_lease_obj_flush_all_instances(void) {
    request_t *request = request_create_getObject(client_leases_path, 0, listing_attributes);
    request_setReplyItemHandler(request, zep_client_lease_obj_flush_handler);
    if (!hull_sendRequest(rig_getHull(), rig_getSysbus(), request)) {
        ZEP_ERROR(zone, "Failed to send request");
        request_destroy(request);
        return 0;
    }
    return 1;
}

int zep_client_lease_obj_parse(llist_t *list) {
    if (!list)
        return 0;
    request_t *request = request_create_getObject(client_leases_path, -1, read_attributes);
    request_setData(request, list);
    request_setReplyItemHandler(request, zep_client_lease_parse_handler);
    keel_request_invoke(zone, rig_getSysbus(), request, "Parse Keel.Zephyrin.ClientLease");
    request_destroy(request);
    return 1;
}

Client_lease *zep_client_lease_create_from_object(const object_t *object) {
    if (!object) {
        ZEP_ERROR(zone, "Null Client Lease Object");
        return nullptr;
    }
    Client_lease *client_lease = zep_client_lease_create(
        object_text(object, "Name"), object_text(object, "IPAddress"), object_text(object, "SubnetMask"),
        variant_int32(object_parameterValue(object, "ClientIDOffset")));
    if (!client_lease) {
        ZEP_WARNING(zone, "Failed to create new Client Lease");
        return nullptr;
    }
    unsigned failures = 0;
    const object_t *devices = object_getObject(const_cast<object_t *>(object), "ServerLease", 1, nullptr);
    for (object_t *device = object_firstInstance(devices); device; device = object_nextInstance(device))
        failures += zep_client_lease_add_server_lease_object(client_lease, device) ? 0 : 1;
    if (failures) {
        ZEP_WARNING(zone, "Failed to load Server lease");
        zep_client_lease_cleanup(client_lease);
        free(client_lease);
        return nullptr;
    }
    return client_lease;
}
