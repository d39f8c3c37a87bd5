#include "host/linux/lan_port.h"

#include <linux/if_ether.h>
#include <net/if_arp.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/base/trace.h"
#include "host/dhcp/frame.h"

namespace keel {

namespace {

constexpr std::uint64_t first_pause_ms = 100;
constexpr std::uint64_t longest_pause_ms = 1000;
constexpr std::uint64_t port_again_ms = 10000;
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

/* ARP replies to who has no address: the answers to probes, and to nothing else that this machine asks. */
const sock_filter arp_filter_code[] = {
    BPF_STMT(BPF_LD + BPF_H + BPF_ABS, 6),  BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, ARPOP_REPLY, 0, 3),
    BPF_STMT(BPF_LD + BPF_W + BPF_ABS, 24), BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, 0, 0, 1),
    BPF_STMT(BPF_RET + BPF_K, 0xffff),      BPF_STMT(BPF_RET + BPF_K, 0),
};

constexpr HardwareAddress to_all = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

} // namespace

PacketLanPort::PacketLanPort(UvLoop &loop, KernelTables &tables, std::string interface, Receiver receiver,
                             OnOwner on_owner)
    : loop_(loop), interface_(std::move(interface)), receiver_(std::move(receiver)), tables_(tables),
      socket_(
          loop, interface_, {filter_code, ETH_P_IP, GrowingPause(first_pause_ms, longest_pause_ms), longest_pause_ms},
          [this](const std::uint8_t *data, std::size_t size, bool) {
              if (const auto message = parse_udp_packet(data, size, server_port))
                  receiver_(message->data(), message->size());
          },
          [this](int error) { state_changed(error); }),
      arp_(
          loop, interface_,
          {arp_filter_code, ETH_P_ARP, GrowingPause(first_pause_ms, longest_pause_ms), longest_pause_ms},
          [on_owner = std::move(on_owner)](const std::uint8_t *data, std::size_t size, bool) {
              if (const auto owner = parse_arp_answer(data, size))
                  on_owner(owner->address, owner->hardware);
          },
          [](int) { /* it is lost and found together with the other, which tells */ }) {
    if (socket_.is_open())
        take_port();
}

PacketLanPort::~PacketLanPort() {
    loop_.cancel_timer(port_again_);
}

void PacketLanPort::state_changed(int error) {
    if (error)
        trace(Level::Error, "lan", "cannot serve DHCP on %s: %s; it is tried again", interface_.c_str(),
              std::strerror(error));
    else
        trace(Level::Info, "lan", "DHCP is served on %s again", interface_.c_str());
    if (error)
        port_.close();
    else
        take_port(); /* it may be another device of that name */
    if (const auto opened = error ? nullptr : std::exchange(opened_, nullptr))
        opened();
}

void PacketLanPort::send(const Bytes &message, const DhcpDestination &destination) {
    if (!socket_.is_open())
        return;
    if (destination.routed)
        return send_routed(message, destination);
    const auto packet = build_udp_packet({destination.source, server_port, destination.address, client_port}, message);
    if (!packet)
        trace(Level::Warning, "lan", "%s: a DHCP reply of %zu bytes is too long to be sent", interface_.c_str(),
              message.size());
    else if (const int error = socket_.send(*packet, destination.hardware))
        trace(Level::Warning, "lan", "%s: a DHCP reply could not be sent: %s", interface_.c_str(),
              std::strerror(error));
}

/* A relay has an address, and so has who is behind it and renews: the kernel finds the way. */
void PacketLanPort::send_routed(const Bytes &message, const DhcpDestination &destination) const {
    const std::uint16_t port = destination.relay ? server_port : client_port;
    if (const int error = port_.send(message, destination.source, destination.address, port))
        trace(Level::Warning, "lan", "%s: a DHCP reply to %s %s could not be sent: %s", interface_.c_str(),
              destination.relay ? "the relay" : "the device", format_ipv4(destination.address).c_str(),
              std::strerror(error));
}

/* Of a device that is not there the packet socket tells. */
void PacketLanPort::take_port() {
    loop_.cancel_timer(port_again_);
    port_again_ = 0;
    const int error = port_.open(interface_, server_port);
    const bool taken = error && error != ENODEV;
    if (taken)
        port_again_ = loop_.start_timer(port_again_ms, [this] { take_port(); });
    if (taken == std::exchange(port_is_taken_, taken))
        return;
    if (!taken)
        trace(Level::Info, "lan", "%s: UDP port %u is ours", interface_.c_str(), server_port);
    else
        trace(Level::Warning, "lan",
              "%s: UDP port %u cannot be had: %s; with another DHCP server on this machine devices get two answers "
              "(ss -ulpn tells who has it)",
              interface_.c_str(), server_port, std::strerror(error));
}

void PacketLanPort::probe(std::uint32_t address) {
    if (arp_.is_open())
        arp_.send(build_arp_probe(arp_.own_address(), address), to_all);
}

/* The bridge learns a device from the very packet that is answered: what the kernel has told of it is taken in first.
 */
std::string PacketLanPort::port_of(const HardwareAddress &device) {
    const KernelLink *lan = tables_.link(interface_);
    if (!lan || !lan->bridge)
        return interface_;
    std::string port = learned_behind(device);
    if (!port.empty())
        return port;
    tables_.catch_up();
    return learned_behind(device);
}

std::string PacketLanPort::learned_behind(const HardwareAddress &device) const {
    const KernelLink *lan = tables_.link(interface_);
    for (const KernelForwarding &entry : tables_.forwarding_of(format_mac(device.data()))) {
        const KernelLink *port = tables_.link(entry.port);
        if (lan && port && port->up && entry.bridge == lan->index && entry.port != lan->index)
            return port->name;
    }
    return "";
}

} // namespace keel
