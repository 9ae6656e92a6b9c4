#include "app/DesktopApplication.h"

#include <atomic>
#include <QApplication>
#include <QScreen>
#include <QSocketNotifier>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <tuple>

#include "ai/IntelligenceManager.h"
#include "ai/IntelligencePresetsViewModel.h"
#include "backend/ProblemReportUpload.h"
#include "diagnostics/ConfigArchive.h"
#include "ai/IntelligenceResultsView.h"
#include "ai/IntelligenceViewModelImpl.h"
#include "app/ApiEndpoint.h"
#include "app/AppEnvironment.h"
#include "app/BackendContext.h"
#include "audio/AudioPlaybackManager.h"
#include "audio/CaptureRecordingAudio.h"
#include "audio/ContinuousSpeechUnavailable.h"
#include "audio/MicrophoneManagerImpl.h"
#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/LoginResourceService.h"
#include "core/AppDelegate.h"
#include "input/KeyboardShortcuts.h"
#include "core/AppLifecycle.h"
#include "core/AppShortcutSession.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "ui/AIActionsList.h"
#include "ui/SendReportViewModel.h"
#include "ui/HistoryViewModel.h"
#include "base/Log.h"
#include "diagnostics/MaintenanceManager.h"
#include "diagnostics/UsabilityManager.h"
#include "input/EventTapManager.h"
#include "input/KeyCodes.h"
#include "input/KeyboardShortcutManager.h"
#include "input/MouseShortcutManager.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/DesktopSession.h"
#include "platform/linux/NetlinkNetworkMonitor.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/linux/PulseAudioOutput.h"
#include "platform/linux/PulseSoundPlayer.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/X11Clipboard.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/linux/X11KeyboardLayout.h"
#include "platform/linux/X11SyntheticKeyboard.h"
#include "platform/linux/X11Workspace.h"
#include "platform/linux/XdgAutostart.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/qt/AIPane.h"
#include "platform/qt/FileManagerReveal.h"
#include "platform/qt/LogindWakeMonitor.h"
#include "platform/qt/MainWindow.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtOverlayPanels.h"
#include "platform/qt/QtResultsWindow.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/QtStatusItem.h"
#include "platform/qt/QtToastPresenter.h"
#include "platform/qt/SingleInstance.h"
#include "store/UserShortcutCache.h"
#include "text/AccesibilityControllerImpl.h"
#include "text/ClipboardHelper.h"
#include "text/FrontmostAppTracker.h"
#include "text/SubstitutionHelpers.h"
#include "ui/AppMenuBar.h"
#include "ui/AppWindows.h"
#include "ui/HitTestManager.h"
#include "ui/Messages.h"
#include "ui/OverlayScreenControllerImpl.h"

