/* The frame: what of the settings reaches a sub-module, and when. */
#include "frame/module_util.h"
#include "platform/weft.h"
#include "tests/sim_gateway.h"

namespace keel {

namespace {

std::vector<std::string> calls; /* what the sub-module under test was told */

void told_init(ServiceConfig *config) {
    calls.push_back("init " + std::to_string(static_cast<int>(config->mode)) + " " +
                    std::to_string(static_cast<int>(config->interface)) + " " +
                    (config->wanMode ? config->wanMode : "-"));
}

void told_cleanup() {
    calls.emplace_back("cleanup");
    request_t *request = keel_request_create_setObject("Keel.Zephyrin");
    add_text(request, "Status", "left behind");
    keel_request_push("probe", rig_getSysbus(), request, "The last write");
}

ModuleContext probe() {
    return {"probe", nullptr, {}, told_init, told_cleanup};
}

} // namespace

class Frame : public SimGateway {
protected:
    void SetUp() override {
        build();
        set("Keel.Zephyrin", {{"Enable", false}});
        load_plugin();
        calls.clear();
    }

    int start(ModuleContext *context) {
        const int started = operation<decltype(zep_module_start)>("zep_module_start")(context);
        loop->run_until_idle();
        return started;
    }

    void stop(ModuleContext *context) { operation<decltype(zep_module_stop)>("zep_module_stop")(context); }

    void notify(const char *path, std::uint32_t type, Values values) {
        model->notify(path, type, std::move(values));
        loop->run_until_idle();
    }
};

TEST_F(Frame, AStartTakesTheSettingsThatAreInForce) {
    ModuleContext context = probe();
    EXPECT_EQ(start(&context), 1);
    EXPECT_TRUE(calls.empty()) << "the service is not enabled";
    stop(&context);
    EXPECT_EQ(context.request, nullptr);

    const std::tuple<const char *, const char *, std::vector<std::string>> cases[] = {
        {"Bridged", "Internet", {"init 0 1 -"}},
        {"routed", "Dedicated", {"init 4 0 -"}},
        {"", "", {"init 4 2 -"}},
        {"Simplified", "dedicated", {"init 2 2 -"}},
        {"SimplifiedV2", "Dedicated", {}}};
    for (const auto &[mode, interface, told] : cases) {
        set("Keel.Zephyrin", {{"Enable", true}, {"Mode", std::string(mode)}});
        set("Keel", {{"IPTVMode", std::string(interface)}});
        calls.clear();
        context = probe();
        start(&context);
        EXPECT_EQ(calls, told) << mode;
        stop(&context);
    }
    EXPECT_EQ(context.config.mode, ServiceMode::SimplifiedV2) << "decoded, though nothing was started in it";
}

TEST_F(Frame, NotificationsOfTheSettingsCleanUpAndStartAnew) {
    ModuleContext context = probe();
    start(&context);
    EXPECT_EQ(start(&context), 1);
    const std::string service = "Keel.Zephyrin";
    notify(
        service.c_str(), 102,
        {{"Mode", std::string("SimplifiedV2")}, {"Interface", std::string("Internet")}, {"WanMode", std::string("A")}});
    notify(service.c_str(), 102, {{"Mode", std::string("Bridged")}, {"WanMode", std::string("B")}});
    notify(service.c_str(), 102, {});
    notify(service.c_str(), 103, {{"Mode", std::string("Bridged")}});
    notify("Keel.Zephyrin.DHCPConfig", 101, {});
    notify("Keel.Zephyrin.DHCPConfig", 102, {{"Mode", std::string("Bridged")}});
    notify(service.c_str(), 102, {{"WanMode", std::string("C")}});
    notify(service.c_str(), 101, {});
    EXPECT_EQ(calls, (std::vector<std::string>{"init 3 1 A", "init 0 2 B", "init 4 2 -", "init 4 2 C", "cleanup"}));

    calls.clear();
    stop(&context);
    EXPECT_EQ(calls, std::vector<std::string>{"cleanup"}) << "also when it was cleaned up already";
    EXPECT_EQ(context.config.wanMode, nullptr);
    EXPECT_EQ(model->text("Keel.Zephyrin", "Status"), "left behind") << "its writes are completed before the stop ends";
    stop(&context);
    notify(service.c_str(), 102, {});
    EXPECT_EQ(calls.size(), 2U);
    EXPECT_EQ(start(nullptr), 0);
    stop(nullptr);
}

TEST_F(Frame, EveryStartAndStopCountsForTheNetworkModel) {
    const auto query_opens = [] {
        weft_query_t *query = weft_openQuery_isUp(
            "iptv", "probe", nullptr, weft_traverse_down, [](const variant_t *, void *) {}, nullptr);
        weft_closeQuery(query);
        return query != nullptr;
    };
    while (query_opens())
        weft_client_cleanup(); /* the sub-modules' */
    ModuleContext context = probe();
    start(&context);
    start(&context);
    stop(&context);
    EXPECT_TRUE(query_opens());
    stop(&context);
    EXPECT_FALSE(query_opens());
    weft_client_initialize(rig_getHull(), nullptr);
}

} // namespace keel
