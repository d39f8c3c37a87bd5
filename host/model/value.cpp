#include "host/model/value.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace keel {

namespace {

struct Bounds {
    std::int64_t low;
    std::int64_t high;
};

Bounds bounds_of(Type type) {
    switch (type) {
    case Type::Int32:
        return {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()};
    case Type::UInt8:
        return {0, std::numeric_limits<std::uint8_t>::max()};
    case Type::UInt16:
        return {0, std::numeric_limits<std::uint16_t>::max()};
    case Type::UInt32:
        return {0, std::numeric_limits<std::uint32_t>::max()};
    default:
        return {0, std::numeric_limits<std::int64_t>::max()};
    }
}

} // namespace

std::string misfit(Type type, const Value &value) {
    if (type == Type::Text)
        return std::holds_alternative<std::string>(value) ? "" : "wants a text";
    if (type == Type::Bool)
        return std::holds_alternative<bool>(value) ? "" : "wants true or false";
    const auto *number = std::get_if<std::int64_t>(&value);
    if (!number)
        return "wants a number";
    const Bounds bounds = bounds_of(type);
    if (*number < bounds.low || *number > bounds.high)
        return "is out of range for " + std::string(type_name(type));
    return "";
}

Value empty_value(Type type) {
    if (type == Type::Text)
        return std::string();
    return type == Type::Bool ? Value(false) : Value(std::int64_t{0});
}

std::string to_text(const Value &value) {
    if (const auto *text = std::get_if<std::string>(&value))
        return *text;
    if (const auto *boolean = std::get_if<bool>(&value))
        return *boolean ? "true" : "false";
    return std::to_string(std::get<std::int64_t>(value));
}

std::optional<Value> parse_value(Type type, std::string_view text) {
    if (type == Type::Text)
        return Value(std::string(text));
    if (type == Type::Bool) {
        if (text == "true" || text == "1")
            return Value(true);
        if (text == "false" || text == "0")
            return Value(false);
        return std::nullopt;
    }
    const std::string number(text);
    char *end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(number.c_str(), &end, 10);
    if (number.empty() || end != number.c_str() + number.size() || errno != 0 ||
        std::isspace(static_cast<unsigned char>(number[0])))
        return std::nullopt;
    const Value value(static_cast<std::int64_t>(parsed));
    return misfit(type, value).empty() ? std::optional<Value>(value) : std::nullopt;
}

const char *type_name(Type type) {
    switch (type) {
    case Type::Text:
        return "text";
    case Type::Bool:
        return "bool";
    case Type::Int32:
        return "int32";
    case Type::UInt8:
        return "uint8";
    case Type::UInt16:
        return "uint16";
    case Type::UInt32:
        return "uint32";
    case Type::UInt64:
        return "uint64";
    }
    return "";
}

} // namespace keel
