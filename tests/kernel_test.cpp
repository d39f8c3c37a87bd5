/*
 * The kernel's tables as the host keeps them: when much happens at once, when messages are lost, and who did what.
 */
#include "tests/linux_fixture.h"

#include <filesystem>

#include "host/linux/kernel.h"
#include "host/linux/presence.h"

using namespace std::string_literals;

namespace keel {

class KernelTest : public LinuxTest {
protected:
    /* Has ip(8) carry out one command for each number; "%a.%b" and "%x:%y" in it stand for the number's two bytes. */
    static std::string batch(const std::string &command, int count, int first = 0) {
        std::string lines;
        for (int number = first; number < first + count; ++number) {
            std::string line = command + "\n";
            const auto put = [&](const char *mark, const char *format) {
                char text[16];
                std::snprintf(text, sizeof text, format, number / 256, number % 256);
                if (const auto at = line.find(mark); at != std::string::npos)
                    line.replace(at, 5, text);
            };
            put("%a.%b", "%d.%d");
            put("%x:%y", "%02x:%02x");
            lines += line;
        }
        const std::string file = std::filesystem::temp_directory_path() / ("ip-" + std::to_string(getpid()));
        std::ofstream(file) << lines;
        std::string printed = shell("ip -batch " + file);
        std::filesystem::remove(file);
        return printed;
    }
    static void bridge() { EXPECT_EQ(shell("ip link add br-lan type bridge; ip link set br-lan up"), ""); }
    static std::string neighbour(const char *action) {
        return "neigh "s + action + " 10.77.%a.%b lladdr 02:00:00:00:%x:%y nud permanent dev br-lan";
    }
    std::size_t hosts() const { return model.instances("Hosts.Host").size(); }

