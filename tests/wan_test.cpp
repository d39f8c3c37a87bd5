/*
 * The WAN DHCP clients: what is read of them, and the real program at an operator of the test's own, in a network
 * namespace.
 */
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "host/base/trace.h"
#include "host/dhcp/frame.h"
#include "host/dhcp/packet.h"
#include "host/linux/lan_port.h"
#include "host/linux/udhcpc.h"
#include "host/linux/wan_clients.h"
#include "tests/linux_fixture.h"

namespace keel {

namespace {

using Kind = UdhcpcReport::Kind;
using Seen = WanMessage::Kind;

constexpr std::uint32_t server_address = 0x0a140001; /* 10.20.0.1 */

std::size_t traced(const std::string &part) {
    const auto &lines = TraceLog::instance().recent();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const TraceLine &line) { return line.text.find(part) != std::string::npos; }));
}

/* A client's message with those options, which end by themselves. */
Bytes client_message(std::uint32_t xid, std::uint32_t ciaddr, const Bytes &options) {
    Bytes message(240);
    const auto put = [&](std::size_t at, const Bytes &bytes) {
        std::copy(bytes.begin(), bytes.end(), message.begin() + static_cast<std::ptrdiff_t>(at));
    };
    put(0, {1, 1, 6});
    put(4, network_bytes(xid));
    put(12, network_bytes(ciaddr));
    put(28, {2, 0, 0, 0, 0, 7});
    put(236, {0x63, 0x82, 0x53, 0x63});
    message.insert(message.end(), options.begin(), options.end());
    return message;
}

Bytes leaving(const Bytes &message, std::uint32_t to = 0xffffffff) {
    return *build_udp_packet({0, 68, to, 67}, message);
}

/* A copy without room behind its end, so that the sanitizer sees each byte that is read there. */
std::optional<WanMessage> seen(const Bytes &packet, bool leaves) {
    const Bytes copy(packet.begin(), packet.end());
    return read_wan_message(copy.data(), copy.size(), leaves);
}

} // namespace

/* --------------------------------------------------------------------------------------------- what is read of them */

TEST(Udhcpc, WhatItsScriptPrintsIsCheckedAtTheDoor) {
    struct {
        const char *line;
        Kind kind;
        bool dropped;
    } lines[] = {{"udhcpc: broadcasting discover", Kind::None, false},
                 {"", Kind::None, false},
                 {"@nak|||||||10.0.0.2", Kind::Nak, false},
                 {"@deconfig|||||||", Kind::Deconfig, false},
                 {"@leasefail|||||||", Kind::Leasefail, false},
                 {"@bound|10.0.0.1|255.0.0.0|||||", Kind::Bound, false},
                 {"@bound|10.0.0.1|255.0.0.0||refused|||", Kind::Bound, true},
                 {"@bound|10.0.0.1;id|255.0.0.0|||||", Kind::Bound, false},
                 {"@bound|10.0.0.1", Kind::None, true},
                 {"@nak", Kind::None, true},
                 {"@others|||||||", Kind::None, true},
                 {"@option|72|0a140003", Kind::None, false},
                 {"@option|73|xyz", Kind::None, true},
                 {"@option|74|123", Kind::None, true},
                 {"@option|999|00", Kind::None, true},
                 {"@option|4294967368|00", Kind::None, true}, /* 72 in 32 bits */
                 {"@option|72x|00", Kind::None, true},
                 {"@option|75", Kind::None, true},
                 {"@", Kind::None, true}};
    for (const auto &[line, kind, dropped] : lines) {
        const UdhcpcReport report = UdhcpcReader().take(line);
        EXPECT_EQ(report.kind, kind) << line;
        EXPECT_EQ(report.dropped, dropped) << line;
    }
    EXPECT_EQ(UdhcpcReader().take("@nak|||||||10.0.0.2").server, "10.0.0.2");
    EXPECT_EQ(UdhcpcReader().take("@bound|10.0.0.1;id|255.0.0.0|||||").lease.address, "");
    EXPECT_EQ(UdhcpcReader().take("@bound|10.0.0.1|refused|||||").lease.mask, "");

    UdhcpcReader reader;
    reader.take("@option|72|0a140003");
    reader.take("@option|73|xyz");
    const UdhcpcReport report = reader.take("@renew|10.0.0.9|255.255.255.0|10.0.0.2 10.0.0.3|10.60.0.0/24 10.0.0.1 "
                                            "0.0.0.0/0 10.0.0.4|10.0.0.1|bad|10.0.0.7");
    EXPECT_EQ(report.lease.options, (std::map<int, std::string>{{3, "0a000001"},
                                                                {42, "0a0000020a000003"},
                                                                {54, "0a000007"},
                                                                {72, "0a140003"},
                                                                {121, "180a3c000a000001000a000004"}}));
    EXPECT_TRUE(reader.take("@bound|10.0.0.9|255.255.255.0|||||").lease.options.empty())
        << "options are those of one lease";
    const auto words = udhcpc_command({"udhcpc", "script", "eth1.20", "", "", {}, ""});
    EXPECT_EQ(std::count(words.begin(), words.end(), "-R"), 0) << "it never releases";
    EXPECT_EQ(std::count(words.begin(), words.end(), "-C"), 1) << "no identifier is none, not the MAC address";
}

