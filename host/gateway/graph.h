/*
 * The graph of interfaces as the data model holds it: "Weft.Intf.*" with their "Flags" and, in "LowerLayers", the links
 * to what lies below, in the order in which they were made. Pure reading.
 */
#ifndef HOST_GATEWAY_GRAPH_H
#define HOST_GATEWAY_GRAPH_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/model/expression.h"
#include "host/model/model.h"

namespace keel {

enum class Traversal { This, Down, DownExclusive, Up, OneLevelDown, OneLevelUp, All };

/* The traversal of that text (platform/weft.h), or nothing. */
std::optional<Traversal> parse_traversal(std::string_view text);

std::string interface_path(std::string_view name);
bool interface_exists(const Model &model, std::string_view name);
/* "" when there is no such interface. */
std::string interface_flags(const Model &model, std::string_view name);

/* The interfaces reached that satisfy the condition, breadth first, links in their order, each once; empty when there
 * is no such start. Links to interfaces that do not exist lead nowhere. */
std::vector<std::string> reach(const Model &model, std::string_view start, Traversal traversal,
                               const Expression &condition = {});
/* Whether a link of the upper interface over the lower one would close a loop. */
bool would_loop(const Model &model, std::string_view upper, std::string_view lower);
/* The first network device at or below an interface, "" for none. */
std::string netdev_below(const Model &model, std::string_view name);
/* The paths of the address instances that a network device holds: its own, and the leases of the DHCP interfaces that
 * it is the device of. */
std::vector<std::string> interface_addresses(const Model &model, const std::string &device);

} // namespace keel

#endif
