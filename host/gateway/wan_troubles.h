/*
 * How long the operator has not answered a WAN DHCP client, or has refused it: counted from what is seen of it.
 */
#ifndef HOST_GATEWAY_WAN_TROUBLES_H
#define HOST_GATEWAY_WAN_TROUBLES_H

#include "host/base/loop.h"
#include "host/model/model.h"

namespace keel {

/* Keeps, in each instance of "DHCPv4.Client", "Unanswered" messages and "UnansweredSince", from the first message after
 * an answer to the next answer, and "Refusals" and "RefusedSince", from the first refusal to the next lease. */
class WanTroubles {
public:
    WanTroubles(Loop &loop, Model &model);
    WanTroubles(const WanTroubles &) = delete;
    WanTroubles &operator=(const WanTroubles &) = delete;
    ~WanTroubles();

private:
    void on_exchange(const Event &event);
    void on_interface(const Event &event);
    void count(const std::string &client, const char *counter, const char *since);
    void reset(const std::string &client, const char *counter, const char *since);

    Loop &loop_;
    Model &model_;
    Model::WatchId exchanges_;
    Model::WatchId interfaces_;
};

} // namespace keel

#endif
