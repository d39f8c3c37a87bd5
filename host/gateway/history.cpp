#include "host/gateway/history.h"

#include <algorithm>
#include <utility>

#include "host/base/timeline.h"
#include "host/gateway/settings.h"
#include "host/gateway/wan_lease.h"

namespace keel {

namespace {

using Kind = TimelineEvent::Kind;

constexpr const char *waiting_path = "DHCPv4.Server.Waiting";
constexpr const char *missing_rules_path = "Firewall.Missing";
constexpr const char *settings[] = {"Enable", "Mode", "Interface", "MonoClient"};
constexpr std::uint64_t settle_ms = 100;
constexpr const char *client_prefix = "dhcp_zep_"; /* of the identities' interfaces */

void note(Kind kind, const std::string &who, const std::string &what, const std::string &text) {
    Timeline::instance().note(kind, who, what, text);
}

std::string text_in(const Values &values, const char *parameter) {
    const auto found = values.find(parameter);
    return found == values.end() ? "" : to_text(found->second);
}

/* DHCPv4.Server.Pool.POOL.Rule.NUMBER.Lease.ID */
bool is_iptv_lease(const Event &event) {
    return event.steps.size() == 8 && event.steps[6] == "Lease" &&
           std::find(std::begin(iptv_pools), std::end(iptv_pools), join_path(lan_pools_path, event.steps[3])) !=
               std::end(iptv_pools);
}

} // namespace

History::History(Loop &loop, Model &model)
    : loop_(loop), model_(model), looking_(loop, [this] { look(); }),
      leases_(model.watch(lan_pools_path, [this](const Event &event) { on_lease(event); }, {{"OnHold"}, false})),
      waiting_(model.watch(waiting_path, [this](const Event &event) { on_waiting(event); }, {{"Because"}, false})),
      interfaces_(model.watch(interfaces_path, [this](const Event &event) { on_interface(event); },
                              {{"DHCPStatus", "Status"}, false})),
      service_(model.watch(service_path, [this](const Event &event) { on_service(event); },
                           {{"Enable", "Mode", "Interface", "MonoClient", "DHCPCStatus"}, false})),
      missing_rules_(model.watch(missing_rules_path, [this](const Event &event) {
          if (event.kind != Event::Kind::Changed) /* when it is put back */
              touch_all();
      })) {
    for (const char *pool : iptv_pools) {
        const std::string rules = std::string(pool) + ".Rule";
        for (const std::string &number : model_.instances(rules)) {
            const std::string leases = join_path(rules, number) + ".Lease";
            for (const std::string &id : model_.instances(leases)) {
                Device &device = devices_[id];
                device.lease = join_path(leases, id);
                device.mac = model_.text(device.lease, "MACAddress");
                device.state = state_of(id, device);
            }
        }
    }
}

History::~History() {
    loop_.cancel_timer(settling_);
    for (const Model::WatchId watch : {leases_, waiting_, interfaces_, service_, missing_rules_})
        model_.unwatch(watch);
}

void History::on_lease(const Event &event) {
    if (!is_iptv_lease(event))
        return;
    const std::string &id = event.steps.back();
    Device &device = devices_[id];
    if (device.state.empty())
        device.state = "dark";
    if (event.kind != Event::Kind::Deleted)
        device.lease = event.path();
    if (device.mac.empty() || event.kind == Event::Kind::Added)
        device.mac = event.kind == Event::Kind::Changed ? model_.text(device.lease, "MACAddress")
                                                        : text_in(event.values, "MACAddress");
    const std::string address = event.kind == Event::Kind::Changed ? model_.text(device.lease, "IPAddress")
                                                                   : text_in(event.values, "IPAddress");
    note(Kind::Lease, device.mac,
         event.kind == Event::Kind::Deleted          ? "gone"
         : text_in(event.values, "OnHold") == "true" ? "held"
                                                     : "released",
         address);
    touched_.insert(id);
    looking_.schedule();
}

/* The others wait with a lease, of which is told already. */
void History::on_waiting(const Event &event) {
    const std::string because = text_in(event.values, "Because");
    const std::string path = event.path();
    if (event.kind != Event::Kind::Deleted && !because.empty() && because.find("on hold") == std::string::npos)
        note(Kind::Refused, model_.text(path, "MACAddress"), "refused", because);
}

void History::on_interface(const Event &event) {
    if (event.steps.size() == 5 && event.steps[3] == "IPv4Route") {
        on_route(event);
    } else if (event.steps.size() == 3 && event.kind == Event::Kind::Changed && event.values.contains("DHCPStatus")) {
        const std::string &name = event.steps[2];
        const std::string state = text_in(event.values, "DHCPStatus");
        note(Kind::Client, name, state, state == "Bound" ? model_.text(event.path(), "IPAddress") : "");
        if (name.starts_with(client_prefix))
            touch_identity(name.substr(std::string(client_prefix).size()));
    }
}

void History::on_route(const Event &event) {
    const std::string path = event.path();
    const bool gone = event.kind == Event::Kind::Deleted;
    const std::string status = gone ? "gone" : text_in(event.values, "Status");
    if (status.empty())
        return;
    const auto value = [&](const char *name) { return gone ? text_in(event.values, name) : model_.text(path, name); };
    const std::string length = gone ? text_in(event.values, "DstLen") : std::to_string(model_.integer(path, "DstLen"));
    note(Kind::Route, event.steps[2], status, value("Dst") + "/" + length + " via " + value("Gateway"));
}

void History::on_service(const Event &event) {
    if (event.steps.size() == 2) {
        if (event.kind != Event::Kind::Changed) /* what is only told has not changed */
            return;
        for (const char *setting : settings)
            if (event.values.contains(setting))
                note(Kind::Mode, "", setting, text_in(event.values, setting));
        touch_all();
    } else if (event.steps.size() > 3 && event.steps[2] == "ClientLease") {
        touch_identity(event.steps[3]);
    }
}

void History::touch_identity(const std::string &name) {
    const std::string stored = join_path(identities_path, name) + ".ServerLease";
    for (const std::string &number : model_.instances(stored))
        touched_.insert(model_.text(join_path(stored, number), "Id"));
    looking_.schedule();
}

void History::touch_all() {
    for (const auto &[id, device] : devices_)
        touched_.insert(id);
    looking_.schedule();
}

void History::look() {
    look_at(std::exchange(touched_, {}), false);
}

/* What makes a device dark may be half of a change, such as a lease that is released before its identity says why: it
 * counts when it stays so. */
void History::look_at(const std::set<std::string> &ids, bool settled) {
    for (const std::string &id : ids) {
        const auto found = devices_.find(id);
        if (found == devices_.end())
            continue;
        Device &device = found->second;
        const std::string state = state_of(id, device);
        if (state == "dark" && state != device.state && !settled && model_.find(device.lease)) {
            unsettled_.insert(id);
            if (!settling_)
                settling_ = loop_.start_timer(settle_ms, [this] {
                    settling_ = 0;
                    look_at(std::exchange(unsettled_, {}), true);
                });
            continue;
        }
        if (state != device.state)
            note(Kind::State, device.mac, state, device.state);
        device.state = state;
        if (!model_.find(device.lease))
            devices_.erase(found);
    }
}

/* Rules that it needs, or that all need. */
bool History::lacks_rules(const Device &device) const {
    const std::string own = model_.text(device.lease, "IPAddress");
    for (const std::string &name : model_.instances(missing_rules_path)) {
        const std::string address = model_.text(join_path(missing_rules_path, name), "Address");
        if (address.empty() || address == own)
            return true;
    }
    return false;
}

/* Dark: it has no lease, or one without a way to the operator. */
std::string History::state_of(const std::string &id, const Device &device) const {
    if (!model_.find(device.lease))
        return "dark";
    if (model_.boolean(device.lease, "OnHold"))
        return "held";
    if (lacks_rules(device))
        return "dark";
    if (model_.text(service_path, "Mode") != "Routed" || model_.text(service_path, "Interface") != "Dedicated")
        return "served";
    for (const std::string &name : model_.instances(identities_path)) {
        const std::string identity = join_path(identities_path, name);
        const std::string stored = identity + ".ServerLease";
        for (const std::string &number : model_.instances(stored)) {
            if (model_.text(join_path(stored, number), "Id") != id)
                continue;
            const std::string client = model_.text(interface_path(client_prefix + name), "DHCPStatus");
            if (holds_lease(client))
                return "served";
            const std::string status = model_.text(identity, "DHCPCStatus");
            if (status == "Internal") /* its address stays in force while the operator does not answer */
                return "served";
            return status == "Unleased" ? "stop-gap" : "dark";
        }
    }
    return "dark";
}

} // namespace keel
