/*
 * Which devices are on the LAN: "Hosts.Host.*" of the data model.
 */
#ifndef HOST_LINUX_PRESENCE_H
#define HOST_LINUX_PRESENCE_H

#include <map>
#include <string>

#include "host/gateway/graph.h"
#include "host/linux/netlink.h"

namespace keel {

/* Keeps a "Hosts.Host" instance, named by the MAC address, for every device seen on the LAN bridge (the interface with
 * the flag "bridge"). "Active" while the bridge knows the device behind a port with carrier, or the neighbour table
 * holds it as not gone. Devices are asked now and then, so that one that vanished behind a switch is noticed within
 * minutes. */
class Presence {
public:
    Presence(UvLoop &loop, InterfaceGraph &graph);
    Presence(const Presence &) = delete;
    Presence &operator=(const Presence &) = delete;
    ~Presence();

private:
    void look();
    void ask();
    int bridge();

    UvLoop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    OnceATurn looking_;
    Netlink netlink_;
    std::map<std::string, int> ports_; /* MAC -> the port it was last seen behind */
    Loop::TimerId asking_ = 0;
};

} // namespace keel

#endif
