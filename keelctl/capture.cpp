#include "keelctl/capture.h"

#include <net/ethernet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "host/base/text_forms.h"
#include "host/dhcp/frame.h"
#include "host/dhcp/packet.h"
#include "keelctl/gateway.h"
#include "keelctl/interruption.h"
#include "keelctl/pcapng.h"

namespace keelctl {

namespace {

using Frame = std::span<const std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t server_port = 67;
constexpr std::uint16_t client_port = 68;
constexpr int longest_frame = 262144;
constexpr int kernel_buffer = 8 << 20;
constexpr std::size_t kept_of_stream = 128; /* bytes: its headers */
constexpr int poll_ms = 200;
constexpr auto look_again = std::chrono::seconds(2); /* for what is not known yet */

/* What is known of the STB, as far as it concerns what is captured. */
struct Subject {
    std::string name;
    std::string mac;
    std::string address;
    std::string lan_device;
    std::string wan_device;
    keel::Bytes client_id; /* of its WAN client; empty while it has none */
    std::set<std::string> wan_addresses;
    std::set<std::string> groups;
};

Subject look_up(Client &client, const std::string &stb) {
    client.forget_trees();
    client.look();
    Gateway gateway(client, Gateway::Devices::All);
    Device stranger;
    const auto devices = gateway.asked(stb, stranger);
    if (devices.size() > 1)
        throw Refused("more than one device is known by \"" + stb + "\": name it by its MAC address");
    const Device &device = *devices.front();
    Subject subject{device.name(), device.mac, device.address, device.port, "", {}, {}, {}};
    if (!keel::parse_mac(subject.mac))
        throw Refused("the MAC address of \"" + stb + "\" is not known: it is not on the LAN");
    if (subject.lan_device.empty())
        subject.lan_device = text(client.tree("DHCPv4.Server"), "Interface");
    subject.wan_device = gateway.interfaces.device_below("iptv", true);
    if (subject.wan_device.empty())
        subject.wan_device = gateway.interfaces.device_below("iptv", false);
    if (const Json *identity = gateway.identity_of(device)) {
        const Json wan = gateway.interfaces["dhcp_zep_" + text(*identity, "Name")];
        subject.client_id = keel::parse_hex(text(descend(wan, {"SentOption", "61"}), "Value")).value_or(keel::Bytes());
        for (const std::string &address : {text(wan, "IPAddress"), text(*identity, "IPAddress")})
            if (keel::ipv4_or_none(address) != 0)
                subject.wan_addresses.insert(address);
    }
    for (const Json &group : children(client.tree("TIDE"), {"Group"}))
        if (text(group, "Port") == subject.lan_device)
            subject.groups.insert(text(group, "Address"));
    std::erase_if(subject.groups, [](const std::string &group) { return !keel::parse_ipv4(group); });
    return subject;
}

std::string with_groups(std::string filter, const Subject &subject) {
    for (const std::string &group : subject.groups)
        filter += " or dst host " + group;
    return filter;
}

/* Replies to everybody have the STB's MAC address in the message alone, 28 bytes behind the UDP header. */
std::string lan_filter(const Subject &subject) {
    const auto mac = *keel::parse_mac(subject.mac);
    std::string filter = "ether host " + subject.mac + " or igmp or (udp port 68 and udp[36:4] = 0x" +
                         keel::format_hex(mac.data(), 4) + " and udp[40:2] = 0x" + keel::format_hex(mac.data() + 4, 2) +
                         ")";
    if (keel::ipv4_or_none(subject.address) != 0)
        filter += " or arp host " + subject.address;
    return with_groups(filter, subject);
}

/* Of the DHCP messages those of others are left out later: a filter cannot look for an option. */
std::string wan_filter(const Subject &subject) {
    std::string filter = "ether host " + subject.mac + " or igmp or udp port 67 or udp port 68";
    for (const std::string &address : subject.wan_addresses)
        filter += " or host " + address;
    return with_groups(filter, subject);
}

/* ------------------------------------------------------------------------------------------------ one interface */

class Tap {
public:
    Tap(std::string device, std::string what) : device_(std::move(device)), what_(std::move(what)) {}

