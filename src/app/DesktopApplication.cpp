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
#include <sstream>
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
#include "audio/MicrophoneManagerImpl.h"
#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/LiveDictationStreams.h"
#include "backend/FileUploadManager.h"
#include "app/FilesRemoteCommand.h"
#include "files/FilesMenuViewModel.h"
#include "platform/linux/PulseSystemAudio.h"
#include "backend/LoginResourceService.h"
#include "backend/LoginAndRegistrationPresenter.h"
#include "platform/qt/SignInWindow.h"
#include "core/AppDelegate.h"
#include "input/KeyboardShortcuts.h"
#include "core/AppLifecycle.h"
#include "core/AppShortcutSession.h"
#include "core/ContinuousSpeechManagerImpl.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "diagnostics/InterruptedRecordings.h"
#include "ui/AIActionsList.h"
#include "ui/SendReportViewModel.h"
#include "ui/HistoryViewModel.h"
#include "base/LifetimeGuard.h"
#include "base/Log.h"
#include "diagnostics/MaintenanceManager.h"
#include "diagnostics/UsabilityManager.h"
#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/Updater.h"
#include "input/EventTapManager.h"
#include "input/KeyCodes.h"
#include "input/KeyShortcutRecorder.h"
#include "input/KeyboardShortcutManager.h"
#include "input/MouseShortcutManager.h"
#include "input/ShortcutActionDispatcher.h"
#include "input/ShortcutTrigger.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/CurlStreamingUpload.h"
#include "platform/linux/DesktopSession.h"
#include "platform/linux/SwayWorkspace.h"
#include "platform/linux/WaylandClipboard.h"
#include "platform/linux/WaylandDesktop.h"
#include "platform/linux/WaylandSyntheticKeyboard.h"
#include "platform/linux/NetlinkNetworkMonitor.h"
#include "platform/linux/PulseAudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/linux/PulseAudioLevelTap.h"
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
#include "platform/linux/UpdatePackageInstaller.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/qt/AIPane.h"
#include "platform/qt/FileManagerReveal.h"
#include "platform/qt/LogindWakeMonitor.h"
#include "platform/qt/ScreenWakeMonitor.h"
#include "platform/qt/FloatingButtonPane.h"
#include "platform/qt/MainWindow.h"
#include "platform/qt/MainWindowPanes.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtOverlayPanels.h"
#include "platform/qt/QtResultsWindow.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/QtStatusItem.h"
#include "platform/qt/QtToastPresenter.h"
#include "platform/qt/SingleInstance.h"
#include "platform/qt/ShortcutEditor.h"
#include "app/RunMarker.h"
#include "app/ShortcutCommands.h"
#include "ui/ShortcutRows.h"
#include "ai/IntelligenceItems.h"
#include "base/LocalizedLanguage.h"
#include "platform/qt/PowerSourceMonitor.h"
#include "platform/qt/QtUpdateAlert.h"
#include "app/UpdateCommand.h"
#include "app/UpdatePublicKey.h"
#include "store/MigrationHelper.h"
#include "store/SqliteStore.h"
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
#include "ui/FloatingButtonController.h"
#include "ui/RadialMenu.h"

