#include "host/linux/udhcpc.h"

#include <cstdlib>
#include <sstream>
#include <utility>

#include "host/base/text_forms.h"

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

/* "10.0.0.1 10.0.0.2" as option data; "" when it is none. */
std::string addresses_to_hex(const std::string &text) {
    std::istringstream words(text);
    std::string all;
    for (std::string word; words >> word;) {
        const auto address = parse_ipv4(word);
        if (!address)
            return "";
        all += format_hex(network_bytes(*address));
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
        const auto network = parse_ipv4(destination.substr(0, slash));
        const auto gateway = parse_ipv4(router);
        if (slash == std::string::npos || !network || !gateway)
            return "";
        const int width = std::atoi(destination.c_str() + slash + 1);
        if (width < 0 || width > 32)
            return "";
        Bytes route = network_bytes(*network);
        route.resize(static_cast<std::size_t>(width + 7) / 8); /* no more bytes than the prefix has */
        route.insert(route.begin(), static_cast<std::uint8_t>(width));
        all += format_hex(route) + format_hex(network_bytes(*gateway));
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
        if (number > 0 && number < 255 && !fields[2].empty() && fields[2].size() <= max_option && parse_hex(fields[2]))
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
    if (!parse_ipv4(fields[1]) || !parse_ipv4(fields[2]))
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
