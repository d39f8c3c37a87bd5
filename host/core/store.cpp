#include "host/core/store.h"

#include <sqlite3.h>

#include <cstdio>
#include <filesystem>

#include "host/core/trace.h"

namespace keel {

namespace {

constexpr std::uint64_t retry_ms = 5000; /* after a write that failed */

/* position keeps the order of the instances; a node's row goes with the rows of its values. */
constexpr const char *schema =
    "CREATE TABLE IF NOT EXISTS node (path TEXT PRIMARY KEY, parent TEXT NOT NULL, name TEXT "
    "NOT NULL, instance INTEGER NOT NULL, position INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS value (path TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT "
    "NULL, PRIMARY KEY (path, name));";

/* A statement that reads. */
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
    bool row() { return statement_ && sqlite3_step(statement_) == SQLITE_ROW; }
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
    for (const auto &[sql, statement] : prepared_)
        sqlite3_finalize(statement);
    prepared_.clear();
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
    bool done = execute("BEGIN");
    for (const auto &[path, deleted] : paths) { /* in the order of paths: what is above comes first */
        done =
            done && run("DELETE FROM value WHERE path = ?", {path}) && run("DELETE FROM node WHERE path = ?", {path});
        if (deleted) /* "/" is the character after ".": everything whose path begins with the path and a dot */
            done = done && run("DELETE FROM value WHERE path > ? AND path < ?", {path + ".", path + "/"}) &&
                   run("DELETE FROM node WHERE path > ? AND path < ?", {path + ".", path + "/"});
        const Node *node = model_.find(path);
        if (node && node->path() == path && node->persistent)
            done = done && write_node(*node);
    }
    if (done && execute("COMMIT"))
        return;
    /* A full disk, say: nothing is given up, it is tried again. */
    trace(Level::Error, "store", "%s: %s; the changes are kept and written later", file_.c_str(),
          sqlite3_errmsg(database_));
    if (!sqlite3_get_autocommit(database_))
        execute("ROLLBACK");
    dirty_.insert(paths.begin(), paths.end());
    flush_posted_ = true;
    loop_.start_timer(retry_ms, [this, alive = alive_] {
        if (*alive)
            flush();
    });
}

bool Store::write_node(const Node &node) {
    if (!write_missing_parents(node))
        return false;
    const auto &siblings = node.parent->children;
    std::int64_t position = 0;
    while (siblings[static_cast<std::size_t>(position)].get() != &node)
        ++position;
    const std::string path = node.path();
    bool done = run("INSERT OR REPLACE INTO node VALUES (?, ?, ?, ?, ?)",
                    {path, node.parent->path(), node.name, std::int64_t{node.instance}, position});
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            done = done && run("INSERT OR REPLACE INTO value VALUES (?, ?, ?)",
                               {path, parameter.name, to_text(parameter.value)});
    return done;
}

/* A row is found from the rows above it. */
bool Store::write_missing_parents(const Node &node) {
    const Node *parent = node.parent;
    if (!parent || !parent->persistent)
        return true;
    Statement known(database_, "SELECT 1 FROM node WHERE path = ?");
    known.bind(parent->path());
    return known.row() || write_node(*parent);
}

/* Statements that write are prepared once. */
bool Store::run(const char *sql, const std::vector<Value> &values) {
    sqlite3_stmt *&statement = prepared_[sql];
    if (!statement && sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) != SQLITE_OK)
        return false;
    int place = 0;
    for (const Value &value : values) {
        ++place;
        if (const auto *text = std::get_if<std::string>(&value))
            sqlite3_bind_text(statement, place, text->data(), static_cast<int>(text->size()), SQLITE_TRANSIENT);
        else
            sqlite3_bind_int64(statement, place, std::get<std::int64_t>(value));
    }
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
    return done;
}

} // namespace keel