    const std::string parent = "Weft.Intf.eth1.20.IPv4Addr";
};

TEST_F(KernelTest, AnAddressThatIsPutBackStays) {
    shell("ip addr add 10.9.0.1/24 dev eth1.20");
    bool back = false;
    model.watch(parent, [&](const Event &event) { /* told before the kernel side is told */
                                                  if (event.kind == Event::Kind::Deleted && !back) {
                                                      back = true;
                                                      shell("ip addr add 10.9.0.1/24 dev eth1.20");
                                                  }
    });
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    ASSERT_EQ(model.instances(parent).size(), 1U);
    shell("ip addr del 10.9.0.1/24 dev eth1.20");
    ASSERT_TRUE(soon([&] { return back; }));
    ASSERT_TRUE(soon([&] { return model.instances(parent).size() == 1; }));
    loop.settle(20);
    EXPECT_EQ(count(addresses(), "10.9.0.1/24"), 1U) << "the instance's end was no wish of anybody";

    model.remove(parent + "." + model.instances(parent).front());
    shell("ip addr add 10.9.0.2/24 dev eth1.20"); /* so that it is looked at before the end is told */
    EXPECT_TRUE(soon([&] { return count(addresses(), "10.9.0.1/24") == 0 && model.instances(parent).size() == 1; }))
        << "but this one is";
}

TEST_F(KernelTest, WhatGoesWithoutAWordIsMended) {
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    add_address("1", "10.20.0.5", 24);
    add_route("zep_0", "10.60.0.0", 24, "10.20.0.1");
    const auto in_force = [&] {
        return status("IPv4Route.zep_0") == "Enabled" && count(routes(), "10.60.0.0/24 via 10.20.0.1") == 1;
    };
    EXPECT_TRUE(soon(in_force));
    shell("ip addr flush dev eth1.20");
    EXPECT_TRUE(soon([&] { return in_force() && count(addresses(), "10.20.0.5/24") == 1; }))
        << "with the last address the routes go untold";
    shell("ip route replace 10.60.0.0/24 dev peer proto static");
    EXPECT_TRUE(soon([&] { return status("IPv4Route.zep_0") == "error"; })) << "another has taken its place";
    shell("ip route del 10.60.0.0/24 dev peer");
    EXPECT_TRUE(soon(in_force)) << "and leaves it";
    EXPECT_EQ(tables.full_reads(), 1U);
}

TEST_F(KernelTest, TheLeaseOfADhcpInterfaceIsHeldByTheDeviceBelowIt) {
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    const auto held_by = [&](const char *device) {
        return soon([&] {
            const std::string all = shell("ip -4 -o addr show");
            return count(all, "10.30.0.7") == (*device ? 1U : 0U) &&
                   (!*device || count(shell("ip -4 -o addr show dev "s + device), "10.30.0.7") == 1);
        });
    };
    model.add("Weft.Intf", "dhcp_x", {{"Flags", "dhcp"s}, {"LowerLayers", "middle"s}});
    model.add("Weft.Intf.dhcp_x.IPv4Addr", "dhcp", {{"Address", "10.30.0.7"s}, {"PrefixLen", std::int64_t{24}}});
    EXPECT_TRUE(held_by(""));
    model.add("Weft.Intf", "middle", {{"Flags", "logical"s}, {"LowerLayers", "eth1.20"s}});
    EXPECT_TRUE(held_by("eth1.20"));
    model.set("Weft.Intf.middle", {{"LowerLayers", "lo"s}});
    EXPECT_TRUE(held_by("lo"));
    model.remove("Weft.Intf.middle");
    EXPECT_TRUE(held_by(""));
    model.set("Weft.Intf.dhcp_x", {{"LowerLayers", "eth1.20"s}});
    EXPECT_TRUE(held_by("eth1.20"));
    model.set("Weft.Intf.dhcp_x.IPv4Addr.dhcp", {{"Address", "10.30.0.8"s}});
    EXPECT_TRUE(held_by(""));
    model.set("Weft.Intf.dhcp_x.IPv4Addr.dhcp", {{"Address", "10.30.0.7"s}});
    EXPECT_TRUE(held_by("eth1.20"));
    model.remove("Weft.Intf.dhcp_x");
    EXPECT_TRUE(held_by(""));
    add_address("1", "10.30.0.7", 24);
    EXPECT_TRUE(held_by("eth1.20"));
    model.remove("Weft.Intf.eth1.20");
    EXPECT_TRUE(held_by(""));
}

TEST_F(KernelTest, LinksAndAddressesAreRightAfterAnOverrun) {
    bridge();
    KernelTables tables(loop, 65536);
    Kernel kernel(loop, *graph, tables);
    EXPECT_TRUE(soon([&] { return up(); }));
    EXPECT_EQ(batch(neighbour("add"), 2500), ""); /* the loop is held meanwhile */
    EXPECT_EQ(batch(neighbour("del"), 2500), "");
    shell("ip link set peer down; ip addr add 10.9.0.1/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return !up() && model.instances(parent).size() == 1; }));
    EXPECT_EQ(tables.full_reads(), 2U);
    EXPECT_TRUE(tables.neighbours(tables.link("br-lan")->index).empty());

    shell("ip link set peer up; ip addr del 10.9.0.1/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return up() && model.instances(parent).empty(); })) << "it is told again";
    EXPECT_EQ(tables.full_reads(), 2U) << "one by one";
}

TEST_F(KernelTest, AnEventSocketThatFailsIsOpenedAnew) {
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    ASSERT_EQ(fail_event_sockets(), 1U);
    tables.catch_up();
    tables.catch_up();
    shell("ip addr add 10.9.0.1/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return model.instances(parent).size() == 1; }));
    shell("ip addr add 10.9.0.2/24 dev eth1.20");
    EXPECT_TRUE(soon([&] { return model.instances(parent).size() == 2; }));
    EXPECT_EQ(tables.full_reads(), 2U);
    std::size_t lost = 0;
    std::size_t back = 0;
    for (const TraceLine &line : TraceLog::instance().recent()) {
        lost += count(line.text, "events are lost");
        back += count(line.text, "events are there again");
    }
    EXPECT_EQ(std::make_pair(lost, back), std::make_pair(std::size_t{1}, std::size_t{1}));
}

TEST_F(KernelTest, OneChangeIsOneRowHoweverManyThereAre) {
    bridge();
    shell("ip addr add 10.20.0.1/24 dev peer");
    EXPECT_EQ(batch(neighbour("add"), 3000) + batch("route add 10.88.%a.%b/32 dev peer proto static", 3000), "");
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    EXPECT_EQ(tables.neighbours(tables.link("br-lan")->index).size(), 3000U);
    EXPECT_TRUE(tables.routes(tables.link("peer")->index).empty()) << "others' routes are not kept";
    std::vector<KernelChanges> told;
    tables.subscribe([&](const KernelChanges &changes) { told.push_back(changes); });
    EXPECT_TRUE(soon([&] { return tables.link("eth1.20")->up && tables.link("peer")->up; })) << "carrier takes a while";
    loop.settle(20);
    const auto one = [&](const std::string &command) {
        told.clear();
        const std::uint64_t before = tables.messages();
        shell(command);
        EXPECT_TRUE(soon([&] { return !told.empty(); })) << command;
        EXPECT_LE(tables.messages() - before, 4U) << command;
        return told.empty() ? KernelChanges() : told.front();
    };
    using Devices = std::map<std::string, std::string>;
    EXPECT_EQ(one("ip neigh add 10.77.99.1 lladdr 02:00:00:00:99:01 nud reachable dev br-lan").devices,
              (Devices{{"02:00:00:00:99:01", "10.77.99.1"}}));
    EXPECT_EQ(one("ip neigh replace 10.77.99.1 lladdr 02:00:00:00:99:02 nud reachable dev br-lan").devices,
              (Devices{{"02:00:00:00:99:01", ""}, {"02:00:00:00:99:02", "10.77.99.1"}}));
    EXPECT_EQ(one("ip neigh del 10.77.99.1 dev br-lan").devices, (Devices{{"02:00:00:00:99:02", ""}}));
    const int index = tables.link("eth1.20")->index;
    EXPECT_EQ(one("ip addr add 10.9.0.1/24 dev eth1.20").addresses, std::set{index});
    EXPECT_EQ(one("ip route add 10.89.0.0/16 dev eth1.20 proto 99").routes, std::set{index});
    EXPECT_EQ(one("ip link set eth1.20 name eth9").links.size(), 2U) << "the old name and the new one";
    EXPECT_EQ(one("ip link set eth9 name eth1.20").links.size(), 2U);

    told.clear();
    add_address("ours", "10.20.0.5", 24);
    EXPECT_TRUE(soon([&] { return status("IPv4Addr.ours") == "Enabled"; }));
    loop.settle(20);
    for (const KernelChanges &changes : told)
        EXPECT_TRUE(changes.addresses.empty()) << "what the host does itself is not told it";
    EXPECT_EQ(tables.full_reads(), 1U);
}

TEST_F(KernelTest, ANewDeviceIsAdmittedHoweverManyThereWere) {
    bridge();
    const auto host = [](const char *end) { return "Hosts.Host.02:00:00:00:"s + end; };
    model.add("Hosts.Host", "02:00:00:00:FF:01", {{"Active", true}}); /* another component's */
    constexpr int most = Presence::max_hosts;
    KernelTables tables(loop);
    Presence presence(loop, *graph, tables);
    EXPECT_FALSE(model.boolean(host("FF:01"), "Active", true));
    EXPECT_EQ(batch(neighbour("add"), most), "");
    EXPECT_TRUE(soon([&] { return hosts() == most + 1U; }));
    EXPECT_EQ(batch(neighbour("add"), 1, most), "");
    loop.settle(20);
    EXPECT_FALSE(model.find(host("04:00"))) << "all others are there";

    model.set(host("00:03"), {{"Tags", "lan stb"s}});
    EXPECT_TRUE(soon([&] { return model.find(host("04:00")); })) << "one is somebody's own now";
    for (const int number : {9, 3, 7, 5}) {
        EXPECT_EQ(batch(neighbour("del"), 1, number), "");
        loop.settle(20);
    }
    EXPECT_TRUE(soon([&] { return !model.boolean(host("00:05"), "Active", true); }));
    EXPECT_EQ(batch(neighbour("add"), 2, most + 1), "");
    EXPECT_TRUE(soon([&] { return model.find(host("04:01")) && model.find(host("04:02")); }));
    EXPECT_FALSE(model.find(host("00:09")) || model.find(host("00:07"))) << "absent longest";
    EXPECT_TRUE(model.find(host("00:05")));
    EXPECT_TRUE(model.find(host("00:03"))) << "absent, but somebody's own";
    EXPECT_TRUE(model.find(host("FF:01")));
    EXPECT_EQ(hosts(), most + 2U);

    model.remove(host("04:01"));
    EXPECT_TRUE(soon([&] { return model.boolean(host("04:01"), "Active"); })) << "it is there all the same";
}

/* A device of which the kernel knows no address yet, since it has only asked for one. */
TEST_F(KernelTest, WhatTheLanServerKnowsOfADeviceIsInHosts) {
    bridge();
    KernelTables tables(loop);
    std::optional<Presence> presence;
    presence.emplace(loop, *graph, tables);
    shell("ip link set eth1.20 master br-lan");
    const std::string host = "Hosts.Host.02:00:00:00:00:07";
    const std::string leases = "DHCPv4.Server.Pool.zep_stb.Rule.1.Lease";
    std::vector<std::string> matches; /* what whoever looks for active STBs would have seen */
    model.watch(host, [&](const Event &event) {
        if (event.kind != Event::Kind::Deleted && model.boolean(host, "Active") &&
            has_word(model.text(host, "Tags"), "stb"))
            matches.push_back(model.text(host, "IPAddress"));
    });
    EXPECT_EQ(shell("bridge fdb add 02:00:00:00:00:07 dev eth1.20 master dynamic"), "");
    ASSERT_TRUE(soon([&] { return model.boolean(host, "Active"); }));
    const Values lease = {{"ClientID", "01020000000007"s}, {"MACAddress", "02:00:00:00:00:07"s},
                          {"IPAddress", "192.168.1.20"s},  {"HostName", "bedroom"s},
                          {"VendorClass", "zep-stb-4k"s},  {"OnHold", true}};
    EXPECT_FALSE(model.add(leases, "01020000000007", lease));
    loop.settle(20);
    EXPECT_EQ(model.text(host, "Tags"), "lan") << "it has no lease yet";
    model.set(leases + ".01020000000007", {{"OnHold", false}});
    ASSERT_TRUE(soon([&] { return model.text(host, "Tags") == "lan stb"; }));
    EXPECT_EQ(model.text(host, "IPAddress"), "192.168.1.20");
    EXPECT_EQ(model.text(host, "HostName"), "bedroom");
    EXPECT_EQ(model.text(host, "VendorClass"), "zep-stb-4k");

    presence.reset(); /* the host starts again, with its leases */
    model.remove(host);
    presence.emplace(loop, *graph, tables);
    ASSERT_TRUE(soon([&] { return model.text(host, "Tags") == "lan stb"; }));
    ASSERT_FALSE(matches.empty());
    for (const std::string &address : matches)
        EXPECT_EQ(address, "192.168.1.20");

    /* It comes as a PC now. */
    model.remove(leases + ".01020000000007");
    EXPECT_FALSE(model.add("DHCPv4.Server.Pool.lan.Rule.1.Lease", "01020000000007",
                           {{"MACAddress", "02:00:00:00:00:07"s}, {"IPAddress", "192.168.1.100"s}}));
    ASSERT_TRUE(soon([&] { return model.text(host, "Tags") == "lan"; }));
    EXPECT_EQ(model.text(host, "IPAddress"), "192.168.1.100");
    model.set(host, {{"Tags", "lan stb"s}});
    model.set("DHCPv4.Server.Pool.lan.Rule.1.Lease.01020000000007", {{"HostName", "attic"s}});
    ASSERT_TRUE(soon([&] { return model.text(host, "HostName") == "attic"; }));
    EXPECT_EQ(model.text(host, "Tags"), "lan stb") << "somebody has said so";
    EXPECT_TRUE(model.find(host)->persistent);
    presence.reset();
    presence.emplace(loop, *graph, tables);
    model.set("DHCPv4.Server.Pool.lan.Rule.1.Lease.01020000000007", {{"HostName", "cellar"s}});
    ASSERT_TRUE(soon([&] { return model.text(host, "HostName") == "cellar"; }));
    EXPECT_EQ(model.text(host, "Tags"), "lan stb");
    model.remove(host); /* and takes it back */
    ASSERT_TRUE(soon([&] { return model.text(host, "HostName") == "cellar"; }));
    EXPECT_EQ(model.text(host, "Tags"), "lan");
    EXPECT_FALSE(model.find(host)->persistent);
}

} // namespace keel
