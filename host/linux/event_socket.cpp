#include "host/linux/event_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr int messages_a_turn = 1000; /* a storm must not hold the loop */
constexpr int messages_at_most = 100000;

} // namespace

struct EventSocket::Poll {
    uv_poll_t handle;
    EventSocket *owner;
};

EventSocket::EventSocket(UvLoop &loop, Source source, Receiver receiver)
    : loop_(loop), source_(std::move(source)), receiver_(std::move(receiver)) {
    if (!open()) {
        const std::string reason = std::strerror(errno);
        close();
        throw std::runtime_error("the kernel's events cannot be had: " + reason);
    }
}

EventSocket::~EventSocket() {
    loop_.cancel_timer(reopening_);
    close();
}

bool EventSocket::open() {
    socket_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, source_.protocol);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (socket_ < 0 || bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        return false;
    /* the second is bounded by net.core.rmem_max, the first needs the right to it */
    const int bytes = source_.buffer_bytes;
    if (bytes > 0 && setsockopt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) < 0)
        setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    for (const int group : source_.groups)
        if (setsockopt(socket_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0)
            return false;
    auto made = std::make_unique<Poll>(Poll{{}, this});
    if (uv_poll_init(loop_.handle(), &made->handle, socket_) != 0)
        return false;
    poll_ = made.release();
    poll_->handle.data = poll_;
    poll();
    return true;
}

void EventSocket::close() {
    if (poll_) {
        uv_poll_stop(&poll_->handle);
        uv_close(reinterpret_cast<uv_handle_t *>(&poll_->handle),
                 [](uv_handle_t *handle) { delete static_cast<Poll *>(handle->data); });
        poll_ = nullptr;
    }
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
}

void EventSocket::poll() {
    uv_poll_start(&poll_->handle, UV_READABLE, [](uv_poll_t *handle, int status, int) {
        EventSocket *self = static_cast<Poll *>(handle->data)->owner;
        self->read();
        /* an overrun too counts as an error, after which libuv polls no more */
        if (status < 0 && self->poll_ && !self->rests_)
            self->poll();
    });
}

void EventSocket::rest() {
    if (poll_)
        uv_poll_stop(&poll_->handle);
    rests_ = true;
}

void EventSocket::read() {
    read(true);
}

void EventSocket::empty() {
    read(false);
}

void EventSocket::read(bool hand_over) {
    const bool rested = std::exchange(rests_, false);
    bool overrun = false;
    for (int count = 0; count < (overrun ? messages_at_most : messages_a_turn) && socket_ >= 0 && !rests_; ++count) {
        int error = 0;
        const Outcome outcome = receive(hand_over, &error);
        if (outcome == Outcome::Failed)
            return fail(error);
        if (outcome == Outcome::Empty)
            break;
        /* From here on to the end of what it holds the kernel adds nothing; only then a look at the tables counts. */
        overrun = overrun || outcome == Outcome::Overrun;
    }
    if (rested && poll_ && !rests_)
        poll();
    if (overrun && hand_over)
        receiver_.lost();
}

EventSocket::Outcome EventSocket::receive(bool hand_over, int *error) {
    alignas(nlmsghdr) std::array<std::uint8_t, 65536> buffer;
    sockaddr_nl sender{};
    iovec part{buffer.data(), buffer.size()};
    msghdr envelope{};
    envelope.msg_name = &sender;
    envelope.msg_namelen = sizeof sender;
    envelope.msg_iov = &part;
    envelope.msg_iovlen = 1;
    const ssize_t size = recvmsg(socket_, &envelope, 0);
    if (size < 0) {
        *error = errno;
        if (errno == ENOBUFS)
            return Outcome::Overrun;
        return errno == EAGAIN ? Outcome::Empty : errno == EINTR ? Outcome::Message : Outcome::Failed;
    }
    if (sender.nl_pid != 0) /* only the kernel is to be believed */
        return Outcome::Message;
    if (hand_over)
        receiver_.messages(buffer.data(), static_cast<std::size_t>(size));
    return envelope.msg_flags & MSG_TRUNC ? Outcome::Overrun : Outcome::Message;
}

void EventSocket::fail(int error) {
    trace(Level::Warning, source_.zone, "the kernel's events are lost (%s): the socket is opened anew",
          std::strerror(error));
    close();
    reopening_ = loop_.start_timer(pause_.next_ms(), [this] { try_again(); });
    if (receiver_.deaf)
        receiver_.deaf();
}

void EventSocket::try_again() {
    rests_ = false;
    if (!open()) {
        close();
        reopening_ = loop_.start_timer(pause_.next_ms(), [this] { try_again(); });
        return;
    }
    reopening_ = 0;
    pause_.reset();
    trace(Level::Info, source_.zone, "the kernel's events are there again");
    receiver_.lost();
}

} // namespace keel
