/*
 * Boolean expressions over words: interface flags ("(vlan || atm) && up && !zep-lan-iptv") and device queries ("lan and
 * stb and .Active==true").
 */
#ifndef HOST_MODEL_EXPRESSION_H
#define HOST_MODEL_EXPRESSION_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace keel {

class Expression {
public:
    /* Flags: "&&", "||", "!" and names. Device: "and", "or", "not", names, and ".Parameter==value", the value bare or
     * in quotes of either kind. Names and bare values consist of letters, digits, "-", "_" and "."; bare values of ":"
     * too. Both have parentheses; "and" binds stronger than "or". */
    enum class Syntax { Flags, Device };

    struct Word {
        std::string name;                 /* a flag, a tag, or a parameter (without its ".") */
        std::optional<std::string> value; /* what the parameter must equal */
    };
    /* Tells whether a word holds. */
    using Holds = std::function<bool(const Word &word)>;

    /* An empty text always holds. False with the reason in *error, which names the position, for a malformed one. */
    static bool parse(Syntax syntax, std::string_view text, Expression *expression, std::string *error);

    bool evaluate(const Holds &holds) const;

private:
    struct Term;
    class Parser;

    std::shared_ptr<const Term> root_; /* null: no condition */
};

} // namespace keel

#endif
