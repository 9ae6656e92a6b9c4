#include "core/AppLifecycle.h"

#include "core/AppDelegate.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Settings.h"

namespace sprelio {

namespace {
std::string boolText(bool value) { return value ? "true" : "false"; }
} // namespace

AppLifecycle::AppLifecycle(AppLifecycleDependencies dependencies) : deps_(std::move(dependencies)) {}

AppLifecycle::~AppLifecycle() { lifetime_.expire(); }

void AppLifecycle::post(std::function<void()> task) { deps_.loop.post(lifetime_.guard(std::move(task))); }

void AppLifecycle::initialize() {
    logInfo("AppDelegate.init() – initializing '" + deps_.constants.bundleIdentifier() + "'");
    call(deps_.updateCachedUserShortcuts);
    if (deps_.presenterEarlyWork) post(deps_.presenterEarlyWork);
    if (deps_.settings.isFirstLaunch()) {
        deps_.settings.setIsFirstLaunch(false);
        if (deps_.setLoginItem) deps_.setLoginItem(true);
        call(deps_.callOpenSettingsAction);
    }
    call(deps_.checkForUpdatesInBackground);
    // The local key monitor and the window-close observer are the shell's; they call keyDown and
    // handleWindowClose.
    call(deps_.checkForIncompatibilities);
    logInfo("init() - appSupportFolder: " + deps_.constants.appSupportFolder().string());
    logInfo("init() - loggingFolder   : " + deps_.constants.logsFolder().string());
}

void AppLifecycle::applicationDidFinishLaunching() {
    call(deps_.connectStoreSaves);
    call(deps_.setupKeyboardShortcutManager);
    call(deps_.setupMouseShortcutManager);
    // There is no application main menu to prune on this platform.
    logInfo("removeUnwantedMenuItems() - NSApp.mainMenu is nil, skipping");
    // The language always follows the system here; there is no stored override to drop.
    call(deps_.cleanupShortcutsByUserDefaults);
    call(deps_.startNetworkPathMonitor);
    call(deps_.updateKeysSetFromUserShortcuts);
    call(deps_.createOverlayScreenController);
    call(deps_.connectShortcutDispatchAndMenu);
    deps_.appDelegate.setupMenuWithMainMenu();
    call(deps_.setupStatusItem);
    call(deps_.setupMaintenanceAndBalancing);
    if (deps_.loadBackends) post(deps_.loadBackends);
    call(deps_.callOpenSettingsAction);
    call(deps_.startUpdater);
    post([this] {
        deps_.shell.setActivationPolicy(deps_.settings.appShowDockIcon());
        deps_.shell.activateIgnoringOtherApps();
        // The button is the one overlay that shows at idle, hence forced.
        if (deps_.settings.floatingButtonActivation()) deps_.appDelegate.showOverlay(OverlayType::button, true);
    });
    call(deps_.startObservers);
    call(deps_.startPowerSourceMonitor);
    launched_ = true;
}

void AppLifecycle::networkPathChanged(bool satisfied) {
    post([this, satisfied] {
        if (satisfied) {
            deps_.appState.setInternetAvailable(true);
        } else {
            logWarning("AppDelegate: Network path is not satisfied. (no internet connection)");
            deps_.appState.setInternetAvailable(false);
        }
    });
}

void AppLifecycle::handleSystemWake(const std::string& name) {
    logInfo("AppDelegate.handleSystemWake() - received: " + name);
    post([this] {
        if (deps_.hasOverlayScreenController && deps_.hasOverlayScreenController())
            call(deps_.refreshOverlayPanels);
        else
            call(deps_.createOverlayScreenController);
        if (deps_.settings.floatingButtonActivation() && deps_.appDelegate.appStatus() == AppActivity::idle) {
            const auto alive = lifetime_.token();
            deps_.loop.postAfter(std::chrono::milliseconds(200), [this, alive] {
                if (alive)
                    deps_.appDelegate.showOverlay(OverlayType::button, true, AppDelegate::OverlayTrigger::wake);
            });
        }
    });
}

void AppLifecycle::handleScreenParametersChanged(const std::string& name) {
    logInfo("AppDelegate.handleScreenParametersChanged() - received: " + name);
    post([this] {
        if (deps_.hasOverlayScreenController && deps_.hasOverlayScreenController()) call(deps_.refreshOverlayPanels);
        if (deps_.settings.floatingButtonActivation() && deps_.appDelegate.appStatus() == AppActivity::idle) {
            // A screen change must not move the focus: the old button goes without restoring anything.
            deps_.appDelegate.removeOverlay(true, true);
            deps_.appDelegate.showOverlay(OverlayType::button, true, AppDelegate::OverlayTrigger::screenChange);
        }
    });
}

void AppLifecycle::applicationDidBecomeActive() {
    post([this] { logInfo("applicationDidBecomeActive() - appFinishedLaunching: " + boolText(appFinishedLaunching_)); });
}

void AppLifecycle::applicationWillTerminate() {
    logInfo("applicationWillTerminate() - aNotification: NSApplicationWillTerminateNotification");
    deps_.appDelegate.removeOverlay(false, false);
}

void AppLifecycle::quitFromMenu() {
    // The menu's handler has logged the choice.
    userPressedQuit_ = true;
    logInfo("applicationShouldTerminate() - sender: AppMenuBar");
    applicationWillTerminate();
    call(deps_.terminate);
}

} // namespace sprelio
