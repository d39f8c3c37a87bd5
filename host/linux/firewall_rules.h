/*
 * The rules that ought to stand for the service, and those that do.
 */
#ifndef HOST_LINUX_FIREWALL_RULES_H
#define HOST_LINUX_FIREWALL_RULES_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/gateway/graph.h"

namespace keel {

constexpr const char *concerns_nobody = "none";
constexpr const char *bridge_family = "bridge "; /* before the name of a table of ebtables */

struct FirewallRule {
    std::string table;
    std::string chain;
    std::string rule;    /* as iptables-save, or ebtables-save, tells it, after "-A CHAIN " */
    std::string what;    /* for people: "the SNAT rule for 192.168.1.20" */
    std::string address; /* of the LAN device that needs it; "" for all of them, or concerns_nobody */
    bool first = false;  /* it belongs before the others of its chain */
    bool certain = true; /* false: it may be right that it does not stand, if it never has */

    /* What tells it from all others. */
    std::string key() const { return table + " " + chain + " " + rule; }
    bool is_of_bridge() const { return table.starts_with(bridge_family); }
    /* It lets one device through; and it is one of the four of one that is mapped onto a WAN address. */
    bool is_of_device() const;
    bool is_of_mapping() const;
};

/* What has gone through a device's mapping since its rules were made. */
struct Traffic {
    std::uint64_t packets_out = 0; /* from the device to the operator */
    std::uint64_t packets_in = 0;
};

/* What iptables-save -c and ebtables-save tell. */
class SavedRules {
public:
    /* One line of them, in their order. */
    void take(const std::string &line);
    void take_of_bridge(const std::string &line);
    /* Nothing is missing at the end of what iptables-save has told. */
    bool is_whole() const { return table_.empty(); }
    bool has(const FirewallRule &rule) const { return packets_.contains(rule.key()); }
    /* That have met the rule; 0 when it is not there. */
    std::uint64_t packets(const FirewallRule &rule) const;
    bool has_chain(const std::string &table, const std::string &chain) const {
        return chains_.contains(table + " " + chain);
    }

private:
    std::string table_;
    std::string bridge_table_;
    std::map<std::string, std::uint64_t> packets_; /* by the rule's key */
    std::set<std::string> chains_;
};

/* The rules of the chains' own set-up (share/chains.sh plan), from its lines. */
std::vector<FirewallRule> planned_rules(const std::vector<std::string> &plan);
/* All that ought to stand: the planned ones, and those that follow from the model, of the interfaces and the devices
 * that are served in the mode. */
std::vector<FirewallRule> expected_rules(const std::vector<FirewallRule> &planned, const InterfaceGraph &graph);
/* By LAN address, of the devices whose rules are among the expected ones and stand. */
std::map<std::string, Traffic> traffic_of(const std::vector<FirewallRule> &expected, const SavedRules &saved);
/* What iptables-restore, or ebtables-restore, is told to put those rules of its own, and the chains that they need,
 * back where they are not; "" when none of them is its own. */
std::string restore_text(const std::vector<FirewallRule> &missing, const SavedRules &saved, bool bridge);
/* What iptables-restore is told to take rules that stand away. */
std::string removal_text(const std::vector<FirewallRule> &rules);

} // namespace keel

#endif
