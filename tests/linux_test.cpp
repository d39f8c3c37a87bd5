/*
 * The Linux side on a real kernel.
 */
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/gateway/interface_state.h"
#include "host/linux/child.h"
#include "host/linux/firewall_policy.h"
#include "host/linux/kernel.h"
#include "host/linux/lan_port.h"
#include "host/linux/multicast.h"
#include "host/linux/presence.h"
#include "host/linux/wan_clients.h"
#include "tests/linux_fixture.h"

namespace keel {

TEST_F(LinuxTest, LinksAndForeignAddressesShowInTheModel) {
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    EXPECT_TRUE(soon([&] { return up(); }));
    shell("ip link set peer down");
    EXPECT_TRUE(soon([&] { return !up(); })) << "no carrier is down";
    shell("ip link set peer up; ip addr add 10.9.0.1/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return up() && model.instances("Weft.Intf.eth1.20.IPv4Addr").size() == 1; }));
    const std::string path = "Weft.Intf.eth1.20.IPv4Addr." + model.instances("Weft.Intf.eth1.20.IPv4Addr").front();
    EXPECT_EQ(model.text(path, "Address"), "10.9.0.1");
    EXPECT_EQ(model.text(path, "Origin"), "kernel");
    shell("ip addr del 10.9.0.1/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return !model.find(path); }));
    shell("ip addr add 10.9.0.2/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return model.instances("Weft.Intf.eth1.20.IPv4Addr").size() == 1; }));
    model.remove("Weft.Intf.eth1.20.IPv4Addr." + model.instances("Weft.Intf.eth1.20.IPv4Addr").front());
    EXPECT_TRUE(soon([&] { return addresses().empty(); })) << "who deletes the instance deletes the address";
}

TEST_F(LinuxTest, AddressesAndRoutesOfTheModelAreInForce) {
    {
        KernelTables tables(loop);
        Kernel kernel(loop, *graph, tables);
        add_route("zep_0", "10.60.0.0", 24, "10.20.0.1");
        EXPECT_TRUE(soon([&] { return status("IPv4Route.zep_0") == "error"; })) << "its gateway cannot be reached yet";
        add_address("1", "10.20.0.5", 24);
        add_address("2", "10.20.0.6", 24);
        EXPECT_TRUE(soon([&] { return status("IPv4Route.zep_0") == "Enabled" && status("IPv4Addr.2") == "Enabled"; }));
        EXPECT_EQ(count(routes(), "10.60.0.0/24 via 10.20.0.1 dev eth1.20"), 1U);

        add_address("3", "10.20.0.5", 16); /* the new prefix comes before the old one goes */
        model.remove("Weft.Intf.eth1.20.IPv4Addr.1");
        EXPECT_TRUE(soon([&] { return count(addresses(), "10.20.0.5/16") == 1 && count(addresses(), "inet") == 2; }))
            << addresses();
        EXPECT_EQ(count(addresses(), "10.20.0.6/24"), 1U) << "the first of a subnet does not take the others along";

        shell("ip link set eth1.20 down"); /* takes the routes away */
        EXPECT_TRUE(soon([&] { return status("IPv4Route.zep_0") == "error"; }));
        shell("ip link set eth1.20 up");
        EXPECT_TRUE(
            soon([&] { return status("IPv4Route.zep_0") == "Enabled" && count(routes(), "10.60.0.0/24") == 1; }));
        shell("ip route del 10.60.0.0/24");
        EXPECT_TRUE(soon([&] { return count(routes(), "10.60.0.0/24") == 1; })) << "what somebody takes away is mended";

        model.set("Weft.Intf.eth1.20.IPv4Addr.2", {{"Enable", false}});
        model.remove("Weft.Intf.eth1.20.IPv4Route.zep_0");
        EXPECT_TRUE(soon([&] { return count(addresses(), "inet") == 1 && routes().empty(); }));
        add_route("zep_1", "10.61.0.0", 16, "10.20.0.1");
        EXPECT_TRUE(soon([&] { return status("IPv4Route.zep_1") == "Enabled"; }));
    }
    EXPECT_EQ(addresses() + routes(), "") << "nothing of ours outlives the host";
}

TEST_F(LinuxTest, WhatAnEarlierRunLeftIsRemovedAtTheStart) {
    shell("ip addr add 10.20.0.9/24 dev eth1.20 label eth1.20:zep; ip addr add 10.9.0.1/24 dev eth1.20;"
          "ip route add 10.70.0.0/16 via 10.20.0.1 proto 99; ip route add 10.71.0.0/16 via 10.9.0.2");
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    EXPECT_EQ(count(addresses(), "inet"), 1U);
    EXPECT_EQ(count(shell("ip route"), "10.71.0.0/16"), 1U) << "others' things are left alone";
    EXPECT_EQ(routes(), "");
}

TEST_F(LinuxTest, DevicesOnTheBridgeArePresentWhileTheirPortHasCarrier) {
    shell("ip link add br-lan type bridge; ip link set br-lan up; ip addr add 192.168.1.1/24 dev br-lan;"
          "ip link set eth1.20 master br-lan; ip link set peer address 02:00:00:00:00:77;"
          "ip addr add 192.168.1.50/24 dev peer");
    KernelTables tables(loop);
    Presence presence(loop, *graph, tables);
    shell("ip neigh replace 192.168.1.50 lladdr 02:00:00:00:00:77 nud reachable dev br-lan;"
          "bridge fdb replace 02:00:00:00:00:77 dev eth1.20 master dynamic");
    const std::string host = "Hosts.Host.02:00:00:00:00:77";
    EXPECT_TRUE(soon([&] { return model.boolean(host, "Active") && !model.text(host, "IPAddress").empty(); }));
    EXPECT_EQ(model.text(host, "IPAddress"), "192.168.1.50");
    EXPECT_EQ(model.text(host, "Port"), "eth1.20");
    shell("ip link set peer down");
    EXPECT_TRUE(soon([&] { return !model.boolean(host, "Active", true); }));
}

TEST_F(LinuxTest, AWanClientIsLeasedAnAddressAndLeavesWithoutARelease) {
    const std::string folder = std::filesystem::temp_directory_path() / ("wan-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    shell("ip addr add 10.20.0.1/24 dev peer");
    std::string error;
    std::string log;
    const auto server = Child::start(
        loop,
        {"dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0", "--interface=peer", "--bind-interfaces",
         "--no-ping", "--dhcp-authoritative", "--log-dhcp", "--dhcp-range=10.20.0.50,10.20.0.60,255.255.255.0,1h",
         "--pid-file=", "--dhcp-leasefile=" + folder + "/leases", "--dhcp-option-force=72,10.20.0.3",
         "--dhcp-option-force=121,10.60.0.0/24,10.20.0.1"},
        [&](const std::string &line) { log += line + "\n"; }, nullptr, &error);
    ASSERT_TRUE(server) << error;
    ASSERT_TRUE(soon([&] { return log.find("DHCP, IP range") != std::string::npos; })) << log;

    std::vector<std::string> states;
    model.watch("Weft.Intf.dhcp_zep_x", [&](const Event &event) {
        if (event.kind == Event::Kind::Changed && event.values.contains("DHCPStatus"))
            states.push_back(to_text(event.values.at("DHCPStatus")));
    });
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    WanClients clients(loop, *graph, "udhcpc", SOURCE_DIR "/share/udhcpc-report.sh");
    model.add("Weft.Intf", "dhcp_zep_x",
              {{"Enable", false}, {"Flags", std::string("dhcp")}, {"LowerLayers", std::string("eth1.20")}});
    model.set("Weft.Intf.dhcp_zep_x.SentOption.61", {{"Value", std::string("01021a2b3c4d5e")}});
    model.add("Weft.Intf.dhcp_zep_x.MIB", "dhcp", {{"RequestedOptions", std::string("1 3 72 121")}});
    for (int run = 0; run < 2; ++run) {
        states.clear();
        model.set("Weft.Intf.dhcp_zep_x", {{"Enable", true}});
        ASSERT_TRUE(soon([&] { return !states.empty() && states.back() == "Bound"; })) << log;
        EXPECT_EQ(states, (std::vector<std::string>{"Selecting", "Requesting", "Bound"}));
        EXPECT_EQ(model.text("Weft.Intf.dhcp_zep_x", "SubnetMask"), "255.255.255.0");
        EXPECT_EQ(model.text("Weft.Intf.dhcp_zep_x.ReqOption.72", "Value"), "0a140003");
        EXPECT_EQ(model.text("Weft.Intf.dhcp_zep_x.ReqOption.121", "Value"), "180a3c000a140001");
        model.set("Weft.Intf.dhcp_zep_x", {{"Enable", false}});
        EXPECT_TRUE(soon([&] { return states.back() == "Idle"; }));
    }
    std::ifstream leases(folder + "/leases");
    std::string line;
    std::getline(leases, line);
    EXPECT_NE(line.find(model.text("Weft.Intf.dhcp_zep_x", "IPAddress")), std::string::npos);
    EXPECT_NE(line.find("01:02:1a:2b:3c:4d:5e"), std::string::npos) << "leased by the client identifier: " << line;
    EXPECT_EQ(count(log, "DHCPRELEASE"), 0U);
    std::filesystem::remove_all(folder);
}

TEST_F(LinuxTest, TheChainsAreSetUpAndEmptiedAsOftenAsOneLikes) {
    set_up();
    const std::string fresh = rules();
    EXPECT_EQ(count(shell("iptables -S FORWARD"), "-A"), 4U);
    EXPECT_EQ(count(fresh, "-A IPTV_Out -j FORWARD_zep\n"), 1U);
    EXPECT_EQ(count(fresh, "policy: RETURN"), 4U) << fresh;
    shell("iptables -t raw -A PREROUTING -i eth1.20 -j PREROUTING_zep_ACCEPT;"
          "iptables -t raw -A PREROUTING -i eth1.20 -j PREROUTING_zep_DROP;"
          "iptables -t nat -A POSTROUTING_IPTV -o eth1.20 -j POSTROUTING_zep;"
          "iptables -t nat -A POSTROUTING_zep -s 192.168.1.2 -j SNAT --to-source 10.0.0.2;"
          "iptables -t filter -A FORWARD_zep -s 192.168.1.2 -j ACCEPT;"
          "iptables -t filter -A FORWARD -j FORWARD_zep;"
          "iptables -t filter -A FORWARD_IPTV2Lan -o eth1.20 -j IPTV_Out");
    EXPECT_EQ(shell("ebtables -t nat -A POSTROUTING_No_DHCP -p 0x800 --ip-protocol udp --ip-destination-port 67:68 -j "
                    "DROP -o eth1.21;"
                    "ebtables -t nat -A POSTROUTING_Only_IGMP -d ! 01:00:5e:00:00:00/ff:ff:ff:00:00:00 -j DROP -o "
                    "eth1.21;"
                    "ebtables -t filter -A FORWARD_Isolation  -j DROP -i eth1.21 -o eth1.20"),
              "");
    EXPECT_EQ(count(rules(), "-j DROP\n"), 4U) << rules();
    shell("ebtables -t filter -P FORWARD_Isolation DROP; ebtables -t nat -I POSTROUTING -j POSTROUTING_No_DHCP;"
          "iptables -t filter -I FORWARD -m comment --comment \"two words\" -j FORWARD_zep");
    set_up();
    EXPECT_EQ(rules(), fresh);

    /* What others have in the built-in chains stays, before and behind ours; so do their chains. */
    shell("iptables -P FORWARD DROP; iptables -N other; iptables -A other -s 10.0.0.1 -j DROP;"
          "iptables -I FORWARD -m comment --comment \"-j FORWARD_zep\" -j other;"
          "iptables -A FORWARD -s 10.0.0.2 -j DROP; iptables -t raw -I PREROUTING -s 10.0.0.3 -j DROP;"
          "ebtables -t filter -N other -P DROP; ebtables -t filter -I FORWARD -i eth1.20 -j other");
    const std::string shared = rules();
    EXPECT_EQ(count(shared, "10.0.0."), 3U) << shared;
    EXPECT_EQ(count(shared, "-j other"), 2U) << shared;
    set_up();
    EXPECT_EQ(rules(), shared);
    std::string error;
    EXPECT_FALSE(set_up_chains("/nonexistent/chains.sh", &error));
    EXPECT_EQ(error, "/nonexistent/chains.sh: No such file or directory");
}

TEST_F(LinuxTest, TheFirewallScriptAddsOnceDeletesWhatIsThereAndRefusesTheRest) {
    set_up();
    const std::string fresh = rules();
    const auto run = [](const std::string &arguments) {
        return shell(SOURCE_DIR "/share/zep_firewall.sh " + arguments + "; echo \"[$?]\"");
    };
    for (int twice = 0; twice < 2; ++twice)
        for (const char *arguments : {"main_rules A eth1.10", "main_rules A b@d_i:f-1", "aux_rules A 192.168.1.255"})
            EXPECT_EQ(run(arguments), "[0]\n") << arguments;
    const std::string open = rules();
    for (const char *rule :
         {"-A FORWARD_ZEP -o eth1.10 -j FORWARD_ZEP_Services\n", "-A FORWARD_ZEP -o b@d_i:f-1 ",
          "-A POSTROUTING_ZEP -o eth1.10 -j MASQUERADE\n", "-A FORWARD_ZEP_Services -s 192.168.1.255/32 -j ACCEPT\n"})
        EXPECT_EQ(count(open, rule), 1U) << rule;
    for (const char *arguments :
         {"", "main_rules A", "main_rules A eth1.10 x", "main_rules a eth2", "others A eth2", "main_rules A ''",
          "main_rules A -o", "main_rules A 'e 2'", "main_rules A eth+", "main_rules A 1234567890123456",
          "aux_rules A 1.2.3.256", "aux_rules A 1.2.3", "aux_rules A 1.2.3.4.5", "aux_rules A 1.2.3.4/8",
          "aux_rules A 010.2.3.4", "aux_rules A ''", "aux_rules A '1.2.3.4\n'"}) {
        const std::string said = run(arguments);
        EXPECT_TRUE(said.starts_with("zep_firewall.sh: ") && said.ends_with("\n[2]\n")) << arguments << ": " << said;
    }
    EXPECT_EQ(rules(), open);
    for (int twice = 0; twice < 2; ++twice)
        for (const char *arguments : {"main_rules D eth1.10", "main_rules D b@d_i:f-1", "aux_rules D 192.168.1.255"})
            EXPECT_EQ(run(arguments), "[0]\n") << arguments;
    EXPECT_EQ(rules(), fresh);
}

TEST_F(LinuxTest, ThePolicyIsOneRuleOnTheIptvDevice) {
    set_up();
    const std::string path = "Firewall.Policy.IPTV2Lan";
    const auto choose = [&](const std::string &chain) { model.set(path, {{"ReverseChain", chain}}); };
    const auto holds = [&](const std::string &rule, const std::string &outcome) {
        return soon([&] {
            return shell("iptables -S FORWARD_IPTV2Lan") ==
                       "-N FORWARD_IPTV2Lan\n" + (rule.empty() ? "" : "-A FORWARD_IPTV2Lan " + rule + "\n") &&
                   model.text(path, "Status") == outcome;
        });
    };
    {
        FirewallPolicy policy(loop, *graph);
        EXPECT_TRUE(holds("", "Enabled"));
        choose("Firewall.Chain.IPTV_Out");
        EXPECT_TRUE(holds("-o eth1.20 -j IPTV_Out", "Enabled"));
        model.set("Weft.Intf.iptv", {{"LowerLayers", std::string("eth1.10")}});
        EXPECT_TRUE(holds("-o eth1.10 -j IPTV_Out", "Enabled"));
        for (const char *wrong : {"Firewall.Chain.-F", "IPTV_Out", "", "Firewall.Chain.a b", "Firewall.Chain.None"}) {
            choose(wrong);
            EXPECT_TRUE(holds("", "error")) << wrong;
            choose("Firewall.Chain.FORWARD_zep");
            EXPECT_TRUE(holds("-o eth1.10 -j FORWARD_zep", "Enabled"));
        }
        model.set("Weft.Intf.iptv", {{"LowerLayers", std::string()}});
        EXPECT_TRUE(holds("", "Enabled")) << "no device, no rule";
        model.set("Weft.Intf.iptv", {{"LowerLayers", std::string("eth1.20")}});
        for (const char *chain : {"Off", "Firewall.Chain.IPTV_Out", "Off", "Firewall.Chain.FORWARD_zep"}) {
            choose(chain); /* while the commands of the one before run */
            loop.settle(1);
        }
        EXPECT_TRUE(holds("-o eth1.20 -j FORWARD_zep", "Enabled"));
        choose("Off");
        loop.settle(1); /* it ends while a command runs */
    }
    EXPECT_EQ(shell("iptables -S FORWARD_IPTV2Lan"), "-N FORWARD_IPTV2Lan\n");
}

TEST_F(LinuxTest, AConfinedProgramReachesTheNetworkAlone) {
    const std::string folder =
        std::filesystem::temp_directory_path() / ("zephyrin-confined-" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/store") << "secret\n";
    std::ofstream(folder + "/open") << "open\n";
    std::string said;
    bool ended = false;
    std::string error;
    const Confinement confinement{{folder + "/store", folder + "/missing"}};
    const auto child = Child::start(
        loop,
        {"sh", "-c",
         "cd " + folder +
             "; cat store open; echo forged >store; umount store 2>/dev/null && cat store; chown 1 open 2>/dev/null && "
             "echo chowned; ip link set eth1.20 down && grep -E 'Cap(Eff|Bnd|Amb)' /proc/self/status"},
        [&](const std::string &line) { said += line + "\n"; }, [&](int) { ended = true; }, &error, &confinement);
    ASSERT_TRUE(child) << error;
    ASSERT_TRUE(soon([&] { return ended; }));
    EXPECT_EQ(said, "open\nCapEff:\t0000000000003400\nCapBnd:\t0000000000003400\nCapAmb:\t0000000000000000\n");
    EXPECT_EQ(shell("cat " + folder + "/store"), "secret\n") << "it is hidden from the program alone";
    std::filesystem::remove_all(folder);
}

TEST_F(LinuxTest, TheMulticastDaemonRunsWhileItIsWantedAndComesBack) {
    const std::string folder = std::filesystem::temp_directory_path() / ("multicast-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    shell("ip link add br-lan type bridge; ip link set br-lan up; ip addr add 192.168.1.1/24 dev br-lan");
    const std::string path = "TIDE.Intf.iptv";
    const auto process = [&] { return shell("pgrep -f '^igmpproxy -n " + folder + "'"); };
    /* The two interfaces of the kernel's multicast routing: the daemon is at work. */
    const auto runs = [&] {
        return soon([&] {
            const std::string interfaces = shell("cat /proc/net/ip_mr_vif");
            return model.text(path, "Status") == "Running" && count(interfaces, " eth1.20 ") == 1 &&
                   count(interfaces, " br-lan ") == 1;
        });
    };
    const auto rests = [&] {
        return soon([&] { return model.text(path, "Status") == "Stopped" && process().empty(); });
    };
    {
        KernelTables tables(loop);
        Kernel kernel(loop, *graph, tables);
        InterfaceState state(loop, *graph);
        Multicast multicast(loop, *graph, "igmpproxy", folder);
        model.set(path, {{"ClientEnable", true}, {"MRTIIFEnable", true}, {"WANEnable", true}});
        EXPECT_TRUE(rests()) << "without an address";
        add_address("1", "10.20.0.5", 24);
        ASSERT_TRUE(runs()) << shell("cat /proc/net/ip_mr_vif " + folder + "/igmpproxy.conf");

        for (const char *name : {"ClientEnable", "MRTIIFEnable", "WANEnable"}) {
            model.set(path, {{name, false}});
            EXPECT_TRUE(rests()) << name;
            model.set(path, {{name, true}});
            EXPECT_TRUE(runs()) << name;
        }
        shell("ip link set peer down");
        EXPECT_TRUE(rests());
        shell("ip link set peer up");
        EXPECT_TRUE(runs());

        const std::string first = process();
        add_address("2", "10.20.0.6", 24);
        EXPECT_TRUE(soon([&] { return status("IPv4Addr.2") == "Enabled"; }));
        loop.settle(20);
        usleep(200000);
        EXPECT_EQ(process(), first) << "another address does not disturb the streams";
        model.remove("Weft.Intf.eth1.20.IPv4Addr.1");
        EXPECT_TRUE(soon([&] { return !process().empty() && process() != first; }));
        EXPECT_TRUE(runs());

        kill(std::stoi(process()), SIGTERM);
        EXPECT_TRUE(soon([&] { return model.text(path, "Status") == "Error"; }));
        EXPECT_TRUE(runs()) << "it is started again";
    }
    EXPECT_TRUE(rests()) << "it ends with the host";
    Multicast multicast(loop, *graph, "/nonexistent/igmpproxy", folder);
    EXPECT_TRUE(soon([&] { return model.text(path, "Status") == "Error"; }));
    std::filesystem::remove_all(folder);
}

} // namespace keel
