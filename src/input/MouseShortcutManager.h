#pragma once
// Shortcuts bound to a mouse button other than the left one. The event tap hands it right and other button
// events: on the application's own window a press may be recorded for the shortcut being edited; everywhere else
// a bound button runs its shortcut's action and is kept from the application below, press and release alike.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "base/LifetimeGuard.h"
#include "shared/AppState.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/GlobalInput.h"
#include "platform/MainLoop.h"
#include "store/UserShortcutCache.h"

namespace sprelio {

struct MouseShortcutManagerDependencies {
    platform::MainLoop& loop;
    AppState& appState;
    // AppDelegate.cachedUserShortcuts; nullptr stands for a process without its AppDelegate.
    const store::UserShortcutCache* cachedUserShortcuts = nullptr;
    // AppHelpers.shouldHandleAsGlobal().
    std::function<bool()> shouldHandleAsGlobal;
    // UsabilityManager.checkUsability(caller). Empty: no check.
    std::function<void(const std::string& caller)> checkUsability;
};

class MouseShortcutManager {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;

    explicit MouseShortcutManager(MouseShortcutManagerDependencies dependencies);
    ~MouseShortcutManager();
    MouseShortcutManager(const MouseShortcutManager&) = delete;
    MouseShortcutManager& operator=(const MouseShortcutManager&) = delete;

    void setActionDispatcher(ShortcutActionDispatcher* dispatcher) { actions_ = dispatcher; }

    // A press on our own window: records the button for the shortcut being edited. False lets it through.
    bool handleLocalMouseDownEvent(const platform::GlobalInputEvent& event);
    // True to swallow.
    bool handleGlobalMouseDownEvent(const platform::GlobalInputEvent& event);
    bool handleGlobalMouseUpEvent(const platform::GlobalInputEvent& event);
    void executeActionForMouseButton(std::int64_t button, bool isDown,
                                     const store::UserShortcutCache::Shortcuts& shortcuts);

    // The buttons of the cached shortcuts (what the platform must grab).
    std::set<std::int64_t> boundButtons() const;

    std::optional<double> tsDown() const;
    std::optional<double> tsUp() const;

    bool recordMouseShortcut = false;
    UserShortcutPtr recordMouseShortcutEditingUserShortcut;
    // After a press was recorded for the shortcut being edited (the recorder decides what to do with it).
    std::function<void()> onMouseShortcutRecorded;

private:
    MouseShortcutManagerDependencies deps_;
    ShortcutActionDispatcher* actions_ = nullptr;
    LifetimeGuard lifetime_;
    // syncQueue: orders the two timestamps between the event path and any reader.
    mutable std::mutex syncQueue_;
    std::optional<double> tsDown_;
    std::optional<double> tsUp_;
};

} // namespace sprelio
