#pragma once
// The completion service: sends a text to an AI server and hands back the generated text. A request names either a
// prompt the servers know (by its id) or carries a user's preset with its own prompt and model. The AI servers and
// models come from the account service; they are kept in memory and in two list files, so that the first request
// after a start does not have to wait for the account service. A request walks the servers in list order until one
// answers; a server that failed is not remembered, the next request starts at the first one again.
//
// The manager shows nothing: every failure reaches the caller as an AICompletionError, whose text the caller
// presents.
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "backend/BalancingManager.h"
#include "backend/LoginResourceService.h"
#include "base/Error.h"
#include "base/LifetimeGuard.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"
#include "shared/AICompletionPromptId.h"

namespace sprelio {

namespace store {
class AppConstants;
class IntelligencePreset;
class Settings;
} // namespace store

// The list files' form of the account service's items. On reading, every member but a model's `name` may be
// missing (or null) and reads as empty; a member of the wrong type fails the whole list.
void to_json(nlohmann::json& json, const AIServerItem& item);
void from_json(const nlohmann::json& json, AIServerItem& item);
void to_json(nlohmann::json& json, const AIModelItem& item);
void from_json(const nlohmann::json& json, AIModelItem& item);

class AICompletionError {
public:
    enum class Kind {
        requestError,
        decodingError,
        noServersAvailableForModel,
        invalidServerURL,
        invalidToken,
        invalidResponse,
        noResult,
    };

    static AICompletionError requestError(Error error) { return {Kind::requestError, std::move(error)}; }
    static AICompletionError decodingError(Error error) { return {Kind::decodingError, std::move(error)}; }
    static AICompletionError noServersAvailableForModel() { return {Kind::noServersAvailableForModel, {}}; }
    static AICompletionError invalidServerURL() { return {Kind::invalidServerURL, {}}; }
    static AICompletionError invalidToken() { return {Kind::invalidToken, {}}; }
    static AICompletionError invalidResponse() { return {Kind::invalidResponse, {}}; }
    static AICompletionError noResult() { return {Kind::noResult, {}}; }

    Kind kind() const { return kind_; }
    // The underlying failure of requestError and decodingError; nothing for the other kinds.
    const std::optional<Error>& error() const { return error_; }
    // The text shown to the user.
    std::string errorDescription() const;
    bool operator==(const AICompletionError&) const = default;

private:
    AICompletionError(Kind kind, std::optional<Error> error) : kind_(kind), error_(std::move(error)) {}
    Kind kind_;
    std::optional<Error> error_;
};

// The case name, as logs and tests spell it ("requestError").
const char* aiCompletionErrorKindName(AICompletionError::Kind kind);

class IntelligenceManager {
public:
    // Exactly one of the two is set. Runs on the main loop, never before the call that started the request has
    // returned.
    using Completion = std::function<void(std::optional<std::string> completion, std::optional<AICompletionError> error)>;
    // The servers that serve a model, in list order; nothing when none does, even after a refresh.
    using ServersCompletion = std::function<void(std::optional<std::vector<AIServerItem>> servers)>;

    struct Dependencies {
        platform::MainLoop& loop;
        platform::HttpClient& http;
        // The bearer token, read as each request is built.
        const store::Settings& settings;
        // The app identifier of the request and the folder of the list files.
        const store::AppConstants& constants;
        // The account service, asked once for fresh lists when no server serves a preset's model. None: the
        // lists in hand are final.
        UserInfoRefresher* accountService = nullptr;
    };

    static constexpr std::chrono::milliseconds kRequestTimeout{60'000};
    static constexpr const char* kRefreshCaller = "IntelligenceManager.serversWithModel()";

    // Reads both lists from their files.
    explicit IntelligenceManager(Dependencies deps);
    ~IntelligenceManager();
    IntelligenceManager(const IntelligenceManager&) = delete;
    IntelligenceManager& operator=(const IntelligenceManager&) = delete;

    const std::vector<AIServerItem>& aiServerItems() const { return aiServerItems_; }
    const std::vector<AIModelItem>& aiModelItems() const { return aiModelItems_; }
    // Each replaces its list whole and writes it to its file at once; a failed write is only logged. The account
    // service's lists arrive here. Main loop only.
    void setAIServerItems(std::vector<AIServerItem> items);
    void setAIModelItems(std::vector<AIModelItem> items);
    // Told after each replacement, for views that show the lists.
    std::function<void()> onAIServerItemsChanged;
    std::function<void()> onAIModelItemsChanged;

    // A request by the servers' prompt id, walked over all servers. Main loop only.
    void textCompletionWithPromptId(const AICompletionPromptId& promptId, Completion completion);
    // A request with the preset's prompt and model (the default model when it has none), walked over the servers
    // that serve that model. The preset is read at the call; it may change or go away afterwards. Main loop only.
    void textCompletionWithPreset(const store::IntelligencePreset& preset, const std::string& text,
                                  Completion completion);
    // When no server lists the model, the lists are refreshed once (forced) and searched again. Main loop only.
    void serversWithModel(const std::string& model, ServersCompletion completion);

    // The model of the first known model, for presets without one; empty when no model is known.
    std::string defaultModel() const;

private:
    struct Walk;
    void tryServer(const std::shared_ptr<Walk>& walk);
    void handleAnswer(const std::shared_ptr<Walk>& walk, platform::HttpResult result);
    void next(const std::shared_ptr<Walk>& walk, AICompletionError error);
    void finish(const std::shared_ptr<Walk>& walk, std::optional<std::string> completion,
                std::optional<AICompletionError> error);
    std::vector<AIServerItem> serversServing(const std::string& model) const;

    Dependencies deps_;
    std::vector<AIServerItem> aiServerItems_;
    std::vector<AIModelItem> aiModelItems_;
    // Requests on the wire, cancelled when the manager goes.
    std::vector<std::shared_ptr<platform::HttpTask>> inFlight_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
