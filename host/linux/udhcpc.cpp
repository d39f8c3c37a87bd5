#include "host/linux/udhcpc.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <utility>

namespace keel {

namespace {

constexpr std::size_t max_option = 510; /* hexadecimal digits: 255 bytes */
constexpr std::size_t max_long_option = 4096;

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == separator)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

bool dotted(const std::string &text, in_addr *address) {
    return inet_pton(AF_INET, text.c_str(), address) == 1;
}

std::string hex(const void *data, std::size_t size) {
    std::string text;
    char digits[3];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char *>(data)[i]);
        text += digits;
    }
    return text;
}

/* "10.0.0.1 10.0.0.2" as option data; "" when it is none. */
std::string addresses_to_hex(const std::string &text) {
    std::istringstream words(text);
    std::string all;
    for (std::string word; words >> word;) {
        in_addr address;
        if (!dotted(word, &address))
            return "";
        all += hex(&address, sizeof address);
    }
    return all;
}

/* "10.60.0.0/24 10.20.0.1 ..." as the data of option 121 (RFC 3442); "" when it is none. */
std::string routes_to_hex(const std::string &text) {
    std::istringstream words(text);
    std::string all;
    std::string destination;
    std::string router;
    while (words >> destination >> router) {
        const auto slash = destination.find('/');
        in_addr network;
        in_addr gateway;
        if (slash == std::string::npos || !dotted(destination.substr(0, slash), &network) || !dotted(router, &gateway))
            return "";
        const int width = std::atoi(destination.c_str() + slash + 1);
        if (width < 0 || width > 32)
            return "";
        const auto byte = static_cast<unsigned char>(width);
        all += hex(&byte, 1) + hex(&network, static_cast<std::size_t>(width + 7) / 8) + hex(&gateway, sizeof gateway);
    }
    return all;
}

bool contains(const std::string &line, const char *text) {
    return line.find(text) != std::string::npos;
}

} // namespace

UdhcpcReport UdhcpcReader::take(const std::string &line) {
    UdhcpcReport report;
    if (line.starts_with("@")) {
        const auto fields = split(line, '|');
        if (fields[0] != "@option")
            return take_event(fields);
        const int number = fields.size() == 3 ? std::atoi(fields[1].c_str()) : 0;
        if (number > 0 && number < 255 && !fields[2].empty() && fields[2].size() <= max_option &&
            fields[2].size() % 2 == 0 &&
            std::all_of(fields[2].begin(), fields[2].end(), [](unsigned char c) { return std::isxdigit(c); }))
            options_[number] = fields[2];
    } else if (contains(line, "broadcasting discover")) {
        report.kind = UdhcpcReport::Kind::Selecting;
    } else if (contains(line, "broadcasting select")) {
        report.kind = UdhcpcReport::Kind::Requesting;
    } else if (contains(line, "sending renew")) {
        report.kind = UdhcpcReport::Kind::Renewing;
    } else if (contains(line, "broadcasting renew")) {
        report.kind = UdhcpcReport::Kind::Rebinding;
    }
    return report;
}

UdhcpcReport UdhcpcReader::take_event(const std::vector<std::string> &fields) {
    UdhcpcReport report;
    const std::map<int, std::string> options = std::exchange(options_, {});
    if (fields[0] == "@nak")
        report.kind = UdhcpcReport::Kind::Nak;
    else if (fields[0] == "@deconfig" || fields[0] == "@leasefail")
        report.kind = UdhcpcReport::Kind::Lost;
    if ((fields[0] != "@bound" && fields[0] != "@renew") || fields.size() != 8)
        return report;
    in_addr address;
    if (!dotted(fields[1], &address) || !dotted(fields[2], &address))
        return report;
    report.kind = UdhcpcReport::Kind::Bound;
    report.lease = {fields[1], fields[2], options};
    const std::pair<int, std::string> named[] = {{42, addresses_to_hex(fields[3])},
                                                 {121, routes_to_hex(fields[4])},
                                                 {3, addresses_to_hex(fields[5])},
                                                 {6, addresses_to_hex(fields[6])},
                                                 {54, addresses_to_hex(fields[7])}};
    for (const auto &[number, value] : named)
        if (!value.empty() && value.size() <= max_long_option)
            report.lease.options[number] = value;
    return report;
}

std::vector<std::string> udhcpc_command(const UdhcpcSettings &settings) {
    std::vector<std::string> words = {settings.program, "-f", "-i", settings.interface, "-s", settings.script,
                                      /* a discover every 3 s, for ever, with another transaction after three */
                                      "-t", "3", "-T", "3", "-A", "0", "-o"};
    for (const std::string &option : settings.requested_options) {
        words.emplace_back("-O");
        words.push_back(option);
    }
    if (settings.client_id.empty()) {
        words.emplace_back("-C");
    } else {
        words.emplace_back("-x");
        words.push_back("0x3d:" + settings.client_id);
    }
    if (!settings.vendor_class.empty()) {
        words.emplace_back("-V");
        words.push_back(settings.vendor_class);
    }
    if (!settings.last_address.empty()) {
        words.emplace_back("-r");
        words.push_back(settings.last_address);
    }
    return words;
}

} // namespace keel