namespace sprelio::app {

namespace {

constexpr const char* kBundleIdentifier = "com.sprelio.app";
constexpr std::uint16_t kRightOptionKeyCode = 61;
constexpr std::chrono::seconds kWarningToastDelay{2};

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
    void recoverInterruptedRecordings(std::chrono::system_clock::time_point since);
    void keepInterruptedRecordings(const std::vector<InterruptedRecording>& found);
    // Sprelio was started again: its main window comes forward on the selected tab.
    void reopen();
    // The commands a terminal sends to this running instance ("sprelio continuous start", ...).
    void registerRemoteCommands(platform::SingleInstance& instance);

private:
    store::Settings& settings() { return env_.settings(); }
    const store::AppConstants& constants() const { return env_.constants(); }
    void checkUsability(const std::string& caller) { usability_.checkUsability(caller); }
    void checkHotkeyCollision();
    bool isEmbeddedAccount() const { return endpoint_ && endpoint_->isEmbedded(); }
    void openSignInWindow();
    // The account's line on the Main tab and the open sign-in window follow the presenter.
    void showAccountState();
    // The banner on the Main tab and the tray's tooltip and first entry.
    void showUsabilityWarnings();
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
    platform::PulseAudioLevelTap levelTap_{pulse_};
    platform::PulseAudioOutput output_{pulse_, loop_};
    platform::PulseSoundPlayer sounds_{pulse_};
    platform::PulseSystemAudio systemAudio_;
    platform::X11GlobalInput input_{loop_};
    platform::X11Workspace x11Workspace_{loop_, "", kBundleIdentifier};
    platform::X11Clipboard x11Clipboard_{loop_};
    platform::X11SyntheticKeyboard x11Keyboard_{"", &input_};
    // In a Wayland session the text goes to native applications through the compositor (wl-copy, wtype) and the
    // window in front is the compositor's; Sprelio's own windows and its X11 hotkeys stay on Xwayland.
    std::optional<platform::WaylandDesktopOffer> waylandOffer_ =
        platform::detectWaylandSession() ? std::optional(platform::probeWaylandDesktop()) : std::nullopt;
    std::unique_ptr<platform::WaylandClipboard> waylandClipboard_ =
        waylandOffer_ ? std::make_unique<platform::WaylandClipboard>(loop_, &x11Clipboard_) : nullptr;
    std::unique_ptr<platform::WaylandSyntheticKeyboard> waylandKeyboard_ =
        waylandOffer_ ? std::make_unique<platform::WaylandSyntheticKeyboard>(waylandOffer_->virtualKeyboard) : nullptr;
    std::unique_ptr<platform::SwayWorkspace> swayWorkspace_ =
        waylandOffer_ ? std::make_unique<platform::SwayWorkspace>(x11Workspace_, kBundleIdentifier) : nullptr;
    platform::Workspace& workspace_ =
        swayWorkspace_ ? static_cast<platform::Workspace&>(*swayWorkspace_) : x11Workspace_;
    platform::WorkspaceNotifications& workspaceNotifications_ =
        swayWorkspace_ ? static_cast<platform::WorkspaceNotifications&>(*swayWorkspace_) : x11Workspace_;
    platform::Clipboard& clipboard_ =
        waylandClipboard_ ? static_cast<platform::Clipboard&>(*waylandClipboard_) : x11Clipboard_;
    platform::SyntheticKeyboard& keyboard_ =
        waylandKeyboard_ ? static_cast<platform::SyntheticKeyboard&>(*waylandKeyboard_) : x11Keyboard_;
    platform::X11KeyboardLayout layout_{loop_};
    platform::LogindWakeMonitor wake_{loop_};
    platform::ScreenWakeMonitor screenWake_{loop_};
    WakeRelay wakeRelay_;
    platform::NetlinkNetworkMonitor network_;
    platform::CurlHttpClient http_{loop_};
    platform::CurlStreamingUploadClient streamingHttp_{loop_};
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
    std::unique_ptr<LoginAndRegistrationPresenter> login_;
    // Made at its first opening; goes before the presenter it draws.
    std::unique_ptr<platform::SignInWindow> signInWindow_;
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
    // The Files tab's logic outlives its pane, which lets go of it when it goes.
    std::unique_ptr<FileUploadManager> fileUploads_;
    std::unique_ptr<FilesMenuViewModel> files_;
    std::unique_ptr<platform::MainWindow> mainWindow_;
    std::unique_ptr<platform::QtAppEventMonitor> eventMonitor_;
    std::unique_ptr<NotifyingHistory> history_;
    RunMarker runMarker_{env_.constants().appSupportFolder() / "running"};
    std::unique_ptr<IntelligenceManager> intelligenceManager_;
    std::unique_ptr<IntelligenceViewModelImpl> intelligence_;
    std::unique_ptr<IntelligenceResultsView> resultsView_;
    std::unique_ptr<platform::QtResultsWindow> resultsWindow_;
    std::unique_ptr<IntelligencePresetsViewModel> presets_;
    std::unique_ptr<ProblemReportUploader> reportUploader_;
    std::unique_ptr<SendReportViewModel> report_;
    std::shared_ptr<HttpAudioUploadManager> continuousUpload_;
    std::unique_ptr<ContinuousSpeechManagerImpl> continuousSpeech_;
    HitTestManager hitTest_{screens_};
    platform::QtOverlayPanelFactory panelFactory_{screens_};
    platform::QtPointerLocation pointer_{screens_};
    platform::X11WindowList windowList_{screens_};
    std::unique_ptr<OverlayScreenControllerImpl> overlay_;
    // The floating button's ring of AI actions and the settings that take effect at once.
    std::unique_ptr<FloatingRecordViewModel> ringModel_;
    std::unique_ptr<FloatingRecordView> ring_;
    std::unique_ptr<FloatingButtonController> floatingButton_;
    std::shared_ptr<HttpAudioUploadManager> sessionUpload_;
    std::unique_ptr<LiveDictationStreams> liveDictation_;
    std::shared_ptr<HttpAudioUploadManager> historyUpload_;
    std::unique_ptr<AppDelegate> app_;
    std::unique_ptr<AppShortcutSession> session_;
    std::unique_ptr<ShortcutActions> actions_;
    std::unique_ptr<HistoryViewModel> historyView_;

