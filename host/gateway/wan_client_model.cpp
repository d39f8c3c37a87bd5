#include "host/gateway/wan_client_model.h"

#include <cstdlib>

#include "host/base/text_forms.h"
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

/* Where the lease of the gateway's own client stands; "" for a client of the routed mode. */
std::string lease_path(const Model &model, const std::string &name) {
    return has_word(model.text(interface_path(name), "Flags"), "zep-dhcp") ? ""
                                                                           : interface_path(name) + ".IPv4Addr.dhcp";
}

void put_in_force(Model &model, const std::string &name, const std::string &address, const std::string &mask) {
    const std::string path = lease_path(model, name);
    if (path.empty())
        return;
    const std::int64_t prefix_length = prefix_length_of(ipv4_or_none(mask));
    const Values lease{
        {"Address", address}, {"PrefixLen", prefix_length}, {"Origin", std::string("dhcp")}, {"Enable", true}};
    report(model.find(path) ? model.set(path, lease) : model.add(interface_path(name) + ".IPv4Addr", "dhcp", lease));
}

} // namespace

WantedWanClients::WantedWanClients(Loop &loop, InterfaceGraph &graph, Start start, Stop stop)
    : graph_(graph), start_(std::move(start)), stop_(std::move(stop)),
      watch_(loop, graph, [this](const GraphWatch::Names &touched) { follow(touched); }) {
    const auto all = graph.with_flag("dhcp");
    watch_.schedule({all.begin(), all.end()});
}

std::string WantedWanClients::device_for(const std::string &name) const {
    if (!graph_.has_flag(name, "dhcp") || !graph_.model().boolean(interface_path(name), "Enable"))
        return "";
    const std::string device = graph_.netdev_below(name);
    return graph_.has_flag(device, "up") ? device : "";
}

void WantedWanClients::follow(const GraphWatch::Names &touched) {
    std::map<std::string, std::string> starting;
    for (const std::string &name : with_stack(graph_, touched)) {
        const std::string device = device_for(name);
        const auto started = started_.find(name);
        if (started != started_.end() && started->second == device)
            continue;
        if (started != started_.end()) {
            started_.erase(started);
            stop_(name);
        }
        if (!device.empty())
            starting[name] = device;
    }
    for (const auto &[name, device] : starting) {
        started_[name] = device;
        start_(name, device);
    }
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
