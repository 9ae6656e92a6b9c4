#include "backend/LoginResourceService.h"

#include <algorithm>
#include <charconv>

#include "base/JsonAccess.h"
#include "backend/HttpAudioUploadManager.h"
#include "shared/AppState.h"
#include "base/Digest.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "shared/Errors.h"

namespace sprelio {

namespace {

constexpr const char* kRefresh = "LoginResourceService.refreshUserInfo() - ";

std::string responseText(const std::optional<platform::HttpResponse>& response, const std::string& url) {
    if (!response) return "nil";
    return "{ URL: " + url + " } { Status Code: " + std::to_string(response->status) +
           ", MIME type: " + (response->mimeType.empty() ? std::string("nil") : response->mimeType) + " }";
}

std::string errorText(const std::optional<Error>& error) { return error ? error->debugDescription() : "nil"; }

std::optional<std::vector<std::string>> stringArray(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(key);
    if (it == object.end() || !it->is_array()) return std::nullopt;
    std::vector<std::string> values;
    for (const auto& element : *it) {
        if (!element.is_string()) return std::nullopt;
        values.push_back(element.get<std::string>());
    }
    return values;
}

// The token is a secret: the logged copy of a record never holds it.
nlohmann::ordered_json withoutToken(nlohmann::ordered_json json) {
    if (json.contains("token")) json["token"] = kPrivatized;
    return json;
}

} // namespace

// ---- Records ----

std::optional<LoginEmailResponse> LoginEmailResponse::parse(const nlohmann::json& dictionary) {
    auto uuid = stringValue(dictionary, "uuid");
    auto message = stringValue(dictionary, "message");
    if (!uuid || !message) return std::nullopt;
    return LoginEmailResponse{*uuid, *message};
}

std::optional<LoginConfirmResponse> LoginConfirmResponse::parse(const nlohmann::json& dictionary) {
    if (!dictionary.is_object()) return std::nullopt;
    auto user = dictionary.find("user");
    if (user == dictionary.end()) return std::nullopt;
    auto email = stringValue(*user, "email");
    auto requests = integerValue(dictionary, "requests");
    auto token = stringValue(dictionary, "token");
    if (!email || !requests || !token) return std::nullopt;
    return LoginConfirmResponse{*email, *requests, *token};
}

std::optional<UserDetailsResponse> UserDetailsResponse::init(const nlohmann::json& section) {
    std::optional<std::string> email;
    std::optional<std::string> guid;
    if (section.is_object() && section.contains("user") && section["user"].is_object()) {
        const auto& user = section["user"];
        email = stringValue(user, "email");
        guid = stringValue(user, "guid");
        if (user.contains("user") && user["user"].is_object()) {
            if (!email) email = stringValue(user["user"], "email");
            if (!guid) guid = stringValue(user["user"], "guid");
        }
    }
    const auto requests = integerValue(section, "requests");
    if (!email || !requests) {
        logInfo("UserDetailsResponse.init() - unable to extract user details");
        return std::nullopt;
    }
    return UserDetailsResponse{*email, guid, *requests, stringValue(section, "token")};
}

std::optional<UserDetailsResponse> UserDetailsResponse::decode(const nlohmann::json& stored) {
    auto email = stringValue(stored, "email");
    auto requests = integerValue(stored, "requests");
    if (!email || !requests) return std::nullopt;
    return UserDetailsResponse{*email, stringValue(stored, "guid"), *requests, stringValue(stored, "token")};
}

nlohmann::ordered_json UserDetailsResponse::encode() const {
    nlohmann::ordered_json json;
    json["email"] = email;
    if (guid) json["guid"] = *guid;
    json["requests"] = requests;
    if (token) json["token"] = *token;
    return json;
}

std::optional<AIModelItem> AIModelItem::decode(const nlohmann::json& json) {
    auto name = stringValue(json, "name");
    auto model = stringValue(json, "model");
    auto languages = stringArray(json, "languages");
    if (!name || !model || !languages) return std::nullopt;
    return AIModelItem{*name,
                       *model,
                       *languages,
                       stringValue(json, "providerType"),
                       stringValue(json, "providerName"),
                       stringArray(json, "features")};
}

nlohmann::ordered_json AIModelItem::encode() const {
    nlohmann::ordered_json json;
    json["name"] = name;
    json["model"] = model;
    json["languages"] = languages;
    if (providerType) json["providerType"] = *providerType;
    if (providerName) json["providerName"] = *providerName;
    if (features) json["features"] = *features;
    return json;
}

std::optional<AIServerItem> AIServerItem::decode(const nlohmann::json& json) {
    auto uuid = stringValue(json, "uuid");
    auto name = stringValue(json, "name");
    auto url = stringValue(json, "url");
    auto models = stringArray(json, "models");
    if (!uuid || !name || !url || !models) return std::nullopt;
    return AIServerItem{*uuid, *name, *url, *models};
}

nlohmann::ordered_json AIServerItem::encode() const {
    nlohmann::ordered_json json;
    json["uuid"] = uuid;
    json["name"] = name;
    json["url"] = url;
    json["models"] = models;
    return json;
}

std::string deviceIdFor(const std::string& machineIdentity) { return md5Hex(machineIdentity); }

// ---- The periodic refresh ----

// A repeating timer on the main loop: each firing schedules the next one until it is invalidated.
struct LoginResourceService::RepeatingTimer {
    platform::MainLoop& loop;
    platform::Duration interval;
    std::function<void()> handler;
    std::shared_ptr<platform::Timer> next;
    bool valid = true;

