/* The bus as the plug-in relies on it. */
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/platform/plugin.h"
#include "host/sim/sim_loop.h"
#include "platform/keel.h"

namespace keel {

namespace {

constexpr const char *tree = R"({"objects": {
  "Box": {"parameters": {"Name": ["text", "a"], "Count": ["uint8", 1], "On": ["bool", false]},
          "objects": {"Item": {"instance": {"parameters": {"Value": ["text", "x"]},
                                            "objects": {"Sub": {"instance": {"parameters": {"N": ["int32", 0]}}}}}}}}}})";

/* Runs nothing by itself: the test ends each run. */
class HeldRunner : public ProcessRunner {
public:
    std::vector<std::vector<std::string>> started;
    std::vector<OnExit> exits;
    bool run(const std::vector<std::string> &argv, OnExit on_exit) override {
        if (argv.front() == "missing")
            return false;
        started.push_back(argv);
        exits.push_back(std::move(on_exit));
        return true;
    }
};

/* What a handler was told, in short. */
using Told = std::vector<std::string>;

std::string short_form(reply_item_t *item) {
    if (reply_item_type(item) == reply_type_object) {
        const char *name = variant_da_char(object_parameterValue(reply_item_object(item), "Name"));
        const char *value = variant_da_char(object_parameterValue(reply_item_object(item), "Value"));
        return std::string("object ") + (name ? name : value ? value : "");
    }
    if (reply_item_type(item) == reply_type_error)
        return std::string("error ") + reply_item_errorInfo(item);
    const notification_t *news = reply_item_notification(item);
    std::string told = std::to_string(notification_type(news)) + " " + notification_objectPath(news);
    for (const char *name : {"parameter", "newvalue", "Mode"})
        if (notification_parameter_t *parameter = notification_getParameter(news, name)) {
            char *text = variant_char(notification_parameter_variant(parameter));
            told += std::string(" ") + text;
            std::free(text);
        }
    return told;
}

bool record(request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *data) {
    static_cast<Told *>(data)->push_back(short_form(item));
    return true;
}

} // namespace

class BusTest : public testing::Test {
protected:
    BusTest() {
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
        model.load_text(tree, "test");
        host_attach(loop, graph, runner);
    }
    ~BusTest() override { host_detach(); }

    request_t *watch(const char *path, int depth, std::uint32_t attributes, const char *parameter = nullptr) {
        request_t *request = request_create_getObject(path, depth, attributes);
        if (parameter)
            request_addParameter(request, parameter, nullptr);
        return open(request);
    }
    request_t *open(request_t *request) {
        request_setReplyItemHandler(request, record);
        request_setData(request, &told);
        EXPECT_TRUE(hull_sendRequest(rig_getHull(), rig_getSysbus(), request));
        return request;
    }
    void set(const char *path, const Values &values) {
        const Outcome refusal = model.set(path, values);
        ASSERT_FALSE(refusal) << refusal->reason;
    }
    static void push_set(const char *path, const char *name, const char *value) {
        variant_t text{};
        variant_setChar(&text, value);
        request_t *request = keel_request_create_setObject("%s", path);
        request_addParameter(request, name, &text);
        variant_cleanup(&text);
        keel_request_push("test", rig_getSysbus(), request, "Set %s", path);
    }
    static std::size_t warnings(const std::string &part) {
        std::size_t count = 0;
        for (const TraceLine &line : TraceLog::instance().recent())
            count += line.level == Level::Warning && line.text.find(part) != std::string::npos;
        return count;
    }

    static constexpr std::uint32_t all_news =
        request_notify_values | request_notify_added | request_notify_deleted | request_notify_custom;
    SimLoop loop;
    Model model{loop};
    InterfaceGraph graph{model};
    HeldRunner runner;
    Told told;
};

