/*
 * The kernel's twin: links go up and down when a test says so, routes and addresses are taken, or refused, at once.
 */
#ifndef HOST_SIM_SIM_KERNEL_H
#define HOST_SIM_SIM_KERNEL_H

#include <map>
#include <set>
#include <string>

#include "host/gateway/graph.h"

namespace keel {

class SimKernel {
public:
    explicit SimKernel(InterfaceGraph &graph);
    /* With a loop, the state of the links is read again once a minute, as the kernel's tables are. */
    SimKernel(Loop &loop, InterfaceGraph &graph);
    SimKernel(const SimKernel &) = delete;
    SimKernel &operator=(const SimKernel &) = delete;
    ~SimKernel();

    void set_link(const std::string &device, bool up);
    bool link(const std::string &device) const;
    /* The event buffer overruns: that many changes of links are not told when they happen. */
    void lose_events(unsigned events) { lost_events_ = events; }
    /* Routes to these destinations get the status "error". */
    std::set<std::string> refused_destinations;

private:
    void on_event(const Event &event);
    void read_again();

    InterfaceGraph &graph_;
    Loop *loop_ = nullptr;
    Loop::TimerId reading_ = 0;
    std::map<std::string, bool> links_; /* as they are, told or not */
    unsigned lost_events_ = 0;
    Model::WatchId watch_;
};

} // namespace keel

#endif