/* Whatever a value holds, there is one line for the event, and no other lease than the one that came. */
TEST(Udhcpc, AValueWithLinesOfItsOwnForgesNothing) {
    const std::string forged = "1.1.1.1\n@bound|6.6.6.6|255.0.0.0|||||\n@nak|||||||\n@option|72|06060606";
    for (const char *name :
         {"ntpsrv", "staticroutes", "router", "dns", "serverid", "opt72", "hostname", "ip", "subnet", "IFS", "PATH"}) {
        setenv("LEASE_VALUE", forged.c_str(), 1);
        const std::string said = shell("ip=10.0.0.9 subnet=255.0.0.0 opt42=0a000002; " + std::string(name) +
                                       "=\"$LEASE_VALUE\"; export ip "
                                       "subnet opt42 " +
                                       name + "; exec " SOURCE_DIR "/share/udhcpc-report.sh bound");
        unsetenv("LEASE_VALUE");
        UdhcpcReader reader;
        std::istringstream lines(said);
        std::size_t leases = 0;
        std::size_t dropped = 0;
        for (std::string line; std::getline(lines, line);) {
            const UdhcpcReport report = reader.take(line);
            EXPECT_NE(report.kind, Kind::Nak) << name;
            dropped += report.dropped;
            if (report.kind != Kind::Bound)
                continue;
            ++leases;
            EXPECT_EQ(report.lease.address, std::string(name) == "ip" ? "" : "10.0.0.9") << name;
            EXPECT_EQ(report.lease.mask, std::string(name) == "subnet" ? "" : "255.0.0.0") << name;
            EXPECT_FALSE(report.lease.options.contains(72)) << name;
        }
        const bool whole = std::string(name) != "ip" && std::string(name) != "subnet";
        EXPECT_EQ(leases, 1U) << name << ": " << said;
        const bool printed = said.find("refused") != std::string::npos;
        EXPECT_EQ(dropped, printed && whole ? 1U : 0U) << name << ": " << said;
    }
    EXPECT_EQ(shell("'" SOURCE_DIR "/share/udhcpc-report.sh' 'bound|6.6.6.6|255.0.0.0|||||\n@bound'"), "");
}

