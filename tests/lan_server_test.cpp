/* The LAN DHCP server: holds, answers, leases, and whatever comes off the wire. */
#include <gtest/gtest.h>

#include <random>

#include "host/base/trace.h"
#include "tests/lan_server_fixture.h"

namespace keel {

TEST_F(LanServerTest, AHeldDeviceIsAnsweredAtOnceWithTheValuesOfItsRelease) {
    hold(true);
    stb.start();
    loop.advance(200000);
    EXPECT_TRUE(stb.answers().empty());
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold"));
    EXPECT_EQ(model.text(lease(stb), "ClientID"), stb.id());
    EXPECT_EQ(model.text(lease(stb), "MACAddress"), stb.mac());
    EXPECT_EQ(model.text(lease(stb), "IPAddress"), "192.168.1.20");

    loop.advance(1000); /* between two of its retries */
    set("DHCPv4.Server.Pool.zep_stb",
        {{"MinLeaseTime", std::int64_t{300}}, {"LeaseTime", std::int64_t{300}}, {"MaxLeaseTime", std::int64_t{300}}});
    set("DHCPv4.Server.Pool.zep_stb.Option.ntp", {{"Enable", true}, {"Value", std::string("0a000001")}});
    set("DHCPv4.Server.Pool.zep_stb.Option.www", {{"Enable", true}, {"Value", std::string("00000000")}});
    const std::uint64_t released_at = loop.now_ms();
    set(lease(stb), {{"OnHold", false}});
    loop.advance(10);
    const auto *ack = stb.last(DhcpType::Ack);
    ASSERT_TRUE(ack);
    EXPECT_LE(stb.last(DhcpType::Offer)->at_ms, released_at + 10);
    EXPECT_EQ(ack->lease_time(), 300U);
    EXPECT_EQ(format_hex(ack->options.at(42)), "0a000001");
    EXPECT_FALSE(ack->options.contains(72)) << "no server is no option";
    EXPECT_EQ(format_hex(ack->options.at(54)), "c0a80101");

    set("DHCPv4.Server.Pool.zep_stb", {{"LeaseTime", std::int64_t{600}}, {"MaxLeaseTime", std::int64_t{600}}});
    loop.advance(151000);
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 600U) << "a renewal gets the values of now";
    stb.stop();
    loop.advance(700000);
    EXPECT_FALSE(model.find(lease(stb))) << "a lease that runs out is deleted";
    stb.start();
    loop.advance(1000);
    EXPECT_EQ(stb.address(), "") << "and held when it comes anew";
}

TEST_F(LanServerTest, HoldsEndWithTheSetting) {
    hold(true);
    stb.start();
    loop.advance(1000);
    EXPECT_TRUE(stb.answers().empty());
    hold(false);
    loop.advance(10);
    EXPECT_EQ(stb.address(), "192.168.1.20");
    SimDevice other(loop, lan, 2, "zep-stb");
    other.start();
    loop.advance(probe_ms);
    EXPECT_EQ(other.address(), "192.168.1.21") << "not held any more";
}

TEST_F(LanServerTest, ReleaseDeclineForeignAddressesAndAFullRange) {
    stb.start();
    loop.advance(probe_ms);
    stb.leave(); /* without its vendor class, as any device does */
    loop.advance(probe_ms);
    EXPECT_FALSE(model.find(lease(stb)));

    stb.start();
    loop.advance(probe_ms);
    const std::string declined = stb.address();
    stb.decline();
    loop.advance(probe_ms);
    EXPECT_NE(stb.address(), "");
    EXPECT_NE(stb.address(), declined) << "it is in use elsewhere, it said";
    SimDevice stranger(loop, lan, 2, "zep-stb");
    stranger.client_id = {1, 0x02, 0xab, 0, 0, 0, 1}; /* the same identifier */
    stranger.start();
    loop.advance(probe_ms);
    stranger.leave();
    loop.advance(probe_ms);
    EXPECT_TRUE(model.find(lease(stb))) << "a release of another device ends no lease";
    stb.leave();
    loop.advance(std::uint64_t{601} * 1000); /* the declined address is free again */

    std::vector<std::unique_ptr<SimDevice>> many;
    for (unsigned number = 100; number < 125; ++number) {
        many.push_back(std::make_unique<SimDevice>(loop, lan, number, "zep-stb"));
        many.back()->start();
    }
    loop.advance(probe_ms);
    EXPECT_EQ(model.instances("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease").size(), 20U) << "192.168.1.20 to .39";
    EXPECT_GE(server->dropped().at("the range of DHCPv4.Server.Pool.zep_stb.Rule.1 is used up"), 5U);
    std::set<std::string> addresses;
    for (const auto &device : many)
        EXPECT_TRUE(device->address().empty() || addresses.insert(device->address()).second);
    EXPECT_EQ(addresses.size(), 20U);
}

