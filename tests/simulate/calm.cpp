/* A time in which all is well, after which all must have become so in the gateway, too. */
#include "tests/simulate/world.h"

namespace keel {

namespace {

constexpr const char *sound_mask = "255.255.255.0";
constexpr std::uint64_t routes_are_made_ms = 3000; /* after a lease; until then there are none */

} // namespace

const std::map<int, std::string> &World::sound_options() {
    static const std::map<int, std::string> all{{42, "0a140002"}, {72, "0a140003"}, {121, "180a3c000a140001"}};
    return all;
}

void World::make_well() {
    online_ = true;
    answer_ms_ = 10;
    disk_.full = false;
    disk_.failing_write = 0;
    segment_.dead = false;
    Ground::instance().failing_command = 0;
    Ground::instance().hanging_command = 0;
    Ground::instance().failing_allocation = 0;
    life_->kernel->lose_events(0);
    for (const auto &[number, value] : sound_options())
        if (options_[number] == rubbish_routes || options_[number] == rubbish_server)
            options_[number] = value;
    if (mask_ == rubbish_mask)
        mask_ = sound_mask;
    tell_operator();
    lines_ = {{"eth1.20", true}, {"eth1.30", false}, {"eth1.10", true}};
    for (const auto &[line, up] : lines_)
        life_->kernel->set_link(line, up);
}

/* It is there, and knows what the server knows: what somebody has moved by hand it learns of later, at the latest when
 * the lease that it knows of has ended. */
bool World::is_settled(const SimStb &device) const {
    return device.is_on() && device.is_plugged() && (!moved_by_hand_.contains(&device) || device.address().empty());
}

/* So that what the operator leases now is what has come of it. */
void World::renew_all() {
    constexpr std::uint64_t settled_ms = 60000; /* a change of routes has them all bind anew */
    bool all = true;
    for (const std::string &client : clients()) {
        const bool bound = life_->model.text(interface_path(client), "DHCPStatus") == "Bound";
        all = all && bound;
        if (bound)
            life_->wan->renew(client);
    }
    loop_.advance(settled_ms);
    if (all)
        handed_on_.clear();
    if (const std::string broken = broken_terms(sight(), mask_, options_); !broken.empty())
        throw Violation(broken);
}

/* What is to end by itself has ended. */
void World::look_at_ends() {
    constexpr std::uint64_t kept_ms = std::uint64_t{48} * 3600 * 1000;
    constexpr std::uint64_t leeway_ms = 60000;
    std::set<std::string> leased;
    for (const std::string &lease : leases())
        leased.insert(lease.substr(lease.rfind('.') + 1));
    for (const auto &[name, device] : only_devices_of(*state_)) {
        const auto ended = lease_ended_ms_.find(device);
        const std::uint64_t since_ms = ended == lease_ended_ms_.end() ? started_ms_ : ended->second;
        if (!leased.contains(device) && loop_.now_ms() > since_ms + kept_ms + leeway_ms)
            throw Violation("an identity goes two days after the last lease of its device: " + name);
    }
}

void World::calm(bool by_people) {
    constexpr std::uint64_t minute_ms = 60000;
    make_well();
    if (by_people || stored_by_hand_ || mono_switched_ || Ground::instance().rules_lost() ||
        Ground::instance().allocation_failed) {
        set("Keel.Zephyrin", {{"Enable", false}});
        loop_.advance(2000);
        stored_by_hand_ = false;
        mono_switched_ = false;
        Ground::instance().allocation_failed = false;
    }
    set("Keel.Zephyrin", {{"MonoClient", false}});
    set("Keel.Zephyrin", {{"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}, {"Enable", true}});
    loop_.advance(80 * minute_ms);
    while (loop_.now_ms() < leased_ms_ + routes_are_made_ms)
        loop_.advance(leased_ms_ + routes_are_made_ms - loop_.now_ms());
    for (const auto &device : devices_)
        if (is_settled(*device))
            if (const std::string broken = broken_liveness(sight(), *device, heard_for_ms(*device)); !broken.empty())
                throw Violation(broken);
    life_->model.set("TIDE.Intf.iptv", {{"Status", std::string("Running")}}); /* there is no daemon here */
    const StatusView view = status_view(life_->model);
    for (const auto &device : devices_)
        if (const std::string broken = broken_view(sight(), *device, view); !broken.empty() && is_settled(*device))
            throw Violation(broken);
    if (const std::string broken = broken_routes(sight()); !broken.empty())
        throw Violation(broken);
    if (const std::string error = life_->model.text("KeelHost", "StoreError"); !error.empty())
        throw Violation("a disk that can be written is written: " + error);
    look_at_ends();
    renew_all();
}

} // namespace keel
