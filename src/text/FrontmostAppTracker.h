#pragma once
// Follows which application is active. One case gets special handling: while the system's settings application is
// in front the event tap comes down, and when the user leaves it the tap comes back if access is granted (else
// Sprelio comes to the front to say what is missing).
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"

namespace sprelio {

struct FrontmostAppTrackerDependencies {
    platform::MainLoop& loop;
    platform::WorkspaceNotifications& notifications;
    // EventTapManager.deregisterEventTap() and registerEventTap(userTriggered:).
    std::function<void()> deregisterEventTap;
    std::function<void(bool userTriggered)> registerEventTap;
    // isAccessibilityCurrentlyGranted() and UsabilityManager.checkUsability().
    std::function<bool()> isAccessibilityCurrentlyGranted;
    std::function<void()> checkUsability;
    // Brings Sprelio to the front with its first visible window.
    std::function<void()> activateSelf;
};

class FrontmostAppTracker {
public:
    struct App {
        std::string name;
        std::string bundleId;
        std::int32_t pid = 0;
        bool operator==(const App&) const = default;
    };

    static constexpr const char* kUnknownBundleId = "unknown.bundle.id";

    // Registers for activations at once; the application in front at start is not read.
    explicit FrontmostAppTracker(FrontmostAppTrackerDependencies dependencies);
    ~FrontmostAppTracker();
    FrontmostAppTracker(const FrontmostAppTracker&) = delete;
    FrontmostAppTracker& operator=(const FrontmostAppTracker&) = delete;

    void updateApps(const std::string& name, const std::string& bundleId, std::int32_t pid);
    void handleSystemSettingsFrontmost();
    void handleSystemSettingsNoLongerFrontmost();

    const std::optional<App>& currentApp() const { return currentApp_; }
    const std::optional<App>& previousApp() const { return previousApp_; }

private:
    void didActivate(const std::optional<platform::RunningApplication>& app);

    FrontmostAppTrackerDependencies deps_;
    LifetimeGuard lifetime_;
    std::optional<App> currentApp_;
    std::optional<App> previousApp_;
};

} // namespace sprelio
