#include "host/gateway/wan_client_model.h"

#include <arpa/inet.h>

#include <bit>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

void report(const Outcome &outcome) {
    if (outcome)
        trace(Level::Warning, "wan", "%s: %s", outcome->path.c_str(), outcome->reason.c_str());
}

void write(Model &model, const std::string &path, const Values &values) {
    report(model.set(path, values));
}

std::int64_t prefix_length(const std::string &mask) {
    in_addr parsed{};
    return inet_pton(AF_INET, mask.c_str(), &parsed) == 1 ? std::popcount(parsed.s_addr) : 0;
}

/* Where the lease of the gateway's own client stands; "" for a client of the routed mode. */
std::string lease_path(const Model &model, const std::string &name) {
    return has_word(interface_flags(model, name), "zep-dhcp") ? "" : interface_path(name) + ".IPv4Addr.dhcp";
}

void put_in_force(Model &model, const std::string &name, const std::string &address, const std::string &mask) {
    const std::string path = lease_path(model, name);
    if (path.empty())
        return;
    const Values lease{
        {"Address", address}, {"PrefixLen", prefix_length(mask)}, {"Origin", std::string("dhcp")}, {"Enable", true}};
    report(model.find(path) ? model.set(path, lease) : model.add(interface_path(name) + ".IPv4Addr", "dhcp", lease));
}

} // namespace

std::map<std::string, std::string> wanted_wan_clients(const Model &model) {
    std::map<std::string, std::string> wanted;
    for (const std::string &name : model.instances("Weft.Intf")) {
        if (!has_word(interface_flags(model, name), "dhcp") || !model.boolean(interface_path(name), "Enable"))
            continue;
        const std::string device = netdev_below(model, name);
        if (!device.empty() && has_word(interface_flags(model, device), "up"))
            wanted[name] = device;
    }
    return wanted;
}

void set_wan_status(Model &model, const std::string &name, const std::string &status) {
    write(model, interface_path(name), {{"DHCPStatus", status}});
    const std::string lease = lease_path(model, name);
    if (status == "Idle" && !lease.empty() && model.find(lease))
        report(model.remove(lease));
}

void set_wan_nak(Model &model, const std::string &name) {
    write(model, interface_path(name), {{"LastConnectionError", std::string("None")}});
    write(model, interface_path(name), {{"LastConnectionError", std::string("RemoteNack")}});
}

void set_wan_bound(Model &model, const std::string &name, const std::string &address, const std::string &mask,
                   const std::map<int, std::string> &options) {
    const std::string received = interface_path(name) + ".ReqOption";
    for (const std::string &instance : model.instances(received))
        if (!options.contains(std::atoi(instance.c_str())))
            model.remove(received + "." + instance);
    for (const auto &[number, value] : options) {
        const std::string key = std::to_string(number);
        if (model.find(received + "." + key))
            write(model, received + "." + key, {{"Value", value}});
        else
            report(model.add(received, key, {{"Value", value}}));
    }
    write(model, interface_path(name),
          {{"IPAddress", address}, {"SubnetMask", mask}, {"LastConnectionError", std::string("None")}});
    put_in_force(model, name, address, mask);
    set_wan_status(model, name, "Bound");
}

} // namespace keel