TEST_F(LanServerTest, ANewDeviceGetsTheAddressThatWasUnusedLongest) {
    stb.start();
    loop.advance(probe_ms);
    const std::string first = stb.address();
    stb.stop();
    loop.advance(std::uint64_t{86400} * 1000 + 2000);
    ASSERT_EQ(lease_count(), 0U);
    std::set<std::string> given;
    for (unsigned number = 2; number <= 20; ++number) {
        SimDevice other(loop, lan, number, "zep-stb");
        other.start();
        loop.advance(probe_ms);
        EXPECT_TRUE(given.insert(other.address()).second);
        other.leave();
        loop.advance(probe_ms);
    }
    EXPECT_FALSE(given.contains(first)) << "there were others";
    SimDevice last(loop, lan, 30, "zep-stb");
    last.start();
    loop.advance(probe_ms);
    EXPECT_EQ(last.address(), first) << "all have been used since";
}

TEST_F(LanServerTest, LeasesFromBeforeTheHoldsAreHeldAndStayTheirDevices) {
    stb.start();
    loop.advance(probe_ms);
    const std::string address = stb.address();
    hold(true);
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold")) << "whoever watches the pool decides";
    stb.port = "lan2";
    std::vector<std::uint64_t> reports;
    model.watch("DHCPv4.Server.Pool.zep_stb", [&](const Event &event) {
        if (is_of_lease(event) && event.kind == Event::Kind::Added)
            reports.push_back(loop.now_ms());
    });
    loop.advance(std::uint64_t{43200} * 1000 + 1000); /* its renewal is not answered */
    EXPECT_EQ(waits_because(stb), "still on hold two minutes after it was reported");
    EXPECT_EQ(reports.size(), 1U) << "it may not ask again for hours";
    stb.stop();
    loop.advance(std::uint64_t{3600} * 1000);
    EXPECT_EQ(model.text(lease(stb), "IPAddress"), address) << "the device has it until its end";
    restart();
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold"));
    set(lease(stb), {{"OnHold", false}});
    restart();
    EXPECT_FALSE(model.boolean(lease(stb), "OnHold")) << "it was decided on";
}

TEST_F(LanServerTest, ADeviceThatAsksOnceIsReportedAnewOnceIfItIsThere) {
    int reports = 0;
    model.watch("DHCPv4.Server.Pool.zep_stb",
                [&](const Event &event) { reports += is_of_lease(event) && event.kind == Event::Kind::Added; });
    for (const char *port : {"lan2", ""}) {
        hold(false);
        stb.start();
        loop.advance(std::uint64_t{43200} * 1000 - 60000);
        hold(true);
        loop.advance(60000 + probe_ms); /* it renews a minute after the hold */
        ASSERT_FALSE(waits_because(stb).empty());
        stb.stop();
        lan.port_of_others = port;
        reports = 0;
        loop.advance(59000);
        EXPECT_EQ(reports, 0);
        loop.advance(std::uint64_t{3600} * 1000);
        EXPECT_EQ(reports, *port ? 1 : 0);
    }
}

