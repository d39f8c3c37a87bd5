/*
 * The Linux side on a real kernel, when what it stands on goes and comes back.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "host/linux/child.h"
#include "host/linux/firewall_check.h"
#include "host/linux/firewall_policy.h"
#include "host/linux/kernel.h"
#include "host/linux/lan_port.h"
#include "host/linux/multicast.h"
#include "tests/linux_fixture.h"

using namespace std::string_literals;

namespace keel {

class RecoveryTest : public LinuxTest {
protected:
    static std::size_t traced(Level level, const std::string &part) {
        const auto &lines = TraceLog::instance().recent();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const TraceLine &line) {
            return line.level == level && line.text.find(part) != std::string::npos;
        }));
    }
};

/* A LAN device's end of a DHCP exchange, without an address as it is before its first lease. */
class LanDevice {
public:
    explicit LanDevice(const char *interface) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        const int on = 1;
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_port = htons(68);
        EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
        EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_BINDTODEVICE, interface, IFNAMSIZ - 1), 0);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    }
    LanDevice(const LanDevice &) = delete;
    LanDevice &operator=(const LanDevice &) = delete;
    ~LanDevice() { close(socket_); }

    void ask(const std::string &message) const {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(67);
        server.sin_addr.s_addr = INADDR_BROADCAST;
        sendto(socket_, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&server), sizeof server);
    }
    std::string answer() const {
        char buffer[64];
        const ssize_t size = recv(socket_, buffer, sizeof buffer, 0);
        return {buffer, size > 0 ? static_cast<std::size_t>(size) : 0};
    }

private:
    int socket_;
};

