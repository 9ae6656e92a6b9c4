#pragma once
// Which kind of desktop session Sprelio runs in. Its global keys and its pasting go through X11; in a Wayland
// session they reach only the applications that run on X11 (through Xwayland), and the user must be told so.
#include <functional>
#include <optional>
#include <string>

namespace sprelio::platform {

// Reads an environment variable; nothing when it is unset.
using EnvironmentReader = std::function<std::optional<std::string>(const char*)>;
EnvironmentReader processEnvironment();

struct WaylandSession {
    std::optional<std::string> waylandDisplay; // WAYLAND_DISPLAY
    std::optional<std::string> sessionType;    // XDG_SESSION_TYPE
};

// A Wayland session: WAYLAND_DISPLAY is set and not empty, or XDG_SESSION_TYPE is "wayland".
std::optional<WaylandSession> detectWaylandSession(const EnvironmentReader& environment = processEnvironment());

// What the desktop application shows the user in a Wayland session.
inline constexpr const char* kWaylandUsabilityWarning =
    "This is a Wayland session. Sprelio's hotkeys and pasting work through X11 here, so they only reach "
    "applications that run on X11 (through Xwayland): in native Wayland applications the hotkeys are not noticed "
    "and dictated text does not arrive.";

// Logs the kind of session (a warning for Wayland) and returns the warning to show, nothing on X11.
std::optional<std::string> checkDesktopSession(const EnvironmentReader& environment = processEnvironment());

} // namespace sprelio::platform
