#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <set>

#include "host/base/trace.h"
#include "host/gateway/graph.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_loop.h"
#include "platform/keel.h"
#include "platform/weft.h"

using namespace keel;

namespace {

using Names = std::vector<std::string>;

class NoPrograms : public ProcessRunner {
public:
    bool run(const std::vector<std::string> &, OnExit) override { return false; }
};

/* What a query was told, each result as one text. */
struct Told {
    Names results;
    std::function<void()> then; /* called inside the handler */
    int running = 0;

    static void handler(const variant_t *result, void *data) {
        auto *told = static_cast<Told *>(data);
        EXPECT_EQ(told->running++, 0) << "handler re-entered";
        std::string text;
        if (variant_type(result) == variant_type_list) {
            for (auto *it = variant_list_first(variant_da_list(result)); it; it = variant_list_iterator_next(it))
                text += (text.empty() ? "" : " ") + std::string(variant_da_char(variant_list_iterator_data(it)));
        } else {
            char *copy = variant_char(result);
            text = copy;
            std::free(copy);
        }
        told->results.push_back(text);
        if (const auto action = told->then)
            action();
        --told->running;
    }
};

/*
 *   top ── a ── c ── e        "top" over "a" before "b", "b" over "d" before "c"; all are made in another order
 *    └──── b ── d
 *          └─── c
 */
class Weft : public testing::Test {
protected:
    void SetUp() override {
        TraceLog::instance().set_print(false);
        model.load_file(SOURCE_DIR "/share/gateway.json");
        graph.emplace(model);
        host_attach(loop, *graph, runner);
        ASSERT_TRUE(weft_client_initialize(rig_getHull(), nullptr));
        add("e", "netdev");
        add("d", "netdev up", "");
        add("c", "vlan", "e");
        add("b", "", "d c");
        add("a", "", "c");
        add("top", "", "a b");
        loop.run_until_idle();
        TraceLog::instance().clear();
    }

    void TearDown() override {
        weft_client_cleanup();
        host_detach();
        TraceLog::instance().clear();
    }

    void add(const std::string &name, const std::string &flags, const std::string &lower = "") {
        ASSERT_FALSE(model.add("Weft.Intf", name, {{"Flags", flags}, {"LowerLayers", lower}}));
    }
    void set_flags(const std::string &name, const std::string &flags) {
        ASSERT_FALSE(model.set("Weft.Intf." + name, {{"Flags", flags}}));
    }
    std::string flags(const std::string &name) { return model.text("Weft.Intf." + name, "Flags"); }
    std::string lower(const std::string &name) { return model.text("Weft.Intf." + name, "LowerLayers"); }
    static std::string lucky(const char *intf, const char *flags, weft_traverse_t traversal) {
        char *name = weft_luckyIntf(intf, flags, traversal);
        std::string text = name ? name : "(null)";
        std::free(name);
        return text;
    }
    /* The number of traces at that level since the last call that hold the text. */
    static int traced(Level level, const std::string &text) {
        int count = 0;
        for (const TraceLine &line : TraceLog::instance().recent())
            count += line.level == level && line.zone == "weft" && line.text.find(text) != std::string::npos;
        TraceLog::instance().clear();
        return count;
    }
    void set_option(const std::string &intf, const std::string &option, const std::string &value) {
        const std::string parent = "Weft.Intf." + intf + ".ReqOption";
        model.remove(parent + "." + option);
        ASSERT_FALSE(model.add(parent, option, {{"Value", value}}));
    }

    SimLoop loop;
    Model model{loop};
    std::optional<InterfaceGraph> graph; /* of the loaded model */
    NoPrograms runner;
};

} // namespace

TEST_F(Weft, TraversalsReachBreadthFirstInTheOrderOfTheLinks) {
    const auto reached = [&](const char *start, const char *traversal) {
        return graph->reach(start, *parse_traversal(traversal));
    };
    EXPECT_EQ(reached("top", "down"), (Names{"top", "a", "b", "c", "d", "e"}));
    EXPECT_EQ(reached("b", "down exclusive"), (Names{"d", "c", "e"}));
    EXPECT_EQ(reached("b", "one level down"), (Names{"d", "c"}));
    EXPECT_EQ(reached("top", "this"), (Names{"top"}));
    EXPECT_EQ(reached("e", "up"), (Names{"e", "c", "b", "a", "top"}));
    EXPECT_EQ(reached("c", "one level up"), (Names{"b", "a"}));
    const Names all = reached("c", "all");
    EXPECT_EQ(all.front(), "c");
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), model.instances("Weft.Intf").size());
    EXPECT_EQ(all.size(), model.instances("Weft.Intf").size());
    EXPECT_EQ(reached("missing", "all"), Names{});
    EXPECT_EQ(graph->netdev_below("top"), "d");
    EXPECT_EQ(graph->netdev_below("lo"), "lo");

    /* A loop that a model file brings along, and links to what does not exist, end nothing but themselves. */
    ASSERT_FALSE(model.set("Weft.Intf.e", {{"LowerLayers", "gone top"}}));
    EXPECT_EQ(reached("c", "down"), (Names{"c", "e", "top", "a", "b", "d"}));
}

