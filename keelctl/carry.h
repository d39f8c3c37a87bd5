/*
 * keelctl export, keelctl import: what a box has learned and was set to goes into a file, and from it into another box.
 */
#ifndef KEELCTL_CARRY_H
#define KEELCTL_CARRY_H

#include <string>
#include <vector>

#include "keelctl/client.h"

namespace keelctl {

/* Writes the file, for its owner alone; "-" is standard output. Throws Refused when that cannot be done. */
void export_to(Client &client, const std::string &file);
/* What has changed, a line each. Throws Refused with all that is wrong with the file ("-" for standard input); then the
 * host has touched nothing. */
std::vector<std::string> import_from(Client &client, const std::string &file);

} // namespace keelctl

#endif
