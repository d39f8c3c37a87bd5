/* What each step of a plan does to the world. */
#include <algorithm>
#include <utility>

#include "tests/simulate/world.h"

namespace keel {

namespace {

constexpr const char *service = "Keel.Zephyrin";
constexpr std::uint64_t longest_fault_ms = std::uint64_t{2} * 3600 * 1000;
constexpr std::uint64_t clock_noticed_ms = 61000; /* the ends of leases are written by the clock of then */

template <typename Choices> auto pick(const Choices &choices, std::uint64_t number) {
    return choices[number % std::size(choices)];
}

} // namespace

/* Of an identity that has not heard from the operator since its mask changed. One address would be there with two. */
bool World::is_held_with_another_mask(const std::string &address) const {
    const std::string identities = "Keel.Zephyrin.ClientLease";
    const auto all = life_->model.instances(identities);
    return std::any_of(all.begin(), all.end(), [&](const std::string &name) {
        const std::string identity = join_path(identities, name);
        return life_->model.text(identity, "IPAddress") == address &&
               life_->model.text(identity, "SubnetMask") != mask_;
    });
}

void World::carry_out(const Step &step) {
    if (step.deed <= Deed::Plug)
        carry_out_on_device(step, *devices_[step.subject % devices_.size()]);
    else if (step.deed <= Deed::RenewNow)
        carry_out_as_operator(step);
    else if (step.deed >= Deed::SetMode && step.deed <= Deed::SetClock)
        carry_out_as_person(step);
    else
        carry_out_on_ground(step);
}

void World::carry_out_on_device(const Step &step, SimStb &device) {
    switch (step.deed) {
    case Deed::SwitchOn:
        device.switch_on();
        break;
    case Deed::SwitchOff:
        device.switch_off();
        set_present(device, false);
        break;
    case Deed::Leave:
        device.leave();
        set_present(device, false);
        break;
    case Deed::Decline:
        device.decline();
        break;
    case Deed::RenewDevice:
        device.renew();
        break;
    case Deed::Unplug:
        device.set_plugged(false);
        set_present(device, false);
        break;
    default:
        device.set_plugged(true);
    }
}

void World::carry_out_as_operator(const Step &step) {
    static const char *const masks[] = {"255.255.255.0", "255.255.0.0", "255.255.252.0", rubbish_mask};
    static const char *const routes[] = {"180a3c000a140001", "180a3c000a140001100a3d0a140001", "100a460a140001", "",
                                         rubbish_routes};
    static const char *const servers[] = {"0a140002", "0a1400ff", "0a140102", rubbish_server};
    static const std::uint64_t lease_times[] = {86400, 3600, 600, 43200};
    const std::vector<std::string> all = clients();
    const std::string client = all.empty() ? "" : pick(all, step.subject);
    const std::string id = client.empty() ? "" : life_->model.text(interface_path(client) + ".SentOption.61", "Value");
    switch (step.deed) {
    case Deed::Away:
    case Deed::Back:
        online_ = step.deed == Deed::Back;
        break;
    case Deed::Slow:
    case Deed::Quick:
        answer_ms_ = step.deed == Deed::Slow ? 1000 + step.value % 40000 : 10;
        break;
    case Deed::ForgetLeases:
        address_book_.clear();
        for (const std::string &one : all)
            life_->wan->refuse_once(one);
        break;
    case Deed::RefuseOnce:
        if (!client.empty())
            life_->wan->refuse_once(client);
        break;
    case Deed::NewAddress:
        address_book_.erase(id);
        break;
    case Deed::GiveToAnother: { /* which renews first; the one before learns of it when it renews itself */
        const std::string other = all.empty() ? "" : pick(all, step.value);
        const std::string other_id =
            other.empty() ? "" : life_->model.text(interface_path(other) + ".SentOption.61", "Value");
        if (address_book_[id].empty() || other_id.empty() || other_id == id ||
            is_held_with_another_mask(address_book_[id]))
            break;
        handed_on_.insert(address_book_[id]);
        address_book_[other_id] = std::exchange(address_book_[id], "");
        tell_operator();
        if (life_->model.text(interface_path(other), "DHCPStatus") == "Bound")
            life_->wan->renew(other);
        break;
    }
    case Deed::NewMask:
        if (handed_on_.empty()) /* as above */
            mask_ = pick(masks, step.value);
        break;
    case Deed::NewRoutes:
        options_[121] = pick(routes, step.value);
        break;
    case Deed::NewServers:
        options_[42] = pick(servers, step.value);
        options_[72] = pick(servers, step.subject);
        break;
    case Deed::NewLeaseTime:
        lease_s_ = pick(lease_times, step.value);
        break;
    default:
        if (!client.empty() && life_->model.text(interface_path(client), "DHCPStatus") == "Bound")
            life_->wan->renew(client);
    }
    tell_operator();
}

void World::carry_out_as_person(const Step &step) {
    static const char *const modes[] = {"Routed", "Bridged", "Routed", "Simplified", "SimplifiedV2", "Nonsense"};
    static const char *const interfaces[] = {"Dedicated", "Internet", "Dedicated", "Nonsense"};
    const std::vector<std::string> all = leases();
    const std::string lease = all.empty() ? "" : pick(all, step.subject);
    switch (step.deed) {
    case Deed::SetMode:
        set(service, {{"Mode", std::string(pick(modes, step.value))}});
        break;
    case Deed::SetEnable:
        set(service, {{"Enable", step.value % 3 != 0}});
        break;
    case Deed::SetInterface:
        if (step.subject % 2)
            set(service, {{"Interface", std::string(pick(interfaces, step.value))}});
        else
            set("Keel", {{"IPTVMode", std::string(pick(interfaces, step.value))}});
        break;
    case Deed::SetMonoClient: /* while the service is off, as docs and people do it */
        set(service, {{"Enable", false}});
        loop_.advance(1000);
        mono_switched_ = true;
        set(service, {{"MonoClient", step.value % 2 == 0}, {"Enable", true}});
        break;
    case Deed::SetLeaseTime:
        set("Keel.Zephyrin.DHCPConfig", {{"LeaseTime", std::int64_t{step.value % 2 ? 86400 : 7200}}});
        break;
    case Deed::MoveAddress:
    case Deed::DeleteLease:
        if (lease.empty())
            break;
        for (const auto &device : devices_)
            if (lease.ends_with("." + device->id()))
                moved_by_hand_.insert(device.get());
        if (step.deed == Deed::DeleteLease) {
            life_->model.remove(lease);
        } else { /* to an address that no lease has */
            std::set<std::string> taken;
            for (const std::string &one : all)
                taken.insert(life_->model.text(one, "IPAddress"));
            for (const auto &device : devices_)
                taken.insert(device->address());
            const std::string identities = "Keel.Zephyrin.ClientLease"; /* devices that are away have theirs mapped */
            for (const std::string &identity : life_->model.instances(identities))
                for (const std::string &one : life_->model.instances(identities + "." + identity + ".ServerLease"))
                    taken.insert(life_->model.text(identities + "." + identity + ".ServerLease." + one, "IPAddress"));
            for (std::uint64_t tries = 0; tries < 20; ++tries) {
                const std::string free = "192.168.1." + std::to_string(200 + (step.value + tries) % 50);
                if (taken.contains(free))
                    continue;
                set(lease, {{"IPAddress", free}});
                break;
            }
        }
        break;
    case Deed::DeleteIdentity:
        if (const auto names = life_->model.instances("Keel.Zephyrin.ClientLease"); !names.empty()) {
            stored_by_hand_ = true;
            life_->model.remove("Keel.Zephyrin.ClientLease." + pick(names, step.subject));
        }
        break;
    case Deed::FlushChains:
        Ground::instance().flush_by_hand();
        break;
    default:
        clock_set_ms_ = loop_.now_ms();
        loop_.set_wall_clock(step.value % 3 == 0 ? loop_.now_ms() / 1000 : 1700000000 + step.value % 100000000);
    }
}

void World::carry_out_on_ground(const Step &step) {
    static const char *const line_names[] = {"eth1.20", "eth1.30"};
    const std::string line = pick(line_names, step.subject);
    Ground &ground = Ground::instance();
    switch (step.deed) {
    case Deed::LineDown:
    case Deed::LineUp:
        set_line(line, step.deed == Deed::LineUp);
        break;
    case Deed::Flap: {
        const bool up = lines_[line];
        life_->kernel->set_link(line, !up);
        loop_.advance(step.value % 300);
        life_->kernel->set_link(line, up);
        break;
    }
    case Deed::LoseLineEvents:
        life_->kernel->lose_events(1 + static_cast<unsigned>(step.value % 3));
        break;
    case Deed::CommandFails:
        ground.failing_command = 1 + step.value % 12;
        break;
    case Deed::CommandHangs:
        ground.hanging_command = 1 + step.value % 12;
        break;
    case Deed::AllocationFails:
        ground.failing_allocation = 1 + step.value % 8;
        break;
    case Deed::WriteFails:
        disk_.failing_write = 1 + step.value % 20;
        break;
    case Deed::DiskFull:
    case Deed::DiskMended:
        disk_.full = step.deed == Deed::DiskFull;
        if (disk_.full) /* somebody makes room: what is tried again each minute tells no more after hours */
            loop_.start_timer(step.value % longest_fault_ms, [this] { disk_.full = false; });
        break;
    case Deed::StoreDeleted:
        disk_.take_away();
        break;
    case Deed::FilesDead:
        disk_.lose_hold();
        break;
    case Deed::LanDead:
    case Deed::LanAlive:
        segment_.dead = step.deed == Deed::LanDead;
        if (segment_.dead)
            loop_.start_timer(step.value % longest_fault_ms, [this] { segment_.dead = false; });
        break;
    case Deed::Kill:
    case Deed::Restart: {
        const bool unsaved =
            !is_all_stored(step.deed == Deed::Kill) || loop_.now_ms() < clock_set_ms_ + clock_noticed_ms;
        if (unsaved)
            for (const auto &device : devices_)
                moved_by_hand_.insert(device.get());
        if (step.subject % 4 == 0) { /* the power was away, and the line comes back later than the host */
            lines_["eth1.20"] = lines_["eth1.30"] = false;
            loop_.start_timer(step.value % longest_fault_ms, [this] { set_line("eth1.20", true); });
        }
        power_off(step.deed == Deed::Kill);
        loop_.advance(step.value % 30000);
        power_on();
        break;
    }
    case Deed::Calm:
    case Deed::CalmByPeople:
        calm(step.deed == Deed::CalmByPeople);
        break;
    default:
        break;
    }
}

} // namespace keel
