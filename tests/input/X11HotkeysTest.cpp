// The hotkey managers and the tap on a real X server, with real time: keys pressed through XTEST as a keyboard
// would, our test application in front recording what reaches it.
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <algorithm>

#include "InputTestSupport.h"
#include "input/Key.h"
#include "platform/X11TestSupport.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/loop/RealTimeLoop.h"

namespace sprelio::inputtest {
namespace {

using namespace std::chrono_literals;
using x11test::TestClient;
using x11test::XServer;

class X11Hotkeys : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager());
        input = std::make_unique<platform::X11GlobalInput>(loop, server.name());
        ASSERT_TRUE(input->isAvailable());
        hotKeys = std::make_unique<KeyboardShortcuts>(defaults, *input);
        keyboard = std::make_unique<KeyboardShortcutManager>(KeyboardShortcutManagerDependencies{
            loop, context, settings, *hotKeys, keyCodes, appState, &cache, {}, {}});
        mouse = std::make_unique<MouseShortcutManager>(MouseShortcutManagerDependencies{
            loop, appState, &cache, [this] { return tap->shouldHandleAsGlobal(); }, {}});
        keyboard->setActionDispatcher(&actions);
        mouse->setActionDispatcher(&actions);
        tap = std::make_unique<EventTapManager>(EventTapManagerDependencies{
            loop, *input, tp, tp, mirror, *keyboard, *mouse, "com.sprelio.app", [] { return false; }, {}, {}, {}});
        x = XOpenDisplay(server.name().c_str());
        ASSERT_NE(x, nullptr);
    }
    void TearDown() override {
        tap.reset();
        mouse.reset();
        keyboard.reset();
        hotKeys.reset();
        input.reset();
        if (x) XCloseDisplay(x);
        server.stop();
    }
    void addShortcut(std::int64_t keyCode, bool hold, std::int64_t order) {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(std::string("recordAndTranscribe"));
        s->setModifierEventKeyCode(keyCode);
        s->setMouseEventMouseButton(-1);
        s->setShortcutString(keyString(keyCode));
        s->setOrder(order);
        s->setHold(hold);
        context.save();
        cache.update(context);
        keyboard->updateKeysSetFromUserShortcuts();
    }
    // Key events as a keyboard sends them, straight into the server.
    void send(const char* keysym, bool down) {
        XTestFakeKeyEvent(x, XKeysymToKeycode(x, XStringToKeysym(keysym)), down ? True : False, CurrentTime);
        XFlush(x);
    }
    bool spinUntil(const std::function<bool()>& condition) { return x11test::spinUntil(loop, condition, 5000ms); }

    XServer server;
    platform::RealTimeLoop loop;
    platform::test::TestPlatform tp; // sounds, the frontmost application and the constants' folders
    store::AppConstants constants{tp};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    store::PersistenceController persistence{tp.root(), true};
    store::ManagedObjectContext& context = persistence.container().viewContext();
    QwertyKeyboardLayout layout;
    KeyCodes keyCodes{layout};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    store::UserShortcutCache cache;
    CacheDelegate delegate{cache, context};
    FakeSession session;
    ShortcutActions actions{session, [] { return 10; }};
    std::unique_ptr<platform::X11GlobalInput> input;
    std::unique_ptr<KeyboardShortcuts> hotKeys;
    std::unique_ptr<KeyboardShortcutManager> keyboard;
    std::unique_ptr<MouseShortcutManager> mouse;
    std::unique_ptr<EventTapManager> tap;
    Display* x = nullptr;
};

TEST_F(X11Hotkeys, ATappedFunctionKeyActsAndNeverReachesTheApplication) {
    addShortcut(96, false, 0); // F5
    tap->registerEventTap(false);
    TestClient client(server, TestClient::Options{});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();

    send("F5", true);
    send("F5", false);
    ASSERT_TRUE(spinUntil([&] { return session.calls.size() == 2; })) << "calls: " << session.calls.size();
    EXPECT_EQ(session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribe"}));
    // A letter goes through to show that the application hears the keyboard at all.
    send("a", true);
    send("a", false);
    ASSERT_TRUE(client.waitForText("a")) << client.describe();
    EXPECT_TRUE(client.pressStates("F5").empty()) << "the application saw the swallowed key:\n" << client.describe();
}

TEST_F(X11Hotkeys, ALetterWithinTenMillisecondsMakesRightAltPartOfACombination) {
    addShortcut(61, true, 0);
    tap->registerEventTap(false);
    TestClient client(server, TestClient::Options{});
    ASSERT_TRUE(client.waitUntilFocused()) << client.describe();

    // Alt_R and a letter in one burst, as a combination is typed.
    send("Alt_R", true);
    send("a", true);
    send("a", false);
    send("Alt_R", false);
    ASSERT_TRUE(x11test::waitFor([&] { return client.keyLines().size() >= 4; })) << client.describe();
    // Long enough for a decision the tap would have taken 10 ms after the flags changed.
    const auto decided = std::chrono::steady_clock::now() + 200ms;
    x11test::spinUntil(loop, [&] { return std::chrono::steady_clock::now() > decided; });
    // The release is still judged as the key's release (a stop that an idle session refuses); no start came.
    EXPECT_EQ(std::count(session.calls.begin(), session.calls.end(), "start:recordAndTranscribe"), 0)
        << "the modifier acted although a key followed it";
    session.calls.clear();
    EXPECT_FALSE(client.pressStates("Alt_R").empty()) << "modifiers are never swallowed";

    // Held alone, the same key dictates while it is down.
    send("Alt_R", true);
    ASSERT_TRUE(spinUntil([&] { return session.calls.size() == 1; }));
    send("Alt_R", false);
    ASSERT_TRUE(spinUntil([&] { return session.calls.size() == 2; }));
    EXPECT_EQ(session.calls, (std::vector<std::string>{"start:recordAndTranscribe", "stop:recordAndTranscribe"}));
}

} // namespace
} // namespace sprelio::inputtest
