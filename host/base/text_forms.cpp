#include "host/base/text_forms.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cctype>

namespace keel {

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/* -1 when the two characters are no byte. */
int byte_at(const std::string &text, std::size_t at) {
    const int high = digit(text[at]);
    const int low = digit(text[at + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

void append_byte(std::string &text, std::uint8_t byte, const char *digits) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
}

} // namespace

std::string format_hex(const std::uint8_t *data, std::size_t size) {
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i)
        append_byte(text, data[i], "0123456789abcdef");
    return text;
}

std::string format_hex(const Bytes &bytes) {
    return format_hex(bytes.data(), bytes.size());
}

std::optional<Bytes> parse_hex(const std::string &hex) {
    if (hex.size() % 2 != 0)
        return std::nullopt;
    Bytes bytes;
    bytes.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int byte = byte_at(hex, i);
        if (byte < 0)
            return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    return bytes;
}

std::string printable_text(const std::string &text, std::size_t longest) {
    std::string shown = text.substr(0, longest);
    for (char &c : shown)
        if (c < ' ' || c > '~')
            c = '?';
    return shown;
}

std::string format_ipv4(std::uint32_t address) {
    char text[INET_ADDRSTRLEN];
    const in_addr network{htonl(address)};
    return inet_ntop(AF_INET, &network, text, sizeof text);
}

std::optional<std::uint32_t> parse_ipv4(const std::string &dotted) {
    in_addr address{};
    if (dotted.find('\0') != std::string::npos || inet_pton(AF_INET, dotted.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::uint32_t ipv4_or_none(const std::string &dotted) {
    return parse_ipv4(dotted).value_or(0);
}

Bytes network_bytes(std::uint32_t number) {
    return {static_cast<std::uint8_t>(number >> 24), static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

std::uint32_t network_number(const std::uint8_t *four_bytes) {
    return std::uint32_t{four_bytes[0]} << 24 | std::uint32_t{four_bytes[1]} << 16 | std::uint32_t{four_bytes[2]} << 8 |
           four_bytes[3];
}

std::uint32_t mask_of(int prefix_length) {
    const int length = std::clamp(prefix_length, 0, 32);
    return length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
}

int prefix_length_of(std::uint32_t mask) {
    return std::popcount(mask);
}

std::string format_network(const Network &network) {
    return format_ipv4(network.address) + "/" + std::to_string(network.prefix);
}

std::optional<Network> parse_network(const std::string &text) {
    const auto slash = text.find('/');
    const auto address = parse_ipv4(text.substr(0, slash));
    if (!address || slash == std::string::npos)
        return std::nullopt;
    const std::string number = text.substr(slash + 1);
    if (number.empty() || number.size() > 2 || number.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const int prefix = std::stoi(number);
    return prefix <= 32 ? std::optional(Network{*address, prefix}) : std::nullopt;
}

std::string format_mac(const std::uint8_t *six_bytes) {
    std::string text;
    for (int i = 0; i < 6; ++i) {
        if (i)
            text += ':';
        append_byte(text, six_bytes[i], "0123456789ABCDEF");
    }
    return text;
}

std::optional<HardwareAddress> parse_mac(const std::string &text) {
    HardwareAddress address{};
    if (text.size() != 17)
        return std::nullopt;
    for (std::size_t i = 0; i < address.size(); ++i) {
        const int byte = byte_at(text, 3 * i);
        if (byte < 0 || (i > 0 && text[3 * i - 1] != ':'))
            return std::nullopt;
        address[i] = static_cast<std::uint8_t>(byte);
    }
    return address;
}

std::vector<HardwareAddress> find_macs(const std::string &text) {
    constexpr std::size_t size = 17;
    const auto is_one = [&](std::size_t at, int (*kind)(int)) {
        return at < text.size() && kind(static_cast<unsigned char>(text[at])) != 0; /* before the first is none, too */
    };
    std::vector<HardwareAddress> found;
    for (std::size_t start = 0; start + size <= text.size(); ++start) {
        const std::size_t end = start + size;
        /* A colon behind it belongs to the sentence, unless it goes on in hexadecimal. */
        const bool longer = is_one(start - 1, std::isalnum) || (start > 0 && text[start - 1] == ':') ||
                            is_one(end, std::isalnum) ||
                            (end < text.size() && text[end] == ':' && is_one(end + 1, std::isxdigit));
        const auto address = text[start + 2] == ':' && !longer ? parse_mac(text.substr(start, size)) : std::nullopt;
        if (address && std::find(found.begin(), found.end(), *address) == found.end())
            found.push_back(*address);
    }
    return found;
}

} // namespace keel
