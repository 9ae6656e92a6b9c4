#pragma once
// Accounts and their tokens, in one SQLite file of the data folder. A token is 32 random bytes in hexadecimal;
// only its SHA-256 is stored, so the database alone never lets anyone sign in.
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

struct sqlite3;

namespace sprelio::server {

struct Account {
    std::int64_t id = 0;
    std::string guid;  // upper-case UUID text
    std::string email;
    std::int64_t requests = 0; // transcriptions served to this account
};

// The account of the machine the server runs on, made on the first start: the embedded server needs no sign-in.
struct LocalAccount {
    Account account;
    std::string token;            // in clear, as the client sends it
    std::filesystem::path tokenFile;
    bool tokenIsNew = false;      // issued during this start (first start, or the token file was lost)
};

class AccountStore {
public:
    // Opens or creates <dataFolder>/accounts.sqlite3. Throws std::runtime_error when the file can't be opened.
    explicit AccountStore(const std::filesystem::path& dataFolder);
    ~AccountStore();
    AccountStore(const AccountStore&) = delete;
    AccountStore& operator=(const AccountStore&) = delete;

    // The local account and its token. The token file (mode 0600, the token and a line feed) is the one place the
    // clear token lives: while it holds a token of the local account that token stays valid; when it is missing or
    // stale a new token is issued and the file rewritten atomically. Throws std::runtime_error on I/O failure.
    LocalAccount ensureLocalAccount(const std::filesystem::path& tokenFile);

    // The account a bearer token belongs to; nothing for an unknown token.
    std::optional<Account> authenticate(const std::string& token);
    // A new token for the account; the clear text is returned once and never stored.
    std::string issueToken(std::int64_t accountId);
    void countRequest(std::int64_t accountId);
    // The account of a signed-in address, made on its first sign-in. `email` is compared as given (the caller
    // normalises it).
    Account accountForEmail(const std::string& email);
    std::optional<Account> account(std::int64_t accountId);

    // An identity of this server that stays the same across starts (its `uuid` in the balancer list).
    std::string serverUuid();

    static std::string generateToken();

    static constexpr const char* kLocalEmail = "local@localhost";

private:
    void exec(const char* sql);
    std::optional<Account> accountWhere(const char* sql, const std::string& textArg, std::int64_t intArg);

    std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

} // namespace sprelio::server
