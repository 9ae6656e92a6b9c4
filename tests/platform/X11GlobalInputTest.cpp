// The X11 adapter against a real X server: each test starts its own Xvfb, presses keys with xdotool and watches
// what the adapter reports and what an ordinary client window receives.
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/X11TestSupport.h"
#include "platform/SyntheticKeyboard.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/loop/RealTimeLoop.h"

using namespace std::chrono_literals;
using sprelio::platform::GlobalInputEvent;
using sprelio::platform::KeyCombination;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::X11GlobalInput;
namespace type = sprelio::platform::global_event_type;

namespace {

using Xvfb = sprelio::x11test::XServer;
using sprelio::x11test::waitFor;

// An ordinary application window with the input focus, on its own connection.
class ClientWindow {
public:
    explicit ClientWindow(const std::string& display) {
        display_ = XOpenDisplay(display.c_str());
        if (!display_) return;
        window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 0, 0, 1280, 800, 0, 0, 0);
        XSelectInput(display_, window_, KeyPressMask | ButtonPressMask | StructureNotifyMask);
        XMapRaised(display_, window_);
        XSync(display_, False);
        waitFor([&] {
            while (XPending(display_)) {
                XEvent ev;
                XNextEvent(display_, &ev);
                if (ev.type == MapNotify) mapped_ = true;
            }
            return mapped_;
        });
        XSetInputFocus(display_, window_, RevertToParent, CurrentTime);
        XSync(display_, False);
    }
    ~ClientWindow() {
        if (display_) XCloseDisplay(display_);
    }
    bool ok() const { return display_ && mapped_; }
    void pump() {
        while (XPending(display_)) {
            XEvent ev;
            XNextEvent(display_, &ev);
            if (ev.type == KeyPress) keys.push_back(ev.xkey.keycode);
            if (ev.type == ButtonPress) buttons.push_back(ev.xbutton.button);
        }
    }
    unsigned keycode(const char* keysym) const {
        return XKeysymToKeycode(display_, XStringToKeysym(keysym));
    }
    std::vector<unsigned> keys;
    std::vector<unsigned> buttons;

private:
    Display* display_ = nullptr;
    Window window_ = 0;
    bool mapped_ = false;
};

class X11GlobalInputTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(xvfb.ready()) << "Xvfb did not start";
        // Xvfb starts with the US layout; a test that needs another one sets it itself.
        input = std::make_unique<X11GlobalInput>(loop, xvfb.name());
        ASSERT_TRUE(input->isAvailable());
        input->setEventHandler([this](const GlobalInputEvent& event) {
            events.push_back(event);
            return false;
        });
    }
    void TearDown() override {
        input.reset();
        xvfb.stop();
    }

    bool runUntil(const std::function<bool()>& condition) { return loop.runUntil(condition, 5s); }
    bool sawEvent(int eventType, std::uint16_t keyCode) const {
        for (const auto& e : events)
            if (e.type == eventType && e.keyCode == keyCode) return true;
        return false;
    }
    // The first such event; an empty event (type 0) when there is none, which every check then fails on.
    GlobalInputEvent find(int eventType, std::uint16_t keyCode) const {
        for (const auto& e : events)
            if (e.type == eventType && e.keyCode == keyCode) return e;
        return {};
    }
    // Presses the key by keysym and returns the stored code of its key down.
    std::optional<std::uint16_t> codeOfKeysym(const std::string& keysym) {
        events.clear();
        if (!xvfb.run("xdotool key " + keysym)) return std::nullopt;
        if (!runUntil([&] {
                for (const auto& e : events)
                    if (e.type == type::kKeyUp) return true;
                return false;
            }))
            return std::nullopt;
        for (const auto& e : events)
            if (e.type == type::kKeyDown) return e.keyCode;
        return std::nullopt;
    }

    Xvfb xvfb;
    RealTimeLoop loop;
    std::unique_ptr<X11GlobalInput> input;
    std::vector<GlobalInputEvent> events;
};

