#include "host/gateway/settings.h"

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr const char *keel_path = "Keel";
constexpr const char *lease_time_values[] = {"MinLeaseTime", "LeaseTime", "MaxLeaseTime"};
const std::vector<std::string> pool_values = {"LeasesOnHold", "MinLeaseTime", "LeaseTime", "MaxLeaseTime"};
constexpr std::uint32_t mode_left = 101;
constexpr std::uint32_t settings_in_force = 102;

void write(Model &model, const char *path, const Values &values) {
    if (const Outcome refusal = model.set(path, values))
        trace(Level::Error, "settings", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

} // namespace

bool is_routed(const Model &model) {
    return model.boolean(service_path, "Enable") && model.text(service_path, "Mode") == "Routed" &&
           model.text(service_path, "Interface") == "Dedicated";
}

std::string objection_to_deletion(const Model &model, const std::string &path) {
    if (!path.starts_with(std::string(identities_path) + ".") || !is_routed(model))
        return "";
    return "the plug-in is at work with it. An identity goes by itself once its STBs have been away for 48 h; to be "
           "rid of all of them now: keelctl set Keel.Zephyrin Enable=false, then Enable=true (each STB is served anew)";
}

Settings::Settings(Model &model)
    : model_(model), mode_{keel_path, "IPTVMode", {}}, interface_{service_path, "Interface", {}} {
    write(model_, service_path, {{"Interface", model_.text(keel_path, "IPTVMode")}});
    for (const char *name : {"Enable", "Mode", "Interface", "WanMode"})
        if (const auto value = model_.get(service_path, name))
            service_[name] = *value;
    if (service_.size() != 4)
        throw ModelError("the data model has no complete object Keel.Zephyrin");
    for (const char *pool : iptv_pools)
        usual_times_[pool] = lease_times(pool);
    follow_pools();
    start_ = model_.latest_event();
    watch_ = model_.watch(keel_path, [this](const Event &event) { on_event(event); });
    for (const char *pool : iptv_pools)
        pool_watches_.push_back(model_.watch(pool, [this, pool](const Event &event) { pool_was_written(pool, event); },
                                             {pool_values, false}));
}

Settings::~Settings() {
    model_.unwatch(watch_);
    for (const Model::WatchId watch : pool_watches_)
        model_.unwatch(watch);
}

void Settings::copy_to(Name &name, const Value &value) {
    const std::uint64_t before = model_.latest_event();
    write(model_, name.path, {{name.parameter, value}});
    if (model_.latest_event() != before)
        name.copies.insert(model_.latest_event());
}

/* The latest write by others decides for both names, also when there were several before the first was told. */
void Settings::follow_name(Name &written, Name &other, const Event &event) {
    const auto value = event.values.find(written.parameter);
    if (value == event.values.end() || written.copies.erase(event.number) != 0)
        return;
    copy_to(other, value->second);
    if (!written.copies.empty()) /* an earlier write was copied over this one */
        copy_to(written, value->second);
}

void Settings::on_event(const Event &event) {
    if (event.kind != Event::Kind::Changed || event.number <= start_)
        return;
    const std::string path = event.path();
    if (path == keel_path) {
        follow_name(mode_, interface_, event);
    } else if (path == service_path) {
        follow_name(interface_, mode_, event);
        service_changed(event);
    }
}

void Settings::service_changed(const Event &event) {
    const auto changed = [&](const char *name) { return event.values.contains(name); };
    const bool was_enabled = std::get<bool>(service_["Enable"]);
    for (const auto &[name, value] : event.values)
        service_[name] = value;
    const bool enabled = std::get<bool>(service_["Enable"]);
    const bool moved = changed("Mode") || changed("Interface");
    if (!changed("Enable") && !moved && !changed("WanMode"))
        return;
    follow_pools();
    if (was_enabled && (!enabled || moved))
        leave_mode();
    if (enabled)
        enter_mode();
}

void Settings::leave_mode() {
    model_.notify(service_path, mode_left, {});
}

void Settings::enter_mode() {
    model_.notify(service_path, settings_in_force,
                  {{"Mode", service_["Mode"]}, {"Interface", service_["Interface"]}, {"WanMode", service_["WanMode"]}});
}

void Settings::follow_pools() {
    for (const char *pool : iptv_pools)
        if (!is_routed(model_))
            leave_pool(pool);
        else if (model_.find(pool))
            write(model_, pool, {{"LeasesOnHold", true}});
}

void Settings::leave_pool(const char *pool) {
    if (!model_.find(pool))
        return;
    Values values = usual_times_[pool];
    values["LeasesOnHold"] = false;
    write(model_, pool, values);
}

/* What the plug-in does about a binding may come after the mode was left, and before it is told so; it always writes
 * the hold as well. Without it they are somebody's own lease times. */
void Settings::pool_was_written(const char *pool, const Event &event) {
    const bool was_routed = std::get<bool>(service_["Enable"]) && to_text(service_["Mode"]) == "Routed" &&
                            to_text(service_["Interface"]) == "Dedicated";
    if (was_routed || is_routed(model_) || event.path() != pool)
        return;
    if (event.values.contains("LeasesOnHold"))
        leave_pool(pool);
    else
        usual_times_[pool] = lease_times(pool);
}

Values Settings::lease_times(const char *pool) const {
    Values values;
    for (const char *name : lease_time_values)
        if (const auto value = model_.get(pool, name))
            values[name] = *value;
    return values;
}

} // namespace keel
