/* When the LAN DHCP server's leases end, and what becomes of their addresses. */
#include "tests/lan_server_fixture.h"

namespace keel {

TEST_F(LanServerTest, LeasesSurviveARestartAndDevicesKeepTheirAddresses) {
    stb.start();
    SimDevice pc(loop, lan, 9, "");
    pc.start();
    loop.advance(probe_ms);
    const std::string before = stb.address();
    EXPECT_EQ(pc.address(), "192.168.1.100");
    end();
    loop.advance(1000);
    begin();
    stb.start();
    loop.advance(probe_ms);
    EXPECT_EQ(stb.address(), before);
    end();
    loop.advance(std::uint64_t{86400} * 2 * 1000);
    begin();
    EXPECT_FALSE(model.find(lease(stb))) << "what ran out meanwhile is gone";
}

TEST_F(LanServerTest, AHeldLeaseThatEndsUsesUpNoAddress) {
    stb.start();
    loop.advance(probe_ms);
    stb.leave();
    loop.advance(10);
    hold(true);
    SimDevice refused(loop, lan, 2, "zep-stb");
    for (int round = 0; round < 30; ++round) { /* it asks for a while, and pauses for long */
        refused.start();
        loop.advance(10000);
        EXPECT_EQ(model.text(lease(refused), "IPAddress"), "192.168.1.21") << round;
        refused.stop();
        loop.advance(300000);
        EXPECT_FALSE(model.find(lease(refused)));
    }
}

TEST_F(LanServerTest, TheWallClockEndsNoLeaseAndProlongsNone) {
    loop.set_wall_clock(3600); /* no clock of its own: it is 1970 */
    stb.start();
    loop.advance(1000);
    const std::string address = stb.address();
    ASSERT_FALSE(address.empty());
    loop.set_wall_clock(1800000000); /* somebody has told the time */
    loop.advance(1000);
    EXPECT_EQ(lease_count(), 1U);
    restart();
    EXPECT_EQ(lease_count(), 1U) << "it was written when nobody knew the time";
    stb.stop();
    loop.advance(std::uint64_t{3} * 24 * 3600 * 1000);
    EXPECT_EQ(lease_count(), 0U) << "it has ended all the same";

    stb.start();
    loop.advance(1000);
    stb.stop();
    loop.advance(std::uint64_t{3600} * 1000);
    loop.set_wall_clock(1900000000); /* years later, says the clock, when the server starts again */
    restart();
    EXPECT_EQ(lease_count(), 0U);
    stb.start();
    loop.advance(1000);
    stb.stop();
    loop.set_wall_clock(1700000000); /* and back: what is left of it is not known */
    restart();
    EXPECT_EQ(lease_count(), 1U);
    loop.advance(std::uint64_t{24} * 3600 * 1000 + 5000);
    EXPECT_EQ(lease_count(), 0U) << "but bounded";
}

TEST_F(LanServerTest, ALeaseThatWasRenewedEarlyLastsOverAStart) {
    stb.start();
    loop.advance(std::uint64_t{8} * 3600 * 1000);
    stb.start(); /* switched off and on */
    loop.advance(1000);
    stb.stop();
    restart();
    loop.advance(std::uint64_t{20} * 3600 * 1000);
    EXPECT_EQ(lease_count(), 1U) << "the device may use its address for four hours more";
}

TEST_F(LanServerTest, AClockThatWasSetIsNoTimeThatHasPassedAtTheNextStart) {
    loop.set_wall_clock(1800000000);
    stb.start();
    loop.advance(3600000);
    for (const std::uint64_t clock : std::initializer_list<std::uint64_t>{1900000000, 1700000000, 3600, 1800000000}) {
        loop.set_wall_clock(clock);
        loop.advance(61000);
        restart();
        ASSERT_EQ(lease_count(), 1U) << clock;
    }
    const std::uint64_t written = model.generation();
    loop.advance(600000);
    EXPECT_EQ(model.generation(), written) << "a clock that goes right";
    stb.stop();
    loop.advance(std::uint64_t{24} * 3600 * 1000);
    EXPECT_EQ(lease_count(), 0U);
}

TEST_F(LanServerTest, ALeaseThatIsReportedAnewStaysItsDevicesAndLastsAsBefore) {
    hold(true);
    stb.start();
    loop.advance(1000);
    set(lease(stb), {{"OnHold", false}});
    loop.advance(1000);
    const std::string address = stb.address();
    ASSERT_FALSE(address.empty());
    std::vector<std::string> told;
    const auto watch = model.watch(lease(stb), [&](const Event &event) {
        told.push_back(event.kind == Event::Kind::Added     ? "added"
                       : event.kind == Event::Kind::Deleted ? "deleted"
                                                            : "");
    });
    loop.advance(std::uint64_t{3600} * 1000);
    server->report_lease_with(ipv4_or_none("192.168.1.99")); /* nobody's */
    server->report_lease_with(ipv4_or_none(address));
    loop.run_until_idle();
    EXPECT_EQ(told, (std::vector<std::string>{"deleted", "added"}));
    EXPECT_TRUE(model.boolean(lease(stb), "OnHold")) << "it is decided on anew";
    server->report_lease_with(ipv4_or_none(address)); /* which is under way */
    set(lease(stb), {{"OnHold", false}});
    EXPECT_EQ(told.size(), 3U);
    model.unwatch(watch);
    stb.stop();
    loop.advance(std::uint64_t{22} * 3600 * 1000);
    EXPECT_EQ(model.text(lease(stb), "IPAddress"), address);
    loop.advance(std::uint64_t{2} * 3600 * 1000);
    EXPECT_FALSE(model.find(lease(stb))) << "it ends when it would have";
}

TEST_F(LanServerTest, AnStbThatIsRefusedForLongWearsOutNoFlash) {
    hold(true);
    stb.start();
    loop.advance(1000);
    std::size_t writes = 0;
    const auto watch = model.watch("DHCPv4.Server.Pool.zep_stb", [&](const Event &) { ++writes; });
    loop.advance(std::uint64_t{3600} * 1000); /* it asks every few seconds */
    EXPECT_TRUE(model.find(lease(stb)));
    EXPECT_LE(writes, 2U * 30) << "it is taken away and added every two minutes, and nothing else";
    model.unwatch(watch);
}

} // namespace keel
