/* DHCP messages and the packets around them, with libtins as the other side, and whatever else may come. */
#include <gtest/gtest.h>
#include <tins/dhcp.h>
#include <tins/ip.h>
#include <tins/rawpdu.h>
#include <tins/udp.h>

#include <algorithm>
#include <memory>
#include <random>

#include "host/dhcp/frame.h"
#include "host/dhcp/packet.h"

namespace keel {

namespace {

constexpr std::size_t at_server_name = 44;
constexpr std::size_t at_file = 108;
constexpr std::size_t at_options = 240;

void put(Bytes *message, std::size_t at, const Bytes &bytes) {
    message->resize(std::max(message->size(), at + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), message->begin() + static_cast<std::ptrdiff_t>(at));
}

/* A DISCOVER of 02:00:00:00:00:07 with those options, as they stand on the wire. */
Bytes discover(const Bytes &options) {
    Bytes message(at_options);
    put(&message, 0, {1, 1, 6});
    put(&message, 28, {2, 0, 0, 0, 0, 7});
    put(&message, 236, {0x63, 0x82, 0x53, 0x63});
    put(&message, at_options, options);
    return message;
}

/* Without room behind its end, so that the sanitizer sees each byte that is read there. */
std::unique_ptr<std::uint8_t[]> bare(const Bytes &bytes) {
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

/* Why a message is dropped; "" for one that is taken. */
std::string refusal(const Bytes &message, DhcpMessage *parsed = nullptr) {
    DhcpMessage mine;
    std::string error;
    if (parse_dhcp(bare(message).get(), message.size(), parsed ? parsed : &mine, &error))
        return "";
    return error.empty() ? "no reason" : error;
}

Bytes data_of(const Tins::DHCP &packet, int number) {
    const auto *option = packet.search_option(static_cast<Tins::DHCP::OptionTypes>(number));
    return option ? Bytes(option->data_ptr(), option->data_ptr() + option->data_size()) : Bytes();
}

bool taken(const Bytes &packet, std::uint16_t port = 67) {
    return parse_udp_packet(bare(packet).get(), packet.size(), port).has_value();
}

/* A request in a packet, as a client broadcasts it. */
Bytes request_packet() {
    return *build_udp_packet({0, 68, 0xffffffff, 67}, discover({53, 1, 1, 255}));
}

} // namespace

TEST(Packet, ReadsWhatAnotherMakerWrites) {
    Tins::DHCP packet;
    packet.opcode(1);
    packet.htype(1);
    packet.hlen(6);
    packet.xid(0x01020304);
    packet.padding(0x8000);
    packet.ciaddr("10.1.2.3");
    packet.giaddr("10.9.9.9");
    packet.chaddr(Tins::HWAddress<6>("02:1a:2b:3c:4d:5e"));
    packet.type(Tins::DHCP::REQUEST);
    packet.server_identifier("192.168.1.1");
    const Bytes wanted = {192, 168, 1, 20};
    const std::string vendor = "zep-stb";
    const Bytes id = {0, 1, 2, 3};
    packet.add_option({Tins::DHCP::DHCP_REQUESTED_ADDRESS, wanted.begin(), wanted.end()});
    packet.add_option({Tins::DHCP::VENDOR_CLASS_IDENTIFIER, vendor.begin(), vendor.end()});
    packet.add_option({Tins::DHCP::DHCP_CLIENT_IDENTIFIER, id.begin(), id.end()});
    packet.end();

    DhcpMessage message;
    ASSERT_EQ(refusal(packet.serialize(), &message), "");
    EXPECT_EQ(message.type, DhcpType::Request);
    EXPECT_EQ(message.xid, 0x01020304U);
    EXPECT_TRUE(message.broadcast);
    EXPECT_EQ(format_ipv4(message.client_address), "10.1.2.3");
    EXPECT_EQ(format_ipv4(message.relay), "10.9.9.9");
    EXPECT_EQ(format_mac(message.hardware.data()), "02:1A:2B:3C:4D:5E");
    EXPECT_EQ(message.client_id, id);
    EXPECT_EQ(message.vendor_class, vendor);
    EXPECT_EQ(format_ipv4(message.requested_address), "192.168.1.20");
    EXPECT_EQ(format_ipv4(message.server_id), "192.168.1.1");
}

TEST(Packet, WritesWhatAnotherReaderReads) {
    DhcpMessage request;
    request.xid = 0x0a0b0c0d;
    request.broadcast = true;
    request.client_address = 0xc0a80114;
    request.hardware = {2, 0, 0, 0, 0, 7};
    Bytes routes(600);
    for (std::size_t i = 0; i < routes.size(); ++i)
        routes[i] = static_cast<std::uint8_t>(i);
    DhcpReply reply{DhcpType::Ack, 0xc0a80115, 0xc0a80101, {{121, routes}, {1, {255, 255, 255, 0}}, {80, {}}}};
    reply.options[53] = {9};
    reply.options[54] = {9};
    reply.options[61] = reply.options[82] = {9};
    request.client_id = {1, 2, 3};
    request.relay_agent = {1, 1, 7};
    const Bytes ack = build_dhcp_reply(request, reply);
    const Tins::DHCP packet(ack.data(), static_cast<std::uint32_t>(ack.size()));
    EXPECT_EQ(packet.opcode(), 2);
    EXPECT_EQ(packet.htype(), 1);
    EXPECT_EQ(packet.hlen(), 6);
    EXPECT_EQ(packet.xid(), 0x0a0b0c0dU);
    EXPECT_EQ(packet.padding(), 0x8000);
    EXPECT_EQ(packet.ciaddr(), "192.168.1.20");
    EXPECT_EQ(packet.yiaddr(), "192.168.1.21");
    EXPECT_EQ(Tins::HWAddress<6>(packet.chaddr()), "02:00:00:00:00:07");
    EXPECT_EQ(packet.type(), Tins::DHCP::ACK);
    EXPECT_EQ(packet.server_identifier(), "192.168.1.1");
    std::vector<int> order;
    Bytes joined;
    for (const auto &option : packet.options()) {
        order.push_back(option.option());
        if (option.option() == 121)
            joined.insert(joined.end(), option.data_ptr(), option.data_ptr() + option.data_size());
    }
    EXPECT_EQ(order, (std::vector<int>{53, 54, 1, 80, 121, 121, 121, 61, 82, 255}));
    EXPECT_EQ(joined, routes);
    EXPECT_EQ(data_of(packet, 61), request.client_id) << "the client's own come back";
    EXPECT_EQ(data_of(packet, 82), request.relay_agent);

    request.client_id.clear();
    request.relay_agent.clear();
    request.broadcast = false;
    request.relay = 0xc0a80107;
    reply = {DhcpType::Nak, 0, 0xc0a80101, {}};
    const Bytes nak = build_dhcp_reply(request, reply);
    const Tins::DHCP relayed(nak.data(), static_cast<std::uint32_t>(nak.size()));
    EXPECT_EQ(relayed.giaddr(), "192.168.1.7");
    EXPECT_EQ(relayed.padding(), 0x8000) << "the relay is to tell all of it: the client has no address";
    reply = {DhcpType::Offer, 0xc0a80115, 0xc0a80101, {{51, {0, 0, 1, 44}}}};
    const Bytes offer = build_dhcp_reply(request, reply);
    EXPECT_EQ(offer.size(), 300U);
    const Tins::DHCP small(offer.data(), static_cast<std::uint32_t>(offer.size()));
    EXPECT_EQ(small.ciaddr(), "0.0.0.0") << "only an ACK repeats the client's address";
    EXPECT_EQ(data_of(small, 51), (Bytes{0, 0, 1, 44}));
}

TEST(Packet, JoinsSplitOptionsAndReadsTheFieldsThatAreLent) {
    DhcpMessage message;
    ASSERT_EQ(refusal(discover({61, 2, 1, 2, 0, 53, 1, 3, 61, 0, 61, 1, 3, 255, 60, 1, 'x'}), &message), "");
    EXPECT_EQ(message.client_id, (Bytes{1, 2, 3}));
    EXPECT_EQ(message.vendor_class, "") << "it stands behind the end";

    Bytes lent = discover({52, 1, 3, 60, 2, 'z', 'e', 255});
    put(&lent, at_file, {60, 1, 'p', 53, 1, 1, 255});
    put(&lent, at_server_name, {60, 4, '-', 's', 't', 'b', 52, 1, 9, 255, 200, 200});
    ASSERT_EQ(refusal(lent, &message), "");
    EXPECT_EQ(message.type, DhcpType::Discover);
    EXPECT_EQ(message.vendor_class, "zep-stb");
    put(&lent, at_options, {52, 1, 2});
    EXPECT_EQ(refusal(lent), "no message type") << "it stands in the file field, which is not lent now";
    for (const std::uint8_t fields : Bytes{0, 4, 255}) {
        put(&lent, at_options, {52, 1, fields});
        EXPECT_EQ(refusal(lent), "malformed") << int{fields};
    }
    put(&lent, at_options, {52, 1, 1});
    put(&lent, at_file, Bytes(128));
    put(&lent, at_file + 126, {60, 1});
    EXPECT_EQ(refusal(lent), "malformed") << "an option reaches out of the field";
}

TEST(Packet, IsRefusedWhenItIsNoRequest) {
    const Bytes good = discover({53, 1, 1, 50, 3, 1, 2, 3, 255});
    DhcpMessage message;
    ASSERT_EQ(refusal(good, &message), "");
    EXPECT_EQ(message.requested_address, 0U) << "three bytes are no address";
    const auto changed = [&](std::size_t at, std::uint8_t value) {
        Bytes bytes = good;
        bytes[at] = value;
        return refusal(bytes);
    };
    EXPECT_EQ(changed(0, 2), "no request over Ethernet");
    EXPECT_EQ(changed(1, 6), "no request over Ethernet");
    EXPECT_EQ(changed(2, 16), "no request over Ethernet");
    EXPECT_EQ(changed(28, 3), "no unicast hardware address");
    EXPECT_EQ(changed(239, 0x64), "malformed");
    EXPECT_EQ(changed(242, 0), "no message type");
    EXPECT_EQ(changed(242, 9), "no message type");
    EXPECT_EQ(changed(240, 12), "no message type");
    EXPECT_EQ(changed(244, 6), "malformed");
    EXPECT_EQ(refusal(discover({53, 2, 1, 1, 255})), "no message type");
    EXPECT_EQ(refusal(discover({53, 1, 1, 53, 1, 1})), "no message type") << "a type of two bytes";
    Bytes nobody = good;
    put(&nobody, 28, {0, 0, 0, 0, 0, 0});
    EXPECT_EQ(refusal(nobody), "no unicast hardware address");
}

TEST(Packet, WhateverIsCutOrFlippedIsTakenOnlyWithAType) {
    Bytes good = discover(
        {61, 3, 1, 2, 3, 52, 1, 3, 60, 7, 'z', 'e', 'p', '-', 's', 't', 'b', 53, 1, 1, 50, 4, 1, 2, 3, 4, 255});
    put(&good, at_file, {60, 2, 'x', 'y', 54, 4, 1, 2, 3, 4, 255});
    put(&good, at_server_name, {61, 1, 9, 255});
    const auto has_type = [](const Bytes &bytes) {
        for (std::size_t i = at_server_name; i + 2 < bytes.size(); ++i)
            if (bytes[i] == 53 && bytes[i + 1] == 1 && bytes[i + 2] >= 1 && bytes[i + 2] <= 8)
                return true;
        return false;
    };
    ASSERT_EQ(refusal(good), "");
    for (std::size_t size = 0; size < good.size(); ++size) {
        const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(refusal(cut).empty(), size == 260 || size == 266) << size; /* between two options */
    }
    std::mt19937 random(11);
    unsigned accepted = 0;
    constexpr unsigned rounds = 30000;
    for (unsigned round = 0; round < rounds; ++round) {
        Bytes bytes = good;
        for (std::size_t change = 1 + random() % 6; change > 0; --change) {
            const std::size_t at = random() % 3 == 0 ? at_server_name + random() % 80 : at_options + random() % 27;
            bytes[random() % 16 == 0 ? random() % bytes.size() : at] =
                static_cast<std::uint8_t>(random() % 2 == 0 ? random() : random() % 64);
        }
        if (random() % 4 == 0)
            bytes.resize(at_options + random() % 400);
        if (!refusal(bytes).empty())
            continue;
        ++accepted;
        ASSERT_TRUE(has_type(bytes)) << format_hex(bytes);
    }
    EXPECT_GT(accepted, rounds / 20);
    EXPECT_LT(accepted, rounds * 19 / 20);
}

TEST(Packet, UdpIsFramedAsAnotherMakerFramesIt) {
    for (const std::size_t size : {0U, 1U, 2U, 299U, 300U, 1401U}) {
        Bytes payload(size);
        std::generate(payload.begin(), payload.end(), [n = 250]() mutable { return static_cast<std::uint8_t>(n++); });
        const auto packet = build_udp_packet({0xc0a80101, 67, 0xc0a80114, 68}, payload);
        ASSERT_TRUE(packet);
        Tins::IP other(packet->data(), static_cast<std::uint32_t>(packet->size()));
        EXPECT_EQ(other.src_addr(), "192.168.1.1");
        EXPECT_EQ(other.dst_addr(), "192.168.1.20");
        ASSERT_TRUE(other.find_pdu<Tins::UDP>());
        EXPECT_EQ(other.rfind_pdu<Tins::UDP>().sport(), 67);
        EXPECT_EQ(other.rfind_pdu<Tins::UDP>().dport(), 68);
        EXPECT_EQ(other.serialize(), *packet) << "which forms the checksums anew";
        const auto back = parse_udp_packet(packet->data(), packet->size(), 68);
        ASSERT_TRUE(back);
        EXPECT_EQ(Bytes(back->begin(), back->end()), payload);
    }
    /* With this payload the words sum up to nothing, for which all bits set stand. */
    const auto full = build_udp_packet({0, 0, 0, 0}, {0xff, 0xff - 17 - 10 - 10});
    EXPECT_EQ(Bytes(full->begin() + 26, full->begin() + 28), (Bytes{0xff, 0xff}));
    EXPECT_TRUE(build_udp_packet({}, Bytes(65507)));
    EXPECT_FALSE(build_udp_packet({}, Bytes(65508)));
}

TEST(Packet, OnlyWholeDatagramsForThePortAreTaken) {
    const Bytes good = request_packet();
    EXPECT_TRUE(taken(good));
    EXPECT_FALSE(taken(good, 68));
    Bytes padded = good;
    padded.resize(good.size() + 18);
    EXPECT_EQ(parse_udp_packet(padded.data(), padded.size(), 67)->size(), good.size() - 28) << "without the padding";
    for (std::size_t size = 0; size < good.size(); ++size)
        EXPECT_FALSE(taken(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)))) << size;

