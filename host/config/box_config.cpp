#include "host/config/box_config.h"

#include <algorithm>
#include <optional>
#include <set>

#include "host/base/text_forms.h"
#include "host/config/toml_file.h"

namespace keel {

namespace {

std::string table_of(const std::string &key) {
    return key.substr(0, key.find('.'));
}

/* What stands where that key is; the tables when there is no such table. */
std::string keys_beside(const std::string &name) {
    std::string beside;
    std::string tables;
    std::string last;
    for (const BoxKey &key : box_keys()) {
        const std::string table = table_of(key.name);
        if (table == table_of(name))
            beside += (beside.empty() ? "" : ", ") + std::string(key.name);
        if (table != last)
            tables += (tables.empty() ? "[" : ", [") + table + "]";
        last = table;
    }
    return beside.empty() ? "there are the tables " + tables : "there are " + beside;
}

class ConfigReader {
public:
    ConfigReader(BoxConfig &config, const BoxDefaults &defaults) : config_(config), defaults_(defaults) {}

    void read() {
        const TomlFile file = read_toml(config_.file);
        if (!file.error.empty())
            config_.errors.push_back(file.error);
        for (const TomlEntry &entry : file.entries)
            take(entry);
        for (const char *table : {"iptv", "data"})
            join_vlan(table);
    }

    /* The keys whose values were not taken. */
    const std::set<std::string> &refused() const { return refused_; }

private:
    void refuse(const std::string &key, unsigned line, const std::string &reason) {
        refused_.insert(key);
        if (key.ends_with(".device") || key.ends_with(".vlan"))
            refused_.insert(table_of(key) + ".interface");
        config_.errors.push_back(config_.file + ":" + std::to_string(line) + ": " + reason);
    }

    void take(const TomlEntry &entry) {
        const BoxKey *key = find_box_key(entry.key);
        if (!key) {
            if (entry.shown != "a table" || !keys_beside(entry.key).starts_with("there are " + entry.key + "."))
                refuse(entry.key, entry.line, "there is no \"" + entry.key + "\": " + keys_beside(entry.key));
            return;
        }
        const auto text = key->read(entry);
        if (!text) {
            refuse(entry.key, entry.line, entry.key + " is " + entry.shown + ": " + key->allowed);
            return;
        }
        if (key->in_model() && !defaults_.keys.contains(entry.key)) {
            refuse(entry.key, entry.line,
                   entry.key + " has no place in the data-model file: it needs " + key->writes(*text).front().path);
            return;
        }
        config_.settings[entry.key] = {*text, entry.line};
    }

    /* "device" and "vlan" are another way to say "interface". */
    void join_vlan(const std::string &table) {
        const auto device = config_.settings.extract(table + ".device");
        const auto vlan = config_.settings.extract(table + ".vlan");
        const std::string key = table + ".interface";
        if (!device && vlan && !refused_.contains(table + ".device"))
            refuse(vlan.key(), vlan.mapped().line, vlan.key() + " is of no device: give " + table + ".device, too");
        if (!device)
            return;
        if (config_.settings.contains(key)) {
            refuse(device.key(), device.mapped().line,
                   "there are both " + device.key() + " and " + key + ": give one of them");
            return;
        }
        const std::string name = device.mapped().text + (vlan ? "." + vlan.mapped().text : "");
        if (is_device_name(name))
            config_.settings[key] = {name, device.mapped().line};
        else
            refuse(device.key(), device.mapped().line, name + " is too long: 15 characters are allowed");
    }

    BoxConfig &config_;
    const BoxDefaults &defaults_;
    std::set<std::string> refused_;
};

/* -------------------------------------------------------------------------------------------- what fits together */

/* Checks values that concern each other. Where none of those in question is set, they are the model's own. */
class Together {
public:
    Together(BoxConfig &config, const BoxDefaults &defaults, const std::set<std::string> &refused)
        : config_(config), defaults_(defaults), refused_(refused) {}