TEST_F(Weft, SynchronousSearchesHonourConditionsAndWhatWasPushedBefore) {
    EXPECT_EQ(lucky("top", "netdev", weft_traverse_down), "d");
    EXPECT_EQ(lucky("top", "netdev && !up", weft_traverse_down), "e");
    EXPECT_EQ(lucky("top", nullptr, weft_traverse_down_exclusive), "a");
    EXPECT_EQ(lucky("top", "atm", weft_traverse_down), "(null)");
    EXPECT_EQ(lucky(nullptr, nullptr, weft_traverse_this), "(null)");
    EXPECT_TRUE(weft_hasFlag("top", "netdev up", "", weft_traverse_down));
    EXPECT_FALSE(weft_hasFlag("top", "netdev vlan", "", weft_traverse_down)); /* on two, not on one */
    EXPECT_FALSE(weft_hasFlag("top", "up", "vlan", weft_traverse_down));

    EXPECT_EQ(lucky("top", "netdev &&", weft_traverse_down), "(null)");
    EXPECT_FALSE(weft_hasFlag("top", "netdev", "(", weft_traverse_down));
    EXPECT_EQ(traced(Level::Error, "malformed flag expression"), 2);
    EXPECT_EQ(lucky("top", "", "sideways"), "(null)");
    EXPECT_EQ(traced(Level::Error, "unknown traversal \"sideways\""), 1);

    ASSERT_TRUE(keel_request_push("test", rig_getSysbus(), keel_request_create_addInstance("Weft.Intf.late"), "add"));
    EXPECT_EQ(lucky("late", "", weft_traverse_this), "late");
    ASSERT_TRUE(keel_request_push("test", rig_getSysbus(), keel_request_create_addInstance("Weft.Intf.later"), "add"));
    weft_linkIntfs("later", "top");
    EXPECT_EQ(lower("later"), "top");
    EXPECT_EQ(traced(Level::Warning, ""), 0);
}

TEST_F(Weft, FlagsAreSetAndClearedWhereTheConditionHolds) {
    weft_setFlag("top", "x y", "netdev", weft_traverse_down);
    EXPECT_EQ(flags("d"), "netdev up x y");
    EXPECT_EQ(flags("e"), "netdev x y");
    EXPECT_EQ(flags("c"), "vlan");
    weft_setFlag("d", "up x", "", weft_traverse_this);
    EXPECT_EQ(flags("d"), "netdev up x y");
    weft_clearFlag("top", "x netdev", "up", weft_traverse_all);
    EXPECT_EQ(flags("d"), "up y");
    EXPECT_EQ(flags("e"), "netdev x y");

    weft_setFlag("top", "z", "!", weft_traverse_all); /* a malformed condition is not "everywhere" */
    EXPECT_FALSE(weft_hasFlag("top", "z", "", weft_traverse_all));
    traced(Level::Warning, "");
    weft_setFlag("missing", "x", "", weft_traverse_this);
    weft_clearFlag(nullptr, "x", "", weft_traverse_this);
    EXPECT_EQ(traced(Level::Warning, "no interface"), 2);
}

TEST_F(Weft, ParametersAreWrittenAlsoBelowTheInterface) {
    variant_t off{};
    variant_setBool(&off, false);
    const auto enabled = [&](const std::string &path) { return model.boolean("Weft.Intf." + path, "Enable"); };
    ASSERT_FALSE(model.add("Weft.Intf.e.IPv4Addr", "iptv", {}));

    weft_setFirstParameter("top", "Enable", &off, "netdev", weft_traverse_down);
    EXPECT_FALSE(enabled("d"));
    EXPECT_TRUE(enabled("e"));
    weft_setParameters("top", "IPv4Addr.iptv.Enable", &off, "", weft_traverse_down);
    EXPECT_FALSE(enabled("e.IPv4Addr.iptv"));
    EXPECT_TRUE(enabled("e"));
    EXPECT_EQ(traced(Level::Info, "has no \"IPv4Addr.iptv.Enable\""), 5);

    weft_setFirstParameter("top", "Flags", &off, "", weft_traverse_this); /* a text */
    weft_setFirstParameter("top", "Nothing", &off, "", weft_traverse_this);
    weft_setFirstParameter("top", "Enable", nullptr, "", weft_traverse_this);
    EXPECT_EQ(traced(Level::Warning, "write refused: Weft.Intf.top: "), 3);
    weft_setParameters("missing", "Enable", &off, "", weft_traverse_down);
    EXPECT_EQ(traced(Level::Warning, "no interface \"missing\""), 1);
    variant_cleanup(&off);
}

