#include "keelctl/status.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>

#include "host/base/text_forms.h"
#include "keelctl/gateway.h"
#include "keelctl/stbs.h"
#include "keelctl/wan_client.h"

namespace keelctl {

namespace {

/* "0a1400020a140004" as ["10.20.0.2", "10.20.0.4"] */
Json server_addresses(const std::string &hex) {
    constexpr std::size_t size = 4;
    Json addresses = Json::array();
    const auto bytes = keel::parse_hex(hex);
    for (std::size_t at = 0; bytes && at + size <= bytes->size(); at += size)
        if (const std::uint32_t address = keel::network_number(bytes->data() + at))
            addresses.push_back(keel::format_ipv4(address));
    return addresses;
}

std::string words_of(const Json &list) {
    std::string words;
    for (const Json &word : list)
        words += (words.empty() ? "" : " ") + word.get<std::string>();
    return words.empty() ? "none" : words;
}

/* The IPTV pools whose leases wait until the plug-in lets them go. */
Json pools_with_holds(Client &client) {
    Json pools = Json::array();
    for (const char *pool : {"zep_stb", "zep_itf"})
        if (flag(instance(client, "DHCPv4.Server.Pool", pool), "LeasesOnHold"))
            pools.push_back(pool);
    return pools;
}

/* ------------------------------------------------------------------------------------------------ sub-modules */

std::string routed_state(const Json &service) {
    if (!flag(service, "Enable") || text(service, "Mode") != "Routed" || text(service, "Interface") != "Dedicated")
        return "off in this mode";
    const std::size_t count = children(service, {"ClientLease"}).size();
    return std::to_string(count) + (count == 1 ? " identity" : " identities");
}

/* The stack without the routed mode's own clients. */
std::string wan_mode_state(const Json &steward, Interfaces &interfaces) {
    std::string stack;
    for (const std::string &name : interfaces.stack("iptv")) {
        const Json &one = interfaces[name];
        if (has_word(text(one, "Flags"), "zep-dhcp"))
            continue;
        stack += (stack.empty() ? "" : " > ") + name;
        if (has_word(text(one, "Flags"), "netdev"))
            break;
    }
    const std::string mode = text(steward, "WANMode");
    return (mode.empty() ? "no WAN mode yet" : "WAN mode " + mode) + ", stack " + stack;
}

/* Rules of layer 2 that ought to stand, and do not. */
std::size_t missing_isolation(const Gateway &gateway) {
    const auto &all = gateway.missing["children"];
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [](const Json &one) { return text(one, "Table").starts_with("bridge "); }));
}

std::string isolation_state(Interfaces &interfaces, std::size_t missing) {
    std::string devices;
    for (const std::string &name : interfaces.stack("iptv")) {
        const std::string flags = text(interfaces[name], "Flags");
        const bool isolated = (has_word(flags, "vlan") || has_word(flags, "atm")) && has_word(flags, "netdev") &&
                              has_word(flags, "up") && !has_word(flags, "zep-lan-iptv");
        if (isolated)
            devices += (devices.empty() ? "" : " ") + name;
    }
    return (devices.empty() ? "no IPTV device to keep apart" : "keeps apart " + devices) +
           (missing == 0
                ? ""
                : ", but " + std::to_string(missing) + (missing == 1 ? " rule is" : " rules are") + " missing");
}

std::string daemon_state(const Json &daemon) {
    if (!flag(daemon, "ClientEnable"))
        return "off in this mode";
    return "multicast daemon " + text(daemon, "Status") + ", line " + (flag(daemon, "WANEnable") ? "up" : "down");
}

std::string mirror_state(const Json &mirror) {
    const std::string address = text(mirror, "ExternalIPAddress");
    return text(mirror, "ConnectionStatus") + (address.empty() ? "" : ", address " + address);
}

std::string firewall_state(const Json &policy, const std::string &mode) {
    std::string state = "LAN to IPTV through " + text(policy, "ReverseChain");
    if (text(policy, "ReverseChain") == "Off")
        state = "LAN to IPTV off";
    return state + (mode.starts_with("Simplified") ? ", rules by the script" : "");
}

/* Every lease of the IPTV pools, by the device's identifier. */
std::map<std::string, Json> iptv_leases(Client &client) {
    std::map<std::string, Json> leases;
    for (const char *pool : {"zep_stb", "zep_itf"})
        for (const Json &rule : children(instance(client, "DHCPv4.Server.Pool", pool), {"Rule"}))
            for (const Json &lease : children(rule, {"Lease"}))
                leases[lease["name"]] = {{"id", lease["name"]},
                                         {"pool", pool},
                                         {"address", text(lease, "IPAddress")},
                                         {"mac", text(lease, "MACAddress")},
                                         {"hold", flag(lease, "OnHold")}};
    return leases;
}

Json device_json(const Json &stored, const std::map<std::string, Json> &leases, Client &client) {
    Json device{{"id", text(stored, "Id")},
                {"type", text(stored, "DeviceType")},
                {"address", text(stored, "IPAddress")},
                {"mac", text(stored, "MACAddress")},
                {"present", flag(instance(client, "Hosts.Host", text(stored, "MACAddress")), "Active")}};
    const auto lease = leases.find(text(stored, "Id"));
    device["lease"] = lease == leases.end() ? "none" : lease->second["hold"] == true ? "held" : "released";
    return device;
}

} // namespace

std::string mode_line(const Json &status) {
    const std::string mode = status["mode"];
    std::string line = std::string(status["enabled"] == true ? "enabled" : "disabled") + ", " + mode + " over the " +
                       status["interface"].get<std::string>() + " interface";
    if (mode == "Routed")
        line += std::string(", MonoClient ") + (status["mono_client"] == true ? "on" : "off");
    if (!status["holds"].empty())
        line += ", leases wait in " + words_of(status["holds"]);
    return line;
}

