// From a raw key event arriving at the tap to the decision of handleGlobalKeyPressed, with 1,000 cached shortcuts.
// Prints p50 and p99 in microseconds for a key that is a hotkey (decision and action task posted) and for one that
// is not (the common case: every keystroke of the user passes here).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "core/AppState.h"
#include "core/SharedAppDelegate.h"
#include "input/EventTapManager.h"
#include "input/KeyCodes.h"
#include "input/KeyboardShortcutManager.h"
#include "input/KeyboardShortcuts.h"
#include "input/MouseShortcutManager.h"
#include "input/ShortcutActionDispatcher.h"
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
    for (int i = 0; i < 1000; ++i) {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(std::string("showHistory"));
        s->setOrder(i);
        s->setModifierEventKeyCode(i == 999 ? 105 : -1);
        s->setMouseEventMouseButton(i % 2 ? 3 + (i % 5) : -1);
        s->setShortcutString(std::string("⌥S"));
    }
    context.save();
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
    setLogSink(nullptr);
    return swallowed == kRounds ? 0 : 1;
}
