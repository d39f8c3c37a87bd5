#include "host/dhcp/packet.h"

#include <arpa/inet.h>
#include <tins/dhcp.h>

#include <algorithm>
#include <exception>

namespace keel {

namespace {

constexpr std::size_t minimum_size = 300;
constexpr std::size_t smallest_message = 240; /* the fixed fields and the cookie */
constexpr std::uint8_t ethernet = 1;
constexpr std::uint8_t boot_request = 1;
constexpr std::uint8_t boot_reply = 2;
constexpr std::uint16_t broadcast_flag = 0x8000;

std::uint32_t host_order(const Tins::IPv4Address &address) {
    return ntohl(static_cast<std::uint32_t>(address));
}

Tins::IPv4Address tins_address(std::uint32_t address) {
    return Tins::IPv4Address(htonl(address));
}

Bytes option_of(const Tins::DHCP &packet, Tins::DHCP::OptionTypes number) {
    const auto *option = packet.search_option(number);
    return option ? Bytes(option->data_ptr(), option->data_ptr() + option->data_size()) : Bytes();
}

/* 0 for what is no address. */
std::uint32_t address_of(const Bytes &bytes) {
    return bytes.size() == 4 ? network_number(bytes.data()) : 0;
}

} // namespace

bool parse_dhcp(const std::uint8_t *data, std::size_t size, DhcpMessage *message, std::string *error) {
    if (size < smallest_message) {
        *error = "too short";
        return false;
    }
    try {
        const Tins::DHCP packet(data, static_cast<std::uint32_t>(size));
        if (packet.opcode() != boot_request || packet.htype() != ethernet || packet.hlen() != 6) {
            *error = "no request over Ethernet";
            return false;
        }
        const Bytes type = option_of(packet, Tins::DHCP::DHCP_MESSAGE_TYPE);
        if (type.size() != 1 || type[0] < 1 || type[0] > 8) {
            *error = "no message type";
            return false;
        }
        *message = {};
        message->type = static_cast<DhcpType>(type[0]);
        message->xid = packet.xid();
        message->broadcast = (packet.padding() & broadcast_flag) != 0;
        message->client_address = host_order(packet.ciaddr());
        message->relay = host_order(packet.giaddr());
        const auto hardware = packet.chaddr();
        std::copy_n(hardware.begin(), message->hardware.size(), message->hardware.begin());
        message->client_id = option_of(packet, Tins::DHCP::DHCP_CLIENT_IDENTIFIER);
        const Bytes vendor = option_of(packet, Tins::DHCP::VENDOR_CLASS_IDENTIFIER);
        message->vendor_class.assign(vendor.begin(), vendor.end());
        message->requested_address = address_of(option_of(packet, Tins::DHCP::DHCP_REQUESTED_ADDRESS));
        message->server_id = address_of(option_of(packet, Tins::DHCP::DHCP_SERVER_IDENTIFIER));
    } catch (const std::exception &) {
        *error = "malformed";
        return false;
    }
    if (std::all_of(message->hardware.begin(), message->hardware.end(), [](std::uint8_t b) { return b == 0; }) ||
        (message->hardware[0] & 1)) {
        *error = "no unicast hardware address";
        return false;
    }
    return true;
}

Bytes build_dhcp_reply(const DhcpMessage &request, const DhcpReply &reply) {
    Tins::DHCP packet;
    packet.opcode(boot_reply);
    packet.htype(ethernet);
    packet.hlen(6);
    packet.xid(request.xid);
    packet.padding(request.broadcast ? broadcast_flag : 0);
    if (reply.type == DhcpType::Ack)
        packet.ciaddr(tins_address(request.client_address));
    packet.yiaddr(tins_address(reply.your_address));
    packet.giaddr(tins_address(request.relay));
    packet.chaddr(Tins::HWAddress<6>(request.hardware.data()));
    packet.type(static_cast<Tins::DHCP::Flags>(reply.type));
    packet.server_identifier(tins_address(reply.server));
    for (const auto &[number, data] : reply.options)
        packet.add_option({number, data.begin(), data.end()});
    packet.end();
    Bytes bytes = packet.serialize();
    if (bytes.size() < minimum_size)
        bytes.resize(minimum_size);
    return bytes;
}

} // namespace keel
