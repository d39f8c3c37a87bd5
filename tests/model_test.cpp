/* The data model, its file, its store, and the settings. */
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>

#include <sqlite3.h>

#include "host/base/trace.h"
#include "host/base/uv_loop.h"
#include "host/gateway/settings.h"
#include "host/model/model.h"
#include "host/model/store.h"
#include "host/sim/sim_loop.h"

namespace keel {

namespace {

constexpr const char *tree = R"({"objects": {
  "Kept": {"persistent": true, "parameters": {"Name": ["text", "a"], "Big": ["uint64", 0], "Unset": ["text", null]},
           "objects": {"Item": {"instance": {"parameters": {"N": ["int32", -1]},
                                             "objects": {"Sub": {"instance": {"parameters": {"T": ["text", ""]}},
                                                                 "instances": {"61": {}}}}}}}},
  "Lost": {"parameters": {"On": ["bool", false]}}}})";

std::string load_error(const std::string &json) {
    SimLoop loop;
    Model model(loop);
    try {
        model.load_text(json, "gateway.json");
    } catch (const ModelError &error) {
        return error.what();
    }
    return "";
}

} // namespace

class ModelTest : public testing::Test {
protected:
    ModelTest() {
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
        folder = std::filesystem::temp_directory_path() / ("zephyrin-model-" + std::to_string(getpid()));
        std::filesystem::create_directories(folder);
        file = folder / "keel.db";
    }
    ~ModelTest() override { std::filesystem::remove_all(folder); }

    std::filesystem::path folder;
    std::filesystem::path file;
};

TEST_F(ModelTest, AMistakeInTheFileIsToldWithItsPlace) {
    const std::pair<const char *, const char *> cases[] = {
        {"{", "gateway.json: (root): no JSON"},
        {R"({"object": {}})", "(root): unknown member \"object\""},
        {R"({"objects": {"A": {"parameters": {"P": ["txt", ""]}}}})", "A.P: unknown type \"txt\""},
        {R"({"objects": {"A": {"parameters": {"P": ["uint8", 256]}}}})", "A.P: is out of range for uint8"},
        {R"({"objects": {"A": {"parameters": {"P": ["bool", "yes"]}}}})", "A.P: wants true or false"},
        {R"({"objects": {"A": {"parameters": {"P": 1}}}})", "A.P: must be [type, default]"},
        {R"({"objects": {"A": {"parameters": {"P": ["bool", true, ["true"]]}}}})", "A.P: only a text has a list"},
        {R"({"objects": {"A": {"parameters": {"P": ["text", "c", ["a", "b"]]}}}})", "A.P: its default is none"},
        {R"({"objects": {"A.B": {}}})", "bad name \"A.B\""},
        {R"({"objects": {"A": {"instances": {"1": {}}}}})", "A: \"instances\" without \"instance\""},
        {R"({"objects": {"A": {"instance": {}, "instances": {"1": {"values": {"X": 1}}}}}})",
         "A.1: no parameter \"X\""},
        {R"({"objects": {"A": {"instance": {}, "instances": {"a b": {}}}}})", "bad instance name \"a b\""},
        {R"({"objects": {"A": 7}})", "A: must be a JSON object"},
        {R"({"objects": {"A": {"parameters": {"P": ["int32", 18446744073709551615]}}}})", "A.P: is out of range"},
        {R"({"objects": {"A": {"parameters": {"P": ["bool", true], "P": ["bool", false]}}}})",
         "objects.A.parameters: duplicate member \"P\""},
        {R"({"objects": {"A": {"instance": {}, "instances": {"1": {}, "1": {}}}}})",
         "objects.A.instances: duplicate member \"1\""},
    };
    for (const auto &[json, reason] : cases)
        EXPECT_NE(load_error(json).find(reason), std::string::npos) << json << "\n" << load_error(json);
    EXPECT_EQ(load_error(tree), "");
    std::string deep;
    for (int level = 0; level < 100000; ++level)
        deep += R"({"objects": {"A": )";
    EXPECT_NE(load_error(deep).find("nested too deep"), std::string::npos);
    SimLoop loop;
    Model model(loop);
    EXPECT_THROW(model.load_file("/nonexistent/gateway.json"), ModelError);
}

