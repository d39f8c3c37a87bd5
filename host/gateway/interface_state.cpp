#include "host/gateway/interface_state.h"

#include <algorithm>
#include <cstdlib>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr const char *interfaces_path = "Weft.Intf";

void report(const Outcome &outcome) {
    if (outcome)
        trace(Level::Warning, "weft", "%s: %s", outcome->path.c_str(), outcome->reason.c_str());
}

void keep_flag(Model &model, const std::string &name, const char *flag, bool wanted) {
    const std::string flags = interface_flags(model, name);
    if (has_word(flags, flag) != wanted)
        report(
            model.set(interface_path(name), {{"Flags", wanted ? with_word(flags, flag) : without_word(flags, flag)}}));
}

bool device_below_is_up(const Model &model, const std::string &name) {
    const auto below = reach(model, name, Traversal::DownExclusive);
    return std::any_of(below.begin(), below.end(), [&](const std::string &one) {
        const std::string flags = interface_flags(model, one);
        return has_word(flags, "netdev") && has_word(flags, "up");
    });
}

bool holds_address(const Model &model, const std::string &name) {
    for (const std::string &path : interface_addresses(model, name))
        if (model.boolean(path, "Enable") && !model.text(path, "Address").empty())
            return true;
    return false;
}

} // namespace

void provide_fixed_address(Model &model, const std::string &name) {
    const std::string fixed = model.text(interface_path(name), "IPTVAddress");
    const std::string addresses = interface_path(name) + ".IPv4Addr";
    if (fixed.empty() || model.find(addresses + ".iptv"))
        return;
    const auto slash = fixed.find('/');
    const int prefix = slash == std::string::npos ? 0 : std::atoi(fixed.c_str() + slash + 1);
    report(model.add(addresses, "iptv",
                     {{"Address", fixed.substr(0, slash)},
                      {"PrefixLen", std::int64_t{std::clamp(prefix, 0, 32)}},
                      {"Enable", false}}));
}

InterfaceState::InterfaceState(Loop &loop, Model &model)
    : model_(model), recheck_(loop, model, interfaces_path, [this] { follow(); }) {
    recheck_.schedule();
}

void InterfaceState::follow() {
    for (const std::string &name : model_.instances(interfaces_path)) {
        provide_fixed_address(model_, name);
        const std::string flags = interface_flags(model_, name);
        if (has_word(flags, "netdev"))
            keep_flag(model_, name, "ipv4", has_word(flags, "up") && holds_address(model_, name));
        else if (has_word(flags, "logical"))
            keep_flag(model_, name, "up", device_below_is_up(model_, name));
    }
}

} // namespace keel
