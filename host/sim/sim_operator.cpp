#include "host/sim/sim_operator.h"

#include <utility>

namespace keel {

namespace {
constexpr std::uint64_t step_ms = 10;     /* between two messages */
constexpr std::uint64_t retry_ms = 3000;  /* between two tries to find a server */
constexpr std::uint64_t renew_ms = 10000; /* between two tries to renew */
} // namespace

SimOperator::SimOperator(Loop &loop, InterfaceGraph &graph)
    : loop_(loop), model_(graph.model()), wanted_(
                                              loop, graph,
                                              [this](const std::string &name, const std::string &) {
                                                  ++starts[name];
                                                  select(name);
                                              },
                                              [this](const std::string &name) { stop(name); }) {}

SimOperator::~SimOperator() {
    for (const auto &[name, client] : clients_)
        loop_.cancel_timer(client.timer);
}

void SimOperator::stop(const std::string &name) {
    loop_.cancel_timer(clients_[name].timer);
    clients_.erase(name);
    if (model_.find(interface_path(name)))
        set_wan_status(model_, name, "Idle");
}

void SimOperator::after(const std::string &name, std::uint64_t milliseconds,
                        void (SimOperator::*step)(const std::string &)) {
    Client &client = clients_[name];
    loop_.cancel_timer(client.timer);
    client.timer = loop_.start_timer(milliseconds, [this, name, step] { (this->*step)(name); });
}

void SimOperator::select(const std::string &name) {
    set_wan_status(model_, name, "Selecting");
    if (online)
        after(name, step_ms, &SimOperator::request);
    else
        after(name, retry_ms, &SimOperator::select);
}

void SimOperator::request(const std::string &name) {
    set_wan_status(model_, name, "Requesting");
    if (std::exchange(refused_[name], false)) {
        set_wan_nak(model_, name);
        after(name, retry_ms, &SimOperator::select);
        return;
    }
    after(name, step_ms, &SimOperator::bind);
}

std::string SimOperator::address_for(const std::string &client_id) {
    std::string &address = addresses_[client_id];
    if (address.empty())
        address = "10.20.0." + std::to_string(next_host_++);
    return address;
}

void SimOperator::bind(const std::string &name) {
    const std::string client_id = model_.text(interface_path(name) + ".SentOption.61", "Value");
    set_wan_bound(model_, name, address_for(client_id), mask, options);
    clients_[name].bound_at_ms = loop_.now_ms();
    after(name, lease_s * 500, &SimOperator::try_renewal);
}

void SimOperator::renew(const std::string &interface) {
    try_renewal(interface);
}

void SimOperator::try_renewal(const std::string &name) {
    const std::uint64_t age_ms = loop_.now_ms() - clients_[name].bound_at_ms;
    if (age_ms >= lease_s * 1000) {
        select(name);
        return;
    }
    set_wan_status(model_, name, age_ms >= lease_s * 875 ? "Rebinding" : "Renewing");
    if (!online) {
        after(name, renew_ms, &SimOperator::try_renewal);
    } else if (std::exchange(refused_[name], false)) {
        set_wan_nak(model_, name);
        after(name, retry_ms, &SimOperator::select);
    } else {
        after(name, step_ms, &SimOperator::bind);
    }
}

} // namespace keel