namespace sprelio::app {

namespace {

constexpr const char* kBundleIdentifier = "com.sprelio.app";
constexpr std::uint16_t kRightOptionKeyCode = 61;

// The history as the session writes it; the History tab hears of every new entry.
class NotifyingHistory final : public HistoryManager {
public:
    NotifyingHistory(HistoryManagerImpl& history, std::function<void()> changed)
        : history_(history), changed_(std::move(changed)) {}
    void log(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> fileURL,
             Uuid requestID, bool skipSave) override {
        history_.log(level, std::move(message), std::move(fileURL), std::move(requestID), skipSave);
        if (changed_) changed_();
    }

private:
    HistoryManagerImpl& history_;
    std::function<void()> changed_;
};

// Activation of the application as a whole: the taskbar entry of the main window and bringing it forward.
class DesktopShell final : public ShellActivation {
public:
    DesktopShell(platform::Workspace& workspace, std::function<QWidget*()> mainWindow)
        : workspace_(workspace), mainWindow_(std::move(mainWindow)) {}
    void setActivationPolicy(bool regular) override {
        // Without a taskbar entry the window is a tool window: the tray is the application's one presence.
        QWidget* window = mainWindow_();
        if (!window || window->windowFlags().testFlag(Qt::Tool) == !regular) return;
        // A new kind of window is a new X window, which starts hidden.
        const bool visible = window->isVisible();
        window->setWindowFlag(Qt::Tool, !regular);
        if (visible) window->show();
    }
    void activateIgnoringOtherApps() override {
        // Nothing to bring forward while no window of ours is on screen.
        if (QWidget* window = mainWindow_(); window && window->isVisible()) workspace_.activateSelf();
    }

private:
    platform::Workspace& workspace_;
    std::function<QWidget*()> mainWindow_;
};

// The wake has two listeners: the microphones, which hold the one handler of their SystemEvents, and the life
// cycle. The system's monitor reports to this relay, which passes the wake on to both.
class WakeRelay final : public platform::SystemEvents {
public:
    void setWakeHandler(WakeHandler handler) override { microphones_ = std::move(handler); }
    void wake(const std::function<void()>& lifecycle) const {
        if (microphones_) microphones_();
        if (lifecycle) lifecycle();
    }

private:
    WakeHandler microphones_;
};

class Desktop {
public:
    Desktop();
    ~Desktop();
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    void launch();
    // Sprelio was started again: its main window comes forward on the selected tab.
    void reopen();
    // The commands a terminal sends to this running instance ("sprelio continuous start", ...).
    void registerRemoteCommands(platform::SingleInstance& instance);

private:
    store::Settings& settings() { return env_.settings(); }
    const store::AppConstants& constants() const { return env_.constants(); }
    void checkUsability(const std::string& caller) { usability_.checkUsability(caller); }
    void checkHotkeyCollision();
    void startObservers();
    std::shared_ptr<HttpAudioUploadManager> makeUploadManager(bool showsStages);

    // ---- The machine ----
    AppEnvironment env_;
    platform::QtMainLoop loop_;
    platform::ThreadWorkerPool workers_{2};
    platform::SystemClock clock_;
    platform::SyslogSystemLog systemLog_;
    platform::QtScreens screens_;
    platform::QtStatusItem statusItem_;
    platform::PulseAudioConnection pulse_;
    platform::PulseAudioDevices audioDevices_{pulse_, loop_};
    platform::PulseAudioCapture capture_{pulse_};
    platform::PulseAudioOutput output_{pulse_, loop_};
    platform::PulseSoundPlayer sounds_{pulse_};
    platform::X11GlobalInput input_{loop_};
    platform::X11Workspace workspace_{loop_, "", kBundleIdentifier};
    platform::X11Clipboard clipboard_{loop_};
    platform::X11SyntheticKeyboard keyboard_{"", &input_};
    platform::X11KeyboardLayout layout_{loop_};
    platform::LogindWakeMonitor wake_{loop_};
    WakeRelay wakeRelay_;
    platform::NetlinkNetworkMonitor network_;
    platform::CurlHttpClient http_{loop_};
    platform::FileManagerReveal reveal_;
    platform::XdgAutostart autostart_{env_.folders().configHome(), platform::currentExecutable()};
    platform::Platform platform_{loop_,     workers_,  clock_,      workspace_, sounds_, audioDevices_,
                                 statusItem_, systemLog_, env_.folders(), screens_};

    // ---- State and messages ----
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    platform::QtToastPresenter toasts_{screens_};
    MessageCenter messages_{platform_, env_.settings(), appState_, toasts_, env_.constants().appName()};
    store::ManagedObjectContext& context_;
    store::UserShortcutCache cache_;
    UsabilityManager usability_;

    // ---- Backend ----
    std::unique_ptr<ApiEndpoint> endpoint_;
    BalancingManager balancing_;
    std::unique_ptr<LoginResourceService> account_;
    HistoryManagerImpl historyStore_;
    std::unique_ptr<MaintenanceManager> maintenance_;

    // ---- Text delivery ----
    KeyboardShortcuts hotKeys_;
    KeyCodes keyCodes_;
    ClipboardHelper clipboardHelper_;
    AccesibilityControllerImpl accessibility_;
    StoreSubstitutionHelpers substitutions_;

    // ---- Audio ----
    // A recorder that ends without a completion sends the session back to idle, unless the application is going.
    std::atomic<bool> closing_{false};
    CaptureRecordingAudioFactory recorders_{capture_, workers_, [this] {
        if (!closing_.load() && app_) app_->setupMenuWithMainMenu();
    }};
    std::unique_ptr<MicrophoneManagerImpl> microphones_;
    AudioPlaybackManager playback_{output_};

