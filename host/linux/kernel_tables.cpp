#include "host/linux/kernel_tables.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <stdexcept>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr std::uint64_t read_every_ms = 60000;
constexpr std::uint64_t between_reads_ms = 1000; /* under a storm that goes on */

int key_of(const KernelLink &link) {
    return link.index;
}

std::tuple<int, std::string, int> key_of(const KernelAddress &address) {
    return {address.link, address.address, address.prefix};
}

std::tuple<int, std::string, int, std::string> key_of(const KernelRoute &route) {
    return {route.link, route.destination, route.prefix, route.gateway};
}

std::pair<int, std::string> key_of(const KernelNeighbour &neighbour) {
    return {neighbour.link, neighbour.address};
}

std::tuple<std::string, int, int> key_of(const KernelForwarding &entry) {
    return {entry.mac, entry.bridge, entry.vlan};
}

/* The rows from the key on of which the condition holds. */
template <typename Key, typename Record, typename Condition>
std::vector<Record> rows(const std::map<Key, Record> &table, const Key &first, Condition condition) {
    std::vector<Record> found;
    for (auto at = table.lower_bound(first); at != table.end() && condition(at->second); ++at)
        found.push_back(at->second);
    return found;
}

} // namespace

KernelTables::KernelTables(UvLoop &loop, int buffer_bytes)
    : loop_(loop), telling_(loop, [this] { tell(); }),
      events_(loop,
              {NETLINK_ROUTE,
               {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEIGH},
               buffer_bytes,
               "kernel"},
              {[this](const std::uint8_t *data, std::size_t size) {
                   for_each_message(data, size, [this](const KernelMessage &message) {
                       ++messages_;
                       take(message);
                   });
               },
               [this] { events_lost(); }, nullptr}) {
    std::string error;
    if (!read_all(&error))
        throw std::runtime_error("the kernel's tables cannot be read: " + error);
    changes_ = {};
    read_in(read_every_ms);
}

KernelTables::~KernelTables() {
    loop_.cancel_timer(reading_);
}

KernelTables::SubscriptionId KernelTables::subscribe(Subscriber subscriber) {
    subscribers_.emplace_back(++last_subscription_, std::move(subscriber));
    return last_subscription_;
}

void KernelTables::unsubscribe(SubscriptionId id) {
    std::erase_if(subscribers_, [&](const auto &one) { return one.first == id; });
}

void KernelTables::tell() {
    const KernelChanges changes = std::exchange(changes_, {});
    const auto subscribers = subscribers_;
    for (const auto &[id, subscriber] : subscribers)
        subscriber(changes);
}

/* ------------------------------------------------------------------------------------------------------ rows */

const KernelLink *KernelTables::link(int index) const {
    const auto found = links_.find(index);
    return found == links_.end() ? nullptr : &found->second;
}

const KernelLink *KernelTables::link(const std::string &name) const {
    const auto found = link_names_.find(name);
    return found == link_names_.end() ? nullptr : link(found->second);
}

std::vector<KernelAddress> KernelTables::addresses(int link) const {
    return rows(addresses_, AddressKey{link, "", 0}, [&](const KernelAddress &a) { return a.link == link; });
}

std::vector<KernelRoute> KernelTables::routes(int link) const {
    return rows(routes_, RouteKey{link, "", 0, ""}, [&](const KernelRoute &r) { return r.link == link; });
}

std::vector<KernelNeighbour> KernelTables::neighbours(int link) const {
    return rows(neighbours_, NeighbourKey{link, ""}, [&](const KernelNeighbour &n) { return n.link == link; });
}

std::vector<KernelNeighbour> KernelTables::neighbours_of(const std::string &mac) const {
    std::vector<KernelNeighbour> found;
    const auto keys = neighbours_by_mac_.find(mac);
    if (keys != neighbours_by_mac_.end())
        for (const NeighbourKey &key : keys->second)
            found.push_back(neighbours_.at(key));
    return found;
}

std::vector<KernelForwarding> KernelTables::forwarding_of(const std::string &mac) const {
    return rows(forwarding_, ForwardingKey{mac, 0, 0}, [&](const KernelForwarding &entry) { return entry.mac == mac; });
}

