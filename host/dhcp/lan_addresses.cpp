#include "host/dhcp/lan_addresses.h"

namespace keel {

namespace {
constexpr std::uint64_t aside_for_ms = 600000;
}

bool LanAddresses::is_free(std::uint32_t address) {
    const auto aside = aside_until_.find(address);
    return !leases_.is_leased(address) && !pools_.is_own(address) &&
           (aside == aside_until_.end() || aside->second <= loop_.now_ms());
}

bool LanAddresses::is_free_for(const std::string &device, std::uint32_t address) {
    return is_free(address) && !mapped_.is_anothers(address, device);
}

std::uint32_t LanAddresses::choose(const LanRule &rule, const std::string &device,
                                   std::initializer_list<std::uint32_t> wanted) {
    const auto fits = [&](std::uint32_t address) {
        return address >= rule.low && address <= rule.high && address != 0 && is_free_for(device, address);
    };
    if (const std::uint32_t own = mapped_.of(device); fits(own))
        return own;
    for (const std::uint32_t address : wanted)
        if (fits(address))
            return address;
    if (rule.low == 0)
        return 0;
    const std::uint32_t address = unused_longest(rule, fits);
    return address != 0 ? address : unused_longest(rule, [this](std::uint32_t one) { return is_free(one); });
}

std::uint32_t LanAddresses::unused_longest(const LanRule &rule, const Fits &fits) {
    const auto may_be = [&](std::uint32_t address) {
        return address >= rule.low && address <= rule.high && fits(address);
    };
    const auto &unused = leases_.unused();
    const auto used_before = unused.lower_bound({1, 0});
    for (auto at = unused.begin(); at != used_before; ++at)
        if (may_be(at->second))
            return at->second;
    std::uint32_t &first = never_used_.try_emplace({rule.low, rule.high}, rule.low).first->second;
    for (std::uint32_t address = first; address >= rule.low && address <= rule.high; ++address) {
        const bool used = leases_.is_leased(address) || leases_.freed(address) != 0;
        if (used && address == first)
            ++first;
        else if (!used && fits(address))
            return address;
    }
    for (auto at = used_before; at != unused.end(); ++at)
        if (may_be(at->second))
            return at->second;
    return 0;
}

void LanAddresses::set_aside(std::uint32_t address) {
    const std::uint64_t now = loop_.now_ms();
    std::erase_if(aside_until_, [now](const auto &one) { return one.second <= now; });
    aside_until_[address] = now + aside_for_ms;
}

} // namespace keel
