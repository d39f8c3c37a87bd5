/*
 * How a WAN DHCP client shows in the data model, below its "Weft.Intf" instance; shared by the real clients and their
 * twins.
 */
#ifndef HOST_GATEWAY_WAN_CLIENT_MODEL_H
#define HOST_GATEWAY_WAN_CLIENT_MODEL_H

#include <functional>
#include <map>
#include <string>

#include "host/gateway/graph.h"

namespace keel {

/* The interfaces that are to run a client: flag "dhcp", "Enable" true, and a network device below that is up. */
class WantedWanClients {
public:
    using Start = std::function<void(const std::string &name, const std::string &device)>;
    using Stop = std::function<void(const std::string &name)>;

    /* Calls start and stop a turn after the graph has changed, the stops first; a client whose device has become
     * another one is stopped and started. Neither is called by the destructor. */
    WantedWanClients(Loop &loop, InterfaceGraph &graph, Start start, Stop stop);

private:
    void follow(const GraphWatch::Names &touched);
    std::string device_for(const std::string &name) const; /* "": no client is wanted */

    InterfaceGraph &graph_;
    Start start_;
    Stop stop_;
    std::map<std::string, std::string> started_; /* name -> device */
    GraphWatch watch_;
};

/* The state; with "Idle" the lease of the gateway's own client is over. The addresses of the routed mode's clients
 * (flag "zep-dhcp") are the plug-in's to put in force; that of another one stands as its IPv4Addr.dhcp. */
void set_wan_status(Model &model, const std::string &name, const std::string &status);
/* "RemoteNack", told anew also when the last error was one. */
void set_wan_nak(Model &model, const std::string &name);
/* Address, mask and received options, then "Bound": whoever sees the state finds the values in place. */
void set_wan_bound(Model &model, const std::string &name, const std::string &address, const std::string &mask,
                   const std::map<int, std::string> &options);

} // namespace keel

#endif
