#include "host/gateway/classless_routes.h"

#include <algorithm>
#include <array>

namespace keel {

std::optional<std::vector<ClasslessRoute>> parse_classless_routes(const Bytes &bytes, std::string *error) {
    if (bytes.empty()) {
        *error = "no hexadecimal bytes";
        return std::nullopt;
    }
    std::vector<ClasslessRoute> routes;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::uint8_t width = bytes[at++];
        const std::size_t significant = (width + 7U) / 8U; /* bytes of the destination that are sent */
        if (width > 32 || at + significant + 4 > bytes.size()) {
            *error = width > 32 ? "a prefix is longer than 32 bits" : "it ends inside a route";
            return std::nullopt;
        }
        std::array<std::uint8_t, 4> sent{};
        std::copy_n(bytes.data() + at, significant, sent.data());
        /* some servers leave bits of the host in the last byte */
        routes.push_back(
            {{network_number(sent.data()) & mask_of(width), width}, network_number(bytes.data() + at + significant)});
        at += significant + 4;
    }
    return routes;
}

} // namespace keel
