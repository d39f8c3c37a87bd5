/*
 * What the LAN DHCP server knows of a device, for whoever knows it by its MAC address alone.
 */
#ifndef HOST_GATEWAY_LEASE_FACTS_H
#define HOST_GATEWAY_LEASE_FACTS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "host/model/model.h"

namespace keel {

/* Whether an event is one of a lease instance, "DHCPv4.Server.Pool.NAME.Rule.NUMBER.Lease.ID". */
bool is_of_lease(const Event &event);

class LeaseFacts {
public:
    struct Facts {
        std::string address; /* dotted */
        std::string host_name;
        std::string vendor_class;
        bool stb = false; /* served from the STBs' pool */
    };
    using OnChange = std::function<void(const std::string &mac)>;

    /* Calls on_change, on a later turn, for the device of a lease that was added or has changed. The model must be
     * loaded, and outlive it. */
    LeaseFacts(Model &model, OnChange on_change);
    LeaseFacts(const LeaseFacts &) = delete;
    LeaseFacts &operator=(const LeaseFacts &) = delete;
    ~LeaseFacts();

    /* Of the device's latest lease, where it has several with other identifiers (of a boot loader, and of its system);
     * nothing while that is on hold, since the device does not have it then. */
    std::optional<Facts> of(const std::string &mac) const;

private:
    void observe(const Event &event);
    void keep(const Node &lease);
    void forget(const std::string &mac, const std::string &id);

    Model &model_;
    Model::WatchId watch_;
    struct Known {
        std::string id;
        const Node *lease;
    };
    std::unordered_multimap<std::uint64_t, Known> leases_; /* by MAC address */
};

} // namespace keel

#endif
