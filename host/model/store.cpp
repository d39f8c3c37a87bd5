#include "host/model/store.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "host/base/trace.h"

namespace keel {

namespace {

constexpr int max_rounds = 8; /* of changes that follow from changes */
constexpr const char *host_path = "KeelHost";
constexpr std::uint64_t look_ms = 300000; /* whether the file is still there: hours may pass without a write */

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

} // namespace

Store::Store(Loop &loop, Model &model, const std::string &file)
    : loop_(loop), model_(model), file_(file), alive_(std::make_shared<bool>(true)) {
    start_ = model_.latest_event();
    watch_ = model_.watch("", [this](const Event &event) { on_event(event); });
    looking_ = loop_.start_timer(look_ms, [this] { look_at_file(); });
    if (!begin()) {
        set_error(database_.error());
        try_again();
    }
}

Store::~Store() {
    flush();
    *alive_ = false;
    loop_.cancel_timer(retry_);
    loop_.cancel_timer(looking_);
    model_.unwatch(watch_);
}

/* Opens the file and takes over what it holds. */
bool Store::begin() {
    Database::Opened opened = database_.open(file_, schema);
    if (opened == Database::Opened::Damaged && move_aside())
        opened = database_.open(file_, schema);
    if (opened != Database::Opened::Yes)
        return false;
    if (!restored_)
        restore();
    if (database_.is_lost() || (restored_ && !overwrite())) {
        database_.close();
        return false;
    }
    restored_ = true;
    return true;
}

/* False when there is nothing that can be moved. */
bool Store::move_aside() {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file_, error))
        return false;
    std::string target;
    for (int number = 1; target.empty() || std::filesystem::exists(target, error); ++number)
        target = file_ + ".damaged-" + std::to_string(number);
    for (const char *suffix : {"", "-wal", "-shm"}) {
        if (!std::filesystem::exists(file_ + suffix, error))
            continue;
        std::filesystem::rename(file_ + suffix, target + suffix, error);
        if (error) {
            trace(Level::Error, "store", "%s%s is damaged and cannot be moved aside: %s", file_.c_str(), suffix,
                  error.message().c_str());
            return false;
        }
    }
    trace(Level::Error, "store", "%s is damaged or no store; it was moved to %s and a new one begun", file_.c_str(),
          target.c_str());
    return true;
}

/* ------------------------------------------------------------------------------------------------ its failures */

void Store::set_error(const std::string &error) {
    if (error.empty() == error_.empty())
        return;
    error_ = error;
    if (error.empty())
        trace(Level::Info, "store", "%s can be used again; what was in memory alone is written", file_.c_str());
    else
        trace(Level::Error, "store", "%s cannot be used: %s; the service runs from memory, it is tried again",
              file_.c_str(), error.c_str());
    if (model_.find(host_path))
        model_.set(host_path, {{"StoreError", error.empty() ? "" : file_ + ": " + error}});
}

void Store::try_again() {
    loop_.cancel_timer(retry_);
    write_posted_ = true;
    retry_ = loop_.start_timer(pause_.next_ms(), [this, alive = alive_] {
        if (*alive)
            write_dirty();
    });
}

void Store::look_at_file() {
    looking_ = loop_.start_timer(look_ms, [this] { look_at_file(); });
    if (database_.is_open() && database_.is_lost())
        write_dirty();
}

/* -------------------------------------------------------------------------------------------------- reading */

void Store::restore() {
    model_.dispatch_now(); /* what is newer here is known then */
    /* The root has no row of its own; one with an empty path would hide all others. */
    const auto tops = database_.select("SELECT parent, name, instance FROM node WHERE path <> '' AND (parent = '' OR "
                                       "parent NOT IN (SELECT path FROM node)) ORDER BY position");
    if (tops)
        for (const Database::Row &row : *tops)
            restore_node(row[0], row[1], row[2] == "1");
    const auto highest = database_.select("SELECT MAX(position) FROM node");
    if (highest && !highest->empty())
        highest_position_ = std::strtoll(highest->front().front().c_str(), nullptr, 10);
    for (auto &[path, dirty] : dirty_) /* added while nobody knew what is in the file: they come behind that */
        if (dirty.position)
            dirty.position += highest_position_;
}