std::set<std::string> KernelTables::devices() const {
    std::set<std::string> all;
    for (const auto &[mac, keys] : neighbours_by_mac_)
        all.insert(mac);
    for (const auto &[key, entry] : forwarding_)
        all.insert(entry.mac);
    return all;
}

/* --------------------------------------------------------------------------------------------------- changes */

std::string KernelTables::add_address(const KernelLink &link, const std::string &address, int prefix) {
    std::string error = netlink_.add_address(link, address, prefix);
    if (error.empty())
        keep(KernelAddress{link.index, address, prefix, true}, true);
    return error;
}

std::string KernelTables::delete_address(const KernelAddress &address) {
    std::string error = netlink_.delete_address(address);
    if (error.empty())
        forget(address, true);
    return error;
}

std::string KernelTables::add_route(const KernelRoute &route) {
    std::string error = netlink_.add_route(route);
    if (error.empty())
        keep(route, true);
    return error;
}

std::string KernelTables::delete_route(const KernelRoute &route) {
    std::string error = netlink_.delete_route(route);
    if (error.empty())
        forget(route, true);
    return error;
}

/* -------------------------------------------------------------------------------------------------- messages */

void KernelTables::take(const KernelMessage &message) {
    if (const auto *route = std::get_if<KernelRoute>(&message.record)) {
        if (message.replaces)
            forget_routes_to(route->destination, route->prefix);
        if (message.others) {
            changes_.others_routes = true;
            telling_.schedule();
            return;
        }
    }
    std::visit([&](const auto &record) { message.gone ? forget(record) : keep(record); }, message.record);
}

void KernelTables::keep(const KernelLink &link) {
    const auto found = links_.find(link.index);
    if (found != links_.end()) {
        if (found->second.enabled && !link.enabled)
            forget_routes(link.index);
        if (found->second == link)
            return;
        if (found->second.name != link.name)
            forget(KernelLink(found->second));
    }
    links_[link.index] = link;
    link_names_[link.name] = link.index;
    changes_.links.emplace(link.index, link.name);
    telling_.schedule();
}

void KernelTables::forget(const KernelLink &link) {
    const auto found = links_.find(link.index);
    if (found == links_.end())
        return;
    const auto name = link_names_.find(found->second.name);
    if (name != link_names_.end() && name->second == link.index) /* its name may be another's by now */
        link_names_.erase(name);
    changes_.links.emplace(link.index, found->second.name);
    telling_.schedule();
    links_.erase(found);
}

void KernelTables::keep(const KernelAddress &address, bool asked) {
    const auto [at, added] = addresses_.try_emplace(key_of(address), address);
    if (!added && at->second == address)
        return;
    at->second = address;
    if (asked)
        return;
    changes_.addresses.insert(address.link);
    telling_.schedule();
}

void KernelTables::forget(const KernelAddress &address, bool asked) {
    if (addresses_.erase(key_of(address)) == 0)
        return;
    const auto other = addresses_.lower_bound({address.link, "", 0});
    if (other == addresses_.end() || other->second.link != address.link)
        forget_routes(address.link);
    if (asked)
        return;
    changes_.addresses.insert(address.link);
    telling_.schedule();
}

void KernelTables::keep(const KernelRoute &route, bool asked) {
    if (!routes_.try_emplace(key_of(route), route).second)
        return;
    route_places_.emplace(route.destination, route.prefix, route.link, route.gateway);
    if (!asked)
        note_routes(route.link);
}

void KernelTables::forget(const KernelRoute &route, bool asked) {
    if (routes_.erase(key_of(route)) == 0)
        return;
    route_places_.erase({route.destination, route.prefix, route.link, route.gateway});
    if (!asked)
        note_routes(route.link);
}

/* With the last address of a link, and when it is put down, its routes go without a word. */
void KernelTables::forget_routes(int link) {
    for (const KernelRoute &route : routes(link))
        forget(route);
}

void KernelTables::forget_routes_to(const std::string &destination, int prefix) {
    while (true) {
        const auto at = route_places_.lower_bound({destination, prefix, 0, ""});
        if (at == route_places_.end() || std::get<0>(*at) != destination || std::get<1>(*at) != prefix)
            return;
        forget(KernelRoute{std::get<2>(*at), destination, prefix, std::get<3>(*at)});
    }
}