TEST_F(X11GlobalInputTest, RightAltHeldAndReleasedIsAFlagsChangeOfRightOption) {
    ASSERT_TRUE(xvfb.run("xdotool keydown Alt_R"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kFlagsChanged, 61); })) << [&] {
        std::string seen;
        for (const auto& e : events) seen += std::to_string(e.type) + "/" + std::to_string(e.keyCode) + " ";
        return seen;
    }();
    EXPECT_EQ(find(type::kFlagsChanged, 61).flags, 0x80100u);
    EXPECT_FALSE(find(type::kFlagsChanged, 61).characters.has_value());
    events.clear();
    ASSERT_TRUE(xvfb.run("xdotool keyup Alt_R"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kFlagsChanged, 61); }));
    EXPECT_EQ(find(type::kFlagsChanged, 61).flags, 0x100u);
}

TEST_F(X11GlobalInputTest, LetterArrivesAsKeyDownAndKeyUpWithItsStoredCodeAndCharacters) {
    ASSERT_TRUE(xvfb.run("xdotool key shift+s"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kKeyUp, 1); }));
    const auto down = find(type::kKeyDown, 1);
    EXPECT_EQ(down.flags, 0x20100u);
    EXPECT_EQ(down.characters, "S");
    EXPECT_EQ(down.charactersIgnoringModifiers, "S");
    EXPECT_TRUE(sawEvent(type::kFlagsChanged, 56));
    // Shift arrives before the letter and leaves after it.
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(events.front().type, type::kFlagsChanged);
    EXPECT_EQ(events.front().flags, 0x20100u);

    EXPECT_EQ(codeOfKeysym("F5"), 96);
    EXPECT_EQ(codeOfKeysym("Return"), 36);
    EXPECT_EQ(codeOfKeysym("Left"), 123);
}

TEST_F(X11GlobalInputTest, GrabbedCombinationFiresTheHotKeyAndNeverReachesTheFocusedWindow) {
    ClientWindow window(xvfb.name());
    ASSERT_TRUE(window.ok());
    int pressed = 0, released = 0;
    auto result = input->registerHotKey(KeyCombination{40, 0x40000 | 0x80000}, [&] { ++pressed; },
                                        [&] { ++released; });
    ASSERT_TRUE(std::holds_alternative<sprelio::platform::HotKeyId>(result));
    ASSERT_TRUE(xvfb.run("xdotool key ctrl+alt+k"));
    ASSERT_TRUE(runUntil([&] { return released == 1; }));
    EXPECT_EQ(pressed, 1);
    // With Caps Lock on the combination is still ours.
    ASSERT_TRUE(xvfb.run("xdotool key Caps_Lock key ctrl+alt+k key Caps_Lock"));
    ASSERT_TRUE(runUntil([&] { return released == 2; }));
    // The event stream still sees the grabbed key, down and up, and the modifiers come back up.
    EXPECT_TRUE(sawEvent(type::kKeyDown, 40));
    EXPECT_TRUE(sawEvent(type::kKeyUp, 40));
    ASSERT_TRUE(runUntil([&] {
        return std::count_if(events.begin(), events.end(), [](const auto& e) { return e.keyCode == 57; }) == 4;
    }));
    EXPECT_EQ(events.back().keyCode, 57);
    EXPECT_EQ(events.back().flags, 0x100u);

    ASSERT_TRUE(xvfb.run("xdotool key b"));
    const unsigned b = window.keycode("b");
    ASSERT_TRUE(waitFor([&] {
        window.pump();
        return std::find(window.keys.begin(), window.keys.end(), b) != window.keys.end();
    }));
    const unsigned k = window.keycode("k");
    EXPECT_EQ(std::find(window.keys.begin(), window.keys.end(), k), window.keys.end());

    // Once unregistered the combination reaches the window again.
    input->unregisterHotKey(std::get<sprelio::platform::HotKeyId>(result));
    ASSERT_TRUE(xvfb.run("xdotool key ctrl+alt+k"));
    EXPECT_TRUE(waitFor([&] {
        window.pump();
        return std::find(window.keys.begin(), window.keys.end(), k) != window.keys.end();
    }));
    EXPECT_EQ(pressed, 2);
}

