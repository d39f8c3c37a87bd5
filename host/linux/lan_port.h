/*
 * The LAN DHCP server's port on the real network: a packet socket on the LAN bridge, since a device that has no address
 * yet can be answered in no other way.
 */
#ifndef HOST_LINUX_LAN_PORT_H
#define HOST_LINUX_LAN_PORT_H

#include <functional>
#include <string>

#include "host/base/growing_pause.h"
#include "host/base/uv_loop.h"
#include "host/dhcp/lan_server.h"

namespace keel {

class PacketLanPort : public LanPort {
public:
    using Receiver = std::function<void(const std::uint8_t *data, std::size_t size)>;

    /* Opens the interface. While that fails, since it is down or there is none, and whenever it goes down or is deleted
     * later, it is tried again, soon and then once a second. The loss is traced once, and so is its end. */
    PacketLanPort(UvLoop &loop, std::string interface, Receiver receiver);
    PacketLanPort(const PacketLanPort &) = delete;
    PacketLanPort &operator=(const PacketLanPort &) = delete;
    ~PacketLanPort() override;

    /* Nothing is sent while the interface is not open. */
    void send(const Bytes &message, const DhcpDestination &destination) override;

private:
    struct Poll;

    /* Of these, each returns 0 or an errno. */
    int open();
    int bind_to_interface();
    int watch();
    int socket_error(int otherwise) const;

    void close();
    void open_or_retry();
    void lost(int error);
    void take_frames();

    UvLoop &loop_;
    std::string interface_;
    Receiver receiver_;
    int socket_ = -1; /* while it is open, or being opened */
    int index_ = 0;
    Poll *poll_ = nullptr;
    Loop::TimerId retry_ = 0;
    GrowingPause pause_; /* the frames of this time are lost; the devices ask again */
    std::uint64_t opened_ms_ = 0;
    bool complained_ = false;
};

} // namespace keel

#endif
