/*
 * The iptables and ebtables chains that the plug-in expects to find.
 */
#ifndef HOST_LINUX_CHAINS_H
#define HOST_LINUX_CHAINS_H

#include <string>
#include <vector>

namespace keel {

/* Runs the chain set-up script (share/chains.sh) and waits for it, for at most 30 s: everything that an earlier run
 * left in the chains is gone after it. False with the reason in *error. */
bool set_up_chains(const std::string &script, std::string *error);

/* The command that empties a chain of the filter table, or puts a rule at its end. */
std::vector<std::string> flush_command(const std::string &chain);
std::vector<std::string> append_command(const std::string &chain, const std::vector<std::string> &rule);

} // namespace keel

#endif