TEST_F(BusTest, ARequestIsAnsweredOnceOnALaterTurn) {
    request_t *request = watch("Box", 0, 0);
    request_t *missing = watch("Box.Item.none", 0, 0);
    EXPECT_TRUE(told.empty());
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"object a", "error Box.Item.none"}));
    set("Box", {{"Name", std::string("b")}});
    loop.run_until_idle();
    EXPECT_EQ(told.size(), 2U) << "a plain read is no watch";
    request_destroy(request);
    request_destroy(missing);
}

TEST_F(BusTest, AWatchReportsItsPathAndDepthInOrder) {
    request_t *request = watch("Box.Item", 1, all_news);
    model.add("Box.Item", std::nullopt, {{"Value", std::string("early")}}); /* before the answer: part of it */
    loop.run_until_idle();
    EXPECT_EQ(told.size(), 1U);
    told.clear();
    std::string key;
    model.add("Box.Item", "k.1", {{"Value", std::string("v")}}, &key);
    set("Box.Item.k.1", {{"Value", std::string("w")}});
    model.add("Box.Item.k.1.Sub", "deep", {});
    set("Box", {{"Name", std::string("other")}});
    model.notify("Box.Item", 102, {{"Mode", std::string("Routed")}});
    model.remove("Box.Item.k.1");
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"2 Box.Item.k.1", "1 Box.Item.k.1 Value w", "102 Box.Item Routed", "3 Box.Item.k.1"}))
        << "what lies deeper or elsewhere is not reported";
    told.clear();
    request_t *deeper = watch("Box", 4, all_news); /* Item, its instance, Sub, its instance */
    loop.run_until_idle();
    model.add("Box.Item", "l", {});
    model.add("Box.Item.l.Sub", "deep", {});
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"object other", "2 Box.Item.l", "2 Box.Item.l", "2 Box.Item.l.Sub.deep"})) << "both watches";
    told.clear();
    request_destroy(deeper);
    request_destroy(request);
    set("Box.Item.1", {{"Value", std::string("z")}});
    loop.run_until_idle();
    EXPECT_TRUE(told.empty());
}

TEST_F(BusTest, WatchesAreToldInTheOrderInWhichTheyWereSent) {
    std::vector<request_t *> watches;
    std::vector<std::string> order;
    struct Named {
        std::string name;
        std::vector<std::string> &order;
    };
    std::vector<std::unique_ptr<Named>> names;
    for (int i = 0; i < 4; ++i) {
        names.push_back(std::make_unique<Named>(Named{std::to_string(i), order}));
        watches.push_back(request_create_getObject("Box", 0, request_notify_values));
        request_setData(watches.back(), names.back().get());
        request_setReplyItemHandler(watches.back(),
                                    [](request_t *, reply_item_t *, sysbus_t *, sysbus_t *, void *data) {
                                        auto *named = static_cast<Named *>(data);
                                        named->order.push_back(named->name);
                                        return true;
                                    });
    }
    for (const int i : {2, 0, 3, 1}) /* wherever they lie in memory */
        hull_sendRequest(rig_getHull(), rig_getSysbus(), watches[static_cast<std::size_t>(i)]);
    loop.run_until_idle();
    EXPECT_EQ(order, (std::vector<std::string>{"2", "0", "3", "1"}));
    order.clear();
    hull_sendRequest(rig_getHull(), rig_getSysbus(), watches[2]); /* answered again, still one watch */
    request_destroy(watches[0]);
    loop.run_until_idle();
    set("Box", {{"Name", std::string("b")}});
    loop.run_until_idle();
    EXPECT_EQ(order, (std::vector<std::string>{"2", "2", "3", "1"}));
    for (const int i : {1, 2, 3})
        request_destroy(watches[static_cast<std::size_t>(i)]);
}

