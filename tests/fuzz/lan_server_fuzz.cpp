/* A LAN DHCP server among devices that send what they like, while time passes, addresses turn out to be in use, and the
 * plug-in and an operator write to the model. */
#include <tins/dhcp.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>

#include "host/dhcp/frame.h"
#include "host/dhcp/lan_server.h"
#include "host/gateway/settings.h"
#include "host/sim/sim_loop.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;
using fuzz::require;

namespace {

constexpr std::size_t device_count = 4;
constexpr std::size_t longest_message = 1472; /* what an Ethernet frame takes */
constexpr std::size_t most_steps = 40;
constexpr const char *pool_names[] = {"zep_stb", "zep_itf", "lan"};
constexpr const char *vendor_classes[] = {"", "zep-stb", "zep-itf-2", "pc"};
constexpr std::uint32_t places[] = {0xc0a80114, 0xc0a80115, 0xc0a80127, 0xc0a80128,
                                    0xc0a80164, 0xc0a80101, 0,          0x0a000001};
constexpr std::uint64_t pauses_ms[] = {1, 59, 61, 1000, 3000, 30000, 61000, 120000, 601000, 3600000, 86400000};

/* What a device was told: the address is its own until then, whatever else happens on the LAN. */
struct Promise {
    HardwareAddress device{};
    std::string lease;
    std::uint64_t until_ms = 0;
};

std::string option_text(const Tins::DHCP &packet, int number) {
    const auto *option = packet.search_option(static_cast<Tins::DHCP::OptionTypes>(number));
    return option ? std::string(option->data_ptr(), option->data_ptr() + option->data_size()) : std::string();
}

std::uint32_t option_number(const Tins::DHCP &packet, int number) {
    const std::string data = option_text(packet, number);
    require(data.size() == 4, "option " + std::to_string(number) + " is a number");
    return network_number(reinterpret_cast<const std::uint8_t *>(data.data()));
}

bool is_name(const std::string &name) {
    return !name.empty() && name.size() <= 35 && name.find_first_not_of("0123456789abcdef-") == std::string::npos;
}

bool is_printable(const std::string &text) {
    return text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/* Node by node: a way by paths would cost more than the server does. */
std::vector<const Node *> all_leases(const Model &model) {
    std::vector<const Node *> leases;
    for (const Node &pool : model.find(lan_pools_path)->children)
        for (const Node &rule : pool.child("Rule")->children)
            for (const Node &lease : rule.child("Lease")->children)
                leases.push_back(&lease);
    return leases;
}

const std::string &text_of(const Node &lease, const char *name) {
    return std::get<std::string>(lease.parameter(name)->value);
}

class Lan : public LanPort {
public:
    Lan(const fuzz::Tree &tree, const std::uint8_t *data, std::size_t size) : input_(data, size) {
        tree.plant(model_);
        server_.emplace(loop_, model_, *this);
    }

    void run() {
        for (std::size_t step = 0; step < most_steps && !input_.empty(); ++step) {
            take_step();
            loop_.run_until_idle();
            check_leases();
            forgive_ = false;
            sender_.reset();
        }
        server_.reset();
        require(model_.instances("DHCPv4.Server.Waiting").empty(), "nobody waits for a server that is gone");
    }

    void send(const Bytes &message, const DhcpDestination &destination) override;
    void probe(std::uint32_t address) override { probed_.push_back(address); }
    std::string port_of(const HardwareAddress &device) override {
        return device[0] == 2 ? ports_.at(device[5] % device_count) : "lan9";
    }

private:
    void take_step();
    void bring(const Bytes &message);
    Bytes formed_message();
    void write_pool();
    void check_destination(const Tins::DHCP &reply, const HardwareAddress &device, const DhcpDestination &destination);
    void check_leases();

    fuzz::Input input_;
    SimLoop loop_;
    Model model_{loop_};
    std::array<std::string, device_count> ports_{"lan1", "lan1", "lan2", ""};
    std::vector<std::uint32_t> probed_;
    std::map<std::uint32_t, Promise> promises_;                                     /* by address */
    std::map<std::pair<HardwareAddress, std::uint32_t>, std::set<DhcpType>> asked_; /* by device and transaction */
    std::optional<DhcpMessage> sender_; /* who sent the message that is being taken */
    bool forgive_ = false;              /* the step may end any lease: it is an operator's, or of ARP */
    std::optional<LanDhcpServer> server_;
};

void Lan::take_step() {
    switch (input_.below(12)) {
    case 0:
        bring(input_.rest(input_.number() % longest_message));
        break;
    case 1:
    case 2:
    case 3:
        bring(formed_message());
        break;
    case 4:
        forgive_ = true; /* of what its end brings about, only the order of both is not known here */
        std::erase_if(promises_, [&, now = loop_.now_ms()](const auto &one) { return one.second.until_ms <= now; });
        loop_.advance(pauses_ms[input_.below(std::size(pauses_ms))]);
        break;
    case 5: {
        forgive_ = true;
        const bool newest = !probed_.empty() && input_.flag();
        server_->address_used(newest ? probed_.back() : places[input_.below(std::size(places))],
                              {2, 0, 0, 0, 0, input_.byte()});
        break;
    }
    case 6:
        model_.set(join_path(lan_pools_path, pool_names[input_.below(std::size(pool_names))]),
                   {{"LeasesOnHold", input_.flag()}});
        break;
    case 7:
    case 8: {
        const auto leases = all_leases(model_);
        const bool release = input_.flag();
        const std::size_t chosen = input_.byte();
        if (leases.empty())
            break;
        forgive_ = !release;
        if (release)
            model_.set(leases[chosen % leases.size()]->path(), {{"OnHold", false}});
        else
            model_.remove(leases[chosen % leases.size()]->path());
        break;
    }
    case 9:
        ports_[input_.below(device_count)] = std::array{"", "lan1", "lan2"}[input_.below(3)];
        break;
    case 10:
        write_pool();
        break;
    default:
        forgive_ = true;
        loop_.set_wall_clock(std::array<std::uint64_t, 3>{0, 1700000000, 1900000000}[input_.below(3)] +
                             loop_.now_ms() / 1000);
        server_.reset();
        server_.emplace(loop_, model_, *this);
    }
}

void Lan::bring(const Bytes &message) {
    DhcpMessage parsed;
    std::string error;
    if (parse_dhcp(message.data(), message.size(), &parsed, &error)) {
        sender_ = parsed;
        asked_[{parsed.hardware, parsed.xid}].insert(parsed.type);
    }
    server_->received(fuzz::bare(message).get(), message.size());
}

/* What a device might say, each part of it right or wrong. */
Bytes Lan::formed_message() {
    const std::uint8_t has = input_.byte();
    Bytes message(240);
    message[0] = message[1] = 1;
    message[2] = 6;
    message[7] = input_.byte();
    message[10] = has & 1 ? 0x80 : 0;
    const Bytes cookie = {0x63, 0x82, 0x53, 0x63};
    std::copy(cookie.begin(), cookie.end(), message.begin() + 236);
    message[28] = 2;
    message[33] = static_cast<std::uint8_t>(input_.below(device_count));
    const auto put_address = [&](std::size_t at) {
        const Bytes bytes = network_bytes(places[input_.below(std::size(places))]);
        std::copy(bytes.begin(), bytes.end(), message.begin() + static_cast<std::ptrdiff_t>(at));
    };
    const auto add = [&](std::uint8_t number, const Bytes &value) {
        message.insert(message.end(), {number, static_cast<std::uint8_t>(value.size())});
        message.insert(message.end(), value.begin(), value.end());
    };
    if (has & 2)
        put_address(12);
    if (has & 4)
        put_address(24);
    add(53, {static_cast<std::uint8_t>(1 + input_.below(8))});
    const std::string vendor = vendor_classes[input_.below(std::size(vendor_classes))];
    if (!vendor.empty())
        add(60, Bytes(vendor.begin(), vendor.end()));
    if (has & 8)
        add(50, network_bytes(places[input_.below(std::size(places))]));
    if (has & 16)
        add(61, {1, static_cast<std::uint8_t>(input_.below(3))}); /* shared with others, perhaps */
    if (has & 32)
        add(54, network_bytes(0xc0a80101));
    if (has & 64)
        add(51, network_bytes(input_.number()));
    if (has & 128) {
        add(12, input_.bytes());
        add(82, input_.bytes());
        add(55, input_.bytes());
    }
    return message;
}

void Lan::write_pool() {
    const std::string pool = join_path(lan_pools_path, pool_names[input_.below(std::size(pool_names))]);
    switch (input_.below(5)) {
    case 0:
        model_.set(pool,
                   {{"MinLeaseTime", std::int64_t{input_.number()}}, {"LeaseTime", std::int64_t{input_.number()}}});
        break;
    case 1:
        model_.set(pool + ".Rule.1", {{"MinAddress", format_ipv4(places[input_.below(std::size(places))])},
                                      {"MaxAddress", format_ipv4(places[input_.below(std::size(places))])}});
        break;
    case 2:
        model_.set(pool, {{"Enable", input_.flag()}});
        break;
    case 3: {
        const std::string name = std::to_string(input_.below(4));
        model_.add(pool + ".Option", name, {});
        const Values values = {{"Enable", true}, {"Tag", std::int64_t{input_.byte()}}, {"Value", input_.text()}};
        model_.set(pool + ".Option." + name, values);
        break;
    }
    default:
        if (input_.flag()) {
            model_.add(pool + ".Rule", std::nullopt,
                       {{"VendorClass", std::string("pc")},
                        {"MinAddress", std::string("192.168.1.20")},
                        {"MaxAddress", std::string("192.168.1.22")}});
        } else {
            forgive_ = true; /* the leases go with their rule */
            model_.remove(pool + ".Rule." + std::to_string(1 + input_.below(3)));
        }
    }
}

/* A device takes what answers its own question and comes to its own address, or to all. */
void Lan::check_destination(const Tins::DHCP &reply, const HardwareAddress &device,
                            const DhcpDestination &destination) {
    HardwareAddress all;
    all.fill(0xff);
    const auto asked = asked_.find({device, reply.xid()});
    require(asked != asked_.end(), "a reply goes to a device that asks");
    const auto asks = [&](DhcpType type) { return asked->second.contains(type); };
    const auto type = static_cast<DhcpType>(reply.type());
    require(type == DhcpType::Offer ? asks(DhcpType::Discover)
                                    : asks(DhcpType::Request) || (type == DhcpType::Ack && asks(DhcpType::Inform)),
            "it answers what the device asks for");
    const std::uint32_t relay = ipv4_or_none(reply.giaddr().to_string());
    require(destination.relay == (relay != 0), "a relay's question is answered through it");
    if (destination.relay)
        require(destination.address == relay, "it goes to the relay that asked");
    else if (destination.address == 0xffffffff)
        require(destination.hardware == all || destination.hardware == device, "it goes to the device");
    else
        require(destination.hardware == device && destination.address != 0, "it goes to the device alone");
}

/* Every reply is one that its device can read and may believe. */
void Lan::send(const Bytes &message, const DhcpDestination &destination) {
    DhcpAnswer answer;
    std::string error;
    require(parse_dhcp_answer(fuzz::bare(message).get(), message.size(), &answer, &error), "a reply: " + error);
    require(answer.server_id == 0xc0a80101 && destination.source == answer.server_id, "the server tells who it is");
    require(build_udp_packet({destination.source, 67, destination.address, 68}, message).has_value(), "it can be sent");
    const Tins::DHCP other(message.data(), static_cast<std::uint32_t>(message.size()));
    const auto type = static_cast<DhcpType>(other.type());
    require(type == answer.type, "another maker reads the same type");
    const std::uint32_t address = ipv4_or_none(other.yiaddr().to_string());
    HardwareAddress device{};
    const auto to = other.chaddr();
    std::copy_n(to.begin(), device.size(), device.begin());
    check_destination(other, device, destination);
    if (type == DhcpType::Nak || (sender_ && sender_->type == DhcpType::Inform && address == 0)) {
        require(address == 0, "no address is given");
        return;
    }
    require(address != 0 && address != 0xc0a80101, "an address is given, and not the gateway's own");
    const Node *lease = nullptr;
    for (const Node *one : all_leases(model_))
        if (text_of(*one, "IPAddress") == format_ipv4(address))
            lease = one;
    require(lease && text_of(*lease, "MACAddress") == format_mac(device.data()), "an address given is the device's");
    require(!std::get<bool>(lease->parameter("OnHold")->value), "no answer to a device on hold");
    const auto time = option_number(other, 51);
    require(option_number(other, 58) <= time && option_number(other, 59) <= time, "it is renewed in time");
    require(option_number(other, 1) == 0xffffff00 && option_number(other, 3) == 0xc0a80101, "mask and router come");
    if (type == DhcpType::Ack)
        promises_[address] = {device, lease->path(), loop_.now_ms() + std::uint64_t{time} * 1000};
}

void Lan::check_leases() {
    std::set<std::string> addresses;
    for (const Node *lease : all_leases(model_)) {
        require(is_name(lease->name) && text_of(*lease, "ClientID") == lease->name, lease->name + " is a name");
        require(is_printable(text_of(*lease, "HostName")) && is_printable(text_of(*lease, "VendorClass")),
                lease->name + " can be shown");
        const std::string &address = text_of(*lease, "IPAddress");
        require(parse_ipv4(address).has_value() && addresses.insert(address).second, address + " is leased once");
    }
    for (const std::string &name : model_.instances("DHCPv4.Server.Waiting"))
        require(is_name(name), name + " is a name of its kind");
    require(server_->dropped().size() <= 24, "the reasons are few, whatever is sent");

    /* A device's lease is ended by nobody else, as long as the device is there. */
    const std::uint64_t now = loop_.now_ms();
    std::erase_if(promises_, [&](const auto &one) {
        const Promise &promise = one.second;
        if (model_.text(promise.lease, "IPAddress") == format_ipv4(one.first))
            return promise.until_ms <= now;
        const bool own = sender_ && sender_->hardware == promise.device;
        require(forgive_ || own || port_of(promise.device).empty() || promise.until_ms <= now,
                promise.lease + " was ended by another device");
        return true;
    });
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(fuzz::model_part({"DHCPv4"}));
    Lan(tree, data, size).run();
    return 0;
}