    /* "" when it listens, else why it does not. */
    std::string open() {
        char error[PCAP_ERRBUF_SIZE] = "";
        handle_.reset(pcap_create(device_.c_str(), error));
        if (!handle_)
            return error;
        pcap_set_snaplen(handle_.get(), longest_frame);
        pcap_set_promisc(handle_.get(), 0); /* what does not reach the gateway does not concern it */
        pcap_set_immediate_mode(handle_.get(), 1);
        pcap_set_buffer_size(handle_.get(), kernel_buffer);
        const int state = pcap_activate(handle_.get());
        std::string reason;
        if (state < 0) {
            reason = pcap_geterr(handle_.get());
            reason = reason.empty() ? pcap_statustostr(state) : reason;
        } else if (pcap_datalink(handle_.get()) != DLT_EN10MB) {
            reason = "it has no Ethernet frames";
        } else if (pcap_setnonblock(handle_.get(), 1, error) != 0) {
            reason = error;
        }
        if (!reason.empty())
            handle_.reset();
        return reason.empty() ? "" : device_ + " (" + what_ + ") cannot be captured: " + reason;
    }

    void filter(const std::string &expression) {
        if (expression == filter_)
            return;
        bpf_program program{};
        if (pcap_compile(handle_.get(), &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
            throw Refused("the filter of " + device_ + " was refused: " + pcap_geterr(handle_.get()));
        const int state = pcap_setfilter(handle_.get(), &program);
        pcap_freecode(&program);
        if (state != 0)
            throw Refused("the filter of " + device_ + " was refused: " + pcap_geterr(handle_.get()));
        filter_ = expression;
    }

    void begin(PcapngFile &file) { number_ = file.add_interface(device_, what_); }

    /* Writes what has come, as far as it is wanted. */
    void take(PcapngFile &file, const std::function<bool(Frame)> &wanted) {
        pcap_pkthdr *header = nullptr;
        const u_char *data = nullptr;
        int state = 0;
        while ((state = pcap_next_ex(handle_.get(), &header, &data)) == 1) {
            Frame frame(data, header->caplen);
            if (!wanted(frame))
                continue;
            if (frame.size() > kept_of_stream && data[0] == 0x01 && data[1] == 0x00 && data[2] == 0x5e)
                frame = frame.first(kept_of_stream);
            file.add_frame(number_, header->ts, frame, header->len);
            ++taken_;
        }
        if (state < 0 && !failed_) {
            failed_ = true; /* a device that goes down says so, and is heard again when it is up */
            std::fprintf(stderr, "keelctl: %s: %s\n", device_.c_str(), pcap_geterr(handle_.get()));
        } else if (state == 0) {
            failed_ = false;
        }
    }

    void end(PcapngFile &file) {
        pcap_stat counts{};
        pcap_stats(handle_.get(), &counts);
        file.add_counts(number_, counts.ps_recv, counts.ps_drop);
        std::fprintf(stderr, "%s (%s): %llu packets%s\n", device_.c_str(), what_.c_str(),
                     static_cast<unsigned long long>(taken_),
                     counts.ps_drop ? (", and " + std::to_string(counts.ps_drop) + " lost").c_str() : "");
    }

    int descriptor() const { return pcap_get_selectable_fd(handle_.get()); }

private:
    struct Close {
        void operator()(pcap_t *handle) const { pcap_close(handle); }
    };

    std::string device_;
    std::string what_;
    std::unique_ptr<pcap_t, Close> handle_;
    std::string filter_;
    std::uint32_t number_ = 0;
    std::uint64_t taken_ = 0;
    bool failed_ = false;
};

/* ----------------------------------------------------------------------------------------------- operator's DHCP */

/* Follows the exchanges of one WAN client: what it sends has its identifier, what it is answered their numbers. */
class WanExchanges {
public:
    /* False for a DHCP message of another client. An address that the client is given comes into the subject. When the
     * STB has no client that is known, whoever asks the operator may be it: learn has the subject looked up. */
    bool wants(Frame frame, Subject &subject, const std::function<void()> &learn) {
        if (frame.size() < ETHER_HDR_LEN || frame[12] != ETHERTYPE_IP >> 8 || frame[13] != (ETHERTYPE_IP & 0xff))
            return true;
        const Frame packet = frame.subspan(ETHER_HDR_LEN);
        std::string reason;
        if (const auto sent = keel::parse_udp_packet(packet.data(), packet.size(), server_port)) {
            keel::DhcpMessage message;
            if (!keel::parse_dhcp(sent->data(), sent->size(), &message, &reason))
                return false;
            if (subject.client_id.empty())
                learn();
            if (subject.client_id.empty() || message.client_id != subject.client_id)
                return false;
            numbers_.insert(message.xid);
        } else if (const auto came = keel::parse_udp_packet(packet.data(), packet.size(), client_port)) {
            keel::DhcpAnswer answer;
            if (!keel::parse_dhcp_answer(came->data(), came->size(), &answer, &reason) ||
                !numbers_.contains(answer.xid))
                return false;
            constexpr std::size_t at_given_address = 16;
            if (answer.type == keel::DhcpType::Ack)
                subject.wan_addresses.insert(keel::format_ipv4(keel::network_number(came->data() + at_given_address)));
        }
        return true;
    }

private:
    std::set<std::uint32_t> numbers_;
};

} // namespace

void capture(Client &client, const std::string &stb, unsigned seconds, const std::string &name) {
    const Interruption interruption;
    Subject subject = look_up(client, stb);
    WanExchanges exchanges;
    Tap lan(subject.lan_device, "LAN side");
    Tap wan(subject.wan_device, "IPTV side");
    std::vector<Tap *> taps;
    for (Tap *tap : {&lan, &wan}) {
        const std::string reason = tap->open();
        if (reason.empty())
            taps.push_back(tap);
        else
            std::fprintf(stderr, "keelctl: %s\n", reason.c_str());
    }
    if (taps.empty())
        throw Refused("nothing can be captured; it takes the rights of root, on the gateway itself");
    const auto set_filters = [&] {
        for (Tap *tap : taps)
            tap->filter(tap == &lan ? lan_filter(subject) : wan_filter(subject));
    };
    set_filters();
    PcapngFile file(name);
    for (Tap *tap : taps)
        tap->begin(file);
    std::fprintf(stderr, "capturing %s on %s and %s; Ctrl-C ends it\n", subject.name.c_str(),
                 subject.lan_device.c_str(), subject.wan_device.c_str());

    client.set_patience(std::chrono::seconds(1)); /* meanwhile no packets are taken */
    const auto start = Clock::now();
    auto looked = start;
    const auto learn = [&] {
        looked = Clock::now();
        try {
            const Subject now = look_up(client, stb);
            subject.client_id = now.client_id;
            subject.address = now.address;
            subject.groups = now.groups;
            subject.wan_addresses.insert(now.wan_addresses.begin(), now.wan_addresses.end());
        } catch (const std::exception &) { /* without the host it goes on with what is known */
        }
    };
    while (!Interruption::wanted() && (seconds == 0 || Clock::now() - start < std::chrono::seconds(seconds))) {
        std::vector<pollfd> ready;
        ready.reserve(taps.size());
        for (const Tap *tap : taps)
            ready.push_back({tap->descriptor(), POLLIN, 0});
        poll(ready.data(), ready.size(), poll_ms);
        for (Tap *tap : taps)
            tap->take(file, [&](Frame frame) { return tap == &lan || exchanges.wants(frame, subject, learn); });
        if (Clock::now() - looked > look_again) /* a group that it joins, or the identity that it is given */
            learn();
        set_filters();
    }
    for (Tap *tap : taps)
        tap->end(file);
}

} // namespace keelctl
