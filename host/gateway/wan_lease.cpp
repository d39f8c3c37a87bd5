#include "host/gateway/wan_lease.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "host/base/text_forms.h"
#include "host/gateway/classless_routes.h"
#include "host/gateway/settings.h"

namespace keel {

namespace {

constexpr std::array address_lists = {3, 6, 42, 72}; /* routers, name servers, NTP servers, WWW servers */
constexpr std::size_t address_digits = 8;
constexpr std::size_t shown_digits = 32; /* of a value in a trace */

LeaseFault fault(const std::string &of, const std::string &value, const std::string &wrong) {
    return {of, of + " " + (value.empty() ? "(none)" : value) + " " + wrong};
}

/* Not "this network", not the machine itself, not multicast, not reserved, no broadcast. */
bool a_host_can_have(std::uint32_t address) {
    const std::uint32_t first_byte = address >> 24;
    return first_byte != 0 && first_byte != 127 && first_byte < 224;
}

/* The pool whose network an address is of, "" for none. */
std::string lan_pool_of(const Model &model, std::uint32_t address) {
    for (const std::string &name : model.instances(lan_pools_path)) {
        std::string pool = join_path(lan_pools_path, name);
        const std::uint32_t gateway = ipv4_or_none(model.text(pool, "Router"));
        const std::uint32_t mask = ipv4_or_none(model.text(pool, "SubnetMask"));
        if (gateway != 0 && (address == gateway || (mask != 0 && (address & mask) == (gateway & mask))))
            return pool;
    }
    return "";
}

} // namespace

bool holds_lease(const std::string &status) {
    return status == "Bound" || status == "Renewing" || status == "Rebinding";
}

std::optional<LeaseFault> address_fault(const Model &model, const WanLease &lease) {
    const std::uint32_t mask = ipv4_or_none(lease.mask);
    if (mask == 0 || mask != mask_of(prefix_length_of(mask)))
        return fault("mask", lease.mask, "is no mask of a network");
    const std::uint32_t address = ipv4_or_none(lease.address);
    if (!a_host_can_have(address))
        return fault("address", lease.address, "is none that a host can have");
    const std::uint32_t hosts = ~mask;
    if (hosts > 1 && (address & hosts) == 0) /* in a network of one or two addresses, each is a host's (RFC 3021) */
        return fault("address", lease.address, "is that of the network itself, by its mask " + lease.mask);
    if (hosts > 1 && (address & hosts) == hosts)
        return fault("address", lease.address, "is the broadcast address, by its mask " + lease.mask);
    if (const std::string pool = lan_pool_of(model, address); !pool.empty())
        return fault("address", lease.address, "is one of the LAN (" + pool + ")");
    return std::nullopt;
}

std::vector<LeaseFault> drop_faulty_options(WanLease &lease) {
    std::vector<LeaseFault> faults;
    std::erase_if(lease.options, [&](const auto &option) {
        const auto &[number, value] = option;
        const bool list = std::find(address_lists.begin(), address_lists.end(), number) != address_lists.end();
        const auto bytes = parse_hex(value);
        std::string wrong;
        if (!bytes)
            wrong = "is not hexadecimal";
        else if (list && value.size() % address_digits != 0)
            wrong = "is no list of addresses";
        else if (number == option_classless_routes && !parse_classless_routes(*bytes, &wrong))
            wrong = "is no list of routes: " + wrong;
        if (wrong.empty())
            return false;
        const std::string shown = value.size() > shown_digits ? value.substr(0, shown_digits) + "..." : value;
        faults.push_back(fault("option " + std::to_string(number), shown, wrong));
        return true;
    });
    return faults;
}

} // namespace keel
