#include "host/platform/dhcp_option.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <vector>

namespace keel {

namespace {

constexpr std::uint16_t classless_static_routes = 121;

int digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool bytes_of(const std::string &hex, std::vector<std::uint8_t> *bytes) {
    if (hex.size() % 2 != 0)
        return false;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = digit(hex[i]);
        const int low = digit(hex[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes->push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return true;
}

std::string dotted(const std::array<std::uint8_t, 4> &address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, address.data(), text, sizeof text);
}

} // namespace

bool parse_dhcp_option(std::uint16_t option, const std::string &hex, variant_t *value, std::string *error) {
    if (option != classless_static_routes) {
        variant_initialize(value, variant_type_unknown);
        return variant_setChar(value, hex.c_str());
    }
    variant_initialize(value, variant_type_list);
    std::vector<std::uint8_t> bytes;
    if (!bytes_of(hex, &bytes) || bytes.empty()) {
        *error = "no hexadecimal bytes";
        return false;
    }
    for (std::size_t at = 0; at < bytes.size();) {
        const std::uint8_t width = bytes[at++];
        const std::size_t significant = (width + 7U) / 8U; /* bytes of the destination that are sent */
        if (width > 32 || at + significant + 4 > bytes.size()) {
            *error = width > 32 ? "a prefix is longer than 32 bits" : "it ends inside a route";
            return false;
        }
        std::array<std::uint8_t, 4> destination{};
        std::array<std::uint8_t, 4> router{};
        std::memcpy(destination.data(), &bytes[at], significant);
        if (width % 8 != 0) /* some servers leave bits of the host in the last byte */
            destination[significant - 1] &= static_cast<std::uint8_t>(0xff00U >> (width % 8));
        std::memcpy(router.data(), &bytes[at + significant], 4);
        at += significant + 4;
        variant_map_t route;
        variant_map_initialize(&route);
        variant_map_addChar(&route, "Destination", dotted(destination).c_str());
        variant_map_addUInt8(&route, "PrefixLength", width);
        variant_map_addChar(&route, "Router", dotted(router).c_str());
        variant_list_addMapCopy(variant_da_list(value), &route);
        variant_map_cleanup(&route);
    }
    return true;
}

} // namespace keel