TEST_F(Weft, LinksAreUniqueLoopFreeAndGoWithTheInterface) {
    weft_linkIntfs("top", "d");
    weft_linkIntfs("top", "d");
    EXPECT_EQ(lower("top"), "a b d");
    weft_unlinkIntfs("top", "a");
    weft_linkIntfs("top", "a"); /* made again: the last of them */
    EXPECT_EQ(lower("top"), "b d a");
    EXPECT_EQ(traced(Level::Warning, ""), 0);

    weft_linkIntfs("e", "top");
    weft_linkIntfs("c", "c");
    EXPECT_EQ(lower("e") + lower("c"), "e");
    EXPECT_EQ(traced(Level::Warning, "close a loop"), 2);
    weft_linkIntfs("missing", "top");
    weft_linkIntfs("top", "missing");
    weft_linkIntfs("top", nullptr);
    weft_unlinkIntfs(nullptr, "top");
    EXPECT_EQ(lower("top"), "b d a");
    EXPECT_EQ(traced(Level::Warning, "no interface"), 4);

    ASSERT_FALSE(model.remove("Weft.Intf.d"));
    ASSERT_FALSE(model.remove("Weft.Intf.a"));
    add("a", "");
    loop.run_until_idle();
    EXPECT_EQ(lower("top"), "b a"); /* back before anyone looked: still linked */
    EXPECT_EQ(lower("b"), "c");
}

TEST_F(Weft, QueriesTellOnLaterTurnsAndOnlyWhatChanged) {
    Told all;
    Told first;
    Told up;
    Told address;
    Told nothing;
    weft_query_t *open[] = {
        weft_openQuery_getIntfs("top", "t", "netdev", weft_traverse_down, Told::handler, &all),
        weft_openQuery_luckyIntf("top", "t", "netdev && up", weft_traverse_down, Told::handler, &first),
        weft_openQuery_isUp("top", "t", "netdev", weft_traverse_down, Told::handler, &up),
        weft_openQuery_luckyAddrAddress("top", "t", "ipv4", weft_traverse_down, Told::handler, &address),
        weft_openQuery_luckyIntf("missing", "t", "", weft_traverse_down, Told::handler, &nothing)};
    EXPECT_TRUE(all.results.empty() && first.results.empty() && up.results.empty());
    loop.run_until_idle();
    EXPECT_EQ(all.results, Names{"d e"});
    EXPECT_EQ(first.results, Names{"d"});
    EXPECT_EQ(up.results, Names{"true"});
    EXPECT_EQ(address.results, Names{""});
    EXPECT_EQ(nothing.results, Names{""});

    set_flags("d", "netdev"); /* several writes of one turn are one change; what comes back to the same is none */
    set_flags("d", "netdev up");
    loop.run_until_idle();
    set_flags("d", "netdev");
    set_flags("e", "netdev up");
    ASSERT_FALSE(model.add("Weft.Intf.c.IPv4Addr", "off", {{"Enable", false}, {"Address", "10.0.0.1"}}));
    ASSERT_FALSE(model.add("Weft.Intf.e.IPv4Addr", "on", {{"Address", "10.0.0.2"}}));
    EXPECT_EQ(first.results.size(), 1U);
    loop.run_until_idle();
    EXPECT_EQ(first.results, (Names{"d", "e"}));
    EXPECT_EQ(up.results, Names{"true"});
    EXPECT_EQ(all.results, Names{"d e"});
    EXPECT_EQ(address.results, (Names{"", "10.0.0.2"}));

    ASSERT_FALSE(model.remove("Weft.Intf.e"));
    add("missing", "");
    loop.run_until_idle();
    EXPECT_EQ(first.results, (Names{"d", "e", ""}));
    EXPECT_EQ(up.results, (Names{"true", "false"}));
    EXPECT_EQ(all.results, (Names{"d e", "d"}));
    EXPECT_EQ(address.results, (Names{"", "10.0.0.2", ""}));
    EXPECT_EQ(nothing.results, (Names{"", "missing"}));
    for (weft_query_t *query : open)
        weft_closeQuery(query);
}

