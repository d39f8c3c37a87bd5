#include "host/model/store.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr std::uint64_t retry_ms = 5000; /* after a write that failed */
constexpr int max_rounds = 8;            /* of changes that follow from changes */

/* position keeps the order of the instances; a node's row goes with the rows of its values. The reading statements find
 * out whether the tables are ours. */
constexpr const char *schema =
    "CREATE TABLE IF NOT EXISTS node (path TEXT PRIMARY KEY, parent TEXT NOT NULL, name TEXT "
    "NOT NULL, instance INTEGER NOT NULL, position INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS value (path TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT "
    "NULL, PRIMARY KEY (path, name));"
    "SELECT path, parent, name, instance, position FROM node LIMIT 0;"
    "SELECT path, name, value FROM value LIMIT 0;"
    "CREATE INDEX IF NOT EXISTS node_parent ON node (parent);";

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
        return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))) : "";
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    bool boolean(int column) const { return sqlite3_column_int(statement_, column) != 0; }

private:
    sqlite3_stmt *statement_ = nullptr;
    int bound_ = 0;
};

} // namespace

Store::Store(Loop &loop, Model &model, const std::string &file)
    : loop_(loop), model_(model), file_(file), alive_(std::make_shared<bool>(true)) {
    Opened opened = open_database();
    if (opened == Opened::Damaged) {
        close_database();
        move_aside();
        opened = open_database();
    }
    if (opened != Opened::Yes) {
        const std::string reason = database_ ? sqlite3_errmsg(database_) : "out of memory";
        close_database();
        throw std::runtime_error(file + ": cannot be used as the store: " + reason);
    }
    restore();
    restored_ = model_.latest_event();
    watch_ = model_.watch("", [this](const Event &event) { on_event(event); });
}

Store::~Store() {
    flush();
    *alive_ = false;
    model_.unwatch(watch_);
    close_database();
}

Store::Opened Store::open_database() {
    if (sqlite3_open(file_.c_str(), &database_) != SQLITE_OK)
        return failure();
    sqlite3_busy_timeout(database_, 2000);
    if (!execute("PRAGMA journal_mode=WAL") || !execute("PRAGMA synchronous=NORMAL"))
        return failure();
    {
        Statement check(database_, "PRAGMA quick_check");
        if (!check.row())
            return failure();
        if (check.text(0) != "ok")
            return Opened::Damaged;
    }
    return execute(schema) ? Opened::Yes : failure();
}

/* A file that is in use, or a disk that is full, is no reason to put the stored things away. */
Store::Opened Store::failure() const {
    const int code = sqlite3_errcode(database_);
    const bool other_tables = code == SQLITE_ERROR;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || other_tables ? Opened::Damaged : Opened::No;
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
    Statement highest(database_, "SELECT MAX(position) FROM node");
    if (highest.row())
        highest_position_ = highest.integer(0);
}

void Store::restore_node(const std::string &parent, const std::string &name, bool instance) {
    const std::string path = join_path(parent, name);
    const Node *node = model_.find(path);
    const Node *above = model_.find(parent);
    const bool missing = !node && instance && above && above->multi;
    const Shape *shape = node ? node->shape : missing ? above->shape->instance : nullptr;
    if (!shape || !(node ? node->persistent : above->persistent || shape->persistent)) {
        trace(Level::Warning, "store", "%s is stored but not part of the model's persistent objects", path.c_str());
        return;
    }
    const Values values = stored_values(path, *shape);
    const Outcome refusal = missing ? model_.add(parent, name, values) : model_.set(path, values);
    if (refusal) {
        trace(Level::Warning, "store", "%s is stored but has no place: %s", path.c_str(), refusal->reason.c_str());
        return;
    }
    model_.dispatch_now(); /* nobody follows the model yet, and events in their thousands need not wait for somebody */
    Statement children(database_, "SELECT name, instance FROM node WHERE parent = ? ORDER BY position");
    children.bind(path);
    while (children.row())
        restore_node(path, children.text(0), children.boolean(1));
}

Values Store::stored_values(const std::string &path, const Shape &shape) {
    Values values;
    Statement stored(database_, "SELECT name, value FROM value WHERE path = ?");
    stored.bind(path);
    while (stored.row()) {
        const std::string name = stored.text(0);
        const ParameterShape *parameter = shape.parameter(name);
        if (const auto value = parameter ? parse_value(parameter->type, stored.text(1)) : std::nullopt)
            values[name] = *value;
        else
            trace(Level::Warning, "store", "%s: the stored value of %s does not fit the model", path.c_str(),
                  name.c_str());
    }
    return values;
}

/* -------------------------------------------------------------------------------------------------- writing */

