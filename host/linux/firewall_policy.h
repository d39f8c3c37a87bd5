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

#include "host/base/uv_loop.h"
#include "host/gateway/graph.h"
#include "host/linux/child.h"

namespace keel {

/* Keeps the chain FORWARD_IPTV2Lan: with "ReverseChain" "Firewall.Chain.NAME" it holds one rule that sends what goes
 * out on the network device below "iptv" to the chain NAME; with "Off", or without such a device, it is empty. "Status"
 * is "Enabled" once that is so, and "error" when the setting is none or iptables refused. The commands run beside the
 * loop, one after the other; the destructor waits for the last one and empties the chain. */
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
    void next();
    void done(bool well);

    UvLoop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    Recheck policy_;
    GraphWatch interfaces_;
    std::optional<Goal> tried_; /* in force, being brought about, or refused */
    std::deque<std::vector<std::string>> commands_;
    std::unique_ptr<Child> running_;
};

} // namespace keel

#endif
