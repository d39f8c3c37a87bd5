/*
 * Received DHCP options, from the hexadecimal text in the model to values.
 */
#ifndef HOST_PLATFORM_DHCP_OPTION_H
#define HOST_PLATFORM_DHCP_OPTION_H

#include <cstdint>
#include <string>

#include "platform/variant.h"

namespace keel {

/* Option 121 (RFC 3442) becomes a list of maps "Destination", "PrefixLength", "Router"; any other its text. The variant
 * is initialised by this call. False with the reason in *error when the value is malformed. */
bool parse_dhcp_option(std::uint16_t option, const std::string &hex, variant_t *value, std::string *error);

} // namespace keel

#endif
