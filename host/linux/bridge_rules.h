/*
 * The ebtables rules that ought to stand: what is kept apart on layer 2.
 */
#ifndef HOST_LINUX_BRIDGE_RULES_H
#define HOST_LINUX_BRIDGE_RULES_H

#include <vector>

#include "host/gateway/graph.h"
#include "host/linux/firewall_rules.h"

namespace keel {

/* The calls of the chains, and the rules in them that follow from the interfaces, in every mode. */
std::vector<FirewallRule> expected_bridge_rules(const InterfaceGraph &graph);

} // namespace keel

#endif
