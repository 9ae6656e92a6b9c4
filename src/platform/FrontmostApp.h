#pragma once
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace sprelio::platform {

struct RunningApplication {
    pid_t processIdentifier = 0;
    std::string bundleIdentifier;           // empty when unknown
    std::optional<std::string> localizedName;
    // Title of the application's focused window, when the platform can read it.
    std::optional<std::string> windowTitle = std::nullopt;
    std::string description() const;
};

class Workspace {
public:
    virtual ~Workspace() = default;
    virtual std::optional<RunningApplication> frontmostApplication() const = 0;
    // Brings another application's window to the front; `options` keeps the platform's flag values (2 = ignore other apps).
    virtual bool activate(const RunningApplication& app, unsigned options) = 0;
    // Brings Sprelio itself to the front.
    virtual void activateSelf() = 0;
};

// Notice of each application that becomes the active one.
class WorkspaceNotifications {
public:
    virtual ~WorkspaceNotifications() = default;
    // Called on the main loop at each activation, with the application activated; nothing when the desktop reports
    // an activation without a known application. One handler; a new one replaces it, an empty one stops delivery.
    using ActivationHandler = std::function<void(const std::optional<RunningApplication>&)>;
    virtual void setDidActivateApplicationHandler(ActivationHandler handler) = 0;
};

} // namespace sprelio::platform
