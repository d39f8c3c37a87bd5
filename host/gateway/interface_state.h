/*
 * What follows in the interface graph from the rest of it.
 */
#ifndef HOST_GATEWAY_INTERFACE_STATE_H
#define HOST_GATEWAY_INTERFACE_STATE_H

#include <map>
#include <string>

#include "host/gateway/graph.h"

namespace keel {

/* Keeps, one turn after every change of the graph, for the interfaces above and below what changed:
 * - the flag "up" of a logical interface that is no network device: whether a device below it is up;
 * - the flag "ipv4" of a network device: whether it is up and holds an enabled IPv4 address;
 * - the address instance "iptv" of an interface with an "IPTVAddress" ("ADDRESS/PREFIX"): the operator's fixed address,
 *   disabled until IPTV wants it; it stands again, disabled, after somebody has deleted the interface's addresses. */
class InterfaceState {
public:
    InterfaceState(Loop &loop, InterfaceGraph &graph);

private:
    void follow(const std::string &name);

    InterfaceGraph &graph_;
    GraphWatch watch_;
    std::map<std::string, std::string> told_; /* interface -> what was said of its fixed address, once */
};

/* The instance "iptv" of an interface's fixed address, if it has one and it does not stand: for who needs it at once.
 * Refused when the text is none of the form. */
Outcome provide_fixed_address(Model &model, const std::string &name);

} // namespace keel

#endif
