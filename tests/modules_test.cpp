/* The bridged-side sub-modules, each where it may go wrong. */
#include "platform/roster.h"
#include "platform/weft.h"
#include "tests/sim_gateway.h"

namespace keel {

class Modules : public SimGateway {
protected:
    void start_in(const char *mode, const char *interface = "Dedicated") {
        build();
        set("Keel.Zephyrin", {{"Mode", std::string(mode)}, {"Interface", std::string(interface)}});
        load_plugin();
        loop->advance(second);
    }

    /* The settings as a notification has them, without a cleanup between. */
    void told(const char *mode, const char *interface) {
        model->notify("Keel.Zephyrin", 102, {{"Mode", std::string(mode)}, {"Interface", std::string(interface)}});
    }

    std::string host(unsigned number) { return "02:00:00:00:00:0" + std::to_string(number); }

    void arrive(unsigned number) {
        model->add("Hosts.Host", host(number),
                   {{"MACAddress", host(number)},
                    {"IPAddress", "192.168.1.2" + std::to_string(number)},
                    {"Tags", std::string("lan stb")},
                    {"Active", true}});
    }

    void leave(unsigned number) { model->set("Hosts.Host." + host(number), {{"Active", false}}); }

    void move_data(const char *from, const char *to) {
        if (from)
            kernel->set_link(from, false);
        if (to)
            kernel->set_link(to, true);
        loop->advance(second);
    }

    /* The Internet side over two devices, each with an address, both down. */
    void two_data_devices() {
        model->add("Weft.Intf", "eth1.11", {{"Flags", std::string("netdev vlan")}});
        set("Weft.Intf.data", {{"LowerLayers", std::string("eth1.10 eth1.11")}});
        for (const char *device : {"eth1.10", "eth1.11"})
            model->add("Weft.Intf." + std::string(device) + ".IPv4Addr", {},
                       {{"Address", std::string("100.64.0.2")}, {"PrefixLen", std::int64_t{24}}});
        loop->run_until_idle();
    }

    std::string mirror() {
        return model->text("Keel.Zephyrin.IGDMap", "ExternalIPAddress") + " " +
               (model->boolean("Keel.Zephyrin.IGDMap", "Enable") ? "true " : "false ") +
               model->text("Keel.Zephyrin.IGDMap", "ConnectionStatus");
    }

