#pragma once
// Shared set-up of the object store tests: a temporary folder, raw SQLite access to the store file from a second
// connection, a fake AppDelegate that counts cache refreshes.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "platform/test/TestPlatform.h"
#include "store/Persistence.h"
#include "store/SqliteStore.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio::store::testing {

using TempFolder = platform::test::TemporaryFolder;

// A second, independent connection to a store file, as another process would have.
class RawDatabase {
public:
    explicit RawDatabase(const std::filesystem::path& file) {
        if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db_));
        sqlite3_busy_timeout(db_, 2000);
    }
    ~RawDatabase() { sqlite3_close_v2(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    void exec(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            std::string text = message ? message : "?";
            sqlite3_free(message);
            throw std::runtime_error(text + " in: " + sql);
        }
    }
    // The rows of a query, each column as text ("NULL" for null).
    std::vector<std::vector<std::string>> query(const std::string& sql) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        std::vector<std::vector<std::string>> rows;
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
                row.emplace_back(text ? text : "NULL");
            }
            rows.push_back(std::move(row));
        }
        sqlite3_finalize(stmt);
        return rows;
    }
    std::string scalar(const std::string& sql) {
        auto rows = query(sql);
        return rows.empty() || rows[0].empty() ? std::string("<none>") : rows[0][0];
    }

private:
    sqlite3* db_ = nullptr;
};

// Counts the refreshes of the shortcut cache that the application hangs on the store's saves.
class CountingAppDelegate {
public:
    std::function<void()> didSaveHook() {
        return [this] { ++calls; };
    }
    int calls = 0;
};

// A store file in a temporary folder with its controller, a recording log and a counting AppDelegate.
class ObjectStoreTest : public ::testing::Test {
protected:
    void SetUp() override {}
    void TearDown() override { PersistenceController::uninstallForTesting(); }
    std::filesystem::path storeFile() const { return folder.path() / PersistenceController::kStoreFileName; }
    // Lines of the log that start with `prefix`, in order.
    std::vector<platform::test::RecordingLogSink::Line> linesStartingWith(const std::string& prefix) const {
        std::vector<platform::test::RecordingLogSink::Line> out;
        for (const auto& l : log.lines())
            if (l.message.starts_with(prefix)) out.push_back(l);
        return out;
    }

    TempFolder folder;
    platform::test::RecordingLogSink log;
    CountingAppDelegate appDelegate;
};

} // namespace sprelio::store::testing
