#include "host/linux/kernel.h"

#include <algorithm>
#include <fstream>
#include <utility>

#include "host/base/text_forms.h"
#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

std::string promote_secondaries_of(const std::string &link) {
    return "/proc/sys/net/ipv4/conf/" + link + "/promote_secondaries";
}

bool is_set(const std::string &file) {
    char value = '0';
    return std::ifstream(file) >> value && value != '0';
}

/* Without it, deleting the first of several addresses of a subnet takes the others along. Where /proc/sys is read only,
 * somebody else has to have set it for all. */
void keep_secondaries(const std::string &link) {
    std::ofstream(promote_secondaries_of(link)) << "1";
    static bool told = false;
    if (is_set(promote_secondaries_of("all")) || is_set(promote_secondaries_of(link)) || std::exchange(told, true))
        return;
    trace(Level::Warning, "kernel",
          "%s cannot be set: when the address of an STB goes, the others of its subnet go for a moment; set "
          "net.ipv4.conf.all.promote_secondaries to 1",
          promote_secondaries_of(link).c_str());
}

void report(const Outcome &refusal) {
    if (refusal)
        trace(Level::Warning, "kernel", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

void write(Model &model, const std::string &path, const Values &values) {
    report(model.set(path, values));
}

std::string network_of(const std::string &dotted, int prefix) {
    const auto address = parse_ipv4(dotted);
    return address ? format_ipv4(*address & mask_of(prefix)) : dotted;
}

bool is_dhcp_interface(const InterfaceGraph &graph, const std::string &name) {
    return graph.has_flag(name, "dhcp") && !graph.has_flag(name, "netdev");
}

bool word_changed(const Event &event, const char *word) {
    return has_word(to_text(event.before.at("Flags")), word) != has_word(to_text(event.values.at("Flags")), word);
}

/* Whether a change of an address or route instance is one of what the kernel is to hold. */
bool matters(const Event &event) {
    if (event.kind != Event::Kind::Changed)
        return event.kind != Event::Kind::Custom;
    static const std::set<std::string> unimportant = {"Status", "Flags"};
    return std::any_of(event.values.begin(), event.values.end(),
                       [](const auto &value) { return !unimportant.contains(value.first); });
}

} // namespace

Kernel::Kernel(Loop &loop, InterfaceGraph &graph, KernelTables &tables)
    : graph_(graph), model_(graph.model()), tables_(tables), mending_(loop, [this] { mend(); }) {
    watch_ = model_.watch(
        interfaces_path, [this](const Event &event) { on_event(event); },
        {{"Flags", "LowerLayers", "Enable", "Address", "PrefixLen", "Origin", "Dst", "DstLen", "Gateway"}, false});
    subscription_ = tables_.subscribe([this](const KernelChanges &changes) { on_changes(changes); });
    for (const std::string &name : model_.instances(interfaces_path)) {
        follow_device(name);
        touch(name);
    }
    mend();
}

Kernel::~Kernel() {
    model_.unwatch(watch_);
    tables_.unsubscribe(subscription_);
    tables_.catch_up();
    for (const auto &[index, link] : tables_.links()) {
        for (const KernelRoute &route : tables_.routes(index))
            tables_.delete_route(route);
        for (const KernelAddress &address : tables_.addresses(index))
            if (address.own)
                delete_address(link.name, address);
    }
}

/* --------------------------------------------------------------------------------------------------- changes */

void Kernel::on_event(const Event &event) {
    if (own_events_.erase(event.number) != 0 || event.steps.size() < 3)
        return;
    const std::string &name = event.steps[2];
    if (event.steps.size() == 3)
        return interface_changed(name, event);
    const bool address = event.steps.size() == 5 && event.steps[3] == "IPv4Addr";
    const bool route = event.steps.size() == 5 && event.steps[3] == "IPv4Route";
    if (!(address || route) || !matters(event))
        return;
    const auto dhcp = dhcp_devices_.find(name);
    const std::string device = dhcp == dhcp_devices_.end() ? name : dhcp->second;
    if (address && event.kind == Event::Kind::Deleted && event.values.contains("Address"))
        deleted_[device].emplace(to_text(event.values.at("Address")),
                                 static_cast<int>(std::get<std::int64_t>(event.values.at("PrefixLen"))));
    touch(device);
}

void Kernel::interface_changed(const std::string &name, const Event &event) {
    bool structure = event.kind == Event::Kind::Added || event.kind == Event::Kind::Deleted;
    if (event.kind == Event::Kind::Changed && event.values.contains("Flags")) {
        structure = word_changed(event, "netdev") || word_changed(event, "dhcp");
        const KernelLink *link = tables_.link(name);
        if (has_word(to_text(event.values.at("Flags")), "up") != (link && link->up))
            touch(name); /* somebody else has written the flag */
    }
    structure = structure || (event.kind == Event::Kind::Changed && event.values.contains("LowerLayers"));
    if (!structure)
        return;
    touch(name);
    if (graph_.exists(name)) {
        for (const std::string &above : graph_.reach(name, Traversal::Up))
            follow_device(above);
        return;
    }
    std::vector<std::string> dhcp_interfaces; /* nobody can tell any more which of them stood on it */
    for (const auto &[interface, device] : dhcp_devices_)
        dhcp_interfaces.push_back(interface);
    for (const std::string &interface : dhcp_interfaces)
        follow_device(interface);
}

/* Touches the devices that hold a DHCP interface's addresses and that held them, when that has changed. */
void Kernel::follow_device(const std::string &name) {
    const auto found = dhcp_devices_.find(name);
    const std::string before = found == dhcp_devices_.end() ? "" : found->second;
    const bool is = is_dhcp_interface(graph_, name);
    const std::string now = is ? graph_.netdev_below(name) : "";
    if (now != before) {
        touch(before);
        touch(now);
    }
    if (is)
        dhcp_devices_[name] = now;
    else if (found != dhcp_devices_.end())
        dhcp_devices_.erase(found);
}

void Kernel::on_changes(const KernelChanges &changes) {
    for (const auto &[index, name] : changes.links)
        touch(name);
    for (const auto *holders : {&changes.addresses, &changes.routes})
        for (const int index : *holders)
            if (const KernelLink *link = tables_.link(index))
                touch(link->name);
    if (!changes.others_routes)
        return;
    for (const std::string &name : refused_) {
        const KernelLink *link = tables_.link(name);
        if (link && link->enabled) /* nothing else helps one that is down */
            touch(name);
    }
}

void Kernel::touch(const std::string &device) {
    if (device.empty())
        return;
    touched_.insert(device);
    mending_.schedule();
}

/* --------------------------------------------------------------------------------------------------- mending */

void Kernel::mend() {
    tables_.catch_up();
    const auto touched = std::exchange(touched_, {});
    const auto deleted = std::exchange(deleted_, {});
    for (const std::string &name : touched) {
        const auto wishes = deleted.find(name);
        mend_device(name, wishes == deleted.end() ? Deleted() : wishes->second);
    }
}

void Kernel::mend_device(const std::string &name, const Deleted &deleted) {
    refused_.erase(name);
    if (!graph_.has_flag(name, "netdev")) {
        if (kept_.erase(name) != 0)
            retire_device(name, deleted);
        return;
    }
    kept_.insert(name);
    const KernelLink *known = tables_.link(name);
    mend_link(name, known);
    const KernelLink link = known ? *known : KernelLink{-1, name, false, false, false};
    mend_addresses(name, link, deleted);
    mend_routes(name, link);
}

void Kernel::delete_address(const std::string &device, const KernelAddress &address) {
    keep_secondaries(device);
    tables_.delete_address(address);
}

/* It is a device of the model no more: what it holds of ours goes, and what of others' was deleted with it. */
void Kernel::retire_device(const std::string &name, const Deleted &deleted) {
    const KernelLink *link = tables_.link(name);
    if (!link)
        return;
    for (const KernelRoute &route : tables_.routes(link->index))
        tables_.delete_route(route);
    for (const KernelAddress &address : tables_.addresses(link->index))
        if (address.own || deleted.contains({address.address, address.prefix}))
            delete_address(name, address);
}

void Kernel::mend_link(const std::string &name, const KernelLink *link) {
    const bool up = link && link->up;
    if (up == graph_.has_flag(name, "up"))
        return;
    trace(Level::Info, "kernel", "%s is %s", name.c_str(), up ? "up" : "down");
    keel::report(graph_.set_flag(name, "up", up));
}

void Kernel::mend_addresses(const std::string &name, const KernelLink &link, const Deleted &deleted) {
    std::vector<KernelAddress> unmatched = tables_.addresses(link.index);
    for (const std::string &path : graph_.addresses(name)) {
        const std::string text = model_.text(path, "Address");
        const int prefix = static_cast<int>(model_.integer(path, "PrefixLen"));
        const auto found = std::find_if(unmatched.begin(), unmatched.end(), [&](const KernelAddress &a) {
            return a.address == text && a.prefix == prefix;
        });
        const bool there = found != unmatched.end();
        if (model_.text(path, "Origin") == "kernel") {
            const bool unwanted = there && deleted.contains({text, prefix});
            if (unwanted) /* it was put here again before it was told that it had been deleted */
                delete_address(name, *found);
            if (there)
                unmatched.erase(found);
            if (unwanted || !there) {
                model_.remove(path);
                own_events_.insert(model_.latest_event());
            }
            continue;
        }
        if (text.empty() || !model_.boolean(path, "Enable"))
            continue; /* if it is there, it goes below */
        if (there) {
            unmatched.erase(found);
            write(model_, path, {{"Status", std::string("Enabled")}});
        } else {
            keep_secondaries(name);
            report(name, path, text + "/" + std::to_string(prefix),
                   link.index < 0 ? "no such device" : tables_.add_address(link, text, prefix));
        }
    }
    for (const KernelAddress &address : unmatched) {
        if (address.own || deleted.contains({address.address, address.prefix}))
            delete_address(name, address);
        else if (!model_.add(interface_path(name) + ".IPv4Addr", std::nullopt,
                             {{"Address", address.address},
                              {"PrefixLen", std::int64_t{address.prefix}},
                              {"Origin", std::string("kernel")},
                              {"Status", std::string("Enabled")}}))
            own_events_.insert(model_.latest_event());
    }
}

void Kernel::mend_routes(const std::string &name, const KernelLink &link) {
    const std::string parent = interface_path(name) + ".IPv4Route";
    std::vector<KernelRoute> unmatched = tables_.routes(link.index);

    std::vector<std::pair<std::string, KernelRoute>> missing;
    for (const std::string &instance : model_.instances(parent)) {
        const std::string path = parent + "." + instance;
        if (!model_.boolean(path, "Enable"))
            continue;
        const int prefix = static_cast<int>(model_.integer(path, "DstLen"));
        const KernelRoute wanted{link.index, network_of(model_.text(path, "Dst"), prefix), prefix,
                                 model_.text(path, "Gateway")};
        const auto found = std::find(unmatched.begin(), unmatched.end(), wanted);
        if (found == unmatched.end()) {
            missing.emplace_back(path, wanted);
            continue;
        }
        unmatched.erase(found);
        write(model_, path, {{"Status", std::string("Enabled")}});
    }
    for (const KernelRoute &route : unmatched) /* first, so that one may take another's place */
        tables_.delete_route(route);
    for (const auto &[path, route] : missing)
        report(name, path, route.destination + "/" + std::to_string(route.prefix) + " via " + route.gateway,
               link.index < 0 ? "no such device" : tables_.add_route(route));
}

/* Writes the outcome; a refusal is traced once, when it is news. */
void Kernel::report(const std::string &device, const std::string &path, const std::string &what,
                    const std::string &error) {
    const std::string status = error.empty() ? "Enabled" : "error";
    if (!error.empty())
        refused_.insert(device);
    if (!error.empty() && model_.text(path, "Status") != status)
        trace(Level::Warning, "kernel", "%s: %s refused: %s", path.c_str(), what.c_str(), error.c_str());
    write(model_, path, {{"Status", status}});
}

} // namespace keel
