#include "server/SignInService.h"

#include <arpa/inet.h>
#include <openssl/rand.h>
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <stdexcept>

#include "base/Digest.h"
#include "base/Uuid.h"
#include "base/Log.h"
#include "server/SqliteStatement.h"

namespace sprelio::server {

namespace {

// Prepared statements of this store; failures name it.
class Statement : public SqliteStatement {
public:
    Statement(sqlite3* db, const char* sql) : SqliteStatement(db, sql, "SignInService") {}
};

// Uniform over 000000..999999: values of the top, incomplete range of 2^32 are drawn again.
std::string sixDigitCode() {
    constexpr std::uint32_t kLimit = 4294000000u; // a multiple of 1 000 000
    for (;;) {
        std::uint32_t value = 0;
        if (RAND_bytes(reinterpret_cast<unsigned char*>(&value), sizeof value) != 1)
            throw std::runtime_error("SignInService: no random bytes for a code");
        if (value >= kLimit) continue;
        std::string code = std::to_string(value % 1000000u);
        return std::string(6 - code.size(), '0') + code;
    }
}

// The code alone has too few values to hide behind a plain digest; the request's uuid salts it.
std::string codeHash(const std::string& uuid, const std::string& code) {
    return sha256Hex(uuid + ":" + code);
}

} // namespace

namespace api_error {
ApiError signInNotFound() { return {404, "SignInNotFound", "This sign-in request is unknown; please sign in again.", true}; }
ApiError signInExpired() { return {410, "SignInExpired", "This sign-in request has expired; please sign in again.", true}; }
ApiError signInUsed() { return {409, "SignInUsed", "This sign-in request has already been used.", true}; }
ApiError signInTimeout() {
    return {408, "SignInTimeout", "The sign-in link was not opened in time; please sign in again.", false};
}
ApiError tooManyCodeAttempts() {
    return {429, "TooManyAttempts", "The code was entered wrongly too often; please sign in again.", true};
}
ApiError wrongCode(int attemptsLeft) {
    return {400, "WrongCode",
            "The code is not correct; " + std::to_string(attemptsLeft) + " attempt" + (attemptsLeft == 1 ? "" : "s") +
                " left.",
            true};
}
ApiError tooManySignIns() {
    return {429, "TooManySignIns", "Too many sign-in requests for this address; please use one of the mails sent.",
            true};
}
ApiError signInBackOff(std::int64_t seconds) {
    auto minutes = std::max<std::int64_t>(1, (seconds + 59) / 60);
    return {429, "TooManySignInAttempts",
            "Too many wrong codes or sign-in requests; please try again in " + std::to_string(minutes) + " minute" +
                (minutes == 1 ? "" : "s") + ", or open the link in the mail.",
            true};
}
ApiError tooManyWaiting() {
    return {503, "TooManyWaiting", "The server is busy; please enter the code from the mail instead.", false};
}
ApiError serverStopping() { return {503, "ServerStopping", "The server is restarting; please try again.", false}; }
ApiError mailFailed() {
    return {502, "MailFailed", "The sign-in mail could not be sent; please try again later.", false};
}
} // namespace api_error

namespace {
SignInThrottle::Policy throttlePolicy(const ServerConfig& config, int freeStrikes) {
    return {freeStrikes, std::max(1, config.signInBackOffSeconds), std::max(1, config.signInMaxBackOffSeconds),
            std::max(1, config.signInForgetSeconds)};
}
} // namespace

SignInService::SignInService(const ServerConfig& config, AccountStore& accounts)
    : config_(config), accounts_(accounts), clock_([] { return nowSeconds(); }),
      guessesByEmail_(throttlePolicy(config, config.signInFreeGuessesPerEmail)),
      guessesByClient_(throttlePolicy(config, config.signInFreeGuessesPerClient)),
      requestsByEmail_(throttlePolicy(config, config.signInFreeRequestsPerEmail)),
      requestsByClient_(throttlePolicy(config, config.signInFreeRequestsPerClient)) {
    if (!config_.smtpUrl.empty()) mailer_ = std::make_unique<SmtpMailer>(config_.smtpUrl, config_.smtpFrom);
    db_ = openSqliteDatabase(config_.dataFolder / "accounts.sqlite3");
    exec("CREATE TABLE IF NOT EXISTS sign_in_requests ("
         " uuid TEXT PRIMARY KEY, email TEXT NOT NULL, link_hash TEXT NOT NULL UNIQUE, code_hash TEXT NOT NULL,"
         " created_at INTEGER NOT NULL, expires_at INTEGER NOT NULL, attempts_left INTEGER NOT NULL,"
         " state TEXT NOT NULL)");
    exec("CREATE INDEX IF NOT EXISTS sign_in_requests_email ON sign_in_requests (email)");
}

SignInService::~SignInService() {
    shutdown();
    sqlite3_close(db_);
}

void SignInService::exec(const char* sql) { execSqlite(db_, sql, "SignInService"); }

void SignInService::setClock(std::function<std::int64_t()> clock) {
    std::lock_guard lock(mutex_);
    clock_ = std::move(clock);
}

std::string SignInService::clientKey(const std::string& address) {
    in6_addr v6{};
    if (address.find(':') == std::string::npos || ::inet_pton(AF_INET6, address.c_str(), &v6) != 1) return address;
    char text[INET6_ADDRSTRLEN] = {};
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
        ::inet_ntop(AF_INET, v6.s6_addr + 12, text, sizeof text);
        return text;
    }
    std::fill(v6.s6_addr + 8, v6.s6_addr + 16, 0);
    ::inet_ntop(AF_INET6, &v6, text, sizeof text);
    return std::string(text) + "/64";
}

