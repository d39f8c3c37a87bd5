/* Lines of a WAN client's script, which repeat what a server of somebody else's sent. */
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/linux/udhcpc.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

using Kind = UdhcpcReport::Kind;

std::vector<std::string> parts(const std::string &line, char separator) {
    std::vector<std::string> all;
    std::istringstream stream(line);
    for (std::string one; std::getline(stream, one, separator);)
        if (separator != ' ' || !one.empty())
            all.push_back(one);
    return all;
}

/* Option 121 has a route for each pair of words, of that width and over that router. */
void check_routes(const std::string &text, const Bytes &option) {
    std::size_t at = 0;
    const auto words = parts(text, ' ');
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const unsigned width = option.at(at);
        fuzz::require(words[i].ends_with("/" + std::to_string(width)), "a route's width: " + words[i]);
        at += 1 + (width + 7) / 8;
        fuzz::require(at + 4 <= option.size() && words.at(i + 1) == format_ipv4(network_number(option.data() + at)),
                      "a route's router: " + words[i]);
        at += 4;
    }
    fuzz::require(at == option.size(), "and nothing else");
}

void check_lease(const std::vector<std::string> &fields, const WanLease &lease, const std::set<int> &told) {
    const auto address = [](const std::string &text) { return parse_ipv4(text) ? text : ""; };
    fuzz::require(lease.address == address(fields.at(1)) && lease.mask == address(fields.at(2)),
                  "address and mask are those of the line, and left out when they are none");
    for (const auto &[number, value] : lease.options) {
        fuzz::require(number > 0 && number < 255 && !value.empty() && parse_hex(value), "an option has bytes");
        const bool named = number == 3 || number == 6 || number == 42 || number == 54 || number == 121;
        fuzz::require(named || (told.contains(number) && value.size() <= 510), "an option was told before its lease");
    }
    const auto routes = lease.options.find(121);
    if (routes != lease.options.end() && !told.contains(121) &&
        fields.at(4).find_first_of("\t\v\f\r") == std::string::npos)
        check_routes(fields.at(4), *parse_hex(routes->second));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    UdhcpcReader reader;
    std::set<int> told; /* options since the last event */
    while (!input.empty()) {
        const std::string line = input.until('\n');
        const UdhcpcReport report = reader.take(line);
        const auto fields = parts(line, '|');
        fuzz::require(line.starts_with("@") || (report.kind == Kind::None && !report.dropped),
                      "a log line says nothing");
        fuzz::require(report.server.empty() || parse_ipv4(report.server), "the server is an address");
        if (report.kind == Kind::Bound)
            check_lease(fields, report.lease, told);
        else
            fuzz::require(report.lease.address.empty() && report.lease.options.empty(), "a lease has its report");
        if (!fields.empty() && fields[0] == "@option") {
            const std::string number = fields.size() > 1 ? fields[1] : "";
            const bool is_number = !number.empty() && number.find_first_not_of("0123456789") == std::string::npos;
            fuzz::require(report.dropped || is_number, "an option's number is one: " + line);
            if (!report.dropped)
                told.insert(std::stoi(number));
        } else if (line.starts_with("@")) {
            told.clear();
        }
    }
    return 0;
}
