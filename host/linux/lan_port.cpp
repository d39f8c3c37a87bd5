#include "host/linux/lan_port.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "host/base/trace.h"
#include "host/dhcp/frame.h"

namespace keel {

namespace {

constexpr std::uint64_t first_pause_ms = 100;
constexpr std::uint64_t last_pause_ms = 1000;
constexpr std::uint16_t server_port = 67;
constexpr std::uint16_t client_port = 68;
constexpr int frames_per_turn = 32;

/* IPv4, UDP, no later fragment, destination port 67; counted from the IP header. */
sock_filter filter_code[] = {
    BPF_STMT(BPF_LD + BPF_B + BPF_ABS, 9),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, IPPROTO_UDP, 0, 6),
    BPF_STMT(BPF_LD + BPF_H + BPF_ABS, 6),
    BPF_JUMP(BPF_JMP + BPF_JSET + BPF_K, 0x1fff, 4, 0),
    BPF_STMT(BPF_LDX + BPF_B + BPF_MSH, 0),
    BPF_STMT(BPF_LD + BPF_H + BPF_IND, 2),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, server_port, 0, 1),
    BPF_STMT(BPF_RET + BPF_K, 0xffff),
    BPF_STMT(BPF_RET + BPF_K, 0),
};

} // namespace

struct PacketLanPort::Poll {
    uv_poll_t handle;
    PacketLanPort *owner;
};

PacketLanPort::PacketLanPort(UvLoop &loop, std::string interface, Receiver receiver)
    : loop_(loop), interface_(std::move(interface)), receiver_(std::move(receiver)),
      pause_(first_pause_ms, last_pause_ms) {
    open_or_retry();
}

PacketLanPort::~PacketLanPort() {
    loop_.cancel_timer(retry_);
    close();
}

void PacketLanPort::open_or_retry() {
    retry_ = 0;
    if (const int error = open()) {
        lost(error);
        return;
    }
    opened_ms_ = loop_.now_ms();
    if (complained_)
        trace(Level::Info, "lan", "DHCP is served on %s again", interface_.c_str());
    complained_ = false;
}

/* One that is lost right after it was opened is not opened without a pause for ever. */
void PacketLanPort::lost(int error) {
    close();
    if (!complained_)
        trace(Level::Error, "lan", "cannot serve DHCP on %s: %s; it is tried again", interface_.c_str(),
              std::strerror(error));
    complained_ = true;
    if (opened_ms_ != 0 && loop_.now_ms() - opened_ms_ >= last_pause_ms)
        pause_.reset();
    opened_ms_ = 0;
    loop_.cancel_timer(retry_);
    retry_ = loop_.start_timer(pause_.next_ms(), [this] { open_or_retry(); });
}

int PacketLanPort::open() {
    const int error = bind_to_interface();
    return error ? error : watch();
}

int PacketLanPort::bind_to_interface() {
    index_ = static_cast<int>(if_nametoindex(interface_.c_str()));
    if (index_ == 0)
        return errno;
    /* of protocol 0, which takes nothing: until it is bound, a packet socket hears all interfaces */
    socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sock_fprog filter{std::size(filter_code), filter_code};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = index_;
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0 ||
        bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
        return errno;
    return socket_error(0); /* an interface that is down can be bound to all the same */
}

int PacketLanPort::watch() {
    auto poll = std::make_unique<Poll>(Poll{{}, this});
    if (const int result = uv_poll_init(loop_.handle(), &poll->handle, socket_))
        return -result;
    poll_ = poll.release();
    poll_->handle.data = poll_;
    return -uv_poll_start(&poll_->handle, UV_READABLE, [](uv_poll_t *handle, int status, int) {
        PacketLanPort *owner = static_cast<Poll *>(handle->data)->owner;
        if (status == 0)
            owner->take_frames();
        else
            owner->lost(owner->socket_error(-status));
    });
}

/* What is wrong with the socket; libuv knows no more than that something is. */
int PacketLanPort::socket_error(int otherwise) const {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error ? error : otherwise;
}

void PacketLanPort::close() {
    if (poll_)
        uv_close(reinterpret_cast<uv_handle_t *>(&poll_->handle),
                 [](uv_handle_t *handle) { delete static_cast<Poll *>(handle->data); });
    poll_ = nullptr;
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
}

void PacketLanPort::take_frames() {
    std::uint8_t frame[2048];
    for (int count = 0; count < frames_per_turn && socket_ >= 0; ++count) {
        sockaddr_ll from{};
        socklen_t from_size = sizeof from;
        const ssize_t size = recvfrom(socket_, frame, sizeof frame, 0, reinterpret_cast<sockaddr *>(&from), &from_size);
        if (size < 0) {
            if (errno != EAGAIN && errno != EINTR)
                lost(errno);
            return;
        }
        if (from.sll_pkttype == PACKET_OUTGOING)
            continue;
        if (const auto message = parse_udp_packet(frame, static_cast<std::size_t>(size), server_port))
            receiver_(message->data(), message->size());
    }
}

void PacketLanPort::send(const Bytes &message, const DhcpDestination &destination) {
    if (socket_ < 0)
        return;
    const auto packet = build_udp_packet({destination.source, server_port, destination.address, client_port}, message);
    if (!packet) {
        trace(Level::Warning, "lan", "%s: a DHCP reply of %zu bytes is too long to be sent", interface_.c_str(),
              message.size());
        return;
    }
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = index_;
    to.sll_halen = ETH_ALEN;
    std::copy(destination.hardware.begin(), destination.hardware.end(), to.sll_addr);
    if (sendto(socket_, packet->data(), packet->size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) >= 0)
        return;
    const int error = errno;
    trace(Level::Warning, "lan", "%s: a DHCP reply could not be sent: %s", interface_.c_str(), std::strerror(error));
    if (error == ENETDOWN || error == ENXIO || error == ENODEV) /* the poll may not tell it any more */
        lost(error);
}

} // namespace keel