    // ---- Windows, overlay and the session ----
    WindowTitles titles_ = WindowTitles::make(env_.constants().appName());
    std::unique_ptr<AppWindows> windows_;
    std::unique_ptr<platform::MainWindow> mainWindow_;
    std::unique_ptr<platform::QtAppEventMonitor> eventMonitor_;
    std::unique_ptr<NotifyingHistory> history_;
    std::unique_ptr<IntelligenceManager> intelligenceManager_;
    std::unique_ptr<IntelligenceViewModelImpl> intelligence_;
    std::unique_ptr<IntelligenceResultsView> resultsView_;
    std::unique_ptr<platform::QtResultsWindow> resultsWindow_;
    std::unique_ptr<IntelligencePresetsViewModel> presets_;
    std::unique_ptr<ProblemReportUploader> reportUploader_;
    std::unique_ptr<SendReportViewModel> report_;
    std::unique_ptr<ContinuousSpeechUnavailable> continuousSpeech_;
    HitTestManager hitTest_{screens_};
    platform::QtOverlayPanelFactory panelFactory_{screens_};
    platform::QtPointerLocation pointer_{screens_};
    platform::X11WindowList windowList_{screens_};
    std::unique_ptr<OverlayScreenControllerImpl> overlay_;
    std::shared_ptr<HttpAudioUploadManager> sessionUpload_;
    std::shared_ptr<HttpAudioUploadManager> historyUpload_;
    std::unique_ptr<AppDelegate> app_;
    std::unique_ptr<AppShortcutSession> session_;
    std::unique_ptr<ShortcutActions> actions_;
    std::unique_ptr<HistoryViewModel> historyView_;

    // ---- Input ----
    std::unique_ptr<KeyboardShortcutManager> keyboardManager_;
    std::unique_ptr<MouseShortcutManager> mouseManager_;
    std::unique_ptr<EventTapManager> tap_;
    std::unique_ptr<FrontmostAppTracker> frontmostTracker_;

    // ---- Tray and life cycle ----
    std::unique_ptr<AppMenuBar> menuBar_;
    std::unique_ptr<DesktopShell> shell_;
    std::unique_ptr<AppLifecycle> lifecycle_;
    std::vector<QMetaObject::Connection> screenConnections_;
    std::optional<std::tuple<bool, bool, std::string>> collisionBasis_;
};

Desktop::Desktop()
    : context_(env_.persistence().container().viewContext()),
      usability_(UsabilityManager::Dependencies{
          clock_, [this] { return microphones_ && !microphones_->mics().empty(); },
          [this] { return input_.isAvailable() && keyboard_.isAvailable(); }, [] { return true; },
          [this] { return settings().filesMenuRecordingMode(); }}),
      balancing_(loop_, clock_, env_.settings(), appState_, env_.constants().appName()),
      historyStore_(context_, clock_),
      hotKeys_(env_.settingsStore(), input_),
      keyCodes_(layout_),
      clipboardHelper_(ClipboardHelperDependencies{loop_, clipboard_, keyboard_, workspace_, env_.constants(),
                                                   [this] { return input_.isAvailable(); }}),
      accessibility_(AccesibilityControllerDependencies{loop_, env_.settings(), workspace_, env_.constants(),
                                                        clipboardHelper_, keyboard_, keyCodes_, layout_}),
      substitutions_([this]() -> store::ManagedObjectContext& { return context_; }) {
    // The account API: the embedded server unless the settings name another.
    std::string endpointError;
    endpoint_ = ApiEndpoint::resolve(settings(), constants(), endpointError);
    if (!endpoint_) {
        logError("Desktop.init() - the account API can't be used: " + endpointError);
        messages_.showAlertForError(SPRStringError::errorMessageError(std::nullopt, endpointError).toError());
    }
    account_ = std::make_unique<LoginResourceService>(LoginResourceService::Dependencies{
        loop_, clock_, http_, settings(), constants(), appState_, screens_, &balancing_, &messages_,
        endpoint_ ? endpoint_->baseURL() : ApiEndpoint::configuredBaseURL(settings()), machineIdentity(),
        localeRegion(), true});
    balancing_.setService(account_.get());
    intelligenceManager_ = std::make_unique<IntelligenceManager>(
        IntelligenceManager::Dependencies{loop_, http_, settings(), constants(), account_.get()});
    feedIntelligenceManager(*account_, *intelligenceManager_);

    microphones_ = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
        loop_, clock_, audioDevices_, audioDevices_, settings(), &wakeRelay_,
        [this] { return app_ ? app_->appStatus() : AppActivity::idle; },
        [this] { return app_ && app_->recordAudio() && app_->recordAudio()->isRecording(); }});
    microphones_->setOnChange([this] { checkUsability("MicrophoneManager.onChange"); });

