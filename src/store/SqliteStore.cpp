#include "store/SqliteStore.h"

#include <sqlite3.h>

#include <cmath>

#include "base/Uuid.h"
#include "base/Log.h"
#include "store/Entities.h"

namespace sprelio::store {

namespace {

// Resets a cached statement when the scope ends, so that no read transaction stays open.
struct StatementReset {
    sqlite3_stmt* stmt;
    ~StatementReset() {
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
};

std::string columnDefinition(const AttributeDescription& attribute) {
    std::string def = SqliteStore::quoted(attribute.name) + " ";
    switch (attribute.type) {
    case AttributeType::int16:
    case AttributeType::boolean: def += "INTEGER DEFAULT 0"; break;
    case AttributeType::date: def += "REAL"; break;
    case AttributeType::uuid:
    case AttributeType::string:
    case AttributeType::url: def += "TEXT"; break;
    }
    return def;
}

std::string createTableSql(const EntityDescription& entity) {
    std::string sql = "CREATE TABLE IF NOT EXISTS " + SqliteStore::quoted(entity.name) + " (" +
                      SqliteStore::quoted(SqliteStore::kPrimaryKeyColumn) + " INTEGER PRIMARY KEY";
    for (const auto& a : entity.attributes) sql += ", " + columnDefinition(a);
    return sql + ")";
}

// The migration list. Each step brings the file from the version before it to `toVersion` and runs in its own
// transaction together with the new `PRAGMA user_version`. Columns that a later model adds need no step: opening
// adds them (reconcileModel). Steps are for changes that adding a column can't express (data conversions,
// renamed or retyped columns); once released, a step's SQL never changes.
struct Migration {
    int toVersion;
    const char* name;
    const char* sql;
};

const std::vector<Migration>& migrations() {
    static const std::vector<Migration> list{
        {1, "initial model \"Persistence\"",
         R"sql(
CREATE TABLE IF NOT EXISTS "Z_METADATA" ("key" TEXT PRIMARY KEY NOT NULL, "value" TEXT);
CREATE TABLE IF NOT EXISTS "UserShortcut" ("Z_PK" INTEGER PRIMARY KEY, "uuid" TEXT, "order" INTEGER DEFAULT 0,
  "timestamp" REAL, "shortcutString" TEXT, "modifierEventKeyCode" INTEGER DEFAULT 0, "modifierEventCharacters" TEXT,
  "singleModifierDirection" TEXT, "mouseEventMouseButton" INTEGER DEFAULT 0, "hold" INTEGER DEFAULT 0,
  "shortcutActionRawValue" TEXT, "inputLanguageCode" TEXT, "intelligenceActionCategoryRawValue" TEXT,
  "intelligenceActionItemIdString" TEXT, "intelligenceActionCompletionType" TEXT);
CREATE TABLE IF NOT EXISTS "LogEntry" ("Z_PK" INTEGER PRIMARY KEY, "message" TEXT, "level" INTEGER DEFAULT 0,
  "fileURL" TEXT, "fileDurationString" TEXT, "requestID" TEXT, "timestamp" REAL);
CREATE TABLE IF NOT EXISTS "Substitution" ("Z_PK" INTEGER PRIMARY KEY, "input" TEXT, "output" TEXT,
  "isBlankNew" INTEGER DEFAULT 0, "timestamp" REAL);
CREATE TABLE IF NOT EXISTS "IntelligencePreset" ("Z_PK" INTEGER PRIMARY KEY, "uuid" TEXT, "order" INTEGER DEFAULT 0,
  "title" TEXT, "prompt" TEXT, "model" TEXT);
)sql"},
    };
    return list;
}

constexpr const char* kStoreUUIDKey = "storeUUID";

} // namespace

std::string SqliteStore::quoted(const std::string& identifier) {
    std::string s = "\"";
    for (char c : identifier) {
        if (c == '"') s += "\"\"";
        else s.push_back(c);
    }
    return s + "\"";
}

SqliteStore::SqliteStore(std::string uri, std::filesystem::path file, bool inMemory)
    : uri_(std::move(uri)), file_(std::move(file)), inMemory_(inMemory) {}

std::shared_ptr<SqliteStore> SqliteStore::open(const std::filesystem::path& file) {
    std::shared_ptr<SqliteStore> store(new SqliteStore(file.string(), file, false));
    store->configure();
    store->migrate();
    store->reconcileModel();
    store->loadStoreUUID();
    return store;
}

std::shared_ptr<SqliteStore> SqliteStore::openInMemory() {
    // The "memdb" VFS with a name that starts with "/" is one database shared by every connection of the process
    // that opens the same name, and it lives while one of them is open.
    std::string uri = "file:/sprelio-memory-" + Uuid::random().string() + "?vfs=memdb";
    std::shared_ptr<SqliteStore> store(new SqliteStore(uri, {}, true));
    store->configure();
    store->migrate();
    store->reconcileModel();
    store->loadStoreUUID();
    return store;
}

std::shared_ptr<SqliteStore> SqliteStore::openAnotherConnection() const {
    std::shared_ptr<SqliteStore> store(new SqliteStore(uri_, file_, inMemory_));
    store->configure();
    store->loadStoreUUID();
    return store;
}

SqliteStore::~SqliteStore() {
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
    if (db_) sqlite3_close_v2(db_);
}

void SqliteStore::configure() {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (inMemory_) flags |= SQLITE_OPEN_URI;
    int rc = sqlite3_open_v2(uri_.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) fail("open", rc);
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, static_cast<int>(kBusyTimeout.count()));
    // The first statement reads the file's header: a file that is no database fails here.
    std::string mode = journalMode();
    if (!inMemory_ && mode != "wal") {
        execute("PRAGMA journal_mode=WAL");
        mode = journalMode();
        if (mode != "wal") logWarning("SqliteStore.open() - the store's journal mode is " + mode + ", not WAL");
    }
    if (!inMemory_) execute("PRAGMA synchronous=NORMAL");
}

std::string SqliteStore::journalMode() {
    auto* stmt = statement("PRAGMA journal_mode");
    StatementReset reset{stmt};
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW) fail("read journal mode", rc);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    return text ? text : "";
}

