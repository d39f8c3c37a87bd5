/*
 * What the host tells, as lines for people.
 */
#ifndef KEELCTL_OUTPUT_H
#define KEELCTL_OUTPUT_H

#include <string>

#include "keelctl/client.h"

namespace keelctl {

std::string value_text(const Json &value);
/* "PATH.NAME=VALUE" lines of an object and all below it. */
std::string tree_text(const Json &tree, const std::string &path);
/* "10:31:07.123 x routed: ...", its end included. */
std::string trace_text(const Json &line);

} // namespace keelctl

#endif
