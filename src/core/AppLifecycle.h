#pragma once
// The application's life around the dictations: construction, the launch in its fixed order, the reactions to
// wake, screen changes and quit. Its windows (opening a tab, reopening, Escape, frames) are AppWindows'. What each
// step touches (tray, overlay, managers) is handed in, so the order itself is plain logic.
#include <functional>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "shared/AppState.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"

namespace sprelio {

namespace store {
class Settings;
class AppConstants;
} // namespace store

class AppDelegate;

// What the launch asks of the desktop shell beyond its windows (those are AppWindows').
class ShellActivation {
public:
    virtual ~ShellActivation() = default;
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
    ShellActivation& shell;
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
    // Hands the store the step that follows every save (the event path's copy of the shortcuts).
    std::function<void()> connectStoreSaves;
};

class AppLifecycle {
public:
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
    void applicationWillTerminate();
    void quitFromMenu();
    bool userPressedQuit() const { return userPressedQuit_; }

private:
    void post(std::function<void()> task);
    static void call(const std::function<void()>& step) {
        if (step) step();
    }

    AppLifecycleDependencies deps_;
    LifetimeGuard lifetime_;
    bool launched_ = false;
    bool appFinishedLaunching_ = true;
    bool userPressedQuit_ = false;
};

} // namespace sprelio
