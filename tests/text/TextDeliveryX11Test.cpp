// The whole text delivery on a real X server with openbox: the logic on the X11 adapters, our test application as
// the one in front, xclip as the other programs on the clipboard. Timings are real here; every wait is on a
// condition with a deadline (the 1500 ms restore is checked exactly on virtual time in AccesibilityControllerTest).
#include <gtest/gtest.h>

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <fstream>

#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"
#include "text/FrontmostAppTracker.h"
#include "text/X11TextDeliveryStack.h"

using namespace std::chrono_literals;
using namespace sprelio;
using platform::GlobalInputEvent;
using x11test::TestClient;
using x11test::XServer;

namespace {

const std::string kDictated = "Café, naïve Grüße – 日本語で話す 🎙️✓ fin.";

TestClient::Options named(const std::string& className, bool terminal = false, const std::string& primary = "") {
    TestClient::Options options;
    options.className = className;
    options.title = className + " window";
    options.terminal = terminal;
    options.primary = primary;
    return options;
}

class TextDeliveryX11Test : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        delivery.start(server.name(), true);
        delivery.input->setEventHandler([this](const GlobalInputEvent& e) {
            tapEvents.push_back(e);
            return false;
        });
    }
    void TearDown() override {
        delivery.stop();
        server.stop();
    }

    bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 15000ms) {
        return x11test::spinUntil(delivery.loop, condition, timeout);
    }
    // Focused, and the window manager says so too (it updates the active window a moment after the focus).
    bool inFront(const TestClient& client) {
        if (!client.waitUntilFocused()) return false;
        return spinUntil([&] {
            const auto front = delivery.workspace->frontmostApplication();
            return front && front->processIdentifier == client.pid();
        });
    }
    // Another program puts text on the clipboard.
    bool otherProgramCopies(const std::string& text) {
        const auto file = files.path() / ("copy" + std::to_string(copies++));
        std::ofstream(file, std::ios::binary) << text;
        // xclip takes the clipboard from its background process, a moment after the command returns.
        return server.run("xclip -selection clipboard -i " + file.string()) &&
               spinUntil([&] { return !delivery.clipboard->ownsClipboard() && clipboardText() == text; });
    }
    std::string clipboardText() { return server.output("xclip -selection clipboard -o -t UTF8_STRING"); }
    // The layout changes; the key vocabulary has the new one once `loaded` holds.
    bool setLayout(const std::string& command, const std::function<bool()>& loaded) {
        return server.run(command) &&
               spinUntil([&] { return loaded() && delivery.keyCodes->cachedLayoutCount() == 0; });
    }
    void selectGroup(unsigned group) {
        Display* d = XOpenDisplay(server.name().c_str());
        XkbLockGroup(d, XkbUseCoreKbd, group);
        XSync(d, False);
        XCloseDisplay(d);
    }
    // Pastes `text` into the client and checks that the user's clipboard text comes back afterwards.
    void pasteAndCheck(TestClient& client, std::string& expected, const std::string& text, const std::string& mark) {
        ASSERT_TRUE(otherProgramCopies("the user's clipboard " + mark));
        delivery.controller->injectTextViaPaste(text, std::nullopt);
        expected += text;
        ASSERT_TRUE(spinUntil([&] { return client.text() == expected; })) << mark << ": " << client.text();
        ASSERT_TRUE(spinUntil([&] { return clipboardText() == "the user's clipboard " + mark; })) << mark;
    }

    XServer server;
    texttest::X11TextDeliveryStack delivery;
    platform::test::TemporaryFolder files;
    std::vector<GlobalInputEvent> tapEvents;
    int copies = 0;
};

TEST_F(TextDeliveryX11Test, PastedTextArrivesUnderEveryLayoutAndTheUsersClipboardComesBack) {
    TestClient client(server, named("gedit"));
    ASSERT_TRUE(inFront(client)) << client.describe();
    std::string expected;
    pasteAndCheck(client, expected, kDictated, "us");

    ASSERT_TRUE(setLayout("setxkbmap de", [&] { return delivery.layout->character(16) == "z"; }));
    pasteAndCheck(client, expected, " deutsch: Straße", "de");

    // Dvorak: V is on another key, which the paste must use.
    ASSERT_TRUE(setLayout("setxkbmap us -variant dvorak", [&] { return delivery.layout->character(47) == "v"; }));
    ASSERT_EQ(delivery.keyCodes->keyCode(Key::v), 47);
    pasteAndCheck(client, expected, " dvorak", "dvorak");

    // Russian selected: the keys are Cyrillic, the paste is still Control plus the key of V.
    ASSERT_TRUE(setLayout("setxkbmap -layout us,ru", [&] { return delivery.layout->character(47) == "."; }));
    selectGroup(1);
    ASSERT_TRUE(spinUntil([&] { return delivery.layout->currentLayoutLocalizedName() == "Russian"; }));
    pasteAndCheck(client, expected, " русский", "ru");
    selectGroup(0);

    // Every paste was Control+V, nothing more, and none of our keys reached Sprelio's own event tap.
    const auto vPresses = client.pressStates("v");
    const auto emPresses = client.pressStates("Cyrillic_em");
    EXPECT_EQ(vPresses.size() + emPresses.size(), 4u) << ::testing::PrintToString(client.keyLines());
    for (unsigned state : vPresses) EXPECT_EQ(state & (ShiftMask | ControlMask | Mod1Mask), unsigned(ControlMask));
    EXPECT_TRUE(tapEvents.empty()) << tapEvents.size() << " events of ours reached the tap";
}

