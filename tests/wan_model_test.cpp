/*
 * Which interfaces are to run a WAN DHCP client, and how the twin of the clients shows.
 */
#include <gtest/gtest.h>

#include "host/base/trace.h"
#include "host/gateway/wan_client_model.h"
#include "host/sim/sim_loop.h"
#include "host/sim/sim_operator.h"

namespace keel {

using namespace std::string_literals;

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

TEST(WanLeases, AnAddressMustBeOneThatTheGatewayCanUse) {
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    model.set("DHCPv4.Server.Pool.zep_itf", {{"Router", "192.168.2.129"s}, {"SubnetMask", "255.255.255.128"s}});
    model.set("DHCPv4.Server.Pool.lan", {{"Router", ""s}});
    const struct {
        const char *address;
        const char *mask;
        bool usable;
    } leases[] = {{"10.20.0.51", "255.255.255.0", true},
                  {"10.20.0.255", "255.255.0.0", true},
                  {"10.20.0.255", "255.255.255.0", false},
                  {"10.20.0.0", "255.255.255.0", false},
                  {"10.20.0.0", "255.255.255.254", true},
                  {"10.20.0.1", "255.255.255.254", true},
                  {"10.20.0.3", "255.255.255.252", false},
                  {"10.20.0.255", "255.255.255.255", true},
                  {"1.0.0.1", "255.0.0.0", true},
                  {"0.20.0.1", "255.255.255.0", false},
                  {"127.0.0.1", "255.0.0.0", false},
                  {"126.0.0.1", "255.0.0.0", true},
                  {"128.0.0.1", "255.255.0.0", true},
                  {"223.255.255.254", "255.255.255.0", true},
                  {"224.0.0.5", "255.255.255.0", false},
                  {"240.0.0.1", "255.255.255.0", false},
                  {"255.255.255.255", "255.0.0.0", false},
                  {"", "255.255.255.0", false},
                  {"10.20.0.51", "255.0.255.0", false},
                  {"10.20.0.51", "0.0.0.0", false},
                  {"10.20.0.51", "", false},
                  {"10.20.0.51", "0.0.0.255", false},
                  {"192.168.1.1", "255.255.255.0", false},
                  {"192.168.1.200", "255.255.255.255", false},
                  {"192.168.2.1", "255.255.255.0", true},
                  {"192.168.2.130", "255.255.255.0", false},
                  {"192.168.0.200", "255.255.254.0", true}};
    for (const auto &[address, mask, usable] : leases)
        EXPECT_EQ(!address_fault(model, {address, mask, {}}), usable) << address << " " << mask;

    WanLease lease{"10.20.0.51",
                   "255.255.255.0",
                   {{3, "0a1400"}, {6, "0a140001"}, {42, "0a14000200"}, {72, ""}, {43, "010203"}, {66, "xyz"}}};
    EXPECT_EQ(drop_faulty_options(lease).size(), 3U);
    EXPECT_EQ(lease.options, (std::map<int, std::string>{{6, "0a140001"}, {72, ""}, {43, "010203"}}));
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

TEST(WanTwin, AnOperatorThatLeasesRubbishIsAskedAgainAndTracedLessAndLessOften) {
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    InterfaceGraph graph(model);
    SimOperator wan(loop, graph);
    TraceLog::instance().clear();
    const auto traced = [](const std::string &part) {
        const auto &lines = TraceLog::instance().recent();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const TraceLine &line) { return line.text.find(part) != std::string::npos; });
    };
    const std::string own = "Weft.Intf.dhcp_iptv";
    const std::string id = model.text(own + ".SentOption.61", "Value");
    std::vector<std::string> states;
    model.watch(own,
                [&](const Event &event) {
                    if (const auto status = event.values.find("DHCPStatus"); status != event.values.end())
                        states.push_back(to_text(status->second));
                },
                {{"DHCPStatus"}, false});
    graph.set_flag("eth1.20", "up", true);
    wan.lease_address(id, "127.0.0.1");
    model.set(own, {{"Enable", true}});
    loop.advance(100000); /* tries at 0, 3, 9, 21, 45 and 93 s */
    EXPECT_EQ(states, (std::vector<std::string>{"Selecting", "Requesting", "Selecting"}))
        << "what gets no further does not seem to";
    EXPECT_TRUE(graph.addresses("eth1.20").empty());
    EXPECT_EQ(model.text(own, "IPAddress"), "");
    EXPECT_EQ(model.text("DHCPv4.Client.dhcp_iptv", "LastError"), "address 127.0.0.1 is none that a host can have");
    EXPECT_EQ(model.integer("DHCPv4.Client.dhcp_iptv", "Dropped"), 6);
    EXPECT_EQ(traced("dhcp_iptv: the operator leased what cannot be: address 127.0.0.1"), 3) << "the 1st, 2nd and 4th";

    wan.lease_address(id, "10.20.0.9");
    wan.options = {{42, "0a1400"}, {72, "0a140003"}};
    EXPECT_FALSE(model.add(own + ".ReqOption", "72x", {})) << "by hand, and no option's number";
    loop.advance(64000);
    EXPECT_EQ(states.back(), "Bound");
    EXPECT_EQ(graph.addresses("eth1.20").size(), 1U);
    EXPECT_EQ(model.instances(own + ".ReqOption"), std::vector<std::string>{"72"});
    EXPECT_EQ(traced("option 42 0a1400 is no list of addresses; it is left out (1 times so far)"), 1);

    wan.lease_address(id, "192.168.1.20");
    wan.renew("dhcp_iptv");
    loop.advance(1000);
    EXPECT_EQ(states.back(), "Selecting") << "a lease that a renewal spoilt";
    EXPECT_TRUE(graph.addresses("eth1.20").empty());
    wan.lease_address(id, "10.20.0.9");
    for (const bool on : {false, true})
        model.set(own, {{"Enable", on}});
    states.clear();
    loop.advance(1000);
    EXPECT_EQ(states, (std::vector<std::string>{"Idle", "Selecting", "Requesting", "Bound"}));
}

} // namespace keel
