/*
 * The classless static routes (DHCP option 121, RFC 3442): one set for the whole gateway, replaced when an identity
 * receives another, installed a second after the old one left.
 */
#include "frame/trace.h"
#include "routed/routed_state.h"

namespace {

const char zone[] = "routed";

/* A deferred installation cannot be called back. The latest one installs, unless the routes left the interface since.
 * Whether the host has taken it is not known, so each is counted as one that will come. */
unsigned installations_deferred = 0;
unsigned char latest_installation = 0; /* counts them, round and round */
char installations[256];               /* its place here is handed to the host for one */
bool installation_wanted = false;

void defer_installation(llist_t *list) {
    installation_wanted = true;
    ++installations_deferred;
    ++latest_installation;
    hull_timer_defer(zep_routed_add_routes, list, route_installation_delay_ms);
}

void install(llist_t *list) {
    installation_wanted = false;
    int position = 0;
    for (Route *route : RecordsOf<Route>(list)) {
        const OwnedText path(zep_ipv4_route_add(routed_state.iptv_intf, route, position++));
        if (!path.get())
            continue;
        ZEP_INFO(zone, "New %s added.", path.get());
        request_destroy(route->status_request);
        route->status_request = keel_request_create_getObject("%s", 0, path.get());
        request_addParameter(route->status_request, "Status", nullptr);
        request_setData(route->status_request, route);
        request_setReplyItemHandler(route->status_request, zep_routed_route_status_handler);
        hull_waitSendRequest(rig_getHull(), rig_getSysbus(), route->status_request);
    }
}

/* An installation left its place to a later one. Whatever was on its way then has come by now, or never will: if the
 * routes are still wanted, and none was deferred since, then the host has lost it. */
void make_up_for_lost(void *latest) {
    if (!installation_wanted || latest != &installations[latest_installation])
        return;
    installations_deferred = 0;
    install(&routed_state.routes);
}

bool in_force(const variant_map_t *received) {
    for (const Route *route : RecordsOf<Route>(&routed_state.routes)) {
        int result = 1;
        if (variant_map_compare(&route->params, received, &result) && result == 0)
            return true;
    }
    return false;
}

bool differs(const variant_list_t *received) {
    if (llist_size(&routed_state.routes) != variant_list_size(received))
        return true;
    for (auto *it = variant_list_first(received); it; it = variant_list_iterator_next(it))
        if (!in_force(variant_da_map(variant_list_iterator_data(it))))
            return true;
    return false;
}

} // namespace

bool zep_routed_dhcp_option121_handle(Client_lease *lease, uint8_t force) {
    if (!lease)
        return false;
    LocalVariant received(variant_type_list);
    variant_copy(received.get(), &lease->option121);
    if (!force && !differs(variant_da_list(received.get())))
        return false;
    ZEP_INFO(zone, "Update staticless routes.");
    zep_ipv4_route_copyList(&routed_state.routes, received.get());
    zep_ipv4_route_flush(routed_state.iptv_intf);
    defer_installation(&routed_state.routes);
    zep_common_set_zephyrin_static_routes(received.get());
    return true;
}

void zep_routed_add_routes(void *data) {
    if (installations_deferred > 0)
        --installations_deferred;
    if (!installation_wanted)
        return;
    if (installations_deferred == 0)
        install(static_cast<llist_t *>(data));
    else
        hull_timer_defer(make_up_for_lost, &installations[latest_installation], route_installation_delay_ms);
}

bool zep_routed_route_status_handler(request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    auto *route = static_cast<Route *>(data);
    if (!route || reply_item_type(item) != reply_type_object)
        return true;
    const OwnedText status(variant_char(object_parameterValue(reply_item_object(item), "Status")));
    if (!status.get() || strcmp(status.get(), "error") != 0) {
        route->status_error = 0;
        return true;
    }
    ZEP_INFO(zone, "%s.Status=error", request_path(request));
    route->status_error = 1;
    llist_t *list = route->link.list;
    for (const Route *other : RecordsOf<Route>(list))
        if (!other->status_error)
            return true;
    ZEP_INFO(zone, "re-create routes on %s", routed_state.iptv_intf);
    zep_ipv4_route_flush(routed_state.iptv_intf);
    defer_installation(list);
    return true;
}

void routed_install_routes(void) {
    if (llist_size(&routed_state.routes) > 0)
        defer_installation(&routed_state.routes);
}

void routed_cancel_route_installation(void) {
    installation_wanted = false;
}
