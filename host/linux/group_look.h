/*
 * A look at the multicast groups that the LAN's devices have joined, and at what becomes of them.
 */
#ifndef HOST_LINUX_GROUP_LOOK_H
#define HOST_LINUX_GROUP_LOOK_H

#include "host/gateway/graph.h"
#include "host/linux/kernel_tables.h"

namespace keel {

/* Makes "TIDE.Group" what the kernel knows at this moment; nothing is followed. Each instance is a group ("Address")
 * that was joined behind a port of the LAN bridge ("Port"), with its "State":
 *
 * - NotAsked: the gateway has not asked for it on the IPTV device; the daemon does not do its work.
 * - NoStream: it has, and nothing of it has come.
 * - NotForwarded: it comes, and nobody has told the kernel where to.
 * - Forwarded: it is sent on to the LAN.
 */
void look_at_groups(const InterfaceGraph &graph, KernelTables &tables);

} // namespace keel

#endif
