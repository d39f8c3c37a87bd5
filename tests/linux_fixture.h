/*
 * What the tests on a real kernel share. The program enters network namespaces of its own first; where that is not
 * permitted it fails.
 */
#ifndef TESTS_LINUX_FIXTURE_H
#define TESTS_LINUX_FIXTURE_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/gateway/graph.h"
#include "host/linux/chains.h"
#include "host/model/model.h"

namespace keel {

inline std::string shell(const std::string &command) {
    std::string printed;
    std::array<char, 4096> buffer{};
    FILE *pipe = popen(("exec 2>&1; " + command).c_str(), "r");
    while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe))
        printed.append(buffer.data(), size);
    pclose(pipe);
    return printed;
}

inline std::size_t count(const std::string &text, const std::string &part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

/* Each test has a network namespace with a cable "eth1.20" - "peer". Mounts and /run are the program's own. */
class LinuxTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (getuid() != 0) {
            const uid_t user = getuid();
            const gid_t group = getgid();
            ASSERT_EQ(unshare(CLONE_NEWUSER | CLONE_NEWNS), 0) << "user namespaces are not permitted";
            std::ofstream("/proc/self/setgroups") << "deny";
            std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
            std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
        } else {
            ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "mount namespaces are not permitted";
        }
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, "mode=755"), 0);
    }
    LinuxTest() {
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
        EXPECT_EQ(unshare(CLONE_NEWNET), 0) << "network namespaces are not permitted";
        EXPECT_EQ(shell("ip link set lo up; ip link add eth1.20 type veth peer name peer;"
                        "ip link set eth1.20 up; ip link set peer up"),
                  "");
        model.load_file(SOURCE_DIR "/share/gateway.json");
        graph.emplace(model);
    }

    /* Runs the loop until something holds, for a few seconds. */
    bool soon(const std::function<bool()> &holds) {
        for (int turn = 0; turn < 600 && !holds(); ++turn) {
            loop.settle(20);
            usleep(10000);
        }
        return holds();
    }
    /* Has those sockets fail on which the kernel tells of changes, and tells how many there are. A descriptor that
     * fails cannot be had of the kernel; another file in its place fails as well. */
    static std::size_t fail_event_sockets() {
        const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
        std::size_t replaced = 0;
        for (int number = 3; number < 256; ++number) {
            std::array<std::uint32_t, 16> groups{};
            socklen_t size = sizeof groups;
            if (getsockopt(number, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, groups.data(), &size) == 0 && groups[0] != 0)
                replaced += dup2(other, number) == number;
        }
        close(other);
        return replaced;
    }
    bool up() const { return graph->has_flag("eth1.20", "up"); }
    std::string status(const std::string &path) const { return model.text("Weft.Intf.eth1.20." + path, "Status"); }
    void add_address(const char *key, const char *address, std::int64_t prefix) {
        EXPECT_FALSE(
            model.add("Weft.Intf.eth1.20.IPv4Addr", key, {{"Address", std::string(address)}, {"PrefixLen", prefix}}));
    }
    void add_route(const char *key, const char *destination, std::int64_t prefix, const char *gateway) {
        EXPECT_FALSE(
            model.add("Weft.Intf.eth1.20.IPv4Route", key,
                      {{"Dst", std::string(destination)}, {"DstLen", prefix}, {"Gateway", std::string(gateway)}}));
    }
    static void set_up() {
        std::string error;
        ASSERT_TRUE(set_up_chains(SOURCE_DIR "/share/chains.sh", &error)) << error;
    }
    /* All of iptables and ebtables. */
    static std::string rules() {
        return shell("for t in raw nat filter; do iptables -t $t -S; done;"
                     "for t in nat filter; do ebtables -t $t -L; done");
    }
    static std::string addresses() { return shell("ip -4 -o addr show dev eth1.20"); }
    static std::string routes() { return shell("ip route show proto 99"); }

    UvLoop loop;
    Model model{loop};
    std::optional<InterfaceGraph> graph; /* of the loaded model */
};

} // namespace keel

#endif
