/*
 * The values of the data model: texts, booleans and bounded whole numbers.
 */
#ifndef HOST_MODEL_VALUE_H
#define HOST_MODEL_VALUE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace keel {

enum class Type { Text, Bool, Int32, UInt8, UInt16, UInt32, UInt64 };

/* Integers of every width are held in 64 bits; the parameter's type bounds them. */
using Value = std::variant<std::string, bool, std::int64_t>;
using Values = std::map<std::string, Value>;

/* Text as is, "true"/"false", decimal. */
std::string to_text(const Value &value);
/* What a person typed, as a value of that type; nothing when it is none. */
std::optional<Value> parse_value(Type type, std::string_view text);
const char *type_name(Type type);
/* The value of that type that says nothing: "", false, 0. */
Value empty_value(Type type);
/* Why a value does not fit a type; empty when it does. */
std::string misfit(Type type, const Value &value);

} // namespace keel

#endif
