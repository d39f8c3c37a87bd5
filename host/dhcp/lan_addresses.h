/*
 * Which addresses of the LAN may be given to a device.
 */
#ifndef HOST_DHCP_LAN_ADDRESSES_H
#define HOST_DHCP_LAN_ADDRESSES_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

#include "host/base/loop.h"
#include "host/dhcp/lan_pools.h"
#include "host/dhcp/lease_table.h"
#include "host/dhcp/mapped_addresses.h"

namespace keel {

/* An address is free that no lease has, that is not the gateway's, and that no device was found to use without one. A
 * device is named as its lease is. What a choice costs does not depend on how many there are. */
class LanAddresses {
public:
    LanAddresses(Loop &loop, Model &model, LanPools &pools, const LeaseTable &leases)
        : loop_(loop), pools_(pools), leases_(leases), mapped_(model) {}
    LanAddresses(const LanAddresses &) = delete;
    LanAddresses &operator=(const LanAddresses &) = delete;

    /* Whether the device may have it: it is free, and mapped for no other one. */
    bool is_free_for(const std::string &device, std::uint32_t address);
    /* The one that is mapped for the device, else the first of the wanted ones in the rule's range that it may have,
     * else the one unused longest, the lowest of those never used. One that is mapped for another device, which may
     * come back, is given only when there is no other; 0 when the range is used up. */
    std::uint32_t choose(const LanRule &rule, const std::string &device, std::initializer_list<std::uint32_t> wanted);
    /* Somebody uses it who has no lease for it: it is given to nobody for ten minutes. */
    void set_aside(std::uint32_t address);

private:
    using Range = std::pair<std::uint32_t, std::uint32_t>;
    using Fits = std::function<bool(std::uint32_t address)>;

    bool is_free(std::uint32_t address);
    std::uint32_t unused_longest(const LanRule &rule, const Fits &fits);

    Loop &loop_;
    LanPools &pools_;
    const LeaseTable &leases_;
    MappedAddresses mapped_;
    std::map<Range, std::uint32_t> never_used_;          /* none below it that was not, or is listed as unused */
    std::map<std::uint32_t, std::uint64_t> aside_until_; /* address -> ms */
};

} // namespace keel

#endif
