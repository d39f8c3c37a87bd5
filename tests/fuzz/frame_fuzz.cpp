/* What packet sockets hear: UDP packets to the ports of DHCP, as they leave and as they come, and ARP. */
#include <algorithm>

#include "host/dhcp/frame.h"
#include "host/dhcp/packet.h"
#include "host/linux/wan_packets.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

void check_udp(const std::uint8_t *data, std::size_t size, std::uint16_t port) {
    const auto payload = parse_udp_packet(data, size, port);
    if (!payload)
        return;
    fuzz::require(payload->data() >= data + 28 && payload->data() + payload->size() <= data + size,
                  "a payload lies in its packet, behind both headers");
    const int fragment = (data[6] << 8 | data[7]) & 0x3fff;
    fuzz::require(data[0] >> 4 == 4 && data[9] == 17 && fragment == 0, "it is a whole UDP packet");
    fuzz::require((payload->data()[-6] << 8 | payload->data()[-5]) == port, "to that port");
    const Bytes bytes(payload->begin(), payload->end());
    const auto packet = build_udp_packet({network_number(data + 12), 68, network_number(data + 16), port}, bytes);
    fuzz::require(packet.has_value(), "what came in a packet goes into one");
    const auto again = parse_udp_packet(fuzz::bare(*packet).get(), packet->size(), port);
    fuzz::require(again.has_value(), "a packet of ours is one");
    fuzz::require(std::equal(packet->begin() + 28, packet->end(), bytes.begin(), bytes.end()), "the payload is in it");
    fuzz::require(!parse_udp_packet(packet->data(), packet->size() - 1, port), "a packet that is cut is none");
}

/* The same payload as a client's message or a server's, in a sound packet. */
void check_message(const Bytes &payload, bool leaves) {
    const auto packet = build_udp_packet({0x0a140001, 67, 0xffffffff, 68}, payload);
    const auto sent = build_udp_packet({0, 68, 0xffffffff, 67}, payload);
    const Bytes &one = leaves ? *sent : *packet;
    const auto message = read_wan_message(fuzz::bare(one).get(), one.size(), leaves);
    DhcpMessage of_client;
    DhcpAnswer of_server;
    std::string error;
    const bool known = leaves ? parse_dhcp(payload.data(), payload.size(), &of_client, &error)
                              : parse_dhcp_answer(payload.data(), payload.size(), &of_server, &error);
    fuzz::require(message.has_value() == known, "every DHCP message is seen, and nothing else");
    if (!message)
        return;
    fuzz::require(message->xid == (leaves ? of_client.xid : of_server.xid), "of the same transaction");
    fuzz::require((message->kind == WanMessage::Kind::Answer) == !leaves, "what comes is an answer");
    fuzz::require(leaves || message->server != 0, "a server that does not tell who it is is known by its address");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::size_t kind = input.below(4);
    const Bytes bytes = input.rest(size);
    const auto packet = fuzz::bare(bytes);
    if (kind < 2) {
        check_udp(packet.get(), bytes.size(), kind == 0 ? 67 : 68);
        read_wan_message(packet.get(), bytes.size(), kind == 0);
        if (const auto owner = parse_arp_answer(packet.get(), bytes.size())) {
            const Bytes probe = build_arp_probe(owner->hardware, owner->address);
            fuzz::require(probe.size() == 28 && !parse_arp_answer(probe.data(), probe.size()),
                          "a question is no answer");
        }
    } else if (bytes.size() <= 1472) {
        check_message(bytes, kind == 2);
    }
    return 0;
}