TEST(WanMessages, AreToldApartByWhatAClientDoes) {
    const Bytes id{61, 3, 0, 1, 2};
    const auto with = [&](Bytes options) {
        options.insert(options.end(), id.begin(), id.end());
        options.push_back(255);
        return options;
    };
    const std::uint32_t address = 0x0a140033;
    const Bytes discover = leaving(client_message(7, 0, with({53, 1, 1})));
    const struct {
        Bytes packet;
        Seen kind;
    } sent[] = {
        {discover, Seen::Discover},
        {leaving(client_message(7, 0, with({53, 1, 3, 54, 4, 10, 20, 0, 1, 50, 4, 10, 20, 0, 51}))), Seen::Select},
        {leaving(client_message(7, 0, with({53, 1, 3, 50, 4, 10, 20, 0, 51}))), Seen::Select},
        {leaving(client_message(7, address, with({53, 1, 3})), server_address), Seen::Renew},
        {leaving(client_message(7, address, with({53, 1, 3}))), Seen::Rebind},
        {leaving(client_message(7, 0, with({53, 1, 4}))), Seen::Other},
    };
    for (const auto &[packet, kind] : sent) {
        const auto message = seen(packet, true);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->kind, kind);
        EXPECT_EQ(message->xid, 7U);
        EXPECT_EQ(message->client_id, (Bytes{0, 1, 2}));
        EXPECT_FALSE(seen(packet, false)) << "another's, that comes in";
    }

    DhcpMessage request;
    request.xid = 9;
    std::mt19937 random(1);
    for (const DhcpType type : {DhcpType::Offer, DhcpType::Ack, DhcpType::Nak}) {
        const Bytes reply = build_dhcp_reply(request, {type, address, server_address, {{51, {0, 0, 14, 16}}}});
        const Bytes packet = *build_udp_packet({server_address, 67, 0xffffffff, 68}, reply);
        const auto answer = seen(packet, false);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->kind, Seen::Answer);
        EXPECT_EQ(answer->xid, 9U);
        EXPECT_EQ(answer->server, server_address);
        EXPECT_FALSE(seen(packet, true)) << "a server on this machine is nobody's client";
        for (std::size_t size = 0; size < packet.size(); ++size) /* no packet is shorter than it says */
            EXPECT_FALSE(seen(Bytes(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(size)), false));
        for (int round = 0; round < 2000; ++round) { /* behind the checked header, anything may come */
            Bytes damaged = packet;
            for (int flips = 0; flips < 8; ++flips)
                damaged[20 + random() % (damaged.size() - 20)] = static_cast<std::uint8_t>(random());
            for (const bool leaves : {false, true})
                if (const auto taken = seen(damaged, leaves)) {
                    EXPECT_EQ(leaves, taken->kind != Seen::Answer);
                }
        }
    }
    const Bytes unnamed =
        *build_udp_packet({0x0a140002, 67, 0xffffffff, 68}, build_dhcp_reply(request, {DhcpType::Offer, 0, 0, {}}));
    EXPECT_EQ(seen(unnamed, false)->server, 0x0a140002U) << "one that does not name itself is where it came from";
    EXPECT_FALSE(seen(*build_udp_packet({server_address, 67, 0xffffffff, 68},
                                        build_dhcp_reply(request, {DhcpType::Inform, 0, server_address, {}})),
                      false));
}

/* ---------------------------------------------------------------------------------------- the real clients */

/* An operator's DHCP server that does as it is told, on the other end of the cable "eth1.20" - "peer". */
class WanTest : public LinuxTest {
protected:
    WanTest() {
        EXPECT_EQ(shell("ip link set peer address 02:00:00:00:00:77"), "");
        std::filesystem::create_directories(folder);
        graph->set_flag("eth1.20", "up", true);
        model.watch("Weft.Intf",
                    [this](const Event &event) {
                        if (const auto status = event.values.find("DHCPStatus");
                            event.kind == Event::Kind::Changed && status != event.values.end())
                            states[event.steps[2]].push_back(to_text(status->second));
                    },
                    {{"DHCPStatus"}, false});
        port.emplace(
            loop, tables, "peer", [this](const std::uint8_t *data, std::size_t size) { answer(data, size); }, nullptr);
    }
    ~WanTest() override { std::filesystem::remove_all(folder); }

    void answer(const std::uint8_t *data, std::size_t size) {
        DhcpMessage message;
        std::string error;
        ASSERT_TRUE(parse_dhcp(data, size, &message, &error)) << error;
        asked.emplace_back(message.type, loop.now_ms());
        if (silent)
            return;
        const std::uint32_t own = 0x0a140032U + (message.client_id.empty() ? 0U : message.client_id.back());
        DhcpReply reply{DhcpType::Offer, leased ? leased : own, server_address, options};
        if (message.type == DhcpType::Request)
            reply.type = refusing ? DhcpType::Nak : DhcpType::Ack;
        if (reply.type == DhcpType::Nak)
            reply.your_address = 0;
        port->send(build_dhcp_reply(message, reply), {{255, 255, 255, 255, 255, 255}, 0xffffffff, server_address});
    }
    void add_client(const std::string &name, const char *flags, const std::string &id) {
        model.add("Weft.Intf", name,
                  {{"Enable", false}, {"Flags", std::string(flags)}, {"LowerLayers", std::string("eth1.20")}});
        model.set(interface_path(name) + ".SentOption.61", {{"Value", id}});
        model.set(interface_path(name), {{"Enable", true}});
    }
    /* With a leased address that is in force, as a renewal needs it. */
    static void reach_operator_from(const std::string &address) {
        EXPECT_EQ(shell("ip addr add " + address +
                        "/24 dev eth1.20;"
                        "ip neigh replace 10.20.0.1 lladdr 02:00:00:00:00:77 dev eth1.20"),
                  "");
    }
    bool soon(const std::function<bool()> &holds, int seconds = 6) {
        for (int turn = 0; turn < 80 * seconds && !holds(); ++turn) {
            loop.settle(20);
            usleep(10000);
        }
        return holds();
    }
    std::string state(const std::string &name) const { return model.text(interface_path(name), "DHCPStatus"); }
    std::string exchange(const std::string &name, const char *parameter) const {
        const auto value = model.get("DHCPv4.Client." + name, parameter);
        return value ? to_text(*value) : "(none)";
    }
    /* A program in the place of udhcpc. */
    std::string program(const std::string &lines) const {
        std::string file = folder / "client";
        std::ofstream(file) << "#!/bin/sh\n" << lines;
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        return file;
    }
    std::size_t runs() const {
        std::ifstream log(folder / "log");
        std::size_t count = 0;
        for (std::string line; std::getline(log, line);)
            ++count;
        return count;
    }