bool is_well(const Json &status) {
    return !any_is_dark(status["stbs"]) && status["isolation_missing"] == 0 &&
           status["rules_error"].get<std::string>().empty();
}

const char *state_colour(const std::string &state) {
    static const std::map<std::string, const char *> colours = {{"served", "32"},  {"held", "33"},   {"stop-gap", "35"},
                                                                {"waiting", "36"}, {"broken", "31"}, {"absent", "2"}};
    const auto found = colours.find(state);
    return found == colours.end() ? "" : found->second;
}

bool colours_wanted() {
    const char *plain = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) && !(plain && *plain);
}

Json gather_status(Client &client) {
    const Json service = child(client.tree("Keel"), "Zephyrin");
    Interfaces interfaces(client);
    auto leases = iptv_leases(client);
    const std::string device = interfaces.device_below("iptv", true);

    Gateway gateway(client, Gateway::Devices::Iptv);
    const Json stbs = stbs_of(gateway);
    const std::size_t missing = missing_isolation(gateway);

    Json status{{"time", gateway.now},
                {"headline", headline(stbs) + (missing == 0 ? "" : "; what keeps devices apart on layer 2 is missing") +
                                 (gateway.rules_error.empty() ? "" : "; whether the rules stand is not known")},
                {"stbs", stbs},
                {"rules_error", gateway.rules_error},
                {"store_error", text(client.tree("KeelHost"), "StoreError")},
                {"enabled", flag(service, "Enable")},
                {"mode", text(service, "Mode")},
                {"interface", text(service, "Interface")},
                {"mono_client", flag(service, "MonoClient")},
                {"holds", pools_with_holds(client)},
                {"device", device},
                {"isolation_missing", missing},
                {"ntp", server_addresses(text(service, "NTPServer"))},
                {"www", server_addresses(text(service, "WWWServer"))},
                {"modules",
                 {{"routed", routed_state(service)},
                  {"wanmode", wan_mode_state(client.tree("Steward"), interfaces)},
                  {"l2fw", isolation_state(interfaces, missing)},
                  {"tide", daemon_state(descend(client.tree("TIDE"), {"Intf", "iptv"}))},
                  {"igdmap", mirror_state(child(service, "IGDMap"))},
                  {"firewall",
                   firewall_state(descend(client.tree("Firewall"), {"Policy", "IPTV2Lan"}), text(service, "Mode"))}}},
                {"routes", Json::array()},
                {"identities", Json::array()},
                {"waiting", Json::array()}};
    for (const Json &route : children(interfaces[device], {"IPv4Route"}))
        status["routes"].push_back({{"destination", text(route, "Dst") + "/" + text(route, "DstLen")},
                                    {"router", text(route, "Gateway")},
                                    {"status", text(route, "Status")}});
    for (const Json &identity : children(service, {"ClientLease"})) {
        const WanClient wan(gateway, identity);
        Json one{{"name", text(identity, "Name")}, {"slot", identity["parameters"].value("ClientIDOffset", Json())},
                 {"client_id", wan.client_id},     {"wan_client", wan.state},
                 {"status", wan.status_now()},     {"wan_address", wan.address_now()},
                 {"devices", Json::array()}};
        for (const Json &stored : children(identity, {"ServerLease"})) {
            one["devices"].push_back(device_json(stored, leases, client));
            leases.erase(text(stored, "Id"));
        }
        status["identities"].push_back(one);
    }
    for (const auto &[id, lease] : leases)
        status["waiting"].push_back(lease);
    return status;
}

std::string print_status(const Json &status, bool colours) {
    const auto shade = [&](const std::string &told, const char *code) {
        return colours && *code ? std::string("\033[") + code + "m" + told + "\033[0m" : told;
    };
    std::ostringstream out;
    out << shade("IPTV", "1") << "  " << mode_line(status) << "\n";
    out << "  " << shade(status["headline"], is_well(status) ? "32" : "31") << "\n";
    if (!status["rules_error"].get<std::string>().empty())
        out << "  " << shade("rules", "31")
            << "    whether they stand is not known: " << status["rules_error"].get<std::string>() << "\n";
    if (!status["store_error"].get<std::string>().empty())
        out << "  " << shade("store", "31")
            << "    nothing is stored, the service runs from memory: " << status["store_error"].get<std::string>()
            << "\n";
    out << "  device   " << or_none(status["device"]) << "\n";
    out << "  servers  NTP " << words_of(status["ntp"]) << ", WWW " << words_of(status["www"]) << "\n";
    for (const char *name : {"routed", "wanmode", "l2fw", "tide", "igdmap", "firewall"})
        out << "  " << pad(name, 8) << " " << status["modules"][name].get<std::string>() << "\n";
    for (const Json &route : status["routes"])
        out << "  route    " << pad(route["destination"], 18) << " via " << pad(route["router"], 15) << "  "
            << (route["status"] == "Enabled" ? shade("in force", "32") : shade(route["status"], "31")) << "\n";
    for (const Json &stb : status["stbs"]) {
        const std::string name = stb["name"];
        const std::string mac = stb["mac"];
        out << "\n"
            << shade(name, "1") << (mac.empty() || mac == name ? "" : "  " + mac) << "  "
            << shade(stb["state"], state_colour(stb["state"])) << "\n";
        if (stb.contains("brief"))
            out << "  " << shade(stb["brief"], state_colour(stb["state"])) << "\n";
        for (const std::string &line : stb_lines(stb))
            out << "  " << line << "\n";
    }
    return out.str();
}

} // namespace keelctl
