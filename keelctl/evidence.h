/*
 * All that helps somebody who is not there to understand a gateway, in one archive.
 */
#ifndef KEELCTL_EVIDENCE_H
#define KEELCTL_EVIDENCE_H

#include <string>

#include "keelctl/client.h"

namespace keelctl {

/* Gathers it, masks it unless all of it is wanted (full), and writes it. What cannot be had, a host that does not
 * answer among it, is said in the archive in its place. False when the host could not be asked. Throws
 * std::runtime_error when the archive cannot be written. */
bool collect_evidence(Client &client, const std::string &file, bool full);

/* "keel-diagnose-20261125-103100.tgz": a name with the time of day. */
std::string timed_name(const std::string &what, const std::string &ending);

} // namespace keelctl

#endif