TEST_F(X11GlobalInputTest, CombinationHeldByAnotherClientIsAClearErrorAtOnce) {
    X11GlobalInput other(loop, xvfb.name());
    auto first = other.registerHotKey(KeyCombination{40, 0x40000 | 0x20000}, [] {}, [] {});
    ASSERT_TRUE(std::holds_alternative<sprelio::platform::HotKeyId>(first));
    auto second = input->registerHotKey(KeyCombination{40, 0x40000 | 0x20000}, [] {}, [] {});
    ASSERT_TRUE(std::holds_alternative<sprelio::Error>(second));
    const auto& error = std::get<sprelio::Error>(second);
    EXPECT_EQ(error.code, 10); // BadAccess
    EXPECT_NE(error.localizedDescription.find("Control+Shift+k"), std::string::npos) << error.localizedDescription;
    EXPECT_NE(error.localizedDescription.find("already grabbed by another application"), std::string::npos);
    // The failed registration left no partial grab behind: the other client keeps working and a different
    // combination is still ours to take.
    EXPECT_TRUE(std::holds_alternative<sprelio::platform::HotKeyId>(
        input->registerHotKey(KeyCombination{40, 0x40000}, [] {}, [] {})));
    auto keyGrab = input->grabKey(40);
    ASSERT_TRUE(keyGrab.has_value());
    EXPECT_EQ(keyGrab->code, 10);
}

TEST_F(X11GlobalInputTest, GrabbedMouseButtonIsReportedAndSwallowed) {
    ClientWindow window(xvfb.name());
    ASSERT_TRUE(window.ok());
    ASSERT_FALSE(input->grabButton(1).has_value()); // right button
    ASSERT_TRUE(xvfb.run("xdotool mousemove 300 300 click 3 click 1"));
    ASSERT_TRUE(waitFor([&] {
        window.pump();
        return !window.buttons.empty();
    }));
    EXPECT_EQ(window.buttons, std::vector<unsigned>{1});
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kLeftMouseUp, 0); }));
    const auto right = std::find_if(events.begin(), events.end(),
                                    [](const auto& e) { return e.type == type::kRightMouseDown; });
    ASSERT_NE(right, events.end());
    EXPECT_EQ(right->buttonNumber, 1);
    EXPECT_TRUE(sawEvent(type::kRightMouseUp, 0));

    input->ungrabButton(1);
    window.buttons.clear();
    ASSERT_TRUE(xvfb.run("xdotool click 3"));
    EXPECT_TRUE(waitFor([&] {
        window.pump();
        return window.buttons == std::vector<unsigned>{3};
    }));
}

TEST_F(X11GlobalInputTest, SamePhysicalKeysGiveTheSameCodesOnEveryLayout) {
    // US: the keys at the positions of Y and Z.
    EXPECT_EQ(codeOfKeysym("y"), 16);
    EXPECT_EQ(codeOfKeysym("z"), 6);
    // German: those positions print Z and Y.
    ASSERT_TRUE(xvfb.run("setxkbmap de"));
    ASSERT_TRUE(waitFor([&] { return input->x11KeyCodesFor(61).size() > 0; }));
    EXPECT_EQ(codeOfKeysym("z"), 16);
    EXPECT_EQ(codeOfKeysym("y"), 6);
    // Right Alt is AltGr there and still right Option.
    events.clear();
    ASSERT_TRUE(xvfb.run("xdotool keydown ISO_Level3_Shift"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kFlagsChanged, 61); }));
    EXPECT_EQ(find(type::kFlagsChanged, 61).flags, 0x80100u);
    ASSERT_TRUE(xvfb.run("xdotool keyup ISO_Level3_Shift"));

    // Russian as the second group: selecting it is seen, and the key at the Y position stays 16.
    ASSERT_TRUE(xvfb.run("setxkbmap -layout us,ru"));
    EXPECT_EQ(codeOfKeysym("y"), 16);
    input->selectInputSource(1);
    EXPECT_EQ(input->currentInputSource(), 1);
    events.clear();
    ASSERT_TRUE(xvfb.run("xdotool key Cyrillic_en"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kKeyUp, 16); }));
    EXPECT_EQ(find(type::kKeyDown, 16).characters, "н");
    input->selectInputSource(0);
    EXPECT_EQ(input->currentInputSource(), 0);
}

