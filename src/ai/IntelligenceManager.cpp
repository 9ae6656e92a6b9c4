#include "ai/IntelligenceManager.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <variant>

#include "base/JsonAccess.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/CodableHelpers.h"
#include "store/Entities.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr const char* kPromptIdMethod = "IntelligenceManager.textCompletionWithPromptId() - ";
constexpr const char* kPresetMethod = "IntelligenceManager.textCompletionWithPreset() - ";
constexpr const char* kPromptIdURLLog = "IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: ";
constexpr const char* kPresetURLLog = "textCompletionWithPreset() - aiServerURLString: ";
constexpr const char* kCompletionsPath = "/completions?app=";
constexpr const char* kCocoaDomain = "NSCocoaErrorDomain";

// The list files may hold items written by older builds that lacked a member: a missing or null member reads as
// empty. A member of another type is a broken file, not an item to guess at.
template <class T> std::optional<T> optionalMember(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) throw std::runtime_error("an item is not a JSON object");
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::nullopt;
    return it->get<T>();
}

// What the decoder of the answer reports; the answer's own bytes stay out of it, since they hold the user's text.
Error answerMissingCompletion() {
    return Error{kCocoaDomain, 4865, "The data couldn’t be read because it is missing.", {}};
}
Error answerInWrongFormat() {
    return Error{kCocoaDomain, 4864, "The data couldn’t be read because it isn’t in the correct format.", {}};
}

// The text of `completion` in a 2xx answer, or why there is none.
std::variant<std::string, Error> decodeCompletionResponse(const std::string& body) {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object()) return answerInWrongFormat();
    const auto it = json.find("completion");
    if (it == json.end() || it->is_null()) return answerMissingCompletion();
    if (!it->is_string()) return answerInWrongFormat();
    return it->get<std::string>();
}

bool isSchemeCharacter(char c, bool first) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (first) return letter;
    return letter || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

// Whether the text names something a request can be sent to: an absolute URL with a scheme and a host, made of
// characters a URL may hold. A server entry without a url leaves only the path and query, which is no such URL.
bool isRequestURL(const std::string& text) {
    const auto schemeEnd = text.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) return false;
    for (std::size_t i = 0; i < schemeEnd; ++i) {
        if (!isSchemeCharacter(text[i], i == 0)) return false;
    }
    static constexpr std::string_view kNeverInURL = " \"<>\\^`{|}";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c >= 0x7F || kNeverInURL.find(ch) != std::string_view::npos) return false;
    }
    const std::size_t authorityStart = schemeEnd + 3;
    const std::size_t authorityEnd = text.find_first_of("/?#", authorityStart);
    std::string authority = text.substr(
        authorityStart, authorityEnd == std::string::npos ? std::string::npos : authorityEnd - authorityStart);
    if (const auto at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
    return !authority.empty() && authority.front() != ':';
}

std::string describeServers(const std::vector<AIServerItem>& servers) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& server : servers) list.push_back(server.encode());
    return list.dump();
}

} // namespace

// ---- The list files ----

void to_json(nlohmann::json& json, const AIServerItem& item) { json = nlohmann::json(item.encode()); }

void from_json(const nlohmann::json& json, AIServerItem& item) {
    item.uuid = optionalMember<std::string>(json, "uuid").value_or("");
    item.name = optionalMember<std::string>(json, "name").value_or("");
    item.url = optionalMember<std::string>(json, "url").value_or("");
    item.models = optionalMember<std::vector<std::string>>(json, "models").value_or(std::vector<std::string>{});
}

void to_json(nlohmann::json& json, const AIModelItem& item) { json = nlohmann::json(item.encode()); }

void from_json(const nlohmann::json& json, AIModelItem& item) {
    const auto name = optionalMember<std::string>(json, "name");
    if (!name) throw std::runtime_error("a model has no name");
    item.name = *name;
    item.model = optionalMember<std::string>(json, "model").value_or("");
    item.languages = optionalMember<std::vector<std::string>>(json, "languages").value_or(std::vector<std::string>{});
    item.providerType = optionalMember<std::string>(json, "providerType");
    item.providerName = optionalMember<std::string>(json, "providerName");
    item.features = optionalMember<std::vector<std::string>>(json, "features");
}

// ---- Errors ----

std::string AICompletionError::errorDescription() const {
    const std::string underlying = error_ ? error_->localizedDescription : std::string();
    switch (kind_) {
    case Kind::requestError: return "Request error during AI processing: " + underlying;
    case Kind::decodingError: return "Decoding error during AI processing: " + underlying;
    case Kind::noServersAvailableForModel: return "No servers available for the requested AI processing model.";
    case Kind::invalidServerURL: return "Invalid server URL for AI processing.";
    case Kind::invalidToken: return "Invalid token for AI processing.";
    case Kind::invalidResponse: return "Invalid response from the AI processing server.";
    case Kind::noResult: return "Failed to produce a valid result.";
    }
    return {};
}

