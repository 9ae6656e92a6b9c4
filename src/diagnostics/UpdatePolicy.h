#pragma once
// When an update found in the background may be offered. A dictation tool must never be replaced under a running
// dictation: the offer waits, in 6-second steps, until the application is idle and the user is not working in its
// main window; "Not now" brings it back an hour later. A check the user asked for skips these tests: the user is
// waiting for its answer.
//
// SparkleUpdaterDelegate holds these rules and is called by the updater (Updater.h) at the points of a check;
// SparkleUserDriverDelegate keeps the updater from showing scheduled updates by itself.
#include <functional>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "diagnostics/UpdateAppcast.h"
#include "platform/MainLoop.h"
#include "shared/AppActivity.h"

namespace sprelio {

class SPUUpdater;

// The modal question with its buttons, first button first. The answer is the button's return code.
struct UpdateAlert {
    std::string messageText;
    std::string informativeText;
    std::string firstButton;
    std::string secondButton;
};
inline constexpr int kAlertFirstButtonReturn = 1000;
inline constexpr int kAlertSecondButtonReturn = 1001;

// Seconds as the log writes them: "6.0", "3600.0", "0.5".
std::string secondsText(double seconds);

class SparkleUpdaterDelegate {
public:
    static constexpr double kBusyDelay = 6.0;
    static constexpr double kNotNowDelay = 3600.0;

    struct Dependencies {
        platform::MainLoop& loop;
        std::string appName;
        // The version of the running build, as the alert names it.
        std::string currentVersion;
        // The session state of the shared AppDelegate; nothing while there is none.
        std::function<std::optional<AppActivity>()> appStatus;
        // Whether the main window is the key window (the user is working in it).
        std::function<bool()> mainWindowIsKey;
        // Shows the alert without blocking the loop; `answer` is called once with the return code of the button.
        std::function<void(UpdateAlert alert, std::function<void(int)> answer)> showAlert;
        // A toast with a title and a text, through the one message path.
        std::function<void(std::string title, std::string text)> showToast;
        // checkForUpdatesInBackground of the shared AppDelegate.
        std::function<void()> checkForUpdatesInBackground;
    };

    explicit SparkleUpdaterDelegate(Dependencies deps);
    ~SparkleUpdaterDelegate();
    SparkleUpdaterDelegate(const SparkleUpdaterDelegate&) = delete;
    SparkleUpdaterDelegate& operator=(const SparkleUpdaterDelegate&) = delete;

    // ---- The updater's questions and reports ----
    bool updaterShouldPromptForPermissionToCheckForUpdates(SPUUpdater& updater);
    void didFinishLoadingAppcast(SPUUpdater& updater, const SUAppcast& appcast);
    std::optional<SUAppcastItem> bestValidUpdateInAppcast(const SUAppcast& appcast, SPUUpdater& updater);
    void updaterDidNotFindUpdate(SPUUpdater& updater, const std::string& error);
    bool willInstallUpdateOnQuit(SPUUpdater& updater, const SUAppcastItem& item,
                                 std::function<void()> immediateInstallationBlock);
    // True (postpone) while the application is not idle; the updater asks again later.
    bool shouldPostponeRelaunchForUpdate(SPUUpdater& updater, const SUAppcastItem& item);

    // ---- The timing ----
    void delayUpdateFor(double seconds);
    void reloadUpdateDialog();

    // ---- Fields ----
    bool didFinishLoading() const { return didFinishLoading_; }
    bool userDidClickCheckForUpdateButton() const { return userDidClickCheckForUpdateButton_; }
    void setUserDidClickCheckForUpdateButton(bool value) { userDidClickCheckForUpdateButton_ = value; }
    bool showingUpdateAlert() const { return showingUpdateAlert_; }
    SPUUpdater* updater() const { return updater_; }
    const std::optional<SUAppcastItem>& item() const { return item_; }

private:
    // The prompt logic, with `updater_` and `item_` stored.
    void promptForUpdate();
    // Logs why the offer waits and waits the busy delay.
    void delayWhileBusy(const char* reason);

    Dependencies deps_;
    LifetimeGuard lifetime_;
    bool didFinishLoading_ = false;
    bool userDidClickCheckForUpdateButton_ = false;
    bool showingUpdateAlert_ = false;
    SPUUpdater* updater_ = nullptr;
    std::optional<SUAppcastItem> item_;
    std::function<void()> immediateInstallHandler_ = [] {};
};

class SparkleUserDriverDelegate {
public:
    bool supportsGentleScheduledUpdateReminders() const { return true; }
    // False: a scheduled update is not shown by the updater; the delegate's prompt is the one offer.
    bool standardUserDriverShouldHandleShowingScheduledUpdate(const SUAppcastItem& update, bool immediateFocus);
};

} // namespace sprelio