void Store::restore_node(const std::string &parent, const std::string &name, bool instance) {
    const std::string path = join_path(parent, name);
    const auto newer = dirty_.find(path);
    if (newer != dirty_.end() && (newer->second.deleted || newer->second.position))
        return;
    const Node *node = model_.find(path);
    const Node *above = model_.find(parent);
    const bool missing = !node && instance && above && above->multi;
    const Shape *shape = node ? node->shape : missing ? above->shape->instance : nullptr;
    if (!shape ||
        !(node ? node->persistent : above->persistent || shape->persistent || !shape->persistent_once.empty())) {
        trace(Level::Warning, "store", "%s is stored but not part of the model's persistent objects", path.c_str());
        if (node)
            restore_below(path); /* some of it may be persistent all the same */
        else
            left_out_.insert(path);
        return;
    }
    Values values = stored_values(path, *shape);
    if (newer != dirty_.end())
        std::erase_if(values, [&](const auto &value) { return newer->second.changed.contains(value.first); });
    if (!shape->persistent_once.empty()) /* an earlier version had no such parameter */
        values[shape->persistent_once] = true;
    const std::uint64_t before = model_.latest_event();
    const Outcome refusal = missing ? model_.add(parent, name, values) : model_.set(path, values);
    if (model_.latest_event() != before)
        own_events_.insert(model_.latest_event());
    if (refusal) {
        trace(Level::Warning, "store", "%s is stored but has no place: %s", path.c_str(), refusal->reason.c_str());
        left_out_.insert(path);
        return;
    }
    model_.dispatch_now(); /* at the start nobody follows the model yet: events in their thousands need not wait */
    restore_below(path);
}

void Store::restore_below(const std::string &path) {
    const auto children =
        database_.select("SELECT name, instance FROM node WHERE parent = ? AND path <> '' ORDER BY position", {path});
    if (children)
        for (const Database::Row &row : *children)
            restore_node(path, row[0], row[1] == "1");
}

Values Store::stored_values(const std::string &path, const Shape &shape) {
    Values values;
    const auto stored = database_.select("SELECT name, value FROM value WHERE path = ?", {path});
    if (stored)
        for (const Database::Row &row : *stored) {
            const ParameterShape *parameter = shape.parameter(row[0]);
            if (const auto value = parameter ? parse_value(parameter->type, row[1]) : std::nullopt)
                values[row[0]] = *value;
            else
                trace(Level::Warning, "store", "%s: the stored value of %s does not fit the model", path.c_str(),
                      row[0].c_str());
        }
    return values;
}

/* -------------------------------------------------------------------------------------------------- writing */

void Store::on_event(const Event &event) {
    if (event.kind == Event::Kind::Custom || event.number <= start_ || own_events_.erase(event.number) != 0)
        return;
    if (!event.persistent)
        return;
    const std::string path = event.path();
    Dirty &dirty = dirty_[path];
    if (event.kind == Event::Kind::Deleted)
        dirty.deleted = true;
    else if (event.kind == Event::Kind::Added || became_persistent(event))
        dirty.position = highest_position_ + static_cast<std::int64_t>(event.number);
    else if (!restored_)
        for (const auto &[name, value] : event.values)
            dirty.changed.insert(name);
    if (write_posted_)
        return;
    write_posted_ = true;
    loop_.post([this, alive = alive_] {
        if (*alive)
            write_dirty();
    });
}

/* What was added before has no rows then. */
bool Store::became_persistent(const Event &event) {
    const Node *node = model_.find(event.path());
    if (!node || !event.values.contains(node->shape->persistent_once))
        return false;
    mark_below(*node);
    return true;
}

void Store::mark_below(const Node &node) {
    for (const Node &child : node.children)
        if (child.persistent) {
            dirty_[child.path()].position = highest_position_ + static_cast<std::int64_t>(model_.latest_event());
            mark_below(child);
        }
}

std::string Store::flush() {
    std::uint64_t told = 0;
    for (int round = 0; round < max_rounds && told != model_.latest_event(); ++round) {
        told = model_.latest_event();
        model_.dispatch_now();
    }
    write_dirty();
    return error_;
}

void Store::write_dirty() {
    write_posted_ = false;
    loop_.cancel_timer(retry_);
    if (!write_once() && !(database_.is_lost() && write_once())) { /* a full disk, say: nothing is given up */
        set_error(database_.error());
        try_again();
        return;
    }
    pause_.reset();
    set_error("");
}

bool Store::write_once() {
    if (database_.is_open() && database_.is_lost()) {
        if (error_.empty())
            trace(Level::Warning, "store",
                  "%s was taken away or replaced, or the disk lost hold of it: all is written anew", file_.c_str());
        database_.close();
    }
    if (!database_.is_open() && !begin())
        return false;
    const auto changes = std::exchange(dirty_, {});
    if (changes.empty() || write_all(changes))
        return true;
    if (database_.in_transaction())
        database_.run("ROLLBACK");
    dirty_.insert(changes.begin(), changes.end());
    return false;
}

