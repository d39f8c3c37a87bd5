#include "host/gateway/interface_state.h"

#include <algorithm>
#include <utility>

#include "host/base/text_forms.h"
#include "host/base/trace.h"
#include "host/gateway/graph.h"

namespace keel {

namespace {

constexpr std::size_t longest_shown = 40;

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

Outcome provide_fixed_address(Model &model, const std::string &name) {
    const std::string fixed = model.text(interface_path(name), "IPTVAddress");
    const std::string addresses = interface_path(name) + ".IPv4Addr";
    if (fixed.empty() || model.find(addresses + ".iptv"))
        return std::nullopt;
    const auto network = parse_network(fixed);
    if (!network)
        return Refusal{interface_path(name), "IPTVAddress \"" + printable_text(fixed, longest_shown) +
                                                 "\" is no address with its prefix, as in 10.20.0.40/24; "
                                                 "there is no fixed address until it is one"};
    return model.add(
        addresses, "iptv",
        {{"Address", format_ipv4(network->address)}, {"PrefixLen", std::int64_t{network->prefix}}, {"Enable", false}});
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
    const bool exists = graph_.exists(name);
    const Outcome refused = exists ? provide_fixed_address(graph_.model(), name) : std::nullopt;
    if (!refused)
        told_.erase(name);
    else if (std::exchange(told_[name], refused->reason) != refused->reason)
        report(refused);
    if (!exists)
        return;
    if (graph_.has_flag(name, "netdev"))
        report(graph_.set_flag(name, "ipv4", graph_.has_flag(name, "up") && holds_address(graph_, name)));
    else if (graph_.has_flag(name, "logical"))
        report(graph_.set_flag(name, "up", device_below_is_up(graph_, name)));
}

} // namespace keel
