/*
 * The iptables chains that the plug-in expects to find.
 */
#ifndef HOST_LINUX_CHAINS_H
#define HOST_LINUX_CHAINS_H

#include <string>

namespace keel {

/* Runs the chain set-up script (share/chains.sh) and waits for it: everything that an earlier run left in the chains is
 * gone after it. False with the reason in *error. */
bool set_up_chains(const std::string &script, std::string *error);

} // namespace keel

#endif
