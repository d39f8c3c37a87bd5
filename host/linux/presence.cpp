#include "host/linux/presence.h"

#include <algorithm>
#include <utility>

#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr std::uint64_t ask_every_ms = 30000;
constexpr const char *hosts_path = "Hosts.Host";
constexpr const char *plain_tags = "lan";
constexpr const char *stb_tag = "stb";

std::string host_path(const std::string &mac) {
    return std::string(hosts_path) + "." + mac;
}

} // namespace

Presence::Presence(Loop &loop, InterfaceGraph &graph, KernelTables &tables)
    : loop_(loop), graph_(graph), model_(graph.model()), tables_(tables),
      leases_(model_, [this](const std::string &mac) { on_lease(mac); }) {
    interface_watch_ =
        model_.watch(interfaces_path, [this](const Event &event) { on_interface(event); }, {{"Flags"}, false});
    host_watch_ = model_.watch(hosts_path, [this](const Event &event) { on_host(event); });
    subscription_ = tables_.subscribe([this](const KernelChanges &changes) { on_changes(changes); });
    look_at_all();
    ask();
}

Presence::~Presence() {
    model_.unwatch(interface_watch_);
    model_.unwatch(host_watch_);
    tables_.unsubscribe(subscription_);
    loop_.cancel_timer(asking_);
}

/* --------------------------------------------------------------------------------------------------- changes */

bool Presence::is_bridge(const std::string &name) const {
    return graph_.has_flag(name, "bridge");
}

void Presence::look_at_all() {
    const auto &links = tables_.links();
    const auto found =
        std::find_if(links.begin(), links.end(), [&](const auto &one) { return is_bridge(one.second.name); });
    lan_ = found == links.end() ? 0 : found->first;
    std::set<std::string> all = tables_.devices();
    for (const std::string &mac : model_.instances(hosts_path))
        all.insert(mac);
    for (const std::string &mac : all)
        update(mac);
}

void Presence::on_changes(const KernelChanges &changes) {
    for (const auto &[index, name] : changes.links) {
        const KernelLink *link = tables_.link(index);
        const bool was = index == lan_;
        const bool is = link && is_bridge(link->name);
        if (was != is && (was || lan_ == 0 || index < lan_)) /* the first one counts */
            return look_at_all();
        const auto devices = behind_.find(index);
        if (devices == behind_.end())
            continue;
        for (const std::string &mac : std::set<std::string>(devices->second))
            update(mac);
    }
    for (const auto &[mac, reached] : changes.devices)
        update(mac, reached);
    admit_waiting();
}

/* Another interface may be the LAN bridge now. */
void Presence::on_interface(const Event &event) {
    const auto bridge_in = [](const Values &values) {
        const auto flags = values.find("Flags");
        return flags != values.end() && has_word(to_text(flags->second), "bridge");
    };
    if (event.steps.size() == 3 && bridge_in(event.values) != bridge_in(event.before))
        look_at_all();
}

void Presence::on_host(const Event &event) {
    if (event.steps.size() != 3 || own_events_.erase(event.number) != 0)
        return;
    const std::string &mac = event.steps[2];
    if (event.kind == Event::Kind::Deleted) {
        release(mac);
        update(mac);
        admit_waiting();
    } else if (event.kind == Event::Kind::Added) {
        const auto tags = event.values.find("Tags"); /* a model of one's own may have none */
        if (tags != event.values.end() && tags->second != Value(std::string(plain_tags)))
            keep_tags(mac);
    } else if (event.kind == Event::Kind::Changed) {
        static const std::set<std::string> ours = {"Active", "IPAddress", "Port", "HostName", "VendorClass"};
        const bool others = std::any_of(event.values.begin(), event.values.end(),
                                        [](const auto &value) { return !ours.contains(value.first); });
        if (event.values.contains("Tags"))
            keep_tags(mac);
        if (others) {
            release(mac); /* somebody cares for it */
            admit_waiting();
        }
    }
}

void Presence::keep_tags(const std::string &mac) {
    const std::uint64_t before = model_.latest_event();
    model_.set(host_path(mac), {{"TagsByHand", true}});
    if (model_.latest_event() != before)
        own_events_.insert(model_.latest_event());
}

void Presence::on_lease(const std::string &mac) {
    if (model_.find(host_path(mac)))
        update(mac);
}

/* --------------------------------------------------------------------------------------------------- devices */

