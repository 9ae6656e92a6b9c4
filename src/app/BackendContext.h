#pragma once
// What a command that talks to the account API and the transcription backends sets up: the core's real-time loop,
// the HTTP transport, the headless platform, the one message path (to the terminal), the account API resolved from
// the settings (the embedded server by default), the backend chain, the account service and, on first use, the
// history and the upload clients.
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "app/ApiEndpoint.h"
#include "app/AppEnvironment.h"
#include "app/HeadlessPlatform.h"
#include "ai/IntelligenceManager.h"
#include "backend/BalancingManager.h"
#include "backend/FileUploadManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/LoginResourceService.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "diagnostics/MaintenanceManager.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "ui/Messages.h"

namespace sprelio::app {

// The completion service takes the AI servers and models from every answer of the account service.
void feedIntelligenceManager(LoginResourceService& account, IntelligenceManager& intelligence);

class BackendContext {
public:
    BackendContext(AppEnvironment& env, std::ostream& err);
    ~BackendContext();
    BackendContext(const BackendContext&) = delete;
    BackendContext& operator=(const BackendContext&) = delete;

    // Resolves the account API (starting the embedded server when the settings ask for it) and makes the backend
    // chain and the account service. False, with `error` filled, when the API can't be reached at all.
    bool start(std::string& error);

    AppEnvironment& env() { return env_; }
    platform::RealTimeLoop& loop() { return loop_; }
    platform::ThreadWorkerPool& workers() { return workers_; }
    platform::SystemClock& clock() { return clock_; }
    platform::HttpClient& http() { return http_; }
    AppState& appState() { return appState_; }
    MessageCenter& messages() { return messages_; }
    ConsoleToastPresenter& toasts() { return toasts_; }
    // An error the command ends with: shown through the message path like any other, and printed here only when
    // the message path kept it back (a text already shown, or one the user asked never to see again): the
    // command's outcome must be visible.
    void reportFailure(std::ostream& err, const std::string& text) {
        if (!toasts_.printed(text)) err << "sprelio: " << text << "\n";
    }
    platform::SoundPlayer& sounds() { return sounds_; }

    // After start().
    const ApiEndpoint& endpoint() const { return *endpoint_; }
    BalancingManager& balancing() { return *balancing_; }
    LoginResourceService& account() { return *account_; }
    IntelligenceManager& intelligence() { return *intelligence_; }

    // The store and the history, opened on first use; opening them expires old entries (start-up of the history).
    HistoryManagerImpl& history();
    MaintenanceManager& maintenance();
    // After start(); made on first use.
    HttpAudioUploadManager& uploadManager();
    FileUploadManager& fileUploadManager();

    // After the backend list was fetched: false when it is empty (the account API named no backend: not signed
    // in, or a server without backends). Asking for an endpoint then would ask the account API again and again
    // without end, so the commands stop here: the missing backend is reported as an upload reports it (log, history
    // entry for `requestID` and `file`, message) and `error` holds its text.
    bool checkBackends(const std::filesystem::path& file, const Uuid& requestID, std::string& error);

    // Runs the loop until `done` holds or `limit` has passed; true when `done` held.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
    // Runs what is queued on the loop now, and what that queues in turn, a few rounds deep: detached history
    // entries and messages are written before the command ends.
    void drain();

private:
    AppEnvironment& env_;
    platform::RealTimeLoop loop_;
    platform::ThreadWorkerPool workers_{2};
    platform::SystemClock clock_;
    platform::SyslogSystemLog systemLog_;
    platform::CurlHttpClient http_{loop_};
    LazySoundServer soundServer_;
    HeadlessWorkspace workspace_;
    HeadlessSoundPlayer sounds_{soundServer_};
    HeadlessInputLevels inputLevels_{soundServer_, loop_};
    HeadlessStatusImage statusImage_;
    HeadlessScreens noScreens_{false};
    HeadlessScreens terminal_{true};
    ConsoleToastPresenter toasts_;
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    MessageCenter messages_;
    std::unique_ptr<HistoryManagerImpl> history_;
    std::unique_ptr<MaintenanceManager> maintenance_;
    std::unique_ptr<ApiEndpoint> endpoint_;
    std::unique_ptr<BalancingManager> balancing_;
    std::unique_ptr<LoginResourceService> account_;
    std::unique_ptr<IntelligenceManager> intelligence_;
    std::unique_ptr<HttpAudioUploadManager> upload_;
    std::unique_ptr<FileUploadManager> fileUpload_;
};

} // namespace sprelio::app
