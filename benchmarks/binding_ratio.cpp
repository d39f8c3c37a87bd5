/*
 * A whole binding with real iptables, from "Bound" to the last offer, beside the same four commands run from a plain
 * loop; "with_host" counts what the host then does as well: writes to the store, the answer to the device. To be run by
 * script/benchmark, in a network namespace of its own in which share/chains.sh has made the chains.
 */
#define SIM_GATEWAY_RUNS_COMMANDS
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "benchmarks/timing.h"
#include "tests/sim_gateway.h"

namespace {

class Gateway : public keel::SimGateway {
public:
    Gateway() { power_on(); }
    void TestBody() override {}

    using SimGateway::device;
    using SimGateway::loop;
    using SimGateway::serve;
    using SimGateway::wan;
};

double four_commands(char operation, const std::string &lan, const std::string &wan) {
    const std::string op(1, operation);
    const std::string commands[] = {
        "/usr/sbin/iptables -t raw -" + op + " PREROUTING_zep_ACCEPT -d " + wan + "/255.255.255.255 -j ACCEPT",
        "/usr/sbin/iptables -t nat -" + op + " POSTROUTING_zep -s " + lan + " -j SNAT --to-source " + wan,
        "/usr/sbin/iptables -t filter -" + op + " FORWARD_zep -s " + lan + " -j ACCEPT",
        "/usr/sbin/iptables -t nat -" + op + " PREROUTING_zep -j DNAT --to-destination " + lan + " -d " + wan};
    const auto start = timing::Clock::now();
    for (const std::string &command : commands)
        if (std::system(command.c_str()) != 0)
            std::abort(); /* the figures would be worth nothing */
    return timing::seconds_since(start);
}

void binding(benchmark::State &state) {
    Gateway gateway;
    auto &stb = gateway.serve(1);
    const std::string client = "dhcp_zep_" + stb.id();
    std::vector<double> bindings;
    std::vector<double> with_host;
    std::vector<double> loops;
    while (state.KeepRunning()) {
        gateway.wan->refuse_once(client); /* unmapped by the NAK, so that a first binding follows */
        gateway.wan->renew(client);
        gateway.loop->advance(3000 + 15);
        const std::uint64_t before = keel::plugin_handler_ns();
        const auto start = timing::Clock::now();
        gateway.loop->advance(10); /* "Bound" comes within it */
        with_host.push_back(timing::seconds_since(start));
        bindings.push_back(static_cast<double>(keel::plugin_handler_ns() - before) * 1e-9);
        state.SetIterationTime(bindings.back());
        gateway.loop->advance(2000);
        loops.push_back(four_commands('A', "192.168.1.250", "10.20.0.250"));
        four_commands('D', "192.168.1.250", "10.20.0.250");
    }
    state.counters["binding_ms"] = timing::median(bindings) * 1e3;
    state.counters["loop_ms"] = timing::median(loops) * 1e3;
    state.counters["ratio"] = timing::median(bindings) / timing::median(loops);
    state.counters["ratio_with_host"] = timing::median(with_host) / timing::median(loops);
}
BENCHMARK(binding)->UseManualTime()->Iterations(100)->Unit(benchmark::kMillisecond);

} // namespace