/* Each request in the model would be too much, and a gateway's flash has a number of writes. */
TEST_F(LanServerTest, ADeviceThatWaitsIsNotWrittenAtEachOfItsRequestsAndNotStored) {
    std::size_t stored = 0;
    model.watch("DHCPv4.Server", [&](const Event &event) { stored += event.persistent; });
    hold(true);
    stb.start();
    loop.advance(1000);
    const std::uint64_t before = model.generation();
    loop.advance(600000); /* two hundred DISCOVERs */
    EXPECT_LE(model.generation() - before, 30U);
    EXPECT_EQ(lease_count(), 1U) << "it is kept all the same";
    stb.stop();
    loop.advance(62000);
    EXPECT_EQ(lease_count(), 0U);
    EXPECT_EQ(stored, 0U);

    hold(false);
    stb.wanted_lease_time = 600;
    stb.start();
    loop.advance(5000);
    EXPECT_EQ(stored, 1U) << "once it has its lease";
    hold(true);
    const std::string path = lease(stb);
    bool reported = false;
    model.watch(path, [&](const Event &event) { reported = reported || event.kind == Event::Kind::Added; });
    loop.advance(450000); /* it renews after 300 s */
    EXPECT_TRUE(reported) << "anew";
    EXPECT_TRUE(model.find(path)->persistent) << "it has it all the same";
}

TEST_F(LanServerTest, ADeviceWhoseIdentityIsGoneIsReportedAnewWhenItAsks) {
    stb.start();
    loop.advance(1000);
    ASSERT_EQ(stb.address(), "192.168.1.20");
    const auto forget = [&] {
        model.add("Keel.Zephyrin.ClientLease", "itf", {});
        EXPECT_FALSE(model.add("Keel.Zephyrin.ClientLease.itf.ServerLease", stb.id(), {}));
        loop.run_until_idle();
        model.remove("Keel.Zephyrin.ClientLease.itf");
        loop.run_until_idle();
    };
    forget();
    EXPECT_FALSE(model.boolean(lease(stb), "OnHold")) << "its pool has no holds";
    hold(true);
    set(lease(stb), {{"OnHold", false}});
    bool reported = false;
    model.watch(lease(stb), [&](const Event &event) { reported = reported || event.kind == Event::Kind::Added; });
    forget();
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold"));
    loop.advance(1000);
    EXPECT_FALSE(reported) << "it is away";
    loop.advance(120000); /* the hold was told of as any is */
    stb.start();
    loop.advance(1000);
    EXPECT_TRUE(reported);
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold")) << "until somebody has decided";

    set(lease(stb), {{"OnHold", false}});
    model.add("Keel.Zephyrin.ClientLease", "iptv", {});
    model.add("Keel.Zephyrin.ClientLease.iptv.ServerLease", stb.id(), {});
    forget();
    EXPECT_FALSE(model.boolean(lease(stb), "OnHold")) << "another identity has it";
}

TEST_F(LanServerTest, AHeldDeviceIsAnsweredFromItsLeaseWhateverTheRulesSayByThen) {
    hold(true);
    stb.start();
    loop.run_until_idle();
    const std::string lease = "DHCPv4.Server.Pool.zep_stb.Rule.1.Lease." + stb.id();
    ASSERT_TRUE(model.boolean(lease, "OnHold"));
    const std::string address = model.text(lease, "IPAddress");
    set("DHCPv4.Server.Pool.zep_stb.Rule.1", {{"VendorClass", std::string("another")}});
    set(lease, {{"OnHold", false}});
    loop.advance(probe_ms);
    ASSERT_FALSE(stb.answers().empty());
    EXPECT_EQ(stb.answers().front().address, address);
}

