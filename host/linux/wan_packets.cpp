#include "host/linux/wan_packets.h"

#include <linux/if_ether.h>
#include <netinet/in.h>

#include <cstring>
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
constexpr std::uint64_t first_pause_ms = 1000;
constexpr std::uint64_t longest_pause_ms = 60000;

/* IPv4 of this very device (none of a VLAN over it), UDP, no later fragment, destination port 67 or 68; counted from
 * the IP header. */
const sock_filter filter_code[] = {
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
        return WanMessage{kind_of(message, to_everybody), message.xid, message.client_id, 0,
                          Bytes(payload->begin(), payload->end())};
    }
    DhcpAnswer answer;
    if (!parse_dhcp_answer(payload->data(), payload->size(), &answer, &reason))
        return std::nullopt;
    const std::uint32_t server = answer.server_id ? answer.server_id : network_number(data + at_source);
    return WanMessage{WanMessage::Kind::Answer, answer.xid, {}, server, Bytes(payload->begin(), payload->end())};
}

/* The device's own socket hears what leaves only with the protocol of all frames. */
WanPackets::WanPackets(UvLoop &loop, std::string device, Receiver receiver)
    : device_(std::move(device)), receiver_(std::move(receiver)),
      socket_(
          loop, device_, {filter_code, ETH_P_ALL, GrowingPause(first_pause_ms, longest_pause_ms), longest_pause_ms},
          [this](const std::uint8_t *data, std::size_t size, bool leaves) {
              if (const auto message = read_wan_message(data, size, leaves))
                  receiver_(*message);
          },
          [this](int error) {
              if (error)
                  trace(Level::Warning, "wan", "%s: what its DHCP clients do is not seen: %s; it is tried again",
                        device_.c_str(), std::strerror(error));
              else
                  trace(Level::Info, "wan", "%s: what its DHCP clients do is seen again", device_.c_str());
          }) {}

} // namespace keel