TEST_F(ModelTest, InstanceNamesMayHoldDots) {
    SimLoop loop;
    Model model(loop);
    model.load_text(tree, "test");
    for (const char *key : {"eth1", "eth1.20", "eth1.20.5"})
        ASSERT_FALSE(model.add("Kept.Item", key, {}));
    model.set("Kept.Item.eth1.20", {{"N", std::int64_t{20}}});
    EXPECT_EQ(model.integer("Kept.Item.eth1", "N"), -1);
    EXPECT_EQ(model.integer("Kept.Item.eth1.20", "N"), 20);
    EXPECT_TRUE(model.find("Kept.Item.eth1.20.5.Sub.61"));
    EXPECT_TRUE(model.find("Kept.Item.eth1.Sub.61"));
    EXPECT_FALSE(model.find("Kept.Item.eth1.2"));

    loop.run_until_idle();
    int told = 0;
    model.watch("Kept.Item.eth1", [&](const Event &) { ++told; });
    model.set("Kept.Item.eth1.20", {{"N", std::int64_t{21}}});
    loop.run_until_idle();
    EXPECT_EQ(told, 0) << "it is not below eth1";
    model.set("Kept.Item.eth1.Sub.61", {{"T", std::string("x")}});
    loop.run_until_idle();
    EXPECT_EQ(told, 1);

    for (const char *key : {"", "a b", "\n", ".a", "a.", "eth1"})
        EXPECT_TRUE(model.add("Kept.Item", key, {})) << key;
    EXPECT_TRUE(model.add("Kept.Item", std::string(65, 'x'), {}));
    EXPECT_TRUE(model.add("Lost", "x", {}));
    EXPECT_TRUE(model.remove("Lost"));
}

TEST_F(ModelTest, EventsAreToldLaterInOrderAndOncePerWrite) {
    SimLoop loop;
    Model model(loop);
    model.load_text(tree, "test");
    std::vector<std::string> told;
    Model::WatchId own = 0;
    own = model.watch("Kept.Item", [&](const Event &event) {
        told.push_back(std::to_string(static_cast<int>(event.kind)) + " " + event.path());
        if (told.size() == 4)
            model.unwatch(own); /* inside itself */
    });
    model.add("Kept.Item", "k", {});
    model.set("Kept.Item.k", {{"N", std::int64_t{1}}});
    model.set("Kept.Item.k", {{"N", std::int64_t{1}}});
    model.set("Kept", {{"Name", std::string("elsewhere")}});
    EXPECT_TRUE(told.empty());
    model.remove("Kept.Item.k");
    loop.run_until_idle();
    EXPECT_EQ(told,
              (std::vector<std::string>{"0 Kept.Item.k", "2 Kept.Item.k", "1 Kept.Item.k.Sub.61", "1 Kept.Item.k"}));
    model.add("Kept.Item", "k", {});
    loop.run_until_idle();
    EXPECT_EQ(told.size(), 4U);
}

TEST_F(ModelTest, AnEventReachesThoseWhomItConcerns) {
    SimLoop loop;
    Model model(loop);
    model.load_text(tree, "test");
    std::vector<std::string> told;
    const auto note = [&](const char *who) {
        return [&told, who](const Event &event) { told.push_back(std::string(who) + " " + event.path()); };
    };
    model.watch("", note("all"));
    model.watch("Kept.Item.a", note("a"));
    model.watch("Kept.Item.a.b", note("a.b"));
    model.watch("Kept.Item.a", note("a's other"), {{"Other"}, false});
    model.watch("Kept.Item.a", note("a's N"), {{"Other", "N"}, false});
    model.watch("Kept.Item.a.b.Sub.x", note("x to come"), {{}, true});
    model.watch("Kept.Item.c.Sub.x", note("another's"), {{}, true});
    const Model::WatchId gone = model.watch("Kept.Item.a", note("gone"));
    model.add("Kept.Item", "a", {});
    model.add("Kept.Item", "a.b", {});
    model.set("Kept.Item.a", {{"N", std::int64_t{1}}});
    model.add("Kept.Item.a.b.Sub", "x", {{"T", std::string("t")}});
    model.unwatch(gone);
    loop.run_until_idle();
    EXPECT_EQ(told, (std::vector<std::string>{"all Kept.Item.a", "a Kept.Item.a", "a's other Kept.Item.a",
                                              "a's N Kept.Item.a", "x to come Kept.Item.a",
                                              /* as far as a path's text tells */ "all Kept.Item.a.b",
                                              "a.b Kept.Item.a.b", "x to come Kept.Item.a.b", "all Kept.Item.a",
                                              "a Kept.Item.a", "a's N Kept.Item.a", "all Kept.Item.a.b.Sub.x",
                                              "a.b Kept.Item.a.b.Sub.x", "x to come Kept.Item.a.b.Sub.x"}));
}

