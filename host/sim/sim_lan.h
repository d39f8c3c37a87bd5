/*
 * A LAN of simulated devices, for the LAN DHCP server to talk to.
 */
#ifndef HOST_SIM_SIM_LAN_H
#define HOST_SIM_SIM_LAN_H

#include <map>
#include <string>
#include <vector>

#include "host/base/loop.h"
#include "host/dhcp/lan_server.h"

namespace keel {

class SimDevice;

/* The wire between the server and the devices. */
class SimLan : public LanPort {
public:
    explicit SimLan(Loop &loop) : loop_(loop) {}

    void send(const Bytes &message, const DhcpDestination &destination) override;
    void probe(std::uint32_t address) override;
    std::string port_of(const HardwareAddress &device) override;
    void to_server(const Bytes &message);
    void plug_in(LanDhcpServer *server) { server_ = server; }

    std::map<std::uint32_t, HardwareAddress> squatters; /* who has an address without asking for it */
    std::uint64_t answers_probes_after_ms = 1;          /* those, and devices of their own address */
    std::string port_of_others;                         /* behind which the bridge has seen who is no device here */
    std::vector<DhcpDestination> sent;                  /* where each reply went */

protected:
    /* This device answers a probe. */
    void claim(std::uint32_t address, const HardwareAddress &owner);

private:
    friend class SimDevice;

    Loop &loop_;
    LanDhcpServer *server_ = nullptr;
    std::vector<SimDevice *> devices_;
};

/* A DHCP client on the LAN: asks, takes the first offer, renews at half time. */
class SimDevice {
public:
    struct Answer {
        std::uint64_t at_ms;
        DhcpType type;
        std::string address;
        std::map<int, Bytes> options;
        std::uint32_t lease_time() const;
    };

    SimDevice(Loop &loop, SimLan &lan, unsigned number, std::string vendor_class);
    SimDevice(const SimDevice &) = delete;
    SimDevice &operator=(const SimDevice &) = delete;
    ~SimDevice();

    void start();
    /* Without a word to the server. */
    void stop();
    /* Gives its lease back, then stops. */
    void leave();
    /* Has found its address in use, and asks anew. */
    void decline();

    std::string mac() const;                                /* upper case */
    std::string id() const;                                 /* the name of its lease */
    const std::string &address() const { return address_; } /* "" for none */
    const std::vector<Answer> &answers() const { return answers_; }
    const Answer *last(DhcpType type) const;
    Bytes client_id;           /* option 61; may be empty */
    std::string host_name;     /* option 12, likewise */
    std::string port = "lan1"; /* of the bridge; "" while the bridge has not seen it */
    std::uint32_t relay = 0;   /* through which its messages come */
    std::uint32_t wanted_lease_time = 0;
    bool tells_class_once = false; /* in its DISCOVER alone */
    HardwareAddress hardware;

private:
    friend class SimLan;

    Bytes message(DhcpType type, const std::string &requested, const std::string &current) const;
    void discover();
    void renew();
    void take(const Bytes &message);

    Loop &loop_;
    SimLan &lan_;
    std::string vendor_class_;
    std::string address_;
    std::string server_ = "192.168.1.1"; /* whose offer it took last */
    std::vector<Answer> answers_;
    Loop::TimerId timer_ = 0;
    bool running_ = false;
};

} // namespace keel

#endif
