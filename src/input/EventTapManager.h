#pragma once
// The one system-wide tap through which every key and mouse event of the session passes. Each event is swallowed,
// passed on, or passed on and acted upon. It serves the overlay's click regions, the hotkeys and the shortcut
// recorder (for which it builds the readable string). It never blocks the user's input: it comes down when the
// desktop withdraws access and restarts after a timeout.
//
// On a desktop that swallows by grabbing, the tap also keeps the grabs in step: the non-modifier keys of keysSet,
// the bound mouse buttons, and the whole keyboard while the recorder records. Modifier keys are never grabbed.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/LifetimeGuard.h"
#include "shared/AppState.h"
#include "input/Key.h"
#include "input/KeyboardShortcutManager.h"
#include "input/MouseShortcutManager.h"
#include "platform/FrontmostApp.h"
#include "platform/GlobalInput.h"
#include "platform/MainLoop.h"
#include "platform/Sounds.h"

namespace sprelio {

// Whether events belong to the hotkeys (true) or to our own window: hotkeys work everywhere except over our
// window, unless it shows a tab that takes dictated text.
bool shouldHandleAsGlobal(const platform::Workspace& workspace, const AppStateRealtimeMirror& mirror,
                          const std::string& ownBundleIdentifier);

// The recorder's text for a key event: the modifiers "⌃⌥⇧⌘" in that order, then the key's name or, for a key
// named only by its code, the character it types; "Fn" for the Function flag alone.
std::string recorderString(const platform::GlobalInputEvent& event);

struct EventTapManagerDependencies {
    platform::MainLoop& loop;
    platform::GlobalInput& input;
    platform::SoundPlayer& sounds;
    platform::Workspace& workspace;
    AppStateRealtimeMirror& realtimeMirror;
    KeyboardShortcutManager& keyboardShortcutManager;
    MouseShortcutManager& mouseShortcutManager;
    std::string bundleIdentifier = "com.sprelio.app";
    // UsabilityManager: whether its warnings hold the accessibility warning, and checkUsability().
    std::function<bool()> accessibilityWarningActive;
    std::function<void()> checkUsability;
    // Whether access is granted, asked without a prompt. Empty: the platform input's availability.
    std::function<bool()> accessibilityGranted;
    // HitTestManager.shouldSwallowMouseEvent: the overlay's click regions. Empty: none.
    std::function<bool(const platform::GlobalInputEvent&)> hitTestShouldSwallowMouseEvent;
};

class EventTapManager {
public:
    static constexpr platform::Duration kModifierDecisionDelay = std::chrono::milliseconds(10);
    static constexpr platform::Duration kAccessibilityRetryDelay = std::chrono::seconds(2);
    static constexpr platform::Duration kTimeoutRestartDelay = std::chrono::milliseconds(100);

    explicit EventTapManager(EventTapManagerDependencies dependencies);
    ~EventTapManager();
    EventTapManager(const EventTapManager&) = delete;
    EventTapManager& operator=(const EventTapManager&) = delete;

    void registerEventTap(bool userTriggered);
    void deregisterEventTap();
    // True when the event is swallowed (the tap returns nothing).
    bool eventTapCallback(const platform::GlobalInputEvent& event);
    bool shouldSwallowKeyEvent(const platform::GlobalInputEvent& event, bool shouldHandleAsGlobal);
    bool shouldSwallowMouseEvent(const platform::GlobalInputEvent& event, bool shouldHandleAsGlobal);
    bool shouldHandleAsGlobal() const;

    // Brings the grabs in line with the shortcuts: keysSet's non-modifier keys and the bound buttons.
    void syncGrabs();

    bool isRecording() const { return isRecording_; }
    void setIsRecording(bool recording);
    bool isEventTapRegistered() const { return isEventTapRegistered_; }
    // The last start of a recording could not take the keyboard (another program holds it).
    bool keyboardGrabFailed() const { return keyboardGrabFailed_; }
    const std::optional<platform::GlobalInputEvent>& currentEvent() const { return currentEvent_; }
    const std::string& currentString() const { return currentString_; }
    SpecialKeycode specialKeyCode() const { return specialKeyCode_; }
    bool hasPendingModifierDecision() const { return modifierOnlyHotkeyTimer_ && modifierOnlyHotkeyTimer_->isValid(); }
    // Observers of currentEvent, currentString and specialKeyCode (the recorder's view).
    std::function<void()> onRecorderStateChange;

private:
    void releaseGrabs();
    void playBasso();

    EventTapManagerDependencies deps_;
    LifetimeGuard lifetime_;
    bool isEventTapRegistered_ = false;
    bool isRecording_ = false;
    bool keyboardGrabFailed_ = false;
    std::optional<platform::GlobalInputEvent> currentEvent_;
    std::string currentString_;
    SpecialKeycode specialKeyCode_ = SpecialKeycode::none;
    std::shared_ptr<platform::Timer> modifierOnlyHotkeyTimer_;
    std::optional<int> savedInputSource_;
    std::set<std::uint16_t> grabbedKeys_;
    std::set<std::int64_t> grabbedButtons_;
};

} // namespace sprelio
