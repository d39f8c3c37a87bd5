#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "host/base/trace.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_loop.h"
#include "platform/roster.h"

using namespace keel;

namespace {

class NoPrograms : public ProcessRunner {
public:
    bool run(const std::vector<std::string> &, OnExit) override { return false; }
};

/* "action key address" per call, oldest first. */
std::vector<std::string> told;
std::function<void(roster_query_t *)> then;

void on_device(roster_query_t *query, const char *key, const variant_t *device, int action) {
    std::string addresses;
    const variant_map_t *map = variant_da_map(device);
    const variant_t *list = variant_map_iterator_data(variant_map_find(map, "IPv4Address"));
    for (auto *it = variant_list_first(variant_da_list(list)); it; it = variant_list_iterator_next(it))
        addresses += variant_da_char(
            variant_map_iterator_data(variant_map_find(variant_da_map(variant_list_iterator_data(it)), "Address")));
    told.push_back(std::to_string(action) + " " + key + " " + addresses);
    if (then)
        then(query);
}

class Roster : public testing::Test {
protected:
    void SetUp() override {
        TraceLog::instance().set_print(false);
        model.load_file(SOURCE_DIR "/share/gateway.json");
        host_attach(loop, graph, runner);
        ASSERT_TRUE(roster_initialize(rig_getHull(), rig_getSysbus()));
        ASSERT_TRUE(roster_initialize(rig_getHull(), rig_getSysbus()));
    }
    void TearDown() override {
        host_detach();
        told.clear();
        then = nullptr;
    }

    void add(const std::string &key, const std::string &tags, bool active, const std::string &address = "") {
        ASSERT_FALSE(model.add("Hosts.Host", key, {{"Tags", tags}, {"Active", active}, {"IPAddress", address}}));
    }
    void set(const std::string &key, const Values &values) { ASSERT_FALSE(model.set("Hosts.Host." + key, values)); }
    std::vector<std::string> news() {
        loop.run_until_idle();
        return std::exchange(told, {});
    }

    using News = std::vector<std::string>;
    SimLoop loop;
    Model model{loop};
    InterfaceGraph graph{model}; /* of no interfaces: the model is loaded later */
    NoPrograms runner;
};

} // namespace

TEST_F(Roster, DevicesMatchChangeAndUnmatch) {
    add("A", "lan stb", true, "192.168.1.20");
    add("B", "lan", true, "192.168.1.100");
    add("C", "lan stb", false);
    roster_query_t *query = roster_query_open("lan and stb and .Active==true", "test", on_device);
    ASSERT_TRUE(query);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(news(), News{"0 A 192.168.1.20"});

    set("C", {{"Active", true}, {"IPAddress", "192.168.1.21"}});
    set("A", {{"IPAddress", "192.168.1.22"}});
    set("B", {{"IPAddress", "192.168.1.101"}});
    EXPECT_EQ(news(), (News{"1 A 192.168.1.22", "0 C 192.168.1.21"}));

    set("A", {{"Active", false}});
    ASSERT_FALSE(model.remove("Hosts.Host.C")); /* told with the data that it had */
    EXPECT_EQ(news(), (News{"2 A 192.168.1.22", "2 C 192.168.1.21"}));

    set("A", {{"Active", true}}); /* there and back within a turn */
    set("A", {{"Active", false}});
    set("B", {{"Tags", "lan stb"}});
    EXPECT_EQ(news(), News{"0 B 192.168.1.101"});
    roster_query_close(query);
    set("B", {{"Tags", ""}});
    EXPECT_EQ(news(), News{});
}

TEST_F(Roster, HandlersMayCloseTheirQuery) {
    for (const char *key : {"A", "B", "C"})
        add(key, "lan", true);
    then = [](roster_query_t *query) { roster_query_close(query); };
    ASSERT_TRUE(roster_query_open("lan", "one", on_device));
    ASSERT_TRUE(roster_query_open(".Active == 'true' and not guest", "two", on_device));
    EXPECT_EQ(news(), (News{"0 A ", "0 A "})); /* one each */
    set("A", {{"Active", false}});
    EXPECT_EQ(news(), News{});

    then = nullptr;
    roster_query_t *query = roster_query_open("lan", "three", on_device);
    EXPECT_EQ(news().size(), 3U);
    then = [](roster_query_t *own) { roster_query_close(own); };
    for (const char *key : {"A", "B", "C"})
        ASSERT_FALSE(model.remove(std::string("Hosts.Host.") + key));
    EXPECT_EQ(news(), News{"2 A "});
    roster_query_close(nullptr);
    roster_query_close(query); /* a second time, as a late clean-up would */
}

TEST_F(Roster, MalformedExpressionsAreRefusedAndUnknownNamesNeverHold) {
    add("A", "lan", true);
    TraceLog::instance().clear();
    EXPECT_FALSE(roster_query_open("lan and", "t", on_device));
    EXPECT_FALSE(roster_query_open("lan && stb", "t", on_device));
    EXPECT_FALSE(roster_query_open("lan", "t", nullptr));
    EXPECT_EQ(TraceLog::instance().recent().size(), 3U);
    ASSERT_TRUE(roster_query_open("stb or .Unknown==true or .Active==maybe or .Active==false", "t", on_device));
    EXPECT_EQ(news(), News{});
    host_detach(); /* the open query is dropped and counted */
    EXPECT_NE(TraceLog::instance().recent().back().text.find("left 1 device queries open"), std::string::npos);
}
