#include "tests/simulate/ground.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace keel {

namespace {
constexpr std::uint64_t hanging_ms = 10000;
constexpr int failed = 256;
Ground *the_ground = nullptr; /* once there is one */
} // namespace

Ground &Ground::instance() {
    static Ground one;
    the_ground = &one;
    return one;
}

Ground *Ground::failing() {
    return the_ground && the_ground->failing_allocation > 0 ? the_ground : nullptr;
}

const Ground::Rules &Ground::default_rules() {
    static const Rules rules{{"raw PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT", 1},
                             {"raw PREROUTING_zep_ACCEPT -d 255.255.255.255 -j ACCEPT", 1}};
    return rules;
}

void Ground::set_up() {
    rules_ = default_rules();
    mappings_lost_ = false;
    others_lost_ = false;
    failing_command = 0;
    hanging_command = 0;
    ++generation_;
}

void Ground::flush_by_hand() {
    std::erase_if(rules_, [](const auto &rule) { return rule.first.find("_zep") != std::string::npos; });
    others_lost_ = true;
    ++generation_;
}

int Ground::run(const std::string &command) {
    const bool strange =
        command.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/.:_- ") !=
            std::string::npos ||
        std::any_of(secrets.begin(), secrets.end(),
                    [&](const std::string &secret) { return command.find(secret) != std::string::npos; });
    if (strange && strange_line.empty())
        strange_line = command;
    if (hanging_command > 0 && --hanging_command == 0 && hold)
        hold(hanging_ms);
    std::istringstream words(command);
    std::string program;
    std::string flag;
    std::string table;
    std::string operation;
    std::string chain;
    std::string rest;
    words >> program >> flag >> table >> operation >> chain;
    std::getline(words, rest);
    if (!program.ends_with("/iptables"))
        return 0; /* the bridge's rules are looked at elsewhere */
    if (failing_command > 0 && --failing_command == 0) {
        (command.find("_zep -s ") != std::string::npos || command.find("--to-destination") != std::string::npos ||
                 command.find("/255.255.255.255") != std::string::npos
             ? mappings_lost_
             : others_lost_) = true;
        return failed;
    }
    ++generation_;
    if (operation == "-F") {
        std::erase_if(rules_, [&](const auto &rule) { return rule.first.starts_with(table + " " + chain + " "); });
        if (chain == "PREROUTING_zep" && table == "nat") /* the last one of a clean-up */
            mappings_lost_ = false;
        return 0;
    }
    const std::string rule = table + " " + chain + rest;
    if (operation == "-A") {
        ++rules_[rule];
        return 0;
    }
    const auto found = rules_.find(rule);
    if (found == rules_.end())
        return failed;
    if (--found->second == 0)
        rules_.erase(found);
    return 0;
}

} // namespace keel

/* These take the place of the C library's for the plug-in. */
extern "C" __attribute__((used, visibility("default"))) int system(const char *command) {
    return keel::Ground::instance().run(command);
}

extern "C" void *__libc_calloc(std::size_t count, std::size_t size);

extern "C" __attribute__((used, visibility("default"))) void *calloc(std::size_t count, std::size_t size) {
    keel::Ground *ground = keel::Ground::failing();
    Dl_info caller;
    if (ground && dladdr(__builtin_return_address(0), &caller) && std::strstr(caller.dli_fname, "zephyrin.so") &&
        --ground->failing_allocation == 0) {
        ground->allocation_failed = true;
        return nullptr;
    }
    return __libc_calloc(count, size);
}