TEST_F(X11GlobalInputTest, KeyboardGrabKeepsKeysFromTheWindowAndStillReportsThem) {
    ClientWindow window(xvfb.name());
    ASSERT_TRUE(window.ok());
    ASSERT_FALSE(input->grabKeyboard().has_value());
    X11GlobalInput other(loop, xvfb.name());
    EXPECT_TRUE(other.grabKeyboard().has_value()); // one grab at a time
    ASSERT_TRUE(xvfb.run("xdotool key ctrl+x"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kKeyUp, 7); }));
    EXPECT_EQ(find(type::kKeyDown, 7).flags, 0x40100u);
    input->ungrabKeyboard();
    ASSERT_TRUE(xvfb.run("xdotool key c"));
    const unsigned c = window.keycode("c");
    ASSERT_TRUE(waitFor([&] {
        window.pump();
        return std::find(window.keys.begin(), window.keys.end(), c) != window.keys.end();
    }));
    EXPECT_EQ(window.keys, std::vector<unsigned>{c});
}

TEST_F(X11GlobalInputTest, OwnInjectionsAreFilteredButOtherSyntheticInputIsSeen) {
    Display* injector = XOpenDisplay(xvfb.name().c_str());
    ASSERT_NE(injector, nullptr);
    const unsigned q = XKeysymToKeycode(injector, XStringToKeysym("q"));
    {
        X11GlobalInput::InjectionScope scope(*input);
        XTestFakeKeyEvent(injector, q, True, CurrentTime);
        XTestFakeKeyEvent(injector, q, False, CurrentTime);
        XSync(injector, False);
    }
    XCloseDisplay(injector);
    ASSERT_TRUE(xvfb.run("xdotool key w"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kKeyUp, 13); }));
    EXPECT_FALSE(sawEvent(type::kKeyDown, 12));
}

TEST_F(X11GlobalInputTest, ServerGoingAwayIsReportedAndLeavesTheAdapterUnavailable) {
    bool lost = false;
    input->setConnectionLostHandler([&] { lost = true; });
    xvfb.stop();
    ASSERT_TRUE(runUntil([&] { return lost; }));
    EXPECT_FALSE(input->isAvailable());
    EXPECT_TRUE(input->grabKey(0).has_value());
    EXPECT_TRUE(std::holds_alternative<sprelio::Error>(input->registerHotKey(KeyCombination{0, 0x40000}, {}, {})));
}

