#include "host/gateway/wan_client_model.h"

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/text_forms.h"
#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr const char *exchanges_path = "DHCPv4.Client";
constexpr std::uint64_t first_retry_ms = 3000;
constexpr std::uint64_t longest_retry_ms = 64000;
constexpr std::uint64_t line_lost_ms = 200; /* until a client without a device is shown as looking for a server */

void report(const Outcome &outcome) {
    if (outcome)
        trace(Level::Warning, "wan", "%s: %s", outcome->path.c_str(), outcome->reason.c_str());
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
    const Values lease{{"Address", address},
                       {"PrefixLen", std::int64_t{prefix_length_of(ipv4_or_none(mask))}},
                       {"Origin", std::string("dhcp")},
                       {"Enable", true}};
    report(model.find(path) ? model.set(path, lease) : model.add(interface_path(name) + ".IPv4Addr", "dhcp", lease));
}

} // namespace

std::uint64_t wan_retry_ms(unsigned tries) {
    std::uint64_t wait = first_retry_ms;
    for (unsigned one = 1; one < tries && wait < longest_retry_ms; ++one)
        wait *= 2;
    return std::min(wait, longest_retry_ms);
}

/* ------------------------------------------------------------------------------------------------ what is shown */

bool WanClientModel::exists(const std::string &name) const {
    return model_.find(interface_path(name)) != nullptr;
}

void WanClientModel::status(const std::string &name, const std::string &status) {
    if (!exists(name))
        return;
    if (model_.text(interface_path(name), "DHCPStatus") != status)
        note(name, {{"Since", static_cast<std::int64_t>(loop_.wall_clock_s())}, {"NextTry", std::int64_t{0}}});
    report(model_.set(interface_path(name), {{"DHCPStatus", status}}));
    const std::string lease = lease_path(model_, name);
    if ((status == "Idle" || status == "Selecting") && !lease.empty() && model_.find(lease))
        report(model_.remove(lease));
}

void WanClientModel::nak(const std::string &name, const std::string &server) {
    if (!exists(name))
        return;
    failed(name, server.empty() ? "refused" : "refused by " + server);
    report(model_.set(interface_path(name), {{"LastConnectionError", std::string("None")}}));
    report(model_.set(interface_path(name), {{"LastConnectionError", std::string("RemoteNack")}}));
    status(name, "Selecting");
}

bool WanClientModel::bound(const std::string &name, WanLease lease) {
    if (!exists(name))
        return true;
    if (const auto fault = address_fault(model_, lease)) {
        complain(name, *fault, "the lease is not used, another one is asked for");
        failed(name, fault->text);
        status(name, "Selecting");
        return false;
    }
    for (const LeaseFault &fault : drop_faulty_options(lease))
        complain(name, fault, "it is left out");
    const std::string received = interface_path(name) + ".ReqOption";
    std::set<std::string> leased; /* an instance has its option's number as its name */
    for (const auto &[number, value] : lease.options)
        leased.insert(std::to_string(number));
    /* An answer that prolongs a lease need not say again all that came with it. */
    if (!holds_lease(model_.text(interface_path(name), "DHCPStatus")))
        for (const std::string &instance : model_.instances(received))
            if (!leased.contains(instance))
                model_.remove(received + "." + instance);
    for (const auto &[number, value] : lease.options) {
        const std::string key = std::to_string(number);
        if (model_.find(received + "." + key))
            report(model_.set(received + "." + key, {{"Value", value}}));
        else
            report(model_.add(received, key, {{"Value", value}}));
    }
    report(model_.set(
        interface_path(name),
        {{"IPAddress", lease.address}, {"SubnetMask", lease.mask}, {"LastConnectionError", std::string("None")}}));
    put_in_force(model_, name, lease.address, lease.mask);
    status(name, "Bound");
    return true;
}

void WanClientModel::complain(const std::string &name, const LeaseFault &fault, const char *consequence) {
    dropped(name);
    std::erase_if(faults_, [&](const auto &client) { return !exists(client.first); });
    const std::uint64_t count = ++faults_[name][fault.of];
    if ((count & (count - 1)) == 0)
        trace(Level::Warning, "wan",
              "%s: the operator leased what cannot be: %s; %s (%llu times so far); its DHCP server must be mended",
              name.c_str(), fault.text.c_str(), consequence, static_cast<unsigned long long>(count));
}