TEST_F(LanServerTest, ADeviceKeepsItsPoolWhenItTellsItsClassOnlyOnce) {
    stb.tells_class_once = true;
    stb.client_id = {0, 1, 2, 3};
    stb.wanted_lease_time = 600;
    stb.host_name = "living\x01room";
    stb.start();
    loop.advance(probe_ms);
    EXPECT_EQ(stb.address(), "192.168.1.20");
    EXPECT_FALSE(stb.last(DhcpType::Nak));
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 600U) << "it asked for less than it could have";
    EXPECT_EQ(stb.last(DhcpType::Ack)->options.at(61), stb.client_id) << "RFC 6842";
    EXPECT_EQ(model.text(lease(stb), "HostName"), "living?room");
    EXPECT_EQ(model.text(lease(stb), "VendorClass"), "zep-stb-4k");
    stb.wanted_lease_time = 10;
    loop.advance(301000);
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 120U) << "not less than the least";
    stb.wanted_lease_time = 0xffffffff;
    loop.advance(61000);
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 86400U) << "nor more than the most";
    EXPECT_EQ(lease_count(), 1U);

    /* As a PC first, then as what it is. */
    SimDevice late(loop, lan, 2, "");
    late.start();
    loop.advance(probe_ms);
    ASSERT_TRUE(late.address().starts_with("192.168.1.1"));
    SimDevice same(loop, lan, 2, "zep-stb");
    late.stop();
    same.start();
    loop.advance(probe_ms);
    EXPECT_EQ(same.address(), "192.168.1.21");
    EXPECT_TRUE(model.instances("DHCPv4.Server.Pool.lan.Rule.1.Lease").empty());
}

TEST_F(LanServerTest, AnAddressThatSomebodyUsesIsGivenToNobody) {
    const HardwareAddress squatter{2, 9, 9, 9, 9, 9};
    lan.squatters[0xc0a80114] = squatter; /* 192.168.1.20 */
    stb.start();
    loop.advance(2 * probe_ms);
    EXPECT_EQ(stb.address(), "192.168.1.21");
    EXPECT_EQ(stb.last(DhcpType::Offer)->address, "192.168.1.21");
    EXPECT_EQ(model.text(lease(stb), "IPAddress"), "192.168.1.21");

    /* The answer comes late, but the device is still on hold; then it asks for that very address. */
    hold(true);
    lan.squatters[0xc0a80116] = squatter;
    lan.answers_probes_after_ms = 900;
    SimDevice held(loop, lan, 2, "zep-stb");
    held.start();
    loop.advance(500);
    EXPECT_EQ(model.text(lease(held), "IPAddress"), "192.168.1.22");
    loop.advance(450);
    EXPECT_EQ(model.text(lease(held), "IPAddress"), "192.168.1.23");
    set(lease(held), {{"OnHold", false}});
    EXPECT_EQ(held.last(DhcpType::Offer), nullptr) << "that one is asked for, too";
    loop.advance(probe_ms);
    EXPECT_EQ(held.address(), "192.168.1.23");

    /* A known device is not delayed, and its own answer is none. */
    lan.answers_probes_after_ms = 1;
    hold(false);
    const auto before = stb.answers().size();
    stb.start();
    loop.advance(5);
    EXPECT_EQ(stb.answers().size(), before + 2) << "OFFER and ACK";
}

TEST_F(LanServerTest, WhatADeviceWaitsForIsKept) {
    hold(true);
    stb.host_name = "bedroom";
    stb.port = "";
    stb.start();
    loop.advance(4000);
    EXPECT_EQ(lease_count(), 0U) << "nobody has seen it on the LAN: its MAC address may be made up";
    EXPECT_EQ(waits_because(stb), "its MAC address was not seen behind a port of the LAN");
    stb.port = "lan2";
    loop.advance(3000);
    ASSERT_EQ(lease_count(), 1U);
    const std::string waiting = "DHCPv4.Server.Waiting." + stb.id();
    EXPECT_EQ(waits_because(stb), "on hold since it was reported");
    EXPECT_EQ(model.text(waiting, "HostName"), "bedroom");
    EXPECT_EQ(model.text(waiting, "VendorClass"), "zep-stb-4k");
    EXPECT_EQ(model.text(waiting, "MACAddress"), stb.mac());
    EXPECT_EQ(model.text(waiting, "Port"), "lan2");
    EXPECT_EQ(model.text(waiting, "Lease"), lease(stb));
    int reports = 0;
    model.watch("DHCPv4.Server.Pool.zep_stb",
                [&](const Event &event) { reports += is_of_lease(event) && event.kind == Event::Kind::Added; });
    loop.advance(std::uint64_t{10} * 60000);
    EXPECT_EQ(waits_because(stb), "still on hold two minutes after it was reported");
    EXPECT_GE(reports, 4);
    EXPECT_LE(reports, 5) << "not more than one in two minutes";
    set(lease(stb), {{"OnHold", false}});
    EXPECT_FALSE(model.find(waiting)) << "it is served";
    EXPECT_FALSE(stb.address().empty());
    stb.leave();
    loop.advance(10);

    stb.port = "";
    stb.start();
    loop.advance(4000);
    stb.stop();
    loop.advance(130000);
    EXPECT_FALSE(model.find(waiting)) << "it does not ask any more";
}

