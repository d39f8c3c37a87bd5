/*
 * What of the data model goes into the timeline: leases, WAN clients, routes, settings, and how each STB is served.
 */
#ifndef HOST_GATEWAY_HISTORY_H
#define HOST_GATEWAY_HISTORY_H

#include <map>
#include <set>
#include <string>

#include "host/gateway/graph.h"

namespace keel {

class History {
public:
    /* The model must be loaded, its stored part, too, and outlive it. What is there already is not noted. */
    History(Loop &loop, Model &model);
    History(const History &) = delete;
    History &operator=(const History &) = delete;
    ~History();

private:
    struct Device {
        std::string lease; /* its path */
        std::string mac;
        std::string state;
    };

    void on_lease(const Event &event);
    void on_waiting(const Event &event);
    void on_interface(const Event &event);
    void on_route(const Event &event);
    void on_service(const Event &event);
    void touch_identity(const std::string &name);
    void touch_all();
    void look();
    void look_at(const std::set<std::string> &ids, bool settled);
    bool lacks_rules(const Device &device) const;
    std::string state_of(const std::string &id, const Device &device) const;

    Loop &loop_;
    Model &model_;
    OnceATurn looking_;
    std::map<std::string, Device> devices_; /* those of the IPTV pools, by the names of their leases */
    std::set<std::string> touched_;
    std::set<std::string> unsettled_;
    Loop::TimerId settling_ = 0;
    Model::WatchId leases_;
    Model::WatchId waiting_;
    Model::WatchId interfaces_;
    Model::WatchId service_;
    Model::WatchId missing_rules_;
};

} // namespace keel

#endif
