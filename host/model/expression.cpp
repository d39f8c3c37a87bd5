#include "host/model/expression.h"

#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

namespace keel {

struct Expression::Term {
    enum class Kind { Word, Not, And, Or };
    Kind kind;
    Word word;
    std::vector<std::shared_ptr<const Term>> inner;

    bool value(const Holds &holds) const {
        const auto holds_too = [&](const auto &term) { return term->value(holds); };
        switch (kind) {
        case Kind::Not:
            return !inner.front()->value(holds);
        case Kind::And:
            return std::all_of(inner.begin(), inner.end(), holds_too);
        case Kind::Or:
            return std::any_of(inner.begin(), inner.end(), holds_too);
        default:
            return holds(word);
        }
    }
};

/* Recursive descent; the depth is bounded, since the text may come from outside. A function that fails returns null and
 * the first failure is the one reported. */
class Expression::Parser {
public:
    Parser(Syntax syntax, std::string_view text)
        : text_(text), and_(syntax == Syntax::Flags ? "&&" : "and"), or_(syntax == Syntax::Flags ? "||" : "or"),
          not_(syntax == Syntax::Flags ? "!" : "not"), comparisons_(syntax == Syntax::Device) {
        advance();
    }

    std::shared_ptr<const Term> parse() {
        auto term = parse_or(0);
        if (term && !token_.empty())
            return fail("an operator is missing before \"" + std::string(token_) + "\"");
        return term;
    }

    const std::string &error() const { return error_; }

private:
    using TermRef = std::shared_ptr<const Term>;
    static constexpr int max_depth = 64;

    TermRef parse_or(int depth) {
        return parse_list(Term::Kind::Or, or_, [&] { return parse_and(depth); });
    }

    TermRef parse_and(int depth) {
        return parse_list(Term::Kind::And, and_, [&] { return parse_not(depth); });
    }

    template <typename Parse> TermRef parse_list(Term::Kind kind, std::string_view operation, Parse parse_one) {
        std::vector<TermRef> inner;
        do {
            if (!inner.empty())
                advance();
            inner.push_back(parse_one());
            if (!inner.back())
                return nullptr;
        } while (token_ == operation);
        return inner.size() == 1 ? inner.front() : make(kind, {}, std::move(inner));
    }

    TermRef parse_not(int depth) {
        if (depth > max_depth)
            return fail("nested too deeply");
        if (token_ == not_) {
            advance();
            TermRef inner = parse_not(depth + 1);
            return inner ? make(Term::Kind::Not, {}, {std::move(inner)}) : nullptr;
        }
        if (token_ == "(") {
            advance();
            TermRef inner = parse_or(depth + 1);
            if (!inner)
                return nullptr;
            if (token_ != ")")
                return fail("\")\" is missing");
            advance();
            return inner;
        }
        return parse_word();
    }

    TermRef parse_word() {
        if (token_.empty())
            return fail("a name is missing");
        if (!is_name(token_.front()) || token_ == and_ || token_ == or_)
            return fail("a name is missing before \"" + std::string(token_) + "\"");
        Word word{std::string(token_), std::nullopt};
        if (comparisons_ && token_.front() == '.') {
            word.name.erase(0, 1);
            if (word.name.empty())
                return fail("a parameter's name is missing");
            advance();
            if (token_ != "==")
                return fail("\"==\" is missing");
            word.value = read_value();
            if (!word.value)
                return nullptr;
        }
        advance();
        return make(Term::Kind::Word, std::move(word), {});
    }

    /* What stands behind "==". */
    std::optional<std::string> read_value() {
        skip_blanks();
        start_ = at_;
        const char first = at_ < text_.size() ? text_[at_] : '\0';
        if (first == '"' || first == '\'') {
            const std::size_t end = text_.find(first, at_ + 1);
            if (end == std::string_view::npos) {
                fail("a quote is not closed");
                return std::nullopt;
            }
            std::string value(text_.substr(at_ + 1, end - at_ - 1));
            at_ = end + 1;
            return value;
        }
        while (at_ < text_.size() && (is_name(text_[at_]) || text_[at_] == ':'))
            ++at_;
        if (at_ == start_) {
            fail("a value is missing");
            return std::nullopt;
        }
        return std::string(text_.substr(start_, at_ - start_));
    }

    static TermRef make(Term::Kind kind, Word word, std::vector<TermRef> inner) {
        return std::make_shared<const Term>(Term{kind, std::move(word), std::move(inner)});
    }

    static bool is_name(char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    }

    TermRef fail(const std::string &reason) {
        error_ = reason + " at position " + std::to_string(start_ + 1);
        return nullptr;
    }

    void skip_blanks() {
        while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_])))
            ++at_;
    }

    /* Goes on to the next token; it is empty at the end. */
    void advance() {
        skip_blanks();
        start_ = at_;
        const std::string_view rest = text_.substr(at_);
        std::size_t length = 0;
        while (length < rest.size() && is_name(rest[length]))
            ++length;
        if (length == 0 && !rest.empty())
            length = rest.starts_with("&&") || rest.starts_with("||") || rest.starts_with("==") ? 2 : 1;
        token_ = rest.substr(0, length);
        at_ += length;
    }

    std::string_view text_;
    std::string_view and_;
    std::string_view or_;
    std::string_view not_;
    bool comparisons_;
    std::size_t at_ = 0;    /* behind the token */
    std::size_t start_ = 0; /* of the token */
    std::string_view token_;
    std::string error_;
};

bool Expression::parse(Syntax syntax, std::string_view text, Expression *expression, std::string *error) {
    expression->root_ = nullptr;
    if (text.find_first_not_of(" \t\r\n\v\f") == std::string_view::npos)
        return true;
    Parser parser(syntax, text);
    expression->root_ = parser.parse();
    if (!expression->root_)
        *error = parser.error();
    return expression->root_ != nullptr;
}

bool Expression::evaluate(const Holds &holds) const {
    return !root_ || root_->value(holds);
}

} // namespace keel
