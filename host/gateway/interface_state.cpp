#include "host/gateway/interface_state.h"

#include <algorithm>
#include <cstdlib>

#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

void report(const Outcome &outcome) {
    if (outcome)
        trace(Level::Warning, "weft", "%s: %s", outcome->path.c_str(), outcome->reason.c_str());
}

bool device_below_is_up(const InterfaceGraph &graph, const std::string &name) {
    const auto below = graph.reach(name, Traversal::DownExclusive);
    return std::any_of(below.begin(), below.end(), [&](const std::string &one) {
        return graph.has_flag(one, "netdev") && graph.has_flag(one, "up");
    });
}

bool holds_address(const InterfaceGraph &graph, const std::string &name) {
    const Model &model = graph.model();
    const auto paths = graph.addresses(name);
    return std::any_of(paths.begin(), paths.end(), [&](const std::string &path) {
        return model.boolean(path, "Enable") && !model.text(path, "Address").empty();
    });
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

InterfaceState::InterfaceState(Loop &loop, InterfaceGraph &graph)
    : graph_(graph), watch_(loop, graph, [this](const GraphWatch::Names &touched) {
          for (const std::string &name : with_stack(graph_, touched))
              follow(name);
      }) {
    const auto all = graph.model().instances(interfaces_path);
    watch_.schedule({all.begin(), all.end()});
}

void InterfaceState::follow(const std::string &name) {
    if (!graph_.exists(name))
        return;
    provide_fixed_address(graph_.model(), name);
    if (graph_.has_flag(name, "netdev"))
        report(graph_.set_flag(name, "ipv4", graph_.has_flag(name, "up") && holds_address(graph_, name)));
    else if (graph_.has_flag(name, "logical"))
        report(graph_.set_flag(name, "up", device_below_is_up(graph_, name)));
}

} // namespace keel
