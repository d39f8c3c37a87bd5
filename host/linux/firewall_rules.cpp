#include "host/linux/firewall_rules.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "host/base/text_forms.h"
#include "host/gateway/settings.h"
#include "host/gateway/wan_lease.h"

namespace keel {

namespace {

constexpr std::string_view append = "-A ";
constexpr std::string_view once = "once ";
constexpr std::string_view chain_prefix = "Firewall.Chain.";

/* "-A CHAIN RULE" of a table. */
FirewallRule rule_of(const std::string &table, std::string_view line) {
    line.remove_prefix(append.size());
    const auto blank = std::min(line.find(' '), line.size());
    FirewallRule found{table, std::string(line.substr(0, blank)), "", "", ""};
    if (blank < line.size())
        found.rule = line.substr(blank + 1);
    return found;
}

bool contains(const FirewallRule &rule, const char *part) {
    return (rule.chain + " " + rule.rule).find(part) != std::string::npos;
}

bool is_address(const std::string &text) {
    return ipv4_or_none(text) != 0;
}

class Rules {
public:
    std::vector<FirewallRule> all;

    FirewallRule &add(const char *table, const char *chain, const std::string &rule, const std::string &what,
                      const std::string &address = "") {
        all.push_back({table, chain, rule, what, address});
        return all.back();
    }

