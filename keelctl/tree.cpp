#include "keelctl/tree.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <set>
#include <sstream>

namespace keelctl {

Json child(const Json &tree, const std::string &name) {
    for (const Json &one : tree["children"])
        if (one["name"] == name)
            return one;
    return {{"name", name}, {"parameters", Json::object()}, {"children", Json::array()}};
}

Json descend(Json tree, std::initializer_list<const char *> names) {
    for (const char *name : names)
        tree = child(tree, name);
    return tree;
}

Json children(const Json &tree, std::initializer_list<const char *> names) {
    return descend(tree, names)["children"];
}

std::string text(const Json &tree, const char *parameter) {
    const Json &value = tree["parameters"].value(parameter, Json());
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
}

bool flag(const Json &tree, const char *parameter) {
    const Json &value = tree["parameters"].value(parameter, Json());
    return value.is_boolean() && value.get<bool>();
}

std::int64_t number(const Json &tree, const char *parameter) {
    const Json &value = tree["parameters"].value(parameter, Json());
    return value.is_number_integer() ? value.get<std::int64_t>() : 0;
}

std::int64_t past_time(const Json &tree, const char *parameter, std::int64_t now) {
    constexpr std::int64_t clock_is_set = 1577836800; /* a gateway without a clock of its own starts in 1970 */
    const std::int64_t time = number(tree, parameter);
    return time >= clock_is_set && time <= now ? time : 0;
}

Json instance(Client &client, const std::string &parent, const std::string &name) {
    return name.empty() ? child({{"children", Json::array()}}, name) : client.tree(parent + "." + name);
}

bool has_word(const std::string &words, const std::string &word) {
    std::istringstream stream(words);
    for (std::string one; stream >> one;)
        if (one == word)
            return true;
    return false;
}

const Json &Interfaces::operator[](const std::string &name) {
    const auto found = known_.find(name);
    return found != known_.end() ? found->second : known_[name] = instance(client_, "Weft.Intf", name);
}

std::vector<std::string> Interfaces::stack(const std::string &top) {
    std::vector<std::string> stack{top};
    std::set<std::string> seen;
    for (std::size_t i = 0; i < stack.size(); ++i) {
        std::istringstream links(text((*this)[stack[i]], "LowerLayers"));
        for (std::string lower; links >> lower;)
            if (seen.insert(lower).second)
                stack.push_back(lower);
    }
    return stack;
}

std::string Interfaces::device_below(const std::string &top, bool live) {
    for (const std::string &name : stack(top))
        if (has(name, "netdev") && (!live || has(name, "up")))
            return name;
    return "";
}

/* ----------------------------------------------------------------------------------------------------- texts */

std::string pad(std::string field, std::size_t width) {
    field.resize(std::max(width, field.size()), ' ');
    return field;
}

std::string or_none(const std::string &value) {
    return value.empty() || value == "0.0.0.0" ? "none" : value;
}

std::string duration(std::int64_t seconds) {
    seconds = std::max<std::int64_t>(seconds, 0);
    const auto told = [](std::int64_t count, const char *unit) { return std::to_string(count) + " " + unit; };
    constexpr std::int64_t hour = 3600;
    constexpr std::int64_t day = 24 * hour;
    if (seconds < 120)
        return told(seconds, "s");
    if (seconds < 2 * hour)
        return told(seconds / 60, "min");
    return seconds < 3 * day ? told(seconds / hour, "h") : told(seconds / day, "days");
}

std::string time_of_day(std::int64_t then, std::int64_t now) {
    const auto local = [](std::int64_t seconds) {
        const auto time = static_cast<std::time_t>(seconds);
        std::tm fields{};
        localtime_r(&time, &fields);
        return fields;
    };
    const std::tm at = local(then);
    const std::tm today = local(now);
    const bool same_day = at.tm_yday == today.tm_yday && at.tm_year == today.tm_year;
    std::array<char, 64> told{};
    std::strftime(told.data(), told.size(), same_day ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &at);
    return told.data();
}

} // namespace keelctl