    // Windows.
    windows_ = std::make_unique<AppWindows>(AppWindows::Dependencies{
        loop_, appState_, settings(), titles_, [this] { if (app_) app_->capturePreviouslyActiveAppIfNeeded(); },
        [this] { if (app_) app_->restoreFocusToPreviouslyActiveApp(); }, [this] { shell_->activateIgnoringOtherApps(); },
        [this] { if (mainWindow_) mainWindow_->scrollHistoryToTop(); }});
    history_ = std::make_unique<NotifyingHistory>(historyStore_, [this] {
        if (mainWindow_) mainWindow_->historyChanged();
    });

    // The session and what it reaches.
    presets_ = std::make_unique<IntelligencePresetsViewModel>(IntelligencePresetsViewModel::Dependencies{
        context_,
        [this] {
            std::vector<std::string> models;
            for (const auto& item : intelligenceManager_->aiModelItems())
                if (!item.model.empty()) models.push_back(item.model);
            return models;
        },
        [this] { if (intelligence_) intelligence_->intelligencePresetsDidChange(); }});
    intelligence_ = std::make_unique<IntelligenceViewModelImpl>(IntelligenceViewModelImpl::Dependencies{
        settings(), constants(), appState_, sounds_,
        [this] {
            std::vector<std::string> ids;
            for (const auto& preset : context_.fetchAll<store::IntelligencePreset>())
                if (const auto uuid = preset->uuid()) ids.push_back(uuid->string());
            return ids;
        },
        [this](const std::string& text) { if (app_) app_->performPasting(text); },
        [this](const std::string& text) { resultsView_->showCompletion(text); },
        completionRequests(*intelligenceManager_,
                           [this](const std::string& uuid) -> std::shared_ptr<store::IntelligencePreset> {
                               for (const auto& preset : context_.fetchAll<store::IntelligencePreset>())
                                   if (const auto id = preset->uuid(); id && id->string() == uuid) return preset;
                               return nullptr;
                           }),
        [this] { if (app_) app_->showOverlay(OverlayType::intelligizing); }, &context_,
        [this](const std::string& text) { resultsView_->pasteToPreviousWindowThenClose(text); }});
    // The results dialog: its logic, then its window. Opening it returns the session to idle.
    resultsView_ = std::make_unique<IntelligenceResultsView>(IntelligenceResultsView::Dependencies{
        loop_, settings(), workspace_, screens_, pointer_, *intelligence_,
        titles_.intelligenceResultsControllerWindowTitle, kBundleIdentifier,
        [this] { if (app_) app_->setupMenuWithMainMenu(); },
        [this](const std::string& text) { if (app_) app_->performPasting(text); }});
    resultsWindow_ = std::make_unique<platform::QtResultsWindow>(*resultsView_, screens_);
    resultsView_->setWindow(resultsWindow_.get());
    continuousSpeech_ = std::make_unique<ContinuousSpeechUnavailable>(loop_, messages_, [this] {
        if (app_ && app_->appStatus() == AppActivity::continuousSpeechActive) session_->continuousVoiceToText();
    });
    session_ = std::make_unique<AppShortcutSession>(AppShortcutSessionDependencies{
        loop_, appState_, settings(), context_, messages_, *intelligence_, *continuousSpeech_, *history_,
        ClipboardAccess{
            [this](ClipboardAccess::TextCompletion done) {
                clipboardHelper_.getString([done = std::move(done)](std::string text) {
                    done(text.empty() ? std::nullopt : std::optional<std::string>(std::move(text)));
                });
            },
            [this](const std::string& text, const std::string& caller) { clipboardHelper_.setString(text, caller); },
            [this](ClipboardAccess::TextCompletion done) {
                clipboardHelper_.getSelectedTextFromFrontmostApp(std::move(done));
            },
            [this](ClipboardAccess::TextCompletion done) { clipboardHelper_.getStringWithCommandC(std::move(done)); }},
        [this] { return app_.get(); },
        [this](bool start, ShortcutAction action, std::optional<std::string> itemId,
               ShortcutSession::UserShortcutPtr shortcut) {
            if (keyboardManager_ && keyboardManager_->onRecordingShortcut)
                keyboardManager_->onRecordingShortcut(start, action, std::move(itemId), std::move(shortcut));
        },
        [this] { return std::static_pointer_cast<AudioUploadManager>(makeUploadManager(false)); },
        [this](ContentViewTab tab) { windows_->openTab(tab); }});
    actions_ = std::make_unique<ShortcutActions>(*session_, [this] { return settings().tapAndRecordTimeoutMinutes(); });

