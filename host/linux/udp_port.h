/*
 * A UDP port of this machine that belongs to a service which does not receive by it.
 */
#ifndef HOST_LINUX_UDP_PORT_H
#define HOST_LINUX_UDP_PORT_H

#include <cstdint>
#include <string>

#include "host/base/text_forms.h"

namespace keel {

/* While it is open nobody who sends to the port on that network device is told that it is unreachable (ICMP), as the
 * kernel does for a port without a socket; what comes in by it is dropped. */
class UdpPort {
public:
    UdpPort() = default;
    UdpPort(const UdpPort &) = delete;
    UdpPort &operator=(const UdpPort &) = delete;
    ~UdpPort() { close(); }

    /* 0, or an errno: EADDRINUSE when another program has the port. One that is open is opened anew. */
    int open(const std::string &device, std::uint16_t port);
    void close();
    /* From that address (host order, as the other; one of this machine's) and port to a port of another machine. 0, or
     * an errno. */
    int send(const Bytes &message, std::uint32_t from, std::uint32_t to, std::uint16_t to_port) const;

private:
    int socket_ = -1;
    std::uint16_t port_ = 0;
};

} // namespace keel

#endif