    /* With the header's checksum right again. */
    const auto changed = [&](std::size_t at, const Bytes &value) {
        Bytes bytes = good;
        put(&bytes, at, value);
        std::uint32_t sum = 0;
        put(&bytes, 10, {0, 0});
        for (std::size_t i = 0; i < 20; i += 2)
            sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
        sum = (sum >> 16) + (sum & 0xffff);
        sum = 0xffff - (sum >> 16) - (sum & 0xffff);
        put(&bytes, 10, {static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum)});
        return taken(bytes);
    };
    EXPECT_TRUE(changed(8, {1})) << "the time to live does not matter";
    EXPECT_FALSE(changed(0, {0x65})) << "another version";
    EXPECT_FALSE(changed(0, {0x44})) << "a header that is too short";
    EXPECT_FALSE(changed(2, {0, 27})) << "a packet without a whole UDP header";
    EXPECT_FALSE(changed(2, {0xff, 0xff})) << "more than has come";
    EXPECT_FALSE(changed(6, {0x20, 0})) << "more fragments follow";
    EXPECT_FALSE(changed(6, {0, 1})) << "a later fragment";
    EXPECT_FALSE(changed(9, {6})) << "TCP";
    EXPECT_FALSE(changed(24, {0, 7})) << "shorter than its own header";
    EXPECT_FALSE(changed(24, {0xff, 0xff})) << "longer than the packet";
    Bytes damaged = good;
    damaged[12] ^= 1;
    EXPECT_FALSE(taken(damaged)) << "the checksum does not fit";
}

} // namespace keel
