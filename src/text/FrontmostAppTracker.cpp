#include "text/FrontmostAppTracker.h"

#include "base/Log.h"

namespace sprelio {

namespace {

bool isSystemSettings(const std::string& bundleId) {
    return bundleId == "com.apple.systempreferences" || bundleId == "com.apple.settings";
}

} // namespace

FrontmostAppTracker::FrontmostAppTracker(FrontmostAppTrackerDependencies dependencies) : deps_(std::move(dependencies)) {
    const auto alive = lifetime_.token();
    deps_.notifications.setDidActivateApplicationHandler(
        [this, alive](const std::optional<platform::RunningApplication>& app) {
            if (!alive) return;
            didActivate(app);
        });
}

FrontmostAppTracker::~FrontmostAppTracker() {
    lifetime_.expire();
    deps_.notifications.setDidActivateApplicationHandler({});
}

void FrontmostAppTracker::didActivate(const std::optional<platform::RunningApplication>& app) {
    if (!app || !app->localizedName) return;
    updateApps(*app->localizedName, app->bundleIdentifier.empty() ? kUnknownBundleId : app->bundleIdentifier,
               static_cast<std::int32_t>(app->processIdentifier));
}

void FrontmostAppTracker::updateApps(const std::string& name, const std::string& bundleId, std::int32_t pid) {
    if (currentApp_ && currentApp_->pid == pid) return;
    previousApp_ = currentApp_;
    currentApp_ = App{name, bundleId, pid};
    logInfo("FrontmostAppTracker.updateApps() - currentApp: " + name + " (" + bundleId +
            ") | previousApp: " + (previousApp_ ? previousApp_->name : "None"));
    if (isSystemSettings(bundleId)) handleSystemSettingsFrontmost();
    if (previousApp_ && isSystemSettings(previousApp_->bundleId) && bundleId != previousApp_->bundleId) {
        logWarning("FrontmostAppTracker.handleSystemSettingsNoLongerFrontmost() - System Settings was frontmost, now "
                   "replaced by " + name + " (" + bundleId + ")");
        const auto alive = lifetime_.token();
        deps_.loop.post([this, alive] {
            if (alive) handleSystemSettingsNoLongerFrontmost();
        });
    }
}

void FrontmostAppTracker::handleSystemSettingsFrontmost() {
    logWarning("FrontmostAppTracker.handleSystemSettingsFrontmost() - System Settings is frontmost, applying special "
               "handling");
    const auto alive = lifetime_.token();
    deps_.loop.post([this, alive] {
        if (alive && deps_.deregisterEventTap) deps_.deregisterEventTap();
    });
}

void FrontmostAppTracker::handleSystemSettingsNoLongerFrontmost() {
    const bool granted = deps_.isAccessibilityCurrentlyGranted && deps_.isAccessibilityCurrentlyGranted();
    logInfo(std::string("FrontmostAppTracker.handleSystemSettingsNoLongerFrontmost() - isAXGranted: ") +
            (granted ? "true" : "false"));
    if (deps_.checkUsability) deps_.checkUsability();
    if (granted) {
        if (deps_.registerEventTap) deps_.registerEventTap(false);
    } else if (deps_.activateSelf) {
        deps_.activateSelf();
    }
}

} // namespace sprelio
