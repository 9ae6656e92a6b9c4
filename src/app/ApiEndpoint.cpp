#include "app/ApiEndpoint.h"

#include <cstdlib>
#include <exception>
#include <fstream>

#include "base/Log.h"
#include "server/BackendServer.h"
#include "server/OpenAiHttp.h"
#include "store/AppConstants.h"
#include "store/Settings.h"

namespace sprelio::app {

std::unique_ptr<ApiEndpoint> ApiEndpoint::resolve(store::Settings& settings, const store::AppConstants& constants,
                                                  std::string& error) {
    std::unique_ptr<ApiEndpoint> endpoint(new ApiEndpoint());
    const std::string value = configuredBaseURL(settings);
    if (value != kEmbeddedApi) {
        endpoint->baseURL_ = value;
        logInfo("ApiEndpoint.resolve() - apiBaseURL: " + value);
        return endpoint;
    }
    server::ServerConfig config;
    config.host = "127.0.0.1";
    config.port = 0;
    config.dataFolder = constants.appSupportFolder() / "server";
    configureAi(settings, config);
    // Decoding while the user speaks is on unless the environment turns it off (to compare, or to rule it out).
    if (const char* live = std::getenv(kLiveDecodingVariable); live && std::string(live) == "off")
        config.liveDecoding = false;
    if (const char* limit = std::getenv(kLiveDecodingMaxSecondsVariable); limit && std::atoi(limit) > 0)
        config.liveMaxSeconds = std::atoi(limit);
    try {
        endpoint->server_ = std::make_unique<server::BackendServer>(config);
        endpoint->server_->start();
    } catch (const std::exception& e) {
        error = std::string("the embedded server could not start: ") + e.what();
        logError("ApiEndpoint.resolve() - " + error);
        return nullptr;
    }
    endpoint->baseURL_ = endpoint->server_->url();
    // The local account is the only account of the embedded server: its token is the one to send.
    if (settings.token() != endpoint->server_->localAccount().token) {
        settings.setToken(endpoint->server_->localAccount().token);
    }
    logInfo("ApiEndpoint.resolve() - embedded server at " + endpoint->baseURL_);
    return endpoint;
}

std::optional<std::string> ApiEndpoint::reconfigureAi(const store::Settings& settings) {
    if (!server_) return std::nullopt;
    server::ServerConfig config;
    configureAi(settings, config);
    try {
        server_->reconfigureAi(config);
    } catch (const std::exception& e) {
        logError(std::string("ApiEndpoint.reconfigureAi() - the AI service can't be used: ") + e.what());
        return std::string(e.what());
    }
    return std::nullopt;
}

std::string ApiEndpoint::configuredBaseURL(const store::Settings& settings) {
    std::string value = settings.apiBaseURL();
    if (const char* variable = std::getenv(kApiBaseURLVariable); variable && *variable) value = variable;
    if (value == kEmbeddedApi) return value;
    while (!value.empty() && value.back() == '/') value.pop_back();
    return value;
}

void ApiEndpoint::configureAi(const store::Settings& settings, server::ServerConfig& config) {
    config.aiUrl = settings.aiServiceURL();
    config.aiModel = settings.aiServiceModel();
    // A key file that can't be read would keep the whole server from starting; without it the service answers
    // for itself that a key is missing.
    const auto keyFile = settings.aiServiceKeyFile();
    if (!config.aiUrl.empty() && std::filesystem::exists(keyFile)) {
        if (std::ifstream(keyFile))
            config.aiKeyFile = keyFile;
        else
            logError("ApiEndpoint.resolve() - the AI service's key file " + keyFile.string() + " can't be read");
    }
    config.aiAutoDetect = true;
    if (const char* variable = std::getenv(kLocalAiURLVariable); variable && *variable) {
        // A named service without a model still has its model looked up.
        if (std::string(variable) != "off")
            config.aiAutoDetectUrl = variable;
        else if (config.aiUrl.empty())
            config.aiAutoDetect = false;
    }
    config.aiMissingAdvice = "No AI service is set up: name an OpenAI-compatible service in Sprelio's AI settings "
                             "(URL, model, key), or start a local one on " +
                             server::urlHost(config.aiAutoDetectUrl) + ".";
    logInfo("ApiEndpoint.resolve() - AI service: " +
            (config.aiUrl.empty() ? std::string(config.aiAutoDetect ? "a local one if found" : "none")
                                  : server::urlHost(config.aiUrl)) +
            (config.aiModel.empty() ? std::string() : ", model " + config.aiModel) +
            (config.aiKeyFile.empty() ? std::string() : ", key from its file"));
}

ApiEndpoint::~ApiEndpoint() {
    if (server_) server_->stop();
}

namespace {
std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}
} // namespace

std::string machineIdentity() {
    std::string id = firstLine("/etc/machine-id");
    if (id.empty()) id = firstLine("/var/lib/dbus/machine-id");
    return id;
}

std::string localeRegion() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (!value || !*value) continue;
        std::string text = value;
        const auto underscore = text.find('_');
        if (underscore == std::string::npos) continue;
        const auto end = text.find_first_of(".@", underscore);
        std::string region = text.substr(underscore + 1, end == std::string::npos ? std::string::npos : end - underscore - 1);
        if (!region.empty()) return region;
    }
    return "??";
}

} // namespace sprelio::app
