/*
 * The plug-in on a host that does what the platform interface allows, and ours does not. What is defined here takes the
 * place of our host's own in this program.
 */
#include "platform/hull.h"
#include "tests/sim_gateway.h"

namespace keel {

namespace {

Loop *host_loop_of_test = nullptr;
bool answers = true; /* what hull_timer_defer says, whatever it does */
unsigned lost = 0;   /* how many deferred calls of a second are lost from now on */

/* The lists that are initialised. */
std::set<const llist_t *> &initialised() {
    static std::set<const llist_t *> all;
    return all;
}

unsigned looked_at_raw = 0; /* how often the plug-in's own lists were looked at before that */

bool is_the_plugins(const void *address) {
    Dl_info where;
    return dladdr(address, &where) && std::string(where.dli_fname) == PLUGIN_FILE;
}

} // namespace

class StrangeHost : public SimGateway {
protected:
    void SetUp() override {
        answers = true;
        lost = 0;
        initialised().clear();
        looked_at_raw = 0;
        build();
        host_loop_of_test = loop.get();
        load_plugin();
    }

    /* Has the set of routes installed anew. */
    void change_mask(const char *mask) {
        wan->mask = mask;
        wan->renew("dhcp_zep_" + device(1).id());
        loop->advance(100);
        EXPECT_TRUE(routes().empty()) << "the old ones leave at once";
        loop->advance(3 * second);
    }
};

} // namespace keel

extern "C" __attribute__((visibility("default"))) bool hull_timer_defer(void (*operation)(void *data), void *data,
                                                                        uint32_t milliseconds) {
    if (milliseconds == keel::second && keel::lost > 0)
        --keel::lost;
    else
        keel::host_loop_of_test->start_timer(milliseconds, [operation, data] { operation(data); });
    return keel::answers;
}

extern "C" __attribute__((visibility("default"))) bool llist_initialize(llist_t *list) {
    if (!list)
        return false;
    keel::initialised().insert(list);
    *list = {nullptr, nullptr, 0};
    return true;
}

extern "C" __attribute__((visibility("default"))) llist_iterator_t *llist_first(const llist_t *list) {
    if (list && !keel::initialised().contains(list) && keel::is_the_plugins(list))
        ++keel::looked_at_raw;
    return list ? list->head : nullptr;
}

namespace keel {

TEST_F(StrangeHost, EveryListOfThePluginIsInitialisedBeforeItIsUsed) {
    serve(1).leave();
    set("Keel.Zephyrin", {{"Mode", std::string("Simplified")}});
    loop->advance(second);
    EXPECT_GE(std::count_if(initialised().begin(), initialised().end(), is_the_plugins), 4);
    stop_plugin();
    EXPECT_EQ(looked_at_raw, 0U);
}

TEST_F(StrangeHost, RoutesAreInstalledWhateverItSaysOfADeferredCall) {
    answers = false;
    serve(1);
    EXPECT_EQ(routes().size(), 2U);
    change_mask("255.255.0.0");
    EXPECT_EQ(routes().size(), 2U);
}

TEST_F(StrangeHost, ADeferredCallThatItLosesCostsNoLaterInstallation) {
    lost = 1;
    serve(1);
    EXPECT_TRUE(routes().empty());
    for (const char *mask : {"255.255.0.0", "255.0.0.0"}) {
        change_mask(mask);
        EXPECT_EQ(routes().size(), 2U) << mask;
    }
    EXPECT_EQ(traced("IPv4Route.zep_0 added"), 2U) << "once for each";
}

} // namespace keel
