/* Received options as texts of the model: what comes out of option 121 is the routes that went in, and nothing else. */
#include <string>

#include "host/platform/dhcp_option.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

constexpr std::uint16_t classless_routes = 121;

std::uint32_t address_in(const variant_map_t *route, const char *name) {
    const char *text = variant_da_char(variant_map_iterator_data(variant_map_find(route, name)));
    const auto address = parse_ipv4(text ? text : "");
    fuzz::require(address.has_value(), std::string(name) + " is an address");
    return address.value_or(0);
}

/* The routes as bytes again, with the bits of the host that some servers leave in them cleared. */
Bytes bytes_of(const variant_t &value) {
    Bytes all;
    for (const auto *at = variant_list_first(variant_da_list(&value)); at; at = variant_list_iterator_next(at)) {
        const variant_map_t *route = variant_da_map(variant_list_iterator_data(at));
        const std::uint8_t width = variant_uint8(variant_map_iterator_data(variant_map_find(route, "PrefixLength")));
        const std::uint32_t destination = address_in(route, "Destination");
        fuzz::require(width <= 32 && (destination & ~mask_of(width)) == 0, "the destination is a network");
        const Bytes to = network_bytes(destination);
        const Bytes router = network_bytes(address_in(route, "Router"));
        all.push_back(width);
        all.insert(all.end(), to.begin(), to.begin() + (width + 7) / 8);
        all.insert(all.end(), router.begin(), router.end());
    }
    return all;
}

/* The bytes that were sent, without those bits; the text is known to be sound. */
Bytes cleared(Bytes bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const unsigned width = bytes[at];
        const std::size_t significant = (width + 7) / 8;
        if (width % 8 != 0)
            bytes[at + significant] = static_cast<std::uint8_t>(bytes[at + significant] & 0xff << (8 - width % 8));
        at += 1 + significant + 4;
    }
    return bytes;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const bool routes = input.flag();
    const bool as_bytes = input.flag(); /* else the text itself is made up */
    const Bytes sent = input.rest(size);
    const std::string text = as_bytes ? format_hex(sent) : std::string(sent.begin(), sent.end());
    const std::uint16_t option = routes ? classless_routes : 42;
    variant_t value;
    std::string error;
    if (!parse_dhcp_option(option, text, &value, &error))
        fuzz::require(routes && !error.empty(), "only routes are refused, with a reason");
    else if (!routes)
        fuzz::require(variant_da_char(&value) == text.substr(0, text.find('\0')), "any other option is its text");
    else
        fuzz::require(bytes_of(value) == cleared(parse_hex(text).value()), "the routes are those that were sent");
    variant_cleanup(&value);
    return 0;
}
