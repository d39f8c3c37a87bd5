/*
 * A packet socket on one network device that is there whenever the device is.
 */
#ifndef HOST_LINUX_PACKET_SOCKET_H
#define HOST_LINUX_PACKET_SOCKET_H

#include <linux/filter.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "host/base/growing_pause.h"
#include "host/base/text_forms.h"
#include "host/base/uv_loop.h"

namespace keel {

/* Takes and sends packets of one protocol. While the device cannot be opened, since it is down or there is none, and
 * whenever it goes down or is deleted later, it is tried again after a growing pause. */
class PacketSocket {
public:
    /* leaves: of what the device sends itself. */
    using OnPacket = std::function<void(const std::uint8_t *data, std::size_t size, bool leaves)>;
    /* Told once when it is lost, also at the start, with an errno, and once when it is there again, with 0. */
    using OnState = std::function<void(int error)>;

    struct Setup {
        std::span<const sock_filter> filter; /* counted from behind the link's header; must outlive the socket */
        std::uint16_t protocol;              /* ETH_P_IP, ETH_P_ARP, or ETH_P_ALL for IPv4 and to hear what leaves */
        GrowingPause pause;
        std::uint64_t holds_ms; /* one that was open for so long has not failed at once: the pause is the first again */
    };

    /* Neither handler may destroy this. */
    PacketSocket(UvLoop &loop, std::string device, Setup setup, OnPacket on_packet, OnState on_state);
    PacketSocket(const PacketSocket &) = delete;
    PacketSocket &operator=(const PacketSocket &) = delete;
    ~PacketSocket();

    bool is_open() const { return poll_ != nullptr; }
    /* The device's; of one that is open. */
    /* As the device has it now: a bridge takes that of its first port. */
    HardwareAddress own_address() const;
    /* Hands over what has come up to now, without waiting for the loop. */
    void take_now();
    /* To a hardware address on the device. 0, or an errno. */
    int send(const Bytes &packet, const HardwareAddress &to);

private:
    struct Poll; /* lives until libuv has closed it */

    /* Of these, each returns 0 or an errno. */
    int open();
    int bind_to_device();
    int watch();
    int socket_error(int otherwise) const;

    void close();
    void open_or_retry();
    void lost(int error);
    void take(int packets);

    UvLoop &loop_;
    std::string device_;
    Setup setup_;
    OnPacket on_packet_;
    OnState on_state_;
    int socket_ = -1; /* while it is open, or being opened */
    int index_ = 0;
    Poll *poll_ = nullptr;
    Loop::TimerId retry_ = 0;
    std::uint64_t opened_ms_ = 0; /* 0: it is not open */
    bool told_lost_ = false;
};

} // namespace keel

#endif
