#include "host/linux/bridge_rules.h"

#include <string>

namespace keel {

namespace {

std::vector<std::string> interfaces(const InterfaceGraph &graph, const char *start, Traversal traversal,
                                    const char *flags) {
    Expression condition;
    std::string error;
    Expression::parse(Expression::Syntax::Flags, flags, &condition, &error);
    return graph.reach(start, traversal, condition);
}

FirewallRule bridge_rule(const char *table, const char *chain, const std::string &rule, const std::string &what) {
    return {bridge_family + std::string(table), chain, rule, what, concerns_nobody};
}

/* What must not leave by a device; the condition is in two pieces, since ebtables tells the device in between. */
struct Output {
    const char *chain;
    const char *start;
    Traversal traversal;
    const char *flags;
    const char *before;
    const char *after;
    const char *what;
};

constexpr Output outputs[] = {
    {"POSTROUTING_No_DHCP", "iptv", Traversal::Down, "netdev && vlan && !zep-dhcp-vlan", "-p IPv4 ",
     " --ip-proto udp --ip-dport 67:68", "DHCP"},
    {"POSTROUTING_No_IGMP", "iptv", Traversal::Down, "netdev && zep-no-igmp", "-d 01:00:5e:00:00:00/ff:ff:ff:00:00:00 ",
     "", "multicast"},
    {"POSTROUTING_Only_IGMP", "lo", Traversal::All, "netdev && zep-only-igmp",
     "-d ! 01:00:5e:00:00:00/ff:ff:ff:00:00:00 ", "", "all but multicast"},
};

constexpr const char *isolation = "FORWARD_Isolation";

} // namespace

std::vector<FirewallRule> expected_bridge_rules(const InterfaceGraph &graph) {
    std::vector<FirewallRule> all;
    const auto jump = [&all](const char *table, const char *from, const char *to) {
        all.push_back(bridge_rule(table, from, std::string("-j ") + to, std::string("the jump to ") + to));
    };
    for (const Output &one : outputs) {
        jump("nat", "POSTROUTING", one.chain);
        for (const std::string &name : interfaces(graph, one.start, one.traversal, one.flags))
            all.push_back(bridge_rule("nat", one.chain, one.before + ("-o " + name) + one.after + " -j DROP",
                                      std::string("the rule that keeps ") + one.what + " from " + name));
    }
    jump("filter", "FORWARD", isolation);
    const auto apart = interfaces(graph, "iptv", Traversal::Down, "(vlan || atm) && netdev && up && !zep-lan-iptv");
    for (const std::string &from : apart)
        for (const std::string &to : apart)
            if (from != to)
                all.push_back(bridge_rule("filter", isolation, "-i " + from + " -o " + to + " -j DROP",
                                          "the rule that keeps " + from + " from " + to));
    return all;
}

} // namespace keel
