#include "host/sim/sim_kernel.h"

namespace keel {

SimKernel::SimKernel(InterfaceGraph &graph) : graph_(graph) {
    watch_ = graph_.model().watch("Weft.Intf", [this](const Event &event) { on_event(event); });
}

SimKernel::~SimKernel() {
    graph_.model().unwatch(watch_);
}

void SimKernel::set_link(const std::string &device, bool up) {
    graph_.set_flag(device, "up", up);
}

void SimKernel::on_event(const Event &event) {
    if (event.kind != Event::Kind::Added || event.steps.size() != 5)
        return;
    const bool route = event.steps[3] == "IPv4Route";
    if (!route && event.steps[3] != "IPv4Addr")
        return;
    const bool refused = route && refused_destinations.contains(to_text(event.values.at("Dst")));
    graph_.model().set(event.path(), {{"Status", std::string(refused ? "error" : "Enabled")}});
}

} // namespace keel
