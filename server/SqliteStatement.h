#pragma once
// One prepared SQLite statement, finalised when it goes out of scope. Failures throw with the owner's name and
// SQLite's own message, so the caller's error answer can say what went wrong.
#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sprelio::server {

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
