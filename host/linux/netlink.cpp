#include "host/linux/netlink.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/neighbour.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <stdexcept>

namespace keel {

namespace {

constexpr int own_protocol = 99;          /* of routes */
constexpr const char *own_label = ":zep"; /* at the end of an address's label */
constexpr std::size_t label_room = 15;

/* What libnl counts references of. */
template <typename T, void (*Put)(T *)> struct Putter {
    void operator()(T *object) const { Put(object); }
};
using Cache = std::unique_ptr<nl_cache, Putter<nl_cache, nl_cache_free>>;
using Address = std::unique_ptr<nl_addr, Putter<nl_addr, nl_addr_put>>;
using AddressObject = std::unique_ptr<rtnl_addr, Putter<rtnl_addr, rtnl_addr_put>>;
using RouteObject = std::unique_ptr<rtnl_route, Putter<rtnl_route, rtnl_route_put>>;
using NeighbourObject = std::unique_ptr<rtnl_neigh, Putter<rtnl_neigh, rtnl_neigh_put>>;

template <typename T> void each(const Cache &cache, const std::function<void(T *)> &take) {
    if (!cache)
        return;
    for (nl_object *object = nl_cache_get_first(cache.get()); object; object = nl_cache_get_next(object))
        take(reinterpret_cast<T *>(object));
}

Cache dump(nl_sock *socket, const char *kind, int family) {
    nl_cache *raw = nullptr;
    if (nl_cache_alloc_name(kind, &raw) < 0)
        return nullptr;
    Cache cache(raw);
    nl_cache_set_arg1(raw, family);
    return nl_cache_refill(socket, raw) < 0 ? nullptr : std::move(cache);
}

std::string dotted(const nl_addr *address) {
    char text[INET_ADDRSTRLEN];
    if (!address || nl_addr_get_family(address) != AF_INET || nl_addr_get_len(address) != 4)
        return "";
    return inet_ntop(AF_INET, nl_addr_get_binary_addr(address), text, sizeof text) ? text : "";
}

std::string mac_of(const nl_addr *address) {
    char text[32];
    if (!address || nl_addr_get_len(address) != 6)
        return "";
    std::string mac = nl_addr2str(address, text, sizeof text);
    for (char &letter : mac)
        letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    return mac;
}

Address parse(const std::string &dotted_text, int prefix) {
    nl_addr *raw = nullptr;
    if (nl_addr_parse(dotted_text.c_str(), AF_INET, &raw) < 0)
        return nullptr;
    nl_addr_set_prefixlen(raw, prefix);
    return Address(raw);
}

std::string outcome(int result, int harmless) {
    return result >= 0 || result == -harmless ? "" : nl_geterror(result);
}

AddressObject address_object(int link, const std::string &address, int prefix) {
    const Address local = parse(address, prefix);
    AddressObject object(rtnl_addr_alloc());
    if (!local || !object || rtnl_addr_set_local(object.get(), local.get()) < 0)
        return nullptr;
    rtnl_addr_set_ifindex(object.get(), link);
    return object;
}

RouteObject route_object(const KernelRoute &route) {
    const Address destination = parse(route.destination, route.prefix);
    const Address gateway = parse(route.gateway, 32);
    RouteObject object(rtnl_route_alloc());
    if (!destination || !gateway || !object)
        return nullptr;
    rtnl_route_set_family(object.get(), AF_INET);
    rtnl_route_set_table(object.get(), RT_TABLE_MAIN);
    rtnl_route_set_protocol(object.get(), own_protocol);
    rtnl_route_set_dst(object.get(), destination.get());
    rtnl_nexthop *hop = rtnl_route_nh_alloc();
    rtnl_route_nh_set_ifindex(hop, route.link);
    /* "0.0.0.0" for the router means: on the link itself (RFC 3442) */
    if (route.gateway != "0.0.0.0")
        rtnl_route_nh_set_gateway(hop, gateway.get());
    else
        rtnl_route_set_scope(object.get(), RT_SCOPE_LINK);
    rtnl_route_add_nexthop(object.get(), hop);
    return object;
}

} // namespace

std::string link_address(const std::string &name) {
    ifreq request{};
    const int socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    const bool found = socket_fd >= 0 && ioctl(socket_fd, SIOCGIFHWADDR, &request) == 0;
    if (socket_fd >= 0)
        close(socket_fd);
    if (!found)
        return "";
    const auto *bytes = reinterpret_cast<const unsigned char *>(request.ifr_hwaddr.sa_data);
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                  bytes[5]);
    return text;
}