bool Store::write_all(const std::map<std::string, Dirty> &changes) {
    bool done = database_.run("BEGIN");
    std::vector<std::string> replaced;
    for (const auto &[path, dirty] : changes) { /* in the order of paths: what is above comes first */
        if (dirty.deleted)
            done = done && delete_rows(path);
        if (dirty.position)
            for (const std::string &old : left_out_within(path)) {
                done = done && delete_rows(old);
                replaced.push_back(old);
            }
        const Node *node = model_.find(path);
        if (node && node->path() == path && node->persistent)
            done = done && write_node(*node, dirty.position);
    }
    if (!done || !database_.run("COMMIT"))
        return false;
    for (const std::string &path : replaced)
        left_out_.erase(path);
    return true;
}

/* What the file holds of what the model has a place for goes, and all is written that the model holds. */
bool Store::overwrite() {
    for (const auto &[path, dirty] : dirty_)
        if (dirty.position)
            for (const std::string &old : left_out_within(path))
                left_out_.erase(old);
    const auto rows = database_.select("SELECT path, parent FROM node ORDER BY length(path)"); /* parents come first */
    bool done = rows && database_.run("BEGIN");
    std::set<std::string> kept;
    for (std::size_t at = 0; done && at < rows->size(); ++at) {
        const std::string &path = (*rows)[at][0];
        if (left_out_.contains(path) || kept.contains((*rows)[at][1]))
            kept.insert(path);
        else
            done = database_.run("DELETE FROM value WHERE path = ?", {path}) &&
                   database_.run("DELETE FROM node WHERE path = ?", {path});
    }
    std::int64_t position = 0;
    done = done && write_all_below(*model_.find(""), &position) && database_.run("COMMIT");
    if (!done)
        return false;
    dirty_.clear();
    highest_position_ = position;
    return true;
}

bool Store::write_all_below(const Node &node, std::int64_t *position) {
    return (!node.persistent || write_node(node, ++*position)) &&
           std::all_of(node.children.begin(), node.children.end(),
                       [&](const Node &child) { return write_all_below(child, position); });
}

/* Of an instance that was added, and of what is below it: at the next start these rows would be taken for its own. */
std::vector<std::string> Store::left_out_within(const std::string &path) const {
    std::vector<std::string> within;
    for (auto at = left_out_.lower_bound(path); at != left_out_.end() && at->starts_with(path); ++at)
        if (*at == path || (*at)[path.size()] == '.')
            within.push_back(*at);
    return within;
}

/* A row that is there keeps its position, and values that this model does not know. */
bool Store::write_node(const Node &node, std::int64_t position) {
    if (!node.parent) /* the root is not stored */
        return true;
    if (!write_missing_parents(node))
        return false;
    const std::string path = node.path();
    bool done = database_.run("DELETE FROM value WHERE path = ?1 AND NOT EXISTS (SELECT 1 FROM node WHERE path = ?1)",
                              {path}); /* nobody has read them */
    done = done && database_.run("INSERT INTO node VALUES (?, ?, ?, ?, ?) ON CONFLICT (path) DO NOTHING",
                                 {path, node.parent->path(), node.name, node.instance, position});
    for (const Parameter &parameter : node.parameters)
        if (parameter.present)
            done = done && database_.run("INSERT OR REPLACE INTO value VALUES (?, ?, ?)",
                                         {path, parameter.name(), to_text(parameter.value)});
    return done;
}

/* A row is found from the rows above it. */
bool Store::write_missing_parents(const Node &node) {
    const Node *parent = node.parent;
    if (!parent->parent || !parent->persistent)
        return true;
    const auto known = database_.select("SELECT 1 FROM node WHERE path = ?", {parent->path()});
    return known && (!known->empty() || write_node(*parent, 0));
}

/* Of an object and of all below it. A path's text is not enough to tell what that is: "eth1.20" may stand beside
 * "eth1". Its own row goes before those below, so that rows that form a ring come to an end, too. */
bool Store::delete_rows(const std::string &path) {
    const auto below = database_.select("SELECT path FROM node WHERE parent = ?", {path});
    return below && database_.run("DELETE FROM value WHERE path = ?", {path}) &&
           database_.run("DELETE FROM node WHERE path = ?", {path}) &&
           std::all_of(below->begin(), below->end(), [this](const Database::Row &row) { return delete_rows(row[0]); });
}

} // namespace keel
