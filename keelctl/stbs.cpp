#include "keelctl/stbs.h"

#include <algorithm>

#include "keelctl/diagnosis.h"
#include "keelctl/wan_client.h"
#include "keelctl/wan_links.h"

namespace keelctl {

namespace {

/* "released" once the server has answered with it; "stop-gap" is a short one while the operator does not answer. */
const char *lease_word(Gateway &gateway, const Device &device, const Json *identity) {
    if (device.pool.empty())
        return "none";
    if (device.held)
        return "held";
    return identity && WanClient(gateway, *identity).status == "Unleased" ? "stop-gap" : "released";
}

/* Held: its request is kept until something is decided. Waiting: it has not even a lease that could be held. */
std::string state_word(const Device &device, const Diagnosis &diagnosis, const std::string &lease) {
    if (diagnosis.served())
        return "served";
    if (lease == "held" || lease == "stop-gap")
        return lease;
    return device.pool.empty() && !device.because.empty() ? "waiting" : "broken";
}

/* What goes through its rules is counted by the kernel where they stand. */
void add_mapping(const Gateway &gateway, const Device &device, Json &stb) {
    const Json *counted = nullptr;
    const Json mappings = child(gateway.client.tree("Firewall"), "Mapping");
    for (const Json &one : mappings["children"])
        if (text(one, "Address") == device.address)
            counted = &one;
    stb["rules"] = rules_are_missing(gateway, device) ? "missing"
                   : !gateway.rules_error.empty()     ? "unseen"
                   : counted                          ? "in_kernel"
                                                      : "none";
    stb["packets_out"] = counted ? number(*counted, "PacketsOut") : 0;
    stb["packets_in"] = counted ? number(*counted, "PacketsIn") : 0;
}

void add_wan(Gateway &gateway, const Json &identity, Json &stb) {
    const WanClient client(gateway, identity);
    stb["identity"] = text(identity, "Name");
    stb["slot"] = number(identity, "ClientIDOffset");
    stb["client_id"] = client.client_id;
    stb["wan_client"] = client.state;
    const std::int64_t since = past_time(client.exchange, "Since", gateway.now);
    stb["wan_since"] = since;
    stb["wan_age_s"] = since ? gateway.now - since : 0;
    stb["wan_address"] = client.address_now();
}

void add_groups(const Gateway &gateway, const Device &device, Json &stb) {
    stb["groups"] = Json::array();
    const Json groups = child(gateway.client.tree("TIDE"), "Group");
    for (const Json &group : groups["children"])
        if (!device.port.empty() && text(group, "Port") == device.port)
            stb["groups"].push_back({{"address", text(group, "Address")}, {"state", text(group, "State")}});
}

Json stb_of(Gateway &gateway, const Device &device) {
    const Json *identity = gateway.identity_of(device);
    const std::string lease = lease_word(gateway, device, identity);
    Json stb{{"name", device.name()}, {"mac", device.mac},
             {"id", device.id},       {"class", device.vendor_class},
             {"port", device.port},   {"address", device.address},
             {"lease", lease},        {"lease_left_s", device.expires > gateway.now ? device.expires - gateway.now : 0},
             {"state", "absent"},     {"served", false}};
    if (device.is_there()) {
        const Diagnosis diagnosis = diagnose(gateway, device);
        stb["state"] = state_word(device, diagnosis, lease);
        stb["served"] = diagnosis.served();
        if (!diagnosis.served()) {
            stb["cause"] = diagnosis.cause;
            stb["since"] = diagnosis.since;
            stb["brief"] =
                diagnosis.brief + (diagnosis.since ? " since " + duration(gateway.now - diagnosis.since) : "");
        }
    }
    if (identity)
        add_wan(gateway, *identity, stb);
    add_mapping(gateway, device, stb);
    add_groups(gateway, device, stb);
    return stb;
}

std::string lan_line(const Json &stb) {
    const std::string port = stb["port"];
    const std::string lease = stb["lease"];
    const std::int64_t left = stb["lease_left_s"];
    std::string line = or_none(stb["address"]) + (port.empty() ? "" : " behind " + port);
    line += lease == "none" ? ", no lease" : ", lease " + lease;
    return line + (left > 0 && lease != "held" ? ", " + duration(left) + " left" : "");
}

std::string wan_line(const Json &stb) {
    const std::int64_t age = stb["wan_age_s"];
    return or_none(stb["wan_address"]) + ", client " + stb["wan_client"].get<std::string>() +
           (age ? " since " + duration(age) : "") + ", slot " + stb["slot"].dump() + ", identifier " +
           or_none(stb["client_id"]);
}

std::string rules_line(const Json &stb) {
    const std::string state = stb["rules"] == "missing"  ? "missing"
                              : stb["rules"] == "unseen" ? "not known"
                                                         : "in the kernel";
    return state + ", " + stb["packets_out"].dump() + " packets out, " + stb["packets_in"].dump() + " in";
}

std::string groups_line(const Json &stb) {
    std::string line;
    for (const Json &group : stb["groups"])
        line +=
            (line.empty() ? "" : ", ") + group["address"].get<std::string>() + " " + group["state"].get<std::string>();
    return line;
}

} // namespace

Json stbs_of(Gateway &gateway) {
    Json stbs = Json::array();
    for (const Device &device : gateway.devices)
        if (gateway.is_stb(device))
            stbs.push_back(stb_of(gateway, device));
    std::stable_partition(stbs.begin(), stbs.end(), [](const Json &stb) { return stb["state"] != "absent"; });
    return stbs;
}

std::string headline(const Json &stbs) {
    std::size_t all = 0;
    std::size_t served = 0;
    std::string broken;
    for (const Json &stb : stbs) {
        if (stb["state"] == "absent")
            continue;
        ++all;
        if (stb["served"] == true)
            ++served;
        else
            broken +=
                (broken.empty() ? ": " : ", ") + stb["name"].get<std::string>() + " " + stb["brief"].get<std::string>();
    }
    if (all == 0)
        return "no STB is on the LAN";
    return std::to_string(served) + " of " + std::to_string(all) + (all == 1 ? " STB served" : " STBs served") + broken;
}

bool any_is_dark(const Json &stbs) {
    return std::any_of(stbs.begin(), stbs.end(),
                       [](const Json &stb) { return stb["state"] != "absent" && stb["served"] != true; });
}

std::vector<std::string> stb_lines(const Json &stb) {
    std::vector<std::string> lines{"LAN      " + lan_line(stb)};
    if (stb.contains("wan_client"))
        lines.push_back("WAN      " + wan_line(stb));
    if (stb["rules"] != "none")
        lines.push_back("rules    " + rules_line(stb));
    if (!stb["groups"].empty())
        lines.push_back("groups   " + groups_line(stb));
    return lines;
}

} // namespace keelctl
