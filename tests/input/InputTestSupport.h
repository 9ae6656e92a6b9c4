#pragma once
// A complete input stack on the test platform: store in memory, settings in memory, fake desktop input, the three
// managers and the tap, and a session that records what it is asked to do.
#include <memory>
#include <string>
#include <vector>

#include "shared/AppState.h"
#include "input/EventTapManager.h"
#include "input/KeyCodes.h"
#include "input/KeyboardShortcutManager.h"
#include "input/KeyboardShortcuts.h"
#include "input/MouseShortcutManager.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/test/FakeGlobalInput.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "store/UserShortcutCache.h"

namespace sprelio::inputtest {

inline constexpr std::uint64_t kNoFlags = 0x100; // the bit every event carries
inline constexpr std::uint64_t kRightOptionDown = 0x100 | event_flags::kOption | 0x40;

// The session as the actions see it: starting records, stopping returns to idle.
class FakeSession final : public ShortcutSession {
public:
    std::optional<AppActivity> status = AppActivity::idle;
    std::vector<std::string> calls;

    std::optional<AppActivity> appStatus() const override { return status; }
    void startRecordingDurationTimer(int minutes) override { calls.push_back("startTimer:" + std::to_string(minutes)); }
    void stopRecordingDurationTimer(const std::string& caller, const std::string& reason) override {
        calls.push_back("stopTimer:" + caller + ":" + reason);
    }
    void onRecordingShortcut(bool isKeyDown, ShortcutAction action, std::optional<std::string> itemId,
                             UserShortcutPtr) override {
        calls.push_back(std::string(isKeyDown ? "start:" : "stop:") + std::string(shortcutActionRawValue(action)) +
                        (itemId ? ":" + *itemId : ""));
        status = isKeyDown ? AppActivity::recording : AppActivity::idle;
    }
    void copyTextAndAskAI(const UserShortcutPtr& s) override {
        calls.push_back("copyTextAndAskAI:" + s->intelligenceActionItemIdString().value_or(""));
    }
    void transcribeLast(const UserShortcutPtr&) override { calls.push_back("transcribeLast"); }
    void showMainWindowTab(ContentViewTab tab) override {
        calls.push_back("show:" + std::string(contentViewTabName(tab)));
    }
    void continuousVoiceToText() override { calls.push_back("continuousVoiceToText"); }
};

// The AppDelegate's part in a save: the event path's copy of the shortcuts follows the store.
class CacheDelegate {
public:
    CacheDelegate(store::UserShortcutCache& cache, store::ManagedObjectContext& context) : context_(context) {
        context_.setDidSave([&cache, &context] { cache.update(context); });
    }
    ~CacheDelegate() { context_.setDidSave({}); }
    CacheDelegate(const CacheDelegate&) = delete;
    CacheDelegate& operator=(const CacheDelegate&) = delete;

private:
    store::ManagedObjectContext& context_;
};

class InputStack {
public:
    platform::test::TestPlatform tp;
    store::AppConstants constants{tp};
    store::MemorySettingsStore defaults;
    store::Settings settings{defaults, constants};
    store::PersistenceController persistence{tp.root(), true};
    store::ManagedObjectContext& context = persistence.container().viewContext();
    platform::test::FakeGlobalInput input;
    KeyboardShortcuts hotKeys{defaults, input};
    QwertyKeyboardLayout layout;
    KeyCodes keyCodes{layout};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    store::UserShortcutCache cache;
    CacheDelegate delegate{cache, context};
    FakeSession session;
    std::vector<std::string> usabilityChecks;
    bool accessibilityWarning = false;
    ShortcutActions actions{session, [this] { return settings.tapAndRecordTimeoutMinutes(); }};
    KeyboardShortcutManager keyboard{KeyboardShortcutManagerDependencies{
        tp.loop(), context, settings, hotKeys, keyCodes, appState, &cache, {},
        [this](const std::string& caller) { usabilityChecks.push_back(caller); }}};
    MouseShortcutManager mouse{MouseShortcutManagerDependencies{
        tp.loop(), appState, &cache, [this] { return tap->shouldHandleAsGlobal(); }, {}}};
    std::unique_ptr<EventTapManager> tap;

    InputStack() {
        keyboard.setActionDispatcher(&actions);
        mouse.setActionDispatcher(&actions);
        tap = std::make_unique<EventTapManager>(EventTapManagerDependencies{
            tp.loop(), input, tp, tp, mirror, keyboard, mouse, "com.sprelio.app",
            [this] { return accessibilityWarning; }, [this] { usabilityChecks.push_back("tap"); }, {}, {}});
    }
    ~InputStack() { tap.reset(); }

    std::vector<std::shared_ptr<store::UserShortcut>> shortcuts() {
        return store::getUserShortcuts(context, true, true);
    }
    // A shortcut handled by the tap on `keyCode`.
    std::shared_ptr<store::UserShortcut> addTapShortcut(std::int64_t keyCode, bool hold,
                                                        std::string action = "recordAndTranscribe",
                                                        std::int64_t order = 0) {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(action);
        s->setModifierEventKeyCode(keyCode);
        s->setMouseEventMouseButton(-1);
        s->setShortcutString(keyString(keyCode));
        s->setOrder(order);
        s->setHold(hold);
        context.save();
        return s;
    }
    std::shared_ptr<store::UserShortcut> addMouseShortcut(std::int64_t button, bool hold, std::int64_t order = 0,
                                                          std::string action = "recordAndTranscribe") {
        auto s = context.insertNew<store::UserShortcut>();
        s->setUuid(Uuid::random());
        s->setShortcutActionRawValue(action);
        s->setModifierEventKeyCode(-1);
        s->setMouseEventMouseButton(button);
        s->setShortcutString("Mouse " + std::to_string(button));
        s->setOrder(order);
        s->setHold(hold);
        context.save();
        return s;
    }
    // What the AppDelegate does after a save: the event path's copy follows the store.
    void refresh() {
        cache.update(context);
        keyboard.updateKeysSetFromUserShortcuts();
        if (tap->isEventTapRegistered()) tap->syncGrabs();
    }
};

} // namespace sprelio::inputtest
