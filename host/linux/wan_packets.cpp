#include "host/linux/wan_packets.h"

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
#include <iterator>
#include <utility>

#include "host/base/trace.h"
#include "host/dhcp/frame.h"
#include "host/dhcp/packet.h"

namespace keel {

namespace {

constexpr std::uint16_t server_port = 67;
constexpr std::uint16_t client_port = 68;
constexpr std::size_t at_source = 12; /* in the IP header */
constexpr std::size_t at_destination = 16;
constexpr std::uint32_t everybody = 0xffffffff;
constexpr std::uint64_t longest_retry_ms = 60000;
constexpr int frames_per_turn = 32;
constexpr int frames_at_once = 256; /* of take_now(): more than the socket holds of these */

/* IPv4 of this very device (none of a VLAN over it), UDP, no later fragment, destination port 67 or 68; counted from
 * the IP header. */
sock_filter filter_code[] = {
    BPF_STMT(BPF_LD + BPF_W + BPF_ABS, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PROTOCOL)),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, ETH_P_IP, 0, 11),
    BPF_STMT(BPF_LD + BPF_W + BPF_ABS, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_VLAN_TAG)),
    BPF_JUMP(BPF_JMP + BPF_JSET + BPF_K, 0x0fff, 9, 0),
    BPF_STMT(BPF_LD + BPF_B + BPF_ABS, 9),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, IPPROTO_UDP, 0, 7),
    BPF_STMT(BPF_LD + BPF_H + BPF_ABS, 6),
    BPF_JUMP(BPF_JMP + BPF_JSET + BPF_K, 0x1fff, 5, 0),
    BPF_STMT(BPF_LDX + BPF_B + BPF_MSH, 0),
    BPF_STMT(BPF_LD + BPF_H + BPF_IND, 2),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, server_port, 1, 0),
    BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, client_port, 0, 1),
    BPF_STMT(BPF_RET + BPF_K, 0xffff),
    BPF_STMT(BPF_RET + BPF_K, 0),
};

WanMessage::Kind kind_of(const DhcpMessage &message, bool to_everybody) {
    if (message.type == DhcpType::Discover)
        return WanMessage::Kind::Discover;
    if (message.type != DhcpType::Request)
        return WanMessage::Kind::Other;
    if (message.client_address == 0 || message.server_id != 0)
        return WanMessage::Kind::Select;
    return to_everybody ? WanMessage::Kind::Rebind : WanMessage::Kind::Renew;
}

} // namespace

std::optional<WanMessage> read_wan_message(const std::uint8_t *data, std::size_t size, bool leaves) {
    const auto payload = parse_udp_packet(data, size, leaves ? server_port : client_port);
    if (!payload)
        return std::nullopt;
    std::string reason;
    if (leaves) {
        DhcpMessage message;
        if (!parse_dhcp(payload->data(), payload->size(), &message, &reason))
            return std::nullopt;
        const bool to_everybody = network_number(data + at_destination) == everybody;
        return WanMessage{kind_of(message, to_everybody), message.xid, message.client_id, 0};
    }
    DhcpAnswer answer;
    if (!parse_dhcp_answer(payload->data(), payload->size(), &answer, &reason))
        return std::nullopt;
    const std::uint32_t server = answer.server_id ? answer.server_id : network_number(data + at_source);
    return WanMessage{WanMessage::Kind::Answer, answer.xid, {}, server};
}

struct WanPackets::Poll {
    uv_poll_t handle;
    WanPackets *owner;
};

WanPackets::WanPackets(UvLoop &loop, std::string device, Receiver receiver)
    : loop_(loop), device_(std::move(device)), receiver_(std::move(receiver)) {
    open_or_retry();
}

WanPackets::~WanPackets() {
    loop_.cancel_timer(retry_);
    close();
}

void WanPackets::open_or_retry() {
    retry_ = 0;
    if (const int error = open())
        failed(error);
}

/* The device's own socket hears what leaves only with the protocol of all frames. It is made of protocol 0, which takes
 * nothing: with one, it would hear all devices until it is bound, and the bind would wait until no processor is still
 * in the middle of a frame. */
int WanPackets::open() {
    const unsigned index = if_nametoindex(device_.c_str());
    if (index == 0)
        return errno;
    socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sock_fprog filter{std::size(filter_code), filter_code};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index);
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0 ||
        bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
        return errno;
    poll_ = new Poll{{}, this};
    if (const int error = uv_poll_init(loop_.handle(), &poll_->handle, socket_)) {
        delete std::exchange(poll_, nullptr);
        return -error;
    }
    poll_->handle.data = poll_;
    return -uv_poll_start(&poll_->handle, UV_READABLE, [](uv_poll_t *handle, int status, int) {
        WanPackets *owner = static_cast<Poll *>(handle->data)->owner;
        owner->take(frames_per_turn); /* which finds out what is wrong, if something is */
        if (status < 0 && owner->poll_)
            owner->failed(-status);
    });
}

void WanPackets::close() {
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

void WanPackets::failed(int error) {
    close();
    if (failures_++ == 0)
        trace(Level::Warning, "wan", "%s: what its DHCP clients do is not seen: %s; it is tried again", device_.c_str(),
              std::strerror(error));
    const std::uint64_t wait = std::min(longest_retry_ms, std::uint64_t{1000} << std::min(failures_ - 1, 6U));
    retry_ = loop_.start_timer(wait, [this] { open_or_retry(); });
}

void WanPackets::take(int frames) {
    std::uint8_t frame[2048];
    for (; frames > 0 && socket_ >= 0; --frames) {
        sockaddr_ll from{};
        socklen_t from_size = sizeof from;
        const ssize_t size = recvfrom(socket_, frame, sizeof frame, 0, reinterpret_cast<sockaddr *>(&from), &from_size);
        if (size < 0) {
            if (errno != EAGAIN && errno != EINTR)
                failed(errno);
            return;
        }
        failures_ = 0;
        if (const auto message =
                read_wan_message(frame, static_cast<std::size_t>(size), from.sll_pkttype == PACKET_OUTGOING))
            receiver_(*message);
    }
}

void WanPackets::take_now() {
    take(frames_at_once);
}

} // namespace keel
