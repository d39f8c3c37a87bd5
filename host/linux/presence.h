/*
 * Which devices are on the LAN: "Hosts.Host.*" of the data model.
 */
#ifndef HOST_LINUX_PRESENCE_H
#define HOST_LINUX_PRESENCE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "host/base/loop.h"
#include "host/gateway/graph.h"
#include "host/gateway/lease_facts.h"
#include "host/linux/kernel_tables.h"
#include "host/model/model.h"

namespace keel {

/* Keeps a "Hosts.Host" instance, named by the MAC address, for every device seen on the LAN bridge (the interface with
 * the flag "bridge"). "Active" while the bridge knows the device behind a port with carrier, or the neighbour table
 * holds it as not gone. Devices are asked now and then, so that one that vanished behind a switch is noticed within
 * minutes. Address, host name and class are those that the LAN DHCP server knows, the address while the kernel knows
 * none that is valid; a device of the STBs' pool has the tag "stb", from the same write on that tells its address. Tags
 * that somebody else has set stay: "TagsByHand" is true then, and the instance is stored.
 *
 * Of instances that it added itself and nobody else has written to there are at most max_hosts, so that who makes up
 * MAC addresses does not fill the memory: the one that is absent longest goes for a new one. While all are there, a new
 * one waits. */
class Presence {
public:
    static constexpr std::size_t max_hosts = 1024;

    /* Loop, model and tables must outlive it. */
    Presence(Loop &loop, InterfaceGraph &graph, KernelTables &tables);
    Presence(const Presence &) = delete;
    Presence &operator=(const Presence &) = delete;
    ~Presence();

private:
    struct Device {
        int port = 0;             /* the port it was last seen behind; 0 while it was behind none */
        bool mine = false;        /* its instance is ours alone */
        bool tagged = false;      /* the tag "stb" is ours */
        std::uint64_t absent = 0; /* its place in absent_; 0 for none */
    };
    struct Sight {
        bool any = false; /* the kernel knows of it */
        bool active = false;
        std::string address;
    };

    void look_at_all();
    void on_changes(const KernelChanges &changes);
    void on_interface(const Event &event);
    void on_host(const Event &event);
    void keep_tags(const std::string &mac);
    void on_lease(const std::string &mac);
    void update(const std::string &mac, const std::string &reached = "");
    Sight see(const std::string &mac, const std::string &reached);
    Values lease_values(const std::string &mac, Device &device, const std::string &address) const;
    bool make_room();
    void admit_waiting();
    void keep_absent(const std::string &mac, Device &device, bool absent);
    void release(const std::string &mac);
    void forget(const std::string &mac);
    void set_port(const std::string &mac, int port);
    void ask();
    bool is_bridge(const std::string &name) const;

    Loop &loop_;
    InterfaceGraph &graph_;
    Model &model_;
    KernelTables &tables_;
    LeaseFacts leases_;
    Model::WatchId interface_watch_;
    Model::WatchId host_watch_;
    KernelTables::SubscriptionId subscription_;
    int lan_ = 0;                                 /* the kernel's number of the LAN bridge; 0 when there is none */
    std::map<std::string, Device> devices_;       /* by MAC address: with an instance, or seen behind a port */
    std::map<int, std::set<std::string>> behind_; /* port -> the devices last seen behind it */
    std::map<std::uint64_t, std::string> absent_; /* those that are ours, longest first */
    std::set<std::string> waiting_;               /* active, and no room */
    std::set<std::uint64_t> own_events_;          /* of instances that had to go */
    std::size_t mine_ = 0;
    std::uint64_t last_absent_ = 0;
    Loop::TimerId asking_ = 0;
};

} // namespace keel

#endif
