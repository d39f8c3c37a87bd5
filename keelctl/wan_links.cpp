#include "keelctl/wan_links.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/base/text_forms.h"
#include "keelctl/wan_client.h"

namespace keelctl {

namespace {

bool line_is_up(Gateway &gateway, const WanClient &client, Walk &walk) {
    if (!gateway.interfaces.device_below("iptv", true).empty())
        return true;
    const std::string device = gateway.interfaces.device_below("iptv", false);
    if (device.empty())
        return walk.broken("client", "no_device", "has no IPTV device", 0, "there is no network device below \"iptv\"",
                           "describe it in the data model: LowerLayers of Weft.Intf.iptv");
    return walk.broken("client", "line_down", "waits for the line", past_time(client.exchange, "Since", gateway.now),
                       device + " has no carrier, or is switched off",
                       "look at the line and at the modem; if it is off, ip link set " + device + " up");
}

std::string stop_gap(const Gateway &gateway, const WanClient &client, const Device &device) {
    std::string told;
    if (client.status == "Unleased" && !device.held)
        told += "; the STB has a stop-gap lease of 300 s";
    else if (device.held)
        told += "; the STB waits for its lease";
    if (client.next_try > gateway.now)
        told += "; next try in " + duration(client.next_try - gateway.now);
    return told;
}

bool operator_answers(Gateway &gateway, const WanClient &client, const Device &device, Walk &walk) {
    const std::string wire = gateway.interfaces.device_below("iptv", true);
    const std::int64_t refusals = number(client.exchange, "Refusals");
    const std::int64_t unanswered = number(client.exchange, "Unanswered");
    const std::string error = text(client.exchange, "LastError");
    walk.evidence("client_id", client.client_id);
    walk.evidence("sent", number(client.exchange, "Sent"));
    walk.evidence("answered", number(client.exchange, "Answered"));
    walk.evidence("next_try", client.next_try);
    walk.evidence("stop_gap", client.status == "Unleased" && !device.held);
    if (refusals > 0 && unanswered < 3) { /* else it answers no more */
        const std::int64_t since = past_time(client.exchange, "RefusedSince", gateway.now);
        const std::string server = text(client.exchange, "Server");
        walk.evidence("refusals", refusals);
        return walk.broken(
            "lease", "operator_refuses", "is refused by the operator", since,
            (server.empty() ? "the operator" : server) + " refused (NAK) identifier " + or_none(client.client_id) +
                ", " + std::to_string(refusals) + (refusals == 1 ? " time" : " times") +
                (since ? " in " + duration(gateway.now - since) : "") + stop_gap(gateway, client, device),
            "have the operator look whether that identifier is booked, and on this line");
    }
    if (unanswered > 0 || error == "no answer" || error.empty()) {
        std::int64_t since = past_time(client.exchange, "UnansweredSince", gateway.now);
        since = since ? since : past_time(client.exchange, "Since", gateway.now);
        walk.evidence("unanswered", unanswered);
        return walk.broken("lease", "operator_silent", "waits for the operator", since,
                           "no answer to DISCOVER on " + wire +
                               (since ? " since " + time_of_day(since, gateway.now) : std::string()) + " (" +
                               std::to_string(unanswered ? unanswered : number(client.exchange, "Sent")) + " sent)" +
                               stop_gap(gateway, client, device),
                           "have the operator look whether its DHCP server sees identifier " +
                               or_none(client.client_id) + "; it is asked again by itself");
    }
    if (error.starts_with("address ") || error.starts_with("mask "))
        return walk.broken("lease", "lease_unusable", "is leased what it cannot use",
                           past_time(client.exchange, "Since", gateway.now),
                           "the operator leases what cannot be: " + error + stop_gap(gateway, client, device),
                           "have the operator mend its DHCP server; another lease is asked for by itself");
    return walk.broken("client", "client_failed", "has no WAN client that runs",
                       past_time(client.exchange, "Since", gateway.now), error + stop_gap(gateway, client, device),
                       "keelctl trace tells more; install udhcpc if it is missing");
}

bool holds_address(Gateway &gateway, const WanClient &client, Walk &walk) {
    const std::string wire = gateway.interfaces.device_below("iptv", true);
    for (const Json &held : children(gateway.interfaces[wire], {"IPv4Addr"}))
        if (text(held, "Address") == client.address) {
            if (text(held, "Status") == "Enabled")
                return walk.ok("address", client.address + " is on " + wire);
            return walk.broken("address", "address_refused", "has no address in force", 0,
                               "the kernel refused " + client.address + " on " + wire,
                               "keelctl trace tells its reason, in zone \"kernel\"");
        }
    return walk.broken("address", "address_missing", "has no address in force", 0,
                       client.address + " is not on " + wire,
                       "somebody took it away: it comes back with the next lease, at the latest when keelhost is "
                       "restarted");
}

/* ----------------------------------------------------------------------------------------------------- routes */

/* The subnet of the first WAN lease, as "10.20.0.0/24"; mask 0 when there is none. */
struct Subnet {
    std::uint32_t address = 0;
    int prefix = 0;

