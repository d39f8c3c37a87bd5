#include "host/linux/chains.h"

#include <optional>

#include "host/linux/program.h"

namespace keel {

namespace {

constexpr int set_up_limit_ms = 30000; /* where another holds the tables, each command waits for it */

std::vector<std::string> iptables(const char *operation, const std::string &chain) {
    return {"/usr/sbin/iptables", "-w", "5", "-t", "filter", operation, chain};
}

} // namespace

bool set_up_chains(const std::string &script, std::string *error) {
    std::string reason;
    const std::optional<int> status = run_and_wait({script}, set_up_limit_ms, &reason);
    if (status == 0)
        return true;
    *error = script + ": " + (status ? "failed; its messages are above" : reason);
    return false;
}

std::vector<std::string> flush_command(const std::string &chain) {
    return iptables("-F", chain);
}

std::vector<std::string> append_command(const std::string &chain, const std::vector<std::string> &rule) {
    std::vector<std::string> argv = iptables("-A", chain);
    argv.insert(argv.end(), rule.begin(), rule.end());
    return argv;
}

} // namespace keel