int SqliteStore::schemaVersion() {
    auto* stmt = statement("PRAGMA user_version");
    StatementReset reset{stmt};
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_ROW) fail("read schema version", rc);
    return sqlite3_column_int(stmt, 0);
}

void SqliteStore::migrate() {
    int version = schemaVersion();
    if (version > kSchemaVersion) {
        logWarning("SqliteStore.open() - the store's schema version " + std::to_string(version) +
                   " is newer than this build's " + std::to_string(kSchemaVersion) + "; opening it as it is");
        writtenByNewerBuild_ = true;
        return;
    }
    for (const auto& m : migrations()) {
        if (m.toVersion <= version) continue;
        beginTransaction();
        try {
            execute(m.sql);
            execute("PRAGMA user_version = " + std::to_string(m.toVersion));
            commit();
        } catch (...) {
            rollbackTransaction();
            throw;
        }
        if (version > 0) {
            logInfo("SqliteStore.open() - migrated the store to schema version " + std::to_string(m.toVersion) + " (" +
                    m.name + ")");
        }
        version = m.toVersion;
    }
}

void SqliteStore::reconcileModel() {
    std::vector<std::string> ddl;
    auto existingColumns = [&](const std::string& table) {
        std::vector<std::string> columns;
        auto* stmt = statement("PRAGMA table_info(" + quoted(table) + ")");
        StatementReset reset{stmt};
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
            columns.emplace_back(name ? name : "");
        }
        if (rc != SQLITE_DONE) fail("read the columns of " + table, rc);
        return columns;
    };
    if (existingColumns(kMetadataTable).empty()) {
        ddl.push_back("CREATE TABLE IF NOT EXISTS \"Z_METADATA\" (\"key\" TEXT PRIMARY KEY NOT NULL, \"value\" TEXT)");
    }
    for (const auto* entity : persistenceModel()) {
        auto columns = existingColumns(entity->name);
        if (columns.empty()) {
            ddl.push_back(createTableSql(*entity));
            continue;
        }
        for (const auto& attribute : entity->attributes) {
            bool present = false;
            for (const auto& c : columns) present = present || c == attribute.name;
            if (!present) {
                ddl.push_back("ALTER TABLE " + quoted(entity->name) + " ADD COLUMN " + columnDefinition(attribute));
            }
        }
    }
    if (ddl.empty()) return;
    beginTransaction();
    try {
        for (const auto& sql : ddl) execute(sql);
        commit();
    } catch (...) {
        rollbackTransaction();
        throw;
    }
    // Cached statements may refer to the old schema; SQLite re-prepares them, but start clean anyway.
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
    statements_.clear();
    for (const auto& sql : ddl) logInfo("SqliteStore.open() - migrated the store: " + sql);
}