    void add_mapping(const std::string &lan, const std::string &wan, bool certain) {
        const std::size_t before = all.size();
        add("raw", "PREROUTING_zep_ACCEPT", "-d " + wan + "/32 -j ACCEPT", "the raw rule for " + lan, lan);
        add("nat", "POSTROUTING_zep", "-s " + lan + "/32 -j SNAT --to-source " + wan, "the SNAT rule for " + lan, lan);
        add("filter", "FORWARD_zep", "-s " + lan + "/32 -j ACCEPT", "the forward rule for " + lan, lan);
        add("nat", "PREROUTING_zep", "-d " + wan + "/32 -j DNAT --to-destination " + lan, "the DNAT rule for " + lan,
            lan);
        for (std::size_t i = before; i < all.size(); ++i)
            all[i].certain = certain;
    }
};

void add_hooks(Rules &rules, const std::string &device) {
    const auto jump = [](const char *chain) { return std::string("the jump to ") + chain; };
    rules.add("nat", "POSTROUTING_IPTV", "-o " + device + " -j POSTROUTING_zep", jump("POSTROUTING_zep"));
    rules.add("nat", "PREROUTING_IPTV", "-i " + device + " -j PREROUTING_zep", jump("PREROUTING_zep"));
    /* what is accepted must be looked at before the rest is dropped */
    rules.add("raw", "PREROUTING", "-i " + device + " -j PREROUTING_zep_ACCEPT", jump("PREROUTING_zep_ACCEPT")).first =
        true;
    rules.add("raw", "PREROUTING", "-i " + device + " -j PREROUTING_zep_DROP", jump("PREROUTING_zep_DROP"));
}

/* The mappings of the devices of an identity whose WAN client holds an address. One that was given up may have kept its
 * address, and the mappings with it. */
void add_identity(Rules &rules, const Model &model, const std::string &path) {
    const std::string client = interface_path("dhcp_zep_" + model.text(path, "Name"));
    const std::string state = model.text(client, "DHCPStatus");
    const bool bound = holds_lease(state);
    const std::string wan = model.text(bound ? client : path, "IPAddress");
    if (!is_address(wan) || (!bound && model.text(path, "DHCPCStatus") != "Internal"))
        return;
    const std::string devices = path + ".ServerLease";
    for (const std::string &name : model.instances(devices)) {
        const std::string lan = model.text(join_path(devices, name), "IPAddress");
        if (is_address(lan))
            rules.add_mapping(lan, wan, bound);
    }
}

void add_simplified(Rules &rules, const InterfaceGraph &graph) {
    const Model &model = graph.model();
    const auto data = graph.reach("data", Traversal::Down);
    const auto leading = std::find_if(data.begin(), data.end(), [&](const auto &name) {
        return graph.has_flag(name, "netdev") && graph.has_flag(name, "up") && graph.has_flag(name, "ipv4");
    });
    if (leading == data.end())
        return;
    rules.add("filter", "FORWARD_ZEP", "-o " + *leading + " -j FORWARD_ZEP_Services",
              "the jump to FORWARD_ZEP_Services");
    rules.add("nat", "POSTROUTING_ZEP", "-o " + *leading + " -j MASQUERADE",
              "the rule that masquerades on " + *leading);
    for (const std::string &mac : model.instances("Hosts.Host")) {
        const std::string path = "Hosts.Host." + mac;
        const std::string address = model.text(path, "IPAddress");
        if (model.boolean(path, "Active") && has_word(model.text(path, "Tags"), "stb") && is_address(address))
            rules.add("filter", "FORWARD_ZEP_Services", "-s " + address + "/32 -j ACCEPT",
                      "the forward rule for " + address, address);
    }
}

void add_policy(Rules &rules, const InterfaceGraph &graph) {
    const std::string chain = graph.model().text("Firewall.Policy.IPTV2Lan", "ReverseChain");
    const std::string device = graph.netdev_below("iptv");
    if (chain.starts_with(chain_prefix) && !device.empty())
        rules
            .add("filter", "FORWARD_IPTV2Lan", "-o " + device + " -j " + chain.substr(chain_prefix.size()),
                 "the jump to " + chain.substr(chain_prefix.size()))
            .certain = false; /* iptables may have refused it */
}

/* Whether a planned rule does anything in the mode that is on. */
bool concerns_somebody(const FirewallRule &rule, const Model &model) {
    if (contains(rule, "_ZEP"))
        return model.text(service_path, "Mode").starts_with("Simplified");
    return is_routed(model) || !(contains(rule, "_zep") || contains(rule, "_IPTV"));
}

} // namespace

bool FirewallRule::is_of_device() const {
    return is_address(address);
}

bool FirewallRule::is_of_mapping() const {
    return is_of_device() && chain.find("_zep") != std::string::npos;
}

void SavedRules::take(const std::string &line) {
    if (line.starts_with("*")) {
        table_ = line.substr(1);
    } else if (line.starts_with(":")) {
        chains_.insert(table_ + " " + line.substr(1, line.find(' ') - 1));
    } else if (line.starts_with("[")) { /* "[packets:bytes] -A ..." */
        const auto rule = line.find(append);
        if (rule != std::string::npos)
            packets_[rule_of(table_, std::string_view(line).substr(rule)).key()] +=
                std::strtoull(line.c_str() + 1, nullptr, 10);
    } else if (line == "COMMIT") {
        table_.clear();
    }
}

/* Without an end of its tables. */
void SavedRules::take_of_bridge(const std::string &line) {
    if (line.starts_with("*")) {
        bridge_table_ = bridge_family + line.substr(1);
    } else if (line.starts_with(":")) {
        chains_.insert(bridge_table_ + " " + line.substr(1, line.find(' ') - 1));
    } else if (line.starts_with(append)) {
        const std::string_view rule = std::string_view(line).substr(0, line.find_last_not_of(' ') + 1);
        packets_[rule_of(bridge_table_, rule).key()];
    }
}

std::uint64_t SavedRules::packets(const FirewallRule &rule) const {
    const auto found = packets_.find(rule.key());
    return found == packets_.end() ? 0 : found->second;
}

std::vector<FirewallRule> planned_rules(const std::vector<std::string> &plan) {
    std::vector<FirewallRule> all;
    std::string table;
    for (const std::string &line : plan) {
        std::string_view words = line;
        if (words.starts_with("*"))
            table = words.substr(1);
        if (words.starts_with(once))
            words.remove_prefix(once.size());
        if (!words.starts_with(append))
            continue;
        FirewallRule rule = rule_of(table, words);
        rule.what = "the rule \"" + rule.rule + "\"";
        rule.first = table == "raw" && rule.chain == "PREROUTING";
        all.push_back(rule);
    }
    return all;
}

std::vector<FirewallRule> expected_rules(const std::vector<FirewallRule> &planned, const InterfaceGraph &graph) {
    const Model &model = graph.model();
    Rules rules;
    rules.all = planned;
    for (FirewallRule &rule : rules.all)
        rule.address = concerns_somebody(rule, model) ? "" : concerns_nobody;
    const std::string device = graph.live_netdev_below("iptv");
    const std::string mode = model.text(service_path, "Mode");
    if (model.boolean(service_path, "Enable"))
        add_policy(rules, graph);
    if (is_routed(model) && !device.empty()) {
        add_hooks(rules, device);
        for (const std::string &name : model.instances(identities_path))
            add_identity(rules, model, join_path(identities_path, name));
    }
    if (model.boolean(service_path, "Enable") && mode.starts_with("Simplified"))
        add_simplified(rules, graph);
    return rules.all;
}

std::map<std::string, Traffic> traffic_of(const std::vector<FirewallRule> &expected, const SavedRules &saved) {
    std::map<std::string, Traffic> found;
    for (const FirewallRule &rule : expected) {
        if (!rule.is_of_device() || !saved.has(rule))
            continue;
        if (rule.chain.starts_with("FORWARD_"))
            found[rule.address].packets_out += saved.packets(rule);
        else if (rule.chain == "PREROUTING_zep_ACCEPT")
            found[rule.address].packets_in += saved.packets(rule);
    }
    return found;
}

std::string restore_text(const std::vector<FirewallRule> &missing, const SavedRules &saved, bool bridge) {
    std::map<std::string, std::pair<std::set<std::string>, std::string>> tables; /* chains to make, and rules */
    for (const FirewallRule &rule : missing) {
        if (rule.is_of_bridge() != bridge)
            continue;
        auto &[chains, rules] = tables[rule.table];
        const auto jump = rule.rule.rfind("-j ");
        const std::string target = jump == std::string::npos ? "" : rule.rule.substr(jump + 3);
        for (const std::string &chain : {rule.chain, target})
            if (contains({"", chain, "", "", ""}, "_") && !saved.has_chain(rule.table, chain)) /* only ours have one */
                chains.insert(chain);
        rules += (rule.first ? "-I " : "-A ") + rule.chain + " " + rule.rule + "\n";
    }
    std::string text;
    for (const auto &[table, content] : tables) {
        text += "*" + (bridge ? table.substr(std::string_view(bridge_family).size()) : table) + "\n";
        for (const std::string &chain : content.first)
            text += ":" + chain + (bridge ? " RETURN\n" : " - [0:0]\n");
        text += content.second + (bridge ? "" : "COMMIT\n");
    }
    return text;
}

std::string removal_text(const std::vector<FirewallRule> &rules) {
    std::map<std::string, std::string> tables;
    for (const FirewallRule &rule : rules)
        tables[rule.table] += "-D " + rule.chain + " " + rule.rule + "\n";
    std::string text;
    for (const auto &[table, lines] : tables)
        text += "*" + table + "\n" + lines + "COMMIT\n";
    return text;
}

} // namespace keel
