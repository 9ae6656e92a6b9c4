// Synthetic keys and typed text against a real X server: our test application records what it receives, under the
// layouts where the keymap matters (us, de, and us,ru with Russian selected).
#include <gtest/gtest.h>

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>

#include "platform/X11TestSupport.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/linux/X11SyntheticKeyboard.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"

using namespace std::chrono_literals;
using sprelio::platform::GlobalInputEvent;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::SyntheticKeyEvent;
using sprelio::platform::X11GlobalInput;
using sprelio::platform::X11SyntheticKeyboard;
using sprelio::x11test::TestClient;
using sprelio::x11test::waitFor;
using sprelio::x11test::XServer;
namespace flags = sprelio::platform::event_flags_mask;

namespace {

const std::string kMixed = "Hello, Wörld! Ça va? naïve café – 日本語のテキスト 🎉🎙️ Ünïcödé ½ € ✓\tTab\nsecond line";

class X11SyntheticKeyboardTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        input = std::make_unique<X11GlobalInput>(loop, server.name());
        keyboard = std::make_unique<X11SyntheticKeyboard>(server.name(), input.get());
        ASSERT_TRUE(keyboard->isAvailable());
        input->setEventHandler([this](const GlobalInputEvent& e) {
            tapEvents.push_back(e);
            return false;
        });
    }
    void TearDown() override {
        keyboard.reset();
        input.reset();
        server.stop();
    }
    bool type(TestClient& client, const std::string& text) {
        keyboard->typeText(text);
        return client.waitForText(text, 20s);
    }
    // Selects a keyboard group from a client of its own, as the user's layout switch would.
    void selectGroup(unsigned group) {
        Display* d = XOpenDisplay(server.name().c_str());
        XkbLockGroup(d, XkbUseCoreKbd, group);
        XSync(d, False);
        XCloseDisplay(d);
    }
    unsigned keycodeOf(KeySym keysym) {
        Display* d = XOpenDisplay(server.name().c_str());
        const unsigned keycode = XKeysymToKeycode(d, keysym);
        XCloseDisplay(d);
        return keycode;
    }

    XServer server;
    RealTimeLoop loop;
    std::unique_ptr<X11GlobalInput> input;
    std::unique_ptr<X11SyntheticKeyboard> keyboard;
    std::vector<GlobalInputEvent> tapEvents;
};

TEST_F(X11SyntheticKeyboardTest, AnyTextArrivesUnderEveryLayoutAndTheSpareKeysAreEmptiedAfterwards) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    ASSERT_GT(keyboard->spareKeyCount(), 0u);
    EXPECT_EQ(keycodeOf(XK_eacute), 0u); // the US layout has no é
    ASSERT_TRUE(type(client, kMixed)) << client.text();

    // German, then Russian as the selected second group: the Latin letters are then typed on remapped keys.
    ASSERT_TRUE(server.run("setxkbmap de"));
    std::string expected = kMixed + " Zürich yz ß";
    keyboard->typeText(" Zürich yz ß");
    ASSERT_TRUE(client.waitForText(expected, 20s)) << client.text();
    ASSERT_TRUE(server.run("setxkbmap -layout us,ru"));
    selectGroup(1);
    expected += " Привет, мир! plain latin";
    keyboard->typeText(" Привет, мир! plain latin");
    ASSERT_TRUE(client.waitForText(expected, 20s)) << client.text();
    selectGroup(0);

    // Keys mapped for the text go back to having no symbols.
    ASSERT_TRUE(keyboard->waitUntilSent(5s));
    EXPECT_TRUE(waitFor([&] { return keycodeOf(XK_eacute) == 0; }, 5000ms));
}

TEST_F(X11SyntheticKeyboardTest, MoreDistinctCharactersThanSpareKeysArriveInOrder) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    const std::size_t spare = keyboard->spareKeyCount();
    std::string text;
    // Three times as many different characters as there are spare keys, then the first ones again.
    for (std::size_t i = 0; i < spare * 3; ++i) {
        const char32_t c = 0x4E00 + static_cast<char32_t>(i * 7);
        text += std::string{static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                            static_cast<char>(0x80 | (c & 0x3F))};
    }
    text += text.substr(0, 30) + " end";
    ASSERT_TRUE(type(client, text)) << client.text().size() << " of " << text.size() << " bytes";
}

TEST_F(X11SyntheticKeyboardTest, WithoutSpareKeysWhatTheLayoutLacksIsLeftOutAndTheRestArrives) {
    // Every free keycode gets a symbol, as on a keymap that uses them all.
    Display* d = XOpenDisplay(server.name().c_str());
    int minCode = 8, maxCode = 255;
    XDisplayKeycodes(d, &minCode, &maxCode);
    for (int kc = minCode; kc <= maxCode; ++kc) {
        int count = 0;
        KeySym* syms = XGetKeyboardMapping(d, static_cast<KeyCode>(kc), 1, &count);
        bool empty = true;
        for (int i = 0; i < count; ++i) empty = empty && syms[i] == NoSymbol;
        XFree(syms);
        if (!empty) continue;
        KeySym filler[2] = {XK_F35, XK_F35};
        XChangeKeyboardMapping(d, kc, 2, filler, 1);
    }
    XSync(d, False);
    XCloseDisplay(d);
    ASSERT_TRUE(waitFor([&] { return keyboard->spareKeyCount() == 0; }));
    sprelio::platform::test::RecordingLogSink log;
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    keyboard->typeText("plain é 日 text");
    ASSERT_TRUE(client.waitForText("plain   text")) << client.text();
    EXPECT_TRUE(log.contains("X11SyntheticKeyboard - the keymap has no spare key; 2 characters it lacks are not typed"));
}

