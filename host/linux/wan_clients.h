/*
 * The WAN DHCP clients: one udhcpc process for each interface of the data model that wants one.
 */
#ifndef HOST_LINUX_WAN_CLIENTS_H
#define HOST_LINUX_WAN_CLIENTS_H

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "host/base/uv_loop.h"
#include "host/gateway/wan_client_model.h"
#include "host/linux/child.h"
#include "host/linux/udhcpc.h"
#include "host/linux/wan_packets.h"
#include "host/model/recheck.h"

namespace keel {

/* A "Weft.Intf" instance with the flag "dhcp", "Enable" true and a network device below it that is up runs a client
 * with its own option 61 ("SentOption.61") and the options of its "dhcp" MIB. State, address, mask and received options
 * appear in the instance: the lease as the client's script reports it, the states on the way there as its messages are
 * seen on the device. A client that is stopped sends no DHCPRELEASE: its address may stay in force, and it asks for it
 * when it starts again.
 *
 * One that has just been enabled tries at once; one that nobody answers tries again after a time that grows and is
 * spread by chance, so that the clients of many gateways do not ask in step. */
class WanClients {
public:
    /* The clients talk to strangers: they are confined, and do not see the hidden files. */
    WanClients(UvLoop &loop, InterfaceGraph &graph, std::string udhcpc, std::string report_script,
               std::vector<std::string> hidden_files = {});
    WanClients(const WanClients &) = delete;
    WanClients &operator=(const WanClients &) = delete;
    ~WanClients();

private:
    struct Client {
        std::string device;
        std::unique_ptr<Child> process;
        UdhcpcReader reader;
        Bytes client_id;                  /* what it sends as option 61 */
        std::optional<std::uint32_t> xid; /* of what it sent last */
        bool useless_lease = false;       /* what it was leased last cannot be used */
        bool started = false;             /* the process has run its script */
        unsigned tries = 0;               /* to find a server, in vain */
        unsigned failures = 0;            /* of the program, one after the other */
        std::string said;                 /* last, by the program itself */
        Loop::TimerId next = 0;           /* the next try, or the next start of the program */
    };

    void add(const std::string &name, const std::string &device);
    void start_later(const std::string &name, std::uint64_t delay_ms);
    void start_next();
    void start(const std::string &name, Client &client);
    void has_started(const std::string &name);
    void stop(const std::string &name);
    void seen(const std::string &device, const WanMessage &message);
    void take(const std::string &name, const std::string &line);
    void take(const std::string &name, Client &client, const UdhcpcReport &report);
    void try_later(const std::string &name, Client &client, std::uint64_t since_ms);
    void try_again(const std::string &name);
    void program_failed(const std::string &name, const std::string &what);
    void forget_unused_devices();

    UvLoop &loop_;
    Model &model_;
    WanClientModel show_;
    std::string udhcpc_;
    Confinement confinement_;
    std::string script_;
    std::mt19937 random_;
    std::map<std::string, std::unique_ptr<WanPackets>> devices_;
    OnceATurn forgetting_;
    std::map<std::string, std::unique_ptr<Client>> clients_;
    std::deque<std::string> waiting_; /* to be started, each once the one before it has */
    std::string starting_;            /* "" while none is */
    Loop::TimerId start_limit_ = 0;
    WantedWanClients wanted_;
};

} // namespace keel

#endif