TEST_F(BusTest, AnObjectThatAppearsIsReportedOnceAndForItself) {
    request_t *dotted = watch("Box.Item.eth1.20", 0, all_news);
    request_t *inner = open(keel_request_create_getObject("Box.Item.eth1.Sub.%d", 0, 1));
    loop.run_until_idle();
    model.add("Box.Item", "eth1.20", {{"Value", std::string("vlan")}});
    loop.run_until_idle();
    told.clear();
    model.add("Box.Item", "eth1", {{"Value", std::string("port")}}); /* not what "eth1.20" lies in */
    loop.run_until_idle();
    EXPECT_TRUE(told.empty());
    model.remove("Box.Item.eth1");
    model.add("Box.Item", "eth1", {});
    model.add("Box.Item.eth1.Sub", std::nullopt, {});
    set("Box.Item.eth1.Sub.1", {{"N", std::int64_t{4}}});
    loop.run_until_idle();
    EXPECT_EQ(told, Told{"object "}) << "one item shows all that happened before it";
    told.clear();
    model.add("Box.Item", "short", {});
    request_t *brief = watch("Box.Item.short", 0, all_news);
    loop.run_until_idle();
    model.remove("Box.Item.short");
    model.add("Box.Item", "short", {});
    model.remove("Box.Item.short");
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"object x", "3 Box.Item.short", "3 Box.Item.short"})) << "it is gone when that is told";
    for (request_t *one : {dotted, inner, brief})
        request_destroy(one);
}

TEST_F(BusTest, ValuesKeepTheTypesOfTheirParameters) {
    static std::vector<std::string> types;
    types.clear();
    model.add("Box.Item", "k", {});
    model.add("Box.Item.k.Sub", "1", {});
    loop.run_until_idle();
    request_t *request = request_create_getObject("Box", -1, all_news);
    request_setReplyItemHandler(request, [](request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *) {
        if (notification_t *news = reply_item_notification(item)) {
            if (notification_type(news) != notification_value_changed)
                return true;
            const variant_t *value = notification_parameter_variant(notification_getParameter(news, "newvalue"));
            char *text = variant_char(value);
            types.push_back(std::to_string(variant_type(value)) + " " + text);
            std::free(text);
        } else {
            object_t *box = reply_item_object(item);
            types.push_back(std::to_string(variant_type(object_parameterValue(box, "Count"))));
            EXPECT_EQ(variant_type(object_parameterValue(object_getObject(box, "Item.k.Sub.1", 1, nullptr), "N")),
                      static_cast<std::uint32_t>(variant_type_int32));
        }
        return true;
    });
    hull_sendRequest(rig_getHull(), rig_getSysbus(), request);
    loop.run_until_idle();
    set("Box", {{"Count", std::int64_t{200}}});
    set("Box", {{"On", true}});
    set("Box.Item.k.Sub.1", {{"N", std::int64_t{-5}}});
    loop.run_until_idle();
    set("Box.Item.k.Sub.1", {{"N", std::int64_t{-6}}});
    model.remove("Box.Item.k"); /* gone with its types when the change is told */
    loop.run_until_idle();
    EXPECT_EQ(types, (std::vector<std::string>{"6", "6 200", "10 true", "4 -5", "4 -6"}));
    request_destroy(request);

    variant_t list{};
    variant_initialize(&list, variant_type_list);
    request_t *bad = keel_request_create_setObject("Box");
    request_addParameter(bad, "Name", &list);
    variant_cleanup(&list);
    EXPECT_FALSE(keel_request_invoke("test", rig_getSysbus(), bad, "Set a list"));
    request_destroy(bad);
    EXPECT_EQ(warnings("test: Set a list refused: Box: \"Name\" has no value"), 1U);
    EXPECT_EQ(model.text("Box", "Name"), "a");
}

