/*
 * The packets of one STB on both sides of the gateway, in one file.
 */
#ifndef KEELCTL_CAPTURE_H
#define KEELCTL_CAPTURE_H

#include <string>

#include "keelctl/client.h"

namespace keelctl {

/* Captures until SIGINT or SIGTERM, or for that many seconds unless they are 0, and says on stderr how it goes.
 *
 * On the LAN side: what has the STB's MAC address, behind the port at which it is, DHCP about it, IGMP, and the groups
 * that it joined. On the operator's side: the DHCP of its WAN client, what has its WAN address, also one that it is
 * given meanwhile, IGMP, and the same groups. Of what goes to a group the first 128 bytes are kept.
 *
 * Throws Refused for an STB that nobody knows, and when neither side can be captured. */
void capture(Client &client, const std::string &stb, unsigned seconds, const std::string &file);

} // namespace keelctl

#endif