void SqliteStore::loadStoreUUID() {
    {
        auto* stmt = statement("SELECT \"value\" FROM \"Z_METADATA\" WHERE \"key\" = ?");
        StatementReset reset{stmt};
        sqlite3_bind_text(stmt, 1, kStoreUUIDKey, -1, SQLITE_STATIC);
        int rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            if (text && *text) {
                storeUUID_ = std::make_shared<const std::string>(text);
                return;
            }
        } else if (rc != SQLITE_DONE) {
            fail("read the store's UUID", rc);
        }
    }
    auto id = Uuid::random().string();
    auto* stmt = statement("INSERT OR IGNORE INTO \"Z_METADATA\" (\"key\", \"value\") VALUES (?, ?)");
    StatementReset reset{stmt};
    sqlite3_bind_text(stmt, 1, kStoreUUIDKey, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, 2, id.c_str(), -1, SQLITE_TRANSIENT);
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) fail("write the store's UUID", rc);
    storeUUID_ = std::make_shared<const std::string>(id);
}

void SqliteStore::fail(const std::string& operation, int rc) const {
    Error e;
    e.domain = kSqliteErrorDomain;
    e.code = rc & 0xFF;
    const char* message = db_ ? sqlite3_errmsg(db_) : nullptr;
    if (!message || sqlite3_errcode(db_) != rc) message = sqlite3_errstr(rc);
    e.localizedDescription = message ? message : "unknown SQLite error";
    e.userInfo["NSSQLiteErrorDomain"] = std::to_string(rc & 0xFF);
    e.userInfo["SQLiteExtendedErrorCode"] = std::to_string(rc);
    e.userInfo["NSFilePath"] = inMemory_ ? std::string(":memory:") : file_.string();
    e.userInfo["operation"] = operation;
    throw StoreError(std::move(e));
}

sqlite3_stmt* SqliteStore::statement(const std::string& sql) {
    auto it = statements_.find(sql);
    if (it != statements_.end()) return it->second;
    sqlite3_stmt* stmt = nullptr;
    int rc = sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &stmt,
                                nullptr);
    if (rc != SQLITE_OK) {
        if (stmt) sqlite3_finalize(stmt);
        fail("prepare " + sql, rc);
    }
    statements_.emplace(sql, stmt);
    return stmt;
}

void SqliteStore::execute(const std::string& sql) {
    char* message = nullptr;
    int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
    if (message) sqlite3_free(message);
    if (rc != SQLITE_OK) fail("execute " + sql.substr(0, 60), rc);
}

AttributeValue SqliteStore::readColumn(sqlite3_stmt* stmt, int column, AttributeType type) const {
    switch (sqlite3_column_type(stmt, column)) {
    case SQLITE_NULL:
        // Numbers and booleans are not optional: a NULL reads as their default, like a column added later.
        if (type == AttributeType::int16) return std::int64_t{0};
        if (type == AttributeType::boolean) return false;
        return std::monostate{};
    case SQLITE_INTEGER: {
        std::int64_t n = sqlite3_column_int64(stmt, column);
        if (type == AttributeType::boolean && (n == 0 || n == 1)) return n == 1;
        if (type == AttributeType::date) return static_cast<double>(n);
        return n;
    }
    case SQLITE_FLOAT: {
        double d = sqlite3_column_double(stmt, column);
        if (type == AttributeType::int16 && std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 9e18)
            return static_cast<std::int64_t>(d);
        return d;
    }
    default: {
        // TEXT, and BLOB bytes taken as text: validation tells whether they fit the attribute.
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(stmt, column));
        int size = sqlite3_column_bytes(stmt, column);
        return std::string(bytes ? bytes : "", static_cast<std::size_t>(size));
    }
    }
}