TEST_F(BusTest, AWatchIsOnAPathAndOutlivesTheObject) {
    request_t *values = watch("Box.Item.k", 0, request_notify_values, "Value");
    request_t *objects = open(keel_request_create_getObject("Box.Item.%s", 0, "k"));
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"error Box.Item.k", "error Box.Item.k"}));
    for (int life = 0; life < 2; ++life) {
        told.clear();
        model.add("Box.Item", "k", {{"Value", std::string("1")}});
        loop.run_until_idle();
        set("Box.Item.k", {{"Value", std::string("2")}});
        loop.run_until_idle();
        model.remove("Box.Item.k");
        loop.run_until_idle();
        EXPECT_EQ(told.size(), 4U);
        EXPECT_EQ(std::count(told.begin(), told.end(), "object 1"), 2) << "both report that it appears";
        EXPECT_EQ(std::count(told.begin(), told.end(), "1 Box.Item.k Value 2"), 1);
        EXPECT_EQ(std::count(told.begin(), told.end(), "object 2"), 1);
    }
    request_destroy(values);
    request_destroy(objects);
}

TEST_F(BusTest, NamedParametersLimitWhatIsReported) {
    request_t *values = watch("Box", 0, request_notify_values, "Count");
    request_t *objects = keel_request_create_getObject("Box", 0);
    request_addParameter(objects, "On", nullptr);
    open(objects);
    loop.run_until_idle();
    told.clear();
    set("Box", {{"Name", std::string("b")}});
    set("Box", {{"Count", std::int64_t{2}}, {"Name", std::string("c")}});
    set("Box", {{"On", true}});
    set("Box", {{"On", true}}); /* no change */
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"1 Box Count 2", "object "}));
    request_destroy(values);
    request_destroy(objects);
}

TEST_F(BusTest, PushesAreCarriedOutInOrderLaterAndBeforeSynchronousCalls) {
    push_set("Box", "Name", "first");
    push_set("Box", "Name", "second");
    EXPECT_EQ(model.text("Box", "Name"), "a");
    push_set("Box", "Count", "text"); /* wrong type */
    push_set("Box.Item.none", "Value", "y");
    EXPECT_STREQ(variant_da_char(hull_client_get(rig_getSysbus(), "Box", "Name")), "second");
    EXPECT_EQ(warnings("Set Box refused: Box: \"Count\""), 1U);
    EXPECT_EQ(warnings("Set Box.Item.none refused: Box.Item.none: no such object"), 1U);
    push_set("Box", "Name", "third");
    keel_request_flush("test");
    EXPECT_EQ(model.text("Box", "Name"), "third");
    push_set("Box", "Name", "fourth");
    loop.run_until_idle();
    EXPECT_EQ(model.text("Box", "Name"), "fourth");
}

TEST_F(BusTest, InvokeRunsToTheEndAndLeavesTheRequestToItsCaller) {
    push_set("Box", "Name", "pushed");
    request_t *request = request_create_getObject("Box", -1, 0);
    request_setReplyItemHandler(request, record);
    request_setData(request, &told);
    EXPECT_TRUE(keel_request_invoke("test", rig_getSysbus(), request, "Get"));
    EXPECT_EQ(told, (Told{"object pushed"}));
    request_destroy(request);
    told.clear();
    request = open(request_create_getObject("Box", 0, 0));
    request_t *missing = keel_request_create_getObject("Box.%s", 0, "None");
    request_setReplyItemHandler(missing, record);
    request_setData(missing, &told);
    EXPECT_FALSE(keel_request_invoke("test", rig_getSysbus(), missing, "Get"));
    EXPECT_EQ(told, Told{"error Box.None"}) << "no handler but its own runs inside the call";
    loop.run_until_idle();
    EXPECT_EQ(told, (Told{"error Box.None", "object pushed"}));
    request_destroy(missing);
    request_destroy(request);
    request_t *twice = keel_request_create_addInstance("Box.Item.%s", "k");
    EXPECT_TRUE(keel_request_invoke("test", rig_getSysbus(), twice, "Add"));
    request_destroy(twice);
    twice = keel_request_create_addInstance("Box.Item.%s", "k");
    EXPECT_FALSE(keel_request_invoke("test", rig_getSysbus(), twice, "Add"));
    request_destroy(twice);
    EXPECT_EQ(model.instances("Box.Item"), std::vector<std::string>{"k"});
}

