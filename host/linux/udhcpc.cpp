#include "host/linux/udhcpc.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <utility>

#include "host/base/text_forms.h"
#include "host/model/value.h"

namespace keel {

namespace {

constexpr std::size_t max_option = 510; /* hexadecimal digits: 255 bytes */
constexpr std::size_t max_long_option = 4096;
constexpr std::size_t event_fields = 8;
constexpr unsigned listen_on_s = 120; /* longer than anybody waits before starting it anew */

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

/* A whole number of up to 255 as it is usually written; -1 for anything else. */
int number_in(const std::string &text) {
    const auto value = parse_value(Type::UInt8, text);
    return value && to_text(*value) == text ? static_cast<int>(std::get<std::int64_t>(*value)) : -1;
}

/* "10.0.0.1 10.0.0.2" as option data; nothing when it is none. */
std::optional<std::string> addresses_to_hex(const std::string &text) {
    std::istringstream words(text);
    Bytes all;
    for (std::string word; words >> word;) {
        const auto address = parse_ipv4(word);
        if (!address)
            return std::nullopt;
        const Bytes bytes = network_bytes(*address);
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    return format_hex(all);
}

/* "10.60.0.0/24 10.20.0.1 ..." as the data of option 121 (RFC 3442); nothing when it is none. */
std::optional<std::string> routes_to_hex(const std::string &text) {
    std::istringstream words(text);
    Bytes all;
    for (std::string destination; words >> destination;) {
        const auto slash = destination.find('/');
        std::string router;
        words >> router;
        const auto network = parse_ipv4(destination.substr(0, slash));
        const auto gateway = parse_ipv4(router);
        const int width = slash == std::string::npos ? -1 : number_in(destination.substr(slash + 1));
        if (!network || !gateway || width < 0 || width > 32)
            return std::nullopt;
        const Bytes to = network_bytes(*network);
        const Bytes over = network_bytes(*gateway);
        all.push_back(static_cast<std::uint8_t>(width));
        all.insert(all.end(), to.begin(), to.begin() + (width + 7) / 8);
        all.insert(all.end(), over.begin(), over.end());
    }
    return format_hex(all);
}

} // namespace

UdhcpcReport UdhcpcReader::take(const std::string &line) {
    UdhcpcReport report;
    if (!line.starts_with("@"))
        return report;
    const auto fields = split(line, '|');
    if (fields[0] != "@option")
        return take_event(fields);
    report.dropped = !take_option(fields);
    return report;
}

bool UdhcpcReader::take_option(const std::vector<std::string> &fields) {
    const int number = fields.size() == 3 ? number_in(fields[1]) : -1;
    if (number <= 0 || number >= 255 || fields[2].empty() || fields[2].size() > max_option || !parse_hex(fields[2]))
        return false;
    options_[number] = fields[2];
    return true;
}

UdhcpcReport UdhcpcReader::take_event(const std::vector<std::string> &fields) {
    static const std::map<std::string, UdhcpcReport::Kind> events = {{"@bound", UdhcpcReport::Kind::Bound},
                                                                     {"@renew", UdhcpcReport::Kind::Bound},
                                                                     {"@nak", UdhcpcReport::Kind::Nak},
                                                                     {"@deconfig", UdhcpcReport::Kind::Deconfig},
                                                                     {"@leasefail", UdhcpcReport::Kind::Leasefail}};
    UdhcpcReport report;
    const auto event = events.find(fields[0]);
    const std::map<int, std::string> options = std::exchange(options_, {});
    if (event == events.end() || fields.size() != event_fields) {
        report.dropped = true;
        return report;
    }
    report.kind = event->second;
    if (parse_ipv4(fields[7]))
        report.server = fields[7];
    if (report.kind != UdhcpcReport::Kind::Bound)
        return report;
    const auto address_text = [](const std::string &field) { return parse_ipv4(field) ? field : ""; };
    report.lease = {address_text(fields[1]), address_text(fields[2]), options};
    const std::pair<int, std::optional<std::string>> named[] = {{42, addresses_to_hex(fields[3])},
                                                                {121, routes_to_hex(fields[4])},
                                                                {3, addresses_to_hex(fields[5])},
                                                                {6, addresses_to_hex(fields[6])},
                                                                {54, addresses_to_hex(fields[7])}};
    for (const auto &[number, value] : named) {
        if (!value || value->size() > max_long_option)
            report.dropped = true;
        else if (!value->empty())
            report.lease.options[number] = *value;
    }
    return report;
}

std::vector<std::string> udhcpc_command(const UdhcpcSettings &settings) {
    std::vector<std::string> words = {settings.program,
                                      "-f",
                                      "-i",
                                      settings.interface,
                                      "-s",
                                      settings.script,
                                      "-t",
                                      "1",
                                      "-T",
                                      std::to_string(udhcpc_answer_s),
                                      "-A",
                                      std::to_string(listen_on_s),
                                      "-o"};
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
