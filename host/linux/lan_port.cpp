#include "host/linux/lan_port.h"

#include <linux/if_ether.h>
#include <netinet/in.h>

#include <cstring>
#include <utility>

#include "host/base/trace.h"
#include "host/dhcp/frame.h"

namespace keel {

namespace {

constexpr std::uint64_t first_pause_ms = 100;
constexpr std::uint64_t longest_pause_ms = 1000;
constexpr std::uint16_t server_port = 67;
constexpr std::uint16_t client_port = 68;

/* IPv4, UDP, no later fragment, destination port 67; counted from the IP header. */
const sock_filter filter_code[] = {
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

PacketLanPort::PacketLanPort(UvLoop &loop, std::string interface, Receiver receiver)
    : interface_(std::move(interface)), receiver_(std::move(receiver)),
      socket_(
          loop, interface_, {filter_code, ETH_P_IP, GrowingPause(first_pause_ms, longest_pause_ms), longest_pause_ms},
          [this](const std::uint8_t *data, std::size_t size, bool) {
              if (const auto message = parse_udp_packet(data, size, server_port))
                  receiver_(message->data(), message->size());
          },
          [this](int error) { state_changed(error); }) {}

void PacketLanPort::state_changed(int error) const {
    if (error)
        trace(Level::Error, "lan", "cannot serve DHCP on %s: %s; it is tried again", interface_.c_str(),
              std::strerror(error));
    else
        trace(Level::Info, "lan", "DHCP is served on %s again", interface_.c_str());
}

void PacketLanPort::send(const Bytes &message, const DhcpDestination &destination) {
    if (!socket_.is_open())
        return;
    const auto packet = build_udp_packet({destination.source, server_port, destination.address, client_port}, message);
    if (!packet)
        trace(Level::Warning, "lan", "%s: a DHCP reply of %zu bytes is too long to be sent", interface_.c_str(),
              message.size());
    else if (const int error = socket_.send(*packet, destination.hardware))
        trace(Level::Warning, "lan", "%s: a DHCP reply could not be sent: %s", interface_.c_str(),
              std::strerror(error));
}

} // namespace keel
