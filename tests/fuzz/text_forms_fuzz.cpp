/* Texts for addresses, bytes and values: what is taken is the text that would be formed again, but for its case. */
#include <algorithm>
#include <cctype>
#include <string>

#include "host/model/value.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return text;
}

/* A number as it is, but for a sign and zeros in front. */
std::string plain(const std::string &text) {
    const bool minus = text.starts_with("-");
    const std::size_t digits = text.find_first_not_of('0', minus || text.starts_with("+") ? 1 : 0);
    if (digits == std::string::npos)
        return "0";
    return (minus ? "-" : "") + text.substr(digits);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto type = static_cast<Type>(input.below(7));
    const Bytes rest = input.rest(size);
    const std::string text(rest.begin(), rest.end());

    if (const auto address = parse_ipv4(text))
        fuzz::require(format_ipv4(*address) == text, "an address");
    if (const auto network = parse_network(text)) {
        const auto slash = text.find('/');
        fuzz::require(format_network(*network) == text.substr(0, slash + 1) + plain(text.substr(slash + 1)),
                      "a network");
        fuzz::require(network->prefix <= 32, "a prefix fits an address");
    }
    if (const auto hardware = parse_mac(text))
        fuzz::require(lower(format_mac(hardware->data())) == lower(text), "a MAC address");
    if (const auto bytes = parse_hex(text))
        fuzz::require(format_hex(*bytes) == lower(text), "hexadecimal bytes");
    const std::string shown = printable_text(text, 20);
    fuzz::require(shown.size() == std::min<std::size_t>(text.size(), 20) && printable_text(shown, 20) == shown,
                  "what is shown is shown the same again");

    const auto value = parse_value(type, text);
    if (!value)
        return 0;
    fuzz::require(misfit(type, *value).empty(), "a value fits its type");
    fuzz::require(parse_value(type, to_text(*value)) == value, "a value's text is that value");
    if (type != Type::Text && type != Type::Bool)
        fuzz::require(to_text(*value) == plain(text), "a number");
    return 0;
}
