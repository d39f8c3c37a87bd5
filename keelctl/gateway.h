/*
 * What the host knows of the IPTV service, gathered at one time, and the STBs in it.
 */
#ifndef KEELCTL_GATEWAY_H
#define KEELCTL_GATEWAY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "keelctl/client.h"
#include "keelctl/tree.h"

namespace keelctl {

/* A device of the LAN; times are in seconds since 1970, 0 for none. */
struct Device {
    std::string id; /* of its LAN lease; "" when only its presence is known */
    std::string mac;
    std::string host_name;
    std::string address;
    std::string vendor_class;
    std::string rule_class; /* that of an IPTV pool's rule with which its own begins; "" when none does */
    std::string pool;       /* of its lease; "" without one */
    bool held = false;
    std::int64_t expires = 0;
    std::string because; /* why it waits for the LAN DHCP server; "" when it does not */
    std::int64_t waits_since = 0;
    bool known = false; /* there is a Hosts.Host of it */
    bool present = false;
    bool tagged = false;
    std::string port;

    /* What people call it: by its host name, else by its class and the end of its MAC address, "zep-stb-97:5C". */
    std::string name() const;
    /* It is on the LAN: seen, or just heard. */
    bool is_there() const { return present || held || !because.empty(); }
};

struct Gateway {
    enum class Devices { Iptv, All };

    /* The devices of the IPTV pools and those that wait, or all that have a lease. */
    Gateway(Client &asked, Devices which);

    bool routed() const { return text(service, "Mode") == "Routed" && text(service, "Interface") == "Dedicated"; }
    bool simplified() const { return text(service, "Mode").starts_with("Simplified"); }
    /* Whether a device counts as an STB: by its tag in the simplified modes, else by its class or its identity. */
    bool is_stb(const Device &device) const;
    /* Its class is not one that a rule knows, but looks as if it was to be. */
    bool looks_like_stb(const Device &device) const;
    /* The identity that has the device; null for none. */
    const Json *identity_of(const Device &device) const;
    const Device *device(const std::string &id) const;
    /* Those of that name, MAC address, IPv4 address or identifier. */
    std::vector<const Device *> named(const std::string &name) const;
    /* The same for what a person typed: a MAC address that nobody knows becomes the stranger, and is it. Throws Refused
     * for anything else that is not known. */
    std::vector<const Device *> asked(const std::string &name, Device &stranger) const;

    Client &client;
    Interfaces interfaces;
    std::int64_t now;
    Json service;
    Json clients;                     /* DHCPv4.Client */
    Json missing;                     /* Firewall.Missing */
    std::string rules_error;          /* why it is not known which rules stand; "" when it is */
    std::vector<std::string> classes; /* that the IPTV pools' rules know */
    std::vector<Device> devices;

private:
    void take_pool(const Json &pool);
    void take_waiting(const Json &waiting);
    void take_identity(const Json &identity);
    void take_host(const Json &host);
    void know_classes();
    Device &device_with(const std::string &id);
};

} // namespace keelctl

#endif
