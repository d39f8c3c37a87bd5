/*
 * The twin of the WAN DHCP clients together with the operator's DHCP server behind them: the interfaces that want a
 * client go through its states, with what this operator leases, at virtual times.
 */
#ifndef HOST_SIM_SIM_OPERATOR_H
#define HOST_SIM_SIM_OPERATOR_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/gateway/wan_client_model.h"

namespace keel {

class SimOperator {
public:
    SimOperator(Loop &loop, InterfaceGraph &graph);
    SimOperator(const SimOperator &) = delete;
    SimOperator &operator=(const SimOperator &) = delete;
    ~SimOperator();

    /* What it leases; changes take effect at the next binding or renewal. */
    bool online = true;
    std::uint64_t lease_s = 3600;
    std::string mask = "255.255.255.0";
    std::map<int, std::string> options; /* hexadecimal texts */
    /* Gives a client identifier (option 61 text) an address of its choice. */
    void lease_address(const std::string &client_id, const std::string &address) { addresses_[client_id] = address; }
    /* What one client is leased, of which a test may change anything just before it is told. */
    struct Terms {
        std::string address;
        std::string mask;
        std::map<int, std::string> options;
        std::uint64_t lease_s = 0;
    };
    std::function<void(const std::string &client_id, Terms &terms)> vary;
    std::uint64_t answer_ms = 10;           /* how long it takes to answer */
    std::uint64_t renewal_retry_ms = 10000; /* of its clients: between two tries to renew */
    /* Told of each message that a client sends; and what becomes of a client's pause before it starts (0) or tries
     * again. */
    std::function<void()> on_message;
    std::function<std::uint64_t(std::uint64_t milliseconds)> vary_pause;
    /* The next request of that WAN client is answered by a NAK. */
    void refuse_once(const std::string &interface) { refused_[interface] = true; }
    /* Has a bound client renew now. */
    void renew(const std::string &interface);

    /* The clients that run. */
    std::set<std::string> running() const;
    /* How often each WAN client was started. */
    std::map<std::string, unsigned> starts;

private:
    struct Client {
        Loop::TimerId timer = 0;
        std::uint64_t bound_at_ms = 0;
        std::uint64_t lease_s = 0;
        unsigned tries = 0;         /* to find a server, or a lease that can be used, in vain */
        bool useless_lease = false; /* what it was leased last cannot be used */
    };

    void sent(const std::string &name);
    void after(const std::string &name, std::uint64_t milliseconds, void (SimOperator::*step)(const std::string &));
    void select(const std::string &name);
    void select_later(const std::string &name, std::uint64_t milliseconds);
    void refuse(const std::string &name);
    void request(const std::string &name);
    void bind(const std::string &name);
    void try_renewal(const std::string &name);
    std::string address_for(const std::string &client_id);

    Loop &loop_;
    Model &model_;
    WanClientModel show_;
    std::map<std::string, Client> clients_;
    std::map<std::string, std::string> addresses_;
    std::map<std::string, bool> refused_;
    unsigned next_host_ = 10;
    WantedWanClients wanted_;
};

} // namespace keel

#endif
