#include "host/linux/firewall_policy.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "host/base/timeline.h"
#include "host/base/trace.h"
#include "host/gateway/graph.h"
#include "host/linux/chains.h"
#include "host/linux/program.h"

namespace keel {

namespace {

constexpr const char *policy_path = "Firewall.Policy.IPTV2Lan";
constexpr const char *own_chain = "FORWARD_IPTV2Lan";
constexpr std::string_view chain_prefix = "Firewall.Chain.";
constexpr std::size_t max_chain_name = 28; /* of iptables */
constexpr int command_limit_ms = 7000;     /* it waits up to 5 s for others */

bool is_chain_name(std::string_view name) {
    const auto fits = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    };
    return !name.empty() && name.size() <= max_chain_name && name.front() != '-' &&
           std::all_of(name.begin(), name.end(), fits);
}

} // namespace

FirewallPolicy::FirewallPolicy(UvLoop &loop, InterfaceGraph &graph)
    : loop_(loop), graph_(graph), model_(graph.model()),
      policy_(loop, model_, policy_path, [this] { follow(); }, {{"ReverseChain"}, false}),
      interfaces_(loop, graph, [this](const GraphWatch::Names &) { follow(); }) {
    policy_.schedule();
}

FirewallPolicy::~FirewallPolicy() {
    loop_.cancel_timer(retry_);
    if (running_ && !running_->wait(command_limit_ms)) /* else it might add its rule after the chain was emptied */
        running_->kill();
    std::string error;
    const std::optional<int> status = run_and_wait(flush_command(own_chain), command_limit_ms, &error);
    if (status != 0)
        trace(Level::Error, "firewall", "%s is not emptied: %s", own_chain,
              status ? ("status " + std::to_string(*status)).c_str() : error.c_str());
}

FirewallPolicy::Goal FirewallPolicy::goal() const {
    const std::string chain = model_.text(policy_path, "ReverseChain");
    if (chain == "Off")
        return {};
    if (!chain.starts_with(chain_prefix) || !is_chain_name(chain.substr(chain_prefix.size())))
        return {false, {}};
    const std::string device = graph_.netdev_below("iptv");
    if (device.empty())
        return {};
    return {true, {"-o", device, "-j", chain.substr(chain_prefix.size())}};
}

void FirewallPolicy::follow() {
    if (running_)
        return; /* done() looks again */
    const Goal wanted = goal();
    if (wanted == tried_)
        return;
    loop_.cancel_timer(std::exchange(retry_, 0));
    pause_.reset();
    tried_ = wanted;
    bring_about();
}

void FirewallPolicy::bring_about() {
    commands_ = {flush_command(own_chain)};
    if (!tried_->rule.empty())
        commands_.push_back(append_command(own_chain, tried_->rule));
    next();
}

void FirewallPolicy::next() {
    if (commands_.empty()) {
        done(true);
        return;
    }
    const std::vector<std::string> command = std::move(commands_.front());
    commands_.pop_front();
    std::string error;
    running_ = Child::start(
        loop_, command, nullptr,
        [this, command](int status) {
            running_.reset();
            std::string line;
            for (const std::string &word : command)
                line += (line.empty() ? "" : " ") + word;
            Timeline::instance().note(TimelineEvent::Kind::Rule, "", status == 0 ? "done" : "failed", line);
            if (status == 0)
                next();
            else
                done(false);
        },
        &error);
    if (running_) {
        running_->limit(command_limit_ms);
        return;
    }
    trace(Level::Error, "firewall", "%s cannot be started: %s", command.front().c_str(), error.c_str());
    done(false);
}

void FirewallPolicy::done(bool well) {
    commands_.clear();
    const std::string chain = model_.text(policy_path, "ReverseChain");
    const bool holds = well && tried_->valid;
    if (!holds && complained_ != tried_)
        trace(Level::Error, "firewall", "%s: ReverseChain=%s is not in force%s", policy_path, chain.c_str(),
              well ? "" : "; it is tried again");
    else if (holds && complained_)
        trace(Level::Info, "firewall", "%s: ReverseChain=%s is in force again", policy_path, chain.c_str());
    complained_ = holds ? std::nullopt : tried_;
    model_.set(policy_path, {{"Status", std::string(holds ? "Enabled" : "error")}});
    if (well)
        pause_.reset();
    else
        retry_ = loop_.start_timer(pause_.next_ms(), [this] {
            retry_ = 0;
            bring_about();
        });
    follow(); /* perhaps something else is wanted by now */
}

} // namespace keel
