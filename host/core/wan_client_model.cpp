#include "host/core/wan_client_model.h"

#include "host/core/graph.h"
#include "host/core/trace.h"

namespace keel {

namespace {

void write(Model &model, const std::string &path, const Values &values) {
    if (const Outcome refusal = model.set(path, values))
        trace(Level::Warning, "wan", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
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
        else if (const Outcome refusal = model.add(received, key, {{"Value", value}}))
            trace(Level::Warning, "wan", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
    }
    write(model, interface_path(name),
          {{"IPAddress", address}, {"SubnetMask", mask}, {"LastConnectionError", std::string("None")}});
    set_wan_status(model, name, "Bound");
}

} // namespace keel
