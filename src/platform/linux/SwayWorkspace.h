#pragma once
// The application in front in a sway session, from sway's IPC (swaymsg -t get_tree): the focused window's app_id
// (for an Xwayland window its X class), process and title. Activation is a sway focus command on the process.
//
// Other Wayland desktops keep the window in front from their clients (GNOME, KDE Plasma), or offer it only
// through the wlroots foreign-toplevel protocol, for which Debian 12 ships no protocol file to build a client
// from: there, and whenever sway does not answer, the X11 workspace of Xwayland stands in (it sees X11 windows
// only). Activation notices come from that X11 workspace too.
#include <string>

#include "platform/FrontmostApp.h"

namespace sprelio::platform {

class X11Workspace;

class SwayWorkspace final : public Workspace, public WorkspaceNotifications {
public:
    // `fallback` must outlive this object; `ownBundleIdentifier` names this process's windows.
    SwayWorkspace(X11Workspace& fallback, std::string ownBundleIdentifier);

    std::optional<RunningApplication> frontmostApplication() const override;
    bool activate(const RunningApplication& app, unsigned options) override;
    void activateSelf() override;
    void setDidActivateApplicationHandler(ActivationHandler handler) override;

    // sway's IPC socket is named (SWAYSOCK) and swaymsg answers.
    bool isAvailable() const;

    // The focused window of a get_tree answer; nothing when no window has the focus.
    static std::optional<RunningApplication> focusedApplication(const std::string& treeJson, pid_t ownProcess,
                                                                const std::string& ownBundleIdentifier);

private:
    X11Workspace& fallback_;
    std::string ownBundleIdentifier_;
    bool sway_;
};

} // namespace sprelio::platform
