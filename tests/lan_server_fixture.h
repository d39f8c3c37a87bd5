/*
 * A LAN DHCP server on a virtual clock, with the model that it serves and an STB that asks it.
 */
#ifndef TESTS_LAN_SERVER_FIXTURE_H
#define TESTS_LAN_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include "host/base/trace.h"
#include "host/dhcp/lan_server.h"
#include "host/sim/sim_lan.h"
#include "host/sim/sim_loop.h"

namespace keel {

class LanServerTest : public testing::Test {
protected:
    LanServerTest() {
        TraceLog::instance().set_print(false);
        model.load_file(SOURCE_DIR "/share/gateway.json");
        begin();
    }

    void begin() {
        server = std::make_unique<LanDhcpServer>(loop, model, lan);
        lan.plug_in(server.get());
    }

    void end() {
        lan.plug_in(nullptr);
        server.reset();
    }

    void restart() {
        end();
        begin();
    }
    std::size_t lease_count() const { return model.instances("DHCPv4.Server.Pool.zep_stb.Rule.1.Lease").size(); }

    void hold(bool on) { set("DHCPv4.Server.Pool.zep_stb", {{"LeasesOnHold", on}}); }
    void set(const std::string &path, const Values &values) {
        const Outcome refusal = model.set(path, values);
        ASSERT_FALSE(refusal) << refusal->path << refusal->reason;
        loop.run_until_idle();
    }
    std::string lease(const SimDevice &device, const char *pool = "zep_stb") const {
        return std::string("DHCPv4.Server.Pool.") + pool + ".Rule.1.Lease." + device.id();
    }

    SimLoop loop;
    Model model{loop};
    SimLan lan{loop};
    std::unique_ptr<LanDhcpServer> server;
    static constexpr std::uint64_t probe_ms = 70; /* and a little */
    std::string waits_because(const SimDevice &device) const {
        return model.text("DHCPv4.Server.Waiting." + device.id(), "Because");
    }

    SimDevice stb{loop, lan, 1, "zep-stb-4k"};
};

} // namespace keel

#endif