    std::int64_t reset_timeout() { return model->integer("Weft.Intf.dhcp_iptv", "ResetOnPhysDownTimeout"); }
};

/* ------------------------------------------------------------------------------------------- multicast daemon */

TEST_F(Modules, TheDaemonFollowsTheLineWhileItsModeLasts) {
    start_in("Routed", "Internet");
    EXPECT_TRUE(model->boolean("TIDE.Intf.iptv", "ClientEnable"));
    EXPECT_TRUE(model->boolean("TIDE.Intf.iptv", "WANEnable"));
    told("Simplified", "Dedicated");
    loop->run_until_idle();
    EXPECT_EQ(traced("Set TIDE.Intf.iptv.{ClientEnable=1,MRTIIFEnable=1}"), 2U);
    kernel->set_link("eth1.20", false);
    loop->run_until_idle();
    EXPECT_FALSE(model->boolean("TIDE.Intf.iptv", "WANEnable"));
    kernel->set_link("eth1.20", true);
    loop->run_until_idle();
    EXPECT_EQ(traced("Set TIDE.Intf.iptv.{WANEnable=1}"), 2U) << "one query, told once for each change";

    /* The line changes while the mode is being left: the query is closed before its result comes. */
    model->notify("Keel.Zephyrin", 101, {});
    kernel->set_link("eth1.20", false);
    loop->run_until_idle();
    EXPECT_TRUE(model->boolean("TIDE.Intf.iptv", "WANEnable"));
    EXPECT_FALSE(model->boolean("TIDE.Intf.iptv", "ClientEnable"));
    EXPECT_EQ(traced("Set TIDE.Intf.iptv.{WANEnable=0}"), 1U);
}

/* -------------------------------------------------------------------------------------------- layer-2 isolation */

TEST_F(Modules, TheChainsHoldTheRulesOfTheInterfacesOfNow) {
    start_in("Bridged");
    const std::string isolation = "filter FORWARD_Isolation  -j DROP ";
    const auto pairs = [&] {
        std::vector<std::string> found;
        for (const std::string &rule : firewall.bridge_rules)
            if (rule.starts_with(isolation))
                found.push_back(rule.substr(isolation.size()));
        return found;
    };
    EXPECT_TRUE(pairs().empty()) << "one device has nobody to be kept from";
    model->add("Weft.Intf", "eth1.21", {{"Flags", std::string("netdev vlan zep-no-igmp")}});
    model->add("Weft.Intf", "atm0", {{"Flags", std::string("netdev atm up")}});
    model->add("Weft.Intf", "eth1.22$(reboot)", {{"Flags", std::string("netdev vlan up zep-only-igmp")}});
    set("Weft.Intf.iptv", {{"LowerLayers", std::string("dhcp_iptv eth1.21 atm0 eth1.22$(reboot)")}});
    kernel->set_link("eth1.21", true);
    loop->run_until_idle();
    EXPECT_EQ(pairs(), (std::vector<std::string>{"-i eth1.21 -o atm0", "-i eth1.21 -o eth1.20", "-i atm0 -o eth1.21",
                                                 "-i atm0 -o eth1.20", "-i eth1.20 -o eth1.21", "-i eth1.20 -o atm0"}));
    const auto has = [](const char *rule) {
        return std::count(firewall.bridge_rules.begin(), firewall.bridge_rules.end(), rule);
    };
    const char *no_dhcp =
        "nat POSTROUTING_No_DHCP -p 0x800 --ip-protocol udp --ip-destination-port 67:68 -j DROP -o eth1.21";
    EXPECT_EQ(has(no_dhcp), 1);
    EXPECT_EQ(has("nat POSTROUTING_No_IGMP -d 01:00:5e:00:00:00/ff:ff:ff:00:00:00 -j DROP -o eth1.21"), 1);
    for (const std::string &command : firewall.commands)
        EXPECT_EQ(command.find("reboot"), std::string::npos) << command;
    const auto skipped = [](const char *chain) {
        return traced("[x]Invalid intf eth1.22$(reboot) has no rule in " + std::string(chain));
    };
    EXPECT_GT(skipped("FORWARD_Isolation"), 0U);
    EXPECT_GT(skipped("POSTROUTING_Only_IGMP"), 0U);
    set("Weft.Intf.eth1.22$(reboot)", {{"Flags", std::string("netdev vlan")}});
    TraceLog::instance().clear();
    set("Weft.Intf.eth1.22$(reboot)", {{"Flags", std::string("netdev vlan up")}});
    EXPECT_EQ(skipped("FORWARD_Isolation"), 1U) << "once, not with each of the others";

    set("Weft.Intf.eth1.21", {{"Flags", std::string("netdev vlan up zep-dhcp-vlan zep-only-igmp")}});
    EXPECT_EQ(has(no_dhcp), 0);
    EXPECT_EQ(has("nat POSTROUTING_Only_IGMP -d ! 01:00:5e:00:00:00/ff:ff:ff:00:00:00 -j DROP -o eth1.21"), 1);
    kernel->set_link("eth1.20", false);
    loop->run_until_idle();
    EXPECT_EQ(pairs(), (std::vector<std::string>{"-i eth1.21 -o atm0", "-i atm0 -o eth1.21"}));

    firewall.failing = "-i eth1.21";
    set("Weft.Intf.eth1.21", {{"Flags", std::string("netdev vlan up zep-dhcp-vlan zep-no-igmp zep-only-igmp x")}});
    kernel->set_link("eth1.20", true);
    loop->run_until_idle();
    EXPECT_EQ(pairs().size(), 4U) << "a command that fails does not stop the others";
    EXPECT_EQ(traced("Command[/usr/sbin/ebtables -t filter -A FORWARD_Isolation  -j DROP -i eth1.21 -o atm0] failed"),
              1U);
    firewall.failing.clear();
    stop_plugin();
    EXPECT_TRUE(firewall.bridge_rules.empty());
}

/* ------------------------------------------------------------------------------------------------ WAN mode */

TEST_F(Modules, TheStackIsEnabledOnceTheWanModeIsKnown) {
    build();
    model->set("Steward", {{"WANMode", std::string()}});
    model->set("Weft.Intf.dhcp_iptv", {{"ResetOnPhysDownTimeout", std::int64_t{7}}});
    set("Keel.Zephyrin", {{"Mode", std::string("Simplified")}});
    load_plugin();
    EXPECT_FALSE(model->boolean("Weft.Intf.dhcp_iptv", "Enable")) << "no WAN mode yet";
    EXPECT_EQ(reset_timeout(), 7);

    /* The answer comes when the settings have become ones that must not write. */
    model->set("Steward", {{"WANMode", std::string("Ethernet")}});
    told("Simplified", "Dedicated");
    told("Bridged", "Internet");
    loop->run_until_idle();
    EXPECT_FALSE(model->boolean("Weft.Intf.dhcp_iptv", "Enable"));
    EXPECT_EQ(reset_timeout(), 7);
    told("Simplified", "Dedicated");
    set("Keel.Zephyrin", {{"Enable", false}});
    EXPECT_FALSE(model->boolean("Weft.Intf.dhcp_iptv", "Enable")) << "the question was taken back";

    told("Simplified", "Internet");
    loop->run_until_idle();
    EXPECT_FALSE(model->boolean("Weft.Intf.dhcp_iptv", "Enable"));
    EXPECT_EQ(reset_timeout(), 0);
    set("Weft.Intf.eth1.20", {{"Flags", std::string("netdev vlan up dsl")}});
    told("Simplified", "Dedicated");
    loop->run_until_idle();
    EXPECT_TRUE(model->boolean("Weft.Intf.dhcp_iptv", "Enable"));
    EXPECT_EQ(reset_timeout(), 90);
}

TEST_F(Modules, WithoutADhcpInterfaceTheSecondSimplifiedModeWritesNothing) {
    start_in("Bridged");
    set("Weft.Intf.iptv", {{"LowerLayers", std::string("eth1.20")}});
    set("Weft.Intf.eth1.20", {{"Enable", false}});
    set("Keel.Zephyrin", {{"Mode", std::string("SimplifiedV2")}});
    EXPECT_FALSE(model->boolean("Weft.Intf.eth1.20", "Enable"));
    set("Weft.Intf.iptv", {{"LowerLayers", std::string("dhcp_iptv")}});
    set("Keel.Zephyrin", {{"Interface", std::string("neither")}});
    EXPECT_TRUE(model->boolean("Weft.Intf.eth1.20", "Enable")) << "an unknown interface is enabled, not re-linked";
    EXPECT_EQ(model->text("Weft.Intf.iptv", "LowerLayers"), "dhcp_iptv");
}

/* ---------------------------------------------------------------------------------------------- address mirror */

TEST_F(Modules, TheMirrorShowsTheAddressOfItsQuery) {
    start_in("Simplified");
    EXPECT_EQ(mirror(), "10.20.0.9 true Bound");
    kernel->set_link("eth1.20", false);
    loop->advance(second);
    EXPECT_EQ(mirror(), " false Idle") << "the lease is over with its device";
    model->add("Weft.Intf.iptv.IPv4Addr", "odd", {{"Address", std::string("0.0.0.0")}});
    loop->run_until_idle();
    EXPECT_EQ(mirror(), " false Idle") << "no address is not an address";
    model->remove("Weft.Intf.iptv.IPv4Addr.odd");
    two_data_devices();
    kernel->set_link("eth1.10", true);
    told("SimplifiedV2", "Internet");
    loop->run_until_idle();
    EXPECT_EQ(mirror(), " false Idle") << "the open query stays on iptv";
    model->set("Weft.Intf.dhcp_iptv", {{"Enable", false}});
    model->add("Weft.Intf.iptv.IPv4Addr", "odd", {{"Address", std::string("10.20.0.77")}});
    loop->run_until_idle();
    EXPECT_EQ(mirror(), "0.0.0.0 true Bound") << "and is reported in the terms of the settings of now";
    set("Keel.Zephyrin", {{"Mode", std::string("Routed")}, {"Interface", std::string("Internet")}});
    EXPECT_EQ(mirror(), " false Idle") << "no query in this mode";
}

/* ------------------------------------------------------------------------------------- firewall of simplified */

TEST_F(Modules, StbsGetTheirRulesOneAfterAnother) {
    start_in("Simplified");
    for (const unsigned number : {1U, 2U, 3U})
        arrive(number);
    loop->run_until_idle();
    EXPECT_EQ(script.runs, std::vector<std::string>{"aux_rules A 192.168.1.21"});
    EXPECT_EQ(traced("Script is busy"), 2U);
    leave(1); /* while its own run goes on */
    leave(3); /* while it still waits */
    loop->run_until_idle();
    loop->advance(second);
    EXPECT_EQ(script.runs, (std::vector<std::string>{"aux_rules A 192.168.1.21", "aux_rules D 192.168.1.21",
                                                     "aux_rules A 192.168.1.22", "aux_rules D 192.168.1.23"}))
        << "who left while waiting is never added";
    EXPECT_EQ(script.in_force, std::set<std::string>{"aux_rules 192.168.1.22"});

    model->add("Hosts.Host", host(4), {{"Tags", std::string("lan stb")}, {"Active", true}});
    loop->run_until_idle();
    EXPECT_EQ(traced("New STB found 02:00:00:00:00:04 ip = (null)"), 1U);
    operation<void(const char *, const char *)>("zep_firewall_addSTBList")("listed", "192.168.1.29");
    EXPECT_EQ(script.runs.size(), 4U) << "it waits for the end of another one's run";
    arrive(6);
    loop->run_until_idle();
    loop->advance(second);
    EXPECT_EQ(script.runs.size(), 6U);
    EXPECT_EQ(script.runs.back(), "aux_rules A 192.168.1.29");
    script.missing = true;
    arrive(5);
    loop->run_until_idle();
    EXPECT_EQ(traced("iptables add STB port ko"), 1U);
    EXPECT_EQ(script.runs.size(), 6U);
}

TEST_F(Modules, ADevicesLastAddressBeforeTheListGoesWrongIsItsAddress) {
    start_in("Simplified");
    auto *update =
        operation<void(roster_query_t *, const char *, const variant_t *, int)>("zep_firewall_updateSTBList");
    const auto report = [&](const std::vector<const char *> &addresses, int action) {
        variant_t device{};
        variant_initialize(&device, variant_type_map);
        variant_t list{};
        variant_initialize(&list, variant_type_list);
        for (const char *address : addresses) {
            if (!address) {
                variant_list_addChar(variant_da_list(&list), "no map");
                continue;
            }
            variant_map_t entry;
            variant_map_initialize(&entry);
            variant_map_addChar(&entry, "Address", address);
            variant_list_addMapCopy(variant_da_list(&list), &entry);
            variant_map_cleanup(&entry);
        }
        variant_map_add(variant_da_map(&device), "IPv4Address", &list);
        variant_cleanup(&list);
        update(nullptr, "stb", &device, action);
        variant_cleanup(&device);
        loop->advance(second);
    };
    report({"192.168.1.30", "192.168.1.31", nullptr, "192.168.1.32"}, 0);
    report({nullptr, "192.168.1.33"}, 0);
    report({"192.168.1.34"}, 1);
    report({"192.168.1.35"}, 2);
    report({"192.168.1.35"}, 2);
    update(nullptr, nullptr, nullptr, 0);
    update(nullptr, nullptr, nullptr, 2);
    EXPECT_EQ(script.runs, (std::vector<std::string>{"aux_rules A 192.168.1.31", "aux_rules D 192.168.1.31"}));
}

TEST_F(Modules, TheMainRulesFollowTheDataInterface) {
    start_in("Simplified");
    two_data_devices();
    move_data(nullptr, "eth1.10");
    move_data("eth1.10", "eth1.11");
    kernel->set_link("eth1.10", false); /* no news */
    move_data("eth1.11", nullptr);
    EXPECT_EQ(script.runs, (std::vector<std::string>{"main_rules A eth1.10", "main_rules D eth1.10",
                                                     "main_rules A eth1.11", "main_rules D eth1.11"}));
    EXPECT_TRUE(script.in_force.empty());
}

TEST_F(Modules, ACleanupOrAnotherInitInTheMiddleOfARun) {
    start_in("Simplified");
    two_data_devices();
    move_data(nullptr, "eth1.10");
    arrive(1);
    arrive(2);
    loop->run_until_idle();
    told("Simplified", "Dedicated"); /* the first one's run goes on, the second one waits */
    loop->run_until_idle();
    loop->advance(second);
    EXPECT_EQ(script.runs, (std::vector<std::string>{"main_rules A eth1.10", "aux_rules A 192.168.1.21"}))
        << "the STBs known before are forgotten, and the end of the earlier run is nobody's";
    arrive(3);
    arrive(4);
    loop->run_until_idle();
    EXPECT_EQ(script.runs.size(), 3U);
    set("Keel.Zephyrin", {{"Enable", false}});
    loop->advance(second);
    leave(3);
    loop->advance(second);
    EXPECT_EQ(script.runs.size(), 3U) << "an exit after the cleanup starts nothing";
    EXPECT_EQ(script.in_force,
              (std::set<std::string>{"aux_rules 192.168.1.21", "aux_rules 192.168.1.23", "main_rules eth1.10"}))
        << "the rules stay in force";
    set("Keel.Zephyrin", {{"Enable", true}});
    loop->advance(second);
    EXPECT_EQ(script.runs.back(), "aux_rules A 192.168.1.24") << "who is there is served anew";
}

} // namespace keel
