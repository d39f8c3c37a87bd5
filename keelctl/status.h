/*
 * The service at a glance.
 */
#ifndef KEELCTL_STATUS_H
#define KEELCTL_STATUS_H

#include <string>

#include "keelctl/client.h"

namespace keelctl {

/* Standard output is a terminal, and nobody has asked for plain text (NO_COLOR). */
bool colours_wanted();
/* The service's state: mode, interface, servers, routes, the STBs, each identity with its devices, and the leases of
 * IPTV pools without an identity; docs/keelctl.md tells the members. */
Json gather_status(Client &client);
/* The same for a person to read; colours when asked for. */
std::string print_status(const Json &status, bool colours);

/* Of its parts: "enabled, Routed over the Dedicated interface, MonoClient off", and the colour of an STB's state, as
 * the number of a terminal's sequence. */
std::string mode_line(const Json &status);
const char *state_colour(const std::string &state);
/* Every STB on the LAN is served, and nothing else is missing. */
bool is_well(const Json &status);

} // namespace keelctl

#endif