TEST_F(LanServerTest, AFloodOfMadeUpDevicesTakesNoPlaceOfAnother) {
    hold(true);
    TraceLog::instance().clear();
    std::vector<std::unique_ptr<SimDevice>> flood;
    for (unsigned number = 100; number < 300; ++number) {
        flood.push_back(std::make_unique<SimDevice>(loop, lan, number, "zep-stb"));
        flood.back()->port = number < 200 ? "" : "lan4"; /* the bridge has learned some of them */
        flood.back()->start();
    }
    loop.advance(30000);
    EXPECT_EQ(lease_count(), 8U) << "behind lan4";
    stb.start();
    loop.advance(100);
    EXPECT_TRUE(model.find(lease(stb))) << "behind its own port";
    set(lease(stb), {{"OnHold", false}});
    loop.advance(100);
    EXPECT_FALSE(stb.address().empty());
    EXPECT_GT(server->dropped().at("not seen behind a port"), 100U);
    EXPECT_GT(server->dropped().at("too many new devices behind a port"), 100U);
    EXPECT_LE(model.instances("DHCPv4.Server.Waiting").size(), 72U);
    const auto &lines = TraceLog::instance().recent();
    for (const char *told : {"behind lan4", "not seen behind a port"})
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [told](const TraceLine &line) { return line.text.find(told) != std::string::npos; }),
                  1)
            << told;
}

TEST_F(LanServerTest, AnIdentifierGoesOverToAnotherDeviceOnlyWhenItsOwnIsGone) {
    stb.start();
    loop.advance(probe_ms);
    SimDevice other(loop, lan, 2, "zep-stb");
    other.client_id = {1, 0x02, 0xab, 0, 0, 0, 1}; /* the same identifier */
    ASSERT_EQ(other.id(), stb.id());
    other.start();
    loop.advance(10000);
    EXPECT_EQ(other.address(), "");
    EXPECT_EQ(model.text("DHCPv4.Server.Waiting.0102ab00000002", "Because"),
              "its client identifier is that of " + stb.mac());
    EXPECT_EQ(model.text(lease(stb), "MACAddress"), stb.mac());
    EXPECT_FALSE(stb.address().empty());
    stb.stop();
    hold(true);
    loop.advance(4000);
    EXPECT_EQ(model.text(lease(stb), "MACAddress"), other.mac());
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold")) << "it is admitted as any new device";
}

TEST_F(LanServerTest, AnIdentifierOfADeviceThatIsThereGetsNobodyElseALeaseInAnyPool) {
    stb.start();
    loop.advance(probe_ms);
    const std::string address = stb.address();
    std::vector<std::unique_ptr<SimDevice>> many; /* of another pool, and made up one after the other */
    for (unsigned number = 100; number < 140; ++number) {
        many.push_back(std::make_unique<SimDevice>(loop, lan, number, "zep-itf"));
        many.back()->client_id = {1, 0x02, 0xab, 0, 0, 0, 1};
        many.back()->start();
        loop.advance(probe_ms);
        EXPECT_EQ(many.back()->address(), "");
    }
    EXPECT_EQ(model.text(lease(stb), "IPAddress"), address);
    EXPECT_EQ(server->dropped().size(), 1U) << "what strangers make up is no reason of its own";
    stb.stop();
    loop.advance(4000);
    EXPECT_FALSE(model.find(lease(stb)));
    EXPECT_TRUE(model.find(lease(*many.front(), "zep_itf"))) << "it is on the LAN alone now";
}