TEST_F(RecoveryTest, TheLanIsServedAgainOnceTheBridgeIsBack) {
    const auto add_bridge = [] {
        EXPECT_EQ(shell("ip link add br-lan type bridge && ip link set eth1.20 master br-lan && ip link set br-lan up"),
                  "");
    };
    PacketLanPort *answering = nullptr;
    std::string heard;
    std::uint32_t owned = 0;
    KernelTables tables(loop);
    PacketLanPort port(
        loop, tables, "br-lan",
        [&](const std::uint8_t *data, std::size_t size) {
            heard.assign(data, data + size);
            const std::string answer = "answer to " + heard;
            answering->send({answer.begin(), answer.end()},
                            {{255, 255, 255, 255, 255, 255}, 0xffffffff, 0xc0a80101, false});
        },
        [&](std::uint32_t address, const HardwareAddress &) { owned = address; });
    answering = &port;
    const LanDevice device("peer");
    /* One answer for each request. */
    const auto served = [&](const std::string &request, std::uint64_t limit_ms = 2000) {
        const std::uint64_t start = loop.now_ms();
        std::string answer;
        int asked = 0;
        while (answer.empty() && loop.now_ms() - start < limit_ms) {
            if (asked++ % 10 == 0)
                device.ask(request);
            loop.settle(20);
            usleep(10000);
            answer = device.answer();
        }
        loop.settle(20);
        for (std::string more = answer; !more.empty(); more = device.answer())
            EXPECT_EQ(more, "answer to " + request);
        return !answer.empty();
    };
    EXPECT_FALSE(served("nobody", 500));
    add_bridge();
    EXPECT_TRUE(served("first"));
    EXPECT_EQ(traced(Level::Error, "br-lan"), 1U);
    EXPECT_EQ(traced(Level::Info, "br-lan"), 1U);
    const auto finds_owner = [&] {
        owned = 0;
        port.probe(0xc0a80163); /* 192.168.1.99 */
        return soon([&] { return owned == 0xc0a80163; });
    };
    EXPECT_EQ(shell("ip addr add 192.168.1.99/24 dev peer"), "");
    EXPECT_TRUE(finds_owner()) << "who has an address says so";
    const auto peer = parse_mac(shell("ip -br link show peer | tr -s ' ' | cut -d ' ' -f 3 | tr -d '\n'"));
    ASSERT_TRUE(peer);
    EXPECT_EQ(port.port_of(*peer), "eth1.20");
    EXPECT_EQ(port.port_of({2, 1, 1, 1, 1, 1}), "");
    EXPECT_EQ(count(shell("ss -uln sport = :67"), "%br-lan:67"), 1U) << "or the kernel would refuse renewals";
    int other = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_port = htons(67);
    EXPECT_NE(bind(other, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    close(other);
    for (int round = 0; round < 2; ++round) {
        TraceLog::instance().clear();
        shell("ip link set br-lan down");
        EXPECT_FALSE(served("while it is down", 500));
        shell("ip link set br-lan up");
        EXPECT_TRUE(served("up again"));
        EXPECT_EQ(traced(Level::Error, "br-lan"), 1U) << "one for the loss, however long it lasts";
        EXPECT_EQ(traced(Level::Info, "br-lan"), 1U) << "and one for the recovery";

        shell("ip link set br-lan down; ip link set br-lan up"); /* before the host has looked */
        EXPECT_TRUE(served("down and up at once"));
        shell("ip link del br-lan");
        EXPECT_FALSE(served("while there is none", 500));
        add_bridge();
        EXPECT_TRUE(served("a new one"));
        EXPECT_TRUE(finds_owner());
        shell("ip link del br-lan");
        add_bridge();
        port.send({'x'}, {{}, 0xffffffff, 0xc0a80101}); /* to the one that is gone */
        EXPECT_TRUE(served("another one at once"));
    }
}

TEST_F(RecoveryTest, APolicyThatWasRefusedIsTriedAgain) {
    const std::string path = "Firewall.Policy.IPTV2Lan";
    const auto becomes = [&](const char *status) { return soon([&] { return model.text(path, "Status") == status; }); };
    model.set(path, {{"ReverseChain", std::string("Firewall.Chain.IPTV_Out")}});
    FirewallPolicy policy(loop, *graph);
    EXPECT_TRUE(becomes("error")) << "there are no chains";
    usleep(1200000);
    loop.settle(200); /* it was tried again, and refused */
    set_up();
    EXPECT_TRUE(becomes("Enabled"));
    EXPECT_EQ(shell("iptables -S FORWARD_IPTV2Lan"),
              "-N FORWARD_IPTV2Lan\n-A FORWARD_IPTV2Lan -o eth1.20 -j IPTV_Out\n");
    EXPECT_EQ(traced(Level::Error, "IPTV_Out is not in force"), 1U);
    EXPECT_EQ(traced(Level::Info, "IPTV_Out is in force again"), 1U);

    /* Not without end for a value that never can be. */
    TraceLog::instance().clear();
    model.set(path, {{"ReverseChain", std::string("nonsense")}});
    EXPECT_TRUE(becomes("error"));
    std::size_t writes = 0;
    model.watch(path, [&](const Event &) { ++writes; });
    usleep(1200000);
    loop.settle(200);
    EXPECT_EQ(writes, 0U);
    model.set(path, {{"ReverseChain", std::string("Off")}});
    EXPECT_TRUE(becomes("Enabled"));
}

TEST_F(RecoveryTest, APolicyOutlastsACommandThatHangs) {
    const std::string path = "Firewall.Policy.IPTV2Lan";
    set_up();
    const std::string program = std::filesystem::canonical("/usr/sbin/iptables");
    std::ofstream("/run/hanging") << "#!/bin/sh\nexec sleep 1000\n";
    chmod("/run/hanging", 0755);
    model.set(path, {{"ReverseChain", std::string("Firewall.Chain.IPTV_Out")}});
    FirewallPolicy policy(loop, *graph);
    ASSERT_EQ(mount("/run/hanging", program.c_str(), nullptr, MS_BIND, nullptr), 0);
    const auto refused = [&] { return model.text(path, "Status") == "error"; };
    const bool noticed = soon(refused) || soon(refused);
    EXPECT_EQ(umount(program.c_str()), 0);
    EXPECT_TRUE(noticed);
    EXPECT_EQ(traced(Level::Error, "killed"), 1U);
    EXPECT_TRUE(soon([&] { return model.text(path, "Status") == "Enabled"; }));
    EXPECT_EQ(count(shell("iptables -S FORWARD_IPTV2Lan"), "-o eth1.20 -j IPTV_Out\n"), 1U);
}

TEST_F(RecoveryTest, TheMulticastConfigurationGoesThroughNoLink) {
    shell("ip link add br-lan type bridge; ip link set br-lan up; ip addr add 192.168.1.1/24 dev br-lan");
    const std::filesystem::path folder = "/run/keel";
    std::filesystem::create_directories(folder);
    std::ofstream("/run/precious") << "kept\n";
    std::filesystem::create_symlink("/run/precious", folder / "igmpproxy.conf");
    std::filesystem::create_symlink("/run/precious", folder / "igmpproxy.conf.new");
    const std::string path = "TIDE.Intf.iptv";
    model.set(path, {{"ClientEnable", true}, {"MRTIIFEnable", true}, {"WANEnable", true}});
    add_address("1", "10.20.0.5", 24);
    model.set("Weft.Intf.eth1.20", {{"Flags", std::string("netdev up ipv4")}});
    KernelTables tables(loop);
    Kernel kernel(loop, *graph, tables);
    Multicast multicast(loop, *graph, "/bin/true", folder);
    EXPECT_TRUE(soon([&] { return model.text(path, "Status") == "Error"; })) << "it ends at once";
    struct stat file {};
    ASSERT_EQ(lstat((folder / "igmpproxy.conf").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode, S_IFREG | mode_t{0600});
    EXPECT_EQ(count(shell("cat /run/keel/igmpproxy.conf"), "phyint eth1.20:zep upstream"), 1U);
    EXPECT_EQ(shell("cat /run/precious"), "kept\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "igmpproxy.conf.new"));
}

TEST_F(RecoveryTest, ChangesToTheRulesAreHeardOfAgain) {
    set_up();
    FirewallCheck check(loop, *graph, SOURCE_DIR "/share/chains.sh", "/run", [](std::uint32_t) {});
    bool looked = false;
    check.count([&] { looked = true; });
    EXPECT_TRUE(soon([&] { return looked; }));
    const auto takes_note = [&](const char *chain) {
        EXPECT_EQ(shell("iptables -t nat -D POSTROUTING -j "s + chain), "");
        return soon([&] {
            const auto all = model.instances("Firewall.Missing");
            return std::any_of(all.begin(), all.end(), [&](const std::string &one) {
                return model.text("Firewall.Missing." + one, "Rule") == "-j "s + chain;
            });
        });
    };
    EXPECT_TRUE(takes_note("POSTROUTING_IPTV"));

    ASSERT_EQ(fail_event_sockets(), 1U);
    model.set("Weft.Intf.eth1.20", {{"Flags", "netdev up"s}}); /* which has the rules looked at */
    EXPECT_TRUE(soon([&] { return traced(Level::Info, "events are there again") == 1; }));
    EXPECT_EQ(traced(Level::Warning, "events are lost"), 1U);
    EXPECT_TRUE(takes_note("POSTROUTING_ZEP"));
}

/* As the plug-in does it, with a process each for what comes and what goes. */
TEST_F(RecoveryTest, TheFirewallScriptsRunInTheOrderOfTheirStart) {
    set_up();
    UvProcessRunner runner(loop);
    int ended = 0;
    const auto run = [&](const char *operation) {
        EXPECT_TRUE(
            runner.run({SOURCE_DIR "/share/zep_firewall.sh", "aux_rules", operation, "192.168.1.2"}, [&](int status) {
                EXPECT_EQ(status, 0);
                ++ended;
            }));
    };
    constexpr int pairs = 60;
    int lost = 0;
    for (int pair = 0; pair < pairs; ++pair) {
        ended = 0;
        run("D");
        run("A");
        ASSERT_TRUE(soon([&] { return ended == 2; }));
        lost += count(shell("iptables -S FORWARD_ZEP_Services"), "-s 192.168.1.2/32 -j ACCEPT") != 1;
    }
    EXPECT_EQ(lost, 0) << "of " << pairs;
    for (int pair = 0; pair < 10; ++pair) {
        ended = 0;
        run("A");
        run("D");
        ASSERT_TRUE(soon([&] { return ended == 2; }));
        EXPECT_EQ(shell("iptables -S FORWARD_ZEP_Services"), "-N FORWARD_ZEP_Services\n");
    }
}

TEST_F(RecoveryTest, TheFirewallScriptGoesOnWhereItCannotLock) {
    set_up();
    const std::string script = SOURCE_DIR "/share/zep_firewall.sh aux_rules A ";
    shell("ln -sf /run/elsewhere /run/zep_firewall.lock");
    EXPECT_EQ(shell(script + "192.168.1.2"),
              "zep_firewall.sh: /run/zep_firewall.lock is no file that can be locked; going on without a lock\n");
    EXPECT_FALSE(std::filesystem::exists("/run/elsewhere"));
    shell("mkdir /run/few; ln -s $(command -v grep) $(command -v sleep) /run/few; rm /run/zep_firewall.lock");
    EXPECT_EQ(shell("PATH=/run/few " + script + "192.168.1.3"),
              "zep_firewall.sh: there is no flock; going on without a lock\n");
    EXPECT_EQ(shell(script + "192.168.1.4"), "");
    EXPECT_EQ(count(shell("iptables -S FORWARD_ZEP_Services"), "-s 192.168.1."), 3U);
}

} // namespace keel