void Store::on_event(const Event &event) {
    if (event.kind == Event::Kind::Custom || event.number <= restored_)
        return;
    const std::string path = event.path();
    const Node *node = model_.find(path);
    if (node && !node->persistent)
        return;
    Dirty &dirty = dirty_[path];
    if (event.kind == Event::Kind::Deleted)
        dirty.deleted = true;
    else if (event.kind == Event::Kind::Added)
        dirty.position = highest_position_ + static_cast<std::int64_t>(event.number);
    if (write_posted_)
        return;
    write_posted_ = true;
    loop_.post([this, alive = alive_] {
        if (*alive)
            write_dirty();
    });
}

void Store::flush() {
    std::uint64_t told = 0;
    for (int round = 0; round < max_rounds && told != model_.latest_event(); ++round) {
        told = model_.latest_event();
        model_.dispatch_now();
    }
    write_dirty();
}

void Store::write_dirty() {
    write_posted_ = false;
    loop_.cancel_timer(retry_);
    if (dirty_.empty())
        return;
    const auto paths = std::exchange(dirty_, {});
    bool done = execute("BEGIN");
    for (const auto &[path, dirty] : paths) { /* in the order of paths: what is above comes first */
        if (dirty.deleted)
            done = done && delete_rows(path);
        const Node *node = model_.find(path);
        if (node && node->path() == path && node->persistent)
            done = done && write_node(*node, dirty.position);
    }
    if (done && execute("COMMIT"))
        return;
    /* A full disk, say: nothing is given up, it is tried again. */
    trace(Level::Error, "store", "%s: %s; the changes are kept and written later", file_.c_str(),
          sqlite3_errmsg(database_));
    if (!sqlite3_get_autocommit(database_))
        execute("ROLLBACK");
    dirty_.insert(paths.begin(), paths.end());
    write_posted_ = true;
    retry_ = loop_.start_timer(retry_ms, [this, alive = alive_] {
        if (*alive)
            write_dirty();
    });
}

/* A row that is there keeps its position, and values that this model does not know. */
bool Store::write_node(const Node &node, std::int64_t position) {
    if (!write_missing_parents(node))
        return false;
    const std::string path = node.path();
    bool done = run("INSERT INTO node VALUES (?, ?, ?, ?, ?) ON CONFLICT (path) DO NOTHING",
                    {path, node.parent->path(), node.name, std::int64_t{node.instance}, position});
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            done = done && run("INSERT OR REPLACE INTO value VALUES (?, ?, ?)",
                               {path, parameter.name(), to_text(parameter.value)});
    return done;
}

/* A row is found from the rows above it. */
bool Store::write_missing_parents(const Node &node) {
    const Node *parent = node.parent;
    if (!parent || !parent->persistent)
        return true;
    sqlite3_stmt *look = prepared("SELECT 1 FROM node WHERE path = ?", {parent->path()});
    const bool known = look && sqlite3_step(look) == SQLITE_ROW;
    sqlite3_reset(look);
    return known || write_node(*parent, 0);
}

/* Of an object and of all below it. A path's text is not enough to tell what that is: "eth1.20" may stand beside
 * "eth1". */
bool Store::delete_rows(const std::string &path) {
    std::vector<std::string> below;
    sqlite3_stmt *children = prepared("SELECT path FROM node WHERE parent = ?", {path});
    while (children && sqlite3_step(children) == SQLITE_ROW)
        below.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(children, 0)));
    sqlite3_reset(children);
    return children && run("DELETE FROM value WHERE path = ?", {path}) &&
           run("DELETE FROM node WHERE path = ?", {path}) && /* before those below: rows of a ring end, too */
           std::all_of(below.begin(), below.end(), [this](const auto &one) { return delete_rows(one); });
}

/* Statements are prepared once. Null when it cannot be; else it is to be reset after its use. */
sqlite3_stmt *Store::prepared(const char *sql, const std::vector<Value> &values) {
    sqlite3_stmt *&statement = prepared_[sql];
    if (!statement && sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) != SQLITE_OK)
        return nullptr;
    int place = 0;
    for (const Value &value : values) {
        ++place;
        if (const auto *text = std::get_if<std::string>(&value))
            sqlite3_bind_text(statement, place, text->data(), static_cast<int>(text->size()), SQLITE_TRANSIENT);
        else
            sqlite3_bind_int64(statement, place, std::get<std::int64_t>(value));
    }
    return statement;
}

bool Store::run(const char *sql, const std::vector<Value> &values) {
    sqlite3_stmt *statement = prepared(sql, values);
    const bool done = statement && sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
    return done;
}

} // namespace keel
