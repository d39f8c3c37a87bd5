/*
 * The service at a glance, as it goes on.
 */
#ifndef KEELCTL_TOP_H
#define KEELCTL_TOP_H

#include <string>
#include <vector>

#include "keelctl/client.h"

namespace keelctl {

/* The lines of one screen of what gather_status() gives, each of at most that many columns, and no more of them than
 * there are rows; what does not fit is counted in the last one. */
std::vector<std::string> screen_of(const Json &status, std::size_t columns, std::size_t rows, bool colours);

/* Shows the service until Ctrl-C, or "q": on a terminal in place, once a second, and leaves the terminal as it was;
 * elsewhere each time that something has changed. A host that goes away is waited for. */
void show_live(Client &client);

} // namespace keelctl

#endif