TEST_F(X11SyntheticKeyboardTest, CapsLockDoesNotChangeTheTextAndStaysOn) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    ASSERT_TRUE(server.run("xdotool key Caps_Lock"));
    ASSERT_TRUE(type(client, "Mixed Case é É"));
    // The text shows in the client before Caps Lock is pressed back on: the state is read once the job has ended.
    ASSERT_TRUE(keyboard->waitUntilSent(5s));
    Display* d = XOpenDisplay(server.name().c_str());
    XkbStateRec state{};
    XkbGetState(d, XkbUseCoreKbd, &state);
    XCloseDisplay(d);
    EXPECT_TRUE(state.locked_mods & LockMask);
}

// The key of a hotkey is still down when its action pastes: its passive grab sends every key event to Sprelio until
// the key comes up, so the paste waits for the user to let go (a local AI item answers within milliseconds).
TEST_F(X11SyntheticKeyboardTest, EventsWaitUntilTheUserLetsGoOfAKey) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    Display* user = XOpenDisplay(server.name().c_str());
    const KeyCode f5 = XKeysymToKeycode(user, XK_F5);
    XTestFakeKeyEvent(user, f5, True, CurrentTime);
    XSync(user, False);
    keyboard->typeText("abc");
    EXPECT_FALSE(keyboard->waitUntilSent(300ms)) << "typed while the key was down";
    XTestFakeKeyEvent(user, f5, False, CurrentTime);
    XSync(user, False);
    XCloseDisplay(user);
    ASSERT_TRUE(client.waitForText("abc")) << client.text();
    const auto lines = client.keyLines();
    const auto released = std::find_if(lines.begin(), lines.end(),
                                       [](const std::string& l) { return l.rfind("release", 0) == 0 && l.find("F5") != std::string::npos; });
    const auto typed = std::find_if(lines.begin(), lines.end(),
                                    [](const std::string& l) { return l.rfind("press", 0) == 0 && l.find(" a ") != std::string::npos; });
    ASSERT_NE(released, lines.end()) << ::testing::PrintToString(lines);
    EXPECT_LT(released - lines.begin(), typed - lines.begin()) << ::testing::PrintToString(lines);
}

TEST_F(X11SyntheticKeyboardTest, FlaggedModifiersAreHeldAroundTheirEventsOnly) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    keyboard->postKeyEvents({{8, true, flags::kControl | flags::kShift},
                             {8, false, flags::kControl | flags::kShift},
                             {0, true, 0},
                             {0, false, 0}});
    ASSERT_TRUE(client.waitForText("a"));
    // c came with Control and Shift, a with neither.
    const auto c = client.pressStates("C");
    ASSERT_EQ(c.size(), 1u) << ::testing::PrintToString(client.keyLines());
    EXPECT_EQ(c.front() & (ControlMask | ShiftMask), static_cast<unsigned>(ControlMask | ShiftMask));
    EXPECT_EQ(client.pressStates("a"), std::vector<unsigned>{0});
    EXPECT_TRUE(keyboard->heldModifierKeys().empty());
}

TEST_F(X11SyntheticKeyboardTest, HeldModifiersAreTheUsersNotOurs) {
    // The user holds right Shift (xdotool would press left Shift with it, so the key goes down by hand).
    Display* user = XOpenDisplay(server.name().c_str());
    const KeyCode rightShift = XKeysymToKeycode(user, XK_Shift_R);
    XTestFakeKeyEvent(user, rightShift, True, CurrentTime);
    XSync(user, False);
    EXPECT_EQ(keyboard->heldModifierKeys(), std::vector<std::uint16_t>{60});
    keyboard->postKeyEvents({{59, true, 0}}); // our own Control, still down
    ASSERT_TRUE(keyboard->waitUntilSent(5s));
    EXPECT_EQ(keyboard->heldModifierKeys(), std::vector<std::uint16_t>{60});
    keyboard->postKeyEvents({{59, false, 0}});
    XTestFakeKeyEvent(user, rightShift, False, CurrentTime);
    XSync(user, False);
    XCloseDisplay(user);
    ASSERT_TRUE(keyboard->waitUntilSent(5s));
    EXPECT_TRUE(keyboard->heldModifierKeys().empty());
}

TEST_F(X11SyntheticKeyboardTest, OurEventsNeverReachTheEventTapButOtherKeysDo) {
    TestClient client(server, {});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();
    ASSERT_TRUE(type(client, "typed by us ü"));
    keyboard->postKeyEvents({{9, true, flags::kControl}, {9, false, flags::kControl}});
    ASSERT_TRUE(keyboard->waitUntilSent(5s));
    ASSERT_TRUE(server.run("xdotool key x"));
    ASSERT_TRUE(loop.runUntil([&] {
        return std::any_of(tapEvents.begin(), tapEvents.end(), [](const auto& e) { return e.keyCode == 7; });
    }, 5s));
    for (const auto& e : tapEvents) EXPECT_EQ(e.keyCode, 7) << "our own event reached the tap: " << e.keyCode;
}

} // namespace
