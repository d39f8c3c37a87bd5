/*
 * What the LAN may send out on the IPTV interface: "Firewall.Policy.IPTV2Lan" of the data model, as one rule.
 */
#ifndef HOST_LINUX_FIREWALL_POLICY_H
#define HOST_LINUX_FIREWALL_POLICY_H

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/growing_pause.h"
#include "host/base/uv_loop.h"
#include "host/gateway/graph.h"
#include "host/linux/child.h"

namespace keel {

/* Keeps the chain FORWARD_IPTV2Lan: with "ReverseChain" "Firewall.Chain.NAME" it holds one rule that sends what goes
 * out on the network device below "iptv" to the chain NAME; with "Off", or without such a device, it is empty. "Status"
 * is "Enabled" once that is so, and "error" when the setting is none or a command failed. Then the commands are run
 * again after a second, and after twice as long each time, up to a minute. They run beside the loop, one after the
 * other, each with a limit of time; the destructor waits for the last one and empties the chain. Loss and recovery are
 * traced once.
 */
class FirewallPolicy {
public:
    FirewallPolicy(UvLoop &loop, InterfaceGraph &graph);
    FirewallPolicy(const FirewallPolicy &) = delete;
    FirewallPolicy &operator=(const FirewallPolicy &) = delete;
    ~FirewallPolicy();

private:
    struct Goal {
        bool valid = true;
        std::vector<std::string> rule; /* its words; none: the chain is empty */

        bool operator==(const Goal &) const = default;
    };

    Goal goal() const;
    void follow();
    void bring_about();
    void next();
    void done(bool well);

    UvLoop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    Recheck policy_;
    GraphWatch interfaces_;
    std::optional<Goal> tried_; /* in force, being brought about, refused, or none */
    std::deque<std::vector<std::string>> commands_;
    std::unique_ptr<Child> running_;
    Loop::TimerId retry_ = 0;
    GrowingPause pause_{1000, 60000}; /* before the next try */
    std::optional<Goal> complained_;  /* about this one last; none: all is well */
};

} // namespace keel

#endif
