/*
 * An update of the layer-2 isolation with real ebtables, for so many interfaces, beside the same commands run from a
 * plain loop. To be run by script/benchmark, in a network namespace of its own in which share/chains.sh has made the
 * chains.
 */
#define SIM_GATEWAY_RUNS_COMMANDS
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "benchmarks/timing.h"
#include "platform/weft.h"
#include "tests/sim_gateway.h"

namespace {

class Gateway : public keel::SimGateway {
public:
    Gateway() { power_on(); }
    void TestBody() override {}

    using SimGateway::operation;
};

const std::string ebtables = "/usr/sbin/ebtables -t filter ";

double plain_loop(const std::vector<std::string> &names) {
    std::vector<std::string> commands{ebtables + "-F FORWARD_Isolation"};
    for (const std::string &from : names)
        for (const std::string &to : names)
            if (from != to)
                commands.push_back(ebtables + "-A FORWARD_Isolation  -j DROP -i " + from + " -o " + to);
    const auto start = timing::Clock::now();
    for (const std::string &command : commands)
        if (std::system(command.c_str()) != 0)
            std::abort(); /* the figures would be worth nothing */
    return timing::seconds_since(start);
}

void update(benchmark::State &state) {
    Gateway gateway;
    struct Row; /* the plug-in's own, of four equal sizes */
    auto *on_interfaces = gateway.operation<void(const variant_t *, void *)>("zep_l2fw_onIntfs");
    auto *rows = gateway.operation<char>("zep_l2fw");
    void *isolation = rows + std::size_t{3} * 8 * sizeof(void *);

    std::vector<std::string> names;
    variant_t list{};
    variant_initialize(&list, variant_type_list);
    for (int i = 0; i < state.range(0); ++i) {
        names.push_back("eth1." + std::to_string(100 + i));
        variant_list_addChar(variant_da_list(&list), names.back().c_str());
    }
    std::vector<double> updates;
    std::vector<double> loops;
    while (state.KeepRunning()) {
        const auto start = timing::Clock::now();
        on_interfaces(&list, isolation);
        updates.push_back(timing::seconds_since(start));
        state.SetIterationTime(updates.back());
        loops.push_back(plain_loop(names));
    }
    variant_cleanup(&list);
    state.counters["update_ms"] = timing::median(updates) * 1e3;
    state.counters["loop_ms"] = timing::median(loops) * 1e3;
    state.counters["ratio"] = timing::median(updates) / timing::median(loops);
}
/* About as long for each number of interfaces. */
BENCHMARK(update)->UseManualTime()->Arg(2)->Arg(4)->Iterations(101)->Unit(benchmark::kMillisecond);
BENCHMARK(update)->UseManualTime()->Arg(8)->Iterations(31)->Unit(benchmark::kMillisecond);
BENCHMARK(update)->UseManualTime()->Arg(16)->Iterations(11)->Unit(benchmark::kMillisecond);

} // namespace
