/*
 * How a WAN DHCP client shows in the data model: its lease below its "Weft.Intf" instance, and what was seen of its
 * exchange with the operator in "DHCPv4.Client"; shared by the real clients and their twins.
 */
#ifndef HOST_GATEWAY_WAN_CLIENT_MODEL_H
#define HOST_GATEWAY_WAN_CLIENT_MODEL_H

#include <functional>
#include <map>
#include <set>
#include <string>

#include "host/gateway/graph.h"
#include "host/gateway/wan_lease.h"

namespace keel {

/* How long a client that finds no server waits from that try, counted from 1, to the next: 3 s, doubled with each up to
 * 64 s. */
std::uint64_t wan_retry_ms(unsigned tries);

/* The writes. Each is of an interface by its name; of one that is gone, nothing is written. */
class WanClientModel {
public:
    WanClientModel(Loop &loop, Model &model) : loop_(loop), model_(model) {}

    /* The state; with "Idle" and "Selecting" the lease of the gateway's own client is over. The addresses of the routed
     * mode's clients (flag "zep-dhcp") are the plug-in's to put in force; that of another one stands as its
     * IPv4Addr.dhcp. */
    void status(const std::string &name, const std::string &status);
    /* "RemoteNack", told anew also when the last error was one, then "Selecting": it has no lease any more. The server
     * is dotted, "" when it did not tell. */
    void nak(const std::string &name, const std::string &server);
    /* Address, mask and received options, then "Bound": whoever sees the state finds the values in place. Options that
     * are none of their kind are left out. A new lease has those alone that come with it; one that is prolonged keeps
     * what is not said again.
     *
     * False for a lease whose address the gateway cannot use: nothing of it is put in force, and the client is shown as
     * "Selecting", for it has no lease that is any good. Whoever runs it must have it try again, and show it as
     * "Selecting" until a lease is taken: a client that gets no further is given up after a time, which begins anew
     * with every other state.
     *
     * Each fault is traced, one that comes again and again at its 1st, 2nd, 4th, 8th ... time. */
    bool bound(const std::string &name, WanLease lease);

    /* What is seen of its exchange, kept for whoever looks; nothing where the data model has no "DHCPv4.Client". */
    void sent(const std::string &name);
    void answered(const std::string &name, const std::string &server);
    void failed(const std::string &name, const std::string &error);
    void dropped(const std::string &name);
    void next_try_in(const std::string &name, std::uint64_t milliseconds);
    /* Its interface is gone. */
    void forget(const std::string &name);

private:
    bool exists(const std::string &name) const;
    void complain(const std::string &name, const LeaseFault &fault, const char *consequence);
    void note(const std::string &name, const Values &values);
    void count(const std::string &name, const char *parameter, Values values);

    Loop &loop_;
    Model &model_;
    std::map<std::string, std::map<std::string, std::uint64_t>> faults_; /* client -> what is at fault -> how often */
};

/* The interfaces that are to run a client: flag "dhcp", "Enable" true, and a network device below that is up. One that
 * only lacks the device is shown as "Selecting", for it is looking for a server all the same; one that is not to run,
 * as "Idle". One that has lost its device is "Idle" for a moment first: whoever disables its clients when a line is
 * lost has done so by then, and was not told of a search that nobody wants. */
class WantedWanClients {
public:
    using Start = std::function<void(const std::string &name, const std::string &device)>;
    using Stop = std::function<void(const std::string &name)>;

    /* Calls start and stop a turn after the graph has changed, the stops first; start once the client is shown as
     * "Selecting". A client whose device has become another one is stopped and started, and so is one that was
     * disabled and enabled again, however quickly. Neither is called by the destructor. */
    WantedWanClients(Loop &loop, InterfaceGraph &graph, Start start, Stop stop);
    WantedWanClients(const WantedWanClients &) = delete;
    WantedWanClients &operator=(const WantedWanClients &) = delete;
    ~WantedWanClients();

private:
    void on_event(const Event &event);
    void follow(const GraphWatch::Names &touched);
    void look_without_line();
    bool wanted(const std::string &name) const;

    Loop &loop_;
    InterfaceGraph &graph_;
    WanClientModel show_;
    Start start_;
    Stop stop_;
    std::map<std::string, std::string> looking_; /* name -> device, "" while there is none */
    std::set<std::string> interrupted_;          /* disabled or deleted since the last look */
    Loop::TimerId line_lost_ = 0;
    Model::WatchId events_;
    GraphWatch watch_;
};

} // namespace keel

#endif
