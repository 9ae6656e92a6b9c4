// Launch order, wake and screen changes, the network state.
#include <gtest/gtest.h>

#include "SessionFakes.h"
#include "input/KeyboardShortcuts.h"
#include "core/AppLifecycle.h"
#include "platform/test/FakeGlobalInput.h"
#include "platform/test/TemporaryFolder.h"
#include "store/Persistence.h"
#include "store/PointText.h"

using namespace std::chrono_literals;
using namespace sprelio;
using namespace sprelio::testing;

namespace {

class FakeShell final : public ShellActivation {
public:
    void setActivationPolicy(bool regular) override { calls.push_back(regular ? "policy:regular" : "policy:accessory"); }
    void activateIgnoringOtherApps() override { calls.push_back("activate"); }
    std::vector<std::string> calls;
};

struct LifecycleHarness : SessionHarness {
    platform::test::RecordingLogSink logs;
    FakeShell windows;
    std::vector<std::string> steps;
    bool overlayControllerExists = false;

    std::function<void()> step(const std::string& name) {
        return [this, name] { steps.push_back(name); };
    }

    AppLifecycle lifecycle{AppLifecycleDependencies{
        tp.loop(), settings, constants, appState, mirror, app, windows, tp,
        step("updateCachedUserShortcuts"), step("presenterEarlyWork"),
        [this](bool on) { steps.push_back(on ? "loginItem:on" : "loginItem:off"); }, step("checkForUpdatesInBackground"),
        step("checkForIncompatibilities"), step("keyboardSetup"), step("mouseSetup"), step("cleanupShortcuts"),
        step("networkMonitor"), step("updateKeysSet"),
        [this] {
            steps.push_back("overlayController");
            overlayControllerExists = true;
            app.setOverlayScreenController(&overlay);
        },
        step("refreshPanels"), [this] { return overlayControllerExists; }, step("dispatchAndMenu"),
        step("statusItem"), step("maintenanceAndBalancing"), step("loadBackends"), step("openSettings"),
        step("startUpdater"), step("observers"), step("powerSource"), step("terminate"),
        step("connectStoreSaves")}};

    LifecycleHarness() { app.setOverlayScreenController(nullptr); }
};

} // namespace

TEST(AppLifecycle, LaunchRunsItsStepsInOrderAndPressesWaitForTheOverlayController) {
    LifecycleHarness h;
    h.lifecycle.initialize();
    EXPECT_EQ(h.steps, (std::vector<std::string>{"updateCachedUserShortcuts", "loginItem:on", "openSettings",
                                                 "checkForUpdatesInBackground", "checkForIncompatibilities"}))
        << "a first launch registers the login item and opens the settings";
    EXPECT_FALSE(h.settings.isFirstLaunch());
    EXPECT_TRUE(h.logs.contains("AppDelegate.init() – initializing 'com.sprelio.app'"));
    h.run();
    h.steps.clear();

    // A press before the overlay controller exists is refused as a launch still running.
    h.press(makeShortcut("recordAndTranscribe"));
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);

    h.lifecycle.applicationDidFinishLaunching();
    EXPECT_EQ(h.steps, (std::vector<std::string>{"connectStoreSaves", "keyboardSetup", "mouseSetup", "cleanupShortcuts", "networkMonitor",
                                                 "updateKeysSet", "overlayController", "dispatchAndMenu",
                                                 "statusItem", "maintenanceAndBalancing", "openSettings",
                                                 "startUpdater", "observers", "powerSource"}));
    h.run();
    EXPECT_EQ(h.steps.back(), "loadBackends") << "the backends load in a task of their own";
    EXPECT_EQ(h.windows.calls, (std::vector<std::string>{"policy:regular", "activate"}));
    EXPECT_EQ(h.overlay.placed.back().first, OverlayType::button);

    h.press(makeShortcut("recordAndTranscribe"));
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording) << "after launch a press starts a dictation";
}

TEST(AppLifecycle, ASecondLaunchNeitherRegistersTheLoginItemNorOpensTheSettingsAtInit) {
    LifecycleHarness h;
    h.settings.setIsFirstLaunch(false);
    h.settings.setAppShowDockIcon(false);
    h.settings.setFloatingButtonActivation(false);
    h.lifecycle.initialize();
    EXPECT_EQ(h.steps, (std::vector<std::string>{"updateCachedUserShortcuts", "checkForUpdatesInBackground",
                                                 "checkForIncompatibilities"}));
    h.lifecycle.applicationDidFinishLaunching();
    h.run();
    EXPECT_EQ(h.windows.calls.front(), "policy:accessory");
    EXPECT_TRUE(h.overlay.placed.empty()) << "no floating button when it is turned off";
}

