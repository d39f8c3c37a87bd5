#include "routed/ip_route.h"

#include <arpa/inet.h>

#include "frame/trace.h"

namespace {

const char zone[] = "ip_route"; /* also the owner of the writes */
const char own_prefix[] = "zep_";

/* The instances of one kind below an interface. */
object_t *instances_of(const char *intf, const char *kind) {
    char path[path_size];
    format_text(path, "Weft.Intf.%s.%s", intf, kind);
    return hull_client_get_object(rig_getSysbus(), path);
}

const variant_t *param(const Route *route, const char *name) {
    return variant_map_iterator_data(variant_map_find(&route->params, name));
}

} // namespace

void zep_ipv4_route_copyList(llist_t *list, const variant_t *source) {
    ZEP_INFO(zone, "Copy routes into Zephyrin_IPRoute list.");
    zep_ipv4_route_cleanupList(list);
    auto *it = variant_list_first(variant_da_list(source));
    for (; it; it = variant_list_iterator_next(it)) {
        auto *route = static_cast<Route *>(calloc(1, sizeof(Route)));
        if (!route)
            continue;
        variant_map_initialize(&route->params);
        variant_toMap(&route->params, variant_list_iterator_data(it));
        llist_iterator_initialize(&route->link, route);
        llist_append(list, &route->link);
    }
}

void zep_ipv4_route_cleanupList(llist_t *list) {
    ZEP_INFO(zone, "Cleanup Zephyrin_IPRoute list.");
    ip_route_release(list);
}

void ip_route_release(llist_t *list) {
    while (llist_iterator_t *link = llist_takeFirst(list)) {
        auto *route = static_cast<Route *>(link->data);
        variant_map_cleanup(&route->params);
        request_destroy(route->status_request);
        route->status_request = nullptr;
        free(route);
    }
}

char *zep_ipv4_route_add(const char *intf, const Route *route, int n) {
    if (is_empty(intf)) /* the IPTV path is on no interface now */
        return nullptr;
    const char *destination = variant_da_char(param(route, "Destination"));
    const uint8_t prefix_length = variant_uint8(param(route, "PrefixLength"));
    const char *router = variant_da_char(param(route, "Router"));
    if (!destination || !router) {
        ZEP_INFO(zone, "Ignoring incomplete route Destination=%s PrefixLength=%u Router=%s",
                 destination ? destination : "(null)", prefix_length, router ? router : "(null)");
        return nullptr;
    }
    request_t *request = keel_request_create_addInstance("Weft.Intf.%s.IPv4Route.zep_%d", intf, n);
    add_text(request, "Dst", destination);
    add_uint8(request, "DstLen", prefix_length);
    add_text(request, "Gateway", router);
    add_bool(request, "Enable", true);
    keel_request_push(zone, rig_getSysbus(), request, "Add Weft.Intf.%s.IPv4Route.zep_%d", intf, n);
    char *path = nullptr;
    if (asprintf(&path, "Weft.Intf.%s.IPv4Route.zep_%d", intf, n) < 0) {
        ZEP_ERROR(zone, "asprintf failed");
        return nullptr;
    }
    return path;
}

void zep_ipv4_route_flush(const char *intf) {
    if (is_empty(intf))
        return;
    object_t *instance = object_firstInstance(instances_of(intf, "IPv4Route"));
    for (; instance; instance = object_nextInstance(instance)) {
        const char *name = object_name(instance, 1);
        if (!name || strncmp(name, own_prefix, strlen(own_prefix)) != 0)
            continue;
        request_t *request = keel_request_create_deleteInstance("Weft.Intf.%s.IPv4Route.%s", intf, name);
        keel_request_push(zone, rig_getSysbus(), request, "Delete Weft.Intf.%s.IPv4Route.%s", intf, name);
    }
    hull_cacheClear(rig_getHull());
}

uint8_t zep_ipv4_mask_to_prefixlen(const char *mask) {
    in_addr address;
    if (is_empty(mask) || !inet_aton(mask, &address))
        return 0;
    uint8_t length = 0;
    for (uint32_t bits = ntohl(address.s_addr); bits & 0x80000000U; bits <<= 1)
        ++length;
    return length;
}

char *zep_ipv4_addr_find(const char *intf, const char *address, uint8_t *prefixOut) {
    if (is_empty(intf) || is_empty(address))
        return nullptr;
    object_t *instance = object_firstInstance(instances_of(intf, "IPv4Addr"));
    for (; instance; instance = object_nextInstance(instance)) {
        const char *text = object_text(instance, "Address");
        if (text && strcmp(text, address) == 0)
            break;
    }
    if (!instance)
        return nullptr;
    if (prefixOut)
        *prefixOut = variant_uint8(object_parameterValue(instance, "PrefixLen"));
    return object_pathChar(instance, 1);
}

void zep_ipv4_addr_add(const char *intf, const char *address, const char *mask) {
    if (is_empty(intf) || is_empty(address))
        return;
    const uint8_t prefix = zep_ipv4_mask_to_prefixlen(mask);
    if (prefix == 0) {
        ZEP_WARNING(zone, "Invalid subnetmask value %s", mask ? mask : "(null)");
        return;
    }
    uint8_t found_prefix = 0;
    const OwnedText found(zep_ipv4_addr_find(intf, address, &found_prefix));
    if (found.get() && found_prefix == prefix)
        return;
    request_t *request = keel_request_create_addInstance("Weft.Intf.%s.IPv4Addr.", intf);
    add_text(request, "Address", address);
    add_bool(request, "Enable", true);
    add_uint8(request, "PrefixLen", prefix);
    add_text(request, "Flags", "permanent");
    keel_request_push(zone, rig_getSysbus(), request, "Add new instance of Weft.Intf.%s.IPv4Addr", intf);
}

void zep_ipv4_addr_del(const char *intf, const char *address, const char *mask) {
    uint8_t found_prefix = 0;
    const OwnedText found(zep_ipv4_addr_find(intf, address, &found_prefix));
    if (!found.get() || found_prefix != zep_ipv4_mask_to_prefixlen(mask))
        return;
    request_t *request = keel_request_create_deleteInstance("%s", found.get());
    keel_request_push(zone, rig_getSysbus(), request, "delete %s", found.get());
}

void zep_ipv4_addr_flush(const char *intf) {
    if (is_empty(intf))
        return;
    object_t *addresses = instances_of(intf, "IPv4Addr");
    for (object_t *instance = object_firstInstance(addresses); instance;) {
        object_t *next = object_nextInstance(instance);
        object_delete(instance);
        instance = next;
    }
    object_commit(addresses);
}
