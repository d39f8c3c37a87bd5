#include "keelctl/dhcp_options.h"

#include <algorithm>
#include <iterator>

#include "host/base/text_forms.h"
#include "host/dhcp/packet.h"

namespace keelctl {

namespace {

enum class Form { Hex, Text, Addresses, Seconds, Numbers };

struct Option {
    const char *name;
    int number;
    Form form;
};

const Option known[] = {{"subnet mask", 1, Form::Addresses},
                        {"router", 3, Form::Addresses},
                        {"name servers", 6, Form::Addresses},
                        {"host name", 12, Form::Text},
                        {"domain", 15, Form::Text},
                        {"broadcast address", 28, Form::Addresses},
                        {"NTP servers", 42, Form::Addresses},
                        {"vendor's own", 43, Form::Hex},
                        {"requested address", 50, Form::Addresses},
                        {"lease time", 51, Form::Seconds},
                        {"message type", 53, Form::Numbers},
                        {"server", 54, Form::Addresses},
                        {"wanted options", 55, Form::Numbers},
                        {"message", 56, Form::Text},
                        {"largest message", 57, Form::Hex},
                        {"renewal after", 58, Form::Seconds},
                        {"rebinding after", 59, Form::Seconds},
                        {"vendor class", 60, Form::Text},
                        {"client identifier", 61, Form::Hex},
                        {"WWW servers", 72, Form::Addresses},
                        {"relay's own", 82, Form::Hex},
                        {"classless routes", 121, Form::Hex}};

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
    const keel::Bytes bytes = keel::parse_hex(hex).value_or(keel::Bytes());
    std::string lines;
    keel::for_each_option(
        bytes.data(), bytes.size(), [&lines](std::uint8_t number, const std::uint8_t *value, std::size_t size) {
            const auto *option = std::find_if(std::begin(known), std::end(known),
                                              [number](const Option &one) { return one.number == number; });
            const bool common = option != std::end(known);
            lines += std::to_string(number) + (common ? std::string(" ") + option->name : "") + ": " +
                     value_of(value, size, common ? option->form : Form::Hex) + "\n";
        });
    return lines;
}

} // namespace keelctl