    // The overlay asks the session about its state through the application object, which is made right after.
    OverlayHost host;
    host.appStatus = [this] { return app_ ? app_->appStatus() : AppActivity::idle; };
    host.lastShownOverlayType = [this] { return app_ ? app_->lastShownOverlayType() : std::nullopt; };
    host.recordAudio = [this] { return app_ ? app_->recordAudio() : nullptr; };
    host.cancelRecordingAndProcessing = [this] { if (app_) app_->cancelRecordingAndProcessing(); };
    host.showOverlay = [this](OverlayType type, bool force) { if (app_) app_->showOverlay(type, force); };
    host.checkUsability = [this](const std::string& caller) { checkUsability(caller); };
    overlay_ = std::make_unique<OverlayScreenControllerImpl>(OverlayScreenControllerDependencies{
        loop_, screens_, workspace_, pointer_, windowList_, panelFactory_, settings(), appState_, *actions_, hitTest_,
        std::move(host)});
    sessionUpload_ = makeUploadManager(true);
    app_ = std::make_unique<AppDelegate>(AppDelegateDependencies{
        platform_, settings(), appState_, mirror_, messages_, recorders_, *microphones_, *sessionUpload_,
        substitutions_, accessibility_, *intelligence_, *continuousSpeech_, *history_, *resultsView_,
        kBundleIdentifier, [this] { cache_.update(context_); }});

    // The History tab transcribes again with a client of its own, without overlay.
    maintenance_ = std::make_unique<MaintenanceManager>(env_.persistence().container(), settings(), clock_);
    historyUpload_ = makeUploadManager(false);
    historyView_ = std::make_unique<HistoryViewModel>(HistoryViewModel::Dependencies{
        loop_, workers_, context_, historyStore_, *maintenance_, appState_, messages_, settings(), sounds_,
        historyUpload_.get(), &playback_, [this](const std::filesystem::path& file) { return reveal_.showItem(file); },
        [this](const std::string& text, const std::string& caller) { clipboardHelper_.setString(text, caller); }});
    // The Send Report tab.
    reportUploader_ = std::make_unique<ProblemReportUploader>(ProblemReportUploader::Dependencies{
        loop_, http_, settings(), [this] { return account_->url(); },
        errorDescription(SPRLocalizedError::tokenUnavailableError, constants().appName())});
    report_ = std::make_unique<SendReportViewModel>(SendReportViewModel::Dependencies{
        loop_, workers_, settings(), appState_, *reportUploader_, [this] { return env_.logManager().getLogZip(); },
        [this] { return gatherConfigData(settings().store().dictionaryRepresentation(), constants().logsFolder()); },
        [this] {
            UploadData data;
            data.app = constants().clientVersion();
            data.deviceId = account_->deviceId();
            data.os = constants().osName();
            data.languages = account_->languageInfo();
            return data;
        },
        [this] { shell_->activateIgnoringOtherApps(); }});
    mainWindow_ = std::make_unique<platform::MainWindow>(platform::MainWindowDependencies{
        loop_, clock_, workspace_, settings(), constants(), appState_, context_,
        [this] { return app_->appStatus(); }, titles_, historyView_.get(), maintenance_.get(), &sounds_,
        presets_.get(),
        [this]() -> std::optional<std::string> {
            return endpoint_ ? endpoint_->reconfigureAi(settings()) : std::nullopt;
        },
        report_.get(), [this](const std::filesystem::path& file) { return reveal_.showItem(file); }});
    if (auto* ai = mainWindow_->aiPane())
        ai->setActionsSource([this] { return aiActionRows(*intelligence_, context_); });
    windows_->setMainWindow(mainWindow_.get());
    eventMonitor_ = std::make_unique<platform::QtAppEventMonitor>(*windows_, screens_);
    appState_.onChange = [this](std::string_view field) { mainWindow_->appStateChanged(field); };
    statusItem_.onImageChanged = [this](const std::string&) { mainWindow_->refreshState(); };
    usability_.onChange = [this] { mainWindow_->setUsabilityWarnings(usability_.bannerTexts()); };

