/* Things that arrive when what they were meant for is gone, and things that come from outside. */
#include <cstring>

#include "routed/lease.h"
#include "tests/sim_gateway.h"

namespace keel {

class Hazard : public SimGateway {};

/* A record that is saved and gone before the answers: at whichever step of the save that happens. */
TEST_F(Hazard, ARecordRemovedWhileItsSaveIsInFlight) {
    power_on();
    const auto create = operation<decltype(zep_client_lease_create)>("zep_client_lease_create");
    const auto cleanup = operation<decltype(zep_client_lease_cleanup)>("zep_client_lease_cleanup");
    const auto save = operation<void(Client_lease *)>("zep_client_lease_obj_save");
    const auto remove = operation<int(const char *)>("zep_client_lease_obj_delete");
    for (int turns = 0; turns < 6; ++turns) {
        Client_lease *lease = create("0badc0de", nullptr, nullptr, 0);
        save(lease);
        int left = turns;
        std::function<void()> end = [&] {
            if (left-- > 0) {
                loop->post(end);
                return;
            }
            cleanup(lease);
            remove("0badc0de");
            std::memset(lease, 0xdd, sizeof *lease); /* whoever still looks at it sees nonsense */
            std::free(lease);
        };
        loop->post(end);
        loop->run_until_idle();
        EXPECT_EQ(identity("0badc0de", "Name"), "(none)") << "it came back, removed after " << turns << " turns";
    }
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease").size(), 0U);
}

TEST_F(Hazard, ADeferredReleaseAfterTheCleanupReleasesNobody) {
    power_on();
    for (unsigned number = 1; number <= 4; ++number)
        serve(number);
    /* The fourth slot is released at once: its lease's deletion arms a timer of 0 ms, whose handler defers the release.
     * The service is switched off and on at each point between. */
    for (int turns = 0; turns < 12; ++turns) {
        SimDevice &stb = device(4);
        ASSERT_FALSE(stb.address().empty());
        model->remove(lease_path(stb));
        int left = turns;
        std::function<void()> toggle = [&] {
            if (left-- > 0) {
                loop->start_timer(0, toggle);
                return;
            }
            model->notify("Keel.Zephyrin", 101, {});
            model->notify("Keel.Zephyrin", 102,
                          {{"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}});
        };
        loop->start_timer(0, toggle);
        loop->advance(3 * second);
        for (unsigned number = 1; number <= 3; ++number)
            EXPECT_EQ(firewall.count("SNAT") >= 3, true) << number << " lost its service, turn " << turns;
        EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease").size(), 3U);
        stb.start();
        loop->advance(3 * second);
        EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease").size(), 4U);
    }
}

TEST_F(Hazard, ADeviceThatComesBackDuringItsReleaseIsServed) {
    power_on();
    for (unsigned number = 1; number <= 4; ++number)
        serve(number);
    SimDevice &stb = device(4);
    for (int turns = 0; turns < 12; ++turns) {
        model->remove(lease_path(stb));
        stb.stop();
        int left = turns;
        std::function<void()> come_back = [&] {
            if (left-- > 0)
                loop->start_timer(0, come_back);
            else
                stb.start();
        };
        loop->start_timer(0, come_back);
        loop->advance(3 * second);
        ASSERT_FALSE(stb.address().empty()) << turns;
        EXPECT_EQ(wan_client(stb.id(), "DHCPStatus"), "Bound") << turns;
        EXPECT_TRUE(firewall.mapped(stb.address(), wan_client(stb.id(), "IPAddress"))) << turns;
    }
}

TEST_F(Hazard, OfTwoRouteInstallationsOnTheirWayTheLaterOneInstalls) {
    power_on();
    serve(1);
    const auto added = traced("IPv4Route.zep_0 added");
    for (const char *mask : {"255.255.0.0", "255.0.0.0"}) {
        wan->mask = mask;
        wan->renew("dhcp_zep_" + device(1).id());
        loop->advance(600);
    }
    EXPECT_TRUE(routes().empty()) << "the first one's second is over, the later one's is not";
    loop->advance(second);
    EXPECT_EQ(routes().size(), 2U);
    EXPECT_EQ(traced("IPv4Route.zep_0 added"), added + 1);
}

TEST_F(Hazard, ARouteInstallationOutlivesNeitherCleanupNorInterface) {
    power_on();
    serve(1);
    kernel->set_link("eth1.30", true);
    wan->mask = "255.255.0.0";
    wan->renew("dhcp_zep_" + device(1).id());
    loop->advance(500); /* flushed, to be installed in half a second */
    EXPECT_TRUE(routes().empty());
    wan->online = false;
    kernel->set_link("eth1.20", false);
    loop->advance(3 * second);
    EXPECT_TRUE(routes("eth1.30").empty()) << "no client is bound on the new interface yet";

    wan->online = true;
    loop->advance(8 * second);
    EXPECT_EQ(routes("eth1.30").size(), 2U);
    wan->mask = "255.255.255.0";
    wan->renew("dhcp_zep_" + device(1).id());
    loop->advance(500);
    wan->online = false;
    /* Off and on again within the second: the stored routes are loaded, but nobody asked for their installation. */
    model->notify("Keel.Zephyrin", 101, {});
    model->notify("Keel.Zephyrin", 102, {{"Mode", std::string("Routed")}, {"Interface", std::string("Dedicated")}});
    loop->advance(5 * second);
    EXPECT_TRUE(routes("eth1.30").empty());
}

TEST_F(Hazard, NothingThatALanDeviceSendsReachesAShellLineOrBreaksAPath) {
    power_on();
    const std::string hostile[] = {"`reboot`", "a.b.c", "; rm -rf /", "%s%n", std::string(200, 'A'), "\x01\xff'\"\n"};
    unsigned number = 20;
    for (const std::string &text : hostile) {
        SimDevice &stb = device(number++, "zep-stb$(reboot)");
        stb.client_id.assign(text.begin(), text.end());
        stb.start();
        loop->advance(3 * second);
        stb.leave();
        loop->advance(minute);
    }
    for (const std::string &name : model->instances("Keel.Zephyrin.ClientLease")) {
        EXPECT_LE(name.size(), 35U);
        EXPECT_EQ(name.find_first_not_of("0123456789abcdef-"), std::string::npos) << name;
        EXPECT_EQ(identity(name, "Name"), name);
    }
    EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease").size(), 3U) << "the fourth slot is free again at once";
    for (const std::string &command : firewall.commands)
        EXPECT_EQ(command.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/.:_- "),
                  std::string::npos)
            << command;
}

TEST_F(Hazard, ALongIdentifierHasOneIdentityAndOneWithADotHasNone) {
    power_on();
    const std::string leases = "DHCPv4.Server.Pool.zep_stb.Rule.1.Lease";
    const std::string id(40, 'a');
    const std::string kept(35, 'a');
    const auto report = [&](const std::string &client_id, const char *address) {
        model->add(leases, client_id,
                   {{"ClientID", client_id},
                    {"IPAddress", std::string(address)},
                    {"MACAddress", std::string("02:00:00:00:00:25")},
                    {"Expires", static_cast<std::int64_t>(loop->wall_clock_s()) + 3600},
                    {"OnHold", true}});
        loop->run_until_idle();
    };
    for (const char *address : {"192.168.1.25", "192.168.1.26"}) {
        report(id, address);
        loop->advance(second);
        EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease"), std::vector<std::string>{kept}) << address;
        EXPECT_EQ(model->instances("Keel.Zephyrin.ClientLease." + kept + ".ServerLease").size(), 1U) << address;
        EXPECT_TRUE(firewall.mapped(address, "10.20.0.10"));
        EXPECT_EQ(firewall.count("SNAT"), 1U) << address;
        EXPECT_FALSE(model->boolean(leases + "." + id, "OnHold", true)) << address;
        model->remove(leases + "." + id);
        loop->advance(47 * hour);
        EXPECT_EQ(identity(kept, "DHCPCStatus"), "Connected") << address;
    }
    loop->advance(2 * hour);
    EXPECT_EQ(identity(kept, "DHCPCStatus"), "(none)") << "the deletion of its lease was not taken for its own";

    report("01.02", "192.168.1.27");
    EXPECT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty());
    EXPECT_TRUE(model->boolean(leases + ".01.02", "OnHold"));
    EXPECT_EQ(traced("ClientID=01.02 has a dot"), 1U);
    EXPECT_EQ(traced("Failed to get lease parameters"), 0U) << "nothing is missing";
}

TEST_F(Hazard, AddressesAndInterfacesFromOutsideAreCheckedBeforeTheShell) {
    power_on();
    const auto hook = operation<int(const char *)>("zep_firewall_static_chain_append");
    const auto map = operation<int(const char *, const char *)>("zep_firewall_static_port_mapping_append");
    const auto map_op =
        operation<int(const char *, const char *, char)>("zep_firewall_static_port_mapping_append_delete");
    firewall = {};
    for (const char *name : {static_cast<const char *>(nullptr), "", "eth0;reboot", "eth0 -j ACCEPT", "$(id)", "a\nb"})
        EXPECT_EQ(hook(name), 0);
    for (const char *address : {static_cast<const char *>(nullptr), "", "0.0.0.0", "10.0.0", "10.0.0.256",
                                "10.0.0.1;id", "010.0.0.0001", "10.0.0.1 ", "1.2.3.4.5", "0x0a.0.0.1"}) {
        EXPECT_EQ(map(address, "10.0.0.2"), 0);
        EXPECT_EQ(map("192.168.1.2", address), 0);
    }
    EXPECT_EQ(map_op("192.168.1.2", "10.0.0.2", 'a'), 0);
    EXPECT_TRUE(firewall.commands.empty());
    EXPECT_EQ(traced("Invalid lanip (NULL)"), 1U);
    EXPECT_EQ(traced("Invalid wanip 10.0.0.256"), 1U);
    EXPECT_EQ(traced("Invalid intf eth0;reboot"), 1U);
    EXPECT_EQ(traced("Invalid operation a"), 1U);

    firewall.failing = "-t nat -A POSTROUTING_zep";
    EXPECT_EQ(map("192.168.1.2", "10.0.0.2"), 0);
    EXPECT_EQ(firewall.commands,
              (std::vector<std::string>{
                  "/usr/sbin/iptables -t raw -A PREROUTING_zep_ACCEPT -d 10.0.0.2/255.255.255.255 -j ACCEPT",
                  "/usr/sbin/iptables -t nat -A POSTROUTING_zep -s 192.168.1.2 -j SNAT --to-source 10.0.0.2",
                  "/usr/sbin/iptables -t filter -A FORWARD_zep -s 192.168.1.2 -j ACCEPT",
                  "/usr/sbin/iptables -t nat -A PREROUTING_zep -j DNAT --to-destination 192.168.1.2 -d 10.0.0.2"}))
        << "a command that fails does not stop the others";
    firewall = {};
    firewall.failing = "nat -D POSTROUTING_IPTV";
    EXPECT_EQ(hook("eth1.20:1@x_y-z"), 1);
    EXPECT_EQ(operation<int(const char *)>("zep_firewall_static_chain_delete")("eth1.20:1@x_y-z"), 0);
    std::vector<std::string> hooks;
    for (const std::string op : {"-A ", "-D "})
        for (const char *rule : {"nat", "POSTROUTING_IPTV -j POSTROUTING_zep -o eth1.20:1@x_y-z", "nat",
                                 "PREROUTING_IPTV -j PREROUTING_zep -i eth1.20:1@x_y-z", "raw",
                                 "PREROUTING -i eth1.20:1@x_y-z -j PREROUTING_zep_ACCEPT", "raw",
                                 "PREROUTING -i eth1.20:1@x_y-z -j PREROUTING_zep_DROP"}) {
            if (std::strlen(rule) == 3)
                hooks.push_back(std::string("/usr/sbin/iptables -t ") + rule + " " + op);
            else
                hooks.back() += rule;
        }
    EXPECT_EQ(firewall.commands, hooks);
}

} // namespace keel
