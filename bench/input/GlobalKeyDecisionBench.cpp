// From a raw key event arriving at the tap to the decision of handleGlobalKeyPressed, with 1,000 cached shortcuts.
// Prints p50 and p99 in microseconds for a key that is a hotkey (decision and action task posted) and for one that
// is not (the common case: every keystroke of the user passes here).
//
// First on the test platform's input, which measures the logic alone; then on a real X server (Xvfb started here),
// from the moment a key event is sent into the server through XTEST to the decision, through the X11 adapter's
// XInput2 reading, its reader thread and the hop to the main loop.
//
//   build/bench/bench_input
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "shared/AppState.h"
#include "input/EventTapManager.h"
#include "input/KeyCodes.h"
#include "input/KeyboardShortcutManager.h"
#include "input/KeyboardShortcuts.h"
#include "input/MouseShortcutManager.h"
#include "input/ShortcutActionDispatcher.h"
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include "platform/X11TestSupport.h"
#include "platform/linux/X11GlobalInput.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/FakeGlobalInput.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "store/UserShortcutCache.h"

using namespace sprelio;

namespace {

class NullSession final : public ShortcutSession {
public:
    std::optional<AppActivity> appStatus() const override { return AppActivity::idle; }
    void startRecordingDurationTimer(int) override {}
    void stopRecordingDurationTimer(const std::string&, const std::string&) override {}
    void onRecordingShortcut(bool, ShortcutAction, std::optional<std::string>, UserShortcutPtr) override {}
    void copyTextAndAskAI(const UserShortcutPtr&) override {}
    void transcribeLast(const UserShortcutPtr&) override {}
    void showMainWindowTab(ContentViewTab) override {}
    void continuousVoiceToText() override {}
};

class NullSink final : public LogSink {
public:
    void log(LogLevel, std::string) override {}
};

struct Stats {
    double p50;
    double p99;
};

Stats stats(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return {v[v.size() / 2], v[std::min(v.size() - 1, v.size() * 99 / 100)]};
}

// The real adapter with the moment of each decision noted: the tap's handler is wrapped, everything else passes.
class TimedInput final : public platform::GlobalInput {
public:
    explicit TimedInput(platform::GlobalInput& inner) : inner_(inner) {}
    void setEventHandler(EventHandler handler) override {
        if (!handler) return inner_.setEventHandler({});
        inner_.setEventHandler([this, handler = std::move(handler)](const platform::GlobalInputEvent& event) {
            const bool swallow = handler(event);
            if (event.type == platform::global_event_type::kKeyDown) decisions.push_back(std::chrono::steady_clock::now());
            return swallow;
        });
    }
    std::optional<Error> grabKey(std::uint16_t k) override { return inner_.grabKey(k); }
    void ungrabKey(std::uint16_t k) override { inner_.ungrabKey(k); }
    std::optional<Error> grabButton(std::int64_t b) override { return inner_.grabButton(b); }
    void ungrabButton(std::int64_t b) override { inner_.ungrabButton(b); }
    std::variant<platform::HotKeyId, Error> registerHotKey(const platform::KeyCombination& c, std::function<void()> p,
                                                           std::function<void()> r) override {
        return inner_.registerHotKey(c, std::move(p), std::move(r));
    }
    void unregisterHotKey(platform::HotKeyId id) override { inner_.unregisterHotKey(id); }
    std::optional<Error> grabKeyboard() override { return inner_.grabKeyboard(); }
    void ungrabKeyboard() override { inner_.ungrabKeyboard(); }
    int currentInputSource() const override { return inner_.currentInputSource(); }
    void selectInputSource(int s) override { inner_.selectInputSource(s); }
    bool isAvailable() const override { return inner_.isAvailable(); }

