#include "host/sim/sim_stb.h"

#include <tins/dhcp.h>

#include <algorithm>
#include <utility>

namespace keel {

namespace {

constexpr const char *server_address = "192.168.1.1";
constexpr std::size_t at_hardware = 28; /* in a DHCP message */
constexpr std::uint64_t request_again_ms = 4000;
constexpr unsigned max_requests = 3;
constexpr std::uint64_t shortest_renewal_pause_ms = 60000;

} // namespace

void SimSegment::send(const Bytes &message, const DhcpDestination &destination) {
    SimLan::send(message, destination);
    if (dead || message.size() < at_hardware + 6)
        return;
    loop_.post([this, message] {
        const auto stations = stations_;
        for (SimStb *station : stations)
            if (std::equal(station->hardware_.begin(), station->hardware_.end(), message.begin() + at_hardware) &&
                !station->take(message) && on_lost)
                on_lost(*station);
    });
}

void SimSegment::probe(std::uint32_t address) {
    if (dead)
        return;
    SimLan::probe(address);
    for (const SimStb *station : stations_)
        if (station->is_on() && station->plugged_ && station->address_ == format_ipv4(address))
            claim(address, station->hardware_);
}

std::string SimSegment::port_of(const HardwareAddress &device) {
    for (const SimStb *station : stations_)
        if (station->is_on() && station->plugged_ && station->hardware_ == device)
            return "lan" + std::to_string(station->hardware_.back());
    return SimLan::port_of(device);
}

SimStb::SimStb(Loop &loop, SimSegment &segment, unsigned number, StbHabits habits, std::uint64_t seed)
    : loop_(loop), segment_(segment),
      hardware_{0x02, 0xab, 1, 0, static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)},
      habits_(std::move(habits)), chance_(seed), xid_(number << 16) {
    segment_.stations_.push_back(this);
}

SimStb::~SimStb() {
    loop_.cancel_timer(timer_);
    std::erase(segment_.stations_, this);
}

std::string SimStb::id() const {
    return habits_.client_id.empty() ? "01" + format_hex(Bytes(hardware_.begin(), hardware_.end()))
                                     : format_hex(habits_.client_id);
}

void SimStb::after(std::uint64_t milliseconds, void (SimStb::*step)()) {
    loop_.cancel_timer(timer_);
    timer_ = loop_.start_timer(milliseconds, [this, step] { (this->*step)(); });
}

void SimStb::send(DhcpType type, const std::string &requested, const std::string &current) {
    static const char *const names[] = {"", "DISCOVER", "OFFER", "REQUEST", "DECLINE", "ACK", "NAK", "RELEASE"};
    ++sent_;
    if (on_sent)
        on_sent(names[static_cast<int>(type)]);
    if (!plugged_ || segment_.dead)
        return;
    Tins::DHCP packet;
    packet.opcode(1);
    packet.htype(1);
    packet.hlen(6);
    packet.xid(xid_);
    packet.chaddr(Tins::HWAddress<6>(hardware_.data()));
    packet.type(static_cast<Tins::DHCP::Flags>(type));
    if (!current.empty())
        packet.ciaddr(Tins::IPv4Address(current));
    if (!requested.empty()) {
        const Bytes bytes = network_bytes(ipv4_or_none(requested));
        packet.add_option({Tins::DHCP::DHCP_REQUESTED_ADDRESS, bytes.begin(), bytes.end()});
    }
    if (state_ == State::Requesting || type == DhcpType::Release || type == DhcpType::Decline)
        packet.server_identifier(Tins::IPv4Address(server_address));
    const bool tells =
        type == DhcpType::Discover ||
        (type == DhcpType::Request && (habits_.tells == StbHabits::Tells::Always ||
                                       (habits_.tells == StbHabits::Tells::Sometimes && chance_.one_in(2))));
    if (tells && !habits_.vendor_class.empty())
        packet.add_option(
            {Tins::DHCP::VENDOR_CLASS_IDENTIFIER, habits_.vendor_class.begin(), habits_.vendor_class.end()});
    if (!habits_.client_id.empty())
        packet.add_option({Tins::DHCP::DHCP_CLIENT_IDENTIFIER, habits_.client_id.begin(), habits_.client_id.end()});
    packet.end();
    segment_.to_server(packet.serialize());
}

/* ------------------------------------------------------------------------------------------------ what people do */

void SimStb::switch_on() {
    if (is_on())
        return;
    state_ = State::Selecting;
    after(habits_.spread_ms ? chance_.below(habits_.spread_ms) : 0, &SimStb::begin);
}

