/* The lives of set-top boxes behind the routed mode, on the virtual clock. */
#include "tests/sim_gateway.h"

namespace keel {

class Life : public SimGateway {};

TEST_F(Life, AnStbIsServedWithAWanAddressOfItsOwn) {
    power_on();
    wan->online = false;
    SimDevice &stb = device(1);
    stb.start();
    loop->advance(20 * second);
    EXPECT_TRUE(stb.answers().empty()) << "answered before there was a WAN lease";
    EXPECT_TRUE(held(stb));
    EXPECT_EQ(identity(stb.id(), "ClientIDOffset"), "0");
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unconnected");
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Selecting");
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_" + stb.id() + ".SentOption.61", "Value"), "01021a2b3c4d5e");
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_" + stb.id() + ".MIB.dhcp", "VendorClass"), "keel-iptv");

    const std::uint64_t online_at = loop->now_ms();
    wan->online = true;
    loop->advance(5 * second);
    const auto *offer = stb.last(DhcpType::Offer);
    const auto *ack = stb.last(DhcpType::Ack);
    ASSERT_TRUE(offer && ack);
    EXPECT_GE(offer->at_ms, online_at);
    EXPECT_EQ(ack->lease_time(), 86400U);
    EXPECT_EQ(format_hex(ack->options.at(42)), "0a140002");
    EXPECT_EQ(format_hex(ack->options.at(72)), "0a140003");
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_EQ(identity(stb.id(), "IPAddress"), "10.20.0.10");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    EXPECT_EQ(firewall.count("raw PREROUTING_zep_ACCEPT -d 10.20.0.10/255.255.255.255 -j ACCEPT"), 1U);
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    EXPECT_EQ(routes(), (std::vector<std::string>{"10.60.0.0", "10.61.0.0"}));
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClasslessStaticRoute").size(), 2U);
    EXPECT_EQ(model->text("Keel.Zephyrin", "NTPServer"), "0a140002");
    const std::string stored = "Keel.Zephyrin.ClientLease." + stb.id() + ".ServerLease." + stb.id();
    EXPECT_EQ(model->text(stored, "IPAddress"), stb.address());
    EXPECT_EQ(model->text(stored, "MACAddress"), stb.mac());
    EXPECT_EQ(model->text(stored, "DeviceType"), "STB");

    stop_plugin();
    expect_clean();
}

TEST_F(Life, RoutesAreInstalledOneSecondAfterTheBinding) {
    power_on();
    device(1).start();
    loop->advance(900);
    EXPECT_TRUE(routes().empty());
    loop->advance(300);
    EXPECT_EQ(routes().size(), 2U);
}

TEST_F(Life, WatchdogFallsBackToUnleasedAndTriesAgain) {
    power_on();
    wan->online = false;
    SimDevice &stb = device(1);
    stb.start();
    loop->advance(63 * second + 900);
    EXPECT_TRUE(stb.answers().empty());
    loop->advance(5 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unleased");
    EXPECT_EQ(wan_client(stb.id(), "Enable"), "false");
    ASSERT_TRUE(stb.last(DhcpType::Ack));
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 300U);
    EXPECT_FALSE(stb.last(DhcpType::Ack)->options.contains(42));
    EXPECT_EQ(firewall.count(stb.address()), 0U);

    loop->advance(110 * second); /* two minutes after the fall-back it is tried again */
    EXPECT_EQ(wan_client(stb.id(), "Enable"), "false");
    wan->online = true;
    loop->advance(20 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    loop->advance(150 * second); /* the short lease is renewed with the values of now */
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 86400U);
    EXPECT_TRUE(stb.last(DhcpType::Ack)->options.contains(42));
}

TEST_F(Life, WithTheLineDownAnStbGetsItsShortLeaseAndIsServedOnceItIsBack) {
    power_on();
    kernel->set_link("eth1.20", false);
    SimDevice &stb = serve(1);
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Selecting") << "it looks for a server, though it cannot ask";
    EXPECT_EQ(wan->starts["dhcp_zep_" + stb.id()], 0U);
    loop->advance(60 * second);
    EXPECT_TRUE(stb.answers().empty());
    loop->advance(6 * second);
    ASSERT_TRUE(stb.last(DhcpType::Ack)) << "64 s after it was enabled";
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 300U);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unleased");
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Idle");