    using States = std::vector<std::string>;
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("wan-test-" + std::to_string(getpid()));
    const std::string script = SOURCE_DIR "/share/udhcpc-report.sh";
    KernelTables tables{loop};
    std::optional<PacketLanPort> port;
    std::map<std::string, States> states;
    std::vector<std::pair<DhcpType, std::uint64_t>> asked;
    std::map<std::uint8_t, Bytes> options{{1, {255, 255, 255, 0}}, {51, {0, 0, 14, 16}}};
    std::uint32_t leased = 0; /* to everybody; 0: to each an address of its own */
    bool silent = false;
    bool refusing = false;
};

/* Of a client that says other words than udhcpc does, or none, the states come all the same; and from each of several,
 * which all have the device's MAC address, its own. */
TEST_F(WanTest, StatesComeFromWhatIsSeenWhateverTheProgramSays) {
    const std::string forged = "x\n@bound|6.6.6.6|255.0.0.0|||||";
    for (const std::uint8_t number : Bytes{12, 15, 66, 67})
        options[number] = Bytes(forged.begin(), forged.end());
    WanClients clients(loop, *graph, program("exec 2>/dev/null\nexec udhcpc \"$@\"\n"), script);
    add_client("dhcp_own", "dhcp", "0001");
    add_client("dhcp_zep_2", "dhcp zep-dhcp", "0002");
    const States binding{"Selecting", "Requesting", "Bound"};
    const std::array<std::string, 2> names{"dhcp_own", "dhcp_zep_2"};
    for (const std::string &name : names) {
        EXPECT_TRUE(soon([&] { return states[name] == binding; })) << name;
        EXPECT_EQ(model.text(interface_path(name), "IPAddress"), name == "dhcp_own" ? "10.20.0.51" : "10.20.0.52");
        EXPECT_EQ(exchange(name, "Sent"), "2") << name;
        EXPECT_EQ(exchange(name, "Answered"), "2") << name;
        EXPECT_EQ(exchange(name, "Server"), "10.20.0.1") << name;
        EXPECT_EQ(exchange(name, "LastError"), "") << name;
        EXPECT_NEAR(std::stod(exchange(name, "Since")), static_cast<double>(loop.wall_clock_s()), 5.0);
    }

    reach_operator_from("10.20.0.51");
    silent = true;
    shell("pkill -USR1 -f 0x3d:0001");
    const auto is = [&](const char *wanted) { return soon([&] { return state("dhcp_own") == wanted; }); };
    EXPECT_TRUE(is("Renewing"));
    EXPECT_EQ(exchange("dhcp_own", "Sent"), "3");
    EXPECT_EQ(exchange("dhcp_own", "Answered"), "2");
    EXPECT_EQ(states["dhcp_zep_2"], binding) << "the other one has done nothing";
    EXPECT_TRUE(is("Rebinding"));
    EXPECT_TRUE(model.find("Weft.Intf.dhcp_own.IPv4Addr.dhcp")) << "a lease that is renewed is in force";
    silent = false;
    shell("pkill -USR1 -f 0x3d:0001");
    EXPECT_TRUE(is("Bound"));
}