TEST_F(BusTest, AWriteIsAcceptedWholeOrRefusedWhole) {
    variant_map_t map;
    variant_map_initialize(&map);
    variant_map_addChar(&map, "Name", "new");
    variant_map_addUInt32(&map, "Count", 256); /* out of range for 8 bits */
    EXPECT_FALSE(hull_client_set_object(rig_getSysbus(), "Box", &map));
    EXPECT_EQ(model.text("Box", "Name"), "a");
    variant_map_addUInt32(&map, "Count", 255);
    EXPECT_TRUE(hull_client_set_object(rig_getSysbus(), "Box", &map));
    variant_map_addBool(&map, "Unknown", true);
    variant_map_addChar(&map, "Name", "newer");
    EXPECT_FALSE(hull_client_set_object(rig_getSysbus(), "Box", &map));
    EXPECT_EQ(model.text("Box", "Name"), "new");
    EXPECT_EQ(model.integer("Box", "Count"), 255);
    variant_map_cleanup(&map);
}

TEST_F(BusTest, AnAdditionTellsItsOutcomeWhenItIsDone) {
    static std::string outcome;
    const auto done = [](request_t *request, sysbus_t *, sysbus_t *, void *) {
        outcome = "done";
        for (reply_item_t *item = reply_firstItem(request_reply(request)); item; item = reply_nextItem(item))
            if (reply_item_type(item) == reply_type_error)
                outcome = reply_item_errorDescription(item);
        request_destroy(request);
        return true;
    };
    for (const char *expected : {"done", "exists already"}) {
        request_t *request = request_create_addInstance("Box.Item", 0, "k", 1);
        request_setDoneHandler(request, done);
        hull_sendRequest(rig_getHull(), rig_getSysbus(), request);
        EXPECT_TRUE(outcome != expected);
        loop.run_until_idle();
        EXPECT_EQ(outcome, expected);
    }
}

TEST_F(BusTest, RequestsMayBeDestroyedAtAnyTime) {
    static int calls;
    calls = 0;
    request_t *own = request_create_getObject("Box", 0, all_news);
    request_setReplyItemHandler(own, [](request_t *request, reply_item_t *item, sysbus_t *, sysbus_t *, void *) {
        ++calls;
        request_destroy(request);
        EXPECT_NE(reply_item_object(item), nullptr) << "the item lives as long as the handler runs";
        return true;
    });
    hull_sendRequest(rig_getHull(), rig_getSysbus(), own);
    set("Box", {{"Name", std::string("b")}});
    loop.run_until_idle();
    set("Box", {{"Name", std::string("c")}});
    loop.run_until_idle();
    EXPECT_EQ(calls, 1);

    request_t *queued = watch("Box", 0, all_news);
    loop.run_until_idle();
    told.clear();
    for (const char *name : {"d", "e", "f"})
        set("Box", {{"Name", std::string(name)}});
    struct Destroyer {
        SimLoop &loop;
        request_t *request;
        Told &told;
    } destroyer{loop, queued, told};
    model.watch("Box", [&](const Event &) { /* told before the bus hands anything out */
                                            request_destroy(destroyer.request);
    });
    loop.run_until_idle();
    EXPECT_TRUE(told.empty()) << "nothing of what was queued is delivered";
    request_destroy(queued); /* again: harmless */
}

