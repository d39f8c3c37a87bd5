#include "host/linux/packet_socket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace keel {

namespace {
constexpr int packets_per_turn = 32;
constexpr int packets_at_once = 256; /* of take_now(): more than the socket holds */
} // namespace

struct PacketSocket::Poll {
    uv_poll_t handle;
    PacketSocket *owner;
};

PacketSocket::PacketSocket(UvLoop &loop, std::string device, Setup setup, OnPacket on_packet, OnState on_state)
    : loop_(loop), device_(std::move(device)), setup_(setup), on_packet_(std::move(on_packet)),
      on_state_(std::move(on_state)) {
    open_or_retry();
}

PacketSocket::~PacketSocket() {
    loop_.cancel_timer(retry_);
    close();
}

void PacketSocket::open_or_retry() {
    retry_ = 0;
    if (const int error = open()) {
        lost(error);
        return;
    }
    opened_ms_ = loop_.now_ms();
    if (std::exchange(told_lost_, false))
        on_state_(0);
}

/* One that is lost right after it was opened is not opened without a pause for ever. */
void PacketSocket::lost(int error) {
    close();
    if (!std::exchange(told_lost_, true))
        on_state_(error);
    if (opened_ms_ != 0 && loop_.now_ms() - opened_ms_ >= setup_.holds_ms)
        setup_.pause.reset();
    opened_ms_ = 0;
    loop_.cancel_timer(retry_);
    retry_ = loop_.start_timer(setup_.pause.next_ms(), [this] { open_or_retry(); });
}

int PacketSocket::open() {
    const int error = bind_to_device();
    return error ? error : watch();
}

/* It is made of protocol 0, which takes nothing: with another one it would hear all devices until it is bound, and the
 * bind would wait until no processor is still in the middle of a packet. */
int PacketSocket::bind_to_device() {
    index_ = static_cast<int>(if_nametoindex(device_.c_str()));
    if (index_ == 0)
        return errno;
    socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sock_fprog filter{static_cast<unsigned short>(setup_.filter.size()),
                            const_cast<sock_filter *>(setup_.filter.data())};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(setup_.protocol);
    address.sll_ifindex = index_;
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0 ||
        bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
        return errno;
    return socket_error(0); /* a device that is down can be bound to all the same */
}

HardwareAddress PacketSocket::own_address() const {
    HardwareAddress own{};
    sockaddr_ll address{};
    socklen_t size = sizeof address;
    if (getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size) == 0)
        std::copy_n(address.sll_addr, own.size(), own.begin());
    return own;
}

int PacketSocket::watch() {
    auto poll = std::make_unique<Poll>(Poll{{}, this});
    if (const int result = uv_poll_init(loop_.handle(), &poll->handle, socket_))
        return -result;
    poll_ = poll.release();
    poll_->handle.data = poll_;
    return -uv_poll_start(&poll_->handle, UV_READABLE, [](uv_poll_t *handle, int status, int) {
        PacketSocket *owner = static_cast<Poll *>(handle->data)->owner;
        if (status == 0)
            owner->take(packets_per_turn);
        else
            owner->lost(owner->socket_error(-status));
    });
}

/* What is wrong with the socket; libuv knows no more than that something is. */
int PacketSocket::socket_error(int otherwise) const {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error ? error : otherwise;
}

void PacketSocket::close() {
    if (poll_)
        uv_close(reinterpret_cast<uv_handle_t *>(&poll_->handle),
                 [](uv_handle_t *handle) { delete static_cast<Poll *>(handle->data); });
    poll_ = nullptr;
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
}

void PacketSocket::take(int packets) {
    std::uint8_t packet[2048];
    for (; packets > 0 && socket_ >= 0; --packets) {
        sockaddr_ll from{};
        socklen_t from_size = sizeof from;
        const ssize_t size =
            recvfrom(socket_, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&from), &from_size);
        if (size < 0) {
            if (errno != EAGAIN && errno != EINTR)
                lost(errno);
            return;
        }
        on_packet_(packet, static_cast<std::size_t>(size), from.sll_pkttype == PACKET_OUTGOING);
    }
}

void PacketSocket::take_now() {
    take(packets_at_once);
}

int PacketSocket::send(const Bytes &packet, const HardwareAddress &to) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(setup_.protocol == ETH_P_ALL ? ETH_P_IP : setup_.protocol);
    address.sll_ifindex = index_;
    address.sll_halen = ETH_ALEN;
    std::copy(to.begin(), to.end(), address.sll_addr);
    const ssize_t sent =
        sendto(socket_, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
    const int error = sent < 0 ? errno : 0;
    if (error == ENETDOWN || error == ENXIO || error == ENODEV) /* the poll may not tell it any more */
        lost(error);
    return error;
}

} // namespace keel