void SimStb::switch_off() {
    state_ = State::Off;
    address_.clear();
    loop_.cancel_timer(timer_);
}

void SimStb::leave() {
    if (!address_.empty())
        send(DhcpType::Release, "", address_);
    remembered_.clear();
    switch_off();
}

void SimStb::decline() {
    if (address_.empty())
        return;
    send(DhcpType::Decline, address_, "");
    address_.clear();
    remembered_.clear();
    state_ = State::Selecting;
    asked_ = 0;
    after(10000, &SimStb::discover); /* RFC 2131, 3.1.5 */
}

void SimStb::renew() {
    if (state_ == State::Bound)
        ask_to_renew();
}

void SimStb::set_plugged(bool plugged) {
    const bool back = plugged && !plugged_;
    plugged_ = plugged;
    if (back && is_on())
        begin();
}

/* ------------------------------------------------------------------------------------------------ what it does */

void SimStb::begin() {
    asked_ = 0;
    tries_ = 0;
    ++xid_;
    if (!habits_.remembers || remembered_.empty()) {
        address_.clear();
        discover();
        return;
    }
    state_ = State::Rebooting;
    request();
}

void SimStb::discover() {
    state_ = State::Selecting;
    tries_ = 0;
    const auto &pauses = habits_.pauses_s;
    const std::size_t repeat = pauses.size() - habits_.pauses_repeat_from;
    const std::size_t place =
        asked_ < pauses.size() ? asked_ : habits_.pauses_repeat_from + (asked_ - pauses.size()) % repeat;
    ++asked_;
    send(DhcpType::Discover, "", "");
    after(std::uint64_t{pauses[place]} * 1000 + chance_.below(1000), &SimStb::discover);
}

void SimStb::request() {
    if (tries_++ == max_requests) {
        if (state_ == State::Rebooting && ++xid_)
            address_.clear();
        remembered_.clear();
        discover();
        return;
    }
    send(DhcpType::Request, state_ == State::Rebooting ? remembered_ : offered_, "");
    after(request_again_ms + chance_.below(500), &SimStb::request);
}

/* At half of the lease, then whenever half of what is left has passed. */
void SimStb::ask_to_renew() {
    const std::uint64_t end_ms = last_ack_.at_ms + std::uint64_t{last_ack_.lease_s} * 1000;
    if (loop_.now_ms() >= end_ms) {
        address_.clear();
        asked_ = 0;
        ++xid_;
        discover();
        return;
    }
    state_ = State::Renewing;
    send(DhcpType::Request, "", address_);
    const std::uint64_t left_ms = end_ms - loop_.now_ms();
    after(std::min(std::max(left_ms / 2, shortest_renewal_pause_ms), left_ms), &SimStb::ask_to_renew);
}

bool SimStb::take(const Bytes &bytes) {
    if (!plugged_ || !is_on())
        return false;
    const Tins::DHCP packet(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    if (packet.xid() != xid_)
        return false;
    const auto option = [&](int number) {
        const auto *found = packet.search_option(static_cast<Tins::DHCP::OptionTypes>(number));
        return found ? Bytes(found->data_ptr(), found->data_ptr() + found->data_size()) : Bytes();
    };
    const Bytes time = option(51);
    const Answer answer{static_cast<DhcpType>(packet.type()), loop_.now_ms(), packet.yiaddr().to_string(),
                        time.size() == 4 ? network_number(time.data()) : 0,
                        format_hex(option(42)) + " " + format_hex(option(72))};
    if (on_answer)
        on_answer(answer);
    const bool asks = state_ == State::Requesting || state_ == State::Rebooting || state_ == State::Renewing;
    if (answer.type == DhcpType::Offer && state_ == State::Selecting) {
        state_ = State::Requesting;
        offered_ = answer.address;
        request();
    } else if (answer.type == DhcpType::Ack && asks) {
        bind(answer);
    } else if (answer.type == DhcpType::Nak && asks) {
        address_.clear();
        remembered_.clear();
        state_ = State::Selecting;
        asked_ = 0;
        ++xid_;
        after(1000, &SimStb::discover);
    }
    return true;
}

void SimStb::bind(const Answer &answer) {
    state_ = State::Bound;
    address_ = answer.address;
    remembered_ = answer.address;
    last_ack_ = answer;
    asked_ = 0;
    after(std::uint64_t{answer.lease_s} * 500 + 1, &SimStb::ask_to_renew);
}

} // namespace keel
