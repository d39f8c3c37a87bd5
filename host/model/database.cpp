#include "host/model/database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>

namespace keel {

namespace {
constexpr int busy_ms = 200; /* for who has the file locked: the loop waits, too, and what fails is tried again */
} // namespace

Database::~Database() {
    close();
}

Database::Opened Database::open(const std::string &file, const char *schema) {
    const std::filesystem::path path(file);
    std::filesystem::path folder = path.parent_path();
    std::error_code ignored; /* what matters is whether the file can be opened */
    if (!folder.empty() && std::filesystem::create_directories(folder, ignored))
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ignored);
    if (const auto real = std::filesystem::canonical(folder, ignored); !ignored)
        folder = real;                /* links on the way to it are the administrator's */
    const mode_t before = umask(077); /* for the files beside it, too */
    const int result = sqlite3_open_v2((folder / path.filename()).c_str(), &database_,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    broken_ = false;
    const Opened opened = result == SQLITE_OK ? look_over(file, schema) : failure();
    umask(before);
    return opened;
}

Database::Opened Database::look_over(const std::string &file, const char *schema) {
    chmod(file.c_str(), 0600); /* an earlier version left it open to all */
    sqlite3_busy_timeout(database_, busy_ms);
    const bool set = execute("PRAGMA journal_mode=WAL") && execute("PRAGMA synchronous=NORMAL");
    const auto check = set ? select("PRAGMA quick_check") : std::nullopt;
    if (!check)
        return failure();
    if (check->empty() || check->front().front() != "ok") {
        error_ = "it is damaged";
        close();
        return Opened::Damaged;
    }
    return execute(schema) ? Opened::Yes : failure();
}

/* A file that is in use, or a disk that is full, is no reason to put the stored things away. */
Database::Opened Database::failure() {
    const int code = sqlite3_errcode(database_);
    failed();
    const bool other_tables = code == SQLITE_ERROR;
    close();
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || other_tables ? Opened::Damaged : Opened::No;
}

void Database::close() {
    for (const auto &[sql, statement] : statements_)
        sqlite3_finalize(statement);
    statements_.clear();
    const std::string log = has_moved() ? std::string(sqlite3_db_filename(database_, nullptr)) + "-wal" : "";
    sqlite3_close(database_);
    database_ = nullptr;
    std::error_code ignored;
    if (!log.empty()) /* it stays, and would be taken for that of the file that now has the name */
        std::filesystem::remove(log, ignored);
}

bool Database::has_moved() const {
    int moved = 0;
    if (database_)
        sqlite3_file_control(database_, nullptr, SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0;
}

bool Database::is_lost() const {
    return broken_ || has_moved();
}

bool Database::in_transaction() const {
    return database_ && !sqlite3_get_autocommit(database_);
}

/* Keeps the reason; always false. */
bool Database::failed() {
    error_ = database_ ? sqlite3_errmsg(database_) : "out of memory";
    const int code = sqlite3_errcode(database_);
    broken_ = broken_ || (code != SQLITE_BUSY && code != SQLITE_LOCKED && code != SQLITE_FULL && code != SQLITE_NOMEM);
    return false;
}

bool Database::execute(const char *sql) {
    return sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || failed();
}

/* To be reset after its use; null when it cannot be prepared. */
sqlite3_stmt *Database::prepared(const char *sql, const std::vector<Value> &values) {
    if (!database_)
        return nullptr;
    sqlite3_stmt *&statement = statements_[sql];
    if (!statement && sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) != SQLITE_OK)
        return nullptr;
    int place = 0;
    for (const Value &value : values) {
        ++place;
        if (const auto *text = std::get_if<std::string>(&value))
            sqlite3_bind_text(statement, place, text->data(), static_cast<int>(text->size()), SQLITE_TRANSIENT);
        else if (const auto *number = std::get_if<std::int64_t>(&value))
            sqlite3_bind_int64(statement, place, *number);
        else
            sqlite3_bind_int(statement, place, std::get<bool>(value));
    }
    return statement;
}

bool Database::run(const char *sql, const std::vector<Value> &values) {
    sqlite3_stmt *statement = prepared(sql, values);
    const bool done = (statement && sqlite3_step(statement) == SQLITE_DONE) || failed();
    sqlite3_reset(statement);
    return done;
}

std::optional<std::vector<Database::Row>> Database::select(const char *sql, const std::vector<Value> &values) {
    sqlite3_stmt *statement = prepared(sql, values);
    std::vector<Row> rows;
    int step = statement ? sqlite3_step(statement) : SQLITE_ERROR;
    for (; step == SQLITE_ROW; step = sqlite3_step(statement)) {
        Row row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            row.push_back(text ? std::string(text, size) : "");
        }
        rows.push_back(std::move(row));
    }
    if (step != SQLITE_DONE)
        failed();
    sqlite3_reset(statement);
    return step == SQLITE_DONE ? std::optional(std::move(rows)) : std::nullopt;
}

} // namespace keel