    std::vector<std::chrono::steady_clock::time_point> decisions;

private:
    platform::GlobalInput& inner_;
};

void addShortcuts(store::ManagedObjectContext& context, std::int64_t tapKey) {
    for (int i = 0; i < 1000; ++i) {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(std::string("showHistory"));
        s->setOrder(i);
        s->setModifierEventKeyCode(i == 999 ? tapKey : -1);
        s->setMouseEventMouseButton(i % 2 ? 3 + (i % 5) : -1);
        s->setShortcutString(std::string("⌥S"));
    }
    context.save();
}

// The same stack on the X11 adapter: a key sent through XTEST, the loop run until the tap has decided on it.
void onRealX() {
    x11test::XServer server;
    if (!server.ready()) {
        std::printf("on a real X server: skipped, Xvfb did not start\n");
        return;
    }
    platform::RealTimeLoop loop;
    platform::test::TestPlatform tp;
    store::AppConstants constants(tp);
    store::MemorySettingsStore defaults;
    store::Settings settings(defaults, constants);
    store::PersistenceController persistence(tp.root(), true);
    auto& context = persistence.container().viewContext();
    platform::X11GlobalInput x11(loop, server.name());
    TimedInput input(x11);
    KeyboardShortcuts hotKeys(defaults, input);
    QwertyKeyboardLayout layout;
    KeyCodes keyCodes(layout);
    AppStateRealtimeMirror mirror;
    AppState appState(mirror);
    store::UserShortcutCache cache;
    NullSession session;
    ShortcutActions actions(session, [] { return 10; });
    addShortcuts(context, 96); // F5
    cache.update(context);
    KeyboardShortcutManager keyboard(KeyboardShortcutManagerDependencies{loop, context, settings, hotKeys, keyCodes,
                                                                         appState, &cache, {}, {}});
    keyboard.setActionDispatcher(&actions);
    keyboard.updateKeysSetFromUserShortcuts();
    MouseShortcutManager mouse(MouseShortcutManagerDependencies{loop, appState, &cache, [] { return true; }, {}});
    EventTapManager tap(EventTapManagerDependencies{loop, input, tp, tp, mirror, keyboard, mouse, "com.sprelio.app",
                                                    {}, {}, {}, {}});
    tp.frontmost = platform::RunningApplication{1, "org.example.editor", std::string("editor")};
    tap.registerEventTap(false);

    Display* x = XOpenDisplay(server.name().c_str());
    const KeyCode f5 = XKeysymToKeycode(x, XStringToKeysym("F5"));
    const KeyCode a = XKeysymToKeycode(x, XStringToKeysym("a"));
    const int kRounds = 2000;
    std::vector<double> hotkey, other;
    auto press = [&](KeyCode key, std::vector<double>& into) {
        const std::size_t before = input.decisions.size();
        const auto t0 = std::chrono::steady_clock::now();
        XTestFakeKeyEvent(x, key, True, CurrentTime);
        XFlush(x);
        if (!loop.runUntil([&] { return input.decisions.size() > before; }, std::chrono::seconds(2))) return;
        into.push_back(std::chrono::duration<double, std::micro>(input.decisions.back() - t0).count());
        XTestFakeKeyEvent(x, key, False, CurrentTime);
        XFlush(x);
        loop.runUntil([] { return false; }, std::chrono::milliseconds(1)); // the release and the action's task
    };
    for (int i = 0; i < kRounds; ++i) {
        press(f5, hotkey);
        press(a, other);
    }
    XCloseDisplay(x);
    if (hotkey.empty() || other.empty()) {
        std::printf("on a real X server: no decisions arrived\n");
        return;
    }
    const auto h = stats(hotkey), o = stats(other);
    std::printf("key sent through XTEST -> X11 adapter -> decision, 1000 cached shortcuts, %zu rounds\n", hotkey.size());
    std::printf("  hotkey (F5, grabbed, action posted): p50 %.1f us  p99 %.1f us\n", h.p50, h.p99);
    std::printf("  other key (passes):                  p50 %.1f us  p99 %.1f us\n", o.p50, o.p99);
}

} // namespace

int main() {
    NullSink sink; // log lines are written off the tap in the application; here they cost nothing
    setLogSink(&sink);
    platform::test::TestPlatform tp;
    store::AppConstants constants(tp);
    store::MemorySettingsStore defaults;
    store::Settings settings(defaults, constants);
    store::PersistenceController persistence(tp.root(), true);
    auto& context = persistence.container().viewContext();
    platform::test::FakeGlobalInput input;
    KeyboardShortcuts hotKeys(defaults, input);
    QwertyKeyboardLayout layout;
    KeyCodes keyCodes(layout);
    AppStateRealtimeMirror mirror;
    AppState appState(mirror);
    store::UserShortcutCache cache;
    NullSession session;
    ShortcutActions actions(session, [] { return 10; });

    // 1,000 shortcuts: the last one holds F13 (105); the rest are normal combinations or mouse buttons.
    addShortcuts(context, 105);
    cache.update(context);

    KeyboardShortcutManager keyboard(KeyboardShortcutManagerDependencies{tp.loop(), context, settings, hotKeys,
                                                                         keyCodes, appState, &cache, {}, {}});
    keyboard.setActionDispatcher(&actions);
    keyboard.updateKeysSetFromUserShortcuts();
    MouseShortcutManager mouse(MouseShortcutManagerDependencies{tp.loop(), appState, &cache, [] { return true; }, {}});
    EventTapManager tap(EventTapManagerDependencies{tp.loop(), input, tp, tp, mirror, keyboard, mouse,
                                                    "com.sprelio.app", {}, {}, {}, {}});
    tp.frontmost = platform::RunningApplication{1, "org.example.editor", std::string("editor")};
    tap.registerEventTap(false);

    const int kRounds = 20000;
    std::vector<double> hotkey, other;
    hotkey.reserve(kRounds);
    other.reserve(kRounds);
    int swallowed = 0;
    for (int i = 0; i < kRounds; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        swallowed += input.keyDown(105, 0x100) ? 1 : 0;
        auto t1 = std::chrono::steady_clock::now();
        hotkey.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        tp.runUntilIdle(); // the action's task, outside the measured path
        input.keyUp(105, 0x100);
        tp.runUntilIdle();

        t0 = std::chrono::steady_clock::now();
        swallowed += input.keyDown(0, 0x100, std::string("a")) ? 1 : 0;
        t1 = std::chrono::steady_clock::now();
        other.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    }
    const auto h = stats(hotkey), o = stats(other);
    std::printf("raw key event -> handleGlobalKeyPressed decision, 1000 cached shortcuts, %d rounds\n", kRounds);
    std::printf("  hotkey (F13, swallowed, action posted): p50 %.2f us  p99 %.2f us\n", h.p50, h.p99);
    std::printf("  other key (passes):                     p50 %.2f us  p99 %.2f us\n", o.p50, o.p99);
    std::printf("  swallowed %d of %d\n", swallowed, 2 * kRounds);
    onRealX();
    setLogSink(nullptr);
    return swallowed == kRounds ? 0 : 1;
}
