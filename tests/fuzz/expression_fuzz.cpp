/* Expressions over flags and devices: what is refused says why and where, what is taken means the same however it is
 * put into brackets, and whatever stands beside it. */
#include <functional>
#include <string>

#include "host/model/expression.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;

namespace {

using Syntax = Expression::Syntax;

struct Signs {
    const char *and_;
    const char *or_;
    const char *not_;
};

std::optional<Expression> parsed(Syntax syntax, const std::string &text) {
    Expression expression;
    std::string error;
    if (Expression::parse(syntax, text, &expression, &error))
        return expression;
    const auto at = error.rfind(" at position ");
    fuzz::require(at != std::string::npos, "a refusal names the position: " + error);
    const unsigned long position = std::stoul(error.substr(at + 13));
    fuzz::require(position >= 1 && position <= text.size() + 1, "the position is in the text: " + error);
    return std::nullopt;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const Syntax syntax = input.flag() ? Syntax::Flags : Syntax::Device;
    const Signs signs = syntax == Syntax::Flags ? Signs{"&&", "||", "!"} : Signs{" and ", " or ", " not "};
    const std::size_t seed = input.byte();
    const Bytes rest = input.rest(size);
    const std::string text(rest.begin(), rest.end());
    const auto expression = parsed(syntax, text);
    if (!expression)
        return 0;

    const Expression::Holds holds = [&](const Expression::Word &word) {
        fuzz::require(word.value.has_value() ? syntax == Syntax::Device : !word.name.empty(), "a word is one");
        if (word.name == "yes" || word.name == "no")
            return word.name == "yes";
        return (std::hash<std::string>()(word.name + "=" + word.value.value_or("")) ^ seed) % 3 != 0;
    };
    const bool value = expression->evaluate(holds);
    fuzz::require(expression->evaluate(holds) == value, "it means the same each time");
    if (text.find_first_not_of(" \t\r\n\v\f") == std::string::npos) {
        fuzz::require(value, "no condition always holds");
        return 0;
    }
    /* None but one that is nested as deeply as may be is refused with something around it. */
    const auto means = [&](const std::string &around, bool expected) {
        const auto other = parsed(syntax, around);
        fuzz::require(other ? other->evaluate(holds) == expected : text.size() >= 64, around);
    };
    means("(" + text + ")", value);
    means(std::string(signs.not_) + "(" + text + ")", !value);
    means("(" + text + ")" + signs.and_ + "yes", value);
    means("(" + text + ")" + signs.or_ + "yes", true);
    means(std::string(signs.not_) + "(" + text + ")" + signs.and_ + "no", false);
    means(std::string(signs.not_) + "(" + text + ")" + signs.or_ + "yes", true);
    means(std::string("yes") + signs.or_ + "no" + signs.and_ + "(" + text + ")", true);
    means(std::string("no") + signs.and_ + "(" + text + ")", false);
    means(text + signs.or_ + "no", value);
    return 0;
}
