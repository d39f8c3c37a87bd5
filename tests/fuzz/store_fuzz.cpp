/* The store's file, its rows or its very bytes made up, and a model that lives with it: what does not fit is left out,
 * and what was in the model at the end is there again at the next start. The file is in memory. */
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "host/base/trace.h"
#include "host/model/store.h"
#include "tests/fuzz/fuzz.h"

using namespace keel;
using fuzz::require;

namespace {

constexpr const char *file_name = "/keel-fuzz.db"; /* in memory: none of that name is made on the disk */
constexpr const char *box = R"({"objects": {
  "KeelHost": {"parameters": {"StoreError": ["text", ""]}},
  "Seen": {"parameters": {"Name": ["text", "s"]},
           "objects": {"Item": {"instance": {"parameters": {"Value": ["text", ""]},
                                             "objects": {"Sub": {"persistent": true,
                                                                 "instance": {"parameters": {"N": ["uint64", 0]}}}}},
                                "instances": {"one": {}}},
                       "Kept": {"persistent": true, "parameters": {"Name": ["text", "d"]},
                                "objects": {"Item": {"instance": {"parameters": {"Value": ["text", ""]}}}}}}},
  "Kept": {"persistent": true, "parameters": {"Name": ["text", "k"], "Count": ["uint8", 1], "Free": ["int32", null]},
           "objects": {"Item": {"instance": {"parameters": {"Value": ["text", ""], "On": ["bool", false]},
                                             "objects": {"Sub": {"instance": {"parameters": {"N": ["uint64", 0]}}}}}}}}}})";
constexpr const char *names[] = {"Kept", "Seen", "Item", "eth1", "eth1.20", "20",
                                 "Sub",  "1",    "one",  "a.b",  "",        "KeelHost"};
constexpr const char *parameters[] = {"Name", "Count", "Free", "Value", "On", "N", "None", "StoreError"};
constexpr std::size_t most_steps = 24;

sqlite3_vfs *memory() {
    static sqlite3_vfs *files = [] {
        sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        sqlite3_initialize();
        sqlite3_vfs *found = sqlite3_vfs_find("memdb");
        require(found && sqlite3_vfs_register(found, 1) == SQLITE_OK, "files can be kept in memory");
        return found;
    }();
    return files;
}

/* What the next start must find: all that is persistent, but for what lies below an instance that it will not have. */
std::string kept_of(const Model &model) {
    const std::string below = "Seen.Item.one.Sub";
    return fuzz::dump(model, "Kept", true) + fuzz::dump(model, "Seen.Kept", true) +
           (model.find(below) ? fuzz::dump(model, below, true) : below + "\n");
}

/* Holds the file, which is there as long as somebody has it open. */
class File {
public:
    File() : bytes_(std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(memory()->szOsFile))) {
        const int flags = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        require(memory()->xOpen(memory(), file_name, handle(), flags, nullptr) == SQLITE_OK, "the file opens");
        require(handle()->pMethods->xTruncate(handle(), 0) == SQLITE_OK, "and is empty");
    }
    ~File() { handle()->pMethods->xClose(handle()); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    void write(const Bytes &content) {
        const int size = static_cast<int>(content.size());
        require(handle()->pMethods->xWrite(handle(), content.data(), size, 0) == SQLITE_OK, "and takes bytes");
    }

private:
    sqlite3_file *handle() { return reinterpret_cast<sqlite3_file *>(bytes_.get()); }

    std::unique_ptr<std::uint8_t[]> bytes_;
};

class Play {
public:
    Play(const fuzz::Tree &tree, const std::uint8_t *data, std::size_t size) : tree_(tree), input_(data, size) {}

    void run() {
        const bool bytes = input_.below(4) == 0;
        if (bytes)
            file_.write(input_.rest(input_.number() % 65536));
        else
            make_rows();

        std::string kept;
        std::string error;
        {
            SimLoop loop;
            Model model(loop);
            tree_.plant(model);
            const std::string seen = fuzz::dump(model, "Seen", false);
            Store store(loop, model, file_name);
            require(fuzz::dump(model, "Seen", false) == seen, "what is not persistent is left alone");
            fuzz::check_model(model);
            for (std::size_t step = 0; step < most_steps && !input_.empty(); ++step)
                write(loop, model);
            error = store.flush();
            kept = kept_of(model);
            require(bytes || error.empty(), "a file that is one is written: " + error);
            require(error.empty() == model.text("KeelHost", "StoreError").empty(), "an error is shown");
        }
        SimLoop loop;
        Model model(loop);
        tree_.plant(model);
        Store store(loop, model, file_name);
        if (error.empty() && sound_)
            require(kept_of(model) == kept, "was:\n" + kept + "is:\n" + kept_of(model));
    }

private:
    std::string path() {
        std::string all = input_.below(4) == 0 ? "Seen" : "Kept";
        for (std::size_t depth = input_.below(5); depth > 0; --depth)
            all += std::string(".") + names[input_.below(std::size(names))];
        return all;
    }

    std::string parameter() { return parameters[input_.below(std::size(parameters))]; }

    /* What a store of another version may have in it, or somebody's hand. */
    void make_rows() {
        Database database;
        const char *tables = "CREATE TABLE node (path TEXT PRIMARY KEY, parent TEXT NOT NULL, name TEXT NOT NULL, "
                             "instance INTEGER NOT NULL, position INTEGER NOT NULL);"
                             "CREATE TABLE value (path TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL, "
                             "PRIMARY KEY (path, name));";
        require(database.open(file_name, tables) == Database::Opened::Yes, "a new file opens");
        database.run("BEGIN");
        for (std::size_t rows = input_.below(32); rows > 0; --rows) {
            const std::string where = path();
            if (input_.flag()) {
                database.run("INSERT OR IGNORE INTO value VALUES (?, ?, ?)", {where, parameter(), input_.text()});
                continue;
            }
            const std::string name = names[input_.below(std::size(names))];
            std::string parent = where;
            std::string row = join_path(where, name);
            const std::size_t kind = input_.below(8);
            if (kind == 0) {
                row = path();
                sound_ = false;
            } else if (kind == 2) {
                parent = "";
                row = name;
            }
            database.run("INSERT OR IGNORE INTO node VALUES (?, ?, ?, ?, ?)",
                         {row, parent, name, std::int64_t{input_.byte()} & 1, std::int64_t{input_.byte()}});
        }
        database.run("COMMIT");
    }

    void write(SimLoop &loop, Model &model) {
        const std::string where =
            input_.flag() ? fuzz::some_path(model, input_, input_.below(4) == 0 ? "Seen" : "Kept") : path();
        switch (input_.below(5)) {
        case 0:
            model.add(where, names[input_.below(std::size(names))], {});
            break;
        case 1:
            model.remove(where);
            break;
        case 2:
            loop.advance(std::uint64_t{input_.byte()} * 1000);
            break;
        default: {
            const std::string name = parameter();
            const Node *node = model.find(where);
            const Parameter *shape = node ? node->parameter(name) : nullptr;
            if (const auto value = shape ? parse_value(shape->type(), input_.text()) : std::nullopt)
                model.set(where, {{name, *value}});
        }
        }
    }

    const fuzz::Tree &tree_;
    fuzz::Input input_;
    File file_;
    bool sound_ = true; /* each row has the path of its place */
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const fuzz::Tree tree(box);
    Play(tree, data, size).run();
    return 0;
}