// The first key on a fresh server comes with a keymap notice (the keyboard takes the XTEST device's keymap), and
// the adapter reloads its keymap then. Keys that arrived while it did were read into Xlib's queue by the reload's
// round trips and waited there for the next, unrelated event. Here a keymap change is followed closely by a key,
// again and again: every key must arrive on its own.
TEST_F(X11GlobalInputTest, KeyRightAfterAKeymapChangeArrivesWithoutWaitingForAnotherEvent) {
    Display* other = XOpenDisplay(xvfb.name().c_str());
    ASSERT_NE(other, nullptr);
    const KeyCode a = XKeysymToKeycode(other, XStringToKeysym("a"));
    int spare = 0;
    for (int kc = 255; kc > 8 && !spare; --kc) {
        int count = 0;
        KeySym* syms = XGetKeyboardMapping(other, static_cast<KeyCode>(kc), 1, &count);
        bool empty = true;
        for (int i = 0; i < count; ++i) empty = empty && syms[i] == NoSymbol;
        XFree(syms);
        if (empty) spare = kc;
    }
    ASSERT_NE(spare, 0);
    for (int i = 0; i < 60; ++i) {
        KeySym syms[2] = {i % 2 ? XStringToKeysym("eacute") : NoSymbol, i % 2 ? XStringToKeysym("eacute") : NoSymbol};
        XChangeKeyboardMapping(other, spare, 2, syms, 1);
        XFlush(other);
        // The key follows at different distances from the change, to meet the adapter at every point of its reload.
        std::this_thread::sleep_for(std::chrono::microseconds((i % 6) * 400));
        XTestFakeKeyEvent(other, a, True, CurrentTime);
        XTestFakeKeyEvent(other, a, False, CurrentTime);
        XFlush(other);
        const auto ups = [&] {
            return std::count_if(events.begin(), events.end(),
                                 [](const auto& e) { return e.type == type::kKeyUp && e.keyCode == 0; });
        };
        ASSERT_TRUE(loop.runUntil([&] { return ups() == i + 1; }, 2s)) << "key " << i << " stayed in the queue";
    }
    XCloseDisplay(other);
}

TEST_F(X11GlobalInputTest, AModifierHeldAcrossAKeymapChangeStillLetsGoOfTheFlags) {
    Display* other = XOpenDisplay(xvfb.name().c_str());
    ASSERT_NE(other, nullptr);
    const KeyCode rightAlt = XKeysymToKeycode(other, XStringToKeysym("Alt_R"));
    ASSERT_NE(rightAlt, 0);
    XTestFakeKeyEvent(other, rightAlt, True, CurrentTime);
    XFlush(other);
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kFlagsChanged, 61); }));
    EXPECT_TRUE(find(type::kFlagsChanged, 61).flags & sprelio::platform::event_flags_mask::kOption);

    // While it is held, the key loses its symbol, as a layout switch or a remapping tool would do.
    int perCode = 0;
    KeySym* saved = XGetKeyboardMapping(other, rightAlt, 1, &perCode);
    std::vector<KeySym> none(static_cast<std::size_t>(perCode), NoSymbol);
    XChangeKeyboardMapping(other, rightAlt, perCode, none.data(), 1);
    XFlush(other);
    // The adapter reloads its tables on its own thread; nothing on the loop tells when.
    ASSERT_TRUE(sprelio::x11test::spinUntil(loop, [&] { return !input->keyCodeForX11KeyCode(rightAlt).has_value(); }));

    events.clear();
    XTestFakeKeyEvent(other, rightAlt, False, CurrentTime);
    XFlush(other);
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kFlagsChanged, 61); })) << "the release was lost";
    EXPECT_FALSE(find(type::kFlagsChanged, 61).flags & sprelio::platform::event_flags_mask::kOption)
        << "Option stays down for ever";

    // Later events carry no stale modifier either.
    events.clear();
    ASSERT_TRUE(xvfb.run("xdotool key a"));
    ASSERT_TRUE(runUntil([&] { return sawEvent(type::kKeyUp, 0); }));
    EXPECT_FALSE(find(type::kKeyDown, 0).flags & sprelio::platform::event_flags_mask::kOption);

    XChangeKeyboardMapping(other, rightAlt, perCode, saved, 1);
    XFree(saved);
    XCloseDisplay(other);
}

TEST(X11GlobalInput, NoServerMeansUnavailableAndErrorsNotACrash) {
    RealTimeLoop loop;
    X11GlobalInput input(loop, ":399");
    EXPECT_FALSE(input.isAvailable());
    EXPECT_TRUE(input.grabKeyboard().has_value());
    EXPECT_EQ(input.currentInputSource(), 0);
}

} // namespace
