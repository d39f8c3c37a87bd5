#include "host/platform/dhcp_option.h"

#include "host/base/text_forms.h"
#include "host/gateway/classless_routes.h"

namespace keel {

bool parse_dhcp_option(std::uint16_t option, const std::string &hex, variant_t *value, std::string *error) {
    if (option != option_classless_routes) {
        variant_initialize(value, variant_type_unknown);
        return variant_setChar(value, hex.c_str());
    }
    variant_initialize(value, variant_type_list);
    const auto routes = parse_classless_routes(parse_hex(hex).value_or(Bytes()), error);
    if (!routes)
        return false;
    for (const ClasslessRoute &one : *routes) {
        variant_map_t route;
        variant_map_initialize(&route);
        variant_map_addChar(&route, "Destination", format_ipv4(one.destination.address).c_str());
        variant_map_addUInt8(&route, "PrefixLength", static_cast<std::uint8_t>(one.destination.prefix));
        variant_map_addChar(&route, "Router", format_ipv4(one.router).c_str());
        variant_list_addMapCopy(variant_da_list(value), &route);
        variant_map_cleanup(&route);
    }
    return true;
}

} // namespace keel
