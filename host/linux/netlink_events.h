/*
 * What the kernel tells of its own accord.
 */
#ifndef HOST_LINUX_NETLINK_EVENTS_H
#define HOST_LINUX_NETLINK_EVENTS_H

#include <cstdint>
#include <functional>

#include "host/base/growing_pause.h"
#include "host/base/uv_loop.h"
#include "host/linux/netlink.h"

namespace keel {

/* The socket on which the kernel tells of changes to links, addresses, routes and neighbours. One that fails is closed
 * and opened anew, after 1 s at first and up to a minute later. */
class NetlinkEvents {
public:
    struct Receiver {
        /* Each message, in the kernel's order. */
        std::function<void(const KernelMessage &)> message;
        /* Messages may be missing: more came than the socket holds, or it had to be opened anew. What stands in it by
         * now has been handed over. */
        std::function<void()> lost;
    };

    /* The buffer's size is bytes as the kernel counts them, some 0.7 to 1 KiB a message. Throws std::runtime_error when
     * there is no such socket. */
    NetlinkEvents(UvLoop &loop, int buffer_bytes, Receiver receiver);
    NetlinkEvents(const NetlinkEvents &) = delete;
    NetlinkEvents &operator=(const NetlinkEvents &) = delete;
    ~NetlinkEvents();

    /* Hands over what stands in the socket now, without waiting for the loop. */
    void read();

private:
    struct Poll; /* lives until libuv has closed it */
    enum class Outcome { Message, Empty, Overrun, Failed };

    bool open();
    void close();
    void poll();
    void fail(int error);
    void try_again();
    Outcome receive(int *error);

    UvLoop &loop_;
    const int buffer_bytes_;
    Receiver receiver_;
    int socket_ = -1;
    Poll *poll_ = nullptr;
    Loop::TimerId reopening_ = 0;
    GrowingPause pause_{1000, 60000}; /* until the next attempt */
};

} // namespace keel

#endif
