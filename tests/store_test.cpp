/*
 * The store when its file cannot be used, and what it does to the files of a machine.
 */
#include "host/model/store.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "host/base/trace.h"
#include "host/model/model.h"
#include "host/sim/sim_loop.h"

namespace keel {

namespace {

constexpr const char *tree = R"({"objects": {
    "KeelHost": {"parameters": {"StoreError": ["text", ""]}},
    "Kept": {"persistent": true,
             "parameters": {"Mode": ["text", "default"], "Status": ["text", "default"]},
             "objects": {"Item": {"instance": {"parameters": {"N": ["uint32", 0]}}},
                         "Offer": {"instance": {"persistent": "Taken",
                                                "parameters": {"Taken": ["bool", false], "N": ["uint32", 0]},
                                                "objects": {"Note": {"parameters": {"Text": ["text", ""]}}}}}}}}})";

class StoreTest : public testing::Test {
protected:
    StoreTest() {
        TraceLog::instance().set_print(false);
        TraceLog::instance().clear();
        std::filesystem::create_directory(folder);
        model.load_text(tree, "test");
    }
    ~StoreTest() override {
        sqlite3_close(other);
        std::filesystem::remove_all(folder);
    }

    /* Somebody else's connection. */
    void sql(const std::string &text) {
        if (!other) {
            ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
        }
        char *reason = nullptr;
        EXPECT_EQ(sqlite3_exec(other, text.c_str(), nullptr, nullptr, &reason), SQLITE_OK) << text << ": " << reason;
    }
    static std::size_t traced(const std::string &part) {
        const auto &lines = TraceLog::instance().recent();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const TraceLine &line) {
            return line.text.find(part) != std::string::npos;
        }));
    }
    std::string error() { return model.text("KeelHost", "StoreError"); }
    static mode_t mode_of(const std::filesystem::path &path) {
        struct stat found {};
        EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
        return found.st_mode & 0777;
    }
    /* What a later host would find. */
    std::string stored(const char *parameter) {
        SimLoop later;
        Model fresh(later);
        fresh.load_text(tree, "test");
        const Store store(later, fresh, file);
        return fresh.text("Kept", parameter);
    }

    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("zephyrin-store-" + std::to_string(getpid()));
    std::string file = folder / "keel.db";
    SimLoop loop;
    Model model{loop};
    sqlite3 *other = nullptr;
};

} // namespace

TEST_F(StoreTest, ALockedFileIsTakenUpLaterAndNothingOfItIsLost) {
    {
        Store store(loop, model, file);
        model.set("Kept", {{"Mode", std::string("stored")}, {"Status", std::string("stored")}});
        model.add("Kept.Item", "a", {{"N", std::int64_t{1}}});
        model.add("Kept.Item", "b", {{"N", std::int64_t{2}}});
    }
    {
        Store store(loop, model, file);
        for (const char *name : {"d", "c"})
            model.add("Kept.Item", name, {});
        model.remove("Kept.Item.d");
    }
    sql("PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE; UPDATE value SET value = '3' WHERE path = 'Kept.Item.b'");

    Model again(loop);
    again.load_text(tree, "test");
    Store store(loop, again, file);
    EXPECT_EQ(again.text("Kept", "Mode"), "default") << "it serves as the model says";
    again.set("Kept", {{"Status", std::string("newer")}});
    again.add("Kept.Item", "b", {{"N", std::int64_t{9}}});
    again.add("Kept.Item", "e", {});
    EXPECT_NE(store.flush(), "") << "who asks is told";
    EXPECT_NE(again.text("KeelHost", "StoreError").find("locked"), std::string::npos);
    loop.advance(600000);
    EXPECT_EQ(traced("cannot be used"), 1U) << "however often it was tried";

    sql("COMMIT");
    sqlite3_close(std::exchange(other, nullptr));
    loop.advance(120000);
    EXPECT_EQ(again.text("KeelHost", "StoreError"), "");
    EXPECT_EQ(traced("can be used again"), 1U);
    EXPECT_EQ(again.text("Kept", "Mode"), "stored") << "nobody has written it since";
    EXPECT_EQ(again.text("Kept", "Status"), "newer");
    EXPECT_EQ(again.integer("Kept.Item.a", "N"), 1);
    EXPECT_EQ(again.integer("Kept.Item.b", "N"), 9) << "made anew in the meantime";
    EXPECT_EQ(store.flush(), "");
    EXPECT_EQ(stored("Mode"), "stored");
    EXPECT_EQ(stored("Status"), "newer");
    SimLoop later;
    Model fresh(later);
    fresh.load_text(tree, "test");
    const Store reader(later, fresh, file);
    EXPECT_EQ(fresh.instances("Kept.Item"), (std::vector<std::string>{"a", "b", "c", "e"})) << "the new one comes last";
}

