// The Wayland adapters' own decisions: the wtype arguments for key events, the window in front read from a sway
// tree, and the notes for what a desktop refuses.
#include <gtest/gtest.h>

#include "platform/linux/SwayWorkspace.h"
#include "platform/linux/WaylandDesktop.h"
#include "platform/linux/WaylandSyntheticKeyboard.h"

namespace sprelio::platform {
namespace {

using Args = std::vector<std::string>;

TEST(WaylandSyntheticKeyboard, ThePasteKeystrokeHoldsControlAroundV) {
    const std::uint64_t control = event_flags_mask::kControl;
    EXPECT_EQ(WaylandSyntheticKeyboard::wtypeArguments({{9, true, control}, {9, false, control}}),
              (Args{"-M", "ctrl", "-P", "v", "-p", "v", "-m", "ctrl"}));
    const std::uint64_t both = control | event_flags_mask::kShift;
    EXPECT_EQ(WaylandSyntheticKeyboard::wtypeArguments({{9, true, both}, {9, false, both}}),
              (Args{"-M", "ctrl", "-M", "shift", "-P", "v", "-p", "v", "-m", "ctrl", "-m", "shift"}));
}

TEST(WaylandSyntheticKeyboard, ModifierKeysOfTheirOwnAndNonCharacterKeys) {
    // Control as a key of its own around V (the remote-desktop sequence), and Shift+Insert.
    EXPECT_EQ(WaylandSyntheticKeyboard::wtypeArguments({{59, true, 0}, {9, true, 0}, {9, false, 0}, {59, false, 0}}),
              (Args{"-M", "ctrl", "-P", "v", "-p", "v", "-m", "ctrl"}));
    const std::uint64_t shift = event_flags_mask::kShift;
    EXPECT_EQ(WaylandSyntheticKeyboard::wtypeArguments({{114, true, shift}, {114, false, shift}}),
              (Args{"-M", "shift", "-P", "Insert", "-p", "Insert", "-m", "shift"}));
    EXPECT_EQ(WaylandSyntheticKeyboard::wtypeArguments({{36, true, 0}, {36, false, 0}}),
              (Args{"-P", "Return", "-p", "Return"}));
}

TEST(SwayWorkspace, TheFocusedWindowOfTheTree) {
    const std::string tree = R"({"type":"root","nodes":[{"type":"output","nodes":[{"type":"workspace","nodes":[
        {"type":"con","pid":10,"app_id":"org.gnome.Zenity","name":"Question","focused":false},
        {"type":"con","pid":11,"app_id":null,"window_properties":{"class":"XTerm"},"name":"bash","focused":true}]}]}]})";
    const auto front = SwayWorkspace::focusedApplication(tree, 99, "com.sprelio.app");
    ASSERT_TRUE(front);
    EXPECT_EQ(front->processIdentifier, 11);
    EXPECT_EQ(front->bundleIdentifier, "XTerm");
    EXPECT_EQ(front->localizedName, "XTerm");
    EXPECT_EQ(front->windowTitle, "bash");

    const std::string native = R"({"nodes":[{"pid":10,"app_id":"org.gnome.Zenity","name":"Q","focused":true}]})";
    const auto zenity = SwayWorkspace::focusedApplication(native, 99, "com.sprelio.app");
    ASSERT_TRUE(zenity);
    EXPECT_EQ(zenity->bundleIdentifier, "org.gnome.Zenity");
    EXPECT_EQ(zenity->localizedName, "Zenity");
    // Our own window carries our identifier, whatever the toolkit named it.
    const auto own = SwayWorkspace::focusedApplication(native, 10, "com.sprelio.app");
    ASSERT_TRUE(own);
    EXPECT_EQ(own->bundleIdentifier, "com.sprelio.app");
    EXPECT_FALSE(SwayWorkspace::focusedApplication(R"({"nodes":[]})", 1, ""));
    EXPECT_FALSE(SwayWorkspace::focusedApplication("not json", 1, ""));
}

TEST(WaylandDesktop, EachRefusalHasItsRemedy) {
    WaylandDesktopOffer offer;
    offer.connected = true;
    offer.virtualKeyboard = offer.dataControl = offer.wtypeInstalled = offer.wlClipboardInstalled = true;
    offer.desktopName = "GNOME";
    // Everything offered: only the note on hotkeys, which no Wayland desktop lets a client watch.
    ASSERT_EQ(waylandUsabilityNotes(offer).size(), 1u);

    offer.virtualKeyboard = false;
    const auto noKeys = waylandUsabilityNotes(offer);
    ASSERT_EQ(noKeys.size(), 2u);
    EXPECT_NE(noKeys[0].find("GNOME"), std::string::npos);
    EXPECT_NE(noKeys[0].find("paste it with Ctrl+V"), std::string::npos);

    offer.wtypeInstalled = false;
    EXPECT_NE(waylandUsabilityNotes(offer)[0].find("install the package wtype"), std::string::npos);

    offer.connected = false;
    ASSERT_EQ(waylandUsabilityNotes(offer).size(), 1u);
    EXPECT_NE(waylandUsabilityNotes(offer)[0].find("WAYLAND_DISPLAY"), std::string::npos);
}

} // namespace
} // namespace sprelio::platform