/* Beside a plain list, over enough instances for an index and back. */
TEST_F(ModelTest, InstancesKeepTheirOrderNamesAndNumbers) {
    SimLoop loop;
    Model model(loop);
    model.load_text(tree, "test");
    std::vector<std::string> expected;
    std::mt19937 random(9);
    const auto lowest_free = [&] {
        for (int number = 1;; ++number)
            if (std::find(expected.begin(), expected.end(), std::to_string(number)) == expected.end())
                return std::to_string(number);
    };
    for (int round = 0; round < 4000; ++round) {
        const bool grows = round % 1000 < 600;
        if (expected.empty() || random() % 10 < (grows ? 7U : 3U)) {
            const bool by_key = random() % 3 == 0;
            const std::string name = by_key ? std::to_string(random() % 60) + ".k" : lowest_free();
            std::string given;
            const bool taken = std::find(expected.begin(), expected.end(), name) != expected.end();
            ASSERT_EQ(model.add("Kept.Item", by_key ? std::optional(name) : std::nullopt, {}, &given).has_value(),
                      taken);
            if (!taken) {
                ASSERT_EQ(given, name) << "the lowest number that is free, or the key";
                expected.push_back(name);
            }
        } else {
            const auto at = expected.begin() + static_cast<std::ptrdiff_t>(random() % expected.size());
            ASSERT_FALSE(model.remove("Kept.Item." + *at));
            ASSERT_EQ(model.find("Kept.Item." + *at + ".Sub"), nullptr);
            expected.erase(at);
        }
        ASSERT_EQ(model.instances("Kept.Item"), expected);
    }
}

TEST_F(ModelTest, WhatIsPersistentComesBackAndNothingElse) {
    for (int run = 0; run < 3; ++run) {
        SimLoop loop;
        Model model(loop);
        model.load_text(tree, "test");
        Store store(loop, model, file);
        if (run == 0) {
            model.set("Kept", {{"Name", std::string("Ünïcödé 'quoted' \n")}, {"Big", std::int64_t{1} << 60}});
            model.set("Lost", {{"On", true}});
            for (const char *key : {"z", "a.b", "gone"})
                model.add("Kept.Item", key, {{"N", std::int64_t{7}}});
            model.add("Kept.Item.gone.Sub", "s", {{"T", std::string("below")}});
            model.add("Kept.Item.a.b.Sub", "s", {{"T", std::string("below")}});
            loop.run_until_idle();
            model.remove("Kept.Item.gone");
        } else {
            EXPECT_EQ(model.text("Kept", "Name"), "Ünïcödé 'quoted' \n");
            EXPECT_EQ(model.integer("Kept", "Big"), std::int64_t{1} << 60);
            EXPECT_FALSE(model.get("Kept", "Unset"));
            EXPECT_FALSE(model.boolean("Lost", "On"));
            EXPECT_EQ(model.instances("Kept.Item"), (std::vector<std::string>{"z", "a.b"})) << "in their order";
            EXPECT_EQ(model.text("Kept.Item.a.b.Sub.s", "T"), "below");
        }
        loop.run_until_idle();
    }
    EXPECT_TRUE(TraceLog::instance().recent().empty());
}

