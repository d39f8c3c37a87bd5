/*
 * The links of the chain on the operator's side: WAN client, lease, address, rules, routes and multicast.
 */
#ifndef KEELCTL_WAN_LINKS_H
#define KEELCTL_WAN_LINKS_H

#include "keelctl/gateway.h"
#include "keelctl/walk.h"

namespace keelctl {

/* Of a device that has an identity: its client, what the operator says to it, and its address on the interface. */
bool has_wan_lease(Gateway &gateway, const Device &device, Walk &walk);
bool rules_are_missing(const Gateway &gateway, const Device &device);
bool has_rules(Gateway &gateway, const Device &device, Walk &walk);
bool has_routes(Gateway &gateway, Walk &walk);
bool has_multicast(Gateway &gateway, const Device &device, Walk &walk);

} // namespace keelctl

#endif
