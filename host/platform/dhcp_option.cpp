#include "host/platform/dhcp_option.h"

#include <algorithm>
#include <array>

#include "host/base/text_forms.h"

namespace keel {

namespace {

constexpr std::uint16_t classless_static_routes = 121;

} // namespace

bool parse_dhcp_option(std::uint16_t option, const std::string &hex, variant_t *value, std::string *error) {
    if (option != classless_static_routes) {
        variant_initialize(value, variant_type_unknown);
        return variant_setChar(value, hex.c_str());
    }
    variant_initialize(value, variant_type_list);
    const Bytes bytes = parse_hex(hex).value_or(Bytes());
    if (bytes.empty()) {
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
        std::array<std::uint8_t, 4> sent{};
        std::copy_n(bytes.data() + at, significant, sent.data());
        /* some servers leave bits of the host in the last byte */
        const std::uint32_t destination = network_number(sent.data()) & mask_of(width);
        const std::uint32_t router = network_number(bytes.data() + at + significant);
        at += significant + 4;
        variant_map_t route;
        variant_map_initialize(&route);
        variant_map_addChar(&route, "Destination", format_ipv4(destination).c_str());
        variant_map_addUInt8(&route, "PrefixLength", width);
        variant_map_addChar(&route, "Router", format_ipv4(router).c_str());
        variant_list_addMapCopy(variant_da_list(value), &route);
        variant_map_cleanup(&route);
    }
    return true;
}

} // namespace keel