void KernelTables::note_routes(int link) {
    changes_.routes.insert(link);
    telling_.schedule();
}

void KernelTables::keep(const KernelNeighbour &neighbour) {
    const NeighbourKey key = key_of(neighbour);
    const auto [at, added] = neighbours_.try_emplace(key);
    if (!added && at->second == neighbour)
        return;
    const KernelNeighbour before = std::exchange(at->second, neighbour);
    if (before.mac != neighbour.mac) {
        unlist(key, before.mac);
        if (!neighbour.mac.empty())
            neighbours_by_mac_[neighbour.mac].insert(key);
    }
    const bool reached = neighbour.valid && !(before.valid && before.mac == neighbour.mac);
    note_device(before.mac);
    note_device(neighbour.mac, reached ? neighbour.address : "");
}

void KernelTables::forget(const KernelNeighbour &neighbour) {
    const auto found = neighbours_.find(key_of(neighbour));
    if (found == neighbours_.end())
        return;
    unlist(found->first, found->second.mac);
    note_device(found->second.mac);
    neighbours_.erase(found);
}

void KernelTables::unlist(const NeighbourKey &key, const std::string &mac) {
    const auto keys = neighbours_by_mac_.find(mac);
    if (keys == neighbours_by_mac_.end())
        return;
    keys->second.erase(key);
    if (keys->second.empty())
        neighbours_by_mac_.erase(keys);
}

void KernelTables::keep(const KernelForwarding &entry) {
    const auto [at, added] = forwarding_.try_emplace(key_of(entry), entry);
    if (!added && at->second == entry)
        return;
    at->second = entry;
    note_device(entry.mac);
}

void KernelTables::forget(const KernelForwarding &entry) {
    if (forwarding_.erase(key_of(entry)) != 0)
        note_device(entry.mac);
}

void KernelTables::note_device(const std::string &mac, const std::string &reached) {
    if (mac.empty())
        return;
    std::string &address = changes_.devices[mac];
    if (!reached.empty())
        address = reached;
    telling_.schedule();
}

/* --------------------------------------------------------------------------------------------------- reading */

void KernelTables::events_lost() {
    trace(Level::Info, "kernel", "events of the kernel are missing: its tables are read again");
    const std::uint64_t since = loop_.now_ms() - last_read_ms_;
    if (since >= between_reads_ms)
        read_again();
    else
        read_in(between_reads_ms - since);
}

void KernelTables::read_in(std::uint64_t milliseconds) {
    loop_.cancel_timer(reading_);
    reading_ = loop_.start_timer(milliseconds, [this] { read_again(); });
}

void KernelTables::read_again() {
    const std::uint64_t before = full_reads_;
    events_.read(); /* also, to find that the socket is of no use any more */
    if (full_reads_ != before)
        return;
    std::string error;
    const bool done = read_all(&error);
    if (!done && !unreadable_)
        trace(Level::Warning, "kernel", "the kernel's tables cannot be read: %s; it is tried again", error.c_str());
    else if (done && unreadable_)
        trace(Level::Info, "kernel", "the kernel's tables can be read again");
    unreadable_ = !done;
    read_in(done ? read_every_ms : between_reads_ms);
}

bool KernelTables::read_all(std::string *error) {
    ++full_reads_;
    last_read_ms_ = loop_.now_ms();
    changes_.others_routes = true; /* of those nobody knows */
    telling_.schedule();
    return read_table(KernelTable::Links, links_, error) && read_table(KernelTable::Addresses, addresses_, error) &&
           read_table(KernelTable::Routes, routes_, error) && read_table(KernelTable::Neighbours, neighbours_, error) &&
           read_table(KernelTable::Forwarding, forwarding_, error);
}

template <typename Key, typename Record>
bool KernelTables::read_table(KernelTable table, const std::map<Key, Record> &kept, std::string *error) {
    const auto there = netlink_.dump(table, error);
    if (!there)
        return false;
    std::map<Key, Record> gone = kept;
    for (const KernelMessage &message : *there) {
        take(message);
        gone.erase(key_of(std::get<Record>(message.record)));
    }
    for (const auto &[key, record] : gone)
        take({true, false, false, record});
    return true;
}

} // namespace keel
