#include "host/core/settings.h"

#include "host/core/trace.h"

namespace keel {

namespace {

constexpr const char *keel_path = "Keel";
constexpr const char *service_path = "Keel.Zephyrin";
constexpr std::uint32_t mode_left = 101;
constexpr std::uint32_t settings_in_force = 102;

void write(Model &model, const char *path, const Values &values) {
    if (const Outcome refusal = model.set(path, values))
        trace(Level::Error, "settings", "%s: %s", refusal->path.c_str(), refusal->reason.c_str());
}

} // namespace

Settings::Settings(Model &model) : model_(model) {
    write(model_, service_path, {{"Interface", model_.text(keel_path, "IPTVMode")}});
    for (const char *name : {"Enable", "Mode", "Interface", "WanMode"})
        if (const auto value = model_.get(service_path, name))
            service_[name] = *value;
    if (service_.size() != 4)
        throw ModelError("the data model has no complete object Keel.Zephyrin");
    follow_holds();
    watch_ = model_.watch(keel_path, [this](const Event &event) { on_event(event); });
}

Settings::~Settings() {
    model_.unwatch(watch_);
}

void Settings::on_event(const Event &event) {
    if (event.kind != Event::Kind::Changed)
        return;
    const std::string path = event.path();
    if (path == keel_path && event.values.contains("IPTVMode"))
        write(model_, service_path, {{"Interface", event.values.at("IPTVMode")}});
    else if (path == service_path)
        service_changed(event);
}

void Settings::service_changed(const Event &event) {
    const auto changed = [&](const char *name) { return event.values.contains(name); };
    if (changed("Interface"))
        write(model_, keel_path, {{"IPTVMode", event.values.at("Interface")}});

    const bool was_enabled = std::get<bool>(service_["Enable"]);
    for (const auto &[name, value] : event.values)
        service_[name] = value;
    const bool enabled = std::get<bool>(service_["Enable"]);
    const bool moved = changed("Mode") || changed("Interface");
    if (!changed("Enable") && !moved && !changed("WanMode"))
        return;
    follow_holds();
    if (was_enabled && (!enabled || moved))
        model_.notify(service_path, mode_left, {});
    if (enabled)
        model_.notify(
            service_path, settings_in_force,
            {{"Mode", service_["Mode"]}, {"Interface", service_["Interface"]}, {"WanMode", service_["WanMode"]}});
}

void Settings::follow_holds() {
    const bool hold = model_.boolean(service_path, "Enable") && model_.text(service_path, "Mode") == "Routed" &&
                      model_.text(service_path, "Interface") == "Dedicated";
    for (const char *pool : {"DHCPv4.Server.Pool.zep_itf", "DHCPv4.Server.Pool.zep_stb"})
        if (model_.find(pool))
            write(model_, pool, {{"LeasesOnHold", hold}});
}

} // namespace keel
