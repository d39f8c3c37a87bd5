/*
 * The kernel's tables as the host knows them: read once, and kept by what the kernel tells.
 */
#ifndef HOST_LINUX_KERNEL_TABLES_H
#define HOST_LINUX_KERNEL_TABLES_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "host/linux/event_socket.h"
#include "host/linux/netlink.h"
#include "host/model/recheck.h"

namespace keel {

/* Which rows have changed since the last time it was told. */
struct KernelChanges {
    std::set<std::pair<int, std::string>> links; /* index and name; of one that was renamed, both names */
    std::set<int> addresses;                     /* the links that hold them */
    std::set<int> routes;                        /* the same, of our own routes */
    bool others_routes = false;                  /* what others' routes refused may be possible now */
    /* The devices of which a neighbour or forwarding entry has changed: MAC address -> the IPv4 address at which it has
     * become reachable, or "". */
    std::map<std::string, std::string> devices;
};

/* Holds all links, IPv4 addresses, IPv4 neighbours and bridge forwarding entries, and the routes of our own protocol
 * number. A message of the kernel costs one look-up, however much there is; all tables are read again only when
 * messages were lost, and once a minute in case one never came. */
class KernelTables {
public:
    using Subscriber = std::function<void(const KernelChanges &)>;
    using SubscriptionId = std::uint64_t;

    static constexpr int default_buffer_bytes = 4 << 20;

    /* Throws std::runtime_error when the kernel cannot be talked to. */
    explicit KernelTables(UvLoop &loop, int buffer_bytes = default_buffer_bytes);
    KernelTables(const KernelTables &) = delete;
    KernelTables &operator=(const KernelTables &) = delete;
    ~KernelTables();

    /* Calls the subscriber once on a later turn than changes; of the host's own ones it is told only what came of them
     * that was not asked for. */
    SubscriptionId subscribe(Subscriber subscriber);
    void unsubscribe(SubscriptionId id);

    /* Rows. Pointers stay valid until the next turn or catch_up(). */
    const std::map<int, KernelLink> &links() const { return links_; }
    const KernelLink *link(int index) const;
    const KernelLink *link(const std::string &name) const;
    std::vector<KernelAddress> addresses(int link) const;
    std::vector<KernelRoute> routes(int link) const;
    std::vector<KernelNeighbour> neighbours(int link) const;
    std::vector<KernelNeighbour> neighbours_of(const std::string &mac) const;
    std::vector<KernelForwarding> forwarding_of(const std::string &mac) const;
    /* Every MAC address of the neighbours and forwarding entries. */
    std::set<std::string> devices() const;

    /* Changes, as Netlink's. */
    std::string add_address(const KernelLink &link, const std::string &address, int prefix);
    std::string delete_address(const KernelAddress &address);
    std::string add_route(const KernelRoute &route);
    std::string delete_route(const KernelRoute &route);
    void probe(const KernelNeighbour &neighbour) { netlink_.probe(neighbour); }
    /* Asked for at this moment, not kept. */
    std::vector<KernelMembership> memberships(int bridge) { return netlink_.memberships(bridge); }

    /* Takes in what the kernel has told up to now, without waiting for the loop. */
    void catch_up() { events_.read(); }
    /* How often all tables were read, and how many messages were applied one by one. */
    std::uint64_t full_reads() const { return full_reads_; }
    std::uint64_t messages() const { return messages_; }

private:
    using AddressKey = std::tuple<int, std::string, int>;              /* link, address, prefix */
    using RouteKey = std::tuple<int, std::string, int, std::string>;   /* link, destination, prefix, gateway */
    using RoutePlace = std::tuple<std::string, int, int, std::string>; /* destination, prefix, link, gateway */
    using NeighbourKey = std::pair<int, std::string>;                  /* link, address */
    using ForwardingKey = std::tuple<std::string, int, int>;           /* MAC address, bridge, VLAN */

    void take(const KernelMessage &message);
    /* asked: by the host itself, so there is nobody to tell. */
    void keep(const KernelLink &link);
    void keep(const KernelAddress &address, bool asked = false);
    void keep(const KernelRoute &route, bool asked = false);
    void keep(const KernelNeighbour &neighbour);
    void keep(const KernelForwarding &entry);
    void forget(const KernelLink &link);
    void forget(const KernelAddress &address, bool asked = false);
    void forget(const KernelRoute &route, bool asked = false);
    void forget(const KernelNeighbour &neighbour);
    void forget(const KernelForwarding &entry);
    void forget_routes(int link);
    void forget_routes_to(const std::string &destination, int prefix);
    void unlist(const NeighbourKey &key, const std::string &mac);
    void note_device(const std::string &mac, const std::string &reached = "");
    void note_routes(int link);
    void tell();

    void events_lost();
    void read_in(std::uint64_t milliseconds);
    bool read_all(std::string *error);
    void read_again();
    template <typename Key, typename Record>
    bool read_table(KernelTable table, const std::map<Key, Record> &kept, std::string *error);

    UvLoop &loop_;
    Netlink netlink_;
    OnceATurn telling_;
    std::map<int, KernelLink> links_;
    std::map<std::string, int> link_names_;
    std::map<AddressKey, KernelAddress> addresses_;
    std::map<RouteKey, KernelRoute> routes_;
    std::set<RoutePlace> route_places_;
    std::map<NeighbourKey, KernelNeighbour> neighbours_;
    std::map<std::string, std::set<NeighbourKey>> neighbours_by_mac_;
    std::map<ForwardingKey, KernelForwarding> forwarding_;
    KernelChanges changes_; /* not told yet */
    std::vector<std::pair<SubscriptionId, Subscriber>> subscribers_;
    SubscriptionId last_subscription_ = 0;
    std::uint64_t full_reads_ = 0;
    std::uint64_t messages_ = 0;
    std::uint64_t last_read_ms_ = 0;
    bool unreadable_ = false; /* has been traced */
    Loop::TimerId reading_ = 0;
    EventSocket events_; /* last: it hands over to the tables */
};

} // namespace keel

#endif
