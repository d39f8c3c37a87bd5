/*
 * Texts for bytes and addresses: hexadecimal, dotted IPv4, masks, MAC addresses. Formed and parsed here and nowhere
 * else.
 *
 * IPv4 addresses are numbers in host order; 0 stands for none.
 */
#ifndef HOST_BASE_TEXT_FORMS_H
#define HOST_BASE_TEXT_FORMS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace keel {

using Bytes = std::vector<std::uint8_t>;
using HardwareAddress = std::array<std::uint8_t, 6>;

/* Two digits a byte, lower case. */
std::string format_hex(const std::uint8_t *data, std::size_t size);
std::string format_hex(const Bytes &bytes);
/* The bytes of a hexadecimal text of either case; nothing for anything else, no bytes for an empty text. */
std::optional<Bytes> parse_hex(const std::string &hex);

/* A text that a stranger sent, for people and the data model: what is not printable ASCII is "?", what is longer is
 * cut. */
std::string printable_text(const std::string &text, std::size_t longest);

/* "192.168.1.1" */
std::string format_ipv4(std::uint32_t address);
/* Four decimal numbers with dots, nothing else around them. */
std::optional<std::uint32_t> parse_ipv4(const std::string &dotted);
/* The same, with 0 for what is no address. */
std::uint32_t ipv4_or_none(const std::string &dotted);
/* An address, or another number of 32 bits, as it stands in a packet (network order), and back; four bytes each. */
Bytes network_bytes(std::uint32_t number);
std::uint32_t network_number(const std::uint8_t *four_bytes);

/* 24 -> 255.255.255.0; what is not within 0 to 32 counts as the nearer bound. */
std::uint32_t mask_of(int prefix_length);
/* 255.255.255.0 -> 24; the number of bits set. */
int prefix_length_of(std::uint32_t mask);

/* An address and its subnet. */
struct Network {
    std::uint32_t address = 0;
    int prefix = 32;

    std::uint32_t first_host() const { return (address & mask_of(prefix)) + 1; }
    std::uint32_t last_host() const { return (address | ~mask_of(prefix)) - 1; }
    /* Whether a device of the subnet can have it: not its first or last address, which stand for the subnet. */
    bool has_host(std::uint32_t other) const { return first_host() <= other && other <= last_host(); }
};
/* "192.168.1.1/24" */
std::string format_network(const Network &network);
std::optional<Network> parse_network(const std::string &text);

/* "02:1A:2B:3C:4D:5E" */
std::string format_mac(const std::uint8_t *six_bytes);
/* Either case. */
std::optional<HardwareAddress> parse_mac(const std::string &text);
/* Those that stand in a text as words of their own, each once, in the order in which they come. */
std::vector<HardwareAddress> find_macs(const std::string &text);

} // namespace keel

#endif