    // Global input.
    keyboardManager_ = std::make_unique<KeyboardShortcutManager>(KeyboardShortcutManagerDependencies{
        loop_, context_, settings(), hotKeys_, keyCodes_, appState_, &cache_, {},
        [this](const std::string& caller) { checkUsability(caller); }});
    keyboardManager_->setActionDispatcher(actions_.get());
    mouseManager_ = std::make_unique<MouseShortcutManager>(MouseShortcutManagerDependencies{
        loop_, appState_, &cache_, [this] { return tap_ && tap_->shouldHandleAsGlobal(); },
        [this](const std::string& caller) { checkUsability(caller); }});
    mouseManager_->setActionDispatcher(actions_.get());
    // The overlay's panels take their own clicks: the tap has no regions to test.
    tap_ = std::make_unique<EventTapManager>(EventTapManagerDependencies{
        loop_, input_, sounds_, workspace_, mirror_, *keyboardManager_, *mouseManager_, kBundleIdentifier,
        [this] { return usability_.hasWarning(UsabilityWarning::accessibility); },
        [this] { checkUsability("EventTapManager"); }, [this] { return input_.isAvailable(); }, {}});
    // Without its X server the shell itself ends; the log says why the hotkeys went first.
    input_.setConnectionLostHandler(
        [] { logError("Desktop - the connection to the X server is lost: no hotkeys and no pasting from now on"); });
    keyboardManager_->keysSetDidChange = [this](const std::set<std::uint16_t>&) {
        if (tap_->isEventTapRegistered()) tap_->syncGrabs();
        checkHotkeyCollision();
    };
    layout_.setLayoutChangedHandler([this] {
        keyCodes_.layoutChanged();
        checkHotkeyCollision();
    });
    frontmostTracker_ = std::make_unique<FrontmostAppTracker>(FrontmostAppTrackerDependencies{
        loop_, workspace_, [this] { tap_->deregisterEventTap(); }, [this](bool user) { tap_->registerEventTap(user); },
        [this] { return input_.isAvailable(); }, [this] { checkUsability("FrontmostAppTracker"); },
        [this] { workspace_.activateSelf(); }});

