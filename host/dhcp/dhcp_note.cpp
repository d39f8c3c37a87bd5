#include "host/dhcp/dhcp_note.h"

#include <iterator>

namespace keel {

namespace {

constexpr std::size_t at_client_address = 12;
constexpr std::size_t at_given_address = 16;
constexpr std::size_t at_options = 240;
enum : std::uint8_t { padding = 0, option_requested = 50, option_type = 53, end_of_options = 255 };

const char *type_name(std::uint8_t type) {
    static const char *const names[] = {"DISCOVER", "OFFER", "REQUEST", "DECLINE", "ACK", "NAK", "RELEASE", "INFORM"};
    return type >= 1 && type <= std::size(names) ? names[type - 1] : nullptr;
}

} // namespace

void note_dhcp(TimelineEvent::Kind side, const std::string &who, const Bytes &message) {
    if (message.size() < at_options)
        return;
    const char *type = nullptr;
    std::uint32_t requested = 0;
    std::size_t at = at_options;
    while (at + 1 < message.size() && message[at] != end_of_options) {
        if (message[at] == padding) {
            ++at;
            continue;
        }
        const std::size_t length = message[at + 1];
        if (at + 2 + length > message.size())
            break;
        if (message[at] == option_type && length == 1)
            type = type_name(message[at + 2]);
        if (message[at] == option_requested && length == 4)
            requested = network_number(&message[at + 2]);
        at += 2 + length;
    }
    if (!type)
        return;
    std::uint32_t address = network_number(&message[at_given_address]);
    address = address ? address : requested ? requested : network_number(&message[at_client_address]);
    Timeline::instance().note(side, who, type, address ? format_ipv4(address) : "",
                              Bytes(&message[at_options], message.data() + at));
}

} // namespace keel
