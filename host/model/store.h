/*
 * What survives: the persistent parts of the data model, in an SQLite file.
 */
#ifndef HOST_MODEL_STORE_H
#define HOST_MODEL_STORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "host/model/model.h"

struct sqlite3;
struct sqlite3_stmt;

namespace keel {

/* Restores what the file holds into the model, then follows the model's changes. Every turn of changes is one
 * transaction (write-ahead log): a host killed at any moment leaves the last completed one.
 *
 * A file that is damaged or no store is moved aside as FILE.damaged-N and a new one begun. Stored things that the model
 * has no place for are traced and left out of the model; they stay in the file, a value of another type until its
 * object is written again. */
class Store {
public:
    /* Throws std::runtime_error when no database can be had at that place. */
    Store(Loop &loop, Model &model, const std::string &file);
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store();

    /* Writes what has changed up to now and what follows from it at once (the setting's other name), before it returns:
     * for who must answer only when a change is safe. Not from a watcher. */
    void flush();

private:
    enum class Opened { Yes, Damaged, No };
    struct Dirty {
        bool deleted = false;      /* at some time, with all below */
        std::int64_t position = 0; /* of an instance that was added: later ones have higher positions */
    };

    Opened open_database();
    Opened failure() const;
    void close_database();
    void move_aside();
    void restore();
    void restore_node(const std::string &parent, const std::string &name, bool instance);
    Values stored_values(const std::string &path, const Shape &shape);
    void on_event(const Event &event);
    void write_dirty();
    bool write_node(const Node &node, std::int64_t position);
    bool write_missing_parents(const Node &node);
    bool delete_rows(const std::string &path);
    sqlite3_stmt *prepared(const char *sql, const std::vector<Value> &values);
    bool run(const char *sql, const std::vector<Value> &values);
    bool execute(const char *sql);

    Loop &loop_;
    Model &model_;
    std::string file_;
    sqlite3 *database_ = nullptr;
    std::map<std::string, sqlite3_stmt *> prepared_; /* by their text */
    Model::WatchId watch_ = 0;
    std::map<std::string, Dirty> dirty_; /* nodes to be written, by path */
    std::uint64_t restored_ = 0;         /* the latest event when the model had been restored */
    std::int64_t highest_position_ = 0;  /* in the file at that time */
    bool write_posted_ = false;
    Loop::TimerId retry_ = 0;
    std::shared_ptr<bool> alive_;
};

} // namespace keel

#endif
