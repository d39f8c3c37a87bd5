/*
 * What an operator's DHCP server leases to a WAN client, and whether a gateway can live with it.
 */
#ifndef HOST_GATEWAY_WAN_LEASE_H
#define HOST_GATEWAY_WAN_LEASE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/model/model.h"

namespace keel {

struct WanLease {
    std::string address;                /* dotted */
    std::string mask;                   /* dotted */
    std::map<int, std::string> options; /* hexadecimal texts */
};

/* Whether a client of that state ("DHCPStatus") has a lease, new or being prolonged. */
bool holds_lease(const std::string &status);

struct LeaseFault {
    std::string of;   /* "address", "mask", "option 42" */
    std::string text; /* of, the value, and what is wrong with it; for a person */
};

/* Why the gateway cannot use the address with its mask, nothing when it can. It must be one that a host can have, in a
 * network of that mask, and lie outside the networks of the LAN server's pools: one of the LAN's would draw to the WAN
 * what belongs to the gateway or to a device there. */
std::optional<LeaseFault> address_fault(const Model &model, const WanLease &lease);

/* Takes out the options that are no hexadecimal text, those that hold addresses (routers, name, NTP and WWW servers) of
 * another length than such a list has, and routes that are none. An empty list of addresses stays: the operator has
 * none. One fault for each taken out. */
std::vector<LeaseFault> drop_faulty_options(WanLease &lease);

} // namespace keel

#endif
