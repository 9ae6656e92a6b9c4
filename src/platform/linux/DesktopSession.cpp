#include "platform/linux/DesktopSession.h"

#include <cstdlib>

#include "base/Log.h"

namespace sprelio::platform {

EnvironmentReader processEnvironment() {
    return [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (!value) return std::nullopt;
        return std::string(value);
    };
}

std::optional<WaylandSession> detectWaylandSession(const EnvironmentReader& environment) {
    WaylandSession session{environment("WAYLAND_DISPLAY"), environment("XDG_SESSION_TYPE")};
    const bool display = session.waylandDisplay && !session.waylandDisplay->empty();
    const bool type = session.sessionType && *session.sessionType == "wayland";
    if (!display && !type) return std::nullopt;
    return session;
}

std::optional<std::string> checkDesktopSession(const EnvironmentReader& environment) {
    const auto wayland = detectWaylandSession(environment);
    if (!wayland) {
        logInfo("DesktopSession.check() - X11 session (XDG_SESSION_TYPE=" +
                environment("XDG_SESSION_TYPE").value_or("unset") + ")");
        return std::nullopt;
    }
    logWarning("DesktopSession.check() - Wayland session (WAYLAND_DISPLAY=" +
               wayland->waylandDisplay.value_or("unset") + ", XDG_SESSION_TYPE=" +
               wayland->sessionType.value_or("unset") + "): hotkeys and pasting reach X11 applications only");
    return std::string(kWaylandUsabilityWarning);
}

} // namespace sprelio::platform