struct Netlink::Poll {
    uv_poll_t handle;
    Netlink *owner;
};

Netlink::Netlink(UvLoop &loop, std::function<void()> changed) : changed_(std::move(changed)) {
    requests_ = nl_socket_alloc();
    events_ = nl_socket_alloc();
    if (!requests_ || !events_ || nl_connect(requests_, NETLINK_ROUTE) < 0 || nl_connect(events_, NETLINK_ROUTE) < 0)
        throw std::runtime_error("no netlink socket");
    nl_socket_disable_seq_check(events_);
    nl_socket_set_nonblocking(events_);
    nl_socket_add_memberships(events_, RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEIGH, 0);
    /* The events only say that something changed; what is, is asked for. */
    nl_socket_modify_cb(
        events_, NL_CB_VALID, NL_CB_CUSTOM, [](nl_msg *, void *) -> int { return NL_OK; }, nullptr);
    poll_ = new Poll{{}, this};
    uv_poll_init(loop.handle(), &poll_->handle, nl_socket_get_fd(events_));
    poll_->handle.data = poll_;
    uv_poll_start(&poll_->handle, UV_READABLE, [](uv_poll_t *handle, int, int) {
        Netlink *self = static_cast<Poll *>(handle->data)->owner;
        while (nl_recvmsgs_default(self->events_) >= 0) {
        }
        self->changed_(); /* also after an overrun, in which messages were lost */
    });
}

Netlink::~Netlink() {
    uv_poll_stop(&poll_->handle);
    uv_close(reinterpret_cast<uv_handle_t *>(&poll_->handle),
             [](uv_handle_t *handle) { delete static_cast<Poll *>(handle->data); });
    nl_socket_free(requests_);
    nl_socket_free(events_);
}

std::vector<KernelLink> Netlink::links() {
    std::vector<KernelLink> all;
    each<rtnl_link>(dump(requests_, "route/link", AF_UNSPEC), [&](rtnl_link *link) {
        const unsigned flags = rtnl_link_get_flags(link);
        all.push_back(
            {rtnl_link_get_ifindex(link), rtnl_link_get_name(link), (flags & IFF_UP) && (flags & IFF_RUNNING)});
    });
    return all;
}

std::vector<KernelAddress> Netlink::addresses() {
    std::vector<KernelAddress> all;
    each<rtnl_addr>(dump(requests_, "route/addr", AF_UNSPEC), [&](rtnl_addr *address) {
        if (rtnl_addr_get_family(address) != AF_INET)
            return;
        const char *label = rtnl_addr_get_label(address);
        all.push_back({rtnl_addr_get_ifindex(address), dotted(rtnl_addr_get_local(address)),
                       rtnl_addr_get_prefixlen(address), label && std::string(label).ends_with(own_label)});
    });
    return all;
}