    bool has(std::uint32_t other) const { return (other & keel::mask_of(prefix)) == (address & keel::mask_of(prefix)); }
    std::string told() const {
        return keel::format_ipv4(address & keel::mask_of(prefix)) + "/" + std::to_string(prefix);
    }
};

std::vector<Subnet> subnets_of(const Json &interface) {
    std::vector<Subnet> found;
    for (const Json &held : children(interface, {"IPv4Addr"})) {
        const Subnet subnet{keel::ipv4_or_none(text(held, "Address")), static_cast<int>(number(held, "PrefixLen"))};
        if (subnet.address != 0 && subnet.prefix > 0)
            found.push_back(subnet);
    }
    return found;
}

bool routes_are_leased(Gateway &gateway) {
    const auto identities = children(gateway.service, {"ClientLease"});
    return std::any_of(identities.begin(), identities.end(), [&](const Json &identity) {
        const WanClient client(gateway, identity);
        return client.is_bound() && !text(descend(client.wan, {"ReqOption", "121"}), "Value").empty();
    });
}

/* -------------------------------------------------------------------------------------------------- multicast */

/* Groups for control and discovery (RFC 5771, sections 4 and 5; RFC 2365, section 9: 239.255.255.250 is what most
 * devices look for each other with), which no operator fills with a picture. */
bool may_be_picture(const std::string &group) {
    static constexpr keel::Network others[] = {
        {0xe0000000, 24} /* 224.0.0.0 */, {0xe0000100, 24} /* 224.0.1.0 */, {0xefffff00, 24} /* 239.255.255.0 */};
    const std::uint32_t address = keel::ipv4_or_none(group);
    return std::none_of(std::begin(others), std::end(others), [&](const keel::Network &network) {
        return (address & keel::mask_of(network.prefix)) == network.address;
    });
}

std::string groups_on(const Json &groups, const std::string &port, const char *state) {
    std::string named;
    for (const Json &group : groups["children"])
        if (text(group, "Port") == port && (!state || text(group, "State") == state) &&
            may_be_picture(text(group, "Address")))
            named += (named.empty() ? "" : ", ") + text(group, "Address");
    return named;
}

} // namespace

bool has_wan_lease(Gateway &gateway, const Device &device, Walk &walk) {
    const Json *identity = gateway.identity_of(device);
    const WanClient client(gateway, *identity);
    if (!line_is_up(gateway, client, walk))
        return false;
    if (client.wan["parameters"].empty())
        return walk.broken("client", "no_client", "has no WAN client", 0, "there is no Weft.Intf." + client.interface,
                           "keelctl trace tells why it could not be made; restart keelhost");
    if (!client.is_bound() && (client.status != "Internal" || client.address.empty()))
        return operator_answers(gateway, client, device, walk);
    walk.ok("client", client.interface + " is " + client.state);
    walk.ok("lease", client.is_bound() ? client.address + ", of " + or_none(text(client.exchange, "Server"))
                                       : client.address + " is kept, but the operator does not answer" +
                                             stop_gap(gateway, client, device));
    return holds_address(gateway, client, walk);
}

bool rules_are_missing(const Gateway &gateway, const Device &device) {
    const auto &all = gateway.missing["children"];
    return std::any_of(all.begin(), all.end(), [&](const Json &one) {
        return text(one, "Address").empty() || text(one, "Address") == device.address;
    });
}

bool has_rules(Gateway &gateway, const Device &device, Walk &walk) {
    std::string told;
    bool its_own = false; /* the rule that is told of is the device's, which says more than one of all */
    std::int64_t since = 0;
    std::int64_t next = 0;
    Json rules = Json::array();
    for (const Json &one : gateway.missing["children"]) {
        if (!text(one, "Address").empty() && text(one, "Address") != device.address)
            continue;
        rules.push_back({{"table", text(one, "Table")}, {"chain", text(one, "Chain")}, {"rule", text(one, "Rule")}});
        if (told.empty() || (!its_own && !text(one, "Address").empty())) {
            told = text(one, "What") + " is not in " + text(one, "Chain");
            its_own = !text(one, "Address").empty();
        }
        since =
            since == 0 ? past_time(one, "Since", gateway.now) : std::min(since, past_time(one, "Since", gateway.now));
        next = std::max(next, number(one, "NextTry"));
    }
    if (told.empty() && !gateway.rules_error.empty())
        return walk.unseen("rules", "whether they stand is not known: " + gateway.rules_error +
                                        "; it is looked again within a minute");
    if (told.empty())
        return walk.ok("rules", gateway.routed() ? "its four rules are in the kernel" : "its rules are in the kernel");
    if (rules.size() > 1)
        told += ", and " + std::to_string(rules.size() - 1) + " more";
    walk.evidence("missing", rules);
    return walk.broken(
        "rules", "rules_missing", "has lost its rules", since,
        told + (next > gateway.now ? "; keelhost puts it back in " + duration(next - gateway.now)
                : next != 0        ? "; keelhost puts it back now"
                                   : ", and has never been"),
        next != 0 ? "somebody else flushes the tables: have the box's own firewall leave these chains alone"
                  : "iptables refused it: keelctl trace and keelhost's stderr tell the reason; it is tried again "
                    "every minute");
}

/* The operator's routes are made again and again while the kernel refuses them: so what counts is what it has sent.
 * What is stored of it may be older than the leases: it outlives them until another set comes. */
bool has_routes(Gateway &gateway, Walk &walk) {
    const Json &interface = gateway.interfaces[gateway.interfaces.device_below("iptv", true)];
    const auto made = children(interface, {"IPv4Route"});
    if (made.empty() && !routes_are_leased(gateway))
        return walk.ok("routes", "none: the operator sends no option 121");
    std::string in_force;
    for (const Json &sent : children(gateway.service, {"ClasslessStaticRoute"})) {
        const std::string told =
            text(sent, "Destination") + "/" + text(sent, "PrefixLength") + " via " + text(sent, "Router");
        const bool enabled = std::any_of(made.begin(), made.end(), [&](const Json &route) {
            return text(route, "Status") == "Enabled" && text(route, "Gateway") == text(sent, "Router") &&
                   text(route, "Dst") == text(sent, "Destination") &&
                   text(route, "DstLen") == text(sent, "PrefixLength");
        });
        if (enabled) {
            in_force += (in_force.empty() ? "" : ", ") + told;
            continue;
        }
        const auto subnets = subnets_of(interface);
        const std::uint32_t hop = keel::ipv4_or_none(text(sent, "Router"));
        const bool reachable =
            hop == 0 || std::any_of(subnets.begin(), subnets.end(), [&](const Subnet &one) { return one.has(hop); });
        if (subnets.empty() || reachable)
            return walk.broken("routes", "route_missing", "has no route to its servers", 0,
                               told + ": it is not in the kernel",
                               "keelctl trace tells what was refused, in zone \"kernel\"; it is tried every second");
        return walk.broken("routes", "route_unusable", "has no route to its servers", 0,
                           told + ": the next hop is not on " + subnets.front().told() +
                               "; the operator's option 121 is wrong",
                           "tell the operator; the next lease with a good option 121 mends it");
    }
    return walk.ok("routes", in_force.empty() ? "none: the operator sends no option 121" : in_force);
}

bool has_multicast(Gateway &gateway, const Device &device, Walk &walk) {
    const Json daemon = descend(gateway.client.tree("TIDE"), {"Intf", "iptv"});
    if (!flag(daemon, "ClientEnable"))
        return walk.ok("multicast", "off in this mode");
    const Json groups = child(gateway.client.tree("TIDE"), "Group");
    const std::string joined = device.port.empty() ? "" : groups_on(groups, device.port, nullptr);
    const std::string status = text(daemon, "Status");
    const std::string told = joined.empty() ? "it has joined no group" : "joined " + joined + " on port " + device.port;
    if (status != "Running") {
        const bool switched_off = !flag(daemon, "MRTIIFEnable") || !flag(daemon, "WANEnable");
        return walk.broken("multicast", "daemon_down", "gets no live picture", past_time(daemon, "Since", gateway.now),
                           told + "; the daemon does not run: " +
                               (status == "Error" ? "it ends, or cannot be started"
                                : switched_off    ? "its line is down"
                                                  : "the IPTV device has no IPv4 address"),
                           "it is started again by itself; keelctl trace tells the reason, in zone \"multicast\"");
    }
    for (const auto &[state, found] : {std::pair("NotAsked", "it has not asked the operator for it"),
                                       std::pair("NotForwarded", "it comes from the operator and stops here")})
        if (const std::string group = groups_on(groups, device.port, state); !group.empty())
            return walk.broken("multicast", "daemon_hung", "gets no live picture", 0,
                               "joined " + group + " on port " + device.port +
                                   "; the daemon does not forward: " + found,
                               "process " + text(daemon, "Process") + " hangs: kill it, and keelhost starts another");
    if (const std::string dry = groups_on(groups, device.port, "NoStream"); !dry.empty())
        return walk.broken("multicast", "no_stream", "gets no live picture", 0,
                           "joined " + dry + " on port " + device.port +
                               "; the gateway has asked the operator for it, and nothing comes",
                           "have the operator look whether it sends that group on this line");
    return walk.ok("multicast", told + "; the daemon runs");
}

} // namespace keelctl
