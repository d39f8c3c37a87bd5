/*
 * DHCP messages (RFC 2131, RFC 2132): bytes become a plain record at the door, or are dropped there with a reason.
 */
#ifndef HOST_DHCP_PACKET_H
#define HOST_DHCP_PACKET_H

#include <cstdint>
#include <map>
#include <string>

#include "host/base/text_forms.h"

namespace keel {

enum class DhcpType : std::uint8_t {
    Discover = 1,
    Offer = 2,
    Request = 3,
    Decline = 4,
    Ack = 5,
    Nak = 6,
    Release = 7,
    Inform = 8
};

/* What the server reads of a client's message. */
struct DhcpMessage {
    DhcpType type = DhcpType::Discover;
    std::uint32_t xid = 0;
    bool broadcast = false;
    std::uint32_t client_address = 0; /* ciaddr */
    std::uint32_t relay = 0;          /* giaddr */
    HardwareAddress hardware{};
    Bytes client_id;       /* option 61, may be empty */
    Bytes relay_agent;     /* option 82 (RFC 3046), may be empty */
    Bytes wanted_options;  /* option 55: their numbers */
    std::string host_name; /* as it came: any bytes; likewise the next */
    std::string vendor_class;
    std::uint32_t requested_address = 0;
    std::uint32_t server_id = 0;
    std::uint32_t lease_time = 0; /* s; 0: it leaves it to the server */
};

/* What the server answers. The options go in the order of their numbers after 53 and 54, which are formed from the
 * other fields and not taken from here. Nor are 61 and 82, which come last: the request's own go back (RFC 6842, RFC
 * 3046). */
struct DhcpReply {
    DhcpType type = DhcpType::Offer;
    std::uint32_t your_address = 0; /* yiaddr */
    std::uint32_t server = 0;
    std::map<std::uint8_t, Bytes> options; /* values of any length */
};

/* False with the reason in *error for anything but a whole client's message over Ethernet; *message is set only on
 * success. Options that are split (RFC 3396) or stand in the fields for file and server name (option 52) are read as
 * well. */
bool parse_dhcp(const std::uint8_t *data, std::size_t size, DhcpMessage *message, std::string *error);
/* What a client learns of a server's message. */
struct DhcpAnswer {
    DhcpType type = DhcpType::Offer; /* or Ack, or Nak */
    std::uint32_t xid = 0;
    std::uint32_t server_id = 0; /* 0: it does not tell */
};

/* The same for a server's message; *answer is set only on success. */
bool parse_dhcp_answer(const std::uint8_t *data, std::size_t size, DhcpAnswer *answer, std::string *error);
/* Calls take(number, value, size) for each option of a field, up to its end mark, as they stand: one of several pieces
 * comes in pieces. False when one reaches over the field's end; a missing end mark is forgiven. */
template <typename Take> bool for_each_option(const std::uint8_t *data, std::size_t size, Take take) {
    enum : std::uint8_t { padding = 0, end_mark = 255 };
    for (std::size_t at = 0; at < size && data[at] != end_mark;) {
        if (data[at] == padding) {
            ++at;
            continue;
        }
        if (size - at < 2 || size - at - 2 < data[at + 1])
            return false;
        const std::size_t length = data[at + 1];
        take(data[at], data + at + 2, length);
        at += 2 + length;
    }
    return true;
}

/* The reply to a client's message, at least 300 bytes long (RFC 1542); options of more than 255 bytes are split. */
Bytes build_dhcp_reply(const DhcpMessage &request, const DhcpReply &reply);

} // namespace keel

#endif
