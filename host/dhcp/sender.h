/*
 * What a DHCP message says of the device that sent it, in the forms in which the data model has it.
 */
#ifndef HOST_DHCP_SENDER_H
#define HOST_DHCP_SENDER_H

#include <string>

#include "host/dhcp/packet.h"
#include "host/model/model.h"

namespace keel {

/* The name of the device's lease: its client identifier in hexadecimal, a long one cut and told apart by a hash.
 * Nothing but hexadecimal digits and "-" comes out, whatever the device sent. */
std::string sender_id(const DhcpMessage &message);
/* What a device says of itself, as far as it does: "HostName" and "VendorClass". */
Values description_of_sender(const DhcpMessage &message);
/* The address that it asks for, or has; 0 for none. */
std::uint32_t wanted_address(const DhcpMessage &message);

} // namespace keel

#endif
