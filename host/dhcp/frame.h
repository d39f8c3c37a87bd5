/*
 * UDP over IPv4, and ARP, as a packet socket takes and brings them: the packet without the link's header.
 */
#ifndef HOST_DHCP_FRAME_H
#define HOST_DHCP_FRAME_H

#include <cstdint>
#include <optional>
#include <span>

#include "host/base/text_forms.h"

namespace keel {

struct UdpEnds {
    std::uint32_t source = 0; /* addresses in host order */
    std::uint16_t source_port = 0;
    std::uint32_t destination = 0;
    std::uint16_t destination_port = 0;
};

/* What a packet brings to that port, a view into it; nothing for a fragment, another protocol or port, a damaged
 * header, or lengths that do not fit. The UDP checksum is not looked at: of a sender on this machine it is not formed
 * yet. */
std::optional<std::span<const std::uint8_t>> parse_udp_packet(const std::uint8_t *data, std::size_t size,
                                                              std::uint16_t port);
/* The packet with that payload, checksums included; nothing for a payload that is too long for one. */
std::optional<Bytes> build_udp_packet(const UdpEnds &ends, const Bytes &payload);

/* Who has an IPv4 address. */
struct ArpOwner {
    std::uint32_t address = 0; /* host order */
    HardwareAddress hardware{};
};

/* The question who has the address, from somebody who has none himself yet (RFC 5227, ARP probe); to all. */
Bytes build_arp_probe(const HardwareAddress &from, std::uint32_t address);
/* What an answer to such a question tells; nothing for any other packet. */
std::optional<ArpOwner> parse_arp_answer(const std::uint8_t *data, std::size_t size);

} // namespace keel

#endif
