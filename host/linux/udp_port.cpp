#include "host/linux/udp_port.h"

#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace keel {

namespace {

const sock_filter nothing[] = {BPF_STMT(BPF_RET + BPF_K, 0)};

sockaddr_in address_of(std::uint32_t address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address);
    return result;
}

} // namespace

int UdpPort::open(const std::string &device, std::uint16_t port) {
    close();
    port_ = port;
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sock_fprog filter{1, const_cast<sock_filter *>(nothing)};
    const sockaddr_in own = address_of(INADDR_ANY, port);
    if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), static_cast<socklen_t>(device.size())) < 0 ||
        bind(socket_, reinterpret_cast<const sockaddr *>(&own), sizeof own) < 0) {
        const int error = errno;
        close();
        return error;
    }
    return 0;
}

void UdpPort::close() {
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
}

int UdpPort::send(const Bytes &message, std::uint32_t from, std::uint32_t to, std::uint16_t to_port) const {
    sockaddr_in destination = address_of(to, to_port);
    iovec part{const_cast<std::uint8_t *>(message.data()), message.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr whole{};
    whole.msg_name = &destination;
    whole.msg_namelen = sizeof destination;
    whole.msg_iov = &part;
    whole.msg_iovlen = 1;
    whole.msg_control = control;
    whole.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&whole);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo source{};
    source.ipi_spec_dst.s_addr = htonl(from);
    std::memcpy(CMSG_DATA(header), &source, sizeof source);
    return sendmsg(socket_, &whole, 0) < 0 ? errno : 0;
}

} // namespace keel
