/*
 * What one change, one question and one look cost while everything around them grows: a row an operation, a column a
 * size. The last column is the largest size's cost over the smallest's. Times are the process's CPU time, medians.
 */
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/control/control.h"
#include "host/dhcp/lan_server.h"
#include "host/gateway/graph.h"
#include "host/gateway/interface_state.h"
#include "host/model/store.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_kernel.h"
#include "host/sim/sim_lan.h"
#include "host/sim/sim_loop.h"
#include "host/sim/sim_operator.h"
#include "platform/hull.h"
#include "platform/rig.h"
#include "platform/roster.h"
#include "platform/weft.h"

using namespace keel;

namespace {

constexpr int sizes[] = {10, 100, 1000, 10000};

double cpu_us(clockid_t clock = CLOCK_PROCESS_CPUTIME_ID) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

double median(std::vector<double> all) {
    std::sort(all.begin(), all.end());
    return all[all.size() / 2];
}

/* The median of what one round takes, of many; each round is timed over several repetitions. */
double cost_us(const std::function<void()> &operation) {
    constexpr int rounds = 31;
    constexpr int repetitions = 8;
    std::vector<double> all;
    operation(); /* what is done once is not counted */
    for (int round = 0; round < rounds; ++round) {
        const double start = cpu_us();
        for (int i = 0; i < repetitions; ++i)
            operation();
        all.push_back((cpu_us() - start) / repetitions);
    }
    return median(all);
}

class NoPrograms : public ProcessRunner {
public:
    bool run(const std::vector<std::string> &, OnExit) override { return false; }
};

std::string number(int i) {
    return std::to_string(i);
}

std::string mac_of(int i) {
    const std::uint8_t bytes[6] = {2, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
    return format_mac(bytes);
}

/* The gateway's model file, with so many more interfaces (stacks of a network device, a DHCP interface and a logical
 * one), hosts and leases in it. */
std::string grown_model(int interfaces, int hosts, int leases) {
    std::ifstream file(SOURCE_DIR "/share/gateway.json");
    std::string json((std::istreambuf_iterator<char>(file)), {});
    const auto insert = [&](const std::string &behind, const std::string &text) {
        const auto at = json.find(behind);
        if (at == std::string::npos)
            std::abort();
        json.insert(at + behind.size(), text);
    };
    std::string stacks;
    for (int i = 0; i < interfaces; i += 3) {
        stacks += "\"dev" + number(i) + "\": {\"values\": {\"Flags\": \"netdev up\"}}, ";
        stacks += "\"cli" + number(i) + "\": {\"values\": {\"Flags\": \"dhcp\", \"LowerLayers\": \"dev" + number(i) +
                  "\", \"Enable\": false}}, ";
        stacks += "\"top" + number(i) + "\": {\"values\": {\"Flags\": \"logical\", \"LowerLayers\": \"cli" + number(i) +
                  "\"}}, ";
    }
    insert("\"lo\": { \"values\": { \"Flags\": \"netdev\" } },", stacks);
    std::string members;
    for (int i = 0; i < leases; ++i) {
        const std::string id = "01" + number(1000000000 + i);
        members += (i ? ", \"" : "\"") + id + "\": {\"values\": {\"ClientID\": \"" + id + "\", \"IPAddress\": \"" +
                   format_ipv4(0x0a400000U + static_cast<std::uint32_t>(i)) + "\", \"MACAddress\": \"" + mac_of(i) +
                   "\", \"Expires\": 99999999999}}";
    }
    insert("\"values\": { \"MinAddress\": \"192.168.1.100\", \"MaxAddress\": \"192.168.1.199\" }",
           ", \"instances\": {\"Lease\": {" + members + "}}");
    std::string devices;
    for (int i = 0; i < hosts; ++i)
        devices += (i ? ", \"" : "\"") + mac_of(i) + "\": {\"values\": {\"MACAddress\": \"" + mac_of(i) + "\"}}";
    insert("\"Tags\": [\"text\", \"lan\"]\n            }\n          }", ", \"instances\": {" + devices + "}");
    return json;
}

/* Everything that follows the model, on the virtual clock; real SQLite. */
class Gateway {
public:
    Gateway(int interfaces, int hosts, int leases)
        : model_(loop_), loaded_((model_.load_text(grown_model(interfaces, hosts, leases), "grown"), true)),
          graph_(model_), store_(loop_, model_, ":memory:"), kernel_(graph_), interface_state_(loop_, graph_),
          operator_(loop_, graph_), lan_(loop_), lan_server_(loop_, model_, lan_) {
        lan_.plug_in(&lan_server_);
        host_attach(loop_, graph_, runner_);
        weft_client_initialize(rig_getHull(), nullptr);
        roster_initialize(rig_getHull(), rig_getSysbus());
        weft_openQuery_luckyIntf(
            "top0", "growth", "netdev && up", weft_traverse_down, [](const variant_t *, void *) {}, nullptr);
        roster_query_open("lan and .Active==true", "growth",
                          [](roster_query_t *, const char *, const variant_t *, int) {});
        loop_.run_until_idle();
    }
    Gateway(const Gateway &) = delete;
    Gateway &operator=(const Gateway &) = delete;
    ~Gateway() { host_detach(); }

    void settle() { loop_.run_until_idle(); }
    void set(const std::string &path, const char *name, const Value &value) {
        if (model_.set(path, {{name, value}}))
            std::abort();
        settle();
    }
    Model &model() { return model_; }
    /* DISCOVER to ACK, and RELEASE. */
    void serve_new_device() {
        SimDevice device(loop_, lan_, ++devices_, "");
        device.start();
        loop_.advance(probe_ms);
        if (device.address().empty())
            std::abort();
        device.leave();
        settle();
    }
    /* DISCOVER to ACK. */
    void serve_known_device() {
        if (known_.address().empty()) {
            known_.start();
            loop_.advance(probe_ms);
        }
        known_.start();
        settle();
        if (known_.address().empty())
            std::abort();
    }

private:
    static constexpr std::uint64_t probe_ms = 100; /* and more: a new address is asked for */

    SimLoop loop_;
    Model model_;
    bool loaded_;
    InterfaceGraph graph_;
    Store store_;
    SimKernel kernel_;
    InterfaceState interface_state_;
    SimOperator operator_;
    SimLan lan_;
    LanDhcpServer lan_server_;
    SimDevice known_{loop_, lan_, 0, ""};
    unsigned devices_ = 0;
    NoPrograms runner_;
};

struct Operation {
    const char *name;
    std::function<void(Gateway &)> run; /* once */
};

/* Alternates, so that each write is a change. */
bool turn() {
    static bool last = false;
    return last = !last;
}

const Operation of_interfaces[] = {
    {"a client's status changes",
     [](Gateway &g) { g.set("Weft.Intf.cli0", "DHCPStatus", std::string(turn() ? "Selecting" : "Idle")); }},
    {"a link goes down or up",
     [](Gateway &g) { g.set("Weft.Intf.dev0", "Flags", std::string(turn() ? "netdev" : "netdev up")); }},
    {"a link is made and taken",
     [](Gateway &g) {
         weft_linkIntfs("top3", "dev0");
         g.settle();
         weft_unlinkIntfs("top3", "dev0");
         g.settle();
     }},
    {"a query from open to close",
     [](Gateway &g) {
         weft_query_t *query = weft_openQuery_getIntfs(
             "top3", "growth", "netdev && up", weft_traverse_down, [](const variant_t *, void *) {}, nullptr);
         g.settle();
         weft_closeQuery(query);
     }},
    {"an interface comes and goes",
     [](Gateway &g) {
         g.model().add("Weft.Intf", "fresh", {{"Flags", std::string("netdev")}});
         g.settle();
         g.model().remove("Weft.Intf.fresh");
         g.settle();
     }},
    {"a leaf is read", [](Gateway &) { hull_client_get(rig_getSysbus(), "Weft.Intf.cli0", "DHCPStatus"); }},
};

const Operation of_hosts[] = {
    {"a host comes and goes", [](Gateway &g) { g.set("Hosts.Host." + mac_of(0), "Active", turn()); }},
    {"a leaf is read",
     [](Gateway &) { hull_client_get(rig_getSysbus(), ("Hosts.Host." + mac_of(1)).c_str(), "Active"); }},
};

const std::string lease_path = "DHCPv4.Server.Pool.lan.Rule.1.Lease.011000000000";

const Operation of_leases[] = {
    {"a new device is served and gone", [](Gateway &g) { g.serve_new_device(); }},
    {"a known device is served", [](Gateway &g) { g.serve_known_device(); }},
    {"a lease is held or released", [](Gateway &g) { g.set(lease_path, "OnHold", turn()); }},
    {"an object is fetched", [](Gateway &) { hull_client_get_object(rig_getSysbus(), lease_path.c_str()); }},
    {"a leaf is read", [](Gateway &) { hull_client_get(rig_getSysbus(), lease_path.c_str(), "IPAddress"); }},
};

void print_row(const char *what, const std::vector<double> &costs, const char *aim) {
    std::printf("  %-36s", what);
    for (const double cost : costs)
        std::printf(" %9.1f", cost);
    std::printf("   x %.2f  (%s)\n", costs.back() / costs.front(), aim);
    std::fflush(stdout);
}

template <std::size_t Count>
void print_table(const char *what, const Operation (&operations)[Count],
                 const std::function<std::unique_ptr<Gateway>(int)> &make) {
    std::printf("%s\n", what);
    std::vector<std::vector<double>> costs(Count);
    for (const int size : sizes) {
        const auto gateway = make(size);
        for (std::size_t i = 0; i < Count; ++i)
            costs[i].push_back(cost_us([&] { operations[i].run(*gateway); }));
    }
    for (std::size_t i = 0; i < Count; ++i)
        print_row(operations[i].name, costs[i], "2 or less");
}

/* Loading, per object. */
void print_loading() {
    std::printf("loading, us for each interface, host and lease\n");
    std::vector<double> costs;
    for (const int size : sizes) {
        const std::string json = grown_model(size, size, size);
        const double empty = cost_us([] {
            SimLoop loop;
            Model model(loop);
            model.load_text(grown_model(0, 0, 0), "none");
        });
        SimLoop loop;
        Model model(loop);
        const double start = cpu_us();
        model.load_text(json, "grown");
        costs.push_back((cpu_us() - start - (size > 100 ? empty : 0)) / size);
    }
    print_row("the model file", costs, "linear: 1 or less");
}

/* keelctl's page about a service, everything around which grows: CPU time of client and host together. */
void print_status() {
    const std::string folder = std::filesystem::temp_directory_path() / ("keel-growth-" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    const std::string socket = folder + "/keel.sock";
    std::vector<double> costs;
    for (const int size : sizes) {
        UvLoop loop;
        Model model(loop);
        model.load_text(grown_model(size, size, size), "grown");
        Control control(loop, model, socket, {[] { return std::string(); }, {}});
        std::vector<double> all;
        for (int round = 0; round < 31; ++round) {
            const double start = cpu_us();
            const pid_t pid = fork();
            if (pid == 0) {
                dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
                execl(KEELCTL, KEELCTL, "--socket", socket.c_str(), static_cast<char *>(nullptr));
                _exit(127);
            }
            siginfo_t ended{};
            while (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0)
                loop.settle(1);
            const double own = cpu_us() - start;
            clockid_t clock{};
            clock_getcpuclockid(pid, &clock);
            const double clients = cpu_us(clock);
            int status = 0;
            waitpid(pid, &status, 0);
            if (status != 0)
                std::abort(); /* the figures would be worth nothing */
            all.push_back(own + clients);
        }
        costs.push_back(median(all));
    }
    std::filesystem::remove_all(folder);
    std::printf("keelctl, us\n");
    print_row("the status of an unchanged service", costs, "2 or less");
}

} // namespace

int main() {
    TraceLog::instance().set_print(false);
    std::printf("%-38s", "CPU time, us, at");
    for (const int size : sizes)
        std::printf(" %9d", size);
    std::printf("\n");
    print_table("interfaces", of_interfaces, [](int size) { return std::make_unique<Gateway>(size, 0, 0); });
    print_table("hosts", of_hosts, [](int size) { return std::make_unique<Gateway>(0, size, 0); });
    print_table("leases", of_leases, [](int size) { return std::make_unique<Gateway>(0, 0, size); });
    print_loading();
    print_status();
}