const char* aiCompletionErrorKindName(AICompletionError::Kind kind) {
    using Kind = AICompletionError::Kind;
    switch (kind) {
    case Kind::requestError: return "requestError";
    case Kind::decodingError: return "decodingError";
    case Kind::noServersAvailableForModel: return "noServersAvailableForModel";
    case Kind::invalidServerURL: return "invalidServerURL";
    case Kind::invalidToken: return "invalidToken";
    case Kind::invalidResponse: return "invalidResponse";
    case Kind::noResult: return "noResult";
    }
    return "";
}

// ---- The manager ----

// One request on its way through the servers.
struct IntelligenceManager::Walk {
    // The method's log prefix, and the prefix of its URL line.
    const char* method = kPromptIdMethod;
    const char* urlLog = kPromptIdURLLog;
    nlohmann::json body;
    std::vector<AIServerItem> servers;
    std::size_t index = 0;
    Completion completion;
    // Not owned: the request's completion holds this walk, and a walk holding its request would keep both alive
    // for good once the manager is gone and the completion never runs. inFlight_ owns the tasks.
    std::weak_ptr<platform::HttpTask> task;
};

IntelligenceManager::IntelligenceManager(Dependencies deps) : deps_(std::move(deps)) {
    aiServerItems_ = store::CodableHelpers::retrieveArray<AIServerItem>(deps_.constants.aiServerItemsFile());
    aiModelItems_ = store::CodableHelpers::retrieveArray<AIModelItem>(deps_.constants.aiModelItemsFile());
}

IntelligenceManager::~IntelligenceManager() {
    lifetime_.expire();
    for (const auto& task : inFlight_) {
        if (task) task->cancel();
    }
    inFlight_.clear();
}

void IntelligenceManager::setAIServerItems(std::vector<AIServerItem> items) {
    aiServerItems_ = std::move(items);
    store::CodableHelpers::persistArray(aiServerItems_, deps_.constants.aiServerItemsFile());
    if (onAIServerItemsChanged) onAIServerItemsChanged();
}

void IntelligenceManager::setAIModelItems(std::vector<AIModelItem> items) {
    aiModelItems_ = std::move(items);
    store::CodableHelpers::persistArray(aiModelItems_, deps_.constants.aiModelItemsFile());
    if (onAIModelItemsChanged) onAIModelItemsChanged();
}

std::string IntelligenceManager::defaultModel() const {
    return aiModelItems_.empty() ? std::string() : aiModelItems_.front().model;
}

std::vector<AIServerItem> IntelligenceManager::serversServing(const std::string& model) const {
    std::vector<AIServerItem> servers;
    for (const auto& server : aiServerItems_) {
        if (std::find(server.models.begin(), server.models.end(), model) != server.models.end()) {
            servers.push_back(server);
        }
    }
    return servers;
}

void IntelligenceManager::serversWithModel(const std::string& model, ServersCompletion completion) {
    const auto deliver = [this, completion](std::optional<std::vector<AIServerItem>> servers) {
        deps_.loop.post(lifetime_.guard([completion, servers = std::move(servers)]() {
            if (completion) completion(servers);
        }));
    };
    auto servers = serversServing(model);
    if (!servers.empty()) return deliver(std::move(servers));
    if (!deps_.accountService) return deliver(std::nullopt);
    // The lists may be older than the preset's model: one forced refresh, and the answer of whatever it brought.
    deps_.accountService->refreshUserInfo(kRefreshCaller, true,
                                          lifetime_.guard([this, model, deliver](std::optional<Error> error) {
                                              if (error) return deliver(std::nullopt);
                                              auto refreshed = serversServing(model);
                                              if (refreshed.empty()) return deliver(std::nullopt);
                                              deliver(std::move(refreshed));
                                          }));
}

void IntelligenceManager::textCompletionWithPromptId(const AICompletionPromptId& promptId, Completion completion) {
    auto walk = std::make_shared<Walk>();
    walk->method = kPromptIdMethod;
    walk->urlLog = kPromptIdURLLog;
    walk->body = promptId.dictionary();
    walk->servers = aiServerItems_;
    walk->completion = std::move(completion);
    logInfo(std::string(kPromptIdMethod) + "requestBody: " + std::string(kPrivatized));
    tryServer(walk);
}