std::string SignInService::normalizeEmail(const std::string& text) {
    auto begin = text.find_first_not_of(" \t");
    auto end = text.find_last_not_of(" \t");
    if (begin == std::string::npos) return {};
    std::string email = text.substr(begin, end - begin + 1);
    if (email.size() < 3 || email.size() > 254) return {};
    for (char& c : email) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7F || std::string_view("<>()[],;:\\\"").find(c) != std::string_view::npos) return {};
        c = static_cast<char>(std::tolower(u));
    }
    auto at = email.find('@');
    if (at == std::string::npos || at == 0 || email.find('@', at + 1) != std::string::npos) return {};
    auto domain = email.substr(at + 1);
    if (domain.size() < 3 || domain.find('.') == std::string::npos || domain.front() == '.' || domain.back() == '.')
        return {};
    return email;
}

std::variant<SignInStarted, ApiError> SignInService::request(const std::string& rawEmail, const std::string& linkBase,
                                                            const std::string& clientAddress) {
    auto email = normalizeEmail(rawEmail);
    if (email.empty()) return api_error::badRequest("Please enter a valid e-mail address.");

    auto uuid = Uuid::random().string();
    auto linkToken = AccountStore::generateToken();
    auto code = sixDigitCode();
    auto client = clientKey(clientAddress);
    std::int64_t now = 0;
    {
        std::lock_guard lock(mutex_);
        now = this->now();
        if (stopping_) return api_error::serverStopping();
        // Every request counts against the address and the client, however it ends: one that expired or was
        // used up by wrong codes leaves the count where it was, so asking again and again is no way around it.
        auto wait = requestsByEmail_.waitFor(email, now);
        if (!client.empty()) wait = std::max(wait, requestsByClient_.waitFor(client, now));
        if (wait > 0) {
            log(LogLevel::warning, "SignInService.request() - too many sign-in requests for this address or from "
                                   "this client; refused for " + std::to_string(wait) + " s");
            return api_error::signInBackOff(wait);
        }
        // Old requests are kept a day past their end, then dropped.
        Statement(db_, "DELETE FROM sign_in_requests WHERE expires_at < ?").bind(1, now - 24 * 60 * 60).step();
        Statement open(db_, "SELECT COUNT(*) FROM sign_in_requests WHERE email = ? AND expires_at > ?"
                            " AND state IN ('pending', 'confirmed')");
        open.bind(1, email).bind(2, now).step();
        if (open.integer(0) >= 5) return api_error::tooManySignIns();
        requestsByEmail_.strike(email, now);
        if (!client.empty()) requestsByClient_.strike(client, now);
        Statement insert(db_, "INSERT INTO sign_in_requests (uuid, email, link_hash, code_hash, created_at,"
                              " expires_at, attempts_left, state) VALUES (?, ?, ?, ?, ?, ?, ?, 'pending')");
        insert.bind(1, uuid).bind(2, email).bind(3, sha256Hex(linkToken)).bind(4, codeHash(uuid, code));
        insert.bind(5, now).bind(6, now + config_.signInValidSeconds).bind(7, std::int64_t{config_.signInCodeAttempts});
        insert.step();
    }

    auto link = linkBase + linkToken;
    int minutes = std::max(1, config_.signInValidSeconds / 60);
    if (!mailer_) {
        // The operator's channel when there is no mail server: the console log, never the access log.
        log(LogLevel::info, "SignInService.request() - no mail server configured; sign-in for " + email + ": link " +
                                link + " code " + code);
    } else {
        MailMessage mail{email, "Your Sprelio sign-in",
                         "Open this link to sign in to Sprelio:\r\n\r\n" + link +
                             "\r\n\r\nOr enter this code in Sprelio: " + code + "\r\n\r\nThe link and the code are "
                             "valid for " + std::to_string(minutes) + " minutes. If you did not ask to sign in, you "
                             "can ignore this mail.\r\n"};
        if (auto failure = mailer_->send(mail); !failure.empty()) {
            log(LogLevel::error, "SignInService.request() - the sign-in mail could not be sent: " + failure);
            std::lock_guard lock(mutex_);
            Statement(db_, "DELETE FROM sign_in_requests WHERE uuid = ?").bind(1, uuid).step();
            return api_error::mailFailed();
        }
        log(LogLevel::info, "SignInService.request() - sign-in mail sent");
    }
    return SignInStarted{uuid, "We sent a sign-in link and a code to " + email +
                                   ". Open the link or enter the code to sign in."};
}