TEST_F(ModelTest, TheStoreKeepsTheOrderOfInstancesAndWhatALaterModelKnows) {
    const auto with_model = [&](const std::string &json, const std::function<void(Model &, SimLoop &)> &act) {
        SimLoop loop;
        Model model(loop);
        model.load_text(json, "test");
        Store store(loop, model, file);
        act(model, loop);
        loop.run_until_idle();
    };
    with_model(tree, [](Model &model, SimLoop &loop) {
        for (const char *key : {"eth1", "z", "eth1.20", "c"})
            model.add("Kept.Item", key, {});
        model.set("Kept",
                  {{"Name", std::string("one\0two", 7)}, {"Unset", std::string("set")}, {"Big", std::int64_t{5}}});
        loop.run_until_idle();
        model.remove("Kept.Item.eth1"); /* eth1.20 is another one */
        model.remove("Kept.Item.z");
        model.add("Kept.Item", "b", {});
        model.add("Kept.Item", "a", {});
        loop.run_until_idle();
        model.set("Kept.Item.eth1.20", {{"N", std::int64_t{20}}});
    });
    const std::string older =
        R"({"objects": {"Kept": {"persistent": true, "parameters": {"Name": ["text", ""], "Big": ["bool", true]},
                                 "objects": {"Item": {"instance": {}}}}}})";
    with_model(older, [](Model &model, SimLoop &) { EXPECT_TRUE(model.boolean("Kept", "Big")); });
    with_model(tree, [](Model &model, SimLoop &) { EXPECT_EQ(model.integer("Kept", "Big"), 5) << "it was only read"; });
    with_model(older, [](Model &model, SimLoop &loop) {
        loop.run_until_idle();
        model.set("Kept", {{"Name", std::string("by the older model")}});
    });
    with_model(tree, [](Model &model, SimLoop &) {
        EXPECT_EQ(model.instances("Kept.Item"), (std::vector<std::string>{"eth1.20", "c", "b", "a"}));
        EXPECT_EQ(model.integer("Kept.Item.eth1.20", "N"), 20);
        EXPECT_TRUE(model.find("Kept.Item.eth1.20.Sub.61"));
        EXPECT_EQ(model.text("Kept", "Name"), "by the older model");
        EXPECT_EQ(model.text("Kept", "Unset"), "set") << "the older model did not know it";
        model.set("Kept", {{"Name", std::string("one\0two", 7)}});
    });
    with_model(tree,
               [](Model &model, SimLoop &) { EXPECT_EQ(model.text("Kept", "Name"), std::string("one\0two", 7)); });
}

