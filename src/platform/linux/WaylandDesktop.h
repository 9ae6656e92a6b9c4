#pragma once
// What a Wayland desktop offers Sprelio, read once at start: the compositor's protocols from its registry, the
// programs that speak them, and sway's IPC. The usability checks turn each refusal into a note with its remedy.
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/DesktopSession.h"

namespace sprelio::platform {

struct WaylandDesktopOffer {
    bool connected = false;       // the compositor answered at WAYLAND_DISPLAY
    bool virtualKeyboard = false; // zwp_virtual_keyboard_manager_v1: synthetic keys (wtype)
    bool dataControl = false;     // zwlr_data_control_manager_v1 or ext_data_control_manager_v1: the clipboard
    bool foreignToplevel = false; // zwlr_foreign_toplevel_manager_v1: the windows of other clients
    bool wtypeInstalled = false;
    bool wlClipboardInstalled = false;
    bool swayIpc = false; // SWAYSOCK is set and swaymsg is there
    std::string desktopName;      // XDG_CURRENT_DESKTOP, "unknown" when unset
};

// Reads the registry of the compositor named by WAYLAND_DISPLAY (and the programs on PATH).
WaylandDesktopOffer probeWaylandDesktop(const EnvironmentReader& environment = processEnvironment());

// One note per step the desktop refuses, with what the user can do; empty when everything works.
std::vector<std::string> waylandUsabilityNotes(const WaylandDesktopOffer& offer);

// A line of the log that lists what was offered.
std::string describeOffer(const WaylandDesktopOffer& offer);

} // namespace sprelio::platform
