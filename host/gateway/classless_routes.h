/*
 * The routes that a DHCP server sends with a lease: option 121, RFC 3442.
 */
#ifndef HOST_GATEWAY_CLASSLESS_ROUTES_H
#define HOST_GATEWAY_CLASSLESS_ROUTES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/text_forms.h"

namespace keel {

constexpr int option_classless_routes = 121;

struct ClasslessRoute {
    Network destination; /* its address is the network's own */
    std::uint32_t router = 0;
};

/* The routes in the order in which they were sent; nothing, with the reason in *error, when the bytes are none. */
std::optional<std::vector<ClasslessRoute>> parse_classless_routes(const Bytes &bytes, std::string *error);

} // namespace keel

#endif