std::optional<SignInService::Row> SignInService::rowWhere(const char* column, const std::string& value) {
    std::string sql = std::string("SELECT uuid, email, code_hash, expires_at, attempts_left, state"
                                  " FROM sign_in_requests WHERE ") + column + " = ?";
    Statement select(db_, sql.c_str());
    select.bind(1, value);
    if (!select.step()) return std::nullopt;
    return Row{select.text(0), select.text(1), select.text(2), select.integer(3),
               static_cast<int>(select.integer(4)), select.text(5)};
}

void SignInService::setState(const std::string& uuid, const char* state) {
    Statement(db_, "UPDATE sign_in_requests SET state = ? WHERE uuid = ?").bind(1, std::string(state)).bind(2, uuid).step();
}

std::optional<ApiError> SignInService::unusable(const Row& row) const {
    if (row.state == "done") return api_error::signInUsed();
    if (row.state == "exhausted") return api_error::tooManyCodeAttempts();
    if (row.expiresAt <= now()) return api_error::signInExpired();
    return std::nullopt;
}

void SignInService::notify(const std::string& uuid) {
    if (auto it = waiters_.find(uuid); it != waiters_.end()) it->second->changed.notify_all();
}

// Called with mutex_ held and the row usable: the request is used up and the account gets its token.
std::variant<SignInConfirmed, ApiError> SignInService::finish(const Row& row) {
    setState(row.uuid, "done");
    notify(row.uuid);
    auto account = accounts_.accountForEmail(row.email);
    auto token = accounts_.issueToken(account.id);
    log(LogLevel::info, "SignInService.finish() - signed in, token issued");
    return SignInConfirmed{std::move(account), std::move(token)};
}

