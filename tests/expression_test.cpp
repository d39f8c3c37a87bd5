#include <gtest/gtest.h>

#include <map>
#include <set>

#include "host/model/expression.h"

using namespace keel;

namespace {

using Syntax = Expression::Syntax;

bool flags_hold(const std::string &text, const std::set<std::string> &flags) {
    Expression expression;
    std::string error;
    EXPECT_TRUE(Expression::parse(Syntax::Flags, text, &expression, &error)) << text << ": " << error;
    return expression.evaluate([&](const Expression::Word &word) { return flags.contains(word.name); });
}

std::string error_of(Syntax syntax, const std::string &text) {
    Expression expression;
    std::string error;
    return Expression::parse(syntax, text, &expression, &error) ? "" : error;
}

} // namespace

TEST(Expression, FlagsFollowPrecedenceAndParentheses) {
    struct Case {
        const char *text;
        std::set<std::string> flags;
        bool holds;
    };
    const Case cases[] = {
        {"", {}, true},
        {"  ", {}, true},
        {"netdev && up", {"netdev", "up"}, true},
        {"netdev && up", {"netdev"}, false},
        {"a || b && c", {"a"}, true}, /* not (a || b) && c */
        {"(a || b) && c", {"a"}, false},
        {"!a && b", {"b"}, true}, /* not !(a && b) */
        {"!a && b", {}, false},
        {"!(a && b)", {"a"}, true},
        {"!!a", {"a"}, true},
        {"(vlan||atm)&&netdev&&up&&!zep-lan-iptv", {"atm", "netdev", "up"}, true},
        {"(vlan || atm) && netdev && up && !zep-lan-iptv", {"vlan", "netdev", "up", "zep-lan-iptv"}, false},
        {"zep-no", {"zep-no-igmp"}, false}, /* whole words */
    };
    for (const Case &one : cases)
        EXPECT_EQ(flags_hold(one.text, one.flags), one.holds) << one.text;
}

TEST(Expression, DeviceWordsAndComparisons) {
    Expression expression;
    std::string error;
    ASSERT_TRUE(Expression::parse(Syntax::Device,
                                  "(lan or guest) and not pc and .Name==\"two words\" and .MAC == 02:00:00:00:00:01 "
                                  "and .Empty==''",
                                  &expression, &error))
        << error;
    std::set<std::string> tags{"guest"};
    std::map<std::string, std::string> parameters{{"Name", "two words"}, {"MAC", "02:00:00:00:00:01"}, {"Empty", ""}};
    const auto holds = [&](const Expression::Word &word) {
        return word.value ? parameters.at(word.name) == *word.value : tags.contains(word.name);
    };
    EXPECT_TRUE(expression.evaluate(holds));
    tags.insert("pc");
    EXPECT_FALSE(expression.evaluate(holds));
    tags = {"lan"};
    parameters["Name"] = "two";
    EXPECT_FALSE(expression.evaluate(holds));
}

TEST(Expression, MalformedTextIsRefusedWithThePosition) {
    for (const char *text : {"&&", "a &&", "a || || b", "(a", "a)", "()", "!", "a b", "a & b", "a and b", "up==1",
                             "a;b", "a && \x01", "\xc3\xa9"})
        EXPECT_NE(error_of(Syntax::Flags, text), "") << text;
    for (const char *text : {"and", "lan stb", "lan && stb", "not", ".Active", ".Active=true", ".==x",
                             ".A==", ".A==\"x", ".A==x y", "lan and", "lan==true"})
        EXPECT_NE(error_of(Syntax::Device, text), "") << text;
    EXPECT_EQ(error_of(Syntax::Flags, "ab && && c"), "a name is missing before \"&&\" at position 7");
    EXPECT_EQ(error_of(Syntax::Flags, "(ab "), "\")\" is missing at position 5");
}

TEST(Expression, DepthIsBoundedAndLengthIsNot) {
    EXPECT_NE(error_of(Syntax::Flags, std::string(100000, '(')), "");
    EXPECT_NE(error_of(Syntax::Flags, std::string(100000, '!') + "a"), "");
    std::string chain = "a0";
    for (int i = 1; i < 50000; ++i)
        chain += " || a" + std::to_string(i);
    EXPECT_TRUE(flags_hold(chain, {"a49999"}));
    EXPECT_FALSE(flags_hold(chain, {"b"}));
}
