#pragma once
// The application in front on an X11 desktop.
//
// The active window is the window manager's _NET_ACTIVE_WINDOW; without a window manager that keeps it, the window
// with the input focus, walked up (or down, from a frame) to the window that carries WM_CLASS. Of that window: the
// process from _NET_WM_PID (or the X-Resource extension), the application identifier from _GTK_APPLICATION_ID or
// _KDE_NET_WM_DESKTOP_FILE (else the WM_CLASS class), the name from the WM_CLASS class, the title from
// _NET_WM_NAME (or WM_NAME). Activations are the changes of _NET_ACTIVE_WINDOW; bringing a window to the front is
// a _NET_ACTIVE_WINDOW request to the window manager.
#include <memory>
#include <string>

#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class X11Workspace final : public Workspace, public WorkspaceNotifications {
public:
    // The windows of this process are reported under `ownBundleIdentifier` when it is given: the toolkit names
    // them after the program, and the session must know its own windows to never hand the focus back to them.
    explicit X11Workspace(MainLoop& loop, const std::string& displayName = {}, std::string ownBundleIdentifier = {});
    ~X11Workspace() override;
    X11Workspace(const X11Workspace&) = delete;
    X11Workspace& operator=(const X11Workspace&) = delete;

    std::optional<RunningApplication> frontmostApplication() const override;
    // Brings the first top-level window of the process to the front; false when it has none.
    bool activate(const RunningApplication& app, unsigned options) override;
    void activateSelf() override;
    void setDidActivateApplicationHandler(ActivationHandler handler) override;

    bool isAvailable() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::platform
