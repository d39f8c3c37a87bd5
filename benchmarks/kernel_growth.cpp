/*
 * What one change in the kernel costs the host (its own processor time) beside how much there is of everything: the
 * kernel side and the presence of LAN devices on a real kernel. Wants network namespaces of its own.
 */
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/timing.h"
#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/linux/kernel.h"
#include "host/linux/kernel_tables.h"
#include "host/linux/presence.h"
#include "host/model/model.h"

namespace {

using namespace keel;

constexpr int repetitions = 51;

void run(const std::string &command) {
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

/* Two numbers below 256 for one. */
std::string pair_of(int number, const char *format) {
    char text[16];
    std::snprintf(text, sizeof text, format, number / 256, number % 256);
    return text;
}

std::string mac_of(int number) {
    return "02:00:00:00:" + pair_of(number, "%02X:%02X");
}

template <typename Line> void batch(int count, Line line) {
    const std::string file = std::filesystem::temp_directory_path() / "kernel_growth.batch";
    std::ofstream lines(file);
    for (int number = 0; number < count; ++number)
        lines << line(number) << "\n";
    lines.close();
    run("ip -batch " + file);
    std::filesystem::remove(file);
}

double processor_us() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

/* The median time from the change to when nothing is left to do about it, for changes made by turns. */
double cost_us(UvLoop &loop, const KernelTables &tables, const std::string &there, const std::string &back) {
    std::vector<double> times;
    for (int turn = 0; turn < repetitions; ++turn) {
        const std::uint64_t before = tables.messages();
        run(turn % 2 ? back : there);
        const double start = processor_us();
        loop.settle(1000);
        times.push_back(processor_us() - start);
        if (tables.messages() == before || tables.full_reads() != 1)
            throw std::runtime_error("not told one by one: " + there);
    }
    return timing::median(times);
}

void measure(const char *what, int count) {
    if (unshare(CLONE_NEWNET) != 0)
        throw std::runtime_error("network namespaces are not permitted");
    const std::string name = what;
    run("ip link set lo up; ip link add br-lan type bridge; ip link set br-lan up;"
        "ip link add eth1.20 type veth peer name peer; ip link set eth1.20 up; ip link set peer up;"
        "ip addr add 10.20.0.1/16 dev peer; ip addr add 192.168.1.1/16 dev br-lan");
    UvLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    InterfaceGraph graph(model);
    if (name == "routes")
        batch(count, [](int number) { return "route add 10.88." + pair_of(number, "%d.%d") + "/32 dev peer"; });
    if (name == "neighbours")
        batch(count, [](int number) {
            return "neigh add 192.168." + pair_of(number, "%d.%d") + " lladdr " + mac_of(number) +
                   " nud permanent dev br-lan";
        });
    for (int number = 0; name == "hosts" && number < count; ++number)
        model.add("Hosts.Host", mac_of(number), {});
    if (name == "interfaces") {
        batch(count / 2, [](int number) {
            return "link add eth2." + std::to_string(2 * number) + " type veth peer name eth2." +
                   std::to_string(2 * number + 1);
        });
        for (int number = 0; number < count; ++number)
            model.add("Weft.Intf", "eth2." + std::to_string(number), {{"Flags", std::string("netdev")}});
    }
    const double before = processor_us();
    KernelTables tables(loop);
    const double all = processor_us() - before;
    const Kernel kernel(loop, graph, tables);
    const Presence presence(loop, graph, tables);
    loop.settle(60000);
    const std::string neighbour = "ip neigh replace 192.168.254.1 nud reachable dev br-lan lladdr 02:00:00:00:FF:";
    const double arp = cost_us(loop, tables, neighbour + "01", neighbour + "02");
    const double address =
        cost_us(loop, tables, "ip addr add 10.9.0.1/24 dev eth1.20", "ip addr del 10.9.0.1/24 dev eth1.20");
    const double route =
        cost_us(loop, tables, "ip route add 10.89.0.0/16 dev peer", "ip route del 10.89.0.0/16 dev peer");
    const double link = cost_us(loop, tables, "ip link set eth1.20 down", "ip link set eth1.20 up");
    std::printf("%-12s %7d %9.0f %9.0f %9.0f %9.0f %9.0f\n", what, count, arp, address, route, link, all);
    std::fflush(stdout);
}

} // namespace

int main() {
    TraceLog::instance().set_print(false);
    std::printf("one change, in us:        %9s %9s %9s %9s %9s\n", "neighbour", "address", "route", "link", "read all");
    try {
        for (const char *what : {"routes", "neighbours", "hosts", "interfaces"})
            for (const int count : {10, 100, 1000, 10000})
                measure(what, count);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "kernel_growth: %s\n", failure.what());
        return 1;
    }
    return 0;
}