TEST_F(BusTest, WhatAHandlerBringsAboutIsDoneBeforeTheNextOneRuns) {
    static Told order;
    order.clear();
    const auto handler = [](request_t *, reply_item_t *item, sysbus_t *, sysbus_t *, void *) {
        if (reply_item_type(item) != reply_type_notification)
            return true;
        order.emplace_back("handler");
        push_set("Box", "Name", ("for device " + std::to_string(order.size())).c_str());
        return true;
    };
    for (const char *key : {"x", "y"}) {
        model.add("Box.Item", key, {});
        request_t *request =
            request_create_getObject((std::string("Box.Item.") + key).c_str(), 0, request_notify_values);
        request_setReplyItemHandler(request, handler);
        hull_sendRequest(rig_getHull(), rig_getSysbus(), request);
    }
    hull_timer_t *timer = hull_timer_create();
    hull_timer_setHandler(timer, [](hull_timer_t *, void *) { order.emplace_back("timer"); });
    loop.run_until_idle();
    model.watch("Box", [&](const Event &event) { /* as the LAN server, which answers then */
                                                 if (event.values.contains("Name"))
                                                     order.emplace_back("answer");
    });
    set("Box.Item.x", {{"Value", std::string("bound")}});
    set("Box.Item.y", {{"Value", std::string("bound")}});
    hull_timer_start(timer, 0);
    loop.run_until_idle();
    EXPECT_EQ(order.size(), 5U);
    std::erase(order, "timer");
    EXPECT_EQ(order, (Told{"handler", "answer", "handler", "answer"}));
    hull_timer_destroy(timer);
}

TEST_F(BusTest, CachedObjectsFollowTheModelAndCanBeCleared) {
    object_t *before = hull_client_get_object(rig_getSysbus(), "Box");
    EXPECT_EQ(before, hull_client_get_object(rig_getSysbus(), "Box"));
    set("Box", {{"Name", std::string("b")}});
    object_t *after = hull_client_get_object(rig_getSysbus(), "Box");
    EXPECT_STREQ(variant_da_char(object_parameterValue(after, "Name")), "b");
    EXPECT_STREQ(variant_da_char(object_parameterValue(before, "Name")), "a") << "still valid within the turn";
    hull_cacheClear(rig_getHull());
    EXPECT_EQ(hull_client_get_object(rig_getSysbus(), "Box.None"), nullptr);

    for (const char *key : {"x", "y", "z"})
        model.add("Box.Item", key, {});
    object_t *items = hull_client_get_object(rig_getSysbus(), "Box.Item");
    object_delete(object_firstInstance(items));
    object_delete(object_nextInstance(object_firstInstance(items)));
    EXPECT_EQ(model.instances("Box.Item").size(), 3U);
    EXPECT_TRUE(object_commit(items));
    EXPECT_EQ(model.instances("Box.Item"), std::vector<std::string>{"z"});
}

TEST_F(BusTest, TimersRunLaterOnceAndMayEndThemselves) {
    static std::vector<std::string> ran;
    ran.clear();
    hull_timer_t *timer = hull_timer_create();
    hull_timer_setHandler(timer, [](hull_timer_t *, void *) { ran.emplace_back("timer"); });
    hull_timer_start(timer, 0);
    EXPECT_TRUE(ran.empty()) << "never inside the call";
    loop.run_until_idle();
    EXPECT_EQ(ran.size(), 1U);
    hull_timer_start(timer, 100);
    loop.advance(50);
    hull_timer_start(timer, 100); /* the new period replaces the old */
    loop.advance(60);
    EXPECT_EQ(ran.size(), 1U);
    loop.advance(40);
    EXPECT_EQ(ran.size(), 2U);
    hull_timer_start(timer, 10);
    hull_timer_stop(timer);
    loop.advance(20);
    EXPECT_EQ(ran.size(), 2U);
    hull_timer_setHandler(timer, [](hull_timer_t *self, void *) { hull_timer_destroy(self); });
    hull_timer_start(timer, 1);
    loop.advance(5);
    hull_timer_defer([](void *) { ran.emplace_back("deferred"); }, nullptr, 0);
    EXPECT_EQ(ran.size(), 2U);
    loop.run_until_idle();
    EXPECT_EQ(ran.back(), "deferred");
}

