/*
 * Texts without what names a household's devices: each MAC address and each client identifier has a mask of its own,
 * the same one wherever and however it is written.
 */
#ifndef KEELCTL_MASKING_H
#define KEELCTL_MASKING_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace keelctl {

/* First all texts are learned, then each is masked. */
class Masking {
public:
    /* Notes the MAC addresses in a text: with colons or dashes, and in IPv6 addresses that are made of one. */
    void learn(const std::string &text);
    /* Notes a client identifier in hexadecimal, and the MAC address in one of that kind. */
    void learn_identifier(const std::string &hex);

    /* The text with masks. A MAC address is known again in lower and upper case, with and without separators, within
     * longer hexadecimal texts, there also as characters, in IPv6 addresses, and by its end in the name of an STB
     * ("zep-stb-97:5C"). Those of groups, of everybody and of nobody stay. */
    std::string masked(const std::string &text) const;

private:
    const std::string &mask_of(const std::string &mac);
    std::string masked_token(const std::string &token, char before) const;
    std::string masked_name(const std::string &token, char before) const;
    std::string masked_ipv6(std::array<std::uint8_t, 16> address, const std::string &token) const;
    std::string masked_digits(const std::string &digits) const;

    std::map<std::string, std::string> macs_; /* 12 digits, lower case -> the same of its mask */
    std::map<std::string, std::string> identifiers_;
    std::vector<std::pair<std::string, std::string>> forms_; /* of the MAC addresses within hexadecimal texts */
};

} // namespace keelctl

#endif
