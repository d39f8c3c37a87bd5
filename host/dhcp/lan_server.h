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

#include "host/dhcp/lease_table.h"
#include "host/dhcp/packet.h"
#include "host/model/model.h"

namespace keel {

/* Where a reply goes. */
struct DhcpDestination {
    HardwareAddress hardware{};
    std::uint32_t address = 0; /* host order; 255.255.255.255 for a broadcast */
    std::uint32_t source = 0;  /* the server's */
};

/* The network, real or simulated. */
class LanPort {
public:
    virtual ~LanPort() = default;
    virtual void send(const Bytes &message, const DhcpDestination &destination) = 0;
};

/* A device belongs to the pool whose rule's "VendorClass" its vendor class (option 60) begins with, else to the pool
 * whose rule has none. While the pool's "LeasesOnHold" is true, a new lease appears as a Lease instance with "OnHold"
 * true and the device is not answered; when "OnHold" turns false, its waiting request is answered at once, with the
 * lease time and the options of that moment. A device that still asks after two minutes is reported anew: its instance
 * is deleted and added. Leases are kept by the store and taken up again at the start, for what was left of them:
 * "Expires" less "Written", when it was written, less the time since as far as the wall clock tells it. While the
 * server runs the wall clock ends no lease and prolongs none. */
class LanDhcpServer {
public:
    LanDhcpServer(Loop &loop, Model &model, LanPort &port);
    LanDhcpServer(const LanDhcpServer &) = delete;
    LanDhcpServer &operator=(const LanDhcpServer &) = delete;
    ~LanDhcpServer();

    /* One UDP payload from a client. */
    void received(const std::uint8_t *data, std::size_t size);
    /* How many messages were dropped, by reason. */
    const std::map<std::string, std::uint64_t> &dropped() const { return dropped_; }

private:
    struct Rule { /* where a device's lease belongs */
        std::string pool;
        std::string path;
        std::uint32_t low;
        std::uint32_t high;
    };

    struct Parked {
        DhcpMessage message; /* that waits for the release of its lease */
        std::uint64_t reported_ms = 0;
    };

    std::optional<Rule> rule_for(const DhcpMessage &message, const std::string &id) const;
    bool is_of(const std::string &path, const DhcpMessage &message) const;
    Rule rule_at(const std::string &pool, const std::string &number) const;
    std::string lease_path(const Rule &rule, const std::string &id) const;

    void discover(const DhcpMessage &message, const Rule &rule, const std::string &id);
    void request(const DhcpMessage &message, const Rule &rule, const std::string &id);
    void release(const DhcpMessage &message, const Rule &rule, const std::string &id, bool declined);
    void inform(const DhcpMessage &message, const Rule &rule);

    bool add_lease(const DhcpMessage &message, const Rule &rule, const std::string &id);
    bool report_lease(const DhcpMessage &message, const Rule &rule, const std::string &id, std::uint32_t address);
    std::uint32_t choose_address(const DhcpMessage &message, const Rule &rule) const;
    bool in_use(std::uint32_t address) const;
    void drop_lease_elsewhere(const Rule &rule, const std::string &id);
    void park(const DhcpMessage &message, const Rule &rule, const std::string &id);
    void answer_lease(const DhcpMessage &message, const Rule &rule, const std::string &id, DhcpType type);
    void answer(const DhcpMessage &message, const Rule &rule, DhcpReply reply);
    std::uint32_t lease_time(const Rule &rule) const;
    std::uint64_t remaining_s(const std::string &path) const;
    void lasts(const std::string &path, std::uint64_t validity_s);

    void on_event(const Event &event);
    void lease_changed(const std::string &path, const Event &event);
    void release_pool(const std::string &pool);
    void follow_expiry();
    void expire();
    void drop(const std::string &reason);

    Loop &loop_;
    Model &model_;
    LanPort &port_;
    LeaseTable leases_;
    Model::WatchId watch_;
    std::map<std::string, Parked> parked_;                  /* by the path of the lease */
    std::map<std::uint32_t, std::uint64_t> declined_until_; /* address -> ms */
    std::map<std::string, std::uint64_t> dropped_;
    Loop::TimerId expiry_ = 0;
    std::uint64_t expiry_ms_ = 0; /* when it runs */
};

} // namespace keel

#endif
