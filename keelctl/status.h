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
/* Gathers the service's state: mode, interface, servers, routes, and each identity with its devices. */
Json gather_status(Client &client);
/* The same for a person to read; colours when asked for. */
std::string print_status(const Json &status, bool colours);

} // namespace keelctl

#endif