    // ---- Input ----
    std::unique_ptr<KeyboardShortcutManager> keyboardManager_;
    std::unique_ptr<MouseShortcutManager> mouseManager_;
    std::unique_ptr<EventTapManager> tap_;
    std::unique_ptr<KeyShortcutRecorder> recorder_;
    std::unique_ptr<ShortcutRows> shortcutRows_;
    // `sprelio shortcuts press|release|tap`: the keys of a compositor binding.
    std::unique_ptr<ShortcutTrigger> trigger_;
    std::unique_ptr<FrontmostAppTracker> frontmostTracker_;

    // ---- Tray and life cycle ----
    std::unique_ptr<AppMenuBar> menuBar_;
    std::unique_ptr<DesktopShell> shell_;
    std::unique_ptr<AppLifecycle> lifecycle_;

    // ---- Updates and the power log ----
    platform::QtUpdateAlert updateAlert_;
    platform::UpdatePackageInstaller packageInstaller_{loop_};
    std::unique_ptr<SparkleUpdaterDelegate> updaterDelegate_;
    SparkleUserDriverDelegate userDriverDelegate_;
    std::unique_ptr<SPUUpdater> updater_;
    platform::PowerSourceMonitor powerSourceMonitor_{clock_};
    std::vector<QMetaObject::Connection> screenConnections_;
    std::optional<std::tuple<bool, bool, std::string>> collisionBasis_;
    LifetimeGuard lifetime_; // last: closures posted by the members above test it
};

Desktop::Desktop()
    : context_(env_.persistence().container().viewContext()),
      usability_(UsabilityManager::Dependencies{
          clock_, [this] { return microphones_ && !microphones_->mics().empty(); },
          [this] { return input_.isAvailable() && keyboard_.isAvailable(); }, [] { return true; },
          [this] { return settings().filesMenuRecordingMode(); }, &loop_}),
      balancing_(loop_, clock_, env_.settings(), appState_, env_.constants().appName()),
      historyStore_(context_, clock_),
      hotKeys_(env_.settingsStore(), input_),
      keyCodes_(layout_),
      clipboardHelper_(ClipboardHelperDependencies{loop_, clipboard_, keyboard_, workspace_, env_.constants(),
                                                   [this] { return input_.isAvailable(); }}),
      accessibility_(AccesibilityControllerDependencies{loop_, env_.settings(), workspace_, env_.constants(),
                                                        clipboardHelper_, keyboard_, keyCodes_, layout_}),
      substitutions_([this]() -> store::ManagedObjectContext& { return context_; }) {
    // A delivery that can't be confirmed (a terminal that ignores a fresh clipboard) leaves the text on the
    // clipboard and says so.
    accessibility_.setMessages(&messages_);
    // The account API: the embedded server unless the settings name another.
    std::string endpointError;
    endpoint_ = ApiEndpoint::resolve(settings(), constants(), endpointError);
    if (!endpoint_) {
        logError("Desktop.init() - the account API can't be used: " + endpointError);
        messages_.showAlertForError(SPRStringError::errorMessageError(std::nullopt, endpointError).toError());
    }
    for (const auto& text : env_.damagedFileNotices()) {
        SPRToastView toast;
        toast.messageTitle = "A damaged file was set aside";
        toast.messageText = text;
        toast.warningLevel = SPRToastViewWarningLevel::warning;
        messages_.showSPRToast(std::move(toast));
    }
    // A newer build's store is used as it is (nothing is converted or dropped); the user should know why some of
    // what that build saved may not show here.
    if (const auto store = env_.persistence().container().store(); store && store->writtenByNewerBuild()) {
        SPRToastView toast;
        toast.messageTitle = "Data from a newer version";
        toast.messageText = "Your history and shortcuts were saved by a newer version of " + constants().appName() +
                            ". This version uses them as they are and changes nothing; install the newer version again "
                            "to use all of it.";
        toast.warningLevel = SPRToastViewWarningLevel::warning;
        messages_.showSPRToast(std::move(toast));
    }
    account_ = std::make_unique<LoginResourceService>(LoginResourceService::Dependencies{
        loop_, clock_, http_, settings(), constants(), appState_, screens_, &balancing_, &messages_,
        endpoint_ ? endpoint_->baseURL() : ApiEndpoint::configuredBaseURL(settings()), machineIdentity(),
        localeRegion(), true});
    balancing_.setService(account_.get());
    login_ = std::make_unique<LoginAndRegistrationPresenter>(LoginAndRegistrationPresenter::Dependencies{
        loop_, clock_, settings(), appState_, *account_, &messages_});
    // The "Log Out" of an "Unauthorized" message: the account service no longer takes the token.
    messages_.logout = [this] { login_->logoutUnauthorized(); };
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
        [this] {
            if (intelligence_) intelligence_->intelligencePresetsDidChange();
            if (ringModel_) ringModel_->pickerListChanged();
        }});
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
    // Continuous speech uploads with a client of its own, without the stages of the dictation's overlay.
    continuousUpload_ = makeUploadManager(false);
    continuousSpeech_ = std::make_unique<ContinuousSpeechManagerImpl>(ContinuousSpeechManagerDependencies{
        loop_, clock_, levelTap_, settings(), appState_, recorders_, *continuousUpload_, *history_, messages_,
        [this] { return app_.get(); }});
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
    host.recordAudio = [this]() -> std::shared_ptr<RecordingAudio> {
        if (!app_) return nullptr;
        // Continuous speech records with recorders of its own, one per piece.
        if (app_->appStatus() == AppActivity::continuousSpeechActive) return continuousSpeech_->meterSource();
        return app_->recordAudio();
    };
    host.cancelRecordingAndProcessing = [this] { if (app_) app_->cancelRecordingAndProcessing(); };
    host.showOverlay = [this](OverlayType type, bool force) { if (app_) app_->showOverlay(type, force); };
    host.checkUsability = [this](const std::string& caller) { checkUsability(caller); };
    overlay_ = std::make_unique<OverlayScreenControllerImpl>(OverlayScreenControllerDependencies{
        loop_, screens_, workspace_, pointer_, windowList_, panelFactory_, settings(), appState_, *actions_, hitTest_,
        std::move(host)});
    sessionUpload_ = makeUploadManager(true);
    liveDictation_ = std::make_unique<LiveDictationStreams>(LiveDictationStreams::Dependencies{
        loop_, streamingHttp_, balancing_, appState_, settings(), *sessionUpload_});
    sessionUpload_->setLiveStreams(liveDictation_.get());
    app_ = std::make_unique<AppDelegate>(AppDelegateDependencies{
        platform_, settings(), appState_, mirror_, messages_, recorders_, *microphones_, *sessionUpload_,
        substitutions_, accessibility_, *intelligence_, *continuousSpeech_, *history_, *resultsView_,
        kBundleIdentifier, [this] { cache_.update(context_); }, liveDictation_.get()});
    // The ring offers the AI picker's items.
    ringModel_ = std::make_unique<FloatingRecordViewModel>(loop_, settings(), RadialMenuCatalogue{
        [this] {
            std::vector<std::string> ids;
            for (const auto& [row, id] : intelligence_->orderedActionsTranslationsPickerItems())
                if (id) ids.push_back(*id);
            return ids;
        },
        [this](const std::string& id) { return intelligence_->getTitleForItem(id); },
        [this](const std::string& id) { return intelligence_->getEmojiForItem(id); }});
    ring_ = std::make_unique<FloatingRecordView>(FloatingRecordViewDependencies{
        loop_, settings(), appState_, *actions_, *ringModel_, overlay_.get(),
        [this] { return app_ ? app_->lastShownOverlayType() : std::nullopt; },
        [this] { if (app_) app_->cancelRecordingAndProcessing(); }});
    overlay_->setRecordingOverlayMenu(ring_.get());
    floatingButton_ = std::make_unique<FloatingButtonController>(FloatingButtonControllerDependencies{
        settings(), screens_, pointer_, [this] { return app_->appStatus(); },
        // A change in Sprelio's own window: the focus stays there, as at a screen change.
        [this](OverlayType type, bool force) {
            app_->showOverlay(type, force, AppDelegate::OverlayTrigger::screenChange);
        },
        [this](bool force, bool preserveAppFocus) { app_->removeOverlay(force, preserveAppFocus); }, ringModel_.get()});

    // The History tab transcribes again with a client of its own, without overlay.
    maintenance_ = std::make_unique<MaintenanceManager>(env_.persistence().container(), settings(), clock_);
    historyUpload_ = makeUploadManager(false);
    historyView_ = std::make_unique<HistoryViewModel>(HistoryViewModel::Dependencies{
        loop_, workers_, context_, historyStore_, *maintenance_, appState_, messages_, settings(), sounds_,
        historyUpload_.get(), &playback_, [this](const std::filesystem::path& file) { return reveal_.showItem(file); },
        [this](const std::string& text, const std::string& caller) { clipboardHelper_.setString(text, caller); }});
    // The Send Report tab.
    reportUploader_ = std::make_unique<ProblemReportUploader>(ProblemReportUploader::Dependencies{
        // At the API's base URL, not the account service's sign-in URL under it.
        loop_, http_, settings(),
        [this] { return endpoint_ ? endpoint_->baseURL() : ApiEndpoint::configuredBaseURL(settings()); },
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
    // The Files tab, with an upload client of its own.
    fileUploads_ = std::make_unique<FileUploadManager>(
        FileUploadManager::Dependencies{loop_, http_, balancing_, settings(), constants(), account_->deviceId()});
    files_ = std::make_unique<FilesMenuViewModel>(FilesMenuViewModel::Dependencies{
        loop_, workers_, clock_, settings(), appState_, *history_, sounds_, messages_, *fileUploads_, systemAudio_,
        [this](const std::string& text, const std::string& caller) { clipboardHelper_.setString(text, caller); },
        [this] {
            if (app_->appStatus() != AppActivity::idle) return;
            app_->setAppStatus(AppActivity::filesMenuViewRecording);
            app_->showOverlay(OverlayType::recording);
            if (mainWindow_) mainWindow_->refreshState();
        },
        [this] {
            if (app_->appStatus() == AppActivity::filesMenuViewRecording) app_->setupMenuWithMainMenu();
        }});
    mainWindow_ = std::make_unique<platform::MainWindow>(platform::MainWindowDependencies{
        loop_, clock_, workspace_, settings(), constants(), appState_, context_,
        [this] { return app_->appStatus(); }, titles_, historyView_.get(), maintenance_.get(), &sounds_,
        presets_.get(),
        [this]() -> std::optional<std::string> {
            return endpoint_ ? endpoint_->reconfigureAi(settings()) : std::nullopt;
        },
        report_.get(), [this](const std::filesystem::path& file) { return reveal_.showItem(file); }, files_.get()});
    if (auto* about = mainWindow_->findChild<platform::AboutPane*>())
        QObject::connect(about, &platform::AboutPane::checkForUpdateRequested, qApp,
                         [this] { updater_->checkForUpdates(); });
    if (auto* ai = mainWindow_->aiPane())
        ai->setActionsSource([this] { return aiActionRows(*intelligence_, context_); });
    if (auto* floating = mainWindow_->floatingButtonPane()) {
        floating->setRingSource(ringModel_->catalogue());
        floating->onSettingChanged = [this](const std::string& key) { floatingButton_->settingChanged(key); };
    }
    mainWindow_->settingsPane()->onSettingChanged = [this](const std::string& key) {
        floatingButton_->settingChanged(key);
    };
    windows_->setMainWindow(mainWindow_.get());
    eventMonitor_ = std::make_unique<platform::QtAppEventMonitor>(*windows_, screens_);
    appState_.onChange = [this](std::string_view field) {
        mainWindow_->appStateChanged(field);
        if (signInWindow_ && (field == "statusBannerViewMessage" || field == "isShowingBanner")) signInWindow_->refresh();
    };
    // The account's state on the Main tab and in the tray, and the window that signs in.
    login_->addObserver([this] { showAccountState(); });
    showAccountState();
    statusItem_.onImageChanged = [this](const std::string&) { mainWindow_->refreshState(); };
    usability_.onChange = [this] { showUsabilityWarnings(); };
    // A warning found missing is told in a toast as well, once it has outlasted the start's burst of checks: the
    // first device list arrives a moment after the first check, and a toast that says "no microphone" and is wrong
    // a moment later is worse than none.
    usability_.onWarningRaised = [this](UsabilityWarning warning) {
        loop_.schedule(kWarningToastDelay, lifetime_.guard([this, warning] {
            if (!usability_.hasWarning(warning)) return;
            messages_.showAlertForError(
                SPRStringError::errorMessageError(std::nullopt, usabilityWarningText(warning)).toError(), std::nullopt,
                false, true);
        }));
    };

    // Global input.
    keyboardManager_ = std::make_unique<KeyboardShortcutManager>(KeyboardShortcutManagerDependencies{
        loop_, context_, settings(), hotKeys_, keyCodes_, appState_, &cache_,
        [this] { return store::MigrationHelper(context_, settings(), constants()).checkAndMigrate(); },
        [this](const std::string& caller) { checkUsability(caller); }});
    keyboardManager_->setActionDispatcher(actions_.get());
    mouseManager_ = std::make_unique<MouseShortcutManager>(MouseShortcutManagerDependencies{
        loop_, appState_, &cache_, [this] { return tap_ && tap_->shouldHandleAsGlobal(); },
        [this](const std::string& caller) { checkUsability(caller); }});
    mouseManager_->setActionDispatcher(actions_.get());
    trigger_ = std::make_unique<ShortcutTrigger>(ShortcutTriggerDependencies{
        *keyboardManager_, hotKeys_, *mouseManager_, cache_, [this] {
            return std::chrono::duration<double>(clock_.steadyNow().time_since_epoch()).count();
        }});
    // The overlay's panels take their own clicks: the tap has no regions to test.
    tap_ = std::make_unique<EventTapManager>(EventTapManagerDependencies{
        loop_, input_, sounds_, workspace_, mirror_, *keyboardManager_, *mouseManager_, kBundleIdentifier,
        [this] { return usability_.hasWarning(UsabilityWarning::accessibility); },
        [this] { checkUsability("EventTapManager"); }, [this] { return input_.isAvailable(); }, {}});
    // The hotkey editor of the Settings tab, and `sprelio shortcuts` on the same rows.
    recorder_ = std::make_unique<KeyShortcutRecorder>(KeyShortcutRecorderDependencies{
        context_, *keyboardManager_, hotKeys_, tap_.get(), mouseManager_.get(), &sounds_,
        [this] { app_->updateCachedUserShortcuts(); }});
    shortcutRows_ = std::make_unique<ShortcutRows>(ShortcutRowsDependencies{
        context_, *keyboardManager_, hotKeys_, *recorder_,
        [this] {
            std::vector<ShortcutItemChoice> choices;
            for (const auto& [row, id] : intelligence_->orderedActionsTranslationsPickerItems())
                if (id)
                    choices.push_back({*id, intelligence_->getEmojiForItem(*id) + " " + intelligence_->getTitleForItem(*id),
                                       row == IntelligenceRow::translate});
            return choices;
        },
        [this] { app_->updateCachedUserShortcuts(); }});
    {
        std::vector<std::pair<std::string, std::string>> languages;
        for (const auto& language : sortedLanguageTable()) languages.emplace_back(language.code, language.localized);
        mainWindow_->installShortcutEditor(platform::ShortcutEditorDependencies{
            *shortcutRows_,
            [this] {
                const auto front = workspace_.frontmostApplication();
                return front && front->bundleIdentifier == kBundleIdentifier;
            },
            std::move(languages), waylandOffer_.has_value()});
    }
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
        loop_, workspaceNotifications_, [this] { tap_->deregisterEventTap(); }, [this](bool user) { tap_->registerEventTap(user); },
        [this] { return input_.isAvailable(); }, [this] { checkUsability("FrontmostAppTracker"); },
        [this] { workspace_.activateSelf(); }});

    // Tray and life cycle.
    menuBar_ = std::make_unique<AppMenuBar>(AppMenuBar::Dependencies{
        context_, settings(), *microphones_, [this] { return app_->appStatus(); },
        [this] { return platform::accountActionTitle(*login_, isEmbeddedAccount()).toStdString(); }});
    shell_ = std::make_unique<DesktopShell>(workspace_, [this]() -> QWidget* { return mainWindow_.get(); });
    // Updates: found in the background, offered when the application is idle and the user is not in its window.
    updaterDelegate_ = std::make_unique<SparkleUpdaterDelegate>(SparkleUpdaterDelegate::Dependencies{
        loop_, constants().appName(), constants().appVersion(),
        [this]() -> std::optional<AppActivity> {
            if (!app_ || !lifecycle_ || !lifecycle_->didFinishLaunching()) return std::nullopt;
            return app_->appStatus();
        },
        [this] { return mainWindow_ && mainWindow_->isKeyWindow(); },
        [this](UpdateAlert alert, std::function<void(int)> answer) { updateAlert_.show(alert, std::move(answer)); },
        [this](std::string title, std::string text) {
            SPRToastView toast;
            toast.messageTitle = std::move(title);
            toast.messageText = std::move(text);
            toast.warningLevel = SPRToastViewWarningLevel::message;
            messages_.showSPRToast(std::move(toast));
        },
        [this] { updater_->checkForUpdatesInBackground(); }});
    updater_ = std::make_unique<SPUUpdater>(
        SPUUpdater::Dependencies{
            loop_, http_, [this] { return configuredUpdateFeedURL(settings()); }, constants().appName(),
            constants().appVersion(), kUpdatePublicKey, constants().appSupportFolder() / "updates",
            [this](const std::filesystem::path& package, std::function<void(std::optional<std::string>)> done) {
                packageInstaller_.install(package, std::move(done));
            },
            [] {
                if (platform::relaunchWhenThisProcessEnds(platform::installedExecutable())) QCoreApplication::quit();
            },
            [this](const std::string& message) {
                messages_.showAlertForError(SPRStringError::errorMessageError(std::nullopt, message).toError());
            }},
        *updaterDelegate_, userDriverDelegate_);
    lifecycle_ = std::make_unique<AppLifecycle>(AppLifecycleDependencies{
        loop_, settings(), constants(), appState_, mirror_, *app_, *shell_, screens_,
        [this] { app_->updateCachedUserShortcuts(); },
        [this] { login_->onViewLoad(); },
        [this](bool enabled) { autostart_.setLoginItem(enabled); },
        [this] { updater_->checkForUpdatesInBackground(); },
        [this] { checkHotkeyCollision(); },
        [this] {
            keyboardManager_->setup();
            // The editor was drawn before the store had its shortcuts.
            if (auto* editor = mainWindow_->shortcutEditor()) editor->reload();
        },
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
                [this] { lifecycle_->quitFromMenu(); }, [this](ContentViewTab tab) { windows_->openTab(tab); },
                [this] { openSignInWindow(); }});
        },
        [this] {
            menuBar_->awakeFromNib();
            statusItem_.setMenu(*menuBar_);
            // The tray's way to continuous dictation: the same as its key, offered only when it can't break
            // into a dictation or a Files recording.
            statusItem_.setContinuousDictation(
                [this]() -> std::optional<bool> {
                    const AppActivity state = app_->appStatus();
                    if (state == AppActivity::idle) return false;
                    if (state == AppActivity::continuousSpeechActive) return true;
                    return std::nullopt;
                },
                [this] { session_->continuousVoiceToText(); });
            statusItem_.show();
        },
        {}, // the maintenance and balancing managers are made with the application
        [this] { balancing_.initializeIfNeeded("applicationDidFinishLaunching", false); },
        [this] { windows_->openTab(ContentViewTab::settings); },
        [this] { updater_->startUpdater(); },
        [this] { startObservers(); },
        [this] { powerSourceMonitor_.startMonitoring(); },
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
    // The window's panes hold the view models declared after it, which would go first.
    mainWindow_.reset();
    runMarker_.end();
    logInfo("Desktop - the application ends");
}

