#include "host/linux/netlink.h"

#include <arpa/inet.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/neighbour.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <memory>
#include <stdexcept>

#include "host/base/text_forms.h"

namespace keel {

namespace {

constexpr int own_protocol = 99;          /* of routes */
constexpr const char *own_label = ":zep"; /* at the end of an address's label */
constexpr std::size_t label_room = 15;
constexpr int dump_attempts = 5;
constexpr std::size_t message_room = 65536;

/* What libnl counts references of. */
template <typename T, void (*Put)(T *)> struct Putter {
    void operator()(T *object) const { Put(object); }
};
using Message = std::unique_ptr<nl_msg, Putter<nl_msg, nlmsg_free>>;
using Callbacks = std::unique_ptr<nl_cb, Putter<nl_cb, nl_cb_put>>;
using Address = std::unique_ptr<nl_addr, Putter<nl_addr, nl_addr_put>>;
using AddressObject = std::unique_ptr<rtnl_addr, Putter<rtnl_addr, rtnl_addr_put>>;
using RouteObject = std::unique_ptr<rtnl_route, Putter<rtnl_route, rtnl_route_put>>;
using NeighbourObject = std::unique_ptr<rtnl_neigh, Putter<rtnl_neigh, rtnl_neigh_put>>;

/* The attributes of a message by their number; null for what it does not hold. */
template <int Highest> class Attributes {
public:
    template <typename Header> bool read(const nlmsghdr *header, const Header **fixed) {
        if (!nlmsg_valid_hdr(header, sizeof(Header)) ||
            nlmsg_parse(const_cast<nlmsghdr *>(header), sizeof(Header), all_, Highest, nullptr) < 0)
            return false;
        *fixed = static_cast<const Header *>(nlmsg_data(header));
        return true;
    }
    /* The bytes, if it has as many. */
    const std::uint8_t *bytes(int number, int size) const {
        return all_[number] && nla_len(all_[number]) == size ? static_cast<const std::uint8_t *>(nla_data(all_[number]))
                                                             : nullptr;
    }
    int number(int attribute, int fallback = 0) const {
        return bytes(attribute, 4) ? static_cast<int>(nla_get_u32(all_[attribute])) : fallback;
    }
    int short_number(int attribute) const { return bytes(attribute, 2) ? nla_get_u16(all_[attribute]) : 0; }
    std::string dotted(int attribute) const {
        const std::uint8_t *address = bytes(attribute, 4);
        return address ? format_ipv4(network_number(address)) : "";
    }
    std::string mac(int attribute) const {
        const std::uint8_t *address = bytes(attribute, 6);
        return address ? format_mac(address) : "";
    }
    std::string text(int attribute) const { return text_in(all_[attribute]); }
    /* The text of an attribute that lies within another. */
    std::string text(int attribute, int inner) const {
        nlattr *found = all_[attribute] ? nla_find(static_cast<nlattr *>(nla_data(all_[attribute])),
                                                   nla_len(all_[attribute]), inner)
                                        : nullptr;
        return text_in(found);
    }
    bool has(int attribute) const { return all_[attribute]; }

private:
    static std::string text_in(const nlattr *attribute) {
        if (!attribute)
            return "";
        const std::string whole(static_cast<const char *>(nla_data(attribute)),
                                static_cast<std::size_t>(nla_len(attribute)));
        return whole.substr(0, whole.find('\0'));
    }

    nlattr *all_[Highest + 1] = {};
};

std::optional<KernelMessage> read_link(const nlmsghdr *header) {
    Attributes<IFLA_MAX> attributes;
    const ifinfomsg *fixed = nullptr;
    /* of a bridge's family they tell of ports, and "deleted" then means: taken out of the bridge */
    if (!attributes.read(header, &fixed) || fixed->ifi_family != AF_UNSPEC)
        return std::nullopt;
    const bool enabled = fixed->ifi_flags & IFF_UP;
    return KernelMessage{header->nlmsg_type == RTM_DELLINK, false, false,
                         KernelLink{fixed->ifi_index, attributes.text(IFLA_IFNAME), enabled,
                                    enabled && (fixed->ifi_flags & IFF_RUNNING),
                                    attributes.text(IFLA_LINKINFO, IFLA_INFO_KIND) == "bridge"}};
}

std::optional<KernelMessage> read_address(const nlmsghdr *header) {
    Attributes<IFA_MAX> attributes;
    const ifaddrmsg *fixed = nullptr;
    if (!attributes.read(header, &fixed) || fixed->ifa_family != AF_INET || !attributes.bytes(IFA_LOCAL, 4))
        return std::nullopt;
    return KernelMessage{header->nlmsg_type == RTM_DELADDR, false, false,
                         KernelAddress{static_cast<int>(fixed->ifa_index), attributes.dotted(IFA_LOCAL),
                                       fixed->ifa_prefixlen, attributes.text(IFA_LABEL).ends_with(own_label)}};
}

std::optional<KernelMessage> read_route(const nlmsghdr *header) {
    Attributes<RTA_MAX> attributes;
    const rtmsg *fixed = nullptr;
    if (!attributes.read(header, &fixed) || fixed->rtm_family != AF_INET ||
        attributes.number(RTA_TABLE, fixed->rtm_table) != RT_TABLE_MAIN || fixed->rtm_flags & RTM_F_CLONED)
        return std::nullopt;
    const bool several_ways = attributes.has(RTA_MULTIPATH);
    const std::string destination = attributes.dotted(RTA_DST);
    const std::string gateway = attributes.dotted(RTA_GATEWAY);
    return KernelMessage{header->nlmsg_type == RTM_DELROUTE, fixed->rtm_protocol != own_protocol || several_ways,
                         (header->nlmsg_flags & NLM_F_REPLACE) && attributes.number(RTA_PRIORITY) == 0,
                         KernelRoute{attributes.number(RTA_OIF), destination.empty() ? "0.0.0.0" : destination,
                                     fixed->rtm_dst_len, gateway.empty() ? "0.0.0.0" : gateway}};
}

std::optional<KernelMessage> read_neighbour(const nlmsghdr *header) {
    Attributes<NDA_MAX> attributes;
    const ndmsg *fixed = nullptr;
    if (!attributes.read(header, &fixed))
        return std::nullopt;
    const bool deleted = header->nlmsg_type == RTM_DELNEIGH;
    const std::string mac = attributes.mac(NDA_LLADDR);
    if (fixed->ndm_family == AF_BRIDGE) {
        const int bridge = attributes.number(NDA_MASTER);
        if (mac.empty() || bridge == 0)
            return std::nullopt;
        return KernelMessage{deleted || fixed->ndm_state & NUD_PERMANENT, false, false, /* permanent: its own address */
                             KernelForwarding{bridge, fixed->ndm_ifindex, mac, attributes.short_number(NDA_VLAN)}};
    }
    if (fixed->ndm_family != AF_INET || fixed->ndm_flags & NTF_PROXY || !attributes.bytes(NDA_DST, 4))
        return std::nullopt;
    const int state = fixed->ndm_state;
    const bool valid = state != NUD_NONE && !(state & (NUD_INCOMPLETE | NUD_FAILED));
    return KernelMessage{
        deleted || state & NUD_NOARP, false, false, /* that: a multicast group */
        KernelNeighbour{fixed->ndm_ifindex, attributes.dotted(NDA_DST), mac, valid, (state & NUD_PERMANENT) != 0}};
}

/* The question for a whole table. */
nl_msg *question_of(KernelTable table) {
    const auto ask = [](int type, const auto &fixed) {
        nl_msg *message = nlmsg_alloc_simple(type, NLM_F_REQUEST | NLM_F_DUMP);
        if (message)
            nlmsg_append(message, const_cast<void *>(static_cast<const void *>(&fixed)), sizeof fixed, NLMSG_ALIGNTO);
        return message;
    };
    ifaddrmsg address{};
    rtmsg route{};
    ndmsg neighbour{};
    switch (table) {
    case KernelTable::Links:
        return ask(RTM_GETLINK, ifinfomsg{});
    case KernelTable::Addresses:
        address.ifa_family = AF_INET;
        return ask(RTM_GETADDR, address);
    case KernelTable::Routes: /* a kernel that checks strictly sends those of this protocol alone */
        route.rtm_family = AF_INET;
        route.rtm_protocol = own_protocol;
        return ask(RTM_GETROUTE, route);
    default:
        neighbour.ndm_family = table == KernelTable::Neighbours ? AF_INET : AF_BRIDGE;
        return ask(RTM_GETNEIGH, neighbour);
    }
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

std::optional<KernelMessage> read_kernel_message(const nlmsghdr *header) {
    switch (header->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return read_link(header);
    case RTM_NEWADDR:
    case RTM_DELADDR:
        return read_address(header);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        return read_route(header);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
        return read_neighbour(header);
    default:
        return std::nullopt;
    }
}

void for_each_message(const std::uint8_t *data, std::size_t size,
                      const std::function<void(const KernelMessage &)> &take) {
    auto rest = static_cast<unsigned>(size);
    for (const auto *header = reinterpret_cast<const nlmsghdr *>(data); NLMSG_OK(header, rest);
         header = NLMSG_NEXT(header, rest))
        if (const auto message = read_kernel_message(header))
            take(*message);
}

std::string link_address(const std::string &name) {
    ifreq request{};
    const int socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    const bool found = socket_fd >= 0 && ioctl(socket_fd, SIOCGIFHWADDR, &request) == 0;
    if (socket_fd >= 0)
        close(socket_fd);
    if (!found)
        return "";
    std::string mac = format_mac(reinterpret_cast<const std::uint8_t *>(request.ifr_hwaddr.sa_data));
    for (char &letter : mac)
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return mac;
}

Netlink::Netlink() {
    if (!connect())
        throw std::runtime_error("no netlink socket");
}

Netlink::~Netlink() {
    nl_socket_free(socket_);
}

bool Netlink::connect() {
    nl_socket_free(socket_);
    socket_ = nl_socket_alloc();
    if (!socket_ || nl_connect(socket_, NETLINK_ROUTE) < 0)
        return false;
    nl_socket_set_msg_buf_size(socket_, message_room);
    const int on = 1; /* an older kernel refuses, and then sends all routes */
    setsockopt(nl_socket_get_fd(socket_), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
    return true;
}

/* Takes the question. */
int Netlink::ask(nl_msg *question, int (*take)(nl_msg *answer, void *to), void *to) {
    const Message owned(question);
    const Callbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    if (!owned || !callbacks)
        throw std::bad_alloc();
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, take, to);
    const int sent = socket_ ? nl_send_auto(socket_, owned.get()) : -NLE_BAD_SOCK;
    return sent < 0 ? sent : nl_recvmsgs(socket_, callbacks.get());
}

std::vector<KernelMembership> Netlink::memberships(int bridge) {
    struct Found {
        int bridge;
        std::vector<KernelMembership> all;
    } found{bridge, {}};
    const auto take = [](nl_msg *message, void *to) -> int {
        auto &into = *static_cast<Found *>(to);
        const nlmsghdr *header = nlmsg_hdr(message);
        if (header->nlmsg_type != RTM_GETMDB && header->nlmsg_type != RTM_NEWMDB)
            return NL_OK;
        const auto *fixed = static_cast<const br_port_msg *>(nlmsg_data(header));
        nlattr *table = nlmsg_find_attr(const_cast<nlmsghdr *>(header), sizeof *fixed, MDBA_MDB);
        if (static_cast<int>(fixed->ifindex) != into.bridge || !table)
            return NL_OK;
        nlattr *entry = nullptr;
        nlattr *one = nullptr;
        int entries_left = 0;
        int left = 0;
        nla_for_each_nested(entry, table, entries_left) nla_for_each_nested(one, entry, left) {
            br_mdb_entry joined{};
            if (nla_type(one) != MDBA_MDB_ENTRY_INFO || nla_memcpy(&joined, one, sizeof joined) < int{sizeof joined} ||
                joined.addr.proto != htons(ETH_P_IP))
                continue;
            into.all.push_back({static_cast<int>(joined.ifindex), format_ipv4(ntohl(joined.addr.u.ip4))});
        }
        return NL_OK;
    };
    nl_msg *question = nlmsg_alloc_simple(RTM_GETMDB, NLM_F_REQUEST | NLM_F_DUMP);
    br_port_msg fixed{};
    fixed.family = AF_BRIDGE;
    if (question)
        nlmsg_append(question, &fixed, sizeof fixed, NLMSG_ALIGNTO);
    if (ask(question, take, &found) < 0)
        connect();
    return found.all;
}

std::optional<std::vector<KernelMessage>> Netlink::dump(KernelTable table, std::string *error) {
    std::vector<KernelMessage> all;
    int result = -NLE_DUMP_INTR;
    for (int attempt = 0; attempt < dump_attempts && result == -NLE_DUMP_INTR; ++attempt) {
        all.clear(); /* what changed meanwhile may be there twice or not at all */
        const auto take = [](nl_msg *message, void *to) -> int {
            const auto record = read_kernel_message(nlmsg_hdr(message));
            if (record && !record->gone && !record->others)
                static_cast<std::vector<KernelMessage> *>(to)->push_back(*record);
            return NL_OK;
        };
        result = ask(question_of(table), take, &all);
    }
    if (result >= 0)
        return all;
    *error = nl_geterror(result);
    if (result != -NLE_DUMP_INTR)
        connect(); /* whatever is left of the answer must not be taken for the next one's */
    return std::nullopt;
}

std::string Netlink::add_address(const KernelLink &link, const std::string &address, int prefix) {
    const AddressObject object = address_object(link.index, address, prefix);
    if (!object)
        return "no IPv4 address";
    const std::string label = link.name.substr(0, label_room - std::string(own_label).size()) + own_label;
    rtnl_addr_set_label(object.get(), label.c_str());
    return outcome(rtnl_addr_add(socket_, object.get(), 0), NLE_EXIST);
}

std::string Netlink::delete_address(const KernelAddress &address) {
    const AddressObject object = address_object(address.link, address.address, address.prefix);
    return object ? outcome(rtnl_addr_delete(socket_, object.get(), 0), NLE_NOADDR) : "no IPv4 address";
}

std::string Netlink::add_route(const KernelRoute &route) {
    const RouteObject object = route_object(route);
    return object ? outcome(rtnl_route_add(socket_, object.get(), NLM_F_EXCL), 0) : "no IPv4 route";
}

std::string Netlink::delete_route(const KernelRoute &route) {
    const RouteObject object = route_object(route);
    return object ? outcome(rtnl_route_delete(socket_, object.get(), 0), NLE_OBJ_NOTFOUND) : "no IPv4 route";
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
    rtnl_neigh_add(socket_, object.get(), NLM_F_REPLACE);
}

} // namespace keel
