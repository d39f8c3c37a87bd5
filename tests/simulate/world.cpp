#include "tests/simulate/world.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "host/base/trace.h"
#include "host/gateway/leftovers.h"
#include "host/platform/plugin.h"

namespace keel {

namespace {

constexpr const char *pools[] = {"zep_stb", "zep_itf", "lan"};
constexpr const char *store_file = "simulated-keel.db";
constexpr const char *gateway_address = "10.20.0.9";
constexpr std::uint64_t script_ms = 50;
constexpr std::uint64_t hour_ms = 3600000;
constexpr unsigned most_leases_an_hour = 1500; /* a tenth of it comes about where leases are short */
constexpr std::size_t gateway_column = 0;
constexpr std::size_t operator_column = 1;
constexpr std::size_t first_device_column = 2;

/* The devices of every run, of which a seed uses some; the habits are those of the usual DHCP clients. */
std::vector<StbHabits> habits_of_devices(Chance &chance) {
    const std::vector<StbHabits> makers{
        {"udhcpc", "zep-stb", StbHabits::Tells::Always, {}, {3, 3, 20}, 0, false, 500},
        {"dhclient", "zep-stb", StbHabits::Tells::Sometimes, {}, {3, 8, 15, 21, 13, 300}, 0, true, 3000},
        {"dhcpcd", "zep-stb", StbHabits::Tells::InDiscoverAlone, {}, {4, 8, 16, 32, 64}, 4, true, 1000}};
    std::vector<StbHabits> all;
    const std::uint64_t stbs =
        4 + (chance.one_in(4) ? chance.below(6) : 0); /* more than four are refused, and ask on */
    for (std::uint64_t i = 0; i < stbs; ++i) {
        StbHabits one = makers[chance.below(makers.size())];
        one.vendor_class += chance.one_in(3) ? "$(reboot)" : "-4k";
        if (chance.one_in(3))
            one.client_id = {0, 'b', 'o', 'x', ';', static_cast<std::uint8_t>('a' + i)};
        all.push_back(one);
    }
    for (std::uint64_t i = chance.below(3); i > 0; --i) {
        all.push_back(makers[chance.below(2)]);
        all.back().vendor_class = "zep-itf";
    }
    for (std::uint64_t i = chance.below(3); i > 0; --i) {
        all.push_back(makers[1]);
        all.back().vendor_class = "pc";
    }
    return all;
}

bool needs_no_slot(const SimStb &device) {
    return device.habits().vendor_class.starts_with("zep-itf");
}

bool is_stb(const SimStb &device) {
    return device.habits().vendor_class.starts_with("zep-stb");
}

std::string lost_in_store(const std::map<std::string, std::string> &before,
                          const std::map<std::string, std::string> &now) {
    for (const auto &[name, value] : before)
        if (const auto found = now.find(name); found == now.end() || found->second != value)
            return "what was stored is there after a start: " + name + " was " + value + ", and is " +
                   (found == now.end() ? "gone" : found->second);
    for (const auto &[name, value] : now)
        if (!before.contains(name))
            return "what is there after a start was stored: " + name + " is " + value + " out of nothing";
    return "";
}

std::vector<std::string> columns() {
    std::vector<std::string> names{"gateway", "operator"};
    for (int i = 1; i <= 13; ++i)
        names.push_back("device " + std::to_string(i));
    return names;
}

} // namespace

bool World::Scripts::run(const std::vector<std::string> &, OnExit on_exit) {
    loop->start_timer(script_ms, [on_exit] { on_exit(0); });
    return true;
}

World::World(std::uint64_t seed, const std::string &plugin, const std::string &model_file)
    : plugin_(plugin), model_file_(model_file), table_(columns()) {
    TraceLog::instance().set_print(std::getenv("ZEPHYRIN_TRACE") != nullptr);
    setenv("WAN_ADDR", "02:1a:2b:3c:4d:5e", 1);
    Ground::instance().set_up();
    Ground::instance().secrets = {"reboot", "box;"};
    Ground::instance().hold = [this](std::uint64_t ms) { loop_.hold(ms); };
    scripts_.loop = &loop_;
    segment_.on_lost = [this](const SimStb &device) { moved_by_hand_.insert(&device); };
    Chance chance(seed ^ 0x5eed);
    for (const StbHabits &habits : habits_of_devices(chance))
        add_device(chance.next(), habits);
    power_on();
    loop_.look_after_turns([this](bool idle) { after_turn(idle); });
}

World::~World() {
    loop_.look_after_turns(nullptr);
    if (life_)
        power_off(true);
    Ground::instance().hold = nullptr;
}

void World::add_device(std::uint64_t seed, const StbHabits &habits) {
    const std::size_t place = devices_.size();
    devices_.push_back(std::make_unique<SimStb>(loop_, segment_, static_cast<unsigned>(place + 1), habits, seed));
    SimStb &device = *devices_.back();
    device.on_sent = [this, &device, place](const std::string &what) {
        table_.add(loop_.now_ms(), first_device_column + place, what);
        if (!device.is_plugged())
            return;
        set_present(device, true);
        if (!segment_.dead && device.is_asking() && takes_up_ && (has_slot_ || needs_no_slot(device)))
            heard_ms_.try_emplace(&device, loop_.now_ms());
    };
    device.on_answer = [this, place](const SimStb::Answer &answer) { look_at_answer(place, answer); };
}

/* ------------------------------------------------------------------------------------------------ the gateway */

World::Life::Life(World &world, SimLoop &loop) : model(loop) {
    model.load_file(world.model_file_);
    graph = std::make_unique<InterfaceGraph>(model);
    model.add("Weft.Intf", "eth1.30", {{"Flags", std::string("netdev vlan")}});
    model.set("Weft.Intf.dhcp_iptv", {{"LowerLayers", std::string("eth1.20 eth1.30")}});
    store = std::make_unique<Store>(loop, model, store_file);
    if (world.stored_ && world.broken_.empty())
        world.broken_ = lost_in_store(*world.stored_, world.stored_values(model));
    drop_leftovers(model);
    settings = std::make_unique<Settings>(model);
    kernel = std::make_unique<SimKernel>(loop, *graph);
    interface_state = std::make_unique<InterfaceState>(loop, *graph);
    wan = std::make_unique<SimOperator>(loop, *graph);
    lan_server = std::make_unique<LanDhcpServer>(loop, model, world.segment_);
    model.watch("DHCPv4.Server.Pool", [&world](const Event &event) {
        if (event.kind == Event::Kind::Deleted && event.steps.size() > 2 && *(event.steps.end() - 2) == "Lease")
            world.lease_ended_ms_[event.steps.back()] = world.loop_.now_ms();
    });
}

void World::power_on() {
    Ground::instance().set_up();
    Ground::instance().allocation_failed = false;
    life_ = std::make_unique<Life>(*this, loop_);
    tell_operator();
    segment_.plug_in(life_->lan_server.get());
    for (const auto &[line, up] : lines_)
        life_->kernel->set_link(line, up);
    for (const auto &device : devices_)
        if (device->is_on() && device->is_plugged())
            set_present(*device, true);
    drop_stray_routes(*life_->graph);
    host_attach(loop_, *life_->graph, scripts_);
    loop_.run_until_idle();
    std::string error;
    if (!plugin_load(plugin_, &error))
        throw std::runtime_error(error);
    state_ = &routed_state_of(plugin_);
    loaded_ = true;
    stored_by_hand_ = false;
    mono_switched_ = life_->model.boolean("Keel.Zephyrin", "MonoClient") ||
                     life_->model.find("Keel.Zephyrin.ClientLease.iptv") != nullptr;
    restarting_ = true;
    started_ms_ = loop_.now_ms();
    lease_ended_ms_.clear();
    const auto stored = life_->model.instances("Keel.Zephyrin.ClientLease");
    restored_ = {stored.begin(), stored.end()};
    seen_model_ = 0;
    loop_.run_until_idle();
    look_at_leases();
    table_.add(loop_.now_ms(), gateway_column, "the host has started");
}

/* A host that is killed leaves on the disk what was there at that moment. */
void World::power_off(bool killed) {
    loaded_ = false;
    takes_up_ = false;
    heard_ms_.clear();
    present_.clear();
    state_ = nullptr;
    TraceLog::instance().clear();
    if (killed) {
        disk_.cut();
        plugin_drop();
    } else {
        plugin_unload();
    }
    host_detach();
    if (is_loaded(plugin_))
        throw std::runtime_error("the plug-in stays loaded: a new life would go on with the memory of the old one");
    const auto &lines = TraceLog::instance().recent();
    const auto left = std::find_if(lines.begin(), lines.end(), [](const TraceLine &line) {
        return line.text.find("the plug-in left") != std::string::npos;
    });
    if (!killed && left != lines.end())
        broken_ = "an orderly stop leaves nothing open: " + left->text;
    if (!killed && !Ground::instance().rules_lost() && !Ground::instance().allocation_failed &&
        Ground::instance().rules() != Ground::default_rules())
        broken_ = "after an orderly stop the two default rules stand alone";
    segment_.plug_in(nullptr);
    stored_ = is_all_stored(killed) ? std::optional(stored_values(life_->model)) : std::nullopt;
    life_.reset();
    if (killed)
        disk_.come_back();
}

/* If the host is killed now, or stops. An orderly stop deletes the identities, for which there must be room, and has a
 * file that was deleted made anew. */
bool World::is_all_stored(bool killed) const {
    return life_->model.text("KeelHost", "StoreError").empty() &&
           (killed ? disk_.holds(store_file) : !disk_.full && disk_.failing_write == 0);
}

void World::set(const std::string &path, const Values &values) {
    if (life_)
        life_->model.set(path, values);
}

void World::set_present(const SimStb &device, bool present) {
    if (!present)
        heard_ms_.erase(&device);
    if (!life_ || std::exchange(present_[&device], present) == present)
        return;
    const std::string path = "Hosts.Host." + device.mac();
    if (life_->model.find(path))
        life_->model.set(path, {{"Active", present}});
    else if (present)
        life_->model.add("Hosts.Host", device.mac(),
                         {{"MACAddress", device.mac()},
                          {"Active", true},
                          {"Tags", std::string(is_stb(device) ? "lan stb" : "lan")}});
}

void World::tell_operator() {
    SimOperator &wan = *life_->wan;
    wan.online = online_;
    wan.on_message = on_wan_message;
    wan.vary_pause = vary_wan_pause;
    wan.answer_ms = answer_ms_;
    wan.lease_s = lease_s_;
    wan.renewal_retry_ms = 300000;
    wan.mask = mask_;
    wan.options = options_;
    const std::string own = life_->model.text("Weft.Intf.dhcp_iptv.SentOption.61", "Value");
    wan.vary = [this, own](const std::string &client_id, SimOperator::Terms &terms) {
        leased_ms_ = loop_.now_ms();
        if (leased_ms_ >= leases_counted_ms_ + hour_ms) {
            leases_counted_ms_ = leased_ms_;
            leases_counted_ = 0;
        }
        if (++leases_counted_ > most_leases_an_hour)
            broken_ = "no WAN client is leased an address over and over";
        std::string &address = address_book_[client_id];
        if (client_id == own)
            address = gateway_address;
        else if (address.empty())
            address = "10.20." + std::to_string(next_address_ / 200) + "." + std::to_string(20 + next_address_ % 200);
        if (client_id != own && address_book_[client_id] == terms.address)
            return;
        if (client_id != own &&
            address == "10.20." + std::to_string(next_address_ / 200) + "." + std::to_string(20 + next_address_ % 200))
            ++next_address_;
        terms.address = address;
        table_.add(loop_.now_ms(), operator_column, "leases " + address);
    };
}

/* ------------------------------------------------------------------------------------------------ looking on */

/* What must outlast the host: settings, identities and leases. */
std::map<std::string, std::string> World::stored_values(const Model &model) {
    std::map<std::string, std::string> all;
    for (const char *parameter : {"Enable", "Mode", "Interface", "MonoClient"})
        all[parameter] = model.text("Keel.Zephyrin", parameter);
    const std::string identities = "Keel.Zephyrin.ClientLease";
    for (const std::string &name : model.instances(identities)) {
        const std::string identity = join_path(identities, name);
        for (const char *parameter : {"ClientIDOffset", "DHCPCStatus", "IPAddress", "SubnetMask"})
            all[identity + "." + parameter] = model.text(identity, parameter);
        for (const std::string &device : model.instances(identity + ".ServerLease"))
            for (const char *parameter : {"Id", "DeviceType", "IPAddress", "MACAddress"})
                all[identity + "." + device + "." + parameter] =
                    model.text(identity + ".ServerLease." + device, parameter);
    }
    for (const char *pool : pools) {
        const std::string parent = std::string("DHCPv4.Server.Pool.") + pool + ".Rule.1.Lease";
        for (const std::string &name : model.instances(parent))
            if (model.boolean(join_path(parent, name), "Acknowledged")) /* else its device does not have it */
                for (const char *parameter : {"IPAddress", "MACAddress", "Expires"})
                    all[join_path(parent, name) + "." + parameter] = model.text(join_path(parent, name), parameter);
    }
    return all;
}

/* By then the device has asked for more of it, at half of its time and again, and asks every server. */
void World::look_at_leases() {
    for (const auto &device : devices_) {
        const SimStb::Answer &ack = device->last_ack();
        const std::uint64_t asks_all_ms = ack.at_ms + std::uint64_t{ack.lease_s} * 875;
        if (device->address().empty() || moved_by_hand_.contains(device.get()) || asks_all_ms <= loop_.now_ms())
            continue;
        const auto wanted_s = static_cast<std::int64_t>(loop_.wall_clock_s() + (asks_all_ms - loop_.now_ms()) / 1000);
        bool found = false;
        for (const std::string &lease : leases())
            found = found || (life_->model.text(lease, "IPAddress") == device->address() &&
                              life_->model.integer(lease, "Expires") + 5 >= wanted_s);
        if (!found && broken_.empty())
            broken_ = "a lease lasts over a start until its device asks every server: " + device->id() + " has " +
                      device->address();
    }
}

Sight World::sight() {
    return {
        life_->model, *state_,     Ground::instance(), life_->wan->running(), is_routed(life_->model), stored_by_hand_,
        &restored_,   &handed_on_, restarting_};
}

void World::after_turn(bool idle) {
    if (!broken_.empty())
        throw Violation(broken_);
    if (!idle || !loaded_)
        return;
    /* What the LAN server writes of devices that wait is not looked at each time. */
    const std::uint64_t model = std::max(life_->model.find("Keel")->generation, life_->model.find("Weft")->generation);
    const std::uint64_t rules = Ground::instance().generation();
    if (model == seen_model_ && rules == seen_rules_)
        return;
    seen_model_ = model;
    seen_rules_ = rules;
    takes_up_ = is_routed(life_->model);
    has_slot_ = has_free_slot(*state_);
    if (!takes_up_)
        heard_ms_.clear();
    else if (!has_slot_)
        std::erase_if(heard_ms_, [](const auto &one) { return !needs_no_slot(*one.first); });
    restarting_ = restarting_ && is_routed(life_->model) && !any_in_force(*state_);
    if (Ground::instance()
            .allocation_failed) /* what then is missing is not made up for before the service starts anew */
        return;
    if (const std::string broken = broken_safety(sight()); !broken.empty())
        throw Violation(broken);
}

std::uint64_t World::heard_for_ms(const SimStb &device) const {
    const auto found = heard_ms_.find(&device);
    return found == heard_ms_.end() ? 0 : loop_.now_ms() - found->second;
}

void World::look_at_answer(std::size_t place, const SimStb::Answer &answer) {
    static const char *const names[] = {"", "", "offer ", "", "", "ack ", "nak "};
    const SimStb &asker = *devices_[place];
    table_.add(loop_.now_ms(), first_device_column + place, names[static_cast<int>(answer.type)] + answer.address);
    if (answer.type == DhcpType::Ack) {
        moved_by_hand_.erase(&asker);
        heard_ms_.erase(&asker);
    }
    if (answer.type == DhcpType::Ack)
        set("Hosts.Host." + asker.mac(), {{"IPAddress", answer.address}});
    if (answer.type == DhcpType::Nak) {
        if (life_ && !asker.address().empty() && is_leased(life_->model, asker))
            broken_ = "nobody is refused the address that is leased to it: " + asker.id();
        return;
    }
    if (loaded_ && !Ground::instance().allocation_failed)
        if (std::string broken = broken_answer(sight(), asker, answer); !broken.empty())
            broken_ = std::move(broken);
    for (const auto &other : devices_)
        if (other.get() != &asker && other->is_on() && other->is_plugged() && other->address() == answer.address &&
            !moved_by_hand_.contains(other.get()))
            broken_ = "nobody is offered an address that another uses: " + asker.id() + " is offered " +
                      answer.address + " of " + other->id();
}

void World::set_line(const std::string &line, bool up) {
    lines_[line] = up;
    if (life_)
        life_->kernel->set_link(line, up);
}

std::vector<std::string> World::clients() const {
    std::vector<std::string> all;
    for (const std::string &name : life_->model.instances("Weft.Intf"))
        if (name.starts_with("dhcp_zep_"))
            all.push_back(name);
    return all;
}

std::vector<std::string> World::leases() const {
    std::vector<std::string> all;
    for (const char *pool : pools) {
        const std::string parent = std::string("DHCPv4.Server.Pool.") + pool + ".Rule.1.Lease";
        for (const std::string &name : life_->model.instances(parent))
            all.push_back(join_path(parent, name));
    }
    return all;
}

void World::run(const Plan &plan) {
    tell_operator();
    for (step_ = 0; step_ < plan.size(); ++step_) {
        const Step &step = plan[step_];
        if (step.at_ms > loop_.now_ms())
            loop_.advance(step.at_ms - loop_.now_ms());
        table_.add(loop_.now_ms(), gateway_column, name_of(step.deed));
        carry_out(step);
        loop_.run_until_idle();
        if (!broken_.empty())
            throw Violation(broken_);
    }
    power_off(false);
    if (!broken_.empty())
        throw Violation(broken_);
}

} // namespace keel
