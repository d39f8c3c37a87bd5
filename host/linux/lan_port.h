/*
 * The LAN DHCP server's port on the real network: a packet socket on the LAN bridge, since a device that has no address
 * yet can be answered in no other way.
 */
#ifndef HOST_LINUX_LAN_PORT_H
#define HOST_LINUX_LAN_PORT_H

#include <functional>
#include <memory>
#include <string>

#include "host/base/uv_loop.h"
#include "host/dhcp/lan_server.h"

namespace keel {

class PacketLanPort : public LanPort {
public:
    using Receiver = std::function<void(const std::uint8_t *data, std::size_t size)>;

    /* Opens the interface, and tries again every few seconds while that fails (traced once). */
    PacketLanPort(UvLoop &loop, std::string interface, Receiver receiver);
    PacketLanPort(const PacketLanPort &) = delete;
    PacketLanPort &operator=(const PacketLanPort &) = delete;
    ~PacketLanPort() override;

    void send(const Bytes &message, const DhcpDestination &destination) override;

private:
    struct Poll;

    bool open();
    void close();
    void open_or_retry();
    void take_frames();

    UvLoop &loop_;
    std::string interface_;
    Receiver receiver_;
    int socket_ = -1;
    int index_ = 0;
    Poll *poll_ = nullptr;
    Loop::TimerId retry_ = 0;
    bool complained_ = false;
};

} // namespace keel

#endif
