#include "diagnostics/UpdatePolicy.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "base/Log.h"

namespace sprelio {

std::string secondsText(double seconds) {
    char text[64];
    if (seconds == std::floor(seconds) && std::fabs(seconds) < 1e15) {
        std::snprintf(text, sizeof text, "%.1f", seconds);
    } else {
        std::snprintf(text, sizeof text, "%g", seconds);
    }
    return text;
}

SparkleUpdaterDelegate::SparkleUpdaterDelegate(Dependencies deps) : deps_(std::move(deps)) {}

SparkleUpdaterDelegate::~SparkleUpdaterDelegate() { lifetime_.expire(); }

bool SparkleUpdaterDelegate::updaterShouldPromptForPermissionToCheckForUpdates(SPUUpdater&) {
    logInfo("SparkleUpdaterDelegate.updaterShouldPromptForPermissionToCheck(forUpdates)");
    return false;
}

void SparkleUpdaterDelegate::didFinishLoadingAppcast(SPUUpdater&, const SUAppcast&) { didFinishLoading_ = true; }

std::optional<SUAppcastItem> SparkleUpdaterDelegate::bestValidUpdateInAppcast(const SUAppcast& appcast, SPUUpdater&) {
    logInfo("SparkleDelegate.updater() - (bestValidUpdate)");
    return bestValidUpdate(appcast, deps_.currentVersion);
}

void SparkleUpdaterDelegate::updaterDidNotFindUpdate(SPUUpdater&, const std::string& error) {
    logInfo("SparkleDelegate.updater() - (updaterDidNotFindUpdate) - error: " + error);
    if (userDidClickCheckForUpdateButton_) {
        if (deps_.showToast)
            deps_.showToast("No updates found!", "You are currently running the latest version of " + deps_.appName);
        userDidClickCheckForUpdateButton_ = false;
    } else {
        logWarning("SparkleDelegate.updater() - (updaterDidNotFindUpdate) - userDidClickCheckForUpdateButton == false, "
                   "handling silently");
    }
}

bool SparkleUpdaterDelegate::willInstallUpdateOnQuit(SPUUpdater& updater, const SUAppcastItem& item,
                                                     std::function<void()> immediateInstallationBlock) {
    updater_ = &updater;
    item_ = item;
    immediateInstallHandler_ = immediateInstallationBlock ? std::move(immediateInstallationBlock) : [] {};
    promptForUpdate();
    return true;
}

bool SparkleUpdaterDelegate::shouldPostponeRelaunchForUpdate(SPUUpdater&, const SUAppcastItem&) {
    logInfo("SparkleUpdaterDelegate.updater(shouldPostponeRelaunchForUpdate)");
    const auto status = deps_.appStatus ? deps_.appStatus() : std::nullopt;
    return !status || *status != AppActivity::idle;
}

void SparkleUpdaterDelegate::delayWhileBusy(const char* reason) {
    logInfo(std::string("SparkleDelegate.updater() - ") + reason + ", delaying update for " + secondsText(kBusyDelay));
    delayUpdateFor(kBusyDelay);
}

void SparkleUpdaterDelegate::promptForUpdate() {
    logInfo("SparkleDelegate.updater() - (willInstallUpdateOnQuit)");
    if (!userDidClickCheckForUpdateButton_) {
        const auto status = deps_.appStatus ? deps_.appStatus() : std::nullopt;
        if (!status) {
            delayWhileBusy("appDelegate not available");
            return;
        }
        if (*status != AppActivity::idle) {
            delayWhileBusy("app not idle");
            return;
        }
        if (deps_.mainWindowIsKey && deps_.mainWindowIsKey()) {
            delayWhileBusy("app has a keyWindow (ie user is interacting with UI)");
            return;
        }
        logInfo("SparkleDelegate.updater() - all checks passed, proceeding with update!");
    }
    if (showingUpdateAlert_) return;
    showingUpdateAlert_ = true;
    const std::string newVersion = item_ ? item_->displayVersionString : std::string();
    UpdateAlert alert{"A new version of " + deps_.appName + " is available!",
                      deps_.appName + " " + newVersion + " is now available, you have " + deps_.currentVersion +
                          ". Would you like to quit and install it now?",
                      "Quit and Update now", "Not now"};
    deps_.showAlert(std::move(alert), lifetime_.guard([this](int response) {
        showingUpdateAlert_ = false;
        // The user's own check has had its answer: an offer that comes back later waits for an idle moment again.
        userDidClickCheckForUpdateButton_ = false;
        if (response == kAlertFirstButtonReturn) {
            logInfo("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Quit and Update now'");
            immediateInstallHandler_();
        } else {
            logInfo("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Not now'");
            delayUpdateFor(kNotNowDelay);
        }
    }));
}

void SparkleUpdaterDelegate::delayUpdateFor(double seconds) {
    logInfo("SparkleDelegate.delayUpdateFor(" + secondsText(seconds) + ")");
    // No cancellation: when it fires, everything is tested again.
    deps_.loop.postAfter(std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(seconds)),
                         lifetime_.guard([this] { reloadUpdateDialog(); }));
}

void SparkleUpdaterDelegate::reloadUpdateDialog() {
    logInfo("SparkleDelegate.reloadUpdateDialog()");
    if (updater_ && item_) {
        promptForUpdate();
        return;
    }
    logInfo(std::string("SparkleDelegate.reloadUpdateDialog() - updater: ") + (updater_ ? "SPUUpdater" : "nil") +
            " - running checkForUpdatesInBackground() instead");
    if (!userDidClickCheckForUpdateButton_ && deps_.checkForUpdatesInBackground) deps_.checkForUpdatesInBackground();
}

bool SparkleUserDriverDelegate::standardUserDriverShouldHandleShowingScheduledUpdate(const SUAppcastItem&,
                                                                                     bool immediateFocus) {
    logInfo(std::string("standardUserDriverShouldHandleShowingScheduledUpdate: ") +
            (immediateFocus ? "true" : "false"));
    return false;
}

} // namespace sprelio
