#include "keelctl/masking.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <optional>

#include "host/base/text_forms.h"

namespace keelctl {

namespace {

using Ipv6 = std::array<std::uint8_t, 16>;

constexpr std::size_t mac_digits = 12;

bool is_digit(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

/* What an address or an identifier may be made of. */
bool is_of_token(char c) {
    return is_digit(c) || c == ':' || c == '-';
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string hex_of_text(const std::string &text) {
    return keel::format_hex(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
}

/* "aabbcc..." as "aa:bb:cc..." */
std::string separated(const std::string &digits, char separator) {
    std::string text = digits.substr(0, 2);
    for (std::size_t i = 2; i < digits.size(); i += 2)
        text += separator + digits.substr(i, 2);
    return text;
}

/* The digits of a text of six bytes, each of one or two digits, with ":" or "-" between them; "" for any other. */
std::string mac_in(const std::string &token) {
    std::string digits;
    std::string byte;
    char separator = 0;
    for (const char c : token + ":") {
        if (is_digit(c)) {
            byte += c;
            continue;
        }
        const bool end = digits.size() == mac_digits - 2;
        if (byte.empty() || byte.size() > 2 || digits.size() == mac_digits || (separator && !end && c != separator))
            return "";
        separator = separator ? separator : c;
        digits += (byte.size() == 1 ? "0" : "") + lower(byte);
        byte.clear();
    }
    return digits.size() == mac_digits ? digits : "";
}

/* Of one device: no group's, and not all zero. */
bool names_a_device(const std::string &digits) {
    const auto bytes = keel::parse_hex(digits);
    return bytes && (bytes->front() & 1) == 0 && digits != std::string(mac_digits, '0');
}

std::optional<Ipv6> ipv6_in(const std::string &token) {
    Ipv6 address{};
    if (token.find(':') == std::string::npos || inet_pton(AF_INET6, token.c_str(), address.data()) != 1)
        return std::nullopt;
    return address;
}

std::string format_ipv6(const Ipv6 &address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, address.data(), text, sizeof text);
}

/* Its lower half is a MAC address, with two bytes in the middle and one bit changed. */
std::string mac_of(const Ipv6 &address) {
    if (address[11] != 0xff || address[12] != 0xfe)
        return "";
    const std::array<std::uint8_t, 6> mac = {
        static_cast<std::uint8_t>(address[8] ^ 2), address[9], address[10], address[13], address[14], address[15]};
    return keel::format_hex(mac.data(), mac.size());
}

/* The group in which an address is asked for; its last three bytes are that one's. */
bool is_solicited_group(const Ipv6 &address) {
    static const std::array<std::uint8_t, 13> prefix = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff};
    return std::equal(prefix.begin(), prefix.end(), address.begin());
}

/* Of either case. */
void replace_all(std::string &text, const std::string &lower_case, const std::string &by) {
    const std::string plain = lower(text);
    for (auto at = plain.find(lower_case); at != std::string::npos; at = plain.find(lower_case, at + by.size()))
        text.replace(at, by.size(), by);
}

/* Calls act with each stretch of characters that belong together and the character before it, and passes on the rest.
 */
template <typename Act> std::string by_token(const std::string &text, Act act) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = at;
        while (end < text.size() && is_of_token(text[end]))
            ++end;
        if (end == at) {
            out += text[at++];
            continue;
        }
        /* The punctuation of the sentence around it. */
        std::size_t first = at;
        std::size_t last = end;
        while (first < last && text[first] == '-')
            ++first;
        while (last > first && (text[last - 1] == '-' || (text[last - 1] == ':' && text.substr(last - 2, 2) != "::")))
            --last;
        out += text.substr(at, first - at);
        if (last > first)
            out += act(text.substr(first, last - first), first == 0 ? ' ' : text[first - 1]);
        out += text.substr(last, end - last);
        at = end;
    }
    return out;
}

} // namespace

/* A mask is a MAC address itself, so that the texts keep their form. */
const std::string &Masking::mask_of(const std::string &mac) {
    std::string &mask = macs_[mac];
    if (!mask.empty())
        return mask;
    char digits[mac_digits + 1];
    std::snprintf(digits, sizeof digits, "eeeeeeee%04zx", macs_.size() & 0xffff);
    mask = digits;
    forms_.emplace_back(mac, mask);
    for (const char separator : {':', '-'})
        for (const bool upper : {false, true}) {
            std::string text = separated(mac, separator);
            if (upper)
                std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
            forms_.emplace_back(hex_of_text(text), hex_of_text(separated(mask, separator)));
        }
    std::string upper = mac;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    forms_.emplace_back(hex_of_text(mac), hex_of_text(mask));
    forms_.emplace_back(hex_of_text(upper), hex_of_text(mask));
    return mask;
}