TEST_F(StoreTest, AWriteThatIsNotStoredIsToldAndStoredLater) {
    Store store(loop, model, file);
    model.set("Kept", {{"Mode", std::string("one")}});
    EXPECT_EQ(store.flush(), "");
    sql("BEGIN IMMEDIATE");
    model.set("Kept", {{"Mode", std::string("two")}});
    EXPECT_NE(store.flush(), "");
    EXPECT_NE(error(), "");
    sql("COMMIT");
    EXPECT_EQ(stored("Mode"), "one");
    loop.advance(5000);
    EXPECT_EQ(error(), "");
    EXPECT_EQ(stored("Mode"), "two");
}

/* By somebody who cleans up, or a disk that was pulled and plugged in again. */
TEST_F(StoreTest, AFileThatIsTakenAwayOrReplacedIsBegunAnewWithAllThatThereIs) {
    model.add("Kept.Item", "a", {{"N", std::int64_t{1}}}); /* from before the store */
    auto store = std::make_unique<Store>(loop, model, file);
    for (const char *name : {"c", "b"})
        model.add("Kept.Item", name, {});
    model.set("Kept", {{"Mode", std::string("one")}});
    EXPECT_EQ(store->flush(), "");
    sql("INSERT INTO node VALUES ('Kept.Old', 'Kept', 'Old', 1, 9); INSERT INTO value VALUES ('Kept.Old', 'N', '7')");
    store = std::make_unique<Store>(loop, model, file); /* which has no place for that */
    sql("PRAGMA wal_checkpoint(TRUNCATE)");
    sqlite3_close(std::exchange(other, nullptr));
    std::filesystem::copy_file(file, folder / "copy.db");

    for (const char *suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(file + suffix);
    loop.advance(300000); /* nothing is written */
    EXPECT_EQ(error(), "");
    EXPECT_EQ(traced("was taken away or replaced"), 1U);
    model.remove("Kept.Item.b");
    model.add("Kept.Item", "d", {});
    loop.run_until_idle();
    EXPECT_EQ(stored("Mode"), "one");

    std::filesystem::rename(folder / "copy.db", file); /* with "b", and without "d" */
    model.set("Kept", {{"Mode", std::string("two")}});
    model.add("Kept.Item", "e", {});
    loop.run_until_idle();
    EXPECT_EQ(error(), "");
    EXPECT_EQ(traced("was taken away or replaced"), 2U);
    store.reset();
    SimLoop later;
    Model fresh(later);
    fresh.load_text(tree, "test");
    const Store reader(later, fresh, file);
    EXPECT_EQ(fresh.text("Kept", "Mode"), "two");
    EXPECT_EQ(fresh.instances("Kept.Item"), (std::vector<std::string>{"a", "c", "d", "e"}));
    sql("INSERT INTO value VALUES ('Kept.Old', 'M', '8')"); /* fails where it is there */
    EXPECT_EQ(traced("Kept.Old is stored but not part"), 2U) << "it stays where it was";
}

/* Somebody may still go without it: what is only offered is not worth a write. */
TEST_F(StoreTest, AnInstanceIsStoredOnceItsParameterSaysSo) {
    {
        Store store(loop, model, file);
        model.add("Kept.Offer", "never", {{"N", std::int64_t{1}}});
        model.add("Kept.Offer", "late", {{"N", std::int64_t{2}}});
        model.set("Kept.Offer.late.Note", {{"Text", std::string("early")}});
        model.add("Kept.Offer", "gone", {});
        EXPECT_EQ(store.flush(), "");
        model.add("Kept.Offer", "once", {{"Taken", true}, {"N", std::int64_t{3}}});
        model.set("Kept.Offer.late", {{"Taken", true}});
        model.set("Kept.Offer.never", {{"N", std::int64_t{4}}});
        model.set("Kept.Offer.gone", {{"Taken", true}});
        EXPECT_EQ(store.flush(), "");
        model.remove("Kept.Offer.gone");
        model.set("Kept.Offer.late", {{"Taken", false}, {"N", std::int64_t{5}}});
    }
    const auto read = [&] {
        SimLoop later;
        auto fresh = std::make_unique<Model>(later);
        fresh->load_text(tree, "test");
        const Store store(later, *fresh, file);
        EXPECT_EQ(fresh->instances("Kept.Offer"), (std::vector<std::string>{"once", "late"}));
        EXPECT_EQ(fresh->integer("Kept.Offer.late", "N"), 5) << "it stays";
        EXPECT_EQ(fresh->text("Kept.Offer.late.Note", "Text"), "early");
        EXPECT_TRUE(fresh->boolean("Kept.Offer.late", "Taken")) << "else it would not be here";
        fresh->set("Kept.Offer.once", {{"N", std::int64_t{6}}});
        fresh->remove("Kept.Offer.once");
        fresh->add("Kept.Offer", "once", {{"Taken", true}});
        fresh->remove("Kept.Offer.late");
        fresh->add("Kept.Offer", "late", {{"Taken", true}, {"N", std::int64_t{5}}});
        fresh->set("Kept.Offer.late.Note", {{"Text", std::string("early")}});
    };
    read();
    sql("DELETE FROM value WHERE name = 'Taken'"); /* an earlier version's file */
    sqlite3_close(std::exchange(other, nullptr));
    read();
    Model model_with_none(loop);
    EXPECT_THROW(model_with_none.load_text(R"({"objects": {"A": {"instance": {"persistent": "N", "parameters": {"N":
        ["uint32", 0]}}}}})",
                                           "test"),
                 ModelError);
}