std::vector<KernelRoute> Netlink::routes() {
    std::vector<KernelRoute> all;
    each<rtnl_route>(dump(requests_, "route/route", AF_INET), [&](rtnl_route *route) {
        if (rtnl_route_get_protocol(route) != own_protocol || rtnl_route_get_nnexthops(route) != 1)
            return;
        rtnl_nexthop *hop = rtnl_route_nexthop_n(route, 0);
        nl_addr *destination = rtnl_route_get_dst(route);
        const nl_addr *gateway = rtnl_route_nh_get_gateway(hop);
        const std::string network = dotted(destination);
        all.push_back({rtnl_route_nh_get_ifindex(hop), network.empty() ? "0.0.0.0" : network,
                       static_cast<int>(nl_addr_get_prefixlen(destination)), gateway ? dotted(gateway) : "0.0.0.0"});
    });
    return all;
}

std::vector<KernelNeighbour> Netlink::neighbours() {
    std::vector<KernelNeighbour> all;
    constexpr int gone = NUD_INCOMPLETE | NUD_FAILED | NUD_NONE;
    each<rtnl_neigh>(dump(requests_, "route/neigh", AF_UNSPEC), [&](rtnl_neigh *neighbour) {
        const int state = rtnl_neigh_get_state(neighbour);
        const std::string address = dotted(rtnl_neigh_get_dst(neighbour));
        if (!address.empty() && !(state > 0 && (state & NUD_NOARP))) /* IPv4, and no multicast group */
            all.push_back({rtnl_neigh_get_ifindex(neighbour), mac_of(rtnl_neigh_get_lladdr(neighbour)), address,
                           state > 0 && !(state & gone)});
    });
    return all;
}

std::vector<KernelNeighbour> Netlink::bridge_forwarding() {
    std::vector<KernelNeighbour> all;
    each<rtnl_neigh>(dump(requests_, "route/neigh", AF_BRIDGE), [&](rtnl_neigh *entry) {
        const int state = rtnl_neigh_get_state(entry);
        if (rtnl_neigh_get_family(entry) == AF_BRIDGE && !(state > 0 && (state & NUD_PERMANENT)))
            all.push_back({rtnl_neigh_get_ifindex(entry), mac_of(rtnl_neigh_get_lladdr(entry)), "", true});
    });
    return all;
}

std::string Netlink::add_address(const KernelLink &link, const std::string &address, int prefix) {
    const AddressObject object = address_object(link.index, address, prefix);
    if (!object)
        return "no IPv4 address";
    const std::string label = link.name.substr(0, label_room - std::string(own_label).size()) + own_label;
    rtnl_addr_set_label(object.get(), label.c_str());
    return outcome(rtnl_addr_add(requests_, object.get(), 0), NLE_EXIST);
}

std::string Netlink::delete_address(const KernelAddress &address) {
    const AddressObject object = address_object(address.link, address.address, address.prefix);
    return object ? outcome(rtnl_addr_delete(requests_, object.get(), 0), NLE_NOADDR) : "no IPv4 address";
}

std::string Netlink::add_route(const KernelRoute &route) {
    const RouteObject object = route_object(route);
    return object ? outcome(rtnl_route_add(requests_, object.get(), NLM_F_EXCL), 0) : "no IPv4 route";
}

std::string Netlink::delete_route(const KernelRoute &route) {
    const RouteObject object = route_object(route);
    return object ? outcome(rtnl_route_delete(requests_, object.get(), 0), NLE_OBJ_NOTFOUND) : "no IPv4 route";
}

void Netlink::probe(const KernelNeighbour &neighbour) {
    const Address address = parse(neighbour.address, 32);
    nl_addr *mac = nullptr;
    const NeighbourObject object(rtnl_neigh_alloc());
    if (!address || !object || nl_addr_parse(neighbour.mac.c_str(), AF_LLC, &mac) < 0)
        return;
    const Address owned_mac(mac);
    rtnl_neigh_set_ifindex(object.get(), neighbour.link);
    rtnl_neigh_set_dst(object.get(), address.get());
    rtnl_neigh_set_lladdr(object.get(), mac);
    rtnl_neigh_set_state(object.get(), NUD_PROBE);
    rtnl_neigh_add(requests_, object.get(), NLM_F_REPLACE);
}

} // namespace keel