void SqliteStore::bindValue(sqlite3_stmt* stmt, int index, const AttributeValue& value, const std::string& operation) {
    int rc = SQLITE_OK;
    switch (value.index()) {
    case 0: rc = sqlite3_bind_null(stmt, index); break;
    case 1: rc = sqlite3_bind_int64(stmt, index, std::get<std::int64_t>(value)); break;
    case 2: rc = sqlite3_bind_double(stmt, index, std::get<double>(value)); break;
    case 3: rc = sqlite3_bind_int(stmt, index, std::get<bool>(value) ? 1 : 0); break;
    default: {
        const auto& s = std::get<std::string>(value);
        rc = sqlite3_bind_text64(stmt, index, s.data(), s.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        break;
    }
    }
    if (rc != SQLITE_OK) fail(operation, rc);
}

namespace {
std::string selectSql(const EntityDescription& entity) {
    std::string sql = "SELECT " + SqliteStore::quoted(SqliteStore::kPrimaryKeyColumn);
    for (const auto& a : entity.attributes) sql += ", " + SqliteStore::quoted(a.name);
    return sql + " FROM " + SqliteStore::quoted(entity.name);
}
} // namespace

std::vector<SqliteStore::Row> SqliteStore::fetchAll(const EntityDescription& entity,
                                                    const std::function<bool(std::int64_t)>& valuesWanted) {
    auto* stmt = statement(selectSql(entity) + " ORDER BY " + quoted(kPrimaryKeyColumn));
    StatementReset reset{stmt};
    std::vector<Row> rows;
    const std::size_t n = entity.attributes.size();
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        Row row;
        row.primaryKey = sqlite3_column_int64(stmt, 0);
        if (valuesWanted && !valuesWanted(row.primaryKey)) {
            rows.push_back(std::move(row));
            continue;
        }
        row.values.reserve(n);
        for (std::size_t i = 0; i < n; ++i)
            row.values.push_back(readColumn(stmt, static_cast<int>(i + 1), entity.attributes[i].type));
        rows.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) fail("fetch " + entity.name, rc);
    return rows;
}

std::optional<SqliteStore::Row> SqliteStore::fetchOne(const EntityDescription& entity, std::int64_t primaryKey) {
    auto* stmt = statement(selectSql(entity) + " WHERE " + quoted(kPrimaryKeyColumn) + " = ?");
    StatementReset reset{stmt};
    sqlite3_bind_int64(stmt, 1, primaryKey);
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_DONE) return std::nullopt;
    if (rc != SQLITE_ROW) fail("fetch " + entity.name, rc);
    Row row;
    row.primaryKey = sqlite3_column_int64(stmt, 0);
    for (std::size_t i = 0; i < entity.attributes.size(); ++i)
        row.values.push_back(readColumn(stmt, static_cast<int>(i + 1), entity.attributes[i].type));
    return row;
}

void SqliteStore::beginTransaction() {
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) fail("begin a transaction", rc);
}

void SqliteStore::commit() {
    int rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) fail("commit", rc);
}

void SqliteStore::rollbackTransaction() noexcept {
    if (db_ && !sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

bool SqliteStore::inTransaction() const { return db_ && !sqlite3_get_autocommit(db_); }

std::int64_t SqliteStore::insertRow(const EntityDescription& entity, const std::vector<AttributeValue>& values) {
    std::string sql = "INSERT INTO " + quoted(entity.name) + " (";
    std::string params;
    for (std::size_t i = 0; i < entity.attributes.size(); ++i) {
        if (i) {
            sql += ", ";
            params += ", ";
        }
        sql += quoted(entity.attributes[i].name);
        params += "?";
    }
    sql += ") VALUES (" + params + ")";
    auto* stmt = statement(sql);
    StatementReset reset{stmt};
    const std::string operation = "insert into " + entity.name;
    for (std::size_t i = 0; i < values.size(); ++i) bindValue(stmt, static_cast<int>(i + 1), values[i], operation);
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) fail(operation, rc);
    return sqlite3_last_insert_rowid(db_);
}

void SqliteStore::updateRow(const EntityDescription& entity, std::int64_t primaryKey,
                            const std::vector<AttributeValue>& values, const std::vector<std::size_t>& changed) {
    if (changed.empty()) return;
    std::string sql = "UPDATE " + quoted(entity.name) + " SET ";
    for (std::size_t k = 0; k < changed.size(); ++k) {
        if (k) sql += ", ";
        sql += quoted(entity.attributes.at(changed[k]).name) + " = ?";
    }
    sql += " WHERE " + quoted(kPrimaryKeyColumn) + " = ?";
    auto* stmt = statement(sql);
    StatementReset reset{stmt};
    const std::string operation = "update " + entity.name;
    for (std::size_t k = 0; k < changed.size(); ++k)
        bindValue(stmt, static_cast<int>(k + 1), values.at(changed[k]), operation);
    sqlite3_bind_int64(stmt, static_cast<int>(changed.size() + 1), primaryKey);
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) fail(operation, rc);
}

void SqliteStore::deleteRow(const EntityDescription& entity, std::int64_t primaryKey) {
    auto* stmt = statement("DELETE FROM " + quoted(entity.name) + " WHERE " + quoted(kPrimaryKeyColumn) + " = ?");
    StatementReset reset{stmt};
    sqlite3_bind_int64(stmt, 1, primaryKey);
    int rc = sqlite3_step(stmt);
    if (rc != SQLITE_DONE) fail("delete from " + entity.name, rc);
}

} // namespace sprelio::store