/* Refused, or given up by the program itself. */
TEST_F(WanTest, ALostLeaseIsNotBoundAnyMore) {
    WanClients clients(loop, *graph, "udhcpc", script);
    add_client("dhcp_own", "dhcp", "0001");
    add_client("dhcp_zep_2", "dhcp zep-dhcp", "0002");
    const std::array<std::string, 2> names{"dhcp_own", "dhcp_zep_2"};
    const auto both = [&](const char *wanted) {
        return soon([&] { return state(names[0]) == wanted && state(names[1]) == wanted; });
    };
    ASSERT_TRUE(both("Bound"));
    const std::string own_lease = "Weft.Intf.dhcp_own.IPv4Addr.dhcp";
    ASSERT_TRUE(model.find(own_lease));
    reach_operator_from("10.20.0.51");
    reach_operator_from("10.20.0.52");
    refusing = true;
    shell("pkill -USR1 -f 0x3d:000");
    EXPECT_TRUE(both("Selecting"));
    EXPECT_FALSE(model.find(own_lease));
    for (const std::string &name : names) {
        EXPECT_EQ(model.text(interface_path(name), "LastConnectionError"), "RemoteNack") << name;
        EXPECT_EQ(exchange(name, "LastError"), "refused by 10.20.0.1") << name;
    }
    EXPECT_EQ(model.text("Weft.Intf.dhcp_zep_2", "IPAddress"), "10.20.0.52") << "what follows is the plug-in's to say";
    refusing = false;
    ASSERT_TRUE(both("Bound")) << "three seconds later";
    ASSERT_TRUE(model.find(own_lease));
    EXPECT_EQ(model.text("Weft.Intf.dhcp_own", "LastConnectionError"), "None");
}

/* Of a lease that ran out, only the script tells at once. */
TEST_F(WanTest, ALeaseThatRanOutIsNotInForceAnyMore) {
    WanClients clients(loop, *graph,
                       program("echo '@deconfig|||||||'\necho '@bound|10.20.0.51|255.255.255.0|||||'\nsleep 0.5\n"
                               "echo '@deconfig|||||||'\nexec sleep 1000\n"),
                       script);
    add_client("dhcp_own", "dhcp", "0001");
    ASSERT_TRUE(soon([&] { return model.find("Weft.Intf.dhcp_own.IPv4Addr.dhcp") != nullptr; }));
    EXPECT_TRUE(soon([&] { return states["dhcp_own"] == States{"Selecting", "Bound", "Selecting"}; }));
    EXPECT_FALSE(model.find("Weft.Intf.dhcp_own.IPv4Addr.dhcp"));
}

TEST_F(WanTest, OneThatNobodyAnswersTriesLessAndLessOften) {
    silent = true;
    std::vector<double> pauses; /* ms, in which a next try was announced */
    std::uint64_t announced = 0;
    model.watch("DHCPv4.Client.dhcp_own",
                [&](const Event &event) {
                    const auto next = event.values.find("NextTry");
                    if (event.kind != Event::Kind::Changed || next == event.values.end())
                        return;
                    if (std::get<std::int64_t>(next->second) != 0)
                        announced = loop.now_ms();
                    else if (announced != 0)
                        pauses.push_back(static_cast<double>(loop.now_ms() - std::exchange(announced, 0)));
                },
                {{"NextTry"}, false});
    WanClients clients(loop, *graph, "udhcpc", script);
    const std::uint64_t enabled = loop.now_ms();
    add_client("dhcp_own", "dhcp", "0001");
    ASSERT_TRUE(soon([&] { return asked.size() == 1; }));
    EXPECT_LT(asked[0].second - enabled, 1000U) << "at once";
    ASSERT_TRUE(soon([&] { return exchange("dhcp_own", "LastError") == "no answer"; }));
    EXPECT_EQ(exchange("dhcp_own", "Sent"), "1");
    EXPECT_LE(std::stoull(exchange("dhcp_own", "NextTry")), loop.wall_clock_s() + 3);
    ASSERT_TRUE(soon([&] { return asked.size() == 2; }));
    EXPECT_EQ(states["dhcp_own"], States{"Selecting"}) << "all that is one search";
    silent = false;
    ASSERT_TRUE(soon([&] { return state("dhcp_own") == "Bound"; }, 20));
    ASSERT_EQ(asked.size(), 4U);
    /* From where a try was given up, 2 s after it was made, to the next one: 3 and 6 s between tries, a second either
     * way. */
    ASSERT_GE(pauses.size(), 2U);
    EXPECT_NEAR(pauses[0], 1000, 1300);
    EXPECT_NEAR(pauses[1], 4000, 1300);
}

