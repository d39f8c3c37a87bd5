/*
 * What survives: the persistent parts of the data model, in an SQLite file.
 */
#ifndef HOST_CORE_STORE_H
#define HOST_CORE_STORE_H

#include <map>
#include <memory>
#include <string>

#include "host/core/model.h"

struct sqlite3;
struct sqlite3_stmt;

namespace keel {

/* Restores what the file holds into the model, then follows the model's changes. Every turn of changes is one
 * transaction (write-ahead log): a host killed at any moment leaves the last completed one.
 *
 * A file that is damaged or no database is moved aside as FILE.damaged-N and a new one begun; stored things that the
 * model has no place for are traced and left out of the model. */
class Store {
public:
    /* Throws std::runtime_error when no database can be had at that place. */
    Store(Loop &loop, Model &model, const std::string &file);
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store();

    /* Writes what has changed up to now, before it returns: for who must answer only when a change is safe. */
    void flush();

private:
    bool open_database();
    void close_database();
    void move_aside();
    void restore();
    void restore_node(const std::string &parent, const std::string &name, bool instance);
    void on_event(const Event &event);
    bool write_node(const Node &node);
    bool write_missing_parents(const Node &node);
    bool run(const char *sql, const std::vector<Value> &values);
    bool execute(const char *sql);

    Loop &loop_;
    Model &model_;
    std::string file_;
    sqlite3 *database_ = nullptr;
    std::map<std::string, sqlite3_stmt *> prepared_; /* by their text */
    Model::WatchId watch_ = 0;
    std::map<std::string, bool> dirty_; /* paths of nodes to be written; true: deleted at some time, with all below */
    bool flush_posted_ = false;
    std::shared_ptr<bool> alive_;
};

} // namespace keel

#endif
