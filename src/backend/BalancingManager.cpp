#include "backend/BalancingManager.h"

#include <ctime>
#include <sstream>

#include "shared/AppState.h"
#include "base/Log.h"
#include "store/Settings.h"
#include "shared/Errors.h"

namespace sprelio {

nlohmann::ordered_json BackendBalancer::encode() const {
    nlohmann::ordered_json json;
    json["uuid"] = uuid;
    json["name"] = name;
    json["url"] = url;
    json["isOnline"] = isOnline;
    return json;
}

std::shared_ptr<BackendBalancer> BackendBalancer::decode(const nlohmann::json& json) {
    if (!json.is_object()) return nullptr;
    for (const char* key : {"uuid", "name", "url"}) {
        auto it = json.find(key);
        if (it == json.end() || !it->is_string()) return nullptr;
    }
    bool online = true;
    if (auto it = json.find("isOnline"); it != json.end() && it->is_boolean()) online = it->get<bool>();
    return std::make_shared<BackendBalancer>(json["uuid"].get<std::string>(), json["name"].get<std::string>(),
                                             json["url"].get<std::string>(), online);
}

std::vector<BackendBalancerPtr> decodeBalancers(const nlohmann::json& json, const std::string& caller) {
    std::vector<BackendBalancerPtr> result;
    if (!json.is_array()) {
        if (!json.is_null()) logError(caller + " - balancers are not a list, ignoring them");
        return result;
    }
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (auto balancer = BackendBalancer::decode(json[i])) {
            result.push_back(std::move(balancer));
        } else {
            logError(caller + " - dropping balancer #" + std::to_string(i + 1) +
                     ": uuid, name or url missing or not a string");
        }
    }
    return result;
}

nlohmann::ordered_json encodeBalancers(const std::vector<BackendBalancerPtr>& balancers) {
    auto list = nlohmann::ordered_json::array();
    for (const auto& balancer : balancers) list.push_back(balancer->encode());
    return list;
}

std::string logDateText(std::chrono::system_clock::time_point date) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return text;
}

namespace {

std::string namesText(const std::vector<BackendBalancerPtr>& balancers) {
    std::string text = "[";
    for (std::size_t i = 0; i < balancers.size(); ++i) {
        if (i > 0) text += ", ";
        text += "\"" + balancers[i]->name + "\"";
    }
    return text + "]";
}

} // namespace

BalancingManager::BalancingManager(platform::MainLoop& loop, platform::Clock& clock, store::Settings& settings,
                                   AppState& appState, std::string appName)
    : loop_(loop), clock_(clock), settings_(settings), appState_(appState), appName_(std::move(appName)),
      balancers_(decodeBalancers(settings.balancers(), "BalancingManager.init()")), lastRefreshDate_(clock.now()) {
    logInfo("BalancingManager.init() - persisted balancers: " + namesText(balancers_) +
            " - lastRefreshDate: " + logDateText(lastRefreshDate_));
}

void BalancingManager::persist() { settings_.setBalancers(nlohmann::json::parse(encodeBalancers(balancers_).dump())); }

void BalancingManager::setBalancers(std::vector<BackendBalancerPtr> balancers) {
    balancers_ = std::move(balancers);
    persist();
}

void BalancingManager::setOnline(const BackendBalancerPtr& balancer, bool online) {
    if (!balancer) return;
    balancer->isOnline = online;
    for (const auto& element : balancers_) {
        if (element == balancer) {
            persist();
            return;
        }
    }
}

void BalancingManager::refresh(const std::string& caller, std::function<void(std::optional<Error>)> completion) {
    if (!service_) {
        Error error;
        error.localizedDescription = "no account service to refresh the balancers from";
        completion(error);
        return;
    }
    service_->refreshUserInfo(caller, true, std::move(completion));
}

