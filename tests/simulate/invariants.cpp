#include "tests/simulate/invariants.h"

#include <algorithm>
#include <bit>

#include "host/base/text_forms.h"
#include "host/gateway/graph.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr const char *identities = "Keel.Zephyrin.ClientLease";
constexpr const char *client_prefix = "dhcp_zep_";
constexpr std::uint64_t taken_up_within_ms =
    std::uint64_t{3} * 60000;                  /* who was refused is reported anew after two minutes */
constexpr std::int64_t usual_lease_s = 86400;  /* of the LAN pools */
constexpr int unsaved_slot = client_slots - 1; /* which is not stored at a binding */

const char *const status_names[] = {"Unconnected", "Connected", "Internal", "Unleased"};

const char *name_of(LeaseStatus status) {
    return status_names[static_cast<unsigned>(status)];
}

bool in_force(const Client_lease *lease) {
    return lease->status == LeaseStatus::Connected || lease->status == LeaseStatus::Internal;
}

std::vector<const Client_lease *> identities_of(const RoutedState &state) {
    std::vector<const Client_lease *> all;
    for (const Client_lease *lease : RecordsOf<Client_lease>(&state.client_leases))
        all.push_back(lease);
    return all;
}

std::vector<const Server_lease *> devices_of(const Client_lease *lease) {
    std::vector<const Server_lease *> all;
    for (const Server_lease *device : RecordsOf<Server_lease>(&lease->server_leases))
        all.push_back(device);
    return all;
}

/* Null for none. */
const Client_lease *identity_of(const RoutedState &state, const SimStb &device) {
    const bool itf = device.habits().vendor_class.starts_with("zep-itf");
    const auto all = identities_of(state);
    const auto found = std::find_if(
        all.begin(), all.end(), [&](const Client_lease *lease) { return lease->name == (itf ? "itf" : device.id()); });
    return found == all.end() ? nullptr : *found;
}

std::string broken_rules(const Sight &sight) {
    if (sight.ground.rules_lost())
        return "";
    Ground::Rules wanted = Ground::default_rules();
    if (const std::string intf = sight.state.iptv_intf; sight.routed && !intf.empty())
        for (const std::string &hook :
             {"nat POSTROUTING_IPTV -j POSTROUTING_zep -o " + intf, "nat PREROUTING_IPTV -j PREROUTING_zep -i " + intf,
              "raw PREROUTING -i " + intf + " -j PREROUTING_zep_ACCEPT",
              "raw PREROUTING -i " + intf + " -j PREROUTING_zep_DROP"})
            wanted[hook] = 1;
    for (const Client_lease *lease : identities_of(sight.state))
        for (const Server_lease *device : devices_of(lease))
            if (device->nat_mapped)
                for (const std::string &rule : rules_of(device->ip_address, lease->ip_address))
                    ++wanted[rule];
    for (const auto &[rule, times] : wanted) {
        const auto found = sight.ground.rules().find(rule);
        const unsigned there = found == sight.ground.rules().end() ? 0 : found->second;
        if (there != times)
            return "a mapped device has its rules exactly once: " + rule + " stands " + std::to_string(there) +
                   " times, not " + std::to_string(times);
    }
    for (const auto &[rule, times] : sight.ground.rules())
        if (!wanted.contains(rule))
            return "no rule stands for what is not mapped: " + rule;
    return "";
}

std::string broken_owners(const Sight &sight) {
    std::set<int> slots;
    std::set<std::string> wan;
    std::set<std::string> lan;
    for (const Client_lease *lease : identities_of(sight.state)) {
        const std::string name = lease->name;
        if (lease->client_id_offset >= 0 && !slots.insert(lease->client_id_offset).second)
            return "a slot has one owner: " + name + " shares slot " + std::to_string(lease->client_id_offset);
        if (in_force(lease) && !wan.insert(lease->ip_address).second && !sight.handed_on->contains(lease->ip_address))
            return "a WAN address has one owner: " + name + " shares " + lease->ip_address;
        for (const Server_lease *device : devices_of(lease)) {
            if (device->nat_mapped && !lan.insert(device->ip_address).second &&
                !sight.stored_by_hand) /* what is mapped for whom is stored with it */
                return std::string("a LAN address is mapped once: ") + device->id + " shares " + device->ip_address;
            if (in_force(lease) && !device->nat_mapped && !sight.ground.rules_lost())
                return std::string("a device of an identity in force is mapped: ") + device->id + " of " + name + ", " +
                       name_of(lease->status);
        }
    }
    return "";
}