TEST(AppLifecycle, TheNetworkStateHopsToTheMainLoop) {
    LifecycleHarness h;
    h.lifecycle.networkPathChanged(false);
    EXPECT_TRUE(h.appState.internetAvailable()) << "not before the main loop runs";
    h.run();
    EXPECT_FALSE(h.appState.internetAvailable());
    EXPECT_TRUE(h.logs.contains("AppDelegate: Network path is not satisfied. (no internet connection)",
                                LogLevel::warning));
    h.lifecycle.networkPathChanged(true);
    h.run();
    EXPECT_TRUE(h.appState.internetAvailable());
}

TEST(AppLifecycle, WakeRefreshesThePanelsAndShowsTheButtonOnlyWhenIdle) {
    LifecycleHarness h;
    h.lifecycle.handleSystemWake("NSWorkspaceDidWakeNotification");
    h.run();
    EXPECT_EQ(h.steps, std::vector<std::string>{"overlayController"}) << "made when there was none";
    h.tp.advance(199ms);
    EXPECT_TRUE(h.overlay.placed.empty());
    h.tp.advance(1ms);
    ASSERT_EQ(h.overlay.placed.size(), 1u);
    EXPECT_EQ(h.overlay.placed[0], std::make_pair(OverlayType::button, true)) << "the button shows at idle, so forced";

    h.press(makeShortcut("recordAndTranscribe"));
    h.run();
    ASSERT_EQ(h.app.appStatus(), AppActivity::recording);
    const auto placedBefore = h.overlay.placed.size();
    h.lifecycle.handleSystemWake("NSWorkspaceScreensDidWakeNotification");
    h.run();
    h.tp.advance(1s);
    EXPECT_EQ(h.steps.back(), "refreshPanels");
    EXPECT_EQ(h.overlay.placed.size(), placedBefore) << "a wake while recording does not show the button";
    EXPECT_TRUE(h.logs.contains("AppDelegate.handleSystemWake() - received: NSWorkspaceScreensDidWakeNotification"));
}

TEST(AppLifecycle, AScreenChangeRedrawsTheButtonWithoutMovingFocus) {
    LifecycleHarness h;
    h.lifecycle.handleSystemWake("wake");
    h.run();
    h.tp.advance(1s);
    const auto activationsBefore = h.tp.calls().size();
    h.lifecycle.handleScreenParametersChanged("NSApplicationDidChangeScreenParametersNotification");
    h.run();
    EXPECT_EQ(h.steps.back(), "refreshPanels");
    ASSERT_FALSE(h.overlay.placed.empty());
    EXPECT_EQ(h.overlay.placed.back(), std::make_pair(OverlayType::button, true)) << "forced";
    for (std::size_t i = activationsBefore; i < h.tp.calls().size(); ++i)
        EXPECT_EQ(h.tp.calls()[i].rfind("activate", 0), std::string::npos) << h.tp.calls()[i];
}

TEST(CleanupShortcutsByUserDefaults, RemovesTheHotkeysOfShortcutsNoLongerStored) {
    platform::test::TemporaryFolder folder{"sprelio-cleanup"};
    platform::test::TestPlatform tp;
    store::PersistenceController persistence{folder.path()};
    auto& context = persistence.container().viewContext();
    auto kept = context.insertNew<store::UserShortcut>();
    const auto keptId = Uuid::random();
    kept->setUuid(keptId);
    kept->setShortcutActionRawValue("recordAndTranscribe");
    context.save();

    store::MemorySettingsStore defaults;
    platform::test::FakeGlobalInput input;
    KeyboardShortcuts shortcuts(defaults, input);
    const auto goneId = Uuid::random();
    defaults.set(KeyboardShortcuts::userDefaultsKey(keptId.string()), R"({"carbonKeyCode":1,"carbonModifiers":2048})");
    defaults.set(KeyboardShortcuts::userDefaultsKey(goneId.string()), R"({"carbonKeyCode":2,"carbonModifiers":2048})");
    defaults.set("KeyboardShortcuts_not-a-uuid", "x");
    defaults.set("apiBaseURL", "embedded");

    platform::test::RecordingLogSink logs;
    cleanupShortcutsByUserDefaults(context, defaults, shortcuts, tp);
    const auto left = defaults.dictionaryRepresentation();
    EXPECT_TRUE(left.count(KeyboardShortcuts::userDefaultsKey(keptId.string())));
    EXPECT_FALSE(left.count(KeyboardShortcuts::userDefaultsKey(goneId.string())));
    EXPECT_FALSE(left.count("KeyboardShortcuts_not-a-uuid"));
    EXPECT_TRUE(left.count("apiBaseURL")) << "other settings are not touched";
    EXPECT_TRUE(logs.contains("cleanupShortcutsByUserDefaults() - KeyboardShortcuts Hotkey with UUID " +
                              keptId.string() + " is known by SPR, skipping"));
    EXPECT_TRUE(logs.containsPrefix("cleanupShortcutsByUserDefaults() - finished checks in "));
}
