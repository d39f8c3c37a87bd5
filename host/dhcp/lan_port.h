/*
 * The LAN as its DHCP server sees it.
 */
#ifndef HOST_DHCP_LAN_PORT_H
#define HOST_DHCP_LAN_PORT_H

#include <cstdint>
#include <string>

#include "host/base/text_forms.h"

namespace keel {

/* Where a reply goes. */
struct DhcpDestination {
    HardwareAddress hardware{};
    std::uint32_t address = 0; /* host order; 255.255.255.255 for a broadcast */
    std::uint32_t source = 0;  /* the server's */
    bool relay = false;        /* the address is a relay's, which takes replies at the servers' port */
    bool routed = false;       /* the address is not on the LAN's own link: the hardware address is not known there */
};

/* The network, real or simulated. */
class LanPort {
public:
    virtual ~LanPort() = default;
    virtual void send(const Bytes &message, const DhcpDestination &destination) = 0;
    /* Asks all devices who has the address (RFC 5227, ARP probe). Who has it is told to the server's address_used(). */
    virtual void probe(std::uint32_t address) = 0;
    /* The port of the LAN behind which a device was seen; "" for one that was not, or is not there any more. */
    virtual std::string port_of(const HardwareAddress &device) = 0;
};

} // namespace keel

#endif
