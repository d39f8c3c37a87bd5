/*
 * What the data model says below "DHCPv4.Server" that the LAN DHCP server shall do: its pools and their rules, read.
 */
#ifndef HOST_DHCP_LAN_POOLS_H
#define HOST_DHCP_LAN_POOLS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/base/text_forms.h"
#include "host/gateway/settings.h"
#include "host/model/model.h"

namespace keel {

constexpr const char *lan_server_path = "DHCPv4.Server";

struct LanPool;

struct LanRule {
    const LanPool *pool = nullptr;
    std::string number;
    std::string path;
    std::string vendor_class; /* "" for any */
    std::uint32_t low = 0;    /* host order, as all addresses here */
    std::uint32_t high = 0;
};

struct LanPool {
    std::string name;
    std::string path;
    bool on_hold = false; /* a new lease waits for its release */
    std::uint32_t shortest_s = 0;
    std::uint32_t usual_s = 0;
    std::uint32_t longest_s = 0;
    std::uint32_t mask = 0;
    std::uint32_t router = 0;
    std::uint32_t server = 0;              /* the server's own address, as the devices of this pool reach it */
    std::map<std::uint8_t, Bytes> options; /* those that are on and not all zero */
    std::vector<LanRule> rules;

    /* What a device gets that asks for so long, s; 0 when it does not say. */
    std::uint32_t lease_time(std::uint32_t asked_s) const;
    bool has_in_subnet(std::uint32_t address) const { return ((address ^ router) & mask) == 0; }
    /* Whether it is for devices of a link (LanPools::link_of()). */
    bool is_of_link(std::uint32_t link) const { return has_in_subnet(link != 0 ? link : server); }
};

/* Reads anew what has changed. Pointers and references stay valid until something is asked for after a write to the
 * pools. */
class LanPools {
public:
    explicit LanPools(Model &model);
    LanPools(const LanPools &) = delete;
    LanPools &operator=(const LanPools &) = delete;
    ~LanPools();

    /* Those that are enabled; none while the server is not. */
    const std::vector<LanPool> &all();
    /* A rule of one of them, or null. */
    const LanRule *rule(const std::string &pool, const std::string &number);
    /* Where a device is: an address of its link, 0 for the LAN's own. That is its relay's; and its own where it renews
     * straight from behind one. */
    std::uint32_t link_of(std::uint32_t relay, std::uint32_t client);
    /* Whether one of them has the address for its router or server. */
    bool is_own(std::uint32_t address);

private:
    void read();
    LanPool read_pool(const std::string &name) const;

    Model &model_;
    std::vector<LanPool> pools_;
    bool stale_ = true;
};

} // namespace keel

#endif
