#pragma once
// The ordered failover chain of transcription backends: the first backend marked online is always taken.
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/Error.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio {

class AppState;
namespace store {
class Settings;
}

// One transcription backend, shared by identity: the online mark is set on the object an upload holds.
class BackendBalancer {
public:
    BackendBalancer(std::string uuidValue, std::string nameValue, std::string urlValue, bool online = true)
        : uuid(std::move(uuidValue)), name(std::move(nameValue)), url(std::move(urlValue)), isOnline(online) {}

    const std::string uuid;
    const std::string name;
    const std::string url;
    bool isOnline = true;
    // The backend decodes a dictation while it is recorded (POST /transcribe/live). Known from the account
    // answer only: it is not part of the stored list, which a fresh answer replaces at every start.
    bool liveDecoding = false;

    // Equality is the identity of the backend, nothing else.
    bool operator==(const BackendBalancer& other) const { return uuid == other.uuid; }

    // {"uuid","name","url","isOnline"} in this order.
    nlohmann::ordered_json encode() const;
    // Nothing when uuid, name or url is missing or not a string; an absent or non-Boolean isOnline is true.
    static std::shared_ptr<BackendBalancer> decode(const nlohmann::json& json);
};

using BackendBalancerPtr = std::shared_ptr<BackendBalancer>;

// Decodes a stored or received list element by element; damaged elements are dropped and logged.
std::vector<BackendBalancerPtr> decodeBalancers(const nlohmann::json& json, const std::string& caller);
nlohmann::ordered_json encodeBalancers(const std::vector<BackendBalancerPtr>& balancers);

// What the manager needs of the account service: a fresh user info, which on success has replaced the list
// (setBalancers) and the refresh date (setLastRefreshDate) before the completion runs.
class UserInfoRefresher {
public:
    virtual ~UserInfoRefresher() = default;
    virtual void refreshUserInfo(const std::string& caller, bool ignoreDebounceTime,
                                 std::function<void(std::optional<Error> error)> completion) = 0;
};

class BalancingManager {
public:
    using EndpointCompletion = std::function<void(BackendBalancerPtr endpoint)>;

    static constexpr double timeOutInterval = 120.0;
    // A list older than this is refreshed; a pass of initializeIfNeeded counts for as long.
    static constexpr std::chrono::seconds kRefreshInterval{300};

    // Reads the persisted list; the moment of creation counts as the last refresh.
    BalancingManager(platform::MainLoop& loop, platform::Clock& clock, store::Settings& settings,
                     AppState& appState, std::string appName);

    // Wired once at start-up, before the first call that may refresh.
    void setService(UserInfoRefresher* service) { service_ = service; }

    const std::vector<BackendBalancerPtr>& balancers() const { return balancers_; }
    // Replaces the list whole and persists it.
    void setBalancers(std::vector<BackendBalancerPtr> balancers);
    std::chrono::system_clock::time_point lastRefreshDate() const { return lastRefreshDate_; }
    void setLastRefreshDate(std::chrono::system_clock::time_point date) { lastRefreshDate_ = date; }
    std::optional<std::chrono::system_clock::time_point> lastInitializationDate() const {
        return lastInitializationDate_;
    }
    bool lastTranscriptionHadError() const { return lastTranscriptionHadError_; }

    // Sets the online mark of a backend and persists the list when the backend belongs to it.
    void setOnline(const BackendBalancerPtr& balancer, bool online);

    void initializeIfNeeded(const std::string& caller, bool force, std::function<void()> done = {});
    void getEndpoint(BackendBalancerPtr skipBalancer, EndpointCompletion completion);
    void resetAllServersToOnline();

private:
    void refresh(const std::string& caller, std::function<void(std::optional<Error>)> completion);
    void persist();

    platform::MainLoop& loop_;
    platform::Clock& clock_;
    store::Settings& settings_;
    AppState& appState_;
    std::string appName_;
    UserInfoRefresher* service_ = nullptr;
    std::vector<BackendBalancerPtr> balancers_;
    std::chrono::system_clock::time_point lastRefreshDate_;
    std::optional<std::chrono::system_clock::time_point> lastInitializationDate_;
    bool lastTranscriptionHadError_ = false;
};

// Round-trip milliseconds of a plain GET of the URL, or -1.0 on any failure; for the log only.
void testLatency(platform::HttpClient& client, platform::Clock& clock, const std::string& urlString,
                 std::function<void(double milliseconds)> completion);

// "2024-05-01 12:00:00 +0000"
std::string logDateText(std::chrono::system_clock::time_point date);

} // namespace sprelio
