/*
 * The options of a DHCP message for people.
 */
#ifndef KEELCTL_DHCP_OPTIONS_H
#define KEELCTL_DHCP_OPTIONS_H

#include <string>

namespace keelctl {

/* A line for each option of a message, which are given in hexadecimal: its number, its name if it has a common one, and
 * its value in the form that fits it. */
std::string describe_options(const std::string &hex);

} // namespace keelctl

#endif
