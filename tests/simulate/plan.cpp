#include "tests/simulate/plan.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

#include "host/sim/sim_stb.h"

namespace keel {

namespace {

constexpr std::uint64_t minute_ms = 60000;
constexpr std::uint64_t hour_ms = 60 * minute_ms;
constexpr std::uint64_t day_ms = 24 * hour_ms;
constexpr std::uint64_t longest_calm_ms = 2 * hour_ms;

struct Kind {
    const char *name;
    unsigned weight;
    const char *group;
};

/* In the order of the deeds. */
constexpr std::array<Kind, static_cast<std::size_t>(Deed::count)> kinds{{
    {"switched on", 40, ""},
    {"switched off", 16, ""},
    {"gives its lease back", 8, ""},
    {"declines", 3, ""},
    {"renews", 10, ""},
    {"unplugged", 8, ""},
    {"plugged", 12, ""},
    {"operator away", 5, "operator"},
    {"operator back", 8, "operator"},
    {"operator slow", 3, "operator"},
    {"operator quick", 4, "operator"},
    {"operator forgets its leases", 2, "operator"},
    {"operator refuses once", 5, "operator"},
    {"operator: new address", 5, "operator"},
    {"operator: new mask", 2, "operator"},
    {"operator: new routes", 4, "operator"},
    {"operator: new servers", 3, "operator"},
    {"operator: new lease time", 3, "operator"},
    {"operator: address to another", 3, "operator"},
    {"client renews now", 8, ""},
    {"line down", 4, "line"},
    {"line up", 7, "line"},
    {"line flaps", 3, "line"},
    {"events of lines are lost", 2, "line"},
    {"mode set", 2, "people"},
    {"enable set", 3, "people"},
    {"interface set", 2, "people"},
    {"mono client set", 1, "people"},
    {"lease time set", 2, "people"},
    {"LAN address moved", 3, "people"},
    {"LAN lease deleted", 3, "people"},
    {"identity deleted", 1, "people"},
    {"chains flushed", 1, "people"},
    {"clock set", 2, "clock"},
    {"a command fails", 2, "ground"},
    {"a command hangs", 3, "ground"},
    {"an allocation fails", 1, "ground"},
    {"a write fails", 3, "ground"},
    {"disk full", 2, "ground"},
    {"disk mended", 4, "ground"},
    {"store file deleted", 1, "ground"},
    {"open files dead", 1, "ground"},
    {"LAN socket dead", 2, "ground"},
    {"LAN socket alive", 4, "ground"},
    {"killed", 3, "kill"},
    {"restarted", 2, "kill"},
    {"calm", 2, ""},
    {"calm by people", 1, ""},
}};

const Kind &kind_of(Deed deed) {
    return kinds.at(static_cast<std::size_t>(deed));
}

/* Most things follow each other closely, some only after many hours: bursts, then rest. */
std::uint64_t draw_pause(Chance &chance) {
    switch (chance.below(8)) {
    case 0:
    case 1:
        return chance.below(200);
    case 2:
    case 3:
        return chance.below(10000);
    case 4:
        return chance.below(2 * minute_ms);
    case 5:
        return chance.below(hour_ms);
    default:
        return chance.below(8 * hour_ms);
    }
}

} // namespace

const char *name_of(Deed deed) {
    return kind_of(deed).name;
}

const std::vector<std::string> &fault_groups() {
    static const std::vector<std::string> all{"people", "operator", "line", "ground", "kill", "clock"};
    return all;
}

std::string group_of(Deed deed) {
    return kind_of(deed).group;
}

Plan draw_plan(std::uint64_t seed, unsigned days, const std::vector<std::string> &groups) {
    Chance chance(seed);
    unsigned total = 0;
    std::array<unsigned, kinds.size()> weights{};
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const std::string group = kinds.at(i).group;
        const bool wanted = group.empty() || std::find(groups.begin(), groups.end(), group) != groups.end();
        total += weights.at(i) = wanted ? kinds.at(i).weight : 0;
    }
    Plan plan;
    std::uint64_t at_ms = 1000;
    for (std::uint64_t first = 0; first < 3; ++first)
        plan.push_back({at_ms += 1000, Deed::SwitchOn, first, 0});
    while (at_ms < days * day_ms) {
        at_ms += draw_pause(chance);
        std::uint64_t drawn = chance.below(std::max(total, 1U)); /* there are always some */
        std::size_t kind = 0;
        while (drawn >= weights.at(kind))
            drawn -= weights.at(kind++);
        plan.push_back({at_ms, static_cast<Deed>(kind), chance.next() >> 32, chance.next() >> 32});
        if (plan.back().deed == Deed::Calm || plan.back().deed == Deed::CalmByPeople)
            at_ms += longest_calm_ms;
    }
    plan.push_back({at_ms, seed % 2 ? Deed::Calm : Deed::CalmByPeople, 0, 0});
    return plan;
}

std::string to_text(const Step &step) {
    char text[160];
    std::snprintf(text, sizeof text, "%8llu.%03llu s  %-28s subject %llu value %llu",
                  static_cast<unsigned long long>(step.at_ms / 1000),
                  static_cast<unsigned long long>(step.at_ms % 1000), name_of(step.deed),
                  static_cast<unsigned long long>(step.subject), static_cast<unsigned long long>(step.value));
    return text;
}

Step to_step(const std::string &text) {
    unsigned long long seconds = 0;
    unsigned long long milliseconds = 0;
    unsigned long long subject = 0;
    unsigned long long value = 0;
    int name_at = 0;
    const auto behind = text.find(" subject ");
    if (behind != std::string::npos &&
        std::sscanf(text.c_str(), "%llu.%llu s %n", &seconds, &milliseconds, &name_at) == 2 &&
        std::sscanf(text.c_str() + behind, " subject %llu value %llu", &subject, &value) == 2) {
        std::string name = text.substr(static_cast<std::size_t>(name_at), behind - static_cast<std::size_t>(name_at));
        name.erase(name.find_last_not_of(' ') + 1);
        for (std::size_t kind = 0; kind < kinds.size(); ++kind)
            if (name == kinds.at(kind).name)
                return {seconds * 1000 + milliseconds, static_cast<Deed>(kind), subject, value};
    }
    throw std::runtime_error("no step: " + text);
}

} // namespace keel
