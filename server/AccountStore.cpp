#include "server/AccountStore.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "base/Uuid.h"
#include "base/Digest.h"
#include "base/Log.h"
#include "server/SqliteStatement.h"

namespace sprelio::server {

namespace {

// Prepared statements of this store; failures name it.
class Statement : public SqliteStatement {
public:
    Statement(sqlite3* db, const char* sql) : SqliteStatement(db, sql, "AccountStore") {}
};

std::optional<std::string> readTokenFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string token;
    std::getline(in, token);
    if (token.size() != 64) return std::nullopt;
    return token;
}

// Temporary file created with mode 0600 from the start (never readable by others, not even for a moment), synced,
// then renamed over the old one.
void writeTokenFile(const std::filesystem::path& path, const std::string& token) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    auto temp = path;
    temp += ".tmp";
    ::unlink(temp.c_str());
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + temp.string());
    std::string line = token + "\n";
    bool ok = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (!ok || std::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        throw std::runtime_error("cannot write " + path.string());
    }
}

} // namespace

AccountStore::AccountStore(const std::filesystem::path& dataFolder) {
    std::filesystem::create_directories(dataFolder);
    auto file = dataFolder / "accounts.sqlite3";
    db_ = openSqliteDatabase(file);
    ::chmod(file.c_str(), 0600);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA foreign_keys=ON");
    exec("CREATE TABLE IF NOT EXISTS users ("
         " id INTEGER PRIMARY KEY, guid TEXT NOT NULL UNIQUE, email TEXT NOT NULL UNIQUE,"
         " requests INTEGER NOT NULL DEFAULT 0, is_local INTEGER NOT NULL DEFAULT 0, created_at INTEGER NOT NULL)");
    exec("CREATE TABLE IF NOT EXISTS tokens ("
         " hash TEXT PRIMARY KEY, user_id INTEGER NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
         " created_at INTEGER NOT NULL)");
    exec("CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL)");
}

AccountStore::~AccountStore() { sqlite3_close(db_); }

void AccountStore::exec(const char* sql) { execSqlite(db_, sql, "AccountStore"); }

std::string AccountStore::generateToken() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("AccountStore: no random bytes for a token");
    return hexText(bytes, sizeof bytes);
}

std::optional<Account> AccountStore::accountWhere(const char* sql, const std::string& textArg, std::int64_t intArg) {
    Statement stmt(db_, sql);
    if (!textArg.empty()) stmt.bind(1, textArg);
    else stmt.bind(1, intArg);
    if (!stmt.step()) return std::nullopt;
    return Account{stmt.integer(0), stmt.text(1), stmt.text(2), stmt.integer(3)};
}

std::string AccountStore::issueToken(std::int64_t accountId) {
    std::string token = generateToken();
    std::lock_guard lock(mutex_);
    Statement stmt(db_, "INSERT INTO tokens (hash, user_id, created_at) VALUES (?, ?, ?)");
    stmt.bind(1, sha256Hex(token));
    stmt.bind(2, accountId);
    stmt.bind(3, nowSeconds());
    stmt.step();
    return token;
}

LocalAccount AccountStore::ensureLocalAccount(const std::filesystem::path& tokenFile) {
    LocalAccount local;
    local.tokenFile = tokenFile;
    {
        std::lock_guard lock(mutex_);
        auto found = accountWhere("SELECT id, guid, email, requests FROM users WHERE is_local = 1 AND email = ?",
                                  kLocalEmail, 0);
        if (!found) {
            Statement insert(db_, "INSERT INTO users (guid, email, is_local, created_at) VALUES (?, ?, 1, ?)");
            insert.bind(1, Uuid::random().string());
            insert.bind(2, std::string(kLocalEmail));
            insert.bind(3, nowSeconds());
            insert.step();
            found = accountWhere("SELECT id, guid, email, requests FROM users WHERE id = ?", {},
                                 sqlite3_last_insert_rowid(db_));
            log(LogLevel::info, "AccountStore.ensureLocalAccount() - created the local account");
        }
        local.account = *found;
    }
    if (auto token = readTokenFile(tokenFile)) {
        auto owner = authenticate(*token);
        if (owner && owner->id == local.account.id) {
            local.token = *token;
            return local;
        }
        log(LogLevel::warning, "AccountStore.ensureLocalAccount() - the token file holds no valid token, issuing one");
    }
    local.token = issueToken(local.account.id);
    local.tokenIsNew = true;
    writeTokenFile(tokenFile, local.token);
    return local;
}

std::optional<Account> AccountStore::authenticate(const std::string& token) {
    if (token.empty()) return std::nullopt;
    std::lock_guard lock(mutex_);
    return accountWhere("SELECT u.id, u.guid, u.email, u.requests FROM tokens t JOIN users u ON u.id = t.user_id"
                        " WHERE t.hash = ?",
                        sha256Hex(token), 0);
}

void AccountStore::countRequest(std::int64_t accountId) {
    std::lock_guard lock(mutex_);
    Statement stmt(db_, "UPDATE users SET requests = requests + 1 WHERE id = ?");
    stmt.bind(1, accountId);
    stmt.step();
}

Account AccountStore::accountForEmail(const std::string& email) {
    std::lock_guard lock(mutex_);
    constexpr const char* kSelect = "SELECT id, guid, email, requests FROM users WHERE email = ?";
    if (auto found = accountWhere(kSelect, email, 0)) return *found;
    Statement insert(db_, "INSERT INTO users (guid, email, is_local, created_at) VALUES (?, ?, 0, ?)");
    insert.bind(1, Uuid::random().string());
    insert.bind(2, email);
    insert.bind(3, nowSeconds());
    insert.step();
    log(LogLevel::info, "AccountStore.accountForEmail() - created an account on its first sign-in");
    return *accountWhere("SELECT id, guid, email, requests FROM users WHERE id = ?", {}, sqlite3_last_insert_rowid(db_));
}

std::optional<Account> AccountStore::account(std::int64_t accountId) {
    std::lock_guard lock(mutex_);
    return accountWhere("SELECT id, guid, email, requests FROM users WHERE id = ?", {}, accountId);
}

std::string AccountStore::serverUuid() {
    std::lock_guard lock(mutex_);
    {
        Statement select(db_, "SELECT value FROM meta WHERE key = 'server_uuid'");
        if (select.step()) return select.text(0);
    }
    std::string uuid = Uuid::random().string();
    Statement insert(db_, "INSERT INTO meta (key, value) VALUES ('server_uuid', ?)");
    insert.bind(1, uuid);
    insert.step();
    return uuid;
}

} // namespace sprelio::server
