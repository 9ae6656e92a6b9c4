#pragma once
// One SQLite connection to the store file: a table per entity with a column per attribute (exact attribute names,
// quoted) and an integer primary key "Z_PK", the store's UUID in "Z_METADATA", WAL journal, a short busy timeout.
//
// Schema: `PRAGMA user_version` holds the schema version; opening runs the migrations from the file's version to
// kSchemaVersion, each in its own transaction, and then adds every table and column of the current model that the
// file lacks (numbers and booleans with DEFAULT 0), so an attribute added later to the model migrates by itself.
// Columns the model does not know (written by a newer build) are left alone: rows are inserted with their defaults
// and updates write only the changed columns.
//
// Every failure throws StoreError in kSqliteErrorDomain with SQLite's primary result code as the code, its message
// as the description and the extended code, the file and the operation in userInfo.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/ManagedObject.h"

struct sqlite3;
struct sqlite3_stmt;

namespace sprelio::store {

class SqliteStore {
public:
    static constexpr int kSchemaVersion = 1;
    static constexpr std::chrono::milliseconds kBusyTimeout{200};
    static constexpr const char* kPrimaryKeyColumn = "Z_PK";
    static constexpr const char* kMetadataTable = "Z_METADATA";

    // Opens or creates the file and brings its schema to the current model. Throws StoreError.
    static std::shared_ptr<SqliteStore> open(const std::filesystem::path& file);
    // A fresh database in memory; it lives while any of its connections is open.
    static std::shared_ptr<SqliteStore> openInMemory();
    // Another connection to the same database (file or memory), for a second context.
    std::shared_ptr<SqliteStore> openAnotherConnection() const;
    ~SqliteStore();
    SqliteStore(const SqliteStore&) = delete;
    SqliteStore& operator=(const SqliteStore&) = delete;

    // The store's UUID, kept in the file; the host part of every object URI.
    const std::shared_ptr<const std::string>& storeUUID() const { return storeUUID_; }
    const std::filesystem::path& file() const { return file_; } // empty in memory
    bool isInMemory() const { return inMemory_; }
    std::string journalMode();
    int schemaVersion();
    // The file's schema is newer than this build knows: it was opened as it is, without a migration.
    bool writtenByNewerBuild() const { return writtenByNewerBuild_; }

    struct Row {
        std::int64_t primaryKey = 0;
        std::vector<AttributeValue> values; // one per attribute of the entity, converted to the attribute's type
    };
    // All rows, in primary key order. A row for which `valuesWanted` returns false comes back without values
    // (the context already holds its object).
    std::vector<Row> fetchAll(const EntityDescription& entity,
                              const std::function<bool(std::int64_t primaryKey)>& valuesWanted = {});
    std::optional<Row> fetchOne(const EntityDescription& entity, std::int64_t primaryKey);

    // BEGIN IMMEDIATE: takes the write lock at once (waiting at most kBusyTimeout).
    void beginTransaction();
    void commit();
    // Rolls back an open transaction; never throws.
    void rollbackTransaction() noexcept;
    bool inTransaction() const;
    std::int64_t insertRow(const EntityDescription& entity, const std::vector<AttributeValue>& values);
    // Writes the attributes listed in `changed` of the row.
    void updateRow(const EntityDescription& entity, std::int64_t primaryKey, const std::vector<AttributeValue>& values,
                   const std::vector<std::size_t>& changed);
    void deleteRow(const EntityDescription& entity, std::int64_t primaryKey);

    // Runs SQL without results (migrations, tests).
    void execute(const std::string& sql);
    sqlite3* handle() const { return db_; }

    // A name quoted for SQL: "order".
    static std::string quoted(const std::string& identifier);

private:
    SqliteStore(std::string uri, std::filesystem::path file, bool inMemory);
    void configure();
    void migrate();
    void reconcileModel();
    void loadStoreUUID();
    [[noreturn]] void fail(const std::string& operation, int rc) const;
    sqlite3_stmt* statement(const std::string& sql);
    AttributeValue readColumn(sqlite3_stmt* stmt, int column, AttributeType type) const;
    void bindValue(sqlite3_stmt* stmt, int index, const AttributeValue& value, const std::string& operation);

    std::string uri_;
    std::filesystem::path file_;
    bool inMemory_ = false;
    bool writtenByNewerBuild_ = false;
    sqlite3* db_ = nullptr;
    std::shared_ptr<const std::string> storeUUID_;
    std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

} // namespace sprelio::store