    void arm(const std::shared_ptr<RepeatingTimer>& self) {
        std::weak_ptr<RepeatingTimer> weak = self;
        next = loop.schedule(interval, [weak] {
            auto timer = weak.lock();
            if (!timer || !timer->valid) return;
            timer->arm(timer);
            timer->handler();
        });
    }
    void invalidate() {
        valid = false;
        if (next) next->invalidate();
    }
};

LoginResourceService::LoginResourceService(Dependencies deps) : deps_(std::move(deps)) {
    url_ = deps_.apiBaseURL + "/auth";
    deviceId_ = deviceIdFor(deps_.machineIdentity);
    const auto& preferred = deps_.constants.preferredLanguages();
    acceptLanguage_ = (!preferred.empty() && !preferred.front().empty()) ? preferred.front() : std::string("en");
    if (deps_.startRefreshTimer) scheduleUserInfoRefreshTimer(true);
}

LoginResourceService::~LoginResourceService() {
    lifetime_.expire();
    for (auto& timer : timers_) timer->invalidate();
}

void LoginResourceService::scheduleUserInfoRefreshTimer(bool fireNow) {
    auto timer = std::make_shared<RepeatingTimer>(RepeatingTimer{deps_.loop, kUserInfoRefreshInterval, {}, {}, true});
    const auto alive = lifetime_.token();
    timer->handler = [this, alive] {
        if (alive) discardableResultRefreshUserInfo();
    };
    timer->arm(timer);
    timers_.push_back(timer);
    userInfoRefreshTimer_ = timer;
    if (fireNow) {
        deps_.loop.post([this, alive] {
            if (alive) discardableResultRefreshUserInfo();
        });
    }
}

void LoginResourceService::discardableResultRefreshUserInfo() {
    refreshUserInfo("LoginResourceService.discardableResultRefreshUserInfo()", true, [](std::optional<Error>) {});
}

// ---- Requests ----

std::string LoginResourceService::info() const {
    nlohmann::ordered_json screens = nlohmann::ordered_json::array();
    for (const auto& screen : deps_.screens.screens()) {
        nlohmann::ordered_json entry;
        // Physical pixels, as the backing store of the screen has them.
        entry["width"] = static_cast<long long>(screen.frame.width * screen.scaling);
        entry["height"] = static_cast<long long>(screen.frame.height * screen.scaling);
        entry["is_primary"] = screen.isPrimary;
        entry["scaling"] = screen.scaling;
        screens.push_back(entry);
    }
    nlohmann::ordered_json info;
    info["screens"] = screens.dump();
    info["languages"] = languageInfo().dump();
    return info.dump();
}

nlohmann::ordered_json LoginResourceService::languageInfo() const {
    nlohmann::ordered_json languages;
    languages["system"] = deps_.constants.systemLanguageCode();
    languages["region"] = deps_.localeRegion.empty() ? std::string("??") : deps_.localeRegion;
    languages["app"] = deps_.constants.appLanguageCode();
    return languages;
}

std::optional<std::string> LoginResourceService::buildURL(
    const std::string& base, const std::string& path,
    const std::vector<std::pair<std::string, std::string>>& query) const {
    // The base may carry a path of its own (an API under a prefix): it is kept in front of the operation's path.
    const auto schemeEnd = base.find("://");
    if (schemeEnd == std::string::npos) return std::nullopt;
    const auto pathStart = base.find('/', schemeEnd + 3);
    const std::string origin = pathStart == std::string::npos ? base : base.substr(0, pathStart);
    std::string prefix = pathStart == std::string::npos ? std::string() : base.substr(pathStart);
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    if (prefix.find_first_of("?#") != std::string::npos) return std::nullopt;
    return HttpAudioUploadManager::endpointURL(origin, prefix + path, query);
}

platform::HttpRequest LoginResourceService::makeRequest(std::string method, std::string url) const {
    platform::HttpRequest request;
    request.method = std::move(method);
    request.url = std::move(url);
    request.timeout = kRequestTimeout;
    request.headers.push_back({"Accept-Language", acceptLanguage_});
    return request;
}

void LoginResourceService::performRequest(platform::HttpRequest request, int retries,
                                          std::optional<double> timeoutInterval, const std::string& caller,
                                          RequestCompletion completion) {
    retries = std::clamp(retries, 0, kMaxRetries);
    logInfo("performRequest() - retries: " + std::to_string(retries) + " - timeoutInterval: " +
            (timeoutInterval ? doubleText(*timeoutInterval) : std::string("default")) + ", caller: " + caller);

    platform::HttpRequest sent = request;
    auto setHeader = [&sent](const std::string& name, const std::string& value) {
        auto it = std::find_if(sent.headers.begin(), sent.headers.end(), [&](const platform::HttpHeader& header) {
            return header.name == name;
        });
        if (it != sent.headers.end()) {
            it->value = value;
        } else {
            sent.headers.push_back({name, value});
        }
    };
    setHeader("Content-Type", "application/json");
    setHeader("Accept", "application/json");
    setHeader("Accept-Language", acceptLanguage_);
    if (timeoutInterval) {
        sent.timeout = std::chrono::milliseconds(static_cast<long long>(*timeoutInterval * 1000.0));
    }
    // The session's request limit bounds every request, whatever the request itself asks for.
    sent.timeout = std::min<std::chrono::milliseconds>(sent.timeout, kSessionRequestTimeout);
    logInfo("performRequest() - request.timeoutInterval: " + doubleText(static_cast<double>(sent.timeout.count()) / 1000.0));

    const std::string url = sent.url;
    const auto alive = lifetime_.token();
    deps_.http.send(std::move(sent), [this, alive, request = std::move(request), retries, caller, url,
                                      completion = std::move(completion)](platform::HttpResult result) mutable {
        if (!alive) return;
        std::optional<platform::HttpResponse> response;
        std::optional<Error> error;
        if (auto* r = std::get_if<platform::HttpResponse>(&result)) {
            response = std::move(*r);
        } else {
            error = std::get<Error>(result);
        }
        if (response) {
            auto parsed = nlohmann::json::parse(response->body, nullptr, false);
            if (!parsed.is_discarded() && parsed.is_object()) {
                completion(std::move(parsed), std::move(response), std::move(error));
                return;
            }
        }
        if (!error) {
            logWarning("performRequest()  - caller: " + caller + " - response: " + responseText(response, url));
            completion(std::nullopt, std::move(response), std::nullopt);
            return;
        }
        if (retries < 1) {
            logError("performRequest() - caller: " + caller + " - error: " + errorText(error));
            completion(std::nullopt, std::move(response), std::move(error));
            return;
        }
        const int delay = kMaxRetries + 1 - retries;
        deps_.loop.postAfter(std::chrono::seconds(delay), [this, alive, request = std::move(request), retries, caller,
                                                           delay, error = *error,
                                                           completion = std::move(completion)]() mutable {
            if (!alive) return;
            logError("performRequest() - caller: " + caller + " - failed to get data with error -> " +
                     error.debugDescription() + " -> retrying in " + std::to_string(delay) + " second(s) -> (retry " +
                     std::to_string(delay) + "/" + std::to_string(kMaxRetries) + ")");
            performRequest(std::move(request), retries - 1, std::nullopt, caller, std::move(completion));
        });
    });
}

// ---- User info ----

void LoginResourceService::refreshUserInfo(const std::string& caller, bool ignoreDebounceTime,
                                           std::function<void(std::optional<Error> error)> completion) {
    auto finish = [&completion](std::optional<Error> error) {
        if (completion) completion(std::move(error));
    };
    logInfo(std::string(kRefresh) + "caller: " + caller + " - ignoreDebounceTime: " +
            (ignoreDebounceTime ? "true" : "false"));
    const auto now = deps_.clock.now();
    if (ignoreDebounceTime) {
        logInfo(std::string(kRefresh) + "* forced (ignoring " + doubleText(kDebounceSeconds) +
                " seconds debounce) - caller: " + caller);
    } else if (lastUserInfoRefreshDate_ && now - *lastUserInfoRefreshDate_ < kUserInfoRefreshInterval) {
        logInfo(std::string(kRefresh) + "* skipped (last call < " + doubleText(kDebounceSeconds) +
                " seconds - caller: " + caller);
        finish(std::nullopt);
        return;
    }
    lastUserInfoRefreshDate_ = now;

    if (!deps_.appState.internetAvailable()) {
        logError(std::string(kRefresh) +
                 errorDescription(SPRLocalizedError::networkError, deps_.constants.appName()));
        finish(std::nullopt);
        return;
    }

    const auto url = buildURL(deps_.apiBaseURL, "/users/info",
                              {{"api_version", "2"},
                               {"device_id", deviceId_},
                               {"os", deps_.constants.osName()},
                               {"app", deps_.constants.clientVersion()},
                               {"info", info()}});
    if (!url) {
        logInfo(std::string(kRefresh) + "Invalid URL");
        finish(makeError(SPRLocalizedError::invalidUrlError, deps_.constants.appName()));
        return;
    }
    auto request = makeRequest("GET", *url);
    const auto token = deps_.settings.token();
    if (token && !token->empty()) request.headers.push_back({"Authorization", "Bearer " + *token});

    std::string headerNames;
    for (const auto& header : request.headers) {
        headerNames += (headerNames.empty() ? "" : ", ") + header.name + ": " +
                       (header.name == "Authorization" ? std::string(kPrivatized) : header.value);
    }
    logInfo(std::string(kRefresh) + "request.allHTTPHeaderFields: [" + headerNames + "]");

    const auto alive = lifetime_.token();
    const std::string requestURL = *url;
    performRequest(std::move(request), kMaxRetries, std::nullopt, "LoginResourceService.refreshUserInfo()",
                   [this, alive, requestURL, completion = std::move(completion)](
                       std::optional<nlohmann::json> dictionary, std::optional<platform::HttpResponse> response,
                       std::optional<Error> error) {
                       if (!alive) return;
                       if (!dictionary) {
                           if (error) {
                               logError(std::string(kRefresh) + "error: " + error->debugDescription());
                               if (completion) completion(std::move(error));
                               return;
                           }
                           logWarning(std::string(kRefresh) + "response: " + responseText(response, requestURL));
                           if (completion) completion(std::nullopt);
                           return;
                       }
                       applyUserInfo(*dictionary);
                       if (completion) completion(std::nullopt);
                   });
}

void LoginResourceService::applyUserInfo(const nlohmann::json& dictionary) {
    // Each section is applied only when present and well-formed, so a partial answer updates what it holds.
    if (auto it = dictionary.find("flags"); it != dictionary.end() && it->is_object()) {
        flags_ = *it;
        logInfo(std::string(kRefresh) + "Updated flags: " + it->dump());
    } else {
        logWarning(std::string(kRefresh) + "No 'flags' found in response");
    }

    if (auto ai = dictionary.find("ai"); ai != dictionary.end() && ai->is_object()) {
        if (auto models = ai->find("models"); models != ai->end() && models->is_array()) {
            std::vector<AIModelItem> list;
            nlohmann::ordered_json names = nlohmann::ordered_json::array();
            for (const auto& element : *models) {
                if (auto item = AIModelItem::decode(element)) {
                    names.push_back(item->encode());
                    list.push_back(std::move(*item));
                }
            }
            aiModels_ = list;
            logInfo(std::string(kRefresh) + "Updated AI models: " + names.dump());
            if (onAIModels) onAIModels(aiModels_);
        } else {
            logWarning(std::string(kRefresh) + "No 'models' found in AI response");
        }
        if (auto servers = ai->find("servers"); servers != ai->end() && servers->is_array()) {
            std::vector<AIServerItem> list;
            nlohmann::ordered_json names = nlohmann::ordered_json::array();
            for (const auto& element : *servers) {
                if (auto item = AIServerItem::decode(element)) {
                    names.push_back(item->encode());
                    list.push_back(std::move(*item));
                }
            }
            aiServers_ = list;
            logInfo(std::string(kRefresh) + "Updated AI servers: " + names.dump());
            if (onAIServers) onAIServers(aiServers_);
        } else {
            logWarning(std::string(kRefresh) + "No 'servers' found in AI response");
        }
    } else {
        logError(std::string(kRefresh) + "'ai' section missing in response");
    }

    if (auto balancers = dictionary.find("balancers"); balancers != dictionary.end() && balancers->is_array()) {
        std::vector<BackendBalancerPtr> list;
        for (const auto& element : *balancers) {
            auto uuid = stringValue(element, "uuid");
            auto name = stringValue(element, "name");
            auto url = stringValue(element, "url");
            if (!uuid || !name || !url) continue;
            list.push_back(std::make_shared<BackendBalancer>(*uuid, *name, *url, true));
            if (auto live = element.find("liveDecoding"); live != element.end() && live->is_boolean())
                list.back()->liveDecoding = live->get<bool>();
        }
        if (deps_.balancing) {
            deps_.balancing->setBalancers(std::move(list));
            deps_.balancing->setLastRefreshDate(deps_.clock.now());
        }
    } else {
        logWarning(std::string(kRefresh) + "No 'balancers' found in response");
    }

    if (auto user = dictionary.find("user"); user != dictionary.end() && user->is_object()) {
        if (auto details = UserDetailsResponse::init(*user)) {
            logInfo(std::string(kRefresh) + "Updated user details: " + withoutToken(details->encode()).dump());
            if (onUserDetails) onUserDetails(*details);
            deps_.settings.setUserDetailsResponse(nlohmann::json(details->encode()));
        } else {
            logWarning(std::string(kRefresh) + "Unable to parse 'user' data into UserDetailsResponse");
        }
        if (auto token = stringValue(*user, "token")) {
            deps_.settings.setToken(*token);
            logInfo(std::string(kRefresh) + "Updated user token: " + std::string(kPrivatized));
        } else {
            logWarning(std::string(kRefresh) + "No 'token' found in user data");
        }
    } else {
        logError(std::string(kRefresh) + "'user' section missing in response");
    }
}

// ---- Sign-in ----

void LoginResourceService::showAlert(const Error& error) {
    if (deps_.messages) deps_.messages->showAlertForError(error);
}

// A record is success and starts the account refresh afresh; anything else is the transport's error, the
// server's words where the step reads them, or an answer of no known shape.
template <class Record>
void LoginResourceService::sendSignInRequest(const std::optional<std::string>& url, const char* method,
                                             std::optional<std::string> body, const SignInRules& rules,
                                             LoginCompletion<Record> completion) {
    if (!url) {
        if (completion) completion(std::nullopt, std::nullopt, makeError(SPRLocalizedError::invalidUrlError,
                                                                         deps_.constants.appName()));
        return;
    }
    auto request = makeRequest(method, *url);
    if (body) request.body = platform::HttpBody::fromBytes(std::move(*body));
    const std::string requestURL = *url;
    performRequest(
        std::move(request), kMaxRetries, std::nullopt, rules.caller,
        lifetime_.guard([this, rules, requestURL, completion = std::move(completion)](
                            std::optional<nlohmann::json> dictionary, std::optional<platform::HttpResponse> response,
                            std::optional<Error> error) {
            const std::string caller = rules.caller;
            if (dictionary) {
                if (auto record = Record::parse(*dictionary)) {
                    scheduleUserInfoRefreshTimer(false);
                    if (!rules.recordKeepsError) error.reset();
                    if (completion) completion(std::move(record), std::move(response), std::move(error));
                    return;
                }
            }
            if (error) {
                log(rules.errorLevel, caller + " - error: " + error->debugDescription());
                if (rules.alertOnError) showAlert(*error);
                if (completion) completion(std::nullopt, std::move(response), std::move(error));
                return;
            }
            if (dictionary && rules.serverErrorIsError) {
                auto name = stringValue(*dictionary, "error");
                auto message = stringValue(*dictionary, "message");
                if (name && message) {
                    logInfo(caller + " - error: (" + *name + ", " + *message + ")");
                    if (completion) {
                        completion(std::nullopt, std::move(response),
                                   SPRStringError::errorMessageError(*name, *message).toError());
                    }
                    return;
                }
            }
            log(rules.unexpectedAnswerLevel, caller + " - response: " + responseText(response, requestURL));
            if (completion) completion(std::nullopt, std::move(response), std::nullopt);
        }));
}

void LoginResourceService::login(const std::string& email, LoginCompletion<LoginEmailResponse> completion) {
    const auto url = buildURL(url_, "/request",
                              {{"email", email}, {"device_id", deviceId_}, {"os", deps_.constants.osName()},
                               {"info", info()}});
    sendSignInRequest(url, "GET", std::nullopt, {"login()", LogLevel::error, true, LogLevel::warning, false, false},
                      std::move(completion));
}

void LoginResourceService::checkLoginViaLink(const std::string& uuid,
                                             LoginCompletion<LoginConfirmResponse> completion) {
    // No alert on an error: the poller decides what a failed wait means.
    sendSignInRequest(buildURL(url_, "/request/wait", {{"uuid", uuid}}), "GET", std::nullopt,
                      {"checkLoginViaLink()", LogLevel::info, false, LogLevel::error, false, true},
                      std::move(completion));
}

void LoginResourceService::loginViaCode(const std::string& uuid, const std::string& code,
                                        LoginCompletion<LoginConfirmResponse> completion) {
    nlohmann::ordered_json body;
    body["uuid"] = uuid;
    body["code"] = code;
    sendSignInRequest(buildURL(url_, "/request/code", {}), "POST", body.dump(),
                      {"loginViaCode()", LogLevel::info, true, LogLevel::warning, true, false},
                      std::move(completion));
}

} // namespace sprelio