void IntelligenceManager::textCompletionWithPreset(const store::IntelligencePreset& preset, const std::string& text,
                                                   Completion completion) {
    const std::string model = preset.model().value_or(defaultModel());
    const std::string prompt = preset.prompt().value_or("");
    logInfo(std::string(kPresetMethod) + "enabledPreset: " + preset.description());
    logInfo(std::string(kPresetMethod) + "model: " + model);

    auto walk = std::make_shared<Walk>();
    walk->method = kPresetMethod;
    walk->urlLog = kPresetURLLog;
    walk->body = nlohmann::json{{"prompt", prompt}, {"text", text}, {"model", model}};
    walk->completion = std::move(completion);
    serversWithModel(model, [this, walk](std::optional<std::vector<AIServerItem>> servers) {
        if (!servers) return finish(walk, std::nullopt, AICompletionError::noServersAvailableForModel());
        logInfo(std::string(kPresetMethod) + "serversWithModel: " + describeServers(*servers));
        walk->servers = std::move(*servers);
        logInfo(std::string(kPresetMethod) + "requestBody: " + std::string(kPrivatized));
        tryServer(walk);
    });
}

void IntelligenceManager::tryServer(const std::shared_ptr<Walk>& walk) {
    if (walk->index >= walk->servers.size()) return finish(walk, std::nullopt, AICompletionError::noResult());
    const AIServerItem& server = walk->servers[walk->index];

    const std::string urlString = server.url + kCompletionsPath + deps_.constants.clientVersion();
    logInfo(walk->urlLog + urlString);
    if (!isRequestURL(urlString)) return next(walk, AICompletionError::invalidServerURL());
    // Without a token the request could only be refused; it counts as a server that can't be used.
    const auto token = deps_.settings.token();
    if (!token) return next(walk, AICompletionError::invalidServerURL());

    std::string body;
    try {
        body = walk->body.dump();
    } catch (const nlohmann::json::exception&) {
        // Text that is no valid UTF-8 can't become JSON on any server: no point in walking on.
        return finish(walk, std::nullopt,
                      AICompletionError::requestError(
                          Error{kCocoaDomain, 3851, "The request couldn’t be written as JSON.", {}}));
    }

    platform::HttpRequest request;
    request.method = "POST";
    request.url = urlString;
    request.timeout = kRequestTimeout;
    request.headers = {{"Authorization", "Bearer " + *token}, {"Content-Type", "application/json"}};
    request.body = platform::HttpBody::fromBytes(std::move(body));
    auto task = deps_.http.send(std::move(request), lifetime_.guard([this, walk](platform::HttpResult result) {
        handleAnswer(walk, std::move(result));
    }));
    walk->task = task;
    if (task) inFlight_.push_back(std::move(task));
}

void IntelligenceManager::handleAnswer(const std::shared_ptr<Walk>& walk, platform::HttpResult result) {
    if (const auto task = walk->task.lock()) {
        inFlight_.erase(std::remove(inFlight_.begin(), inFlight_.end(), task), inFlight_.end());
    }
    walk->task.reset();

    if (auto* failure = std::get_if<Error>(&result)) return next(walk, AICompletionError::requestError(*failure));

    const auto& response = std::get<platform::HttpResponse>(result);
    if (response.status >= 200 && response.status <= 299) {
        auto decoded = decodeCompletionResponse(response.body);
        if (auto* text = std::get_if<std::string>(&decoded)) return finish(walk, std::move(*text), std::nullopt);
        return next(walk, AICompletionError::decodingError(std::get<Error>(decoded)));
    }

    const auto answer = nlohmann::json::parse(response.body, nullptr, false);
    if (!answer.is_discarded() && answer.is_object() && boolValue(answer, "stop").value_or(false)) {
        // The server forbids a retry: no other server is asked either.
        const Error refusal{stringValue(answer, "error").value_or("UnknownError"), response.status,
                            stringValue(answer, "message").value_or("An unknown error occurred."),
                            {}};
        logError(std::string(walk->method) + "error: " + refusal.localizedDescription);
        return finish(walk, std::nullopt, AICompletionError::requestError(refusal));
    }
    next(walk, AICompletionError::invalidResponse());
}

void IntelligenceManager::next(const std::shared_ptr<Walk>& walk, AICompletionError error) {
    if (walk->index + 1 < walk->servers.size()) {
        ++walk->index;
        return tryServer(walk);
    }
    logError(std::string(walk->method) + "error: " + error.errorDescription());
    finish(walk, std::nullopt, std::move(error));
}

void IntelligenceManager::finish(const std::shared_ptr<Walk>& walk, std::optional<std::string> completion,
                                 std::optional<AICompletionError> error) {
    auto done = std::move(walk->completion);
    if (!done) return;
    deps_.loop.post(lifetime_.guard([done = std::move(done), completion = std::move(completion),
                                     error = std::move(error)]() mutable {
        done(std::move(completion), std::move(error));
    }));
}

} // namespace sprelio
