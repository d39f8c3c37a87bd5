/*
 * The plug-in's own time in an admission and in a binding: what its handlers take, with the host's synchronous calls
 * and without the commands, which do nothing here.
 */
#include <benchmark/benchmark.h>

#include "tests/sim_gateway.h"

namespace {

class Gateway : public keel::SimGateway {
public:
    Gateway() { power_on(); }
    void TestBody() override {}

    /* Time in the plug-in's handlers, s, while the loop runs until nothing is left. */
    double handle() {
        const std::uint64_t before = keel::plugin_handler_ns();
        loop->run_until_idle();
        keel::firewall.commands.clear();
        return static_cast<double>(keel::plugin_handler_ns() - before) * 1e-9;
    }
    void report_lease(const std::string &id) {
        model->add("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease", id,
                   {{"ClientID", id},
                    {"IPAddress", std::string("192.168.1.30")},
                    {"MACAddress", std::string("02:00:00:00:00:01")},
                    {"OnHold", true},
                    {"Expires", std::int64_t{1} << 40}});
    }
    void status(const std::string &name, const std::string &value) {
        model->set("Weft.Intf.dhcp_zep_" + name, {{"DHCPStatus", value}});
    }

    using SimGateway::device;
    using SimGateway::loop;
    using SimGateway::model;
    using SimGateway::serve;
    using SimGateway::wan;
};

/* A new device: identity, WAN client, record, watches. It is gone again before the next. */
void admission(benchmark::State &state) {
    Gateway gateway;
    for (unsigned number = 1; number <= 3; ++number)
        gateway.serve(number);
    gateway.wan->online = false;
    while (state.KeepRunning()) {
        gateway.report_lease("0102");
        state.SetIterationTime(gateway.handle());
        gateway.model->remove("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease.0102"); /* the fourth slot goes at once */
        gateway.loop->advance(10);
    }
}
BENCHMARK(admission)->UseManualTime()->Unit(benchmark::kMicrosecond);

/* The same lease reported again. */
void readmission(benchmark::State &state) {
    Gateway gateway;
    for (unsigned number = 1; number <= 4; ++number)
        gateway.serve(number);
    const std::string id = gateway.device(1).id();
    while (state.KeepRunning()) {
        gateway.model->remove("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease." + id);
        gateway.loop->run_until_idle();
        gateway.report_lease(id);
        state.SetIterationTime(gateway.handle());
    }
}
BENCHMARK(readmission)->UseManualTime()->Unit(benchmark::kMicrosecond);

/* A WAN client that binds anew with another address: mappings, address, servers, routes, record, offers. */
void binding(benchmark::State &state) {
    Gateway gateway;
    for (unsigned number = 1; number <= 4; ++number)
        gateway.serve(number);
    const std::string name = gateway.device(1).id();
    unsigned host = 0;
    while (state.KeepRunning()) {
        gateway.status(name, "Renewing");
        gateway.model->set("Weft.Intf.dhcp_zep_" + name,
                           {{"IPAddress", "10.20.0." + std::to_string(100 + host++ % 100)}});
        gateway.handle();
        gateway.status(name, "Bound");
        state.SetIterationTime(gateway.handle());
    }
}
BENCHMARK(binding)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