void Desktop::launch() {
    const auto interruptedRunStart = runMarker_.begin(clock_.now());
    lifecycle_->initialize();
    lifecycle_->applicationDidFinishLaunching();
    // The session may have no X11 reach over its applications: the user hears of it once, in the banner.
    if (waylandOffer_) {
        logInfo("Desktop.launch() - Wayland session: " + platform::describeOffer(*waylandOffer_));
        for (const auto& note : platform::waylandUsabilityNotes(*waylandOffer_)) {
            logWarning("Desktop.launch() - " + note);
            usability_.addSessionNote(note);
        }
    } else if (const auto warning = platform::checkDesktopSession()) {
        usability_.addSessionNote(*warning);
    }
    // verifyUsability: with access to global input the tap is registered, then the checks run.
    logInfo("verifyUsability()");
    if (input_.isAvailable()) tap_->registerEventTap(false);
    checkUsability("verifyUsability");
    showUsabilityWarnings();
    if (interruptedRunStart) recoverInterruptedRecordings(*interruptedRunStart);
    // After the steps that the launch posted (the activation of step 16 among them).
    loop_.post([] { logInfo("Desktop.launch() - ready: the hotkeys are live"); });
}

// What the cut run was recording or transcribing goes into the history, where Retry transcribes it.
void Desktop::recoverInterruptedRecordings(std::chrono::system_clock::time_point since) {
    InterruptedRecordingSearch search;
    search.recordingsFolder = settings().saveRecordingsFolder();
    search.since = since;
    search.minimumSeconds = settings().minimumRecordingDuration() / 1000.0;
    for (const auto& entry : context_.fetchAll<store::LogEntry>())
        if (const auto path = entry->recordingPath()) search.inHistory.insert(*path);
    // Reading and mending the files is disk work of unknown size: the launch goes on meanwhile, and the history
    // takes the findings on the loop.
    // The guard is made here, on the loop: the worker may still be reading when the desktop goes.
    auto keep = lifetime_.guard(
        [this](const std::vector<InterruptedRecording>& found) { keepInterruptedRecordings(found); });
    workers_.submit([this, search = std::move(search), keep = std::move(keep)]() mutable {
        auto found = findInterruptedRecordings(search);
        if (found.empty()) return;
        loop_.post([keep = std::move(keep), found = std::move(found)]() mutable { keep(found); });
    });
}

