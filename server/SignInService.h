#pragma once
// Sign-in by e-mail: a request gets a link and a six-digit code, mailed to the address (or written to the server's
// console log when no mail server is configured). Opening the link confirms the request, which answers the long
// poll of the client that asked; typing the code confirms it directly. Either way the account is made on its
// first sign-in and a new token is issued.
//
// Requests live in the accounts database with the link token and the code stored only as SHA-256 digests; a
// request expires, and its code may be tried a limited number of times.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include "server/AccountStore.h"
#include "server/ApiError.h"
#include "server/ServerConfig.h"
#include "server/SignInThrottle.h"
#include "server/SmtpMailer.h"

struct sqlite3;

namespace sprelio::server {

struct SignInStarted {
    std::string uuid;
    std::string message; // shown to the user while the client waits
};

struct SignInConfirmed {
    Account account;
    std::string token; // in clear, once
};

class SignInService {
public:
    SignInService(const ServerConfig& config, AccountStore& accounts);
    ~SignInService();
    SignInService(const SignInService&) = delete;
    SignInService& operator=(const SignInService&) = delete;

    // `linkBase` is the URL the link's token is appended to. `client` is the address the request came from
    // (empty: not counted by client); requests and wrong codes count against it and against the e-mail address.
    std::variant<SignInStarted, ApiError> request(const std::string& email, const std::string& linkBase,
                                                  const std::string& client = {});
    // The target of the mailed link.
    std::variant<std::string, ApiError> confirmLink(const std::string& linkToken); // the confirmed address
    // Holds the caller until the link is opened, the request ends, the wait bound passes or shutdown().
    std::variant<SignInConfirmed, ApiError> waitForLink(const std::string& uuid);
    // While the address or the client waits out its back-off, the code is not even compared.
    std::variant<SignInConfirmed, ApiError> submitCode(const std::string& uuid, const std::string& code,
                                                       const std::string& client = {});

    // Wakes every long poll with an answer and refuses new ones; the server calls it before it stops.
    void shutdown();
    std::size_t waiting() const;

    // Lower-cased and trimmed; empty when the text is no usable address (also refusing anything that could
    // break out of a mail header).
    static std::string normalizeEmail(const std::string& text);
    // The key a client address is counted under: an IPv4 address, or the /64 of an IPv6 address.
    static std::string clientKey(const std::string& address);

    // The time in seconds since the epoch that requests expire and back-offs end by; tests move it.
    void setClock(std::function<std::int64_t()> clock);

private:
    struct Row {
        std::string uuid;
        std::string email;
        std::string codeHash;
        std::int64_t expiresAt = 0;
        int attemptsLeft = 0;
        std::string state; // pending, confirmed, done, exhausted
    };
    struct Waiters {
        std::condition_variable changed;
        int count = 0;
    };

    std::optional<Row> rowWhere(const char* column, const std::string& value);
    void setState(const std::string& uuid, const char* state);
    std::optional<ApiError> unusable(const Row& row) const;
    std::variant<SignInConfirmed, ApiError> finish(const Row& row);
    void notify(const std::string& uuid);
    void exec(const char* sql);
    std::int64_t now() const { return clock_(); }

    ServerConfig config_;
    AccountStore& accounts_;
    std::unique_ptr<SmtpMailer> mailer_;
    std::function<std::int64_t()> clock_;
    // Under mutex_.
    SignInThrottle guessesByEmail_;
    SignInThrottle guessesByClient_;
    SignInThrottle requestsByEmail_;
    SignInThrottle requestsByClient_;
    mutable std::mutex mutex_; // the database connection and the waiters
    sqlite3* db_ = nullptr;
    std::map<std::string, std::shared_ptr<Waiters>> waiters_;
    std::size_t waiting_ = 0;
    bool stopping_ = false;
};

namespace api_error {
ApiError signInNotFound();
ApiError signInExpired();
ApiError signInUsed();
ApiError signInTimeout();
ApiError tooManyCodeAttempts();
ApiError wrongCode(int attemptsLeft);
ApiError tooManySignIns();
ApiError signInBackOff(std::int64_t seconds);
ApiError tooManyWaiting();
ApiError serverStopping();
ApiError mailFailed();
} // namespace api_error

} // namespace sprelio::server
