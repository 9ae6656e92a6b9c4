#include "app/BackendContext.h"

#include "base/Log.h"

namespace sprelio::app {

void feedIntelligenceManager(LoginResourceService& account, IntelligenceManager& intelligence) {
    account.onAIServers = [&intelligence](const std::vector<AIServerItem>& items) {
        intelligence.setAIServerItems(items);
    };
    account.onAIModels = [&intelligence](const std::vector<AIModelItem>& items) { intelligence.setAIModelItems(items); };
}

BackendContext::BackendContext(AppEnvironment& env, std::ostream& err)
    : env_(env), toasts_(err),
      messages_(platform::Platform{loop_, workers_, clock_, workspace_, sounds_, inputLevels_, statusImage_,
                                   systemLog_, env.folders(), terminal_},
                env.settings(), appState_, toasts_, env.constants().appName()) {}

BackendContext::~BackendContext() {
    // Uploads still running end without their completions; nothing may call back into what goes next.
    fileUpload_.reset();
    upload_.reset();
    intelligence_.reset();
    account_.reset();
}

bool BackendContext::start(std::string& error) {
    endpoint_ = ApiEndpoint::resolve(env_.settings(), env_.constants(), error);
    if (!endpoint_) return false;
    balancing_ = std::make_unique<BalancingManager>(loop_, clock_, env_.settings(), appState_,
                                                    env_.constants().appName());
    LoginResourceService::Dependencies deps{loop_,
                                            clock_,
                                            http_,
                                            env_.settings(),
                                            env_.constants(),
                                            appState_,
                                            noScreens_,
                                            balancing_.get(),
                                            &messages_,
                                            endpoint_->baseURL(),
                                            machineIdentity(),
                                            localeRegion(),
                                            // One command, one answer: no periodic refresh.
                                            false};
    account_ = std::make_unique<LoginResourceService>(std::move(deps));
    balancing_->setService(account_.get());
    intelligence_ = std::make_unique<IntelligenceManager>(
        IntelligenceManager::Dependencies{loop_, http_, env_.settings(), env_.constants(), account_.get()});
    feedIntelligenceManager(*account_, *intelligence_);
    return true;
}

HistoryManagerImpl& BackendContext::history() {
    if (!history_) {
        auto& container = env_.persistence().container();
        history_ = std::make_unique<HistoryManagerImpl>(container.viewContext(), clock_);
        maintenance_ = std::make_unique<MaintenanceManager>(container, env_.settings(), clock_);
    }
    return *history_;
}

MaintenanceManager& BackendContext::maintenance() {
    history();
    return *maintenance_;
}

HttpAudioUploadManager& BackendContext::uploadManager() {
    if (!upload_) {
        HttpAudioUploadManager::Dependencies deps{loop_,    workers_,           clock_,          http_,
                                                  *balancing_, appState_,       env_.settings(), env_.constants(),
                                                  history(),   messages_,       {},              account_.get(),
                                                  // No status menu in a terminal.
                                                  {}};
        upload_ = std::make_unique<HttpAudioUploadManager>(std::move(deps));
    }
    return *upload_;
}

FileUploadManager& BackendContext::fileUploadManager() {
    if (!fileUpload_) {
        fileUpload_ = std::make_unique<FileUploadManager>(FileUploadManager::Dependencies{
            loop_, http_, *balancing_, env_.settings(), env_.constants(), account_->deviceId()});
    }
    return *fileUpload_;
}

bool BackendContext::checkBackends(const std::filesystem::path& file, const Uuid& requestID, std::string& error) {
    if (!balancing_->balancers().empty()) return true;
    error = errorDescription(SPRLocalizedError::balancerError, env_.constants().appName());
    logError("BackendContext.checkBackends() - requestID: " + requestID.string() + " - the account API at " +
             endpoint_->baseURL() + " named no backend - error: " + error);
    history().log(HistoryManagerLogLevel::error, error, file, requestID, false);
    messages_.showAlertForError(SPRStringError::errorMessageError(error, error).toError());
    return false;
}

bool BackendContext::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // In slices, so that a condition that turns true on another thread is seen soon.
    while (!done()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        loop_.runUntil(done, std::min<std::chrono::nanoseconds>(deadline - now, std::chrono::milliseconds(200)));
    }
    return true;
}

void BackendContext::drain() {
    for (int round = 0; round < 5; ++round) {
        bool reached = false;
        loop_.post([&reached] { reached = true; });
        loop_.runUntil([&reached] { return reached; }, std::chrono::seconds(10));
    }
}

} // namespace sprelio::app