void Desktop::keepInterruptedRecordings(const std::vector<InterruptedRecording>& found) {
    for (const auto& recording : found) {
        history_->log(HistoryManagerLogLevel::error, interruptedRecordingMessage(constants().appName()),
                      recording.file, Uuid::random(), false);
    }
    SPRToastView toast;
    toast.messageTitle = "Recordings kept from the last run";
    toast.messageText = constants().appName() + " stopped before " +
                        (found.size() == 1 ? std::string("a recording was")
                                           : std::to_string(found.size()) + " recordings were") +
                        " transcribed. " + (found.size() == 1 ? "It is" : "They are") +
                        " in the history, where Retry transcribes " + (found.size() == 1 ? "it." : "them.");
    toast.warningLevel = SPRToastViewWarningLevel::warning;
    messages_.showSPRToast(std::move(toast));
}

void Desktop::reopen() {
    if (windows_->applicationShouldHandleReopen(mainWindow_->isVisible()))
        logWarning("Desktop.reopen() - there is no main window to show");
}

void Desktop::registerRemoteCommands(platform::SingleInstance& instance) {
    // "sprelio files add|record": into the Files tab, as if the user had dropped the files or pressed record there.
    instance.handleCommands("files", [this](platform::RemoteCommand command) {
        runFilesRemoteCommand(*files_, loop_, [this] { windows_->openTab(ContentViewTab::files); }, std::move(command));
    });
    // "sprelio shortcuts ...": on the editor's own rows, so the change is live at once.
    instance.handleCommands("shortcuts", [this](platform::RemoteCommand command) {
        std::ostringstream out, err;
        const std::string verb = command.args.size() > 1 ? command.args[1] : std::string();
        const int status = verb == "press" || verb == "release" || verb == "tap"
                               ? runShortcutTriggerCommand(command.args, *shortcutRows_, *trigger_, err)
                               : runShortcutCommand(command.args, *shortcutRows_, keyCodes_, out, err);
        std::istringstream outLines(out.str()), errLines(err.str());
        for (std::string line; std::getline(outLines, line);) command.print(line);
        for (std::string line; std::getline(errLines, line);) command.printError(line);
        command.finish(status);
    });
    // "sprelio continuous start|stop": the same as the shortcut action, refused when the answer would surprise.
    instance.handleCommands("continuous", [this](platform::RemoteCommand command) {
        const std::string verb = command.args.size() == 2 ? command.args[1] : std::string();
        const AppActivity state = app_->appStatus();
        if (verb == "start") {
            if (state == AppActivity::continuousSpeechActive) {
                command.print("Continuous dictation is already listening.");
                return command.finish(0);
            }
            if (state != AppActivity::idle) {
                command.printError("sprelio: Sprelio is busy (" + std::string(appActivityName(state)) +
                                   "); start continuous dictation when it is idle");
                return command.finish(1);
            }
            session_->continuousVoiceToText();
            if (!continuousSpeech_->isActive()) {
                command.printError("sprelio: continuous dictation could not listen to the microphone; the log says why");
                return command.finish(1);
            }
            command.print("Continuous dictation is listening: speak, and each pause sends what you said to the "
                          "application in front. Stop with: sprelio continuous stop");
            return command.finish(0);
        }
        if (verb == "stop") {
            if (state != AppActivity::continuousSpeechActive && !continuousSpeech_->isActive()) {
                command.print("Continuous dictation is not running.");
                return command.finish(0);
            }
            session_->continuousVoiceToText();
            command.print("Continuous dictation stopped; a piece still being transcribed is delivered when ready.");
            return command.finish(0);
        }
        command.printError("usage: sprelio continuous start|stop");
        command.finish(2);
    });
    (void)instance;
}

