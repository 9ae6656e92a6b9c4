// Hotkeys changed while `sprelio` runs, as a user has it: the application on a private X desktop with its own
// PulseAudio daemon fed festival speech and the embedded server; `sprelio shortcuts` typed in a terminal reaches it
// and the new key dictates into our test application at once. The editor of the Settings tab is shown and
// photographed.
#include <gtest/gtest.h>

#include <sstream>

#include "DesktopTestFixture.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using apptest::kRecordingStarted;
using apptest::SprelioApp;

class ShortcutEndToEnd : public apptest::DesktopFixture {
protected:
    ShortcutEndToEnd() : DesktopFixture("sprelio-e2e-keys") {}
    void SetUp() override {
        DesktopFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_FALSE(apptest::spokenText(apptest::kSentence).empty())
            << "festival's text2wave or ffmpeg could not make speech";
        launch();
    }
    std::string idOf(const std::string& keys) {
        std::string listing;
        EXPECT_EQ(cli("shortcuts list", &listing), 0) << listing;
        std::istringstream in(listing);
        for (std::string line; std::getline(in, line);)
            if (line.find("\t" + keys + "\t") != std::string::npos) return line.substr(0, 8);
        ADD_FAILURE() << "no shortcut on " << keys << " in\n" << listing;
        return {};
    }
    // A dictation on a held key or button: `press` and `release` are xdotool actions.
    void dictateHolding(const std::string& press, const std::string& release, std::size_t recordings) {
        ASSERT_TRUE(server.run("xdotool " + press));
        ASSERT_TRUE(app->waitForCount(kRecordingStarted, recordings)) << "the recording did not start";
        speak();
        ASSERT_TRUE(server.run("xdotool " + release));
        ASSERT_TRUE(waitForDictation()) << "the test application shows: " << client->text();
    }
};

TEST_F(ShortcutEndToEnd, RightCtrlSetWhileRunningDictatesAndRightAltNoLonger) {
    std::string said;
    ASSERT_EQ(cli("shortcuts set " + idOf("Right Alt") + " --key 'Right Ctrl' --hold", &said), 0) << said;
    ASSERT_TRUE(app->waitForCount("updateKeysSetFromUserShortcuts() - keysSet: [62]", 1)) << "not live";
    focusClient();

    // Right Alt is an ordinary key now: nothing acts on it.
    ASSERT_TRUE(server.run("xdotool keydown Alt_R keyup Alt_R"));
    dictateHolding("keydown Control_R", "keyup Control_R", 1);
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 61"), 0u) << "right Alt still acted";
    EXPECT_EQ(app->count(kRecordingStarted), 1u);
    EXPECT_EQ(app->count("executeActionForKeyCode() - keyCode: 62, isKeyDown: true"), 1u);
}

TEST_F(ShortcutEndToEnd, MouseButtonEightAddedWhileRunningDictatesWhileHeld) {
    std::string said;
    ASSERT_EQ(cli("shortcuts add recordAndTranscribe --key 'Button 8' --hold", &said), 0) << said;
    std::string listing;
    ASSERT_EQ(cli("shortcuts list", &listing), 0);
    EXPECT_NE(listing.find(said.substr(0, 8) + "\tButton 8\trecordAndTranscribe\t-\thold"), std::string::npos)
        << listing;
    focusClient();
    dictateHolding("mousedown 8", "mouseup 8", 1);
}

TEST_F(ShortcutEndToEnd, ACombinationTakenByAnotherProgramIsRefusedByTheRunningApplication) {
    // Another program holds Alt+Shift+D (any modifier lock state).
    Display* other = XOpenDisplay(server.name().c_str());
    ASSERT_NE(other, nullptr);
    const int keycode = XKeysymToKeycode(other, XStringToKeysym("d"));
    for (unsigned locks : {0u, unsigned(LockMask), unsigned(Mod2Mask), unsigned(LockMask | Mod2Mask)})
        XGrabKey(other, keycode, Mod1Mask | ShiftMask | locks, DefaultRootWindow(other), False, GrabModeAsync,
                 GrabModeAsync);
    XSync(other, False);
    const std::string emoji = idOf("Alt+S");
    std::string said;
    EXPECT_EQ(cli("shortcuts set " + emoji + " --key Alt+Shift+D", &said), 1);
    EXPECT_NE(said.find("Alt+Shift+D is taken by another application, so the shortcut keeps Alt+S."),
              std::string::npos)
        << said;
    EXPECT_EQ(idOf("Alt+S"), emoji);
    XCloseDisplay(other);
    // Once the other program has gone, the same command goes through.
    EXPECT_EQ(cli("shortcuts set " + emoji + " --key Alt+Shift+D", &said), 0) << said;
    EXPECT_EQ(idOf("Alt+Shift+D"), emoji);
}

TEST_F(ShortcutEndToEnd, TheSettingsTabShowsTheEditor) {
    // A second start brings the main window forward; the editor is at the top of its Settings tab.
    SprelioApp second(server, pulse, home.path());
    ASSERT_TRUE(x11test::waitFor([&] { return !second.running(); }, 20000ms));
    ASSERT_TRUE(x11test::waitFor([&] {
        return server.output("xdotool getactivewindow getwindowname") == "Sprelio Settings\n";
    }, 10000ms));
    ASSERT_TRUE(screenshot("e2e-hotkey-editor"));
}

} // namespace
} // namespace sprelio
