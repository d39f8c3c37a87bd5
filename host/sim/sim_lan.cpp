#include "host/sim/sim_lan.h"

#include <tins/dhcp.h>

#include <algorithm>

namespace keel {

namespace {
constexpr std::uint64_t retry_ms = 3000;
} // namespace

void SimLan::send(const Bytes &message, const DhcpDestination &destination) {
    sent.push_back(destination);
    loop_.post([this, message] {
        const auto devices = devices_;
        for (SimDevice *device : devices)
            device->take(message);
    });
}

void SimLan::probe(std::uint32_t address) {
    if (const auto squatter = squatters.find(address); squatter != squatters.end())
        claim(address, squatter->second);
    for (const SimDevice *device : devices_)
        if (device->running_ && device->address_ == format_ipv4(address))
            claim(address, device->hardware);
}

void SimLan::claim(std::uint32_t address, const HardwareAddress &owner) {
    loop_.start_timer(answers_probes_after_ms, [this, address, owner] {
        if (server_)
            server_->address_used(address, owner);
    });
}

std::string SimLan::port_of(const HardwareAddress &hardware) {
    for (const SimDevice *device : devices_)
        if (device->running_ && device->hardware == hardware)
            return device->port;
    return port_of_others;
}

void SimLan::to_server(const Bytes &message) {
    loop_.post([this, message] {
        if (server_)
            server_->received(message.data(), message.size());
    });
}

std::uint32_t SimDevice::Answer::lease_time() const {
    const auto found = options.find(51);
    if (found == options.end() || found->second.size() != 4)
        return 0;
    return network_number(found->second.data());
}

SimDevice::SimDevice(Loop &loop, SimLan &lan, unsigned number, std::string vendor_class)
    : loop_(loop), lan_(lan), vendor_class_(std::move(vendor_class)) {
    hardware = {0x02, 0xab, 0, 0, static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
    lan_.devices_.push_back(this);
}

SimDevice::~SimDevice() {
    stop();
    std::erase(lan_.devices_, this);
}

std::string SimDevice::mac() const {
    return format_mac(hardware.data());
}

std::string SimDevice::id() const {
    return client_id.empty() ? "01" + format_hex(Bytes(hardware.begin(), hardware.end())) : format_hex(client_id);
}

const SimDevice::Answer *SimDevice::last(DhcpType type) const {
    const auto found =
        std::find_if(answers_.rbegin(), answers_.rend(), [&](const Answer &answer) { return answer.type == type; });
    return found == answers_.rend() ? nullptr : &*found;
}

Bytes SimDevice::message(DhcpType type, const std::string &requested, const std::string &current) const {
    Tins::DHCP packet;
    packet.opcode(1);
    packet.htype(1);
    packet.hlen(6);
    packet.xid(0x2000U + hardware[5]);
    packet.chaddr(Tins::HWAddress<6>(hardware.data()));
    packet.type(static_cast<Tins::DHCP::Flags>(type));
    if (!current.empty())
        packet.ciaddr(Tins::IPv4Address(current));
    if (!requested.empty()) {
        const Bytes bytes = network_bytes(ipv4_or_none(requested));
        packet.add_option({Tins::DHCP::DHCP_REQUESTED_ADDRESS, bytes.begin(), bytes.end()});
        packet.server_identifier(Tins::IPv4Address(server_));
    }
    const bool bare = type == DhcpType::Release || type == DhcpType::Decline; /* RFC 2131, table 5 */
    const bool tells_class = !bare && (type == DhcpType::Discover || !tells_class_once);
    if (tells_class && !vendor_class_.empty())
        packet.add_option({Tins::DHCP::VENDOR_CLASS_IDENTIFIER, vendor_class_.begin(), vendor_class_.end()});
    if (!client_id.empty())
        packet.add_option({Tins::DHCP::DHCP_CLIENT_IDENTIFIER, client_id.begin(), client_id.end()});
    if (!bare && !host_name.empty())
        packet.add_option({Tins::DHCP::HOST_NAME, host_name.begin(), host_name.end()});
    if (!bare && wanted_lease_time != 0)
        packet.lease_time(wanted_lease_time);
    packet.giaddr(Tins::IPv4Address(format_ipv4(relay)));
    packet.end();
    return packet.serialize();
}

void SimDevice::start() {
    running_ = true;
    address_.clear();
    discover();
}

void SimDevice::stop() {
    running_ = false;
    address_.clear();
    loop_.cancel_timer(timer_);
}

void SimDevice::leave() {
    if (!address_.empty())
        lan_.to_server(message(DhcpType::Release, "", address_));
    stop();
}

void SimDevice::decline() {
    lan_.to_server(message(DhcpType::Decline, address_, ""));
    start();
}

void SimDevice::discover() {
    lan_.to_server(message(DhcpType::Discover, "", ""));
    loop_.cancel_timer(timer_);
    timer_ = loop_.start_timer(retry_ms, [this] { discover(); });
}

void SimDevice::renew() {
    lan_.to_server(message(DhcpType::Request, "", address_));
    timer_ = loop_.start_timer(retry_ms, [this] { discover(); });
}

void SimDevice::take(const Bytes &bytes) {
    const Tins::DHCP packet(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    const auto receiver = packet.chaddr();
    if (!running_ || !std::equal(hardware.begin(), hardware.end(), receiver.begin()))
        return;
    Answer answer{loop_.now_ms(), static_cast<DhcpType>(packet.type()), packet.yiaddr().to_string(), {}};
    for (const auto &option : packet.options())
        answer.options[option.option()] = Bytes(option.data_ptr(), option.data_ptr() + option.data_size());
    answers_.push_back(answer);
    if (answer.type == DhcpType::Offer && address_.empty()) {
        server_ = packet.server_identifier().to_string();
        lan_.to_server(message(DhcpType::Request, answer.address, ""));
    } else if (answer.type == DhcpType::Ack) {
        address_ = answer.address;
        loop_.cancel_timer(timer_);
        timer_ = loop_.start_timer(std::uint64_t{answer.lease_time()} * 500, [this] { renew(); });
    } else if (answer.type == DhcpType::Nak) {
        address_.clear();
        discover();
    }
}

} // namespace keel
