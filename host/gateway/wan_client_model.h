/*
 * How a WAN DHCP client shows in the data model, below its "Weft.Intf" instance; shared by the real clients and their
 * twins.
 */
#ifndef HOST_GATEWAY_WAN_CLIENT_MODEL_H
#define HOST_GATEWAY_WAN_CLIENT_MODEL_H

#include <map>
#include <string>
#include <vector>

#include "host/model/model.h"

namespace keel {

/* The interfaces that are to run a client: flag "dhcp", "Enable" true, and a network device below that is up. Name of
 * the interface -> name of the device. */
std::map<std::string, std::string> wanted_wan_clients(const Model &model);

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
