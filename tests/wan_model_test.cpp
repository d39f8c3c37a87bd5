/*
 * Which interfaces are to run a WAN DHCP client, and how the twin of the clients shows.
 */
#include <gtest/gtest.h>

#include "host/base/trace.h"
#include "host/gateway/wan_client_model.h"
#include "host/sim/sim_loop.h"
#include "host/sim/sim_operator.h"

namespace keel {

TEST(WanRetries, GrowToAboutAMinute) {
    std::vector<std::uint64_t> waits;
    for (unsigned tries = 1; tries < 9; ++tries)
        waits.push_back(wan_retry_ms(tries) / 1000);
    EXPECT_EQ(waits, (std::vector<std::uint64_t>{3, 6, 12, 24, 48, 64, 64, 64}));
    EXPECT_EQ(wan_retry_ms(4000000000U), 64000U);
}

class WantedTest : public testing::Test {
protected:
    WantedTest() {
        TraceLog::instance().set_print(false);
        model.load_file(SOURCE_DIR "/share/gateway.json");
        graph.emplace(model);
        model.add("Weft.Intf", "eth1.30", {{"Flags", std::string("netdev")}});
        model.set("Weft.Intf.dhcp_iptv", {{"Enable", true}, {"LowerLayers", std::string("eth1.20 eth1.30")}});
        model.watch("Weft.Intf.dhcp_iptv",
                    [this](const Event &event) {
                        if (const auto status = event.values.find("DHCPStatus");
                            status != event.values.end() && event.kind == Event::Kind::Changed)
                            said += to_text(status->second) + " ";
                    },
                    {{"DHCPStatus"}, false});
        wanted.emplace(
            loop, *graph, [this](const std::string &, const std::string &device) { said += "+" + device + " "; },
            [this](const std::string &) { said += "- "; });
    }
    std::string after(std::uint64_t milliseconds) {
        loop.advance(milliseconds);
        return std::exchange(said, "");
    }
    void enable(bool on) { model.set("Weft.Intf.dhcp_iptv", {{"Enable", on}}); }

    SimLoop loop;
    Model model{loop};
    std::optional<InterfaceGraph> graph;
    std::string said;
    std::optional<WantedWanClients> wanted;
};

TEST_F(WantedTest, AClientIsLinkedOverTheFirstDeviceThatIsUpAndLooksWithoutOne) {
    EXPECT_EQ(after(0), "Selecting ") << "enabled, and no line";
    graph->set_flag("eth1.30", "up", true);
    EXPECT_EQ(after(0), "+eth1.30 ");
    graph->set_flag("eth1.20", "up", true);
    EXPECT_EQ(after(0), "- +eth1.20 ");
    model.set("Weft.Intf.dhcp_iptv", {{"DHCPStatus", std::string("Bound")}});
    EXPECT_EQ(after(0), "Bound ");
    model.add("Weft.Intf.dhcp_iptv.IPv4Addr", "dhcp", {{"Address", std::string("10.20.0.9")}});
    EXPECT_EQ(graph->addresses("eth1.20").size(), 1U);
    graph->set_flag("eth1.20", "up", false);
    EXPECT_EQ(after(0), "- +eth1.30 Selecting ");
    EXPECT_TRUE(graph->addresses("eth1.20").empty() && graph->addresses("eth1.30").empty()) << "with the lease";
    model.remove("Weft.Intf.eth1.30");
    EXPECT_EQ(after(100), "- Idle ");
    EXPECT_EQ(after(1000), "Selecting ") << "still wanted";
    graph->set_flag("eth1.20", "up", true);
    EXPECT_EQ(after(0), "+eth1.20 ");
    graph->set_flag("eth1.20", "up", false);
    EXPECT_EQ(after(100), "- Idle ");
    enable(false); /* by who was told of the line as well */
    EXPECT_EQ(after(1000), "");
    enable(true);
    EXPECT_EQ(after(0), "Selecting ");
    enable(false);
    EXPECT_EQ(after(0), "Idle ");
}

TEST_F(WantedTest, OneDisabledAndEnabledInOneTurnIsRestarted) {
    graph->set_flag("eth1.20", "up", true);
    EXPECT_EQ(after(0), "+eth1.20 Selecting ");
    enable(false);
    enable(true);
    EXPECT_EQ(after(0), "- +eth1.20 Idle Selecting ");
    enable(true);
    EXPECT_EQ(after(0), "") << "enabled as it was";
    model.set("Weft.Intf.dhcp_iptv", {{"IPAddress", std::string("10.0.0.1")}});
    enable(false);
    enable(true);
    enable(false);
    EXPECT_EQ(after(0), "- Idle ");

    enable(true);
    after(0);
    const Values same{{"Flags", std::string("dhcp")}, {"LowerLayers", std::string("eth1.20")}};
    model.remove("Weft.Intf.dhcp_iptv"); /* another of that name is another client */
    model.add("Weft.Intf", "dhcp_iptv", same);
    EXPECT_EQ(after(0), "- +eth1.20 Selecting ");
}

/* The real operator's twin shows the same as the real clients do. */
TEST(WanTwin, ShowsWhatIsSeenAndRestartsWhatWasInterrupted) {
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    InterfaceGraph graph(model);
    SimOperator wan(loop, graph);
    const std::string exchange = "DHCPv4.Client.dhcp_iptv";
    const std::string own_lease = "Weft.Intf.dhcp_iptv.IPv4Addr.dhcp";
    const auto state = [&] { return model.text("Weft.Intf.dhcp_iptv", "DHCPStatus"); };
    graph.set_flag("eth1.20", "up", true);
    wan.online = false;
    model.set("Weft.Intf.dhcp_iptv", {{"Enable", true}});
    loop.advance(10000);
    EXPECT_EQ(model.integer(exchange, "Sent"), 3) << "at 0, 3 and 9 s";
    EXPECT_EQ(model.integer(exchange, "NextTry") - static_cast<std::int64_t>(loop.wall_clock_s()), 11);
    EXPECT_EQ(model.text(exchange, "LastError"), "no answer");
    wan.online = true;
    loop.advance(12000);
    EXPECT_EQ(state(), "Bound");
    EXPECT_EQ(model.text(exchange, "Server"), "10.20.0.1");
    EXPECT_EQ(model.integer(exchange, "Answered"), 2);
    EXPECT_EQ(model.integer(exchange, "NextTry"), 0);
    ASSERT_TRUE(model.find(own_lease));

    wan.refuse_once("dhcp_iptv");
    wan.renew("dhcp_iptv");
    loop.advance(1000);
    EXPECT_EQ(state(), "Selecting");
    EXPECT_FALSE(model.find(own_lease));
    EXPECT_EQ(model.text(exchange, "LastError"), "refused by 10.20.0.1");
    loop.advance(3000);
    EXPECT_EQ(state(), "Bound");
    for (const bool on : {false, true})
        model.set("Weft.Intf.dhcp_iptv", {{"Enable", on}});
    loop.advance(1000);
    EXPECT_EQ(wan.starts["dhcp_iptv"], 2U);
    EXPECT_EQ(state(), "Bound");
    model.remove("Weft.Intf.dhcp_iptv");
    loop.advance(1000);
    EXPECT_FALSE(model.find(exchange));
}

} // namespace keel
