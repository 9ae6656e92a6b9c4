#include "server/ChatServiceSource.h"

#include <algorithm>
#include <stdexcept>

#include "base/Log.h"
#include "server/LocalAiProbe.h"
#include "server/OpenAiHttp.h"

namespace sprelio::server {

namespace {

// A configured service may be far away; its model list still must not hold a request for long.
constexpr std::chrono::milliseconds kRemoteConnectTimeout{5000};
constexpr std::chrono::seconds kRemoteListTimeout{10};

} // namespace

ChatServiceSource::ChatServiceSource(const ServerConfig& config, const std::atomic<bool>* cancel)
    : interval_(std::max(0, config.aiAutoDetectIntervalSeconds)), cancel_(cancel) {
    settings_.timeout = std::chrono::seconds(std::max(1, config.aiTimeoutSeconds));
    if (!config.aiUrl.empty()) {
        if (config.aiModel.empty() && !config.aiAutoDetect)
            throw std::invalid_argument(
                "AI completions need the model name the service expects (--ai-model or aiModel)");
        settings_.url = config.aiUrl;
        settings_.key = resolveApiKey(config.aiKey, config.aiKeyFile);
        settings_.model = config.aiModel;
        if (!settings_.model.empty()) {
            client_ = std::make_shared<const ChatCompletionClient>(settings_);
            return;
        }
        looks_ = true;
        probeUrl_ = config.aiUrl;
        return;
    }
    if (!config.aiAutoDetect) return;
    looks_ = true;
    local_ = true;
    probeUrl_ = config.aiAutoDetectUrl.empty() ? std::string(kLocalAiAddress) : config.aiAutoDetectUrl;
    // A model the user named is taken when the runner has it.
    wantedModel_ = config.aiModel;
}

ChatServiceSource::~ChatServiceSource() { stop(); }

void ChatServiceSource::start() {
    if (!looks_ || firstLook_.joinable()) return;
    firstLook_ = std::thread([this] {
        std::unique_lock lock(mutex_);
        // A request may have been first.
        if (!looking_ && !client_ && !lastLook_) look(lock);
    });
}

void ChatServiceSource::stop() {
    if (firstLook_.joinable()) firstLook_.join();
}

std::string ChatServiceSource::lookedAt() const { return urlHost(probeUrl_); }

bool ChatServiceSource::due() const {
    if (cancel_ && cancel_->load()) return false;
    return !lastLook_ || Clock::now() - *lastLook_ >= interval_;
}

ChatServiceSource::Lookup ChatServiceSource::acquire() {
    std::unique_lock lock(mutex_);
    lookEnded_.wait(lock, [this] { return !looking_; });
    if (!client_ && looks_ && due()) look(lock);
    if (client_) return {client_, std::nullopt};
    return {nullptr, failure_};
}

std::shared_ptr<const ChatCompletionClient> ChatServiceSource::current() const {
    std::lock_guard lock(mutex_);
    return client_;
}

void ChatServiceSource::forget(const std::shared_ptr<const ChatCompletionClient>& client) {
    std::lock_guard lock(mutex_);
    if (!looks_ || !client_ || client_ != client) return;
    client_.reset();
    log(LogLevel::info, "BackendServer.findAiService() - the AI service at " + urlHost(client->endpoint()) +
                            " is gone; the next AI request looks for one again");
}

void ChatServiceSource::look(std::unique_lock<std::mutex>& lock) {
    looking_ = true;
    lastLook_ = Clock::now();
    ProbeRequest request{probeUrl_, local_ ? std::string() : settings_.key, wantedModel_};
    request.cancel = cancel_;
    if (!local_) {
        request.connectTimeout = kRemoteConnectTimeout;
        request.timeout = std::min(settings_.timeout, kRemoteListTimeout);
    }
    lock.unlock();

    std::variant<ProbedService, ChatFailure> result = ChatFailure{ChatFailure::Kind::unreachable, 0, ""};
    try {
        result = probeChatService(request);
    } catch (const std::exception& e) {
        result = ChatFailure{ChatFailure::Kind::unreachable, 0, e.what()};
    }
    std::shared_ptr<const ChatCompletionClient> found;
    std::optional<ChatFailure> failure;
    const std::string where = urlHost(probeUrl_);
    if (auto* service = std::get_if<ProbedService>(&result)) {
        ChatSettings settings = settings_;
        // A found runner gets no key: whatever listens on that port is not the service the key was meant for.
        if (local_) settings.url = service->apiRoot;
        settings.model = service->model;
        found = std::make_shared<const ChatCompletionClient>(std::move(settings));
        log(LogLevel::info, "BackendServer.findAiService() - " +
                                std::string(local_ ? "found an OpenAI-compatible service at " : "the AI service at ") +
                                where + " lists " + std::to_string(service->modelCount) + " model(s); using " +
                                service->model);
    } else {
        failure = std::get<ChatFailure>(result);
        log(local_ ? LogLevel::info : LogLevel::warning,
            "BackendServer.findAiService() - " +
                (local_ ? "no AI service at " + where : "cannot learn the models of the AI service at " + where) +
                (failure->detail.empty() ? std::string() : ": " + failure->detail));
    }

    lock.lock();
    client_ = std::move(found);
    // Nothing at the local address is no failure of a service: the user is told how to set one up instead.
    failure_ = local_ ? std::nullopt : std::move(failure);
    looking_ = false;
    lookEnded_.notify_all();
}

} // namespace sprelio::server