TEST_F(ModelTest, OnlyADamagedStoreIsMovedAside) {
    sqlite3 *other = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
    sqlite3_exec(other, "CREATE TABLE node (something TEXT); BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
    SimLoop loop;
    Model model(loop);
    model.load_text(tree, "test");
    { Store store(loop, model, file); /* it is in use, not damaged */ }
    EXPECT_FALSE(std::filesystem::exists(folder / "keel.db.damaged-1"));
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    {
        Store store(loop, model, file); /* a database of somebody else's */
        model.set("Kept", {{"Name", std::string("kept")}});
    }
    EXPECT_TRUE(std::filesystem::exists(folder / "keel.db.damaged-1"));
    Model again(loop);
    again.load_text(tree, "test");
    Store store(loop, again, file);
    EXPECT_EQ(again.text("Kept", "Name"), "kept");
}

TEST_F(ModelTest, ADamagedStoreIsMovedAsideAndStoredThingsWithoutAPlaceAreLeftOut) {
    for (const std::string &content :
         {std::string("no database at all, but long enough to look at\n"), std::string(8192, '\xff')}) {
        std::ofstream(file) << content;
        SimLoop loop;
        Model model(loop);
        model.load_text(tree, "test");
        Store store(loop, model, file);
        EXPECT_EQ(model.text("Kept", "Name"), "a");
        model.add("Kept.Item", "k", {{"N", std::int64_t{3}}});
        loop.run_until_idle();
    }
    EXPECT_TRUE(std::filesystem::exists(folder / "keel.db.damaged-1"));
    EXPECT_TRUE(std::filesystem::exists(folder / "keel.db.damaged-2"));

    SimLoop loop;
    Model other(loop);
    other.load_text(R"({"objects": {"Kept": {"persistent": true, "parameters": {"Name": ["bool", true]}}}})", "other");
    TraceLog::instance().clear();
    Store store(loop, other, file);
    EXPECT_TRUE(other.boolean("Kept", "Name"));
    EXPECT_GE(TraceLog::instance().recent().size(), 1U);
}

TEST_F(ModelTest, AKilledHostLeavesItsLastCompletedWrite) {
    for (int round = 0; round < 8; ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            UvLoop loop;
            Model model(loop);
            model.load_text(tree, "test");
            Store store(loop, model, file);
            for (std::int64_t number = model.integer("Kept", "Big") + 1;; ++number) {
                model.set("Kept", {{"Big", number}});
                model.add("Kept.Item", std::to_string(number), {});
                model.remove("Kept.Item." + std::to_string(number - 1));
                store.flush();
                if (write(ends[1], &number, sizeof number) != sizeof number)
                    _exit(1);
            }
        }
        close(ends[1]);
        std::int64_t told = 0;
        for (int count = 0; count < 20 + round * 7; ++count)
            ASSERT_EQ(read(ends[0], &told, sizeof told), static_cast<ssize_t>(sizeof told));
        kill(child, SIGKILL);
        for (std::int64_t number = 0; read(ends[0], &number, sizeof number) == static_cast<ssize_t>(sizeof number);)
            told = number;
        waitpid(child, nullptr, 0);
        close(ends[0]);

        SimLoop loop;
        Model model(loop);
        model.load_text(tree, "test");
        Store store(loop, model, file);
        const std::int64_t kept = model.integer("Kept", "Big");
        EXPECT_GE(kept, told);
        EXPECT_LE(kept, told + 1) << "at most the write that was under way";
        EXPECT_EQ(model.instances("Kept.Item"), std::vector<std::string>{std::to_string(kept)})
            << "whole or not at all";
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "keel.db.damaged-1"));
}

TEST_F(ModelTest, SettingsTellTheSubModulesOncePerWrite) {
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    Settings settings(model);
    std::string told;
    model.watch("Keel.Zephyrin", [&](const Event &event) {
        if (event.kind == Event::Kind::Custom)
            told += std::to_string(event.custom_type) +
                    (event.values.contains("Mode")
                         ? to_text(event.values.at("Mode")) + "/" + to_text(event.values.at("Interface"))
                         : "") +
                    " ";
    });
    const auto after = [&](const char *path, const Values &values) {
        told.clear();
        EXPECT_FALSE(model.set(path, values));
        loop.run_until_idle();
        return told;
    };
    const auto text = [](const char *value) { return Value(std::string(value)); };
    EXPECT_EQ(after("Keel.Zephyrin", {{"WanMode", text("VDSL")}}), "102Routed/Dedicated ");
    EXPECT_EQ(after("Keel.Zephyrin", {{"MonoClient", true}}), "");
    EXPECT_EQ(
        after("Keel.Zephyrin", {{"Mode", text("Bridged")}, {"Interface", text("Internet")}, {"WanMode", text("x")}}),
        "101 102Bridged/Internet ");
    EXPECT_EQ(model.text("Keel", "IPTVMode"), "Internet");
    EXPECT_FALSE(model.boolean("DHCPv4.Server.Pool.zep_stb", "LeasesOnHold"));
    EXPECT_EQ(after("Keel", {{"IPTVMode", text("Dedicated")}}), "101 102Bridged/Dedicated ");
    EXPECT_EQ(after("Keel.Zephyrin", {{"Enable", false}}), "101 ");
    EXPECT_EQ(after("Keel.Zephyrin", {{"Mode", text("Routed")}}), "");
    EXPECT_EQ(after("Keel.Zephyrin", {{"Enable", true}, {"Mode", text("Simplified")}}), "102Simplified/Dedicated ");
    EXPECT_EQ(after("Keel.Zephyrin", {{"Mode", text("Routed")}}), "101 102Routed/Dedicated ");
    EXPECT_TRUE(model.boolean("DHCPv4.Server.Pool.zep_itf", "LeasesOnHold"));
    told.clear();
    model.set("Keel.Zephyrin", {{"Enable", false}}); /* two writes before anybody is told */
    model.set("Keel.Zephyrin", {{"Enable", true}});
    loop.run_until_idle();
    EXPECT_EQ(told, "101 102Routed/Dedicated ");
}

