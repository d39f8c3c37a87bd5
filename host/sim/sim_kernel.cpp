#include "host/sim/sim_kernel.h"

namespace keel {

namespace {
constexpr std::uint64_t read_again_ms = 60000;
}

SimKernel::SimKernel(InterfaceGraph &graph) : graph_(graph) {
    watch_ = graph_.model().watch("Weft.Intf", [this](const Event &event) { on_event(event); });
}

SimKernel::SimKernel(Loop &loop, InterfaceGraph &graph) : SimKernel(graph) {
    loop_ = &loop;
    reading_ = loop.start_timer(read_again_ms, [this] { read_again(); });
}

SimKernel::~SimKernel() {
    graph_.model().unwatch(watch_);
    if (loop_)
        loop_->cancel_timer(reading_);
}

void SimKernel::set_link(const std::string &device, bool up) {
    links_[device] = up;
    if (lost_events_ > 0)
        --lost_events_;
    else
        graph_.set_flag(device, "up", up);
}

bool SimKernel::link(const std::string &device) const {
    const auto found = links_.find(device);
    return found != links_.end() && found->second;
}

void SimKernel::read_again() {
    for (const auto &[device, up] : links_)
        graph_.set_flag(device, "up", up);
    reading_ = loop_->start_timer(read_again_ms, [this] { read_again(); });
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