void Desktop::showUsabilityWarnings() {
    const auto texts = usability_.bannerTexts();
    mainWindow_->setUsabilityWarnings(texts);
    statusItem_.setWarnings(texts, [this] { windows_->openTab(ContentViewTab::main); });
}

void Desktop::openSignInWindow() {
    if (!signInWindow_) {
        signInWindow_ = std::make_unique<platform::SignInWindow>(platform::SignInWindowDependencies{
            *login_, appState_, constants().appName(),
            endpoint_ ? endpoint_->baseURL() : ApiEndpoint::configuredBaseURL(settings()), isEmbeddedAccount()});
    }
    signInWindow_->present();
}

void Desktop::showAccountState() {
    if (auto* pane = mainWindow_ ? mainWindow_->mainPane() : nullptr) {
        pane->setAccount(platform::accountSummary(*login_, isEmbeddedAccount()),
                         platform::accountActionTitle(*login_, isEmbeddedAccount()), [this] { openSignInWindow(); });
    }
    if (signInWindow_) signInWindow_->refresh();
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
    // The screen back on, or the session unlocked, without a sleep: the same rebuilding.
    screenWake_.setHandler([this](const std::string& name) {
        wakeRelay_.wake([this, name] { lifecycle_->handleSystemWake(name); });
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
    // A peer that goes away (the X server, a pasting helper, a closed socket) must be an error on the write that
    // found it, which each adapter reports, not a signal that ends the application without a word.
    ::signal(SIGPIPE, SIG_IGN);
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
