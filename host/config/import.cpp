#include "host/config/import.h"

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/text_forms.h"
#include "host/base/trace.h"
#include "host/gateway/lease_facts.h"

namespace keel {

namespace {

constexpr const char *zone = "import";
constexpr std::uint64_t look_every_ms = 50;
constexpr std::uint64_t leaves_within_ms = 20000; /* its shell commands may have to wait for others */

/* By the address of every lease that there is now, also of one on hold: who asked for it may have it by the next
 * message. */
std::map<std::string, std::string> owners_of_addresses(const Model &model) {
    std::map<std::string, std::string> owners;
    for (const std::string &pool : model.instances(lan_pools_path)) {
        const std::string rules = join_path(lan_pools_path, pool) + ".Rule";
        for (const std::string &rule : model.instances(rules)) {
            const std::string leases = join_path(rules, rule) + ".Lease";
            for (const std::string &id : model.instances(leases))
                owners[model.text(join_path(leases, id), "IPAddress")] =
                    model.text(join_path(leases, id), "MACAddress");
        }
    }
    return owners;
}

std::string shown(const std::string &text) {
    return text.empty() ? "empty" : text;
}

} // namespace

Import::Import(Loop &loop, Model &model, Settings &settings, std::string program, std::function<std::string()> wan_mac)
    : loop_(loop), model_(model), settings_(settings), program_(std::move(program)), wan_mac_(std::move(wan_mac)) {}

Import::~Import() {
    loop_.cancel_timer(look_);
}

std::string Import::text() const {
    Carried carried = gather_carried(model_);
    carried.program = program_;
    carried.wan_mac = wan_mac_();
    return carried_text(carried);
}

void Import::take(const std::string &text, std::function<void(const Answer &answer)> answer) {
    Answer refusal;
    if (answer_)
        refusal.errors.push_back("another import is under way: try again when it is done");
    else
        wanted_ = read_carried(text, model_, &refusal.errors);
    if (!refusal.errors.empty()) {
        answer(refusal);
        return;
    }
    answer_ = std::move(answer);
    told_.clear();
    before_ = gather_carried(model_);
    if (!is_routed(model_) || wanted_.identities == before_.identities) {
        write(false);
        return;
    }
    trace(Level::Info, zone, "the mode is left and entered again, with other identities");
    left_ms_ = loop_.now_ms();
    settings_.leave_mode();
    await_left();
}

/* The mode takes its identities out of the model when it is left. */
void Import::await_left() {
    look_ = loop_.start_timer(look_every_ms, [this] {
        look_ = 0;
        if (model_.instances(identities_path).empty())
            write(true);
        else if (loop_.now_ms() - left_ms_ < leaves_within_ms)
            await_left();
        else {
            settings_.enter_mode();
            std::exchange(answer_, nullptr)(
                {{"the routed mode is not left within 20 s: look at the traces; nothing is taken over"}, {}});
        }
    });
}

void Import::write(bool was_left) {
    write_identities();
    write_leases();
    write_options();
    write_tags();
    const Values service = model_.find(service_path)->values();
    write_settings();
    /* A change of these has the mode entered by itself. */
    const Values &now = model_.find(service_path)->values();
    const bool moves = std::any_of(now.begin(), now.end(), [&](const auto &value) {
        return (value.first == "Enable" || value.first == "Mode" || value.first == "Interface" ||
                value.first == "WanMode") &&
               service.at(value.first) != value.second;
    });
    if (was_left && !moves)
        settings_.enter_mode();
    tell_what_differs();
    if (told_.empty())
        told_.emplace_back("nothing differs: this box has all of it");
    if (was_left)
        told_.emplace_back("the routed mode was left and entered again: each STB keeps its LAN address, and is served "
                           "again as soon as the operator has answered");
    else if (moves)
        told_.emplace_back("the mode has changed: STBs are served as the new one does");
    else
        told_.emplace_back("no STB's service was touched");
    finish();
}

void Import::finish() {
    for (const std::string &line : told_)
        trace(Level::Info, zone, "%s", line.c_str());
    std::exchange(answer_, nullptr)({{}, std::move(told_)});
}

/* What was checked is taken; a refusal all the same is told. */
void Import::set(const std::string &path, const Values &values) {
    if (const Outcome refusal = model_.set(path, values))
        told_.push_back(refusal->path + " could not be written: " + refusal->reason);
}

void Import::add(const std::string &parent, const std::string &key, const Values &values) {
    if (const Outcome refusal = model_.add(parent, key, values))
        told_.push_back(refusal->path + " could not be added: " + refusal->reason);
}

void Import::write_settings() {
    for (const auto &[path, values] : wanted_.settings) {
        for (const auto &[name, value] : values)
            if (const auto old = model_.get(path, name); old && *old != value)
                told_.push_back(path + "." + name + " is " + shown(to_text(value)) + " now, and was " +
                                shown(to_text(*old)));
        set(path, values);
    }
}

void Import::write_options() {
    for (const auto &[pool, options] : wanted_.options)
        for (const auto &[name, option] : options) {
            const std::string path = join_path(option_path(pool), name);
            const auto old = before_.options.find(pool);
            if (old != before_.options.end() && old->second.contains(name) && old->second.at(name) == option)
                continue;
            const Values values{{"Enable", option.enable}, {"Tag", option.tag}, {"Value", option.value}};
            if (model_.find(path))
                set(path, values);
            else
                add(option_path(pool), name, values);
            told_.push_back(path + " is option " + std::to_string(option.tag) + " = " + shown(option.value) + ", " +
                            (option.enable ? "on" : "off") + " now");
        }
}

void Import::write_identities() {
    if (wanted_.identities == before_.identities)
        return;
    for (const std::string &name : model_.instances(identities_path)) /* of a mode that does not use them */
        model_.remove(join_path(identities_path, name));
    for (const auto &[name, identity] : wanted_.identities) {
        const std::string none = "0.0.0.0";
        add(identities_path, name,
            {{"Name", name},
             {"ClientIDOffset", identity.slot},
             {"DHCPCStatus", std::string("Unconnected")},
             {"IPAddress", none},
             {"SubnetMask", none}});
        const std::string devices = join_path(identities_path, name) + ".ServerLease";
        std::string who;
        for (const auto &[id, device] : identity.devices) {
            add(devices, id,
                {{"Id", id},
                 {"DeviceType", device.type},
                 {"IPAddress", device.address},
                 {"MACAddress", device.mac},
                 {"Active", false}});
            who += ", " + device.type + " " + device.mac + " at " + device.address;
        }
        told_.push_back("identity " + name + " has slot " + std::to_string(identity.slot) + who);
    }
    for (const auto &[name, identity] : before_.identities)
        if (!wanted_.identities.contains(name))
            told_.push_back("identity " + name +
                            " of this box goes; its devices are taken up anew while a slot is free");
}

/* A device of this box keeps what it has: it uses it. */
void Import::write_leases() {
    const auto owners = owners_of_addresses(model_);
    const auto now = static_cast<std::int64_t>(loop_.wall_clock_s());
    std::size_t added = 0;
    for (const auto &[id, lease] : wanted_.leases) {
        const auto own = before_.leases.find(id);
        const auto owner = owners.find(lease.address);
        if (own != before_.leases.end()) {
            if (own->second.address != lease.address)
                told_.push_back("lease " + id + ": the device has " + own->second.address + " here, and keeps it");
        } else if (owner != owners.end() && owner->second != lease.mac) {
            told_.push_back("lease " + id + ": " + lease.address + " is " + owner->second + "'s here; " + lease.mac +
                            " gets another address when it asks");
        } else if (!model_.find(join_path(lease_list_path(lease), id))) {
            const std::string pool = join_path(lan_pools_path, lease.pool);
            add(lease_list_path(lease), id,
                {{"ClientID", id},
                 {"IPAddress", lease.address},
                 {"MACAddress", lease.mac},
                 {"HostName", lease.host_name},
                 {"VendorClass", lease.vendor_class},
                 {"OnHold", false},
                 {"Acknowledged", true},
                 {"Expires", now + model_.integer(pool, "MaxLeaseTime")},
                 {"Written", now}});
            ++added;
        }
    }
    if (added != 0)
        told_.push_back(std::to_string(added) + " leases of the LAN are added");
}

void Import::write_tags() {
    for (const auto &[mac, tags] : wanted_.tags) {
        const std::string path = join_path(hosts_list_path, mac);
        if (model_.text(path, "Tags") == tags)
            continue;
        if (model_.find(path))
            set(path, {{"Tags", tags}, {"TagsByHand", true}});
        else
            add(hosts_list_path, mac, {{"MACAddress", mac}, {"Tags", tags}, {"TagsByHand", true}});
        told_.push_back("the tags of " + mac + " are " + shown(tags) + " now");
    }
}

/* What this takes nothing over of, since it is in force only from a start on, or stands in a person's file. */
void Import::tell_what_differs() {
    const std::string own = wan_mac_();
    const auto theirs = parse_mac(wanted_.wan_mac);
    if (!wanted_.identities.empty() && theirs && parse_mac(own) != theirs)
        told_.push_back("the operator knows these identities as counted from " + wanted_.wan_mac +
                        ", and this box counts from " + shown(own) + ": set wan.mac = \"" + wanted_.wan_mac +
                        "\" in keelhost.toml, and restart keelhost");
    for (const auto &[key, text] : wanted_.settings_file) {
        const auto here = before_.settings_file.find(key);
        const std::string own_text = here == before_.settings_file.end() ? "left to its default" : shown(here->second);
        if (key.starts_with("service.") || (here != before_.settings_file.end() && here->second == text))
            continue; /* the service's settings are carried */
        told_.push_back("keelhost.toml differs: " + key + " is " + shown(text) + " there, " + own_text +
                        " here, and stays so");
    }
}

} // namespace keel
