#include "host/dhcp/frame.h"

#include <algorithm>
#include <array>

namespace keel {

namespace {

constexpr std::size_t ip_header = 20; /* without options */
constexpr std::size_t udp_header = 8;
constexpr std::size_t longest_packet = 0xffff;
constexpr std::uint8_t version_4 = 4;
constexpr std::uint8_t protocol_udp = 17;
constexpr std::uint8_t time_to_live = 64;
constexpr std::uint32_t dont_fragment = 0x4000;
constexpr std::uint32_t fragment = 0x3fff;                                    /* "more fragments", and the offset */
constexpr std::array<std::uint8_t, 6> arp_over_ethernet = {0, 1, 8, 0, 6, 4}; /* for IPv4; sizes of both addresses */
constexpr std::uint32_t arp_request = 1;
constexpr std::uint32_t arp_reply = 2;

/* Where the fields of an ARP packet begin. */
enum : std::size_t {
    at_arp_operation = 6,
    at_arp_sender_hardware = 8,
    at_arp_sender_address = 14,
    at_arp_target_address = 24,
    arp_size = 28
};

std::uint16_t number_at(const std::uint8_t *bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void append_pair(Bytes *bytes, std::size_t high, std::size_t low) {
    const Bytes four = network_bytes(static_cast<std::uint32_t>(high << 16 | low));
    bytes->insert(bytes->end(), four.begin(), four.end());
}

void append_address(Bytes *bytes, std::uint32_t address) {
    append_pair(bytes, address >> 16, address & 0xffff);
}

/* The sum of 16-bit words that IP and UDP use (RFC 1071); an odd last byte counts as the high one. */
std::uint16_t checksum(const std::uint8_t *data, std::size_t size) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < size; ++i)
        sum += i % 2 == 0 ? std::uint64_t{data[i]} << 8 : data[i];
    while (sum > 0xffff)
        sum = (sum >> 16) + (sum & 0xffff);
    return static_cast<std::uint16_t>(~sum);
}

void put_checksum(Bytes *bytes, std::size_t at, std::uint16_t value) {
    (*bytes)[at] = static_cast<std::uint8_t>(value >> 8);
    (*bytes)[at + 1] = static_cast<std::uint8_t>(value);
}

/* Over a header of addresses, protocol and length as well. */
std::uint16_t udp_checksum(const UdpEnds &ends, const Bytes &datagram) {
    Bytes covered;
    append_address(&covered, ends.source);
    append_address(&covered, ends.destination);
    append_pair(&covered, protocol_udp, datagram.size());
    covered.insert(covered.end(), datagram.begin(), datagram.end());
    const std::uint16_t sum = checksum(covered.data(), covered.size());
    return sum == 0 ? 0xffff : sum; /* 0 would say that there is none */
}

} // namespace

std::optional<std::span<const std::uint8_t>> parse_udp_packet(const std::uint8_t *data, std::size_t size,
                                                              std::uint16_t port) {
    if (size < ip_header || data[0] >> 4 != version_4)
        return std::nullopt;
    const std::size_t header = static_cast<std::size_t>(data[0] & 0x0f) * 4;
    const std::size_t total = number_at(data + 2); /* what follows it fills up the frame */
    if (header < ip_header || total > size || total < header + udp_header || checksum(data, header) != 0)
        return std::nullopt;
    if ((number_at(data + 6) & fragment) || data[9] != protocol_udp)
        return std::nullopt;
    const std::uint8_t *udp = data + header;
    const std::size_t told = number_at(udp + 4);
    if (number_at(udp + 2) != port || told < udp_header || told > total - header)
        return std::nullopt;
    return std::span(udp + udp_header, told - udp_header);
}

std::optional<Bytes> build_udp_packet(const UdpEnds &ends, const Bytes &payload) {
    if (payload.size() > longest_packet - ip_header - udp_header)
        return std::nullopt;
    Bytes datagram;
    append_pair(&datagram, ends.source_port, ends.destination_port);
    append_pair(&datagram, udp_header + payload.size(), 0);
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    put_checksum(&datagram, 6, udp_checksum(ends, datagram));

    Bytes packet;
    append_pair(&packet, version_4 << 12 | ip_header / 4 << 8, ip_header + datagram.size());
    append_pair(&packet, 0, dont_fragment);
    append_pair(&packet, time_to_live << 8 | protocol_udp, 0);
    append_address(&packet, ends.source);
    append_address(&packet, ends.destination);
    put_checksum(&packet, 10, checksum(packet.data(), packet.size()));
    packet.insert(packet.end(), datagram.begin(), datagram.end());
    return packet;
}

Bytes build_arp_probe(const HardwareAddress &from, std::uint32_t address) {
    Bytes packet(arp_over_ethernet.begin(), arp_over_ethernet.end());
    packet.push_back(0);
    packet.push_back(arp_request);
    packet.insert(packet.end(), from.begin(), from.end());
    packet.resize(at_arp_target_address); /* no address of the sender's, and who is asked for is not known */
    append_address(&packet, address);
    return packet;
}

/* To a question without a sender's address the answer has none of its target's. */
std::optional<ArpOwner> parse_arp_answer(const std::uint8_t *data, std::size_t size) {
    if (size < arp_size || !std::equal(arp_over_ethernet.begin(), arp_over_ethernet.end(), data) ||
        number_at(data + at_arp_operation) != arp_reply || network_number(data + at_arp_target_address) != 0)
        return std::nullopt;
    ArpOwner owner{network_number(data + at_arp_sender_address), {}};
    std::copy_n(data + at_arp_sender_hardware, owner.hardware.size(), owner.hardware.begin());
    return owner;
}

} // namespace keel