TEST_F(BusTest, AProcessObjectRunsOneChildAtATime) {
    static int exits;
    exits = 0;
    process_t *process = process_create(hull_connection(rig_getHull()));
    process_setExitHandler(process, [](process_t *) { return ++exits > 0; });
    EXPECT_FALSE(process_start(process, "missing", nullptr));
    EXPECT_TRUE(process_start(process, "one", "a", "b", nullptr));
    EXPECT_TRUE(process_start(process, "two", nullptr));
    EXPECT_TRUE(process_start(process, "three", nullptr));
    EXPECT_EQ(runner.started, (std::vector<std::vector<std::string>>{{"one", "a", "b"}}));
    runner.exits[0](0);
    loop.run_until_idle();
    EXPECT_EQ(exits, 1);
    EXPECT_EQ(runner.started.back(), std::vector<std::string>{"two"});
    EXPECT_TRUE(process_isRunning(process));
    process_destroy(process);
    /* An object that is made now may well get the memory of the one that is gone. */
    std::vector<process_t *> later;
    for (int i = 0; i < 8; ++i) {
        later.push_back(process_create(hull_connection(rig_getHull())));
        process_setExitHandler(later.back(), [](process_t *) { return ++exits > 0; });
        EXPECT_TRUE(process_start(later.back(), "later", nullptr));
    }
    runner.exits[1](0); /* of the object that is gone */
    loop.run_until_idle();
    EXPECT_EQ(exits, 1);
    EXPECT_EQ(runner.started.size(), 10U) << "what was queued is dropped";
    for (process_t *one : later) {
        EXPECT_TRUE(process_isRunning(one));
        process_destroy(one);
    }
}

TEST_F(BusTest, AnExitHandlerMayStartAgainBehindWhatWaitsOrEndTheObject) {
    static int exits;
    exits = 0;
    process_t *process = process_create(hull_connection(rig_getHull()));
    process_setExitHandler(process, [](process_t *self) {
        EXPECT_FALSE(process_isRunning(self));
        if (++exits == 1) {
            EXPECT_TRUE(process_start(self, "again", nullptr));
        }
        if (exits == 3)
            process_destroy(self);
        return true;
    });
    process_start(process, "one", nullptr);
    process_start(process, "missing", nullptr);
    process_start(process, "two", nullptr);
    for (std::size_t run = 0; run < 3; ++run) {
        runner.exits.at(run)(0);
        loop.run_until_idle();
    }
    EXPECT_EQ(runner.started, (std::vector<std::vector<std::string>>{{"one"}, {"two"}, {"again"}}));
    EXPECT_EQ(exits, 3);
    EXPECT_EQ(TraceLog::instance().recent().back().text, "missing cannot be started");
}

TEST_F(BusTest, WhatThePlugInLeavesOpenIsCountedAndReleased) {
    static int calls;
    calls = 0;
    watch("Box", 0, all_news);
    hull_timer_t *timer = hull_timer_create();
    hull_timer_setHandler(timer, [](hull_timer_t *, void *) { ++calls; });
    hull_timer_start(timer, 5);
    hull_timer_defer([](void *) { ++calls; }, nullptr, 0);
    process_t *process = process_create(hull_connection(rig_getHull()));
    process_setExitHandler(process, [](process_t *) { return ++calls > 0; });
    process_start(process, "one", nullptr);
    hull_client_get_object(rig_getSysbus(), "Box");
    push_set("Box", "Name", "pushed");
    host_detach();
    for (const char *what : {"1 requests", "1 timers", "1 processes"})
        EXPECT_EQ(warnings(std::string("left ") + what), 1U) << what;
    runner.exits[0](0);
    loop.advance(10);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(told.empty());

    host_attach(loop, graph, runner);
    request_destroy(watch("Box", 0, all_news));
    loop.run_until_idle();
    host_detach();
    EXPECT_EQ(warnings("left"), 3U) << "nothing new was left";
}

} // namespace keel
