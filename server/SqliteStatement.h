#pragma once
// What the server's SQLite stores (accounts, sign-in requests) share: opening the one database file they both
// use, running a statement, one prepared statement finalised when it goes out of scope, and the clock of their
// time columns. Failures throw with the owner's name and SQLite's own message, so the caller's error answer can
// say what went wrong.
#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace sprelio::server {

// Opens `file`, creating it if need be, for use from any thread; waits up to five seconds for a lock another
// connection holds. Throws std::runtime_error when the file can't be opened.
inline sqlite3* openSqliteDatabase(const std::filesystem::path& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        std::string message = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw std::runtime_error("cannot open " + file.string() + ": " + message);
    }
    sqlite3_busy_timeout(db, 5000);
    return db;
}

// Runs statements that return no rows (schema, pragmas).
inline void execSqlite(sqlite3* db, const char* sql, const char* owner) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error(std::string(owner) + ": " + text);
    }
}

// The time columns hold whole seconds since the epoch.
inline std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class SqliteStatement {
public:
    SqliteStatement(sqlite3* db, const char* sql, const char* owner) : owner_(owner) {
        if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string(owner_) + ": " + sqlite3_errmsg(db));
    }
    ~SqliteStatement() { sqlite3_finalize(stmt_); }
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    SqliteStatement& bind(int index, const std::string& text) {
        sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        return *this;
    }
    SqliteStatement& bind(int index, std::int64_t value) {
        sqlite3_bind_int64(stmt_, index, value);
        return *this;
    }
    // True while there is a row to read; false when the statement is done.
    bool step() {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw std::runtime_error(std::string(owner_) + ": " + sqlite3_errmsg(sqlite3_db_handle(stmt_)));
    }
    std::int64_t integer(int column) { return sqlite3_column_int64(stmt_, column); }
    std::string text(int column) {
        const auto* p = sqlite3_column_text(stmt_, column);
        return p ? std::string(reinterpret_cast<const char*>(p)) : std::string();
    }

private:
    sqlite3_stmt* stmt_ = nullptr;
    const char* owner_;
};

} // namespace sprelio::server