TEST_F(Weft, HandlersMayWriteOpenAndCloseQueries) {
    Told self;
    Told other;
    Told opened;
    weft_query_t *own = nullptr;
    weft_query_t *late = nullptr;
    own = weft_openQuery_luckyIntf("top", "self", "x", weft_traverse_down, Told::handler, &self);
    weft_query_t *next = weft_openQuery_luckyIntf("top", "other", "x", weft_traverse_down, Told::handler, &other);
    self.then = [&] {
        if (self.results.size() == 1) {
            set_flags("c", "x"); /* changes the query's own result */
            late = weft_openQuery_luckyIntf("top", "late", "x", weft_traverse_down, Told::handler, &opened);
            EXPECT_TRUE(opened.results.empty());
        } else {
            weft_closeQuery(own);
            weft_closeQuery(next);
        }
    };
    loop.run_until_idle();
    EXPECT_EQ(self.results, (Names{"", "c"}));
    EXPECT_EQ(other.results, Names{"c"}); /* evaluated after the first handler had written */
    EXPECT_EQ(opened.results, Names{"c"});
    set_flags("c", "");
    loop.run_until_idle();
    EXPECT_EQ(self.results.size() + other.results.size(), 3U);
    EXPECT_EQ(opened.results, (Names{"c", ""}));
    weft_closeQuery(late);
    weft_closeQuery(nullptr);

    Told closed; /* with its first result on the way: at once, or by the handler before it */
    weft_closeQuery(weft_openQuery_luckyIntf("top", "t", "", weft_traverse_this, Told::handler, &closed));
    Told closing;
    weft_query_t *before = weft_openQuery_isUp("top", "t", "", weft_traverse_this, Told::handler, &closing);
    next = weft_openQuery_isUp("top", "t", "", weft_traverse_this, Told::handler, &closed);
    closing.then = [&] { weft_closeQuery(next); };
    loop.run_until_idle();
    EXPECT_EQ(closing.results.size(), 1U);
    EXPECT_TRUE(closed.results.empty());
    weft_closeQuery(before);
}

TEST_F(Weft, QueriesThatCannotBeOpened) {
    Told told;
    EXPECT_FALSE(weft_openQuery_luckyIntf(nullptr, "t", "", weft_traverse_this, Told::handler, &told));
    EXPECT_FALSE(weft_openQuery_luckyIntf("top", "t", "", weft_traverse_this, nullptr, &told));
    EXPECT_FALSE(weft_openQuery_getIntfs("top", "t", "", nullptr, Told::handler, &told));
    EXPECT_FALSE(weft_openQuery_getIntfs("top", "t", "a ||", weft_traverse_this, Told::handler, &told));
    EXPECT_FALSE(weft_openQuery_luckyAddrAddress("top", "t", "ipv6", weft_traverse_this, Told::handler, &told));
    EXPECT_EQ(traced(Level::Error, ""), 5);

    ASSERT_TRUE(weft_client_initialize(rig_getHull(), nullptr));
    ASSERT_TRUE(weft_openQuery_isUp("top", "t", "", weft_traverse_this, Told::handler, &told));
    weft_client_cleanup(); /* the first client is still there */
    loop.run_until_idle();
    EXPECT_EQ(told.results, Names{"false"});
    weft_client_cleanup();
    EXPECT_EQ(traced(Level::Warning, "left 1 queries open"), 1);
    set_flags("top", "up");
    loop.run_until_idle();
    EXPECT_EQ(told.results.size(), 1U);
    EXPECT_FALSE(weft_openQuery_isUp("top", "t", "", weft_traverse_this, Told::handler, &told));
}

TEST_F(Weft, DetachDropsQueriesAndAnotherHostStartsAfresh) {
    Told told;
    ASSERT_TRUE(weft_openQuery_isUp("top", "t", "", weft_traverse_this, Told::handler, &told));
    host_detach(); /* with the first result on the way */
    SimLoop other_loop;
    Model other(other_loop);
    other.load_file(SOURCE_DIR "/share/gateway.json");
    InterfaceGraph other_graph(other);
    host_attach(other_loop, other_graph, runner);
    loop.run_until_idle();
    EXPECT_TRUE(told.results.empty());
    ASSERT_TRUE(weft_client_initialize(rig_getHull(), nullptr));
    weft_query_t *query = weft_openQuery_luckyIntf("iptv", "t", "netdev", weft_traverse_down, Told::handler, &told);
    other_loop.run_until_idle();
    EXPECT_EQ(told.results, Names{"eth1.20"});
    weft_closeQuery(query);
    weft_client_cleanup();
    host_detach();
}

