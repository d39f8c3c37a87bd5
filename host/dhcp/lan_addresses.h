/*
 * Which addresses of the LAN may be given to a device.
 */
#ifndef HOST_DHCP_LAN_ADDRESSES_H
#define HOST_DHCP_LAN_ADDRESSES_H

#include <cstdint>
#include <initializer_list>
#include <map>
#include <utility>

#include "host/base/loop.h"
#include "host/dhcp/lan_pools.h"
#include "host/dhcp/lease_table.h"

namespace keel {

/* An address is free that no lease has, that is not the gateway's, and that no device was found to use without one.
 * What a choice costs does not depend on how many there are. */
class LanAddresses {
public:
    LanAddresses(Loop &loop, LanPools &pools, const LeaseTable &leases) : loop_(loop), pools_(pools), leases_(leases) {}
    LanAddresses(const LanAddresses &) = delete;
    LanAddresses &operator=(const LanAddresses &) = delete;

    bool is_free(std::uint32_t address);
    /* The first of the wanted ones that is free and in the rule's range, else the one unused longest, the lowest of
     * those never used; 0 when the range is used up. A device that was switched off so keeps its address for as long as
     * there are others: what was set up for it, a mapping above all, may still be in force. */
    std::uint32_t choose(const LanRule &rule, std::initializer_list<std::uint32_t> wanted);
    /* Somebody uses it who has no lease for it: it is given to nobody for ten minutes. */
    void set_aside(std::uint32_t address);

private:
    using Range = std::pair<std::uint32_t, std::uint32_t>;

    Loop &loop_;
    LanPools &pools_;
    const LeaseTable &leases_;
    std::map<Range, std::uint32_t> never_used_;          /* none below it that was not, or is listed as unused */
    std::map<std::uint32_t, std::uint64_t> aside_until_; /* address -> ms */
};

} // namespace keel

#endif
