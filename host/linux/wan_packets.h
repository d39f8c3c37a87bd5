/*
 * What the WAN DHCP clients and their servers say to each other on a network device: what a client does is seen on the
 * wire, whatever words its program has for it.
 */
#ifndef HOST_LINUX_WAN_PACKETS_H
#define HOST_LINUX_WAN_PACKETS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/base/text_forms.h"
#include "host/linux/packet_socket.h"

namespace keel {

struct WanMessage {
    enum class Kind {
        Discover, /* of a client: it looks for a server, */
        Select,   /* asks for an address, offered or of earlier, */
        Renew,    /* asks its server for more time, */
        Rebind,   /* or all servers; */
        Other,    /* anything else that it sends */
        Answer    /* of a server */
    };
    Kind kind = Kind::Other;
    std::uint32_t xid = 0;
    Bytes client_id;          /* option 61 of a client's message */
    std::uint32_t server = 0; /* of an answer: the server's identifier, or where it came from */
    Bytes payload = {};       /* the DHCP message as it is */
};

/* Reads an IPv4 packet: of those that leave a client's messages, of those that come a server's; nothing for any other.
 */
std::optional<WanMessage> read_wan_message(const std::uint8_t *data, std::size_t size, bool leaves);

/* Listens on one device. While that cannot be done it is tried again, after 1 s and then less and less often. */
class WanPackets {
public:
    using Receiver = std::function<void(const WanMessage &message)>;

    /* The receiver is called in the order of the messages, and must not destroy this. */
    WanPackets(UvLoop &loop, std::string device, Receiver receiver);
    WanPackets(const WanPackets &) = delete;
    WanPackets &operator=(const WanPackets &) = delete;

    /* Has the receiver called now for what has passed up to now. */
    void take_now() { socket_.take_now(); }

private:
    std::string device_;
    Receiver receiver_;
    PacketSocket socket_;
};

} // namespace keel

#endif