void WanClientModel::note(const std::string &name, const Values &values) {
    if (!exists(name) || !model_.find(exchanges_path))
        return;
    const std::string path = join_path(exchanges_path, name);
    report(model_.find(path) ? model_.set(path, values) : model_.add(exchanges_path, name, values));
}

void WanClientModel::count(const std::string &name, const char *parameter, Values values) {
    values[parameter] = model_.integer(join_path(exchanges_path, name), parameter) + 1;
    note(name, values);
}

void WanClientModel::sent(const std::string &name) {
    count(name, "Sent", {{"NextTry", std::int64_t{0}}});
}

void WanClientModel::answered(const std::string &name, const std::string &server) {
    count(name, "Answered", {{"Server", server}});
}

void WanClientModel::failed(const std::string &name, const std::string &error) {
    note(name, {{"LastError", error}});
}

void WanClientModel::dropped(const std::string &name) {
    count(name, "Dropped", {});
}

void WanClientModel::next_try_in(const std::string &name, std::uint64_t milliseconds) {
    note(name, {{"NextTry", static_cast<std::int64_t>(loop_.wall_clock_s() + (milliseconds + 500) / 1000)}});
}

void WanClientModel::forget(const std::string &name) {
    const std::string path = join_path(exchanges_path, name);
    if (model_.find(path))
        report(model_.remove(path));
}

/* ------------------------------------------------------------------------------------------------- who is wanted */

WantedWanClients::WantedWanClients(Loop &loop, InterfaceGraph &graph, Start start, Stop stop)
    : loop_(loop), graph_(graph), show_(loop, graph.model()), start_(std::move(start)), stop_(std::move(stop)),
      events_(
          graph.model().watch(interfaces_path, [this](const Event &event) { on_event(event); }, {{"Enable"}, false})),
      watch_(loop, graph, [this](const GraphWatch::Names &touched) { follow(touched); }) {
    const auto all = graph.with_flag("dhcp");
    watch_.schedule({all.begin(), all.end()});
}

WantedWanClients::~WantedWanClients() {
    graph_.model().unwatch(events_);
    loop_.cancel_timer(line_lost_);
}

/* Who only looks at the state of a later turn does not see what went and came back before. */
void WantedWanClients::on_event(const Event &event) {
    if (event.steps.size() != 3)
        return;
    const auto enable = event.values.find("Enable");
    const bool disabled =
        event.kind == Event::Kind::Changed && enable != event.values.end() && enable->second == Value{false};
    if (disabled || event.kind == Event::Kind::Deleted)
        interrupted_.insert(event.steps.back());
}

bool WantedWanClients::wanted(const std::string &name) const {
    return graph_.has_flag(name, "dhcp") && graph_.model().boolean(interface_path(name), "Enable");
}

void WantedWanClients::follow(const GraphWatch::Names &touched) {
    std::map<std::string, std::string> starting;
    const auto interrupted = std::exchange(interrupted_, {});
    for (const std::string &name : with_stack(graph_, touched)) {
        if (!graph_.exists(name))
            show_.forget(name);
        const bool now = wanted(name);
        const bool on = now && !interrupted.contains(name);
        std::string device = now ? graph_.live_netdev_below(name) : "";
        if (const auto before = looking_.find(name); before != looking_.end()) {
            if (on && before->second == device)
                continue;
            const bool ran = !before->second.empty();
            looking_.erase(before);
            if (ran)
                stop_(name);
            if (!on || device.empty())
                show_.status(name, "Idle");
            if (on && device.empty()) {
                looking_[name] = "";
                loop_.cancel_timer(line_lost_);
                line_lost_ = loop_.start_timer(line_lost_ms, [this] { look_without_line(); });
                continue;
            }
        }
        if (now)
            starting[name] = std::move(device);
    }
    for (const auto &[name, device] : starting) {
        looking_[name] = device;
        show_.status(name, "Selecting");
        if (!device.empty())
            start_(name, device);
    }
}

void WantedWanClients::look_without_line() {
    line_lost_ = 0;
    for (const auto &[name, device] : looking_)
        if (device.empty())
            show_.status(name, "Selecting");
}

} // namespace keel
