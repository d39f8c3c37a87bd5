#include "keelctl/diagnosis.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "keelctl/wan_links.h"

namespace keelctl {

namespace {

bool service_is_on(Gateway &gateway, Walk &walk) {
    if (!flag(gateway.service, "Enable"))
        return walk.broken("service", "service_disabled", "is not served, as the service is off", 0,
                           "the IPTV service is disabled", "keelctl set Keel.Zephyrin Enable=true");
    return walk.ok("service",
                   text(gateway.service, "Mode") + " over the " + text(gateway.service, "Interface") + " interface");
}

bool on_lan(const Device &device, Walk &walk) {
    if (!device.is_there())
        return walk.broken("lan", device.known ? "absent" : "never_seen", "is not on the LAN", 0,
                           device.known ? "it was seen" + (device.port.empty() ? "" : " behind " + device.port) +
                                              ", and is not there any more"
                                        : "it was never seen on the LAN",
                           "switch it on, look at its cable and at the port's light");
    return walk.ok("lan", device.port.empty() ? "it is there" : "it is behind " + device.port);
}

/* What keeps the LAN DHCP server from giving it a lease at all. */
bool is_let_in(const Device &device, Walk &walk) {
    struct Reason {
        const char *because;
        const char *cause;
        const char *remedy;
    };
    static const Reason reasons[] = {
        {"its MAC address was not seen", "not_seen_behind_port",
         "plug it into the gateway directly: a repeater sends in its own name, or somebody makes up MAC addresses"},
        {"too many new devices", "too_many_devices",
         "look what is plugged in at that port; it is let in after a minute"},
        {"its client identifier is that of", "identifier_in_use",
         "have it send another client identifier (option 61), or none: two devices with the same one are one to "
         "everybody"},
        {"no address is free", "no_free_address",
         "make the range of its kind larger: first and last in keelhost.toml, then reload the service"}};
    for (const Reason &one : reasons)
        if (device.pool.empty() && device.because.starts_with(one.because))
            return walk.broken("class", one.cause, "gets no address", device.waits_since, device.because, one.remedy);
    return true;
}

bool has_pool(Gateway &gateway, const Device &device, Walk &walk) {
    const std::string told = "\"" + device.vendor_class + "\"";
    if (!is_let_in(device, walk))
        return false;
    if (device.pool.empty() && device.because.empty())
        return walk.broken("class", "no_lease", "has no address", 0,
                           device.mac + " is on the LAN, and has asked the gateway for no address",
                           "set it to take its address by DHCP; look for another DHCP server on the LAN");
    if (gateway.is_stb(device))
        return walk.ok("class", told + (device.pool.empty() ? "" : ", of pool " + device.pool));
    std::string known;
    for (const std::string &one : gateway.classes)
        known += (known.empty() ? "\"" : ", \"") + one + "\"";
    walk.evidence("vendor_class", device.vendor_class);
    return walk.broken("class", "class_unknown", "is taken for a PC", 0,
                       (device.vendor_class.empty() ? "it asked without a class" : "it asked with class " + told) +
                           "; rules know " + (known.empty() ? "none" : known) +
                           (device.address.empty() ? "" : "; it got a PC's address, " + device.address),
                       "have it ask with a class that begins so (option 60), or let vendor-class of [stb] in "
                       "keelhost.toml be what the classes of all STBs begin with, and reload the service; then restart "
                       "the STB");
}

/* ------------------------------------------------------------------------------------------------- routed mode */

std::string names_of(const Gateway &gateway, const Json &identity) {
    std::string names;
    for (const Json &stored : children(identity, {"ServerLease"})) {
        const Device *device = gateway.device(text(stored, "Id"));
        names += (names.empty() ? "" : " and ") + (device ? device->name() : text(stored, "Id"));
    }
    return names.empty() ? text(identity, "Name") : names;
}

/* When an identity goes by itself: two days after the last lease of its devices has ended, and at once where it has the
 * last slot. */
struct Going {
    std::int64_t at = 0;        /* at the latest; 0 while one of its devices is there */
    bool lease_is_over = false; /* it was over at a time that is not known: the identity may go earlier */
};

Going going_of(const Gateway &gateway, const Json &identity) {
    constexpr std::int64_t kept_s = 172800; /* 48 h */
    Going going{gateway.now, true};
    for (const Json &stored : children(identity, {"ServerLease"})) {
        const Device *device = gateway.device(text(stored, "Id"));
        if (device && device->is_there())
            return {};
        if (device && device->expires > going.at)
            going = {device->expires, false};
    }
    going.at += number(identity, "ClientIDOffset") == 3 ? 0 : kept_s;
    return going;
}

bool all_slots_taken(Gateway &gateway, const Device &device, Walk &walk) {
    std::string names;
    std::string first_name;
    Going first;
    int taken = 0;
    for (const Json &identity : children(gateway.service, {"ClientLease"})) {
        const std::int64_t slot = number(identity, "ClientIDOffset");
        if (slot < 0 || slot > 3)
            continue;
        ++taken;
        names += (names.empty() ? "" : ", ") + names_of(gateway, identity);
        const Going going = going_of(gateway, identity);
        if (going.at != 0 && (first.at == 0 || going.at < first.at)) {
            first = going;
            first_name = names_of(gateway, identity);
        }
    }
    if (taken < 4)
        return false;
    walk.evidence("identities", taken);
    walk.evidence("first_free_at", first.at);
    walk.broken("identity", "slots_taken", "finds all four identities taken", device.waits_since,
                "4 of 4 identities are in use by " + names +
                    (first.at == 0
                         ? "; all of them are there"
                         : "; the first to go is " + first_name + (first.lease_is_over ? ", within " : ", in ") +
                               duration(first.at - gateway.now)),
                "four STBs are served at a time: a slot is free 48 h after the lease of its STB has ended, slot 3 at "
                "once");
    return true;
}

bool mono_client_taken(Gateway &gateway, const Device &device, Walk &walk) {
    if (!flag(gateway.service, "MonoClient"))
        return false;
    for (const Json &identity : children(gateway.service, {"ClientLease"}))
        for (const Json &stored : children(identity, {"ServerLease"})) {
            if (text(identity, "Name") != "iptv" || text(stored, "DeviceType") != "STB" ||
                text(stored, "Id") == device.id)
                continue;
            const Device *other = gateway.device(text(stored, "Id"));
            walk.broken("identity", "mono_client", "waits, as only one STB is served", device.waits_since,
                        "MonoClient is on and " + (other ? other->name() : text(stored, "Id")) + " is served",
                        "keelctl set Keel.Zephyrin MonoClient=false gives each STB a WAN lease of its own; this one "
                        "gets it within two minutes");
            return true;
        }
    return false;
}

bool has_identity(Gateway &gateway, const Device &device, Walk &walk) {
    if (const Json *identity = gateway.identity_of(device)) {
        const std::int64_t slot = number(*identity, "ClientIDOffset");
        return walk.ok("identity",
                       text(*identity, "Name") + (slot < 0 ? ", without a slot" : ", slot " + std::to_string(slot)));
    }
    if (mono_client_taken(gateway, device, walk) || all_slots_taken(gateway, device, walk))
        return false;
    return walk.broken("identity", "not_admitted", "has no identity yet", device.waits_since,
                       device.held ? "its lease is on hold, and no identity was made for it"
                                   : "it has a lease, and no identity was made for it",
                       "it is reported anew every two minutes while it asks; keelctl trace tells what was refused");
}

/* --------------------------------------------------------------------------------------------- simplified modes */

bool is_tagged(const Device &device, Walk &walk) {
    if (device.tagged)
        return walk.ok("tag", "its tags name \"stb\"");
    return walk.broken("tag", "not_tagged", "is not tagged as an STB", 0,
                       "Hosts.Host." + device.mac + " is not tagged \"stb\": it is a device as any other",
                       "keelctl set Hosts.Host." + device.mac + " Tags=\"lan stb\"");
}

bool has_address(const Device &device, Walk &walk) {
    if (!device.address.empty())
        return walk.ok("address", device.address);
    return walk.broken("address", "no_address", "has no address", 0, "it was seen with no IPv4 address",
                       "once it has one, tag it anew: keelctl set Hosts.Host." + device.mac +
                           " Tags=lan, then Tags=\"lan stb\"");
}

bool has_data_interface(Gateway &gateway, Walk &walk) {
    std::string down;
    for (const std::string &name : gateway.interfaces.stack("data")) {
        if (!gateway.interfaces.has(name, "netdev"))
            continue;
        if (gateway.interfaces.has(name, "up") && gateway.interfaces.has(name, "ipv4"))
            return walk.ok("data", name);
        down += (down.empty() ? "" : "; ") + name +
                (gateway.interfaces.has(name, "up") ? " has no IPv4 address" : " has no carrier");
    }
    return walk.broken("data", "no_data_interface", "has no way to the Internet", 0,
                       "no device below \"data\" is up with an address: " + (down.empty() ? "there is none" : down),
                       "look at the line of the Internet side, and whether it gets its address");
}

bool script_did_it(Gateway &gateway, const Device &device, Walk &walk) {
    const Json script = child(gateway.client.tree("KeelHost"), "Script");
    const std::string error = text(script, "LastError");
    if (error.empty() || !rules_are_missing(gateway, device))
        return true;
    return walk.broken("script", "script_failed", "has no rules, as the firewall script failed",
                       number(script, "Since"), "script failed with " + error,
                       "what it says about it is on keelhost's stderr; mend that, then untag the STB and tag it again");
}

/* ---------------------------------------------------------------------------------------------------- the chain */

void walk_chain(Gateway &gateway, const Device &device, Walk &walk) {
    if (!service_is_on(gateway, walk) || !on_lan(device, walk))
        return;
    if (gateway.simplified()) {
        if (is_tagged(device, walk) && has_address(device, walk) && has_data_interface(gateway, walk) &&
            script_did_it(gateway, device, walk) && has_rules(gateway, device, walk))
            has_multicast(gateway, device, walk);
        return;
    }
    if (!has_pool(gateway, device, walk))
        return;
    if (gateway.routed() && !(has_identity(gateway, device, walk) && has_wan_lease(gateway, device, walk) &&
                              has_rules(gateway, device, walk) && has_routes(gateway, walk)))
        return;
    if (device.held)
        walk.broken("lease", "held", "is held", device.waits_since,
                    "its lease is on hold, and there is nothing to wait for",
                    "keelctl del its lease below DHCPv4.Server.Pool: it is reported anew when it asks");
    else if (text(gateway.service, "Mode") == "Routed")
        has_multicast(gateway, device, walk);
}

} // namespace

Diagnosis diagnose(Gateway &gateway, const Device &device) {
    Walk walk;
    walk_chain(gateway, device, walk);
    return std::move(walk.diagnosis);
}

Json diagnosis_json(const Device &device, const Diagnosis &diagnosis) {
    Json links = Json::array();
    for (const Link &link : diagnosis.links)
        links.push_back({{"link", link.name}, {"state", link.state}, {"text", link.text}});
    Json told{{"name", device.name()},        {"mac", device.mac}, {"id", device.id}, {"address", device.address},
              {"served", diagnosis.served()}, {"links", links}};
    if (!diagnosis.served()) {
        told["cause"] = diagnosis.cause;
        told["since"] = diagnosis.since;
        told["evidence"] = diagnosis.evidence;
        told["remedy"] = diagnosis.remedy;
    }
    return told;
}

std::string print_diagnosis(const Gateway &gateway, const Device &device, const Diagnosis &diagnosis) {
    std::ostringstream out;
    out << device.name();
    if (device.name() != device.mac)
        out << "  " << device.mac;
    out << "  " << or_none(device.address)
        << (!diagnosis.served() ? "  " + diagnosis.brief
            : diagnosis.unseen  ? "  is served, as far as can be seen"
                                : "  is served")
        << "\n";
    for (const Link &link : diagnosis.links)
        out << "  " << pad(link.state, 7) << pad(link.name, 10) << link.text << "\n";
    if (!diagnosis.served()) {
        if (diagnosis.since != 0)
            out << "  since  " << time_of_day(diagnosis.since, gateway.now) << ", "
                << duration(gateway.now - diagnosis.since) << " ago\n";
        out << "  to do  " << diagnosis.remedy << "\n";
    }
    return out.str();
}

} // namespace keelctl
