/*
 * What a box has learned and was set to, as a text that another box takes over: its form, and what is wrong with one.
 *
 * The form is JSON, sorted by name below these members, so that two texts differ where the boxes do:
 *
 *   "format": "keel-export", "version": 1, "program": "keelhost 1.0.0"
 *   "wan_mac"         what the identifiers of the WAN clients are counted from
 *   "settings_file"   what keelhost.toml says, by key; to compare with, as the file is carried by itself
 *   "settings"        object -> parameter -> value: what keelctl set changes and the store keeps
 *   "options"         of the LAN DHCP server's pools: pool -> name -> {"enable", "tag", "value"}
 *   "identities"      name -> {"slot", "devices": id -> {"type", "mac", "address"}}
 *   "leases"          of the LAN: id -> {"pool", "rule", "mac", "address", "host_name", "vendor_class"}
 *   "tags"            MAC address -> tags that do not follow from the device's lease
 *
 * Times, counts and states, the operator's addresses, servers and routes are of one box at one time, and stay out.
 */
#ifndef HOST_CONFIG_CARRIED_H
#define HOST_CONFIG_CARRIED_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/model/model.h"

namespace keel {

struct Carried {
    struct Option {
        bool enable = false;
        std::int64_t tag = 0;
        std::string value; /* hexadecimal */
        bool operator==(const Option &) const = default;
    };
    struct Device {
        std::string type; /* "STB" or "ITF" */
        std::string mac;
        std::string address;
        bool operator==(const Device &) const = default;
    };
    struct Identity {
        std::int64_t slot = 0;
        std::map<std::string, Device> devices; /* by client identifier */
        bool operator==(const Identity &) const = default;
    };
    struct Lease {
        std::string pool;
        std::string rule;
        std::string mac;
        std::string address;
        std::string host_name;
        std::string vendor_class;
    };

    std::string program;
    std::string wan_mac; /* "" when it is not known */
    std::map<std::string, std::string> settings_file;
    std::map<std::string, Values> settings;                       /* by path */
    std::map<std::string, std::map<std::string, Option>> options; /* by pool and name */
    std::map<std::string, Identity> identities;                   /* by name */
    std::map<std::string, Lease> leases;                          /* by client identifier */
    std::map<std::string, std::string> tags;                      /* by MAC address */
};

/* What a model holds of it. */
Carried gather_carried(const Model &model);
std::string carried_text(const Carried &carried);
/* A text for that model. What is wrong goes to *errors, each "place: what is wrong: what is allowed", the place a line
 * where the text is no JSON, else the members that lead there. */
Carried read_carried(const std::string &text, const Model &model, std::vector<std::string> *errors);

/* Where they are in the model. */
constexpr const char *hosts_list_path = "Hosts.Host";
std::string option_path(const std::string &pool);
std::string lease_list_path(const Carried::Lease &lease);

} // namespace keel

#endif