TEST_F(LanServerTest, AnAddressMappedForADeviceThatIsAwayWaitsForIt) {
    SimDevice other(loop, lan, 2, "zep-stb");
    const std::string devices = "Keel.Zephyrin.ClientLease." + stb.id() + ".ServerLease";
    model.add("Keel.Zephyrin.ClientLease", stb.id(), {});
    model.add(devices, stb.id(), {{"Id", stb.id()}, {"IPAddress", std::string("192.168.1.20")}});
    other.start();
    loop.advance(probe_ms);
    EXPECT_EQ(other.address(), "192.168.1.21");
    stb.start();
    loop.advance(probe_ms);
    EXPECT_EQ(stb.address(), "192.168.1.20");
}

TEST_F(LanServerTest, RelaysOfAPoolsSubnetAreServed) {
    stb.relay = 0xc0a80107; /* 192.168.1.7 */
    stb.port = "";
    hold(true);
    stb.start();
    loop.advance(probe_ms);
    set(lease(stb), {{"OnHold", false}});
    loop.advance(probe_ms);
    EXPECT_EQ(stb.address(), "192.168.1.20");
    ASSERT_EQ(lan.sent.size(), 2U);
    for (const DhcpDestination &to : lan.sent) {
        EXPECT_TRUE(to.relay);
        EXPECT_EQ(format_ipv4(to.address), "192.168.1.7");
    }
    SimDevice foreign(loop, lan, 2, "zep-stb");
    foreign.relay = 0x0a000001;
    foreign.start();
    loop.advance(4000);
    EXPECT_TRUE(foreign.answers().empty());
    EXPECT_EQ(server->dropped().at("through a relay in no pool's subnet"), 2U);
    model.add("DHCPv4.Server.Pool", "far",
              {{"Router", std::string("10.0.0.1")}, {"Server", std::string("192.168.1.1")}});
    model.add("DHCPv4.Server.Pool.far.Rule", "1",
              {{"MinAddress", std::string("10.0.0.20")}, {"MaxAddress", std::string("10.0.0.29")}});
    loop.advance(3000 + probe_ms);
    EXPECT_EQ(foreign.address(), "10.0.0.20");
    EXPECT_EQ(format_hex(foreign.last(DhcpType::Ack)->options.at(3)), "0a000001");
    EXPECT_EQ(format_hex(foreign.last(DhcpType::Ack)->options.at(54)), "c0a80101");
    EXPECT_TRUE(lan.sent.back().routed);

    foreign.relay = 0; /* it renews straight from behind the relay, where its hardware address leads nowhere */
    loop.advance(std::uint64_t{43201} * 1000);
    EXPECT_TRUE(lan.sent.back().routed && !lan.sent.back().relay);
    EXPECT_EQ(format_ipv4(lan.sent.back().address), "10.0.0.20");
    SimDevice roaming(loop, lan, 3, "pc");
    roaming.relay = 0x0a000001;
    roaming.start();
    loop.advance(probe_ms);
    ASSERT_EQ(roaming.address(), "10.0.0.21");
    roaming.stop();
    roaming.relay = 0;
    roaming.start();
    loop.advance(probe_ms);
    EXPECT_EQ(roaming.address(), "192.168.1.100") << "it has come to the LAN itself";
}

TEST_F(LanServerTest, ADeviceGetsAnAddressOfTheSubnetThatTheLanHasNow) {
    stb.start();
    loop.advance(probe_ms);
    ASSERT_EQ(stb.address(), "192.168.1.20");
    set("DHCPv4.Server.Pool.zep_stb", {{"Router", std::string("192.168.2.1")}});
    set("DHCPv4.Server.Pool.zep_stb.Rule.1",
        {{"MinAddress", std::string("192.168.2.20")}, {"MaxAddress", std::string("192.168.2.29")}});
    loop.advance(std::uint64_t{43201} * 1000); /* it renews */
    EXPECT_NE(stb.last(DhcpType::Nak), nullptr);
    stb.stop();
    stb.start();
    loop.advance(probe_ms);
    EXPECT_EQ(stb.address(), "192.168.2.20");
}

