#include "host/linux/presence.h"

#include <set>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr std::uint64_t ask_every_ms = 30000;
constexpr std::size_t max_hosts = 256;
constexpr const char *hosts_path = "Hosts.Host";

struct Seen {
    std::string address;
    std::string port;
    bool active = false;
};

} // namespace

Presence::Presence(UvLoop &loop, InterfaceGraph &graph)
    : loop_(loop), graph_(graph), model_(graph.model()), looking_(loop, [this] { look(); }),
      netlink_(loop, [this] { looking_.schedule(); }) {
    look();
    ask();
}

Presence::~Presence() {
    loop_.cancel_timer(asking_);
}

/* The kernel's number of the LAN bridge; 0 when there is none. */
int Presence::bridge() {
    for (const KernelLink &link : netlink_.links())
        if (graph_.has_flag(link.name, "bridge"))
            return link.index;
    return 0;
}

void Presence::look() {
    const int lan = bridge();
    std::map<int, KernelLink> links;
    for (const KernelLink &link : netlink_.links())
        links[link.index] = link;
    std::map<std::string, Seen> seen;
    for (const KernelNeighbour &entry : netlink_.bridge_forwarding()) {
        const auto port = links.find(entry.link);
        if (entry.mac.empty() || port == links.end() || entry.link == lan)
            continue;
        if (ports_.size() >= 4 * max_hosts) /* somebody makes up addresses */
            ports_.clear();
        ports_[entry.mac] = entry.link;
        seen[entry.mac].active = port->second.up;
    }
    for (const KernelNeighbour &neighbour : netlink_.neighbours()) {
        if (neighbour.link != lan || neighbour.mac.empty())
            continue; /* one that failed has no MAC address any more */
        Seen &host = seen[neighbour.mac];
        const auto port = ports_.find(neighbour.mac);
        const bool carrier = port == ports_.end() || links[port->second].up;
        host.active = host.active || (neighbour.valid && carrier);
        if (neighbour.valid || host.address.empty())
            host.address = neighbour.address;
    }
    std::set<std::string> known;
    for (const std::string &mac : model_.instances(hosts_path)) {
        known.insert(mac);
        if (!seen.contains(mac))
            model_.set(std::string(hosts_path) + "." + mac, {{"Active", false}});
    }
    for (const auto &[mac, host] : seen) {
        const auto port = ports_.find(mac);
        Values values{{"Active", host.active},
                      {"Port", port == ports_.end() ? std::string() : links[port->second].name}};
        if (!host.address.empty())
            values["IPAddress"] = host.address;
        if (known.contains(mac)) {
            model_.set(std::string(hosts_path) + "." + mac, values);
        } else if (known.size() < max_hosts) {
            known.insert(mac);
            values["MACAddress"] = mac;
            model_.add(hosts_path, mac, values);
        }
    }
}

void Presence::ask() {
    const int lan = bridge();
    for (const KernelNeighbour &neighbour : netlink_.neighbours())
        if (neighbour.link == lan && neighbour.valid)
            netlink_.probe(neighbour);
    asking_ = loop_.start_timer(ask_every_ms, [this] { ask(); });
}

} // namespace keel
