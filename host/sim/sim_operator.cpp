#include "host/sim/sim_operator.h"

#include <utility>

namespace keel {

namespace {
constexpr std::uint64_t pause_ms = 3000; /* of a client that was refused */
constexpr const char *server_id = "10.20.0.1";
} // namespace

SimOperator::SimOperator(Loop &loop, InterfaceGraph &graph)
    : loop_(loop), model_(graph.model()), show_(loop, graph.model()),
      wanted_(
          loop, graph,
          [this](const std::string &name, const std::string &) {
              ++starts[name];
              if (vary_pause)
                  after(name, vary_pause(0), &SimOperator::select);
              else
                  select(name);
          },
          [this](const std::string &name) {
              loop_.cancel_timer(clients_[name].timer);
              clients_.erase(name);
          }) {}

SimOperator::~SimOperator() {
    for (const auto &[name, client] : clients_)
        loop_.cancel_timer(client.timer);
}

std::set<std::string> SimOperator::running() const {
    std::set<std::string> names;
    for (const auto &[name, client] : clients_)
        names.insert(name);
    return names;
}

void SimOperator::after(const std::string &name, std::uint64_t milliseconds,
                        void (SimOperator::*step)(const std::string &)) {
    Client &client = clients_[name];
    loop_.cancel_timer(client.timer);
    client.timer = loop_.start_timer(milliseconds, [this, name, step] { (this->*step)(name); });
}

void SimOperator::sent(const std::string &name) {
    show_.sent(name);
    if (on_message)
        on_message();
}

void SimOperator::select(const std::string &name) {
    show_.status(name, "Selecting");
    sent(name);
    if (online) {
        show_.answered(name, server_id);
        after(name, answer_ms, &SimOperator::request);
        return;
    }
    show_.failed(name, "no answer");
    select_later(name, wan_retry_ms(++clients_[name].tries));
}

void SimOperator::select_later(const std::string &name, std::uint64_t milliseconds) {
    const std::uint64_t pause = vary_pause ? vary_pause(milliseconds) : milliseconds;
    show_.next_try_in(name, pause);
    after(name, pause, &SimOperator::select);
}

void SimOperator::refuse(const std::string &name) {
    show_.answered(name, server_id);
    show_.nak(name, server_id);
    select_later(name, pause_ms);
}

void SimOperator::request(const std::string &name) {
    show_.status(name, clients_[name].useless_lease ? "Selecting" : "Requesting");
    sent(name);
    if (std::exchange(refused_[name], false))
        refuse(name);
    else
        after(name, answer_ms, &SimOperator::bind);
}

std::string SimOperator::address_for(const std::string &client_id) {
    std::string &address = addresses_[client_id];
    if (address.empty())
        address = "10.20.0." + std::to_string(next_host_++);
    return address;
}

void SimOperator::bind(const std::string &name) {
    const std::string client_id = model_.text(interface_path(name) + ".SentOption.61", "Value");
    Terms terms{address_for(client_id), mask, options, lease_s};
    if (vary)
        vary(client_id, terms);
    show_.answered(name, server_id);
    Client &client = clients_[name];
    client.useless_lease = !show_.bound(name, {terms.address, terms.mask, terms.options});
    if (client.useless_lease) {
        select_later(name, wan_retry_ms(++client.tries));
        return;
    }
    client.bound_at_ms = loop_.now_ms();
    client.lease_s = terms.lease_s;
    client.tries = 0;
    after(name, terms.lease_s * 500, &SimOperator::try_renewal);
}

void SimOperator::renew(const std::string &interface) {
    try_renewal(interface);
}

void SimOperator::try_renewal(const std::string &name) {
    const std::uint64_t age_ms = loop_.now_ms() - clients_[name].bound_at_ms;
    const std::uint64_t lasts_s = clients_[name].lease_s;
    if (age_ms >= lasts_s * 1000) {
        select(name);
        return;
    }
    show_.status(name, age_ms >= lasts_s * 875 ? "Rebinding" : "Renewing");
    sent(name);
    if (!online) {
        after(name, renewal_retry_ms, &SimOperator::try_renewal);
    } else if (std::exchange(refused_[name], false)) {
        refuse(name);
    } else {
        after(name, answer_ms, &SimOperator::bind);
    }
}

} // namespace keel
