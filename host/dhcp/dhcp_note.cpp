#include "host/dhcp/dhcp_note.h"

#include <iterator>

#include "host/dhcp/packet.h"

namespace keel {

namespace {

constexpr std::size_t at_client_address = 12;
constexpr std::size_t at_given_address = 16;
constexpr std::size_t at_options = 240;
enum : std::uint8_t { option_requested = 50, option_type = 53 };

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
    const std::uint8_t *const options = message.data() + at_options;
    const std::uint8_t *end = options; /* without the padding behind them */
    for_each_option(options, message.size() - at_options,
                    [&](std::uint8_t number, const std::uint8_t *value, std::size_t length) {
                        if (number == option_type && length == 1)
                            type = type_name(*value);
                        if (number == option_requested && length == 4)
                            requested = network_number(value);
                        end = value + length;
                    });
    if (!type)
        return;
    std::uint32_t address = network_number(&message[at_given_address]);
    address = address ? address : requested ? requested : network_number(&message[at_client_address]);
    Timeline::instance().note(side, who, type, address ? format_ipv4(address) : "", Bytes(options, end));
}

} // namespace keel