void Presence::update(const std::string &mac, const std::string &reached) {
    const Sight sight = see(mac, reached);
    const std::string path = host_path(mac);
    const bool known = model_.find(path);
    waiting_.erase(mac);
    if (!known && !sight.active)
        return sight.any ? void() : forget(mac);
    if (!known && !make_room()) {
        waiting_.insert(mac);
        return;
    }
    Device &device = devices_[mac];
    Values values{{"Active", sight.active}};
    if (sight.any) {
        const KernelLink *port = tables_.link(device.port);
        values["Port"] = port ? port->name : std::string();
    }
    if (!sight.address.empty())
        values["IPAddress"] = sight.address;
    if (!known) {
        values["MACAddress"] = mac;
        if (model_.add(hosts_path, mac, values))
            return;
        device.mine = true;
        ++mine_;
    }
    values.merge(lease_values(mac, device, sight.address));
    const std::uint64_t before = model_.latest_event();
    model_.set(path, values);
    if (model_.latest_event() != before)
        own_events_.insert(model_.latest_event());
    keep_absent(mac, device, device.mine && !sight.active);
}

/* What its lease says of a device. */
Values Presence::lease_values(const std::string &mac, Device &device, const std::string &address) const {
    Values values;
    const auto lease = leases_.of(mac);
    if (!lease)
        return values;
    if (address.empty() && !lease->address.empty())
        values["IPAddress"] = lease->address;
    if (!lease->host_name.empty())
        values["HostName"] = lease->host_name;
    if (!lease->vendor_class.empty())
        values["VendorClass"] = lease->vendor_class;
    if (model_.boolean(host_path(mac), "TagsByHand"))
        return values;
    const std::string tags = model_.text(host_path(mac), "Tags");
    if (lease->stb && !has_word(tags, stb_tag)) {
        values["Tags"] = with_word(tags, stb_tag);
        device.tagged = true;
    } else if (!lease->stb && std::exchange(device.tagged, false)) {
        values["Tags"] = without_word(tags, stb_tag);
    }
    return values;
}

/* What the kernel knows of a device. With several addresses the one at which it was reached last counts, for as long
 * as it answers there. */
Presence::Sight Presence::see(const std::string &mac, const std::string &reached) {
    Sight sight;
    bool behind_port = false;
    for (const KernelForwarding &entry : tables_.forwarding_of(mac)) {
        if (entry.bridge != lan_ || entry.port == lan_)
            continue;
        set_port(mac, entry.port);
        behind_port = true;
    }
    const auto device = devices_.find(mac);
    const int port = device == devices_.end() ? 0 : device->second.port;
    const KernelLink *link = tables_.link(port);
    const bool carrier = port == 0 || (link && link->up);
    sight.any = behind_port;
    sight.active = behind_port && carrier;
    const std::string current = model_.text(host_path(mac), "IPAddress");
    for (const KernelNeighbour &neighbour : tables_.neighbours_of(mac)) {
        if (neighbour.link != lan_)
            continue;
        sight.any = true;
        sight.active = sight.active || (neighbour.valid && carrier);
        const bool better = neighbour.address == reached || (neighbour.address == current && sight.address != reached);
        if (neighbour.valid && (sight.address.empty() || better))
            sight.address = neighbour.address;
    }
    return sight;
}

/* Whether there may be one more instance of ours; the one that is absent longest goes for it. */
bool Presence::make_room() {
    if (mine_ < max_hosts)
        return true;
    if (absent_.empty())
        return false;
    const std::string mac = absent_.begin()->second;
    release(mac);
    if (!model_.remove(host_path(mac)))
        own_events_.insert(model_.latest_event());
    if (!see(mac, "").any)
        forget(mac);
    return true;
}

void Presence::admit_waiting() {
    while (!waiting_.empty() && make_room())
        update(std::string(*waiting_.begin())); /* it waits no longer then */
}

void Presence::keep_absent(const std::string &mac, Device &device, bool absent) {
    if (absent == (device.absent != 0))
        return;
    if (absent) {
        device.absent = ++last_absent_;
        absent_[device.absent] = mac;
    } else {
        absent_.erase(device.absent);
        device.absent = 0;
    }
}

/* Its instance is not ours any more. */
void Presence::release(const std::string &mac) {
    const auto device = devices_.find(mac);
    if (device == devices_.end() || !device->second.mine)
        return;
    keep_absent(mac, device->second, false);
    device->second.mine = false;
    --mine_;
}

void Presence::forget(const std::string &mac) {
    set_port(mac, 0);
    devices_.erase(mac);
}

/* 0 for none. */
void Presence::set_port(const std::string &mac, int port) {
    Device &device = devices_[mac];
    if (device.port == port)
        return;
    const auto before = behind_.find(device.port);
    if (before != behind_.end()) {
        before->second.erase(mac);
        if (before->second.empty())
            behind_.erase(before);
    }
    if (port != 0)
        behind_[port].insert(mac);
    device.port = port;
}

/* Not those that an administrator has fixed: they would be fixed no more. */
void Presence::ask() {
    for (const KernelNeighbour &neighbour : tables_.neighbours(lan_))
        if (neighbour.valid && !neighbour.fixed && !neighbour.mac.empty())
            tables_.probe(neighbour);
    asking_ = loop_.start_timer(ask_every_ms, [this] { ask(); });
}

} // namespace keel