std::string broken_store(const Sight &sight) {
    if (sight.stored_by_hand)
        return "";
    std::set<std::string> names;
    const auto differs = [](const std::string &path, const std::string &parameter, const std::string &stored,
                            const std::string &held) {
        return "stored identities are those in memory: " + path + "." + parameter + " is \"" + stored + "\", not \"" +
               held + "\"";
    };
    for (const Client_lease *lease : identities_of(sight.state)) {
        const std::string path = join_path(identities, lease->name);
        names.insert(lease->name);
        std::map<std::string, std::string> held{{"Name", lease->name},
                                                {"ClientIDOffset", std::to_string(lease->client_id_offset)}};
        if (lease->status != LeaseStatus::Unconnected ||
            sight.model.text(path, "DHCPCStatus") == name_of(lease->status))
            sight.restored->erase(lease->name);
        if (lease->client_id_offset != unsaved_slot) {
            held["IPAddress"] = lease->ip_address;
            held["SubnetMask"] = lease->subnet_mask;
            if (!sight.restored->contains(lease->name))
                held["DHCPCStatus"] = name_of(lease->status);
        }
        for (const auto &[parameter, text] : held)
            if (const auto value = sight.model.get(path, parameter); !value || to_text(*value) != text)
                return differs(path, parameter, value ? to_text(*value) : "(none)", text);
        std::set<std::string> devices;
        for (const Server_lease *device : devices_of(lease)) {
            const std::string below = path + ".ServerLease." + device->id;
            devices.insert(device->id);
            for (const auto &[parameter, text] : std::map<std::string, std::string>{
                     {"Id", device->id}, {"IPAddress", device->ip_address}, {"MACAddress", device->mac_address}})
                if (const std::string stored = sight.model.text(below, parameter, "(none)"); stored != text)
                    return differs(below, parameter, stored, text);
        }
        for (const std::string &name : sight.model.instances(path + ".ServerLease"))
            if (!devices.contains(name))
                return "nothing is stored of a device that is gone: " + name + " of " + lease->name;
    }
    for (const std::string &name : sight.model.instances(identities))
        if (!names.contains(name))
            return "nothing is stored of an identity that is gone: " + name;
    return "";
}

std::string broken_remains(const Sight &sight) {
    std::set<std::string> clients;
    std::set<std::string> addresses;
    bool any = false;
    for (const Client_lease *lease : identities_of(sight.state)) {
        clients.insert(client_prefix + std::string(lease->name));
        any = any || in_force(lease);
        if (in_force(lease) && *sight.state.iptv_intf)
            addresses.insert(std::string(sight.state.iptv_intf) + " " + lease->ip_address + "/" +
                             std::to_string(std::popcount(ipv4_or_none(lease->subnet_mask))));
    }
    for (const std::string &name : sight.model.instances(interfaces_path)) {
        if (name.starts_with(client_prefix) && !clients.contains(name))
            return "no WAN client is left of an identity that is gone: " + name;
        const std::string path = interface_path(name);
        if (!name.starts_with("eth1."))
            continue;
        for (const std::string &one : sight.model.instances(path + ".IPv4Addr")) {
            const std::string instance = path + ".IPv4Addr." + one;
            const std::string held = name + " " + sight.model.text(instance, "Address") + "/" +
                                     std::to_string(sight.model.integer(instance, "PrefixLen"));
            if (!addresses.contains(held))
                return "no WAN address is left of what is gone: " + held;
            addresses.erase(held);
        }
        for (const std::string &one : sight.model.instances(path + ".IPv4Route"))
            if (one.starts_with("zep_") &&
                !(name == sight.state.iptv_intf ? any || sight.restarting
                                                : sight.restarting && !*sight.state.iptv_intf))
                return "no route is left when no identity is in force: " + name + " " + one;
    }
    if (!addresses.empty())
        return "the WAN address of an identity in force is on the IPTV interface: " + *addresses.begin();
    for (const std::string &name : clients)
        if (!sight.model.find(interface_path(name)))
            return "an identity has its WAN client: " + name;
    for (const std::string &name : sight.running_clients)
        if (!sight.model.find(interface_path(name)))
            return "no process runs of a WAN client that is gone: " + name;
    return "";
}

