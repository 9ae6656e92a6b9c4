// Telling a Wayland session from an X11 one by its environment, and what the user is told.
#include <gtest/gtest.h>

#include <map>

#include "platform/linux/DesktopSession.h"
#include "platform/test/TestPlatform.h"

using namespace sprelio::platform;

namespace {

EnvironmentReader environment(std::map<std::string, std::string> values) {
    return [values = std::move(values)](const char* name) -> std::optional<std::string> {
        auto it = values.find(name);
        if (it == values.end()) return std::nullopt;
        return it->second;
    };
}

TEST(DesktopSession, WaylandIsKnownByItsDisplayOrTheSessionTypeAndTheUserIsWarned) {
    test::RecordingLogSink log;
    EXPECT_FALSE(detectWaylandSession(environment({})));
    EXPECT_FALSE(detectWaylandSession(environment({{"XDG_SESSION_TYPE", "x11"}, {"WAYLAND_DISPLAY", ""}})));
    EXPECT_TRUE(detectWaylandSession(environment({{"WAYLAND_DISPLAY", "wayland-0"}})));
    EXPECT_TRUE(detectWaylandSession(environment({{"XDG_SESSION_TYPE", "wayland"}})));

    EXPECT_EQ(checkDesktopSession(environment({{"XDG_SESSION_TYPE", "x11"}})), std::nullopt);
    EXPECT_TRUE(log.contains("DesktopSession.check() - X11 session (XDG_SESSION_TYPE=x11)"));

    const auto warning =
        checkDesktopSession(environment({{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_SESSION_TYPE", "wayland"}}));
    ASSERT_TRUE(warning);
    EXPECT_NE(warning->find("only reach applications that run on X11"), std::string::npos);
    EXPECT_TRUE(log.contains("DesktopSession.check() - Wayland session (WAYLAND_DISPLAY=wayland-0, "
                             "XDG_SESSION_TYPE=wayland): hotkeys and pasting reach X11 applications only",
                             sprelio::LogLevel::warning));
}

} // namespace