TEST_F(Weft, MibsAreCopiedUnderAnotherName) {
    variant_map_t *map = weft_getMIBs("dhcp_iptv", "dhcp none", "", weft_traverse_this);
    ASSERT_TRUE(map);
    EXPECT_EQ(llist_size(map), 1U);
    const variant_map_t *inner = variant_da_map(variant_map_iterator_data(variant_map_find(map, "dhcp")));
    ASSERT_TRUE(variant_map_iterator_setKey(variant_map_find(inner, "dhcp_iptv"), "a"));
    weft_setMIBs("a", map);
    weft_setMIBs("b", map); /* nothing in it is b's */
    EXPECT_EQ(model.text("Weft.Intf.a.MIB.dhcp", "VendorClass"), "keel-iptv");
    EXPECT_EQ(model.text("Weft.Intf.a.MIB.dhcp", "RequestedOptions"), "1 3 42 51 54 72 121");
    EXPECT_FALSE(model.find("Weft.Intf.b.MIB.dhcp"));
    ASSERT_FALSE(model.set("Weft.Intf.a.MIB.dhcp", {{"VendorClass", "other"}}));
    weft_setMIBs("a", map); /* written over what is there */
    EXPECT_EQ(model.text("Weft.Intf.a.MIB.dhcp", "VendorClass"), "keel-iptv");
    EXPECT_EQ(traced(Level::Warning, ""), 0);
    weft_setMIBs("missing", map);
    EXPECT_EQ(traced(Level::Warning, "no interface"), 1);
    variant_map_cleanup(map);
    std::free(map);

    map = weft_getMIBs("b", "dhcp", "", weft_traverse_this);
    ASSERT_TRUE(map);
    EXPECT_EQ(llist_size(map), 0U);
    variant_map_cleanup(map);
    std::free(map);
    EXPECT_FALSE(weft_getMIBs("missing", "dhcp", "", weft_traverse_this));
}

TEST_F(Weft, ClasslessStaticRoutesAreParsedOrRefused) {
    const auto routes = [&](const std::string &hex) {
        set_option("a", "121", hex);
        variant_t *value = weft_getDHCPOption("a", "req", 121, weft_traverse_this);
        if (!value)
            return std::string("(null)");
        std::string text;
        for (auto *it = variant_list_first(variant_da_list(value)); it; it = variant_list_iterator_next(it)) {
            const variant_map_t *route = variant_da_map(variant_list_iterator_data(it));
            const auto at = [&](const char *key) { return variant_map_iterator_data(variant_map_find(route, key)); };
            EXPECT_EQ(variant_type(at("PrefixLength")), static_cast<uint32_t>(variant_type_uint8));
            text += std::string(variant_da_char(at("Destination"))) + "/" +
                    std::to_string(variant_uint8(at("PrefixLength"))) + ">" + variant_da_char(at("Router")) + " ";
        }
        variant_cleanup(value);
        std::free(value);
        return text;
    };
    EXPECT_EQ(routes("180a64020a000001000A0000FE"), "10.100.2.0/24>10.0.0.1 0.0.0.0/0>10.0.0.254 ");
    EXPECT_EQ(routes("20c0a801070a000001"), "192.168.1.7/32>10.0.0.1 ");
    EXPECT_EQ(routes("0cac1f0a000001"), "172.16.0.0/12>10.0.0.1 "); /* bits of the host are cut */
    EXPECT_EQ(routes("1981d2b1840a000001"), "129.210.177.128/25>10.0.0.1 ");
    for (const char *malformed : {"18", "180a6402", "180a64020a0000", "21c0a80107000a000001", "180a64020a00000", "zz"})
        EXPECT_EQ(routes(malformed), "(null)") << malformed;
    EXPECT_EQ(traced(Level::Warning, "option 121"), 6);
    EXPECT_EQ(routes(""), "(null)"); /* not received */

    set_option("d", "42", "0a000001");
    variant_t *text = weft_getDHCPOption("top", "req", 42, weft_traverse_down);
    ASSERT_TRUE(text);
    EXPECT_STREQ(variant_da_char(text), "0a000001");
    variant_cleanup(text);
    std::free(text);
    EXPECT_FALSE(weft_getDHCPOption("top", "sent", 42, weft_traverse_down));
    EXPECT_FALSE(weft_getDHCPOption("top", "req", 72, weft_traverse_down));
    EXPECT_EQ(traced(Level::Warning, ""), 0);
}
