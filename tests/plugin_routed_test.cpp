/* The routed mode where lives of set-top boxes rarely lead: starts that succeed in part, devices that share or return.
 */
#include "platform/weft.h"
#include "tests/sim_gateway.h"

namespace keel {

class Routed : public SimGateway {
protected:
    void told(const char *mode, const char *interface) {
        model->notify("Keel.Zephyrin", 102, {{"Mode", std::string(mode)}, {"Interface", std::string(interface)}});
        loop->run_until_idle();
    }
};

TEST_F(Routed, WhatAStartCouldNotOpenIsOpenedAtTheNext) {
    build();
    set("Keel.Zephyrin", {{"Enable", false}});
    load_plugin();
    for (std::size_t i = 0; i < plugin_modules().size(); ++i)
        weft_client_cleanup(); /* no query can be opened now */
    told("Routed", "Dedicated");
    EXPECT_EQ(firewall.count("eth1.20"), 0U);
    weft_client_initialize(rig_getHull(), nullptr);
    told("Routed", "Dedicated");
    EXPECT_EQ(firewall.count("eth1.20"), 4U);
    told("Bridged", "Dedicated");
    told("Routed", "Internet");
    EXPECT_EQ(firewall.count("eth1.20"), 4U) << "only a cleanup ends the service";
    EXPECT_EQ(traced("Zephyrin Routed/Dedicated mode init"), 1U);
}

TEST_F(Routed, AnInvalidInterfaceLoadsTheSettingsAndStaysInactive) {
    build();
    set("Keel.Zephyrin", {{"Enable", false}});
    model->add("Keel.Zephyrin.ClasslessStaticRoute", {},
               {{"Destination", std::string("10.60.0.0")},
                {"PrefixLength", std::int64_t{24}},
                {"Router", std::string("10.20.0.1")}});
    load_plugin();
    told("Routed", "");
    told("Routed", "");
    loop->advance(2 * second);
    EXPECT_EQ(traced("Zephyrin Routed/Dedicated mode init"), 0U);
    EXPECT_TRUE(std::none_of(firewall.commands.begin(), firewall.commands.end(),
                             [](const std::string &command) { return command.find("iptables") != std::string::npos; }));
    EXPECT_TRUE(routes().empty());
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClasslessStaticRoute").size(), 1U);
    TraceLog::instance().clear();
    model->notify("Keel.Zephyrin", 101, {});
    loop->run_until_idle();
    EXPECT_EQ(traced("Cleanup Zephyrin_IPRoute list."), 0U) << "there was no interface to clean";
}

TEST_F(Routed, AnIdentityStaysAsLongAsOneOfItsDevicesIsThere) {
    build();
    model->set("Keel.Zephyrin", {{"MonoClient", true}});
    load_plugin();
    serve(1);
    SimDevice &itf = serve(2, "zep-itf");
    device(1).leave();
    loop->advance(50 * hour);
    EXPECT_EQ(identity("iptv", "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(itf.address(), "10.20.0.10"));
    itf.leave();
    loop->advance(49 * hour);
    EXPECT_EQ(identity("iptv", "DHCPCStatus"), "(none)");
}

TEST_F(Routed, ALeaseThatComesBackWithAnotherAddressMovesTheMapping) {
    power_on();
    SimDevice &stb = serve(1);
    const std::string path = lease_path(stb);
    const std::string parent = path.substr(0, path.rfind('.'));
    model->remove(path);
    model->add(parent, stb.id(),
               {{"ClientID", stb.id()}, {"IPAddress", std::string("192.168.1.44")}, {"MACAddress", stb.mac()}});
    loop->advance(second);
    EXPECT_TRUE(firewall.mapped("192.168.1.44", "10.20.0.10"));
    EXPECT_EQ(firewall.count("SNAT"), 1U) << "the old mapping is gone";
    const std::string stored = "Keel.Zephyrin.ClientLease." + stb.id() + ".ServerLease." + stb.id();
    EXPECT_EQ(model->text(stored, "IPAddress"), "192.168.1.44");
}

TEST_F(Routed, OneIdentitysTroubleIsNotTheOthers) {
    power_on();
    SimDevice &first = serve(1);
    SimDevice &second_stb = serve(2);
    EXPECT_EQ(wan->starts["dhcp_zep_" + first.id()], 1U) << "a first binding has nobody else bind anew";
    wan->refuse_once("dhcp_zep_" + second_stb.id());
    wan->renew("dhcp_zep_" + second_stb.id());
    wan->online = false;
    loop->advance(2 * minute);
    EXPECT_EQ(identity(second_stb.id(), "DHCPCStatus"), "Unleased");
    EXPECT_EQ(identity(first.id(), "DHCPCStatus"), "Connected");
    EXPECT_TRUE(firewall.mapped(first.address(), "10.20.0.10"));
    EXPECT_EQ(routes().size(), 2U) << "they stay while one identity has an address";
}

TEST_F(Routed, AnAddressThatTheOperatorGaveToAnotherIdentityStaysWithIt) {
    power_on();
    SimDevice &first = serve(1);
    SimDevice &other = serve(2);
    const auto move = [&](const char *client_id, const SimDevice &stb, const char *address) {
        wan->lease_address(client_id, address);
        wan->renew("dhcp_zep_" + stb.id());
        loop->advance(second);
    };
    move("01021a2b3c4d5f", other, "10.20.0.10"); /* the operator takes the first one's lease for expired */
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    wan->refuse_once("dhcp_zep_" + first.id());
    move("01021a2b3c4d5e", first, "10.20.0.60");
    EXPECT_EQ(identity(first.id(), "DHCPCStatus"), "Unconnected");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"}) << "after a NAK";
    loop->advance(5 * second);
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.20.0.10/24", "10.20.0.60/24"}));

    move("01021a2b3c4d5e", first, "10.20.0.10");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"});
    move("01021a2b3c4d5e", first, "10.20.0.61");
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.20.0.10/24", "10.20.0.61/24"})) << "after a binding";

    move("01021a2b3c4d5e", first, "10.20.0.10");
    first.leave();
    loop->advance(48 * hour + minute);
    EXPECT_EQ(identity(first.id(), "DHCPCStatus"), "(none)");
    EXPECT_EQ(identity(other.id(), "DHCPCStatus"), "Connected");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.10/24"}) << "after a release";
    EXPECT_TRUE(firewall.mapped(other.address(), "10.20.0.10"));
    move("01021a2b3c4d5f", other, "10.20.0.62");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.62/24"}) << "nobody holds it any more";
}

TEST_F(Routed, ARestoredAddressIsUsedWhileTheOperatorIsAway) {
    build();
    SimDevice &stb = device(1);
    model->add("Keel.Zephyrin.ClientLease", stb.id(),
               {{"Name", stb.id()},
                {"ClientIDOffset", std::int64_t{0}},
                {"IPAddress", std::string("10.20.0.50")},
                {"SubnetMask", std::string("255.255.255.0")}});
    load_plugin();
    wan->online = false;
    stb.start();
    loop->advance(70 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Internal");
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.20.0.50/24"});
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.50"));
    ASSERT_TRUE(stb.last(DhcpType::Ack));
    EXPECT_EQ(stb.last(DhcpType::Ack)->lease_time(), 86400U);

    kernel->set_link("eth1.30", true);
    kernel->set_link("eth1.20", false);
    loop->advance(second);
    EXPECT_EQ(model->text("Weft.Intf.dhcp_zep_" + stb.id(), "LowerLayers"), "eth1.30");
    EXPECT_EQ(wan_client(stb.id(), "Enable"), "false") << "a client that was given up moves along, stopped";
}

TEST_F(Routed, WhatIsMappedWithoutAnInterfaceGoesWithTheMode) {
    power_on();
    SimDevice &stb = serve(1);
    kernel->set_link("eth1.20", false);
    loop->advance(second);
    const std::string client = "Weft.Intf.dhcp_zep_" + stb.id();
    const auto leave_mode = [&] {
        set("Keel.Zephyrin", {{"Enable", false}});
        loop->advance(second);
    };
    const auto bind = [&](const char *address) {
        model->set(client, {{"IPAddress", std::string(address)}, {"SubnetMask", std::string("255.255.255.0")}});
        model->set(client, {{"DHCPStatus", std::string("Bound")}});
        loop->run_until_idle();
    };
    bind("10.20.0.70");
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.70"));
    leave_mode();
    expect_clean();

    set("Keel.Zephyrin", {{"Enable", true}});
    loop->advance(second);
    firewall.failing = "filter -A FORWARD_zep"; /* so that it counts as not mapped */
    bind("10.20.0.71");
    EXPECT_EQ(firewall.count("10.20.0.71"), 3U);
    leave_mode();
    expect_clean();

    set("Keel.Zephyrin", {{"Enable", true}});
    loop->advance(second);
    firewall.commands.clear();
    leave_mode();
    EXPECT_TRUE(firewall.commands.empty()) << "no rules, no interface: there is nothing to do";
}

TEST_F(Routed, ADeviceThatIsGoneIsNotOfferedALeaseAtTheFallBack) {
    power_on();
    SimDevice &stb = serve(1);
    set_present(stb, true);
    set_present(stb, false);
    set(lease_path(stb), {{"OnHold", true}});
    wan->online = false;
    loop->advance(wan->lease_s * second + 70 * second);
    EXPECT_EQ(identity(stb.id(), "DHCPCStatus"), "Internal");
    EXPECT_TRUE(held(stb));
    EXPECT_TRUE(firewall.mapped(stb.address(), "10.20.0.10"));
}

} // namespace keel
