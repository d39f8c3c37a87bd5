#include "keelctl/status.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>

#include "host/base/text_forms.h"
#include "keelctl/diagnosis.h"

namespace keelctl {

namespace {

/* "0a140002" as "10.20.0.2"; "" for none. */
std::string server_address(const std::string &hex) {
    const auto bytes = keel::parse_hex(hex);
    const std::uint32_t address = bytes && bytes->size() == 4 ? keel::network_number(bytes->data()) : 0;
    return address == 0 ? "" : keel::format_ipv4(address);
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

std::string isolation_state(Interfaces &interfaces) {
    std::string devices;
    for (const std::string &name : interfaces.stack("iptv")) {
        const std::string flags = text(interfaces[name], "Flags");
        const bool isolated = (has_word(flags, "vlan") || has_word(flags, "atm")) && has_word(flags, "netdev") &&
                              has_word(flags, "up") && !has_word(flags, "zep-lan-iptv");
        if (isolated)
            devices += (devices.empty() ? "" : " ") + name;
    }
    return devices.empty() ? "no IPTV device to keep apart" : "keeps apart " + devices;
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
    Json stbs = Json::array();
    const std::string head = headline(gateway, &stbs);

    Json status{{"headline", head},
                {"stbs", stbs},
                {"store_error", text(client.tree("KeelHost"), "StoreError")},
                {"enabled", flag(service, "Enable")},
                {"mode", text(service, "Mode")},
                {"interface", text(service, "Interface")},
                {"device", device},
                {"ntp", server_address(text(service, "NTPServer"))},
                {"www", server_address(text(service, "WWWServer"))},
                {"modules",
                 {{"routed", routed_state(service)},
                  {"wanmode", wan_mode_state(client.tree("Steward"), interfaces)},
                  {"l2fw", isolation_state(interfaces)},
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
        const Json wan = interfaces["dhcp_zep_" + text(identity, "Name")];
        Json one{{"name", text(identity, "Name")},
                 {"slot", identity["parameters"].value("ClientIDOffset", Json())},
                 {"client_id", text(descend(wan, {"SentOption", "61"}), "Value")},
                 {"wan_client", text(wan, "DHCPStatus")},
                 {"status", text(identity, "DHCPCStatus")},
                 {"wan_address", text(identity, "IPAddress")},
                 {"devices", Json::array()}};
        /* The fourth slot is not written at a binding: what its client holds is what counts. */
        if (or_none(one["wan_address"]) == "none" && one["wan_client"] == "Bound") {
            one["wan_address"] = text(wan, "IPAddress");
            one["status"] = "Connected";
        }
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
        return colours ? std::string("\033[") + code + "m" + told + "\033[0m" : told;
    };
    std::ostringstream out;
    out << shade("IPTV", "1") << "  " << (status["enabled"] == true ? "enabled" : "disabled") << ", "
        << status["mode"].get<std::string>() << " over the " << status["interface"].get<std::string>()
        << " interface\n";
    const auto &stbs = status["stbs"];
    const bool dark = std::any_of(stbs.begin(), stbs.end(), [](const Json &stb) { return stb["served"] != true; });
    out << "  " << shade(status["headline"], dark ? "31" : "32") << "\n";
    if (!status["store_error"].get<std::string>().empty())
        out << "  " << shade("store", "31")
            << "    nothing is stored, the service runs from memory: " << status["store_error"].get<std::string>()
            << "\n";
    out << "  device   " << or_none(status["device"]) << "\n";
    out << "  servers  NTP " << or_none(status["ntp"]) << ", WWW " << or_none(status["www"]) << "\n";
    for (const char *name : {"routed", "wanmode", "l2fw", "tide", "igdmap", "firewall"})
        out << "  " << pad(name, 8) << " " << status["modules"][name].get<std::string>() << "\n";
    for (const Json &route : status["routes"])
        out << "  route    " << pad(route["destination"], 18) << " via " << pad(route["router"], 15) << "  "
            << (route["status"] == "Enabled" ? shade("in force", "32") : shade(route["status"], "31")) << "\n";
    for (const Json &identity : status["identities"]) {
        const std::string state = identity["status"];
        const char *colour = state == "Connected" ? "32" : state == "Unconnected" ? "33" : "31";
        out << "\n"
            << shade(identity["name"], "1") << "  slot " << identity["slot"].dump() << ", client "
            << or_none(identity["client_id"]) << "\n";
        out << "  WAN      " << shade(state, colour) << ", client " << identity["wan_client"].get<std::string>()
            << ", address " << or_none(identity["wan_address"]) << "\n";
        for (const Json &device : identity["devices"])
            out << "  " << pad(device["type"], 7) << "  " << pad(device["address"], 15) << "  "
                << device["mac"].get<std::string>() << "  " << (device["present"] == true ? "present" : "absent ")
                << "  lease " << device["lease"].get<std::string>() << "\n";
    }
    if (!status["waiting"].empty())
        out << "\n" << shade("Leases without an identity", "1") << "\n";
    for (const Json &lease : status["waiting"])
        out << "  " << pad(lease["pool"], 7) << "  " << pad(lease["address"], 15) << "  "
            << lease["mac"].get<std::string>() << "  " << (lease["hold"] == true ? "held: not served" : "released")
            << "\n";
    return out.str();
}

} // namespace keelctl