std::variant<std::string, ApiError> SignInService::confirmLink(const std::string& linkToken) {
    if (linkToken.size() != 64) return api_error::signInNotFound();
    std::lock_guard lock(mutex_);
    auto row = rowWhere("link_hash", sha256Hex(linkToken));
    if (!row) return api_error::signInNotFound();
    if (auto error = unusable(*row)) return *error;
    if (row->state == "pending") {
        setState(row->uuid, "confirmed");
        notify(row->uuid);
        log(LogLevel::info, "SignInService.confirmLink() - sign-in link opened");
    }
    return row->email;
}

std::variant<SignInConfirmed, ApiError> SignInService::waitForLink(const std::string& uuid) {
    std::unique_lock lock(mutex_);
    auto row = rowWhere("uuid", uuid);
    if (!row) return api_error::signInNotFound();
    if (stopping_) return api_error::serverStopping();
    if (waiting_ >= config_.maxSignInWaiters) return api_error::tooManyWaiting();

    auto& slot = waiters_[uuid];
    if (!slot) slot = std::make_shared<Waiters>();
    auto waiters = slot;
    ++waiters->count;
    ++waiting_;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(config_.signInWaitSeconds);
    std::variant<SignInConfirmed, ApiError> answer = api_error::signInTimeout();
    for (;;) {
        row = rowWhere("uuid", uuid);
        if (!row) {
            answer = api_error::signInNotFound();
            break;
        }
        if (auto error = unusable(*row)) {
            answer = *error;
            break;
        }
        if (row->state == "confirmed") {
            answer = finish(*row);
            break;
        }
        if (stopping_) {
            answer = api_error::serverStopping();
            break;
        }
        // The wait also ends when the request expires, so a poll never outlives what it waits for.
        auto expiry = std::chrono::steady_clock::now() + std::chrono::seconds(row->expiresAt - now());
        if (waiters->changed.wait_until(lock, std::min(deadline, expiry)) == std::cv_status::timeout &&
            std::chrono::steady_clock::now() >= deadline)
            break;
    }
    --waiting_;
    if (--waiters->count == 0) waiters_.erase(uuid);
    return answer;
}

std::variant<SignInConfirmed, ApiError> SignInService::submitCode(const std::string& uuid, const std::string& code,
                                                                  const std::string& clientAddress) {
    bool wellFormed = code.size() == 6 && std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; });
    auto client = clientKey(clientAddress);
    std::lock_guard lock(mutex_);
    auto now = this->now();
    auto row = rowWhere("uuid", uuid);
    if (!row) {
        // Trying request ids is guessing too.
        if (!client.empty()) guessesByClient_.strike(client, now);
        return api_error::signInNotFound();
    }
    if (auto error = unusable(*row)) return *error;
    if (!wellFormed) return api_error::badRequest("The code has six digits.");
    auto wait = guessesByEmail_.waitFor(row->email, now);
    if (!client.empty()) wait = std::max(wait, guessesByClient_.waitFor(client, now));
    if (wait > 0) {
        log(LogLevel::warning, "SignInService.submitCode() - code not checked: too many wrong codes for this "
                               "address or from this client; " + std::to_string(wait) + " s to wait");
        return api_error::signInBackOff(wait);
    }
    if (codeHash(uuid, code) == row->codeHash) return finish(*row);

    guessesByEmail_.strike(row->email, now);
    if (!client.empty()) guessesByClient_.strike(client, now);
    int left = row->attemptsLeft - 1;
    Statement(db_, "UPDATE sign_in_requests SET attempts_left = ? WHERE uuid = ?").bind(1, std::int64_t{left}).bind(2, uuid).step();
    log(LogLevel::warning, "SignInService.submitCode() - wrong code, " + std::to_string(left) + " attempt(s) left");
    if (left > 0) return api_error::wrongCode(left);
    // The link dies with the code: whoever guesses codes must not keep a way in. The spent request counts
    // once more against the address.
    setState(uuid, "exhausted");
    guessesByEmail_.strike(row->email, now);
    notify(uuid);
    return api_error::tooManyCodeAttempts();
}

void SignInService::shutdown() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (auto& [uuid, waiters] : waiters_) waiters->changed.notify_all();
}

std::size_t SignInService::waiting() const {
    std::lock_guard lock(mutex_);
    return waiting_;
}

} // namespace sprelio::server
