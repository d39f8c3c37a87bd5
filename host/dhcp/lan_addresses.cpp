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

std::uint32_t LanAddresses::choose(const LanRule &rule, std::initializer_list<std::uint32_t> wanted) {
    for (const std::uint32_t address : wanted)
        if (address >= rule.low && address <= rule.high && address != 0 && is_free(address))
            return address;
    if (rule.low == 0)
        return 0;
    const auto fits = [&](std::uint32_t address) {
        return address >= rule.low && address <= rule.high && is_free(address);
    };
    const auto &unused = leases_.unused();
    const auto used_before = unused.lower_bound({1, 0});
    for (auto at = unused.begin(); at != used_before; ++at)
        if (fits(at->second))
            return at->second;
    std::uint32_t &first = never_used_.try_emplace({rule.low, rule.high}, rule.low).first->second;
    for (std::uint32_t address = first; address >= rule.low && address <= rule.high; ++address) {
        const bool used = leases_.is_leased(address) || leases_.freed(address) != 0;
        if (used && address == first)
            ++first;
        else if (!used && is_free(address))
            return address;
    }
    for (auto at = used_before; at != unused.end(); ++at)
        if (fits(at->second))
            return at->second;
    return 0;
}

void LanAddresses::set_aside(std::uint32_t address) {
    const std::uint64_t now = loop_.now_ms();
    std::erase_if(aside_until_, [now](const auto &one) { return one.second <= now; });
    aside_until_[address] = now + aside_for_ms;
}

} // namespace keel