void Masking::learn(const std::string &text) {
    by_token(text, [this](const std::string &token, char) {
        std::string mac = mac_in(token);
        if (const auto address = ipv6_in(token); mac.empty() && address)
            mac = mac_of(*address);
        if (!mac.empty() && names_a_device(mac))
            mask_of(mac);
        return token;
    });
}

void Masking::learn_identifier(const std::string &hex) {
    const std::string known = lower(hex);
    const bool ethernet = known.size() == mac_digits + 2 && known.starts_with("01");
    if (ethernet && names_a_device(known.substr(2)))
        mask_of(known.substr(2));
    else if (known.size() > 4 && !identifiers_.contains(known)) {
        /* As long as it was, so that what is cut elsewhere is cut alike. */
        char digits[16];
        std::snprintf(digits, sizeof digits, "%04zx", (identifiers_.size() + 1) & 0xffff);
        std::string mask = digits;
        mask.insert(0, std::max(known.size(), std::size_t{4}) - 4, 'e');
        identifiers_[known] = mask;
    }
}

std::string Masking::masked(const std::string &text) const {
    return by_token(text, [this](const std::string &token, char before) { return masked_token(token, before); });
}

std::string Masking::masked_token(const std::string &token, char before) const {
    if (const auto identifier = identifiers_.find(lower(token)); identifier != identifiers_.end())
        return identifier->second;
    if (const std::string mac = mac_in(token); !mac.empty()) {
        const auto known = macs_.find(mac);
        return known == macs_.end() ? token
                                    : separated(known->second, token.find('-') == std::string::npos ? ':' : '-');
    }
    if (const auto address = ipv6_in(token))
        return masked_ipv6(*address, token);
    if (token.size() < mac_digits)
        return masked_name(token, before);
    /* Several things in a row: addresses with something before or behind them, and what stands between separators. */
    std::string row = token;
    for (const auto &[mac, mask] : macs_)
        for (const char separator : {':', '-'})
            replace_all(row, separated(mac, separator), separated(mask, separator));
    std::string out;
    for (std::size_t at = 0; at < row.size();) {
        const std::size_t end = std::min(row.find_first_of(":-", at), row.size());
        out += masked_digits(row.substr(at, end - at));
        if (end < row.size())
            out += row[end];
        at = end + 1;
    }
    return out;
}

/* The end of an STB's name, from the last letters before it on that an address could have: of "zep-stb-97:5C" it is
 * "b-97:5C", of "iptv-97:5C" only "97:5C". */
std::string Masking::masked_name(const std::string &token, char before) const {
    constexpr std::size_t end_size = 5;
    const std::size_t at = token.size() < end_size ? 0 : token.size() - end_size;
    const std::string end = lower(token.substr(at));
    if (end.size() != end_size || end[2] != ':' || (at == 0 ? before : token[at - 1]) != '-')
        return token;
    for (const auto &[mac, mask] : macs_)
        if (separated(mac, ':').ends_with(end))
            return token.substr(0, at) + separated(mask.substr(mac_digits - 4), ':');
    return token;
}

std::string Masking::masked_ipv6(std::array<std::uint8_t, 16> address, const std::string &token) const {
    const auto mask = [&](const std::string &digits) { return *keel::parse_hex(digits); };
    if (const auto known = macs_.find(mac_of(address)); known != macs_.end()) {
        const keel::Bytes bytes = mask(known->second);
        address[8] = bytes[0] ^ 2;
        std::copy_n(bytes.begin() + 1, 2, address.begin() + 9);
        std::copy_n(bytes.begin() + 3, 3, address.begin() + 13);
        return format_ipv6(address);
    }
    if (is_solicited_group(address)) {
        const std::string last = keel::format_hex(address.data() + 13, 3);
        const auto known =
            std::find_if(macs_.begin(), macs_.end(), [&](const auto &one) { return one.first.ends_with(last); });
        if (known != macs_.end()) {
            std::copy_n(mask(known->second).begin() + 3, 3, address.begin() + 13);
            return format_ipv6(address);
        }
    }
    return token;
}

std::string Masking::masked_digits(const std::string &digits) const {
    if (digits.size() < mac_digits)
        return digits;
    if (const auto identifier = identifiers_.find(lower(digits)); identifier != identifiers_.end())
        return identifier->second;
    std::string out = digits;
    for (const auto &[identifier, mask] : identifiers_) /* within an option's value */
        replace_all(out, identifier, mask);
    for (const auto &[form, mask] : forms_)
        replace_all(out, form, mask);
    return out;
}

} // namespace keelctl
