/*
 * The LAN DHCP server (RFC 2131) of the gateway: pools, rules, leases and holds as the data model has them below
 * "DHCPv4.Server", on messages that a port brings and takes.
 */
#ifndef HOST_DHCP_LAN_SERVER_H
#define HOST_DHCP_LAN_SERVER_H

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/dhcp/forgotten_devices.h"
#include "host/dhcp/lan_addresses.h"
#include "host/dhcp/lan_pools.h"
#include "host/dhcp/lan_port.h"
#include "host/dhcp/lease_ends.h"
#include "host/dhcp/lease_table.h"
#include "host/dhcp/packet.h"
#include "host/dhcp/waiting_devices.h"
#include "host/model/model.h"

namespace keel {

/* A device belongs to the pool whose rule's "VendorClass" its vendor class (option 60) begins with, else where its
 * lease is, which is found by its identifier (option 61) and MAC address, else to the pool whose rule has no vendor
 * class. Through a relay it belongs to a pool of the relay's subnet.
 *
 * While the pool's "LeasesOnHold" is true, a new lease appears as a Lease instance with "OnHold" true and the device is
 * not answered; when "OnHold" turns false, its waiting request is answered at once, with the lease time and the options
 * of that moment. A device that has asked since, once or more, is reported anew after two minutes: its instance
 * is deleted and added. One that is not there, or that is one of a flood, gets no instance. Before an address is
 * offered for the first time all devices are asked whether one of them uses it; a lease that there is already is
 * answered at once.
 *
 * Leases are kept by the store, and taken up again at the start. */
class LanDhcpServer {
public:
    LanDhcpServer(Loop &loop, Model &model, LanPort &port);
    LanDhcpServer(const LanDhcpServer &) = delete;
    LanDhcpServer &operator=(const LanDhcpServer &) = delete;
    ~LanDhcpServer();

    /* One UDP payload from a client. */
    void received(const std::uint8_t *data, std::size_t size);
    /* A device has told that it has the address. */
    void address_used(std::uint32_t address, const HardwareAddress &by);
    /* Has whoever watches the pools decide anew on the lease with that address, as on one that was never reported: it
     * is deleted and added, and lasts as long as before. Nothing while its device waits. */
    void report_lease_with(std::uint32_t address);
    /* How many messages were dropped, by reason. */
    const std::map<std::string, std::uint64_t> &dropped() const { return dropped_; }

private:
    /* A message, and where its sender belongs. */
    struct Request {
        const DhcpMessage &message;
        const LanRule &rule;
        std::string id;
        std::string lease; /* the path of the sender's lease, whether there is one or not */
    };

    const LanRule *rule_for(const DhcpMessage &message, const std::string &id);
    const LanRule *rule_of_lease(const std::string &id, const std::string &lease);
    bool is_of(const std::string &lease, const DhcpMessage &message) const;
    std::uint32_t leased_to(const Request &request);

    void discover(const Request &request);
    void request(const Request &request);
    void release(const Request &request, bool declined);
    void inform(const Request &request);

    void begin_lease(const Request &request);
    bool may_be_reported(const Request &request);
    bool add_lease(const LanRule &rule, const std::string &id, const Values &values);
    bool report_lease(const Request &request, std::uint32_t address, bool acknowledged);
    bool identifier_is_in_use(const Request &request);
    void drop_leases_before(const Request &request);
    void wait_without_lease(const Request &request, const std::string &reason, const std::string &port);
    void probe(const std::string &id, std::uint32_t address);
    void probed(const std::string &id);
    void park_or_answer(const Request &request, DhcpType type);
    void park(const Request &request);
    void report_again(const std::string &id);
    void answer_waiting(const std::string &id);
    void answer_lease(const Request &request, DhcpType type);
    void answer(const DhcpMessage &message, const LanPool &pool, DhcpReply reply);

    void on_event(const Event &event);
    void hold_pool(const std::string &pool, bool on);
    void count(const std::string &reason) { ++dropped_[reason]; }
    void drop(const std::string &reason, const std::string &latest = "");

    Loop &loop_;
    Model &model_;
    LanPort &port_;
    LanPools pools_;
    LeaseTable leases_;
    ForgottenDevices forgotten_;
    LanAddresses addresses_;
    LeaseEnds ends_;
    WaitingDevices waiting_;
    ReportLimit reports_;
    std::uint64_t start_; /* the latest event at construction */
    std::uint64_t start_ms_;
    std::map<std::string, std::uint64_t> held_ms_; /* since when a pool's leases have been held; else since the start */
    Model::WatchId watch_;
    std::map<std::string, std::uint64_t> dropped_;
};

} // namespace keel

#endif
