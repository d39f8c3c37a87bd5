/*
 * The WAN DHCP clients: one udhcpc process for each interface of the data model that wants one.
 */
#ifndef HOST_LINUX_WAN_CLIENTS_H
#define HOST_LINUX_WAN_CLIENTS_H

#include <deque>
#include <map>
#include <memory>
#include <string>

#include "host/base/uv_loop.h"
#include "host/gateway/wan_client_model.h"
#include "host/linux/child.h"
#include "host/linux/udhcpc.h"

namespace keel {

/* A "Weft.Intf" instance with the flag "dhcp", "Enable" true and a network device below it that is up runs a client
 * with its own option 61 ("SentOption.61") and the options of its "dhcp" MIB. State, address, mask and received options
 * appear in the instance. A client that is stopped sends no DHCPRELEASE: its address may stay in force, and it asks for
 * it when it starts again. */
class WanClients {
public:
    WanClients(UvLoop &loop, InterfaceGraph &graph, std::string udhcpc, std::string report_script);
    WanClients(const WanClients &) = delete;
    WanClients &operator=(const WanClients &) = delete;
    ~WanClients();

private:
    struct Client {
        std::string device;
        std::unique_ptr<Child> process;
        UdhcpcReader reader;
        Loop::TimerId restart = 0;
    };

    void start_later(const std::string &name, Client &client, std::uint64_t delay_ms);
    void start_next();
    void start(const std::string &name, Client &client);
    void has_started(const std::string &name);
    void stop(const std::string &name);
    void take(const std::string &name, const UdhcpcReport &report);
    void start_again(const std::string &name);

    UvLoop &loop_;
    Model &model_;
    std::string udhcpc_;
    std::string script_;
    std::map<std::string, std::unique_ptr<Client>> clients_;
    std::deque<std::string> waiting_; /* to be started, each once the one before it has */
    std::string starting_;            /* "" while none is */
    Loop::TimerId start_limit_ = 0;
    WantedWanClients wanted_;
};

} // namespace keel

#endif