TEST_F(StoreTest, FilesAreTheHostsAloneAndNoLinkIsFollowed) {
    const auto deep = folder / "lib" / "keel";
    {
        Store store(loop, model, deep / "keel.db");
        model.set("Kept", {{"Mode", std::string("x")}});
        loop.run_until_idle();
        EXPECT_EQ(error(), "");
        EXPECT_EQ(mode_of(deep), 0700U);
        EXPECT_EQ(mode_of(deep / "keel.db"), 0600U);
        EXPECT_EQ(mode_of(deep / "keel.db-wal"), 0600U);
    }
    std::ofstream(folder / "precious") << "not ours";
    std::filesystem::create_symlink(folder / "precious", folder / "link.db");
    Store store(loop, model, folder / "link.db");
    EXPECT_NE(error(), "");
    EXPECT_EQ(std::filesystem::file_size(folder / "precious"), 8U);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link.db"));

    std::filesystem::create_directory_symlink(deep, folder / "way");
    Model linked(loop);
    linked.load_text(tree, "test");
    const Store there(loop, linked, folder / "way" / "keel.db"); /* links on the way are the administrator's */
    EXPECT_EQ(linked.text("Kept", "Mode"), "x");
}

TEST_F(StoreTest, APersistentRootAndARowWithoutAPath) {
    const std::string whole =
        std::string(R"({"persistent": true, "parameters": {"Top": ["text", "a"]}, )") + std::string(tree).substr(1);
    Model root(loop);
    root.load_text(whole, "test");
    {
        Store store(loop, root, file);
        root.set("", {{"Top", std::string("b")}});
        root.set("Kept", {{"Mode", std::string("kept")}});
        EXPECT_EQ(store.flush(), "");
    }
    sql("INSERT INTO node VALUES ('', '', '', 0, 0)");
    EXPECT_EQ(stored("Mode"), "kept");
}

} // namespace keel