std::set<std::string> routes_on(const Sight &sight) {
    std::set<std::string> all;
    const std::string parent = interface_path(sight.state.iptv_intf) + ".IPv4Route";
    for (const std::string &name : sight.model.instances(parent)) {
        const std::string route = join_path(parent, name);
        if (name.starts_with("zep_"))
            all.insert(sight.model.text(route, "Dst") + "/" + std::to_string(sight.model.integer(route, "DstLen")) +
                       " via " + sight.model.text(route, "Gateway"));
    }
    return all;
}

std::string broken_clean_up(const Sight &sight) {
    if (sight.routed)
        return "";
    if (!sight.model.instances(identities).empty() || sight.state.client_leases.size > 0)
        return "outside the routed mode there are no identities";
    if (!sight.ground.rules_lost() && sight.ground.rules() != Ground::default_rules())
        return "after the clean-up the two default rules stand alone";
    for (const char *pool : iptv_pools)
        if (sight.model.integer(pool, "LeaseTime") != usual_lease_s || sight.model.boolean(pool, "LeasesOnHold"))
            return std::string("outside the routed mode the pools are as they were before: ") + pool;
    for (const char *server : {"NTPServer", "WWWServer"})
        if (sight.model.text("Keel.Zephyrin", server) != "00000000")
            return std::string("outside the routed mode no server of the operator's is handed on: ") + server;
    return "";
}

} // namespace

bool is_leased(const Model &model, const SimStb &device) {
    for (const std::string &pool : model.instances(lan_pools_path)) {
        const std::string lease = join_path(lan_pools_path, pool) + ".Rule.1.Lease." + device.id();
        if (model.text(lease, "IPAddress") == device.address() && model.text(lease, "MACAddress") == device.mac())
            return true;
    }
    return false;
}

bool any_in_force(const RoutedState &state) {
    const auto all = identities_of(state);
    return std::any_of(all.begin(), all.end(), in_force);
}

bool has_free_slot(const RoutedState &state) {
    int taken = 0;
    for (const Client_lease *lease : identities_of(state))
        taken += lease->client_id_offset >= 0 && lease->client_id_offset < client_slots ? 1 : 0;
    return taken < client_slots;
}

std::map<std::string, std::string> only_devices_of(const RoutedState &state) {
    std::map<std::string, std::string> all;
    for (const Client_lease *lease : identities_of(state))
        if (const auto devices = devices_of(lease); devices.size() == 1)
            all[lease->name] = devices.front()->id;
    return all;
}

std::vector<std::string> rules_of(const std::string &lan, const std::string &wan) {
    return {"raw PREROUTING_zep_ACCEPT -d " + wan + "/255.255.255.255 -j ACCEPT",
            "nat POSTROUTING_zep -s " + lan + " -j SNAT --to-source " + wan,
            "filter FORWARD_zep -s " + lan + " -j ACCEPT",
            "nat PREROUTING_zep -j DNAT --to-destination " + lan + " -d " + wan};
}

std::string broken_safety(const Sight &sight) {
    if (!sight.ground.strange_line.empty())
        return "no shell line holds what a device sent: " + sight.ground.strange_line;
    for (const auto &check : {broken_rules, broken_owners, broken_store, broken_remains, broken_clean_up})
        if (std::string broken = check(sight); !broken.empty())
            return broken;
    return "";
}

std::string broken_liveness(const Sight &sight, const SimStb &device, std::uint64_t heard_for_ms) {
    const bool stb = device.habits().vendor_class.starts_with("zep-stb");
    const bool itf = device.habits().vendor_class.starts_with("zep-itf");
    const std::string who = device.id() + " (" + device.habits().maker + ")";
    if (!device.address().empty() && !is_leased(sight.model, device))
        return "an address is leased to the device that has it: " + who + " has " + device.address();
    if (!sight.routed || (!stb && !itf))
        return device.address().empty() ? "a device that is no matter of the routed mode is served: " + who : "";
    const Client_lease *identity = identity_of(sight.state, device);
    if (!identity) /* one with a lease of a time without holds may not ask for hours */
        return heard_for_ms >= taken_up_within_ms ? "an STB that asks is taken up once there is a free slot: " + who
                                                  : "";
    if (identity->status != LeaseStatus::Connected)
        return "an identity with a present device is connected: " + who + " is " + name_of(identity->status);
    if (device.address().empty())
        return "an STB that the system would serve is served: " + who + " has no address";
    for (const std::string &rule : rules_of(device.address(), identity->ip_address))
        if (!sight.ground.rules().contains(rule))
            return "an STB that is served is mapped: " + who + " lacks " + rule;
    return "";
}

