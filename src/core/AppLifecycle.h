#pragma once
// The application's life around the dictations: construction, the launch in its fixed order, the reactions to
// wake, screen changes, reopening and quit, the escape key, window frames and opening a tab. What each step
// touches (windows, tray, managers) is handed in, so the order itself is plain logic.
#include <functional>
#include <optional>
#include <string>

#include "core/AppState.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"

namespace sprelio {

namespace store {
class Settings;
class AppConstants;
} // namespace store

class AppDelegate;

// The windows of the desktop shell, as the life cycle needs them.
class ShellWindows {
public:
    virtual ~ShellWindows() = default;
    virtual bool hasMainWindow() const = 0;
    // Makes it when there is none; shows the tab. The window is not brought forward by this.
    virtual void prepareMainWindow(ContentViewTab tab) = 0;
    virtual bool isMainWindowKey() const = 0;
    virtual bool isMainWindowMiniaturized() const = 0;
    virtual void deminiaturizeMainWindow() = 0;
    virtual void makeMainWindowKeyAndOrderFront() = 0;
    virtual void closeMainWindow() = 0;
    virtual bool isTutorialWindowKey() const = 0;
    virtual void closeTutorialWindow() = 0;
    // Regular (with a taskbar entry) or accessory (tray only).
    virtual void setActivationPolicy(bool regular) = 0;
    virtual void activateIgnoringOtherApps() = 0;
};

struct AppLifecycleDependencies {
    platform::MainLoop& loop;
    store::Settings& settings;
    const store::AppConstants& constants;
    AppState& appState;
    AppStateRealtimeMirror& realtimeMirror;
    AppDelegate& appDelegate;
    ShellWindows& windows;
    const platform::Screens& screens;

    // The launch steps that belong to other subsystems, in the order they are called.
    std::function<void()> updateCachedUserShortcuts;
    std::function<void()> presenterEarlyWork;
    std::function<void(bool enabled)> setLoginItem;
    std::function<void()> checkForUpdatesInBackground;
    std::function<void()> checkForIncompatibilities;
    std::function<void()> setupKeyboardShortcutManager;  // the shared manager and its setup()
    std::function<void()> setupMouseShortcutManager;
    std::function<void()> cleanupShortcutsByUserDefaults;
    std::function<void()> startNetworkPathMonitor;       // its handler calls networkPathChanged
    std::function<void()> updateKeysSetFromUserShortcuts;
    std::function<void()> createOverlayScreenController; // makes it, sets up the panels, hands it to AppDelegate
    std::function<void()> refreshOverlayPanels;
    std::function<bool()> hasOverlayScreenController;
    std::function<void()> connectShortcutDispatchAndMenu;
    std::function<void()> setupStatusItem;
    std::function<void()> setupMaintenanceAndBalancing;
    std::function<void()> loadBackends;
    std::function<void()> callOpenSettingsAction;
    std::function<void()> startUpdater;
    std::function<void()> startObservers;                // screens and wake; their handlers call the ones below
    std::function<void()> startPowerSourceMonitor;
    std::function<void()> terminate;
};

class AppLifecycle {
public:
    static constexpr const char* kMainWindowWord = "Settings";

    explicit AppLifecycle(AppLifecycleDependencies dependencies);
    ~AppLifecycle();

    // AppDelegate.init, after the fields are set.
    void initialize();
    void applicationDidFinishLaunching();
    bool didFinishLaunching() const { return launched_; }

    // On any thread (the monitor's own); hops to the main loop.
    void networkPathChanged(bool satisfied);
    void handleSystemWake(const std::string& name);
    void handleScreenParametersChanged(const std::string& name);
    void applicationDidBecomeActive();
    // True when the shell should make the main window itself (there is none).
    bool applicationShouldHandleReopen(bool hasVisibleWindows);
    void applicationWillTerminate();
    void quitFromMenu();
    bool userPressedQuit() const { return userPressedQuit_; }

    // Opens the main window on a tab: the show actions and the status menu.
    void openTab(ContentViewTab tab);
    void restoreAndShowWindow();
    // The local key monitor; true when the event was consumed.
    bool keyDown(int keyCode);
    // A window is closing: its title decides which frame is kept.
    void handleWindowClose(const std::string& title, const std::optional<platform::Rect>& frame, bool screenWithMouse);

    // The window titles: application name, a blank and the window's word.
    std::string preferencesControllerWindowTitle() const;
    std::string contentViewWindowTitle() const;
    std::string tutorialControllerWindowTitle() const;
    std::string intelligenceResultsControllerWindowTitle() const;

    // Called with every opened tab; the history tab scrolls to its top.
    std::function<void()> scrollHistoryToTop;

private:
    void post(std::function<void()> task);
    static void call(const std::function<void()>& step) {
        if (step) step();
    }

    AppLifecycleDependencies deps_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    bool launched_ = false;
    bool appFinishedLaunching_ = true;
    bool userPressedQuit_ = false;
};

} // namespace sprelio
