#pragma once
// The client of the account API: sign-in by e-mail link or one-time code, and the one refresh through which the
// client learns flags, AI servers and models, transcription backends and the user's details and token.
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/LifetimeGuard.h"
#include "base/LogLevel.h"
#include "backend/BalancingManager.h"
#include "base/Error.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"

namespace sprelio {

class AppState;
class ErrorPresenter;
namespace store {
class AppConstants;
class Settings;
} // namespace store

struct LoginEmailResponse {
    std::string uuid;
    std::string message;
    static std::optional<LoginEmailResponse> parse(const nlohmann::json& dictionary);
};

struct LoginConfirmResponse {
    std::string email;
    long long requests = 0;
    std::string token;
    static std::optional<LoginConfirmResponse> parse(const nlohmann::json& dictionary);
};

struct UserDetailsResponse {
    std::string email;
    std::optional<std::string> guid;
    long long requests = 0;
    std::optional<std::string> token;

    // From the `user` section of /users/info; nothing (and a log line) without a user, an email or requests.
    static std::optional<UserDetailsResponse> init(const nlohmann::json& section);
    static std::optional<UserDetailsResponse> decode(const nlohmann::json& stored);
    nlohmann::ordered_json encode() const;
    bool operator==(const UserDetailsResponse&) const = default;
};

struct AIModelItem {
    std::string name;
    std::string model;
    std::vector<std::string> languages;
    std::optional<std::string> providerType;
    std::optional<std::string> providerName;
    std::optional<std::vector<std::string>> features;
    static std::optional<AIModelItem> decode(const nlohmann::json& json);
    nlohmann::ordered_json encode() const;
};

struct AIServerItem {
    std::string uuid;
    std::string name;
    std::string url;
    std::vector<std::string> models;
    static std::optional<AIServerItem> decode(const nlohmann::json& json);
    nlohmann::ordered_json encode() const;
};

// The lower-case MD5 of the machine identity string; the same machine gives the same id across starts.
std::string deviceIdFor(const std::string& machineIdentity);

class LoginResourceService final : public UserInfoRefresher {
public:
    // The parsed answer when it is a JSON object (whatever the status), the response head, the transport error.
    using RequestCompletion = std::function<void(std::optional<nlohmann::json> dictionary,
                                                 std::optional<platform::HttpResponse> response,
                                                 std::optional<Error> error)>;
    template <typename Record>
    using LoginCompletion = std::function<void(std::optional<Record> record,
                                               std::optional<platform::HttpResponse> response,
                                               std::optional<Error> error)>;

    struct Dependencies {
        platform::MainLoop& loop;
        platform::Clock& clock;
        platform::HttpClient& http;
        store::Settings& settings;
        const store::AppConstants& constants;
        AppState& appState;
        const platform::Screens& screens;
        // Receives the backends of each refresh; may be left out by owners that need no transcription.
        BalancingManager* balancing = nullptr;
        // Shows login failures; none: they are only logged.
        ErrorPresenter* messages = nullptr;
        // The account API without a trailing slash.
        std::string apiBaseURL;
        // Hashed into device_id.
        std::string machineIdentity;
        // The locale's region code for `info`, "??" when there is none.
        std::string localeRegion = "??";
        // The periodic refresh, fired once at creation; tools that make one call turn it off.
        bool startRefreshTimer = true;
    };

    static constexpr std::chrono::seconds kUserInfoRefreshInterval{300};
    static constexpr double kDebounceSeconds = 300.0;
    static constexpr int kMaxRetries = 3;
    static constexpr std::chrono::milliseconds kRequestTimeout{60'000};
    static constexpr std::chrono::milliseconds kSessionRequestTimeout{120'000};

    explicit LoginResourceService(Dependencies deps);
    ~LoginResourceService() override;
    LoginResourceService(const LoginResourceService&) = delete;
    LoginResourceService& operator=(const LoginResourceService&) = delete;

    // The one sender: JSON headers, Accept-Language, up to `retries` (at most 3) further attempts after transport
    // failures, 1, 2 then 3 seconds apart. Main loop only.
    void performRequest(platform::HttpRequest request, int retries, std::optional<double> timeoutInterval,
                        const std::string& caller, RequestCompletion completion);

    void refreshUserInfo(const std::string& caller, bool ignoreDebounceTime,
                         std::function<void(std::optional<Error> error)> completion) override;
    // The timer's handler: a forced refresh whose outcome nobody waits for.
    void discardableResultRefreshUserInfo();

    void login(const std::string& email, LoginCompletion<LoginEmailResponse> completion);
    // A long poll: the server holds it until the link in the e-mail is used.
    void checkLoginViaLink(const std::string& uuid, LoginCompletion<LoginConfirmResponse> completion);
    void loginViaCode(const std::string& uuid, const std::string& code,
                      LoginCompletion<LoginConfirmResponse> completion);

    const std::string& url() const { return url_; }
    const std::string& deviceId() const { return deviceId_; }
    // {"screens": "<JSON list>", "languages": "<JSON object>"} as text.
    std::string info() const;
    // {"system": ..., "region": ..., "app": ...}: the languages of the machine and the application, "??" unknown.
    nlohmann::ordered_json languageInfo() const;
    const std::optional<nlohmann::json>& flags() const { return flags_; }
    const std::vector<AIModelItem>& aiModels() const { return aiModels_; }
    const std::vector<AIServerItem>& aiServers() const { return aiServers_; }
    std::optional<std::chrono::system_clock::time_point> lastUserInfoRefreshDate() const {
        return lastUserInfoRefreshDate_;
    }
    // Timers scheduled so far; earlier ones keep firing next to later ones.
    std::size_t refreshTimerCount() const { return timers_.size(); }

    // The login presenter's userDetails.
    std::function<void(const UserDetailsResponse&)> onUserDetails;
    // The AI catalogue's lists, each replaced whole.
    std::function<void(const std::vector<AIModelItem>&)> onAIModels;
    std::function<void(const std::vector<AIServerItem>&)> onAIServers;

private:
    struct RepeatingTimer;
    void scheduleUserInfoRefreshTimer(bool fireNow);
    void applyUserInfo(const nlohmann::json& dictionary);
    platform::HttpRequest makeRequest(std::string method, std::string url) const;
    std::optional<std::string> buildURL(const std::string& base, const std::string& path,
                                        const std::vector<std::pair<std::string, std::string>>& query) const;
    void showAlert(const Error& error);
    // How one sign-in step tells what went wrong; the steps differ only in this.
    struct SignInRules {
        const char* caller;
        LogLevel errorLevel;
        bool alertOnError;
        LogLevel unexpectedAnswerLevel;
        // An {"error", "message"} answer becomes the error the caller gets.
        bool serverErrorIsError;
        // The transport's error goes along with a record as well.
        bool recordKeepsError;
    };
    template <class Record>
    void sendSignInRequest(const std::optional<std::string>& url, const char* method,
                           std::optional<std::string> body, const SignInRules& rules,
                           LoginCompletion<Record> completion);

    Dependencies deps_;
    std::string url_;
    std::string deviceId_;
    std::string acceptLanguage_;
    std::optional<nlohmann::json> flags_;
    std::vector<AIModelItem> aiModels_;
    std::vector<AIServerItem> aiServers_;
    std::optional<std::chrono::system_clock::time_point> lastUserInfoRefreshDate_;
    std::vector<std::shared_ptr<RepeatingTimer>> timers_;
    std::shared_ptr<RepeatingTimer> userInfoRefreshTimer_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
