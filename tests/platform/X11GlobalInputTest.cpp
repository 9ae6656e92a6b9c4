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

#include "platform/linux/X11GlobalInput.h"
#include "platform/loop/RealTimeLoop.h"

using namespace std::chrono_literals;
using sprelio::platform::GlobalInputEvent;
using sprelio::platform::KeyCombination;
using sprelio::platform::RealTimeLoop;
using sprelio::platform::X11GlobalInput;
namespace type = sprelio::platform::global_event_type;

namespace {

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

// Polls a condition until it holds or the deadline passes.
template <typename F>
bool waitFor(F&& condition, std::chrono::milliseconds timeout = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

class Xvfb {
public:
    Xvfb() {
        XInitThreads(); // before the first connection of the process, as the adapter's own threads need
        for (int n = 90; n < 400; ++n) {
            if (exists("/tmp/.X11-unix/X" + std::to_string(n)) || exists("/tmp/.X" + std::to_string(n) + "-lock"))
                continue;
            number_ = n;
            break;
        }
        if (number_ < 0) return;
        name_ = ":" + std::to_string(number_);
        pid_ = ::fork();
        if (pid_ == 0) {
            const int devnull = ::open("/dev/null", O_WRONLY);
            if (devnull >= 0) {
                ::dup2(devnull, 1);
                ::dup2(devnull, 2);
            }
            ::execlp("Xvfb", "Xvfb", name_.c_str(), "-nolisten", "tcp", "-screen", "0", "1280x800x24", nullptr);
            ::_exit(127);
        }
        ready_ = waitFor([&] {
            if (!exists("/tmp/.X11-unix/X" + std::to_string(number_))) return false;
            // The connection stays open: Xvfb resets itself when its last client leaves, and refuses connections
            // while it does.
            keeper_ = XOpenDisplay(name_.c_str());
            return keeper_ != nullptr;
        }, 10000ms);
    }
    ~Xvfb() { stop(); }
    void stop() {
        if (keeper_) {
            XCloseDisplay(keeper_);
            keeper_ = nullptr;
        }
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            ::waitpid(pid_, &status, 0);
            pid_ = -1;
        }
    }
    bool ready() const { return ready_; }
    const std::string& name() const { return name_; }
    // Runs a command against this display; true when it exited with 0.
    bool run(const std::string& command) const {
        const std::string line = "DISPLAY=" + name_ + " " + command + " >/dev/null 2>&1";
        return std::system(line.c_str()) == 0;
    }

private:
    int number_ = -1;
    pid_t pid_ = -1;
    bool ready_ = false;
    std::string name_;
    Display* keeper_ = nullptr;
};

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
        // A new adapter on a just-started server sometimes misses the very first key of the process; wait until a
        // full Shift press and release has come through before the test presses anything of its own.
        ASSERT_TRUE(waitUntilEventsFlow()) << "no key event reached the adapter";
        events.clear();
    }
    bool waitUntilEventsFlow() {
        for (int attempt = 0; attempt < 20; ++attempt) {
            if (!xvfb.run("xdotool key Shift_L")) return false;
            if (loop.runUntil([&] {
                    for (const auto& e : events)
                        if (e.type == type::kFlagsChanged && e.keyCode == 56 && e.flags == 0x100u) return true;
                    return false;
                }, 250ms))
                return true;
        }
        return false;
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

TEST(X11GlobalInput, NoServerMeansUnavailableAndErrorsNotACrash) {
    RealTimeLoop loop;
    X11GlobalInput input(loop, ":399");
    EXPECT_FALSE(input.isAvailable());
    EXPECT_TRUE(input.grabKeyboard().has_value());
    EXPECT_EQ(input.currentInputSource(), 0);
}

} // namespace
