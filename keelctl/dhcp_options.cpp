#include "keelctl/dhcp_options.h"

#include <algorithm>
#include <iterator>

#include "host/base/text_forms.h"

namespace keelctl {

namespace {

enum class Form { Hex, Text, Addresses, Seconds, Numbers };

struct Option {
    int number;
    const char *name;
    Form form;
};

const Option known[] = {{1, "subnet mask", Form::Addresses},
                        {3, "router", Form::Addresses},
                        {6, "name servers", Form::Addresses},
                        {12, "host name", Form::Text},
                        {15, "domain", Form::Text},
                        {28, "broadcast address", Form::Addresses},
                        {42, "NTP servers", Form::Addresses},
                        {43, "vendor's own", Form::Hex},
                        {50, "requested address", Form::Addresses},
                        {51, "lease time", Form::Seconds},
                        {53, "message type", Form::Numbers},
                        {54, "server", Form::Addresses},
                        {55, "wanted options", Form::Numbers},
                        {56, "message", Form::Text},
                        {57, "largest message", Form::Hex},
                        {58, "renewal after", Form::Seconds},
                        {59, "rebinding after", Form::Seconds},
                        {60, "vendor class", Form::Text},
                        {61, "client identifier", Form::Hex},
                        {72, "WWW servers", Form::Addresses},
                        {82, "relay's own", Form::Hex},
                        {121, "classless routes", Form::Hex}};

std::string value_of(const std::uint8_t *data, std::size_t size, Form form) {
    std::string text;
    const auto add = [&](const std::string &one) { text += (text.empty() ? "" : ", ") + one; };
    switch (form) {
    case Form::Text:
        return keel::printable_text(std::string(data, data + size), size);
    case Form::Addresses:
        for (std::size_t i = 0; i + 4 <= size; i += 4)
            add(keel::format_ipv4(keel::network_number(data + i)));
        return text;
    case Form::Seconds:
        return size == 4 ? std::to_string(keel::network_number(data)) + " s" : keel::format_hex(data, size);
    case Form::Numbers:
        for (std::size_t i = 0; i < size; ++i)
            add(std::to_string(data[i]));
        return text;
    default:
        return keel::format_hex(data, size);
    }
}

} // namespace

std::string describe_options(const std::string &hex) {
    constexpr std::uint8_t padding = 0;
    const keel::Bytes bytes = keel::parse_hex(hex).value_or(keel::Bytes());
    std::string lines;
    for (std::size_t at = 0; at + 1 < bytes.size();) {
        const int number = bytes[at];
        if (number == padding) {
            ++at;
            continue;
        }
        const std::size_t size = std::min<std::size_t>(bytes[at + 1], bytes.size() - at - 2);
        const auto *option =
            std::find_if(std::begin(known), std::end(known), [&](const Option &one) { return one.number == number; });
        const bool common = option != std::end(known);
        lines += std::to_string(number) + (common ? std::string(" ") + option->name : "") + ": " +
                 value_of(bytes.data() + at + 2, size, common ? option->form : Form::Hex) + "\n";
        at += 2 + bytes[at + 1];
    }
    return lines;
}

} // namespace keelctl
