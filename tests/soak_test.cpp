/* Many lives in a row; under valgrind, nothing of them may be left. ZEPHYRIN_LIVES says how many. */
#include "tests/sim_gateway.h"

namespace keel {

class Soak : public SimGateway {};

TEST_F(Soak, ManyLives) {
    const char *wanted = std::getenv("ZEPHYRIN_LIVES");
    const int lives = wanted ? std::atoi(wanted) : 40;
    power_on();
    wan->lease_s = 86400; /* the gateway's own client is not what is soaked */
    for (int life = 0; life < lives; ++life) {
        const unsigned number = 1 + static_cast<unsigned>(life % 4);
        SimDevice &stb = device(number);
        stb.start();
        loop->advance(3 * second);
        ASSERT_FALSE(stb.address().empty()) << life;
        if (life % 3 == 0) {
            wan->refuse_once("dhcp_zep_" + stb.id());
            wan->renew("dhcp_zep_" + stb.id());
        }
        if (life % 5 == 0)
            set(lease_path(stb), {{"IPAddress", "192.168.1." + std::to_string(30 + life % 9)}});
        if (life % 7 == 0)
            kernel->set_link("eth1.20", false);
        loop->advance(minute);
        kernel->set_link("eth1.20", true);
        set_present(stb, life % 2 == 0);
        loop->advance(hour);
        stb.leave();
        if (life % 11 == 0) {
            set("Keel.Zephyrin", {{"Enable", false}});
            set("Keel.Zephyrin", {{"Enable", true}});
        }
        loop->advance(75 * hour); /* an address moved by hand is not given back: its lease runs out first */
        ASSERT_TRUE(model->instances("Keel.Zephyrin.ClientLease").empty()) << life;
        TraceLog::instance().clear();
    }
    stop_plugin();
    expect_clean();
    EXPECT_EQ(traced("the plug-in left"), 0U) << "requests, timers or queries of the plug-in are left open";
}

} // namespace keel
