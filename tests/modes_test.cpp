/* Every change of the mode, on the virtual clock: what is in force afterwards is the new mode's, whole, and nothing of
 * the old one's but what is meant to stay. */
#include "host/gateway/graph.h"
#include "tests/sim_gateway.h"

namespace keel {

namespace {

struct Mode {
    const char *name;
    const char *interface;
    /* What the mode itself brings. */
    const char *policy; /* nullptr: not written */
    const char *mirror; /* address and state */
    bool daemon;
    bool asks_for_wan_mode;
    bool script;
    bool routed;
    bool relinks;
};

constexpr Mode modes[] = {
    {"Bridged", "Dedicated", nullptr, " Idle", false, false, false, false, false},
    {"Routed", "Dedicated", "Firewall.Chain.IPTV_Out", "10.20.0.9 Bound", true, true, false, true, false},
    {"Simplified", "Dedicated", "Off", "10.20.0.9 Bound", true, true, true, false, false},
    {"SimplifiedV2", "Dedicated", "Off", "10.20.0.9 Bound", true, false, true, false, false},
    {"SimplifiedV2", "Internet", "Off", "0.0.0.0 Bound", true, false, true, false, true},
};

std::string label(const Mode &mode) {
    return std::string(mode.name) + "/" + mode.interface;
}

/* Enables the gateway's own IPTV client, which it does only while the client is in the stack. */
bool enables_dhcp(const Mode &mode) {
    return !mode.relinks && (mode.asks_for_wan_mode || mode.script);
}

} // namespace

class Modes : public SimGateway {
protected:
    void change(const Mode &mode) {
        set("Keel.Zephyrin", {{"Mode", std::string(mode.name)}, {"Interface", std::string(mode.interface)}});
        loop->advance(10 * second);
    }

    /* A bridged gateway with an Internet side, a fixed IPTV address at hand, and an STB that has its LAN address. */
    void bridged_gateway() {
        build();
        set("Keel.Zephyrin", {{"Mode", std::string("Bridged")}});
        set("Weft.Intf.eth1.20", {{"IPTVAddress", std::string("10.20.0.40/24")}});
        kernel->set_link("eth1.10", true);
        model->add("Weft.Intf.eth1.10.IPv4Addr", {},
                   {{"Address", std::string("100.64.0.2")}, {"PrefixLen", std::int64_t{24}}});
        load_plugin();
        SimDevice &stb = serve(1);
        model->add("Hosts.Host", stb.mac(),
                   {{"MACAddress", stb.mac()},
                    {"IPAddress", stb.address()},
                    {"Tags", std::string("lan stb")},
                    {"Active", true}});
        loop->advance(second);
    }

    std::string lower_layers(const char *name) { return model->text(interface_path(name), "LowerLayers"); }

    std::string mirror() {
        return model->text("Keel.Zephyrin.IGDMap", "ExternalIPAddress") + " " +
               model->text("Keel.Zephyrin.IGDMap", "ConnectionStatus");
    }

    std::size_t routed_clients() {
        const auto names = model->instances("Weft.Intf");
        return static_cast<std::size_t>(std::count_if(
            names.begin(), names.end(), [](const std::string &name) { return name.starts_with("dhcp_zep_"); }));
    }

    void expect_in_force(const Mode &from, const Mode &to) {
        const bool relinked = from.relinks || to.relinks;
        const bool dhcp_enabled = enables_dhcp(from) || (!from.relinks && enables_dhcp(to));
        SimDevice &stb = device(1);

        /* The IPTV-to-LAN policy; it stays while a mode follows that writes none. */
        const char *policy = to.policy ? to.policy : from.policy ? from.policy : "Off";
        EXPECT_EQ(model->text("Firewall.Policy.IPTV2Lan", "ReverseChain"), policy);

        /* The multicast daemon; its WAN switch stays as it was when the mode that followed the line was left. */
        EXPECT_EQ(model->boolean("TIDE.Intf.iptv", "ClientEnable"), to.daemon);
        EXPECT_EQ(model->boolean("TIDE.Intf.iptv", "MRTIIFEnable"), to.daemon);
        EXPECT_EQ(model->boolean("TIDE.Intf.iptv", "WANEnable"), to.daemon || from.daemon);

        /* The mirror. Without the DHCP interface in the stack it is the fixed address that is mirrored. */
        std::string shown = to.mirror;
        if (from.relinks && to.mirror == std::string("10.20.0.9 Bound"))
            shown = to.routed ? "10.20.0.10 Bound" : " Idle";
        EXPECT_EQ(mirror(), shown);

        /* The stack. A DHCP interface that was taken out is not put back. */
        std::string stack = relinked ? "eth1.20" : "dhcp_iptv";
        if (to.routed)
            stack += " dhcp_zep_" + stb.id();
        EXPECT_EQ(lower_layers("iptv"), stack);
        EXPECT_EQ(lower_layers("dhcp_iptv"), relinked ? "eth1.30" : "eth1.20 eth1.30");
        EXPECT_EQ(graph->has_flag("eth1.20", "logical"), to.relinks);
        EXPECT_EQ(model->boolean("Weft.Intf.eth1.20.IPv4Addr.iptv", "Enable"), to.relinks);

        /* The gateway's own client stays enabled once a mode has enabled it; its lease goes with its device. */
        EXPECT_EQ(model->boolean("Weft.Intf.dhcp_iptv", "Enable"), dhcp_enabled);
        EXPECT_EQ(addresses("dhcp_iptv"),
                  dhcp_enabled && !relinked ? std::vector<std::string>{"10.20.0.9/24"} : std::vector<std::string>{});

        /* The routed mode's identities, leases, addresses, routes and rules. */
        EXPECT_EQ(routed_clients(), to.routed ? 1U : 0U);
        EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease").size(), to.routed ? 1U : 0U);
        EXPECT_EQ(model->boolean("DHCPv4.Server.Pool.zep_stb", "LeasesOnHold"), to.routed);
        EXPECT_EQ(routes().size(), to.routed ? 2U : 0U);
        EXPECT_EQ(firewall.mapped(stb.address(), "10.20.0.10"), to.routed);
        EXPECT_EQ(firewall.count("eth1.20"), to.routed ? 4U : 0U) << "hooks of the chains";
        EXPECT_EQ(firewall.rules.size(), to.routed     ? 8U
                                         : from.routed ? 2U
                                                       : 0U)
            << "the two default rules stay in the chain that nothing jumps to";
        EXPECT_FALSE(stb.address().empty());

        /* The script's rules stay in force when the simplified modes are left. */
        std::set<std::string> rules;
        if (from.script || to.script)
            rules = {"main_rules eth1.10", "aux_rules " + stb.address()};
        EXPECT_EQ(script.in_force, rules);

        EXPECT_EQ(firewall.bridge_rules, relinked ? std::vector<std::string>{} : bridge_rules_at_start)
            << "layer-2 isolation follows the stack alone, in every mode";
    }