void BalancingManager::initializeIfNeeded(const std::string& caller, bool force, std::function<void()> done) {
    const std::string prefix = "BalancingManager.initializeIfNeeded() - called by " + caller;
    if (force) {
        logInfo(prefix + " - force=true");
    } else if (!lastInitializationDate_) {
        logInfo(prefix + " - never initialized before");
    } else if (lastTranscriptionHadError_) {
        logInfo(prefix + " - last transcription had error");
    } else if (clock_.now() - *lastInitializationDate_ >= kRefreshInterval) {
        logInfo(prefix + " - last init was >5min ago");
    } else {
        logInfo(prefix + " - skipping, not needed");
        if (done) done();
        return;
    }
    // A failing account service still counts as an initialisation: the old list stays in use for five minutes.
    refresh("BalancingManager.initializeIfNeeded(" + caller + ")", [this, done](std::optional<Error>) {
        lastInitializationDate_ = clock_.now();
        lastTranscriptionHadError_ = false;
        logInfo("BalancingManager.initializeIfNeeded() - initialization completed");
        if (done) done();
    });
}

void BalancingManager::getEndpoint(BackendBalancerPtr skipBalancer, EndpointCompletion completion) {
    std::string entries;
    for (std::size_t i = 0; i < balancers_.size(); ++i) {
        if (i > 0) entries += ", ";
        entries += "'" + balancers_[i]->name + "' (" + (balancers_[i]->isOnline ? "online" : "offline") + ")";
    }
    logInfo("BalancingManager.getEndpoint() - balancers: [" + entries + "]");
    if (skipBalancer) logWarning("BalancingManager.getEndpoint() - skipBalancer: " + skipBalancer->name);

    if (!appState_.internetAvailable()) {
        logError("BalancingManager.getEndpoint() - error: " +
                 errorDescription(SPRLocalizedError::networkError, appName_));
        completion(nullptr);
        return;
    }

    if (clock_.now() - lastRefreshDate_ >= kRefreshInterval) {
        // This pick still uses the list as it stands; the fresh list serves the next one.
        loop_.post([this] { refresh("BalancingManager.getEndpoint()", [](std::optional<Error>) {}); });
    }

    for (std::size_t i = 0; i < balancers_.size(); ++i) {
        const auto& candidate = balancers_[i];
        if (!candidate->isOnline) continue;
        if (skipBalancer && candidate->uuid == skipBalancer->uuid) continue;
        logInfo("BalancingManager.getEndpoint() - returning balancer (" + std::to_string(i + 1) + "/" +
                std::to_string(balancers_.size()) + "): " + candidate->name + ": " + candidate->url + " (" +
                candidate->uuid + ")");
        completion(candidate);
        return;
    }

    // No candidate: wait for a fresh list and pick again, without the skip.
    refresh("BalanceManager.getEndpoint()", [this, completion](std::optional<Error> error) {
        if (error) {
            logError("getEndpoint() - error: " + error->localizedDescription);
            completion(nullptr);
            return;
        }
        getEndpoint(nullptr, completion);
    });
}

void BalancingManager::resetAllServersToOnline() {
    logWarning("BalancingManager.resetAllServersToOnline() - resetting all " + std::to_string(balancers_.size()) +
               " servers to online");
    for (const auto& balancer : balancers_) balancer->isOnline = true;
    lastTranscriptionHadError_ = true;
    persist();
}

void testLatency(platform::HttpClient& client, platform::Clock& clock, const std::string& urlString,
                 std::function<void(double)> completion) {
    const auto start = clock.steadyNow();
    const auto schemeEnd = urlString.find("://");
    const bool valid = schemeEnd != std::string::npos && schemeEnd > 0 && urlString.size() > schemeEnd + 3 &&
                       urlString.find_first_of(" \t\r\n") == std::string::npos;
    if (!valid) {
        logError("testLatency() - unable to convert urlString " + urlString + " to URL");
        completion(-1.0);
        return;
    }
    platform::HttpRequest request;
    request.url = urlString;
    client.send(std::move(request), [&clock, start, urlString, completion](platform::HttpResult result) {
        if (const auto* error = std::get_if<Error>(&result)) {
            logError("testLatency() - error: " + error->debugDescription());
            completion(-1.0);
            return;
        }
        const double latency = std::chrono::duration<double, std::milli>(clock.steadyNow() - start).count();
        std::ostringstream text;
        text << latency;
        logInfo("testLatency() - latency for urlString " + urlString + ": " + text.str() + " ms");
        completion(latency);
    });
}

} // namespace sprelio