    // Tray and life cycle.
    menuBar_ = std::make_unique<AppMenuBar>(AppMenuBar::Dependencies{context_, settings(), *microphones_,
                                                                      [this] { return app_->appStatus(); }});
    shell_ = std::make_unique<DesktopShell>(workspace_, [this]() -> QWidget* { return mainWindow_.get(); });
    lifecycle_ = std::make_unique<AppLifecycle>(AppLifecycleDependencies{
        loop_, settings(), constants(), appState_, mirror_, *app_, *shell_, screens_,
        [this] { app_->updateCachedUserShortcuts(); },
        {}, // the sign-in presenter has no early work: signing in is the command line's for now
        [this](bool enabled) { autostart_.setLoginItem(enabled); },
        [] { logInfo("checkForUpdatesInBackground() - updates come from the distribution's packages"); },
        [this] { checkHotkeyCollision(); },
        [this] { keyboardManager_->setup(); },
        {}, // the mouse manager is ready once made
        [this] { cleanupShortcutsByUserDefaults(context_, env_.settingsStore(), hotKeys_, clock_); },
        [this] {
            network_.setPathUpdateHandler([this](bool satisfied) { lifecycle_->networkPathChanged(satisfied); });
            network_.start();
        },
        [this] { keyboardManager_->updateKeysSetFromUserShortcuts(); },
        [this] {
            overlay_->refreshPanels();
            app_->setOverlayScreenController(overlay_.get());
        },
        [this] { overlay_->refreshPanels(); }, [this] { return app_->overlayScreenController() != nullptr; },
        [this] {
            keyboardManager_->onRecordingShortcut = app_->onRecordingShortcut();
            menuBar_->actionHandler = setupMenuActionHandling(MenuActionTargets{
                [this] { return app_->appStatus(); }, [this] { app_->callCancelRecordingAndProcessing(); },
                [this] { continuousSpeech_->stopMonitoring(); }, [this] { app_->setupMenuWithMainMenu(); },
                [this](const MicDevice& mic) { microphones_->setDefaultInputDevice(mic.id, mic.name, mic.transportType); },
                [this] { lifecycle_->quitFromMenu(); }, [this](ContentViewTab tab) { windows_->openTab(tab); }});
        },
        [this] {
            menuBar_->awakeFromNib();
            statusItem_.setMenu(*menuBar_);
            statusItem_.show();
        },
        {}, // the maintenance and balancing managers are made with the application
        [this] { balancing_.initializeIfNeeded("applicationDidFinishLaunching", false); },
        [this] { windows_->openTab(ContentViewTab::settings); },
        {}, // no updater: updates come with the distribution's packages
        [this] { startObservers(); },
        {}, // no power-source rules without the updater
        [] { QCoreApplication::quit(); },
        [this] { env_.persistence().container().setDidSave([this] { app_->updateCachedUserShortcuts(); }); }});
}

std::shared_ptr<HttpAudioUploadManager> Desktop::makeUploadManager(bool showsStages) {
    HttpAudioUploadManager::StreamStages stages;
    if (showsStages) {
        stages.aiStepStarted = [this] { if (app_) app_->aiStepStarted(); };
        stages.aiStepEnded = [this] { if (app_) app_->aiStepEnded(); };
    }
    return std::make_shared<HttpAudioUploadManager>(HttpAudioUploadManager::Dependencies{
        loop_, workers_, clock_, http_, balancing_, appState_, settings(), constants(), *history_, messages_,
        std::move(stages), account_.get(), [this] { if (app_) app_->setupMenuWithMainMenu(); }});
}

Desktop::~Desktop() {
    // Nothing may call back into what goes next: the monitors and the input stop first, and a recorder finishing
    // on a worker finds no application to return to.
    closing_.store(true);
    env_.persistence().container().setDidSave({});
    network_.cancel();
    for (const auto& connection : screenConnections_) QObject::disconnect(connection);
    if (tap_) tap_->deregisterEventTap();
    input_.setEventHandler({});
    appState_.onChange = nullptr;
    statusItem_.onImageChanged = nullptr;
    usability_.onChange = nullptr;
    lifecycle_->applicationWillTerminate();
    logInfo("Desktop - the application ends");
}

void Desktop::launch() {
    lifecycle_->initialize();
    lifecycle_->applicationDidFinishLaunching();
    // The session may have no X11 reach over its applications: the user hears of it once, in the banner.
    if (const auto warning = platform::checkDesktopSession()) usability_.addSessionNote(*warning);
    // verifyUsability: with access to global input the tap is registered, then the checks run.
    logInfo("verifyUsability()");
    if (input_.isAvailable()) tap_->registerEventTap(false);
    checkUsability("verifyUsability");
    mainWindow_->setUsabilityWarnings(usability_.bannerTexts());
    // After the steps that the launch posted (the activation of step 16 among them).
    loop_.post([] { logInfo("Desktop.launch() - ready: the hotkeys are live"); });
}