TEST_F(LanServerTest, ALongOptionReachesTheDeviceInPieces) {
    std::string long_value(1200, 'a');
    set("DHCPv4.Server.Pool.zep_stb.Option.www", {{"Enable", true}, {"Tag", std::int64_t{125}}, {"Value", long_value}});
    stb.start();
    loop.advance(probe_ms);
    ASSERT_FALSE(stb.address().empty());
    EXPECT_TRUE(stb.last(DhcpType::Ack)->options.contains(125));
}

TEST_F(LanServerTest, LongIdentifiersGetAStableShortFormOfTheirOwn) {
    SimDevice a(loop, lan, 3, "zep-stb");
    SimDevice b(loop, lan, 4, "zep-stb");
    a.client_id.assign(60, 0x41);
    b.client_id = a.client_id;
    b.client_id.back() = 0x42;
    a.start();
    b.start();
    loop.advance(probe_ms);
    const auto names = model.instances("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease");
    ASSERT_EQ(names.size(), 2U);
    for (const std::string &name : names)
        EXPECT_EQ(name.size(), 35U);
    a.start();
    loop.advance(probe_ms);
    EXPECT_EQ(model.instances("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease"), names);
}

TEST_F(LanServerTest, WhateverComesOffTheWireIsAnsweredOrDroppedAndCounted) {
    hold(true);
    lan.port_of_others = "lan3";
    stb.start();
    loop.run_until_idle();
    /* A whole DISCOVER with options as the seed; cut, flipped, and grown at random places, the same in every run. */
    Bytes seed(240, 0);
    seed[0] = seed[1] = 1;
    seed[2] = 6;
    seed[28] = 2;
    seed[33] = 7;
    const std::uint8_t options[] = {0x63, 0x82, 0x53, 0x63, 53, 1,  1, 60,  7,   'z', 'e', 'p', '-',
                                    's',  't',  'b',  61,   7,  1,  2, 3,   4,   5,   6,   7,   50,
                                    4,    192,  168,  1,    25, 12, 3, 'a', 'b', 'c', 255};
    seed.resize(236);
    seed.insert(seed.end(), std::begin(options), std::end(options));
    server->received(seed.data(), seed.size());
    EXPECT_TRUE(server->dropped().empty());
    std::mt19937 random(7);
    std::uint64_t sent = 0;
    for (int round = 0; round < 20000; ++round) {
        Bytes packet = seed;
        for (unsigned change = random() % 8; change > 0; --change)
            packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
        if (random() % 4 == 0)
            packet[242] = static_cast<std::uint8_t>(random() % 10); /* message types, too */
        if (random() % 3 == 0)
            packet.resize(random() % (packet.size() + 300));
        server->received(packet.data(), packet.size());
        ++sent;
        if (round % 64 == 0)
            loop.advance(500);
    }
    std::uint64_t dropped = 0;
    for (const auto &[reason, count] : server->dropped())
        dropped += count;
    EXPECT_GT(dropped, sent / 10);
    EXPECT_LT(dropped, sent);
    for (const char *pool : {"zep_stb", "zep_itf", "lan"})
        for (const std::string &name : model.instances(std::string("DHCPv4.Server.Pool.") + pool + ".Rule.1.Lease")) {
            EXPECT_LE(name.size(), 35U);
            EXPECT_EQ(name.find_first_not_of("0123456789abcdef-"), std::string::npos);
        }
    hold(false);
    loop.advance(probe_ms);
    stb.start();
    loop.advance(10000);
    EXPECT_FALSE(stb.address().empty()) << "and it still serves";
}

} // namespace keel
