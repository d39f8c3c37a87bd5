/*
 * The kernel's twin: links go up and down when a test says so, routes and addresses are taken, or refused, at once.
 */
#ifndef HOST_SIM_SIM_KERNEL_H
#define HOST_SIM_SIM_KERNEL_H

#include <set>
#include <string>

#include "host/gateway/graph.h"

namespace keel {

class SimKernel {
public:
    explicit SimKernel(InterfaceGraph &graph);
    SimKernel(const SimKernel &) = delete;
    SimKernel &operator=(const SimKernel &) = delete;
    ~SimKernel();

    void set_link(const std::string &device, bool up);
    /* Routes to these destinations get the status "error". */
    std::set<std::string> refused_destinations;

private:
    void on_event(const Event &event);

    InterfaceGraph &graph_;
    Model::WatchId watch_;
};

} // namespace keel

#endif
