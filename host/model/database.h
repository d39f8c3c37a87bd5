/*
 * The SQLite file behind the store: opened safely, statements prepared once.
 */
#ifndef HOST_MODEL_DATABASE_H
#define HOST_MODEL_DATABASE_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/model/value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace keel {

class Database {
public:
    enum class Opened {
        Yes,
        Damaged, /* the file is damaged, no database, or somebody else's */
        No       /* in use, on a full or read-only disk, not there */
    };
    using Row = std::vector<std::string>; /* every column as a text */

    Database() = default;
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    ~Database();

    /* Opens the file, which is made with mode 0600 when there is none, and its folder with 0700; a link is not
     * followed. Why it did not open is in error() then. schema is run, and must fail when the tables are not ours. */
    Opened open(const std::string &file, const char *schema);
    void close();
    bool is_open() const { return database_ != nullptr; }
    /* What is open, or was, may be of no use any more: its name is another file's by now, or nobody's, or something
     * failed that is neither a lock nor a full disk. Opened anew it may be. */
    bool is_lost() const;

    bool run(const char *sql, const std::vector<Value> &values = {});
    /* Nothing when it failed. */
    std::optional<std::vector<Row>> select(const char *sql, const std::vector<Value> &values = {});
    /* Whether a transaction was begun and not ended. */
    bool in_transaction() const;
    /* What failed last, for a person. */
    const std::string &error() const { return error_; }

private:
    sqlite3_stmt *prepared(const char *sql, const std::vector<Value> &values);
    bool execute(const char *sql);
    Opened look_over(const std::string &file, const char *schema);
    Opened failure();
    bool failed();
    bool has_moved() const;

    sqlite3 *database_ = nullptr;
    std::map<std::string, sqlite3_stmt *> statements_; /* by their text */
    std::string error_;
    bool broken_ = false; /* since it was opened last */
};

} // namespace keel

#endif
