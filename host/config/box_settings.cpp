#include "host/config/box_settings.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

#include "host/base/trace.h"
#include "host/config/interface_names.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

std::string joined(const std::vector<std::string> &lines) {
    std::string all;
    for (const std::string &line : lines)
        all += (all.empty() ? "" : "\n") + line;
    return all;
}

} // namespace

BoxConfigError::BoxConfigError(const std::vector<std::string> &errors) : std::runtime_error(joined(errors)) {}

BoxSettings::BoxSettings(Model &model, std::string file, bool optional)
    : model_(model), file_(std::move(file)), optional_(optional), defaults_(box_defaults(model)), config_(read()) {
    if (!config_.errors.empty())
        throw BoxConfigError(config_.errors);
    rename_interfaces();
    std::vector<std::string> keys;
    for (const auto &[key, setting] : config_.settings)
        keys.push_back(key);
    write(keys);
    for (const BoxKey &key : box_keys())
        if (!key.in_model())
            started_with_[key.name] = config_.text(key.name, defaults_);
    model_.dispatch_now(); /* this is how the host starts: nobody needs to be told of it as of a change */
}

BoxConfig BoxSettings::read() const {
    std::error_code error;
    if (optional_ && !std::filesystem::exists(file_, error))
        return {};
    return read_box_config(file_, defaults_);
}

void BoxSettings::rename_interfaces() {
    std::map<std::string, std::string> names;
    for (const char *key : {iptv_interface_key, data_interface_key, lan_bridge_key}) {
        const std::string &old = defaults_.keys[key].text;
        const std::string name = config_.text(key, defaults_);
        if (name != old)
            names[old] = name;
    }
    keel::rename_interfaces(model_, names);
    if (config_.settings.contains(lan_bridge_key))
        model_.set("DHCPv4.Server", {{"Interface", config_.text(lan_bridge_key, defaults_)}});
    if (config_.settings.contains(iptv_address_key))
        model_.set(interface_path(config_.text(iptv_interface_key, defaults_)),
                   {{"IPTVAddress", config_.text(iptv_address_key, defaults_)}});
}

std::string BoxSettings::wan_mac() const {
    return config_.text(wan_mac_key, defaults_);
}

/* What the file says, or, of what it has left out, the default. */
std::vector<Write> BoxSettings::writes_of(const std::string &key) const {
    const auto setting = config_.settings.find(key);
    if (setting != config_.settings.end())
        return find_box_key(key)->writes(setting->second.text);
    const auto fallback = defaults_.keys.find(key);
    return fallback == defaults_.keys.end() ? std::vector<Write>() : fallback->second.writes;
}

/* All parameters of one object at once, so that a range does not pass through one that nobody meant. */
void BoxSettings::write(const std::vector<std::string> &keys) {
    std::map<std::string, Values> objects;
    for (const std::string &key : keys)
        for (const Write &one : writes_of(key))
            objects[one.path][one.parameter] = one.value;
    for (const auto &[path, values] : objects)
        if (const Outcome refusal = model_.set(path, values))
            trace(Level::Error, "settings", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

std::vector<std::string> BoxSettings::changed_keys() const {
    std::set<std::string> keys;
    for (const auto &[key, setting] : config_.settings)
        if (model_.get(join_path(read_settings_path, key), "Value") != Value(setting.text))
            keys.insert(key);
    for (const std::string &key : model_.instances(read_settings_path))
        if (!config_.settings.contains(key))
            keys.insert(key);
    return {keys.begin(), keys.end()};
}

void BoxSettings::remember() {
    if (!model_.find(read_settings_path))
        return;
    for (const std::string &key : model_.instances(read_settings_path))
        if (!config_.settings.contains(key))
            model_.remove(join_path(read_settings_path, key));
    for (const auto &[key, setting] : config_.settings) {
        const std::string path = join_path(read_settings_path, key);
        const Values value = {{"Value", setting.text}};
        if (model_.find(path))
            model_.set(path, value);
        else
            model_.add(read_settings_path, key, value);
    }
}

void BoxSettings::after_store() {
    if (!model_.instances(read_settings_path).empty()) /* else nobody knows what the file has said before */
        write(changed_keys());
    remember();
    tell_overridden();
}

void BoxSettings::tell_overridden() const {
    for (const auto &[key, setting] : config_.settings)
        for (const Write &one : writes_of(key)) {
            const auto value = model_.get(one.path, one.parameter);
            if (value && *value != one.value)
                trace(Level::Info, "settings", "%s.%s is %s, as set with keelctl; %s says %s", one.path.c_str(),
                      one.parameter.c_str(), to_text(*value).c_str(), std::filesystem::path(file_).filename().c_str(),
                      to_text(one.value).c_str());
        }
}

void BoxSettings::reload() {
    const bool was_there = !config_.file.empty();
    BoxConfig fresh = read();
    if (fresh.file.empty() && was_there)
        fresh.errors.push_back(file_ + ": is not there any more");
    if (!fresh.errors.empty()) {
        for (const std::string &error : fresh.errors)
            trace(Level::Error, "settings", "%s", error.c_str());
        trace(Level::Error, "settings", "nothing of %s is taken over: correct it, then reload again", file_.c_str());
        return;
    }
    config_ = std::move(fresh);
    const auto changed = changed_keys();
    write(changed);
    remember();
    for (const std::string &key : changed) {
        const bool left_out = !config_.settings.contains(key);
        const std::string text = config_.text(key, defaults_);
        const std::string shown = left_out ? "left to its default" : text.empty() ? "empty" : text;
        if (!find_box_key(key) || find_box_key(key)->in_model())
            trace(Level::Info, "settings", "%s is %s now", key.c_str(), shown.c_str());
        else if (text != started_with_[key])
            trace(Level::Warning, "settings", "%s is %s now: restart keelhost, until then it stays as it was",
                  key.c_str(), shown.c_str());
    }
    if (changed.empty())
        trace(Level::Info, "settings", "%s is read again: nothing in it has changed", file_.c_str());
}

} // namespace keel
