/*
 * The LAN DHCP server's port on the real network: a packet socket on the LAN bridge, since a device that has no address
 * yet can be answered in no other way.
 */
#ifndef HOST_LINUX_LAN_PORT_H
#define HOST_LINUX_LAN_PORT_H

#include <functional>
#include <string>

#include "host/dhcp/lan_server.h"
#include "host/linux/packet_socket.h"

namespace keel {

class PacketLanPort : public LanPort {
public:
    using Receiver = std::function<void(const std::uint8_t *data, std::size_t size)>;

    /* While the interface is down, or there is none, it is looked for soon and then once a second; the loss is traced
     * once, and so is its end. */
    PacketLanPort(UvLoop &loop, std::string interface, Receiver receiver);
    PacketLanPort(const PacketLanPort &) = delete;
    PacketLanPort &operator=(const PacketLanPort &) = delete;

    /* Nothing is sent while the interface is not open. */
    void send(const Bytes &message, const DhcpDestination &destination) override;

private:
    void state_changed(int error) const;

    std::string interface_;
    Receiver receiver_;
    PacketSocket socket_;
};

} // namespace keel

#endif
