/*
 * The LAN DHCP server's port on the real network: a packet socket on the LAN bridge, since a device that has no address
 * yet can be answered in no other way, and one for ARP.
 */
#ifndef HOST_LINUX_LAN_PORT_H
#define HOST_LINUX_LAN_PORT_H

#include <functional>
#include <string>
#include <utility>

#include "host/dhcp/lan_server.h"
#include "host/linux/kernel_tables.h"
#include "host/linux/packet_socket.h"
#include "host/linux/udp_port.h"

namespace keel {

class PacketLanPort : public LanPort {
public:
    using Receiver = std::function<void(const std::uint8_t *data, std::size_t size)>;
    using OnOwner = std::function<void(std::uint32_t address, const HardwareAddress &owner)>;

    /* Whoever has an address that was asked for is told to on_owner. Loop and tables must outlive the port. While the
     * interface is down, or there is none, it is looked for soon and then once a second; the loss is traced once, and
     * so is its end. */
    PacketLanPort(UvLoop &loop, KernelTables &tables, std::string interface, Receiver receiver, OnOwner on_owner);
    PacketLanPort(const PacketLanPort &) = delete;
    PacketLanPort &operator=(const PacketLanPort &) = delete;
    ~PacketLanPort() override;

    bool is_open() const { return socket_.is_open(); }
    /* Called once, the next time that the interface is open again. */
    void on_open(std::function<void()> opened) { opened_ = std::move(opened); }

    /* Nothing is sent while the interface is not open. */
    void send(const Bytes &message, const DhcpDestination &destination) override;
    void probe(std::uint32_t address) override;
    /* On an interface that is no bridge each device is behind the interface itself. */
    std::string port_of(const HardwareAddress &device) override;

private:
    void state_changed(int error);
    void take_port();
    std::string learned_behind(const HardwareAddress &device) const;
    void send_routed(const Bytes &message, const DhcpDestination &destination) const;

    UvLoop &loop_;
    std::string interface_;
    Receiver receiver_;
    std::function<void()> opened_;
    KernelTables &tables_;
    UdpPort port_;               /* so that the kernel refuses nobody what the packet socket takes */
    bool port_is_taken_ = false; /* by another program */
    Loop::TimerId port_again_ = 0;
    PacketSocket socket_;
    PacketSocket arp_;
};

} // namespace keel

#endif