    void check() {
        check_interfaces();
        lan_ = parse_network(config_.text(lan_address_key, defaults_));
        if (!lan_)
            return;
        for (const char *table : {"stb", "itf", "others"})
            read_range(table);
        for (std::size_t one = 0; one < ranges_.size(); ++one)
            for (std::size_t other = 0; other < one; ++other)
                check_overlap(ranges_[other], ranges_[one]);
        const std::string classes[] = {"stb.vendor-class", "itf.vendor-class"};
        if (config_.text(classes[0], defaults_) == config_.text(classes[1], defaults_))
            refuse({classes[0], classes[1]},
                   classes[0] + " and " + classes[1] + " are the same: they tell the kinds apart");
    }

private:
    struct Range {
        std::string first_key;
        std::string last_key;
        std::uint32_t first;
        std::uint32_t last;
        std::string shown;
    };

    /* At the last of these keys that is set; nothing when none is, or when what one of them says is not known. */
    void refuse(const std::vector<std::string> &about, const std::string &reason) {
        unsigned line = 0;
        for (const std::string &key : about)
            if (refused_.contains(key))
                return;
            else if (const auto setting = config_.settings.find(key); setting != config_.settings.end())
                line = std::max(line, setting->second.line);
        if (line != 0)
            config_.errors.push_back(config_.file + ":" + std::to_string(line) + ": " + reason);
    }

    void check_interfaces() {
        const std::string keys[] = {iptv_interface_key, data_interface_key, lan_bridge_key};
        std::map<std::string, std::string> taken; /* interface -> what it is */
        for (const std::string &other : defaults_.interfaces)
            taken[other] = "another interface of the data model";
        for (const std::string &key : keys)
            if (const auto own = defaults_.keys.find(key); own != defaults_.keys.end())
                taken.erase(own->second.text); /* it gets another name */
        for (const std::string &key : keys) {
            const std::string name = config_.text(key, defaults_);
            const auto [there, is_new] = taken.insert({name, key});
            if (!is_new && !name.empty())
                refuse({key, there->second},
                       key + " is " + name + ", which is " + there->second + ": name another one");
        }
    }

    void read_range(const std::string &table) {
        Range range{table + ".first", table + ".last", 0, 0, ""};
        const std::string first = config_.text(range.first_key, defaults_);
        const std::string last = config_.text(range.last_key, defaults_);
        range.first = ipv4_or_none(first);
        range.last = ipv4_or_none(last);
        range.shown = "[" + table + "], " + first + " to " + last;
        if (first.empty() || last.empty())
            return;
        const bool inside =
            check_in_subnet(range.first_key, range.first) && check_in_subnet(range.last_key, range.last);
        if (inside && range.first > range.last)
            refuse({range.first_key, range.last_key}, range.shown + ": the last address is below the first");
        else if (inside && range.first <= lan_->address && lan_->address <= range.last)
            refuse({range.first_key, range.last_key, lan_address_key},
                   range.shown + " has the gateway's own address: leave " + format_ipv4(lan_->address) + " out");
        else if (inside)
            ranges_.push_back(range);
    }

    bool check_in_subnet(const std::string &key, std::uint32_t address) {
        if (lan_->has_host(address))
            return true;
        const std::string by_default = config_.settings.contains(key) ? "" : " by default";
        refuse({key, lan_address_key}, key + " is " + format_ipv4(address) + by_default + ": a device's address from " +
                                           format_ipv4(lan_->first_host()) + " to " + format_ipv4(lan_->last_host()) +
                                           ", the subnet of lan.address, is allowed");
        return false;
    }

    void check_overlap(const Range &one, const Range &other) {
        if (one.first <= other.last && other.first <= one.last)
            refuse({one.first_key, one.last_key, other.first_key, other.last_key},
                   one.shown + ", and " + other.shown + ", overlap: part them");
    }

    BoxConfig &config_;
    const BoxDefaults &defaults_;
    const std::set<std::string> &refused_;
    std::optional<Network> lan_;
    std::vector<Range> ranges_;
};

} // namespace

std::string BoxConfig::text(const std::string &key, const BoxDefaults &defaults) const {
    if (const auto setting = settings.find(key); setting != settings.end())
        return setting->second.text;
    const auto fallback = defaults.keys.find(key);
    return fallback == defaults.keys.end() ? "" : fallback->second.text;
}

BoxConfig read_box_config(const std::string &file, const BoxDefaults &defaults) {
    BoxConfig config{file, {}, {}};
    ConfigReader reader(config, defaults);
    reader.read();
    Together(config, defaults, reader.refused()).check();
    for (std::string &error : config.errors) /* it names what stands in the file, for a terminal */
        error = printable_text(error, error.size());
    return config;
}

} // namespace keel