    kernel->set_link("eth1.20", true);
    loop->advance(2 * minute);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));

    /* One that is served is served again at once, however long the line was down. */
    kernel->set_link("eth1.20", false);
    loop->advance(3 * minute);
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Idle") << "the plug-in has disabled it";
    EXPECT_EQ(firewall.count(stb.address() + " "), 0U);
    kernel->set_link("eth1.20", true);
    loop->advance(2 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
}

TEST_F(Life, WatchdogFallsBackToInternalAndKeepsTheAddress) {
    power_on();
    SimDevice &stb = serve(1);
    set_present(stb, true);
    const unsigned starts = wan->starts["dhcp_zep_" + stb.id()];
    wan->online = false;
    loop->advance(wan->lease_s * second); /* the lease runs out; the client selects again, in vain */
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Selecting");
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    loop->advance(70 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Internal");
    EXPECT_EQ(wan_client(stb.id(), "Enable"), "false");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    EXPECT_EQ(routes().size(), 2U);

    wan->online = true;
    loop->advance(29 * minute);
    EXPECT_EQ(wan->starts["dhcp_zep_" + stb.id()], starts);
    loop->advance(2 * minute);
    EXPECT_EQ(wan->starts["dhcp_zep_" + stb.id()], starts + 1);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
}

TEST_F(Life, ANakTakesAddressMappingAndRoutesAwayUntilTheNextBinding) {
    power_on();
    SimDevice &stb = serve(1);
    const std::string client = "dhcp_zep_" + stb.id();
    for (const std::string next : {"10.20.0.77", "10.20.0.78"}) { /* a second NAK must be seen as well */
        const std::string before = identity(stb.id(), "IPAddress");
        wan->lease_address("01021a2b3c4d5e", next);
        wan->refuse_once(client);
        wan->renew(client);
        loop->advance(second);
        EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unconnected");
        EXPECT_EQ(identity(stb.id(), "IPAddress"), "0.0.0.0");
        EXPECT_EQ(firewall.count(before), 0U);
        EXPECT_TRUE(addresses().empty());
        EXPECT_TRUE(routes().empty());
        loop->advance(5 * second);
        EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
        EXPECT_EQ(addresses(), std::vector<std::string>{next + "/24"});
        EXPECT_TRUE(firewall.mapped(stb.address(), next));
        EXPECT_EQ(routes().size(), 2U);
    }
}

TEST_F(Life, ARenewalMovesNothing) {
    power_on();
    SimDevice &stb = serve(1);
    const auto commands = firewall.commands.size();
    const auto generation_of_routes = model->instances("Weft.Intf.eth1.20.IPv4Route");
    TraceLog::instance().clear();
    loop->advance(5 * hour);
    EXPECT_EQ(firewall.commands.size(), commands);
    EXPECT_EQ(model->instances("Weft.Intf.eth1.20.IPv4Route"), generation_of_routes);
    EXPECT_EQ(traced("Update staticless routes."), 0U);
    EXPECT_EQ(wan->starts["dhcp_zep_" + stb.id()], 1U);
    EXPECT_GT(traced("status=Renewing"), 5U);
}

TEST_F(Life, AddressAndMaskChangesFollowTheOperator) {
    power_on();
    SimDevice &one = serve(1);
    SimDevice &two = serve(2);
    wan->lease_address("01021a2b3c4d5e", "10.20.0.90");
    wan->renew("dhcp_zep_" + one.id());
    loop->advance(2 * second);
    EXPECT_TRUE(firewall.mapped(one.address(), "10.20.0.90"));
    EXPECT_EQ(firewall.count("10.20.0.10"), 0U);
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.20.0.11/24", "10.20.0.90/24"}));
    EXPECT_EQ(wan->starts["dhcp_zep_" + two.id()], 1U) << "an address change is no other identity's affair";

    wan->mask = "255.255.0.0";
    wan->renew("dhcp_zep_" + one.id());
    loop->advance(2 * second);
    EXPECT_EQ(wan->starts["dhcp_zep_" + two.id()], 2U) << "a new mask has the others bind anew";
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.20.0.90/16", "10.20.0.11/16"}));
    EXPECT_TRUE(firewall.mapped(one.address(), "10.20.0.90"));
    EXPECT_TRUE(firewall.mapped(two.address(), "10.20.0.11"));
    EXPECT_EQ(routes().size(), 2U);
}

TEST_F(Life, NewServersAndRoutesReachSettingsPoolsAndKernel) {
    power_on();
    SimDevice &stb = serve(1);
    wan->options = {{42, "0a1400ff"}, {72, ""}, {121, "180a46000a140001"}};
    wan->options.erase(72);
    wan->renew("dhcp_zep_" + stb.id());
    loop->advance(2 * second);
    EXPECT_EQ(model->text("Keel.Zephyrin", "NTPServer"), "0a1400ff");
    EXPECT_EQ(model->text("Keel.Zephyrin", "WWWServer"), "0a140003") << "an option that does not come changes nothing";
    EXPECT_EQ(model->text("DHCPv4.Server.Pool.zep_itf.Option.ntp", "Value"), "0a1400ff");
    EXPECT_EQ(routes(), std::vector<std::string>{"10.70.0.0"});
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClasslessStaticRoute").size(), 1U);
}

TEST_F(Life, FourSlotsAFifthStbAndTheItfDevice) {
    power_on();
    for (unsigned number = 1; number <= 4; ++number) {
        SimDevice &stb = serve(number);
        EXPECT_EQ(identity(stb.id(), "ClientIDOffset"), std::to_string(number - 1));
        EXPECT_FALSE(stb.address().empty());
    }
    EXPECT_EQ(identity(device(4).id(), "DHCPCStatus"), "Unconnected") << "the fourth slot is not written at a binding";
    SimDevice &fifth = serve(5);
    loop->advance(10 * minute);
    EXPECT_TRUE(fifth.answers().empty());
    EXPECT_TRUE(held(fifth));
    EXPECT_EQ(identity(fifth.id(), "ClientIDOffset"), "(none)");

    SimDevice &itf = serve(6, "zep-itf");
    EXPECT_EQ(identity("itf", "ClientIDOffset"), "4");
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_itf.SentOption.61", "Value"), "01021a2b3c4d62");
    EXPECT_TRUE(firewall.mapped(itf.address(), "10.20.0.14"));
    SimDevice &pc = serve(7, "pc");
    EXPECT_TRUE(pc.address().starts_with("192.168.1.1"));
    EXPECT_EQ(firewall.count(pc.address() + " "), 0U);

    device(4).leave(); /* its slot is released at once, and the fifth gets it */
    loop->advance(10 * second);
    EXPECT_EQ(identity(device(4).id(), "ClientIDOffset"), "(none)");
    fifth.stop();
    loop->advance(2 * minute); /* its held lease runs out, so that it is reported anew */
    fifth.start();
    loop->advance(10 * second);
    EXPECT_EQ(identity(fifth.id(), "ClientIDOffset"), "3");
    EXPECT_FALSE(fifth.address().empty());
}

TEST_F(Life, MonoClientSharesOneIdentity) {
    build();
    model->set("Keel.Zephyrin", {{"MonoClient", true}});
    load_plugin();
    SimDevice &stb = serve(1);
    SimDevice &second_stb = serve(2);
    SimDevice &itf = serve(3, "zep-itf");
    EXPECT_EQ(identity("iptv", "ClientIDOffset"), "-1");
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_iptv.SentOption.61", "Value"), "");
    EXPECT_FALSE(stb.address().empty());
    EXPECT_FALSE(itf.address().empty());
    EXPECT_TRUE(second_stb.answers().empty());
    EXPECT_EQ(traced("Only one STB can be managed. Don't reply to " + second_stb.id()), 1U);
    EXPECT_EQ(firewall.count("SNAT --to-source 10.20.0.10"), 2U);
}

TEST_F(Life, TheInterfaceMovesFromOneToAnotherToNone) {
    power_on();
    SimDevice &stb = serve(1);
    kernel->set_link("eth1.30", true);
    loop->advance(second);
    EXPECT_EQ(addresses("eth1.20").size(), 1U) << "a second interface does not take over from a living one";

    kernel->set_link("eth1.20", false);
    loop->advance(100);
    EXPECT_TRUE(addresses("eth1.20").empty());
    EXPECT_TRUE(routes("eth1.20").empty());
    EXPECT_EQ(firewall.count("eth1.20"), 0U);
    EXPECT_EQ(firewall.count("eth1.30"), 4U);
    loop->advance(2 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_EQ(addresses("eth1.30"), std::vector<std::string>{"10.20.0.10/24"});
    EXPECT_EQ(routes("eth1.30").size(), 2U);
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_" + stb.id(), "LowerLayers"), "eth1.30");

    kernel->set_link("eth1.30", false);
    loop->advance(2 * second);
    EXPECT_EQ(firewall.rules.size(), 2U) << "the two default rules alone";
    EXPECT_TRUE(addresses("eth1.30").empty());
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unconnected");
    EXPECT_EQ(model->text("Keel.Zephyrin", "NTPServer"), "00000000");
    EXPECT_EQ(traced("Invalid argument"), 1U);

    kernel->set_link("eth1.20", true);
    loop->advance(2 * second);
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    EXPECT_EQ(addresses("eth1.20"), std::vector<std::string>{"10.20.0.10/24"});
}

TEST_F(Life, StoredIdentitiesServeAgainAfterAPowerCut) {
    power_on();
    SimDevice &first = serve(1);
    const std::string id = first.id();
    serve(2);
    loop->run_until_idle();
    model->add("Keel.Zephyrin.ClientLease", "broken", {{"Name", std::string("broken")}});
    model->add("Keel.Zephyrin.ClientLease.broken.ServerLease", "x", {{"Id", std::string("x")}});
    loop->run_until_idle();
    power_cut();

    power_on();
    EXPECT_EQ(traced("Failed to parse Keel.Zephyrin.ClientLease.broken"), 1U);
    EXPECT_EQ(identity("broken", "Name"), "(none)") << "an incomplete identity is deleted";
    EXPECT_EQ(identity(id, "ClientIDOffset"), "0");
    EXPECT_NE(wan_client(id, "Enable"), "(none)");
    SimDevice &again = serve(1);
    EXPECT_EQ(identity(id, "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(again.address(), identity(id, "IPAddress")));
    EXPECT_EQ(routes().size(), 2U) << "the stored set does not differ, so the routes themselves must come back";
}

TEST_F(Life, RoutesFollowTheIptvPathToAnotherInterfaceAfterAPowerCut) {
    power_on();
    serve(1);
    loop->advance(2 * second);
    EXPECT_EQ(routes("eth1.20").size(), 2U);
    power_cut();
    build();
    kernel->set_link("eth1.30", true);
    kernel->set_link("eth1.20", false);
    load_plugin();
    serve(1);
    loop->advance(2 * second);
    EXPECT_EQ(routes("eth1.30").size(), 2U) << "the same set as before, but it stood elsewhere";
    EXPECT_TRUE(routes("eth1.20").empty());
}

TEST_F(Life, AnAddressHeldWithoutALineIsInForceOnceThereIsOne) {
    power_on();
    const std::string id = serve(1).id();
    loop->advance(2 * second);
    power_cut();
    build();
    kernel->set_link("eth1.20", false);
    load_plugin();
    SimDevice &stb = serve(1);
    loop->advance(70 * second);
    EXPECT_EQ(identity(id, "DHCPCStatus"), "Internal");

    kernel->set_link("eth1.20", true);
    loop->advance(2 * second);
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    loop->advance(31 * minute);
    EXPECT_EQ(identity(id, "DHCPCStatus"), "Connected");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    EXPECT_EQ(routes().size(), 2U) << "those of the binding do not differ from those in force";
}

TEST_F(Life, ARefusedStbThatKeepsAskingIsServedOnceTheReasonIsGone) {
    power_on();
    set("Keel.Zephyrin", {{"MonoClient", true}});
    serve(1);
    SimDevice &second_one = serve(2);
    loop->advance(10 * minute);
    EXPECT_TRUE(second_one.address().empty()) << "one STB is all that may be served";
    EXPECT_LE(traced("Only one STB can be managed"), 7U) << "it is not told at each of its requests";
    set("Keel.Zephyrin", {{"MonoClient", false}});
    loop->advance(3 * minute);
    EXPECT_FALSE(second_one.address().empty());
}

TEST_F(Life, TheOperatorsServersReachTheStbAfterAPowerCut) {
    power_on();
    serve(1);
    power_cut();
    power_on();
    const SimDevice::Answer *ack = serve(1).last(DhcpType::Ack);
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(format_hex(ack->options.at(42)), "0a140002");
    EXPECT_EQ(format_hex(ack->options.at(72)), "0a140003");
}

TEST_F(Life, AnStbOfAnOperatorThatLeasesRubbishFallsBackAndIsServedOnceThatIsMended) {
    build();
    wan->lease_address("01021a2b3c4d5e", "224.0.0.5");
    load_plugin();
    SimDevice &stb = serve(1);
    ASSERT_EQ(model->text("Weft.Intf.dhcp_zep_" + stb.id() + ".SentOption.61", "Value"), "01021a2b3c4d5e");
    EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Selecting");
    loop->advance(66 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Unleased");
    ASSERT_NE(stb.last(DhcpType::Ack), nullptr) << "no later than where nobody answers";
    EXPECT_FALSE(stb.last(DhcpType::Ack)->options.contains(42));
    EXPECT_TRUE(addresses().empty());
    EXPECT_EQ(firewall.count("224.0.0.5"), 0U);

    wan->lease_address("01021a2b3c4d5e", "10.20.0.50");
    wan->options[42] = "0a140002ff";
    loop->advance(2 * minute + second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.50"));
    EXPECT_EQ(model->text("Keel.Zephyrin", "NTPServer"), "00000000");
    EXPECT_EQ(model->text("Keel.Zephyrin", "WWWServer"), "0a140003");
}

TEST_F(Life, APowerCutBetweenTwoSetsOfRoutesLeavesNobodyWithoutRoutes) {
    power_on();
    const std::string client = "dhcp_zep_" + serve(1).id();
    wan->options[121] = "180a3e000a140001"; /* 10.62.0.0/24 via 10.20.0.1 */
    wan->renew(client);
    loop->advance(500); /* the old set is gone, the new one comes a second later */
    ASSERT_TRUE(routes().empty());
    power_cut();

    build();
    wan->options[121] = "180a3e000a140001";
    load_plugin();
    serve(1);
    EXPECT_EQ(routes(), std::vector<std::string>{"10.62.0.0"});
}

TEST_F(Life, APowerCutOnTheWayToAnotherModeLeavesNothingOfTheRoutedOne) {
    power_on();
    serve(1);
    wan->online = false;
    serve(2); /* held */
    model->set("Keel.Zephyrin", {{"Mode", std::string("Bridged")}});
    EXPECT_EQ(store->flush(), ""); /* the person was told; the plug-in was not yet */
    power_cut();

    power_on();
    EXPECT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty());
    EXPECT_TRUE(routes().empty());
    EXPECT_EQ(model->text("Keel.Zephyrin", "NTPServer"), "00000000");
    EXPECT_NE(serve(2).address(), "") << "nobody holds it";
}

TEST_F(Life, ABindingOnTheWayToAnotherModeHoldsNobody) {
    power_on();
    const std::string client = "Weft.Intf.dhcp_zep_" + serve(1).id();
    model->set(client, {{"DHCPStatus", std::string("Renewing")}});
    loop->run_until_idle();
    model->set("Keel.Zephyrin", {{"Mode", std::string("Bridged")}});
    model->set(client, {{"DHCPStatus", std::string("Bound")}}); /* handled before the plug-in is told of the mode */
    loop->run_until_idle();
    EXPECT_FALSE(model->boolean("DHCPv4.Server.Pool.zep_stb", "LeasesOnHold"));
    EXPECT_NE(serve(2).address(), "");
}

TEST_F(Life, RestoredIdentitiesWithoutDevicesGoAfter48Hours) {
    build();
    model->add("Keel.Zephyrin.ClientLease", "0102",
               {{"Name", std::string("0102")},
                {"ClientIDOffset", std::int64_t{2}},
                {"IPAddress", std::string("10.20.0.50")},
                {"SubnetMask", std::string("255.255.255.0")}});
    load_plugin();
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_0102.SentOption.61", "Value"), "01021a2b3c4d60");
    loop->advance(48 * hour - second);
    EXPECT_EQ(identity("0102", "ClientIDOffset"), "2");
    loop->advance(2 * second);
    EXPECT_EQ(identity("0102", "ClientIDOffset"), "(none)");
    EXPECT_EQ(wan_client("0102", "Enable"), "(none)");
}

TEST_F(Life, AnIdentityGoes48HoursAfterItsLastDeviceUnlessItComesBack) {
    power_on();
    SimDevice &stb = serve(1);
    stb.leave();
    loop->advance(47 * hour);
    serve(1);
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
    loop->advance(2 * hour);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected") << "coming back cancels the release";

    stb.leave();
    loop->advance(48 * hour - 10 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Connected");
    loop->advance(20 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "(none)");
    EXPECT_EQ(firewall.count("SNAT"), 0U);
    EXPECT_TRUE(addresses().empty());
    EXPECT_TRUE(routes().empty());
}

TEST_F(Life, RoutesThatAllFailAreMadeAgain) {
    power_on();
    kernel->refused_destinations = {"10.60.0.0"};
    SimDevice &stb = serve(1);
    loop->advance(5 * second);
    EXPECT_EQ(traced("re-create routes on eth1.20"), 0U) << "one of two failed";
    stb.leave();

    kernel->refused_destinations = {"10.60.0.0", "10.61.0.0"};
    wan->mask = "255.255.0.0"; /* has the set installed anew */
    wan->renew("dhcp_zep_" + stb.id());
    loop->advance(4 * second);
    EXPECT_GE(traced("re-create routes on eth1.20"), 2U);
    kernel->refused_destinations.clear();
    loop->advance(3 * second);
    const auto recreated = traced("re-create routes on eth1.20");
    loop->advance(minute);
    EXPECT_EQ(traced("re-create routes on eth1.20"), recreated);
    EXPECT_EQ(routes().size(), 2U);
}

TEST_F(Life, PresenceStartsAnUnconnectedIdentity) {
    build();
    model->add(
        "Keel.Zephyrin.ClientLease", "itf",
        {{"Name", std::string("itf")}, {"ClientIDOffset", std::int64_t{0}}, {"IPAddress", std::string("0.0.0.0")}});
    model->add("Keel.Zephyrin.ClientLease.itf.ServerLease", "0a",
               {{"Id", std::string("0a")},
                {"DeviceType", std::string("ITF")},
                {"IPAddress", std::string("192.168.1.40")},
                {"MACAddress", std::string("02:ab:00:00:00:09")}});
    load_plugin();
    EXPECT_EQ(wan_client("itf", "Enable"), "false");
    SimDevice itf(*loop, *lan, 9, "zep-itf");
    set_present(itf, true);
    loop->advance(2 * second);
    EXPECT_EQ(traced("Lease 0a becomes Active"), 1U);
    EXPECT_EQ(identity("itf", "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped("192.168.1.40", "10.20.0.10"));
    EXPECT_TRUE(model->boolean("Keel.Zephyrin.ClientLease.itf.ServerLease.0a", "Active"));
}

TEST_F(Life, ALanAddressChangeMovesTheMapping) {
    power_on();
    SimDevice &stb = serve(1);
    set(lease_path(stb), {{"IPAddress", std::string("192.168.1.33")}});
    EXPECT_TRUE(firewall.mapped("192.168.1.33", "10.20.0.10"));
    EXPECT_EQ(firewall.count("192.168.1.20 "), 0U);
    EXPECT_EQ(model->text("Keel.Zephyrin.ClientLease." + stb.id() + ".ServerLease." + stb.id(), "IPAddress"),
              "192.168.1.33");
}

TEST_F(Life, SettingsSwitchTheServiceOffAndOn) {
    power_on();
    SimDevice &stb = serve(1);
    for (const Values &off : {Values{{"Enable", false}}, Values{{"Mode", std::string("Bridged")}},
                              Values{{"Interface", std::string("Internet")}}}) {
        set("Keel.Zephyrin", off);
        loop->advance(second);
        expect_clean();
        EXPECT_FALSE(model->boolean("DHCPv4.Server.Pool.zep_stb", "LeasesOnHold"));
        set("Keel.Zephyrin",
            {{"Enable", true}, {"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}});
        loop->advance(3 * second);
        EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10")) << "the lease that is there is taken up again";
        EXPECT_TRUE(model->boolean("DHCPv4.Server.Pool.zep_stb", "LeasesOnHold"));
    }
}

TEST_F(Life, BeingToldTheSameAgainTouchesNothing) {
    power_on();
    SimDevice &stb = serve(1);
    const auto commands = firewall.commands.size();
    const auto generation = model->generation();
    model->notify(
        "Keel.Zephyrin", 102,
        {{"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}, {"WanMode", std::string("x")}});
    loop->advance(10 * second);
    EXPECT_EQ(firewall.commands.size(), commands);
    EXPECT_EQ(model->generation(), generation);
    EXPECT_EQ(wan->starts["dhcp_zep_" + stb.id()], 1U);
    EXPECT_EQ(traced("Zephyrin Routed/Dedicated mode init"), 1U);

    model->notify("Keel.Zephyrin", 102, {{"Mode", std::string("Routed")}}); /* no interface: invalid */
    loop->advance(second);
    expect_clean();
}

TEST_F(Life, WithoutAWanAddressTheModeStaysOff) {
    unsetenv("WAN_ADDR");
    power_on();
    EXPECT_TRUE(serve(1).answers().empty());
    EXPECT_EQ(traced("Zephyrin Routed/Dedicated mode init"), 0U);
    EXPECT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty());
}

} // namespace keel
