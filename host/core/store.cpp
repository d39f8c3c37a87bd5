#include "host/core/store.h"

#include <sqlite3.h>

#include <cstdio>
#include <filesystem>

#include "host/core/trace.h"

namespace keel {

namespace {

/* position keeps the order of the instances; a node's row goes with the rows of its values. */
constexpr const char *schema =
    "CREATE TABLE IF NOT EXISTS node (path TEXT PRIMARY KEY, parent TEXT NOT NULL, name TEXT "
    "NOT NULL, instance INTEGER NOT NULL, position INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS value (path TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT "
    "NULL, PRIMARY KEY (path, name));";

/* "/" is the character after ".": everything whose path begins with the path and a dot. */
constexpr const char *below_value = "DELETE FROM value WHERE path > ? AND path < ?";
constexpr const char *below_node = "DELETE FROM node WHERE path > ? AND path < ?";

/* One prepared statement, stepped and finalised. */
class Statement {
public:
    Statement(sqlite3 *database, const char *sql) { sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { sqlite3_finalize(statement_); }

    Statement &bind(const std::string &text) {
        sqlite3_bind_text(statement_, ++bound_, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement &bind(std::int64_t number) {
        sqlite3_bind_int64(statement_, ++bound_, number);
        return *this;
    }
    bool row() { return statement_ && sqlite3_step(statement_) == SQLITE_ROW; }
    bool done() { return statement_ && sqlite3_step(statement_) == SQLITE_DONE; }
    std::string text(int column) const {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
        return text ? text : "";
    }
    bool boolean(int column) const { return sqlite3_column_int(statement_, column) != 0; }

private:
    sqlite3_stmt *statement_ = nullptr;
    int bound_ = 0;
};

} // namespace

Store::Store(Loop &loop, Model &model, const std::string &file)
    : loop_(loop), model_(model), file_(file), alive_(std::make_shared<bool>(true)) {
    if (!open_database()) {
        close_database();
        move_aside();
        if (!open_database()) {
            const std::string reason = database_ ? sqlite3_errmsg(database_) : "out of memory";
            close_database();
            throw std::runtime_error(file + ": cannot be used as the store: " + reason);
        }
    }
    restore();
    watch_ = model_.watch("", [this](const Event &event) { on_event(event); });
}

Store::~Store() {
    flush();
    *alive_ = false;
    model_.unwatch(watch_);
    close_database();
}

bool Store::open_database() {
    if (sqlite3_open(file_.c_str(), &database_) != SQLITE_OK)
        return false;
    sqlite3_busy_timeout(database_, 2000);
    if (!execute("PRAGMA journal_mode=WAL") || !execute("PRAGMA synchronous=NORMAL"))
        return false;
    Statement check(database_, "PRAGMA quick_check");
    return check.row() && check.text(0) == "ok" && execute(schema);
}

void Store::close_database() {
    sqlite3_close(database_);
    database_ = nullptr;
}

void Store::move_aside() {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file_, error))
        return;
    std::string target;
    for (int number = 1; target.empty() || std::filesystem::exists(target, error); ++number)
        target = file_ + ".damaged-" + std::to_string(number);
    for (const char *suffix : {"", "-wal", "-shm"}) {
        if (!std::filesystem::exists(file_ + suffix, error))
            continue;
        std::filesystem::rename(file_ + suffix, target + suffix, error);
        if (error)
            throw std::runtime_error(file_ + suffix + ": cannot be moved aside: " + error.message());
    }
    trace(Level::Error, "store", "%s is damaged or no store; it was moved to %s and a new one begun", file_.c_str(),
          target.c_str());
}

bool Store::execute(const char *sql) {
    char *message = nullptr;
    if (sqlite3_exec(database_, sql, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    trace(Level::Error, "store", "%s: %s", file_.c_str(), message ? message : "unknown error");
    sqlite3_free(message);
    return false;
}

/* -------------------------------------------------------------------------------------------------- reading */

void Store::restore() {
    Statement tops(database_,
                   "SELECT parent, name, instance FROM node WHERE parent NOT IN (SELECT path FROM node) ORDER "
                   "BY position");
    while (tops.row())
        restore_node(tops.text(0), tops.text(1), tops.boolean(2));
}

void Store::restore_node(const std::string &parent, const std::string &name, bool instance) {
    const std::string path = parent.empty() ? name : parent + "." + name;
    const Node *node = model_.find(path);
    if (!node && instance) {
        if (const Outcome refusal = model_.add(parent, name, {}))
            trace(Level::Warning, "store", "%s is stored but has no place: %s", path.c_str(), refusal->reason.c_str());
        node = model_.find(path);
    }
    if (!node || !node->persistent) {
        trace(Level::Warning, "store", "%s is stored but not part of the model's persistent objects", path.c_str());
        return;
    }
    Statement stored(database_, "SELECT name, value FROM value WHERE path = ?");
    stored.bind(path);
    while (stored.row()) {
        const std::string parameter_name = stored.text(0);
        const Parameter *parameter = node->parameter(parameter_name);
        const auto value = parameter ? parse_value(parameter->type, stored.text(1)) : std::nullopt;
        if (!value)
            trace(Level::Warning, "store", "%s: the stored value of %s does not fit the model", path.c_str(),
                  parameter_name.c_str());
        else
            model_.set(path, {{parameter_name, *value}});
    }
    Statement children(database_, "SELECT name, instance FROM node WHERE parent = ? ORDER BY position");
    children.bind(path);
    while (children.row())
        restore_node(path, children.text(0), children.boolean(1));
}

/* -------------------------------------------------------------------------------------------------- writing */

void Store::on_event(const Event &event) {
    if (event.kind == Event::Kind::Custom)
        return;
    const std::string path = event.path();
    const Node *node = model_.find(path);
    if (node && !node->persistent)
        return;
    dirty_[path] |= event.kind == Event::Kind::Deleted;
    if (flush_posted_)
        return;
    flush_posted_ = true;
    loop_.post([this, alive = alive_] {
        if (*alive)
            flush();
    });
}

void Store::flush() {
    model_.dispatch_now();
    flush_posted_ = false;
    if (dirty_.empty())
        return;
    const auto paths = std::exchange(dirty_, {});
    execute("BEGIN");
    for (const auto &[path, deleted] : paths) { /* in the order of paths: what is above comes first */
        Statement(database_, "DELETE FROM value WHERE path = ?").bind(path).done();
        Statement(database_, "DELETE FROM node WHERE path = ?").bind(path).done();
        if (deleted) {
            Statement(database_, below_value).bind(path + ".").bind(path + "/").done();
            Statement(database_, below_node).bind(path + ".").bind(path + "/").done();
        }
        const Node *node = model_.find(path);
        if (node && node->path() == path && node->persistent)
            write_node(*node);
    }
    execute("COMMIT");
}

void Store::write_node(const Node &node) {
    write_missing_parents(node);
    const auto &siblings = node.parent->children;
    std::int64_t position = 0;
    while (siblings[static_cast<std::size_t>(position)].get() != &node)
        ++position;
    const std::string path = node.path();
    Statement(database_, "INSERT OR REPLACE INTO node VALUES (?, ?, ?, ?, ?)")
        .bind(path)
        .bind(node.parent->path())
        .bind(node.name)
        .bind(node.instance ? 1 : 0)
        .bind(position)
        .done();
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            Statement(database_, "INSERT OR REPLACE INTO value VALUES (?, ?, ?)")
                .bind(path)
                .bind(parameter.name)
                .bind(to_text(parameter.value))
                .done();
}

/* A row is found from the rows above it. */
void Store::write_missing_parents(const Node &node) {
    const Node *parent = node.parent;
    if (!parent || !parent->persistent)
        return;
    Statement known(database_, "SELECT 1 FROM node WHERE path = ?");
    known.bind(parent->path());
    if (!known.row())
        write_node(*parent);
}

} // namespace keel
