/*
 * The ground under the plug-in: the shell commands that it runs, which may fail or take long.
 */
#ifndef TESTS_SIMULATE_GROUND_H
#define TESTS_SIMULATE_GROUND_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace keel {

class Ground {
public:
    using Rules = std::map<std::string, unsigned>; /* "TABLE CHAIN RULE..." -> how often it stands */

    static Ground &instance();
    /* The same while an allocation is to fail, else null; makes nothing. */
    static Ground *failing();

    /* As the set-up of the chains leaves them. */
    void set_up();
    /* The rules of mappings are not looked at until the chains are emptied. */
    /* Somebody empties the chains by hand. */
    void flush_by_hand();
    int run(const std::string &command);

    const Rules &rules() const { return rules_; }
    std::uint64_t generation() const { return generation_; }
    /* The two rules that always stand. */
    static const Rules &default_rules();

    std::uint64_t failing_command = 0; /* the Nth from now fails; 0: none */
    std::uint64_t hanging_command = 0; /* the Nth from now takes ten seconds; 0: none */
    std::function<void(std::uint64_t ms)> hold;
    std::uint64_t failing_allocation = 0; /* the Nth of the plug-in's from now finds no memory; 0: none */
    bool allocation_failed = false;       /* since somebody said false: the plug-in has fewer records than it wanted */
    /* A failed command or somebody's hand has left other rules than the plug-in knows of: those of mappings until the
     * chains are emptied, others until they are set up anew. */
    bool rules_lost() const { return mappings_lost_ || others_lost_; }

    std::string strange_line;      /* the first command that holds what no command may */
    std::set<std::string> secrets; /* what devices have sent, which no command may hold */

private:
    Rules rules_;
    bool mappings_lost_ = false;
    bool others_lost_ = false;
    std::uint64_t generation_ = 0;
};

} // namespace keel

#endif
