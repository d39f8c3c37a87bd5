#include "host/sim/sim_kernel.h"

#include "host/gateway/graph.h"

namespace keel {

SimKernel::SimKernel(Model &model) : model_(model) {
    watch_ = model_.watch("Weft.Intf", [this](const Event &event) { on_event(event); });
}

SimKernel::~SimKernel() {
    model_.unwatch(watch_);
}

void SimKernel::set_link(const std::string &device, bool up) {
    const std::string flags = interface_flags(model_, device);
    model_.set(interface_path(device), {{"Flags", up ? with_word(flags, "up") : without_word(flags, "up")}});
}

void SimKernel::on_event(const Event &event) {
    if (event.kind != Event::Kind::Added || event.steps.size() != 5)
        return;
    const bool route = event.steps[3] == "IPv4Route";
    if (!route && event.steps[3] != "IPv4Addr")
        return;
    const bool refused = route && refused_destinations.contains(to_text(event.values.at("Dst")));
    model_.set(event.path(), {{"Status", std::string(refused ? "error" : "Enabled")}});
}

} // namespace keel
