/*
 * What the kernel tells of its own accord.
 */
#ifndef HOST_LINUX_EVENT_SOCKET_H
#define HOST_LINUX_EVENT_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "host/base/growing_pause.h"
#include "host/base/uv_loop.h"

namespace keel {

/* A netlink socket on which the kernel tells of changes. One that fails is closed and opened anew, after 1 s at first
 * and up to a minute later. */
class EventSocket {
public:
    struct Source {
        int protocol; /* NETLINK_... */
        std::vector<int> groups;
        int buffer_bytes; /* as the kernel counts them, some 0.7 to 1 KiB a message; 0 for its own choice */
        const char *zone; /* of the traces */
    };
    struct Receiver {
        /* What came at once, one message or more, each behind its nlmsghdr; in the kernel's order. */
        std::function<void(const std::uint8_t *data, std::size_t size)> messages;
        /* Messages may be missing: more came than the socket holds, or it had to be opened anew. What stands in it by
         * now has been handed over. */
        std::function<void()> lost;
        /* It has failed, and tells nothing until lost() is called. May be empty. */
        std::function<void()> deaf;
    };

    /* Throws std::runtime_error when there is no such socket. */
    EventSocket(UvLoop &loop, Source source, Receiver receiver);
    EventSocket(const EventSocket &) = delete;
    EventSocket &operator=(const EventSocket &) = delete;
    ~EventSocket();

    /* Hands over what stands in the socket now, without waiting for the loop. */
    void read();
    /* From now on nothing wakes the loop, or is handed over, until it is read or emptied. */
    void rest();
    /* Drops what stands in it. */
    void empty();
    /* Whether the kernel tells of changes: not while a socket that has failed is not open again. */
    bool hears() const { return poll_ != nullptr; }

private:
    struct Poll; /* lives until libuv has closed it */
    enum class Outcome { Message, Empty, Overrun, Failed };

    bool open();
    void close();
    void poll();
    void read(bool hand_over);
    void fail(int error);
    void try_again();
    Outcome receive(bool hand_over, int *error);

    UvLoop &loop_;
    const Source source_;
    Receiver receiver_;
    int socket_ = -1;
    Poll *poll_ = nullptr;
    bool rests_ = false;
    Loop::TimerId reopening_ = 0;
    GrowingPause pause_{1000, 60000}; /* until the next attempt */
};

} // namespace keel

#endif
