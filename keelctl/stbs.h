/*
 * The STBs on the LAN, and what is so of each.
 */
#ifndef KEELCTL_STBS_H
#define KEELCTL_STBS_H

#include <string>
#include <vector>

#include "keelctl/gateway.h"

namespace keelctl {

/* One object a device that counts as an STB, also those that are not on the LAN ("state": "absent");
 * docs/keelctl.md tells its members. */
Json stbs_of(Gateway &gateway);

/* Of those on the LAN: "3 of 4 STBs served: stb-bedroom waits for the operator since 2 min" */
std::string headline(const Json &stbs);
/* One that is on the LAN is not served. */
bool any_is_dark(const Json &stbs);

/* An STB for a person to read, line by line: where it is on the LAN, what it has on the WAN side, what goes through. */
std::vector<std::string> stb_lines(const Json &stb);

} // namespace keelctl

#endif
