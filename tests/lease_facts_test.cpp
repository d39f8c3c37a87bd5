/*
 * What is known of a device by its MAC address, where it has one lease, or several.
 */
#include "host/gateway/lease_facts.h"

#include <gtest/gtest.h>

#include "host/sim/sim_loop.h"

namespace keel {

namespace {

/* A boot loader asks without a class, the system after it with one and an identifier of its own. */
TEST(LeaseFacts, TheLatestLeaseOfADeviceCountsAndTheOtherStays) {
    const std::string mac = "02:00:00:00:00:01";
    const std::string pools = "DHCPv4.Server.Pool.";
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    const auto lease = [&](const char *pool, const char *id, std::int64_t written) {
        model.add(pools + pool + ".Rule.1.Lease", id, {{"MACAddress", mac}, {"Written", written}});
    };
    lease("zep_stb", "00aa", 1700000060);
    lease("lan", "0102", 1700000000);
    for (const bool from_the_start : {true, false}) {
        LeaseFacts facts(model, [](const std::string &) {});
        if (!from_the_start) {
            model.remove(pools + "lan.Rule.1.Lease.0102");
            EXPECT_TRUE(facts.of(mac) && facts.of(mac)->stb) << "the end of the other takes nothing along";
            lease("lan", "0102", 1700000120);
            EXPECT_FALSE(facts.of(mac)->stb);
            model.remove(pools + "lan.Rule.1.Lease.0102");
            model.remove(pools + "zep_stb.Rule.1.Lease.00aa");
            EXPECT_FALSE(facts.of(mac));
        } else {
            ASSERT_TRUE(facts.of(mac));
            EXPECT_TRUE(facts.of(mac)->stb) << "not the last one in the model's order";
        }
    }
}

} // namespace

} // namespace keel