    std::vector<std::string> bridge_rules_at_start;
};

TEST_F(Modes, AfterEveryChangeTheNewModeIsInForceAlone) {
    for (const Mode &from : modes)
        for (const Mode &to : modes) {
            if (&from == &to)
                continue;
            SCOPED_TRACE(label(from) + " -> " + label(to));
            firewall = {};
            bridged_gateway();
            bridge_rules_at_start = firewall.bridge_rules;
            EXPECT_FALSE(bridge_rules_at_start.empty());
            change(from);
            change(to);
            expect_in_force(from, to);
            power_off();
            remove_store();
        }
}

TEST_F(Modes, TheLanServersTimesAreThoseOfTheModelFileAgain) {
    const std::string pool = "DHCPv4.Server.Pool.zep_stb";
    const auto time = [&](const char *name) { return model->integer(pool, name); };
    power_on();
    wan->online = false;
    SimDevice &stb = device(1);
    stb.start();
    loop->advance(70 * second);
    ASSERT_EQ(stb.last(DhcpType::Ack)->lease_time(), 300U) << "a stop-gap";
    EXPECT_EQ(time("MaxLeaseTime"), 300);
    change(modes[0]);
    EXPECT_EQ(time("MinLeaseTime"), 120);
    EXPECT_EQ(time("LeaseTime"), 86400);
    EXPECT_EQ(time("MaxLeaseTime"), 86400);
    set(pool, {{"LeaseTime", std::int64_t{7200}}});
    loop->advance(150 * second);
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 7200U);
    set("Keel.Zephyrin", {{"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}});
    loop->advance(70 * second);
    wan->online = true;
    loop->advance(5 * minute);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_EQ(time("MinLeaseTime"), 86400) << "the service's own";
    /* A write of the plug-in's in the very turn in which the mode is left is no wish of a person's. */
    model->set(pool, {{"LeaseTime", std::int64_t{300}}, {"MaxLeaseTime", std::int64_t{300}}, {"LeasesOnHold", true}});
    change(modes[0]);
    EXPECT_EQ(time("LeaseTime"), 7200) << "what a person has set stays";
    EXPECT_EQ(time("MaxLeaseTime"), 86400);
}

TEST_F(Modes, ThereAndBackIsAsBefore) {
    bridged_gateway();
    for (int round = 0; round < 3; ++round)
        for (const Mode *mode : {&modes[1], &modes[2], &modes[3], &modes[1]}) {
            change(*mode);
            EXPECT_EQ(routed_clients(), mode->routed ? 1U : 0U) << round << label(*mode);
            EXPECT_EQ(firewall.count("SNAT"), mode->routed ? 1U : 0U) << round << label(*mode);
            EXPECT_EQ(firewall.count("PREROUTING_zep_DROP"), mode->routed ? 1U : 0U) << round << label(*mode);
            EXPECT_EQ(model->boolean("TIDE.Intf.iptv", "WANEnable"), true);
        }
    stop_plugin();
    EXPECT_TRUE(firewall.bridge_rules.empty());
    EXPECT_EQ(mirror(), " Idle");
    EXPECT_FALSE(model->boolean("TIDE.Intf.iptv", "ClientEnable"));
    expect_clean();
}

} // namespace keel