std::string broken_view(const Sight &sight, const SimStb &device, const StatusView &view) {
    if (!sight.routed || !device.habits().vendor_class.starts_with("zep-stb"))
        return "";
    const Client_lease *identity = identity_of(sight.state, device);
    const bool served = identity && identity->status == LeaseStatus::Connected && !device.address().empty();
    return served == view.served.contains(device.mac())
               ? ""
               : "who is told of an STB is told what is so: " + device.mac() + " is " + (served ? "" : "not ") +
                     "served, \"" + view.headline + "\"";
}

std::string broken_routes(const Sight &sight) {
    if (!sight.routed || !any_in_force(sight.state))
        return "";
    const std::size_t installed = routes_on(sight).size();
    const std::size_t received = llist_size(&sight.state.routes);
    return installed == received ? ""
                                 : "the operator's routes are installed: " + std::to_string(installed) + " of " +
                                       std::to_string(received);
}

std::string broken_terms(const Sight &sight, const std::string &mask, const std::map<int, std::string> &options) {
    static const std::map<std::string, std::set<std::string>> routes{
        {"180a3c000a140001", {"10.60.0.0/24 via 10.20.0.1"}},
        {"180a3c000a140001100a3d0a140001", {"10.60.0.0/24 via 10.20.0.1", "10.61.0.0/16 via 10.20.0.1"}},
        {"100a460a140001", {"10.70.0.0/16 via 10.20.0.1"}}};
    if (!sight.routed || !any_in_force(sight.state))
        return "";
    for (const Client_lease *lease : identities_of(sight.state))
        if (in_force(lease) && lease->subnet_mask != mask)
            return "the mask that the operator leases is in force: " + std::string(lease->name) + " has " +
                   lease->subnet_mask + ", not " + mask;
    const std::string servers = options.at(42) + " " + options.at(72);
    for (const char *pool : iptv_pools) {
        const std::string told = sight.model.text(std::string(pool) + ".Option.ntp", "Value") + " " +
                                 sight.model.text(std::string(pool) + ".Option.www", "Value");
        if (told != servers)
            return "the operator's servers are handed on: " + std::string(pool) + " has " + told + ", not " + servers;
    }
    const auto wanted = routes.find(options.at(121));
    if (wanted != routes.end() && routes_on(sight) != wanted->second)
        return "the operator's routes are installed: not those of " + wanted->first;
    return "";
}

std::string broken_answer(const Sight &sight, const SimStb &device, const SimStb::Answer &answer) {
    const bool itf = device.habits().vendor_class.starts_with("zep-itf");
    if (!sight.routed || !(itf || device.habits().vendor_class.starts_with("zep-stb")))
        return "";
    const std::string wanted = answer.lease_s == unleased_lease_time_s
                                   ? " "
                                   : std::string(sight.state.ntp_server) + " " + sight.state.www_server;
    for (const Client_lease *lease : identities_of(sight.state)) {
        if (lease->name != (itf ? "itf" : device.id()))
            continue;
        if (lease->status == LeaseStatus::Unleased && sight.restarting && !any_in_force(sight.state) &&
            (answer.lease_s != unleased_lease_time_s || answer.servers != " "))
            return "while the operator answers nobody, an answer is short and has no servers: " + device.id() +
                   " is told " + std::to_string(answer.lease_s) + " s, \"" + answer.servers + "\"";
        if (in_force(lease) && wanted.find("00000000") == std::string::npos && answer.servers != wanted)
            return "an answer of the whole lease time has the operator's servers, a short one none: " + device.id() +
                   " is told \"" + answer.servers + "\", not \"" + wanted + "\"";
    }
    return "";
}

} // namespace keel