TEST_F(ModelTest, TheTwoNamesOfTheInterfaceSettingNeverDisagreeForLong) {
    std::string told;
    SimLoop loop;
    Model model(loop);
    model.load_file(SOURCE_DIR "/share/gateway.json");
    Store store(loop, model, file);
    Settings settings(model);
    const auto text = [](const char *value) { return Value(std::string(value)); };
    model.watch("Keel.Zephyrin", [&](const Event &event) {
        if (event.kind == Event::Kind::Custom)
            told += std::to_string(event.custom_type) + " ";
    });
    const auto both = [&] { return model.text("Keel", "IPTVMode") + "/" + model.text("Keel.Zephyrin", "Interface"); };
    for (const char *mode : {"Internet", "Dedicated", "Internet"})
        model.set("Keel", {{"IPTVMode", text(mode)}});
    loop.run_until_idle();
    EXPECT_EQ(both(), "Internet/Internet");
    EXPECT_EQ(told, "101 102 101 102 101 102 ") << "a pair for each write";
    for (const char *mode : {"Dedicated", "Internet", "Dedicated"})
        model.set("Keel.Zephyrin", {{"Interface", text(mode)}});
    loop.run_until_idle();
    EXPECT_EQ(both(), "Dedicated/Dedicated");
    model.set("Keel", {{"IPTVMode", text("Internet")}});
    model.set("Keel.Zephyrin", {{"Interface", text("Other")}});
    loop.run_until_idle();
    EXPECT_EQ(both(), "Other/Other") << "the last write is in force";

    /* Flushed, the setting is stored under both names: a host that ends here comes back with it. */
    model.set("Keel.Zephyrin", {{"Interface", text("Dedicated")}});
    store.flush();
    std::filesystem::copy(file, folder / "copy.db");
    std::filesystem::copy(file.string() + "-wal", folder / "copy.db-wal");
    SimLoop later;
    Model restored(later);
    restored.load_file(SOURCE_DIR "/share/gateway.json");
    restored.set("Keel", {{"IPTVMode", text("Internet")}}); /* the model's own default is another */
    restored.set("Keel.Zephyrin", {{"Interface", text("Internet")}});
    Store copy(later, restored, folder / "copy.db");
    Settings after_restart(restored);
    told.clear();
    restored.watch("Keel.Zephyrin", [&](const Event &event) { told += event.kind == Event::Kind::Custom ? "!" : ""; });
    later.run_until_idle();
    EXPECT_EQ(told, "") << "being restored is no change: a sub-module would drop what it has stored";
    EXPECT_EQ(restored.text("Keel", "IPTVMode"), "Dedicated");
    EXPECT_EQ(restored.text("Keel.Zephyrin", "Interface"), "Dedicated");
}

TEST(UvLoop, TimersOfNoDelayDoNotStarveTheRest) {
    UvLoop loop;
    bool posted = false;
    int ticks = 0;
    std::function<void()> tick = [&] {
        if (++ticks < 1000 && !posted)
            loop.start_timer(0, tick);
    };
    loop.start_timer(0, [&] {
        loop.post([&] { posted = true; });
        tick();
    });
    int cancelled = 0;
    Loop::TimerId second = 0;
    loop.start_timer(1, [&] { loop.cancel_timer(second); });
    second = loop.start_timer(1, [&] { ++cancelled; });
    loop.start_timer(30, [&] { loop.stop(); });
    loop.run();
    EXPECT_LT(ticks, 1000);
    EXPECT_EQ(cancelled, 0) << "also when both are due";
}

} // namespace keel