TEST_F(WanTest, ALeaseThatCannotBeUsedIsNotAndAnotherOneIsAskedFor) {
    leased = 0x7f000005; /* 127.0.0.5 */
    options[42] = {10, 20, 0, 2};
    options[72] = {10, 20, 0};
    WanClients clients(loop, *graph, "udhcpc", script);
    add_client("dhcp_own", "dhcp", "0001");
    ASSERT_TRUE(soon([&] { return exchange("dhcp_own", "LastError").starts_with("address 127.0.0.5"); }));
    EXPECT_EQ(state("dhcp_own"), "Selecting");
    EXPECT_FALSE(model.find("Weft.Intf.dhcp_own.IPv4Addr.dhcp"));
    ASSERT_TRUE(soon([&] { return traced("dhcp_own: the operator leased what cannot be: address 127.0.0.5") == 2; }))
        << "three seconds later";
    EXPECT_EQ(states["dhcp_own"], (States{"Selecting", "Requesting", "Selecting"}));
    leased = 0;
    ASSERT_TRUE(soon([&] { return state("dhcp_own") == "Bound"; }, 12));
    EXPECT_EQ(model.text("Weft.Intf.dhcp_own.IPv4Addr.dhcp", "Address"), "10.20.0.51");
    EXPECT_EQ(model.text("Weft.Intf.dhcp_own.ReqOption.42", "Value"), "0a140002");
    EXPECT_FALSE(model.find("Weft.Intf.dhcp_own.ReqOption.72"));
}

TEST_F(WanTest, OneDisabledAndEnabledInOneTurnIsRestarted) {
    WanClients clients(
        loop, *graph,
        program("echo run >>" + (folder / "log").string() + "\necho '@deconfig|||||||'\nexec sleep 1000\n"), script);
    add_client("dhcp_zep_2", "dhcp zep-dhcp", "0002");
    ASSERT_TRUE(soon([&] { return runs() == 1; }));
    for (const bool on : {false, true})
        model.set("Weft.Intf.dhcp_zep_2", {{"Enable", on}});
    EXPECT_TRUE(soon([&] { return runs() == 2; }));
    EXPECT_EQ(states["dhcp_zep_2"], (States{"Selecting", "Idle", "Selecting"}));
}

TEST_F(WanTest, AProgramThatCannotDoItsWorkIsToldOnceAndTriedLessAndLessOften) {
    WanClients clients(loop, *graph,
                       program("echo run >>" + (folder / "log").string() + "\necho 'no such option: x'\nexit 3\n"),
                       script);
    add_client("dhcp_zep_2", "dhcp zep-dhcp", "0002");
    ASSERT_TRUE(soon([&] { return runs() == 1; }));
    const std::uint64_t begin = loop.now_ms();
    soon([&] { return loop.now_ms() >= begin + 7000; }, 20);
    EXPECT_EQ(runs(), 3U) << "at 0, 2 and 6 s";
    EXPECT_EQ(traced("ended with status 3 (no such option: x); it is tried again"), 1U);
    EXPECT_EQ(states["dhcp_zep_2"], States{"Selecting"}) << "so that what waits for 64 s of it comes";
}

/* The device is not there yet, goes, and comes back as another one. */
TEST_F(WanTest, ADeviceThatComesBackIsListenedToAgain) {
    std::vector<std::uint32_t> xids;
    WanPackets packets(loop, "later", [&](const WanMessage &message) { xids.push_back(message.xid); });
    EXPECT_EQ(traced("later: what its DHCP clients do is not seen: No such device; it is tried again"), 1U);
    const auto hears = [&] {
        return soon([&] {
            loop.settle(20);
            xids.clear();
            shell("udhcpc -f -n -q -t 1 -T 0 -i later -s /bin/true");
            packets.take_now();
            return xids.size() == 1;
        });
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(shell("ip link add later type veth peer name far; ip link set later up; ip link set far up"), "");
        EXPECT_TRUE(hears());
        shell("ip link del later");
        loop.settle(20);
    }
    EXPECT_LE(traced("is not seen"), 3U);
}

} // namespace keel