TEST_F(TextDeliveryX11Test, TerminalGetsControlShiftVAndAJavaApplicationGetsTheTextTyped) {
    {
        TestClient terminal(server, named("Xfce4-terminal", true));
        ASSERT_TRUE(inFront(terminal)) << terminal.describe();
        std::string expected;
        pasteAndCheck(terminal, expected, "echo 'grüße 日本'", "terminal");
        const auto presses = terminal.pressStates("V");
        ASSERT_EQ(presses.size(), 1u) << ::testing::PrintToString(terminal.keyLines());
        EXPECT_EQ(presses.front() & (ShiftMask | ControlMask), unsigned(ShiftMask | ControlMask));
    }
    TestClient java(server, named("java"));
    ASSERT_TRUE(inFront(java)) << java.describe();
    ASSERT_TRUE(otherProgramCopies("left alone"));
    delivery.controller->injectTextViaPaste(kDictated + "\nline two", std::nullopt);
    ASSERT_TRUE(spinUntil([&] { return java.text() == kDictated + "\nline two"; })) << java.text();
    EXPECT_EQ(clipboardText(), "left alone");
    for (unsigned state : java.pressStates("v")) EXPECT_FALSE(state & ControlMask); // typed, not pasted
}

TEST_F(TextDeliveryX11Test, OneMegabyteIsPastedWhole) {
    TestClient client(server, named("gedit"));
    ASSERT_TRUE(inFront(client)) << client.describe();
    std::string big;
    while (big.size() < 1024 * 1024) big += kDictated + "\n";
    std::string expected;
    pasteAndCheck(client, expected, big, "big");
    EXPECT_NE(std::find(client.keyLines().begin(), client.keyLines().end(),
                        "paste " + std::to_string(big.size()) + " incremental"),
              client.keyLines().end());
}

TEST_F(TextDeliveryX11Test, ModifierHeldByTheUserIsOutOfTheWayAndStillDownAfterwards) {
    TestClient client(server, named("gedit"));
    ASSERT_TRUE(inFront(client)) << client.describe();
    Display* user = XOpenDisplay(server.name().c_str());
    const KeyCode rightAlt = XKeysymToKeycode(user, XK_Alt_R);
    XTestFakeKeyEvent(user, rightAlt, True, CurrentTime);
    XSync(user, False);
    std::string expected;
    pasteAndCheck(client, expected, "held", "held");
    const auto presses = client.pressStates("v");
    ASSERT_EQ(presses.size(), 1u) << ::testing::PrintToString(client.keyLines());
    EXPECT_EQ(presses.front() & (ShiftMask | ControlMask | Mod1Mask), unsigned(ControlMask));
    char keys[32] = {};
    XQueryKeymap(user, keys);
    EXPECT_TRUE(keys[rightAlt / 8] & (1 << (rightAlt % 8))) << "right Alt was not pressed again";
    XTestFakeKeyEvent(user, rightAlt, False, CurrentTime);
    XCloseDisplay(user);
}

TEST_F(TextDeliveryX11Test, SelectionComesFromTheApplicationInFrontOrFromItsCopyCommand) {
    TestClient client(server, named("gedit", false, "picked words ✓"));
    ASSERT_TRUE(inFront(client)) << client.describe();
    bool done = false;
    std::optional<std::string> selected;
    delivery.helper->getSelectedTextFromFrontmostApp([&](std::optional<std::string> text) {
        selected = std::move(text);
        done = true;
    });
    ASSERT_TRUE(spinUntil([&] { return done; }));
    EXPECT_EQ(selected, "picked words ✓");

    // Another program's selection is not the focused application's.
    const auto file = files.path() / "primary";
    std::ofstream(file) << "someone else's";
    ASSERT_TRUE(server.run("xclip -selection primary -i " + file.string()));
    ASSERT_TRUE(spinUntil([&] { return server.output("xclip -selection primary -o") == "someone else's"; }));
    done = false;
    delivery.helper->getSelectedTextFromFrontmostApp([&](std::optional<std::string> text) {
        selected = std::move(text);
        done = true;
    });
    ASSERT_TRUE(spinUntil([&] { return done; }));
    EXPECT_EQ(selected, std::nullopt);

    // The copy command: the application puts its selection on the clipboard.
    done = false;
    delivery.helper->getStringWithCommandC([&](std::optional<std::string> text) {
        selected = std::move(text);
        done = true;
    });
    ASSERT_TRUE(spinUntil([&] { return done; }));
    EXPECT_EQ(selected, "picked words ✓");
}

TEST_F(TextDeliveryX11Test, TrackerFollowsActivationsOfTheDesktop) {
    std::vector<std::string> calls;
    FrontmostAppTracker tracker{FrontmostAppTrackerDependencies{
        delivery.loop, *delivery.workspace, [&] { calls.push_back("deregister"); },
        [&](bool) { calls.push_back("register"); }, [] { return true; }, [] {}, [] {}}};
    TestClient first(server, named("FirstApp"));
    ASSERT_TRUE(inFront(first)) << first.describe();
    ASSERT_TRUE(spinUntil([&] { return tracker.currentApp() && tracker.currentApp()->pid == first.pid(); }));
    EXPECT_EQ(tracker.currentApp()->name, "FirstApp");
    TestClient second(server, named("SecondApp"));
    ASSERT_TRUE(inFront(second)) << second.describe();
    ASSERT_TRUE(spinUntil([&] { return tracker.currentApp() && tracker.currentApp()->pid == second.pid(); }));
    ASSERT_TRUE(tracker.previousApp());
    EXPECT_EQ(tracker.previousApp()->pid, first.pid());
    EXPECT_TRUE(calls.empty());
}

} // namespace