void Desktop::reopen() {
    if (windows_->applicationShouldHandleReopen(mainWindow_->isVisible()))
        logWarning("Desktop.reopen() - there is no main window to show");
}

void Desktop::registerRemoteCommands(platform::SingleInstance& instance) {
    (void)instance;
}

void Desktop::checkHotkeyCollision() {
    // Asked at every change of the keys and of the layout, which come in bursts: judged again only when what the
    // judgement rests on has changed.
    const auto keys = keyboardManager_ ? keyboardManager_->keysSet() : std::nullopt;
    const bool rightOptionBound = keys && keys->count(kRightOptionKeyCode) > 0;
    const bool altGr = layout_.rightAltIsAltGr();
    const std::string layoutName = layout_.currentLayoutLocalizedName();
    auto basis = std::make_tuple(rightOptionBound, altGr, layoutName);
    if (collisionBasis_ == basis) return;
    collisionBasis_ = std::move(basis);
    usability_.setHotkeyCollision(checkForIncompatibilities(keys, altGr, layoutName, &messages_));
}

void Desktop::startObservers() {
    // Screens come, go and change their geometry; each change is one notification to the life cycle.
    const auto changed = [this] {
        lifecycle_->handleScreenParametersChanged("NSApplicationDidChangeScreenParametersNotification");
    };
    const auto watch = [this, changed](QScreen* screen) {
        screenConnections_.push_back(QObject::connect(screen, &QScreen::geometryChanged, qApp, changed));
    };
    for (QScreen* screen : QGuiApplication::screens()) watch(screen);
    screenConnections_.push_back(QObject::connect(qApp, &QGuiApplication::screenAdded, qApp, [watch, changed](QScreen* s) {
        watch(s);
        changed();
    }));
    screenConnections_.push_back(QObject::connect(qApp, &QGuiApplication::screenRemoved, qApp, changed));
    // The wake: the microphones look again and the overlay is rebuilt.
    wake_.setWakeHandler([this] {
        wakeRelay_.wake([this] { lifecycle_->handleSystemWake("NSWorkspaceDidWakeNotification"); });
    });
}

} // namespace

namespace {

// The session ends Sprelio with SIGTERM at log-out (and a terminal with SIGINT): the loop is asked to quit, so
// that everything is taken down in order instead of the process vanishing mid-write.
int quitSignalPipe[2] = {-1, -1};

void onQuitSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(quitSignalPipe[1], &byte, 1);
}

std::unique_ptr<QSocketNotifier> quitOnSignals() {
    if (::pipe2(quitSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
    struct sigaction action {};
    action.sa_handler = onQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    auto notifier = std::make_unique<QSocketNotifier>(quitSignalPipe[0], QSocketNotifier::Read);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, qApp, [] {
        char byte = 0;
        while (::read(quitSignalPipe[0], &byte, 1) == 1) {}
        logInfo("Desktop - asked to quit by a signal");
        QCoreApplication::quit();
    });
    return notifier;
}

} // namespace

int runDesktopApplication(int argc, char** argv) {
    // Global keys, pasting and the overlays' input shapes are X11's: in a Wayland session Sprelio runs through
    // Xwayland, whose DISPLAY must be there.
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        std::cerr << "sprelio: no X11 display (DISPLAY is not set): the desktop application needs one; the commands "
                     "work without it (see sprelio --help)\n";
        return 1;
    }
    ::setenv("QT_QPA_PLATFORM", "xcb", 1);
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Sprelio"));
    QApplication::setDesktopFileName(QStringLiteral("com.sprelio.app"));
    // The tray is the application's home: closing the last window does not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    platform::SingleInstance instance;
    Desktop* running = nullptr;
    if (!instance.claim([&running] {
            if (running) running->reopen();
        }))
        return 0;
    const auto quitSignals = quitOnSignals();
    Desktop desktop;
    running = &desktop;
    desktop.launch();
    desktop.registerRemoteCommands(instance);
    const int status = QApplication::exec();
    running = nullptr;
    return status;
}

} // namespace sprelio::app
