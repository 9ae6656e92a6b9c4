#include "input/EventTapManager.h"

#include <map>
#include <vector>

#include "base/Log.h"
#include "base/TextCase.h"

namespace sprelio {

namespace {

namespace type = platform::global_event_type;

bool isKeyEventType(int t) { return t == type::kKeyDown || t == type::kKeyUp || t == type::kFlagsChanged; }

bool isTestedMouseEventType(int t) {
    switch (t) {
    case type::kLeftMouseDown:
    case type::kLeftMouseUp:
    case type::kRightMouseDown:
    case type::kRightMouseUp:
    case type::kMouseMoved:
    case type::kLeftMouseDragged:
    case type::kRightMouseDragged:
    case type::kOtherMouseDown:
    case type::kOtherMouseUp:
    case type::kOtherMouseDragged:
    case type::kScrollWheel:
        return true;
    default:
        return false;
    }
}

// Combinations the recorder refuses outright: modifier flags → key codes.
const std::vector<std::pair<std::uint64_t, std::vector<std::int64_t>>>& blockedCombinations() {
    static const std::vector<std::pair<std::uint64_t, std::vector<std::int64_t>>> table = {
        {event_flags::kCommand, {48}},
    };
    return table;
}

constexpr std::int64_t kBlockedKeyCode = 49;

} // namespace

std::string recorderString(const platform::GlobalInputEvent& event) {
    std::string out;
    if (event.flags & event_flags::kControl) out += "⌃";
    if (event.flags & event_flags::kOption) out += "⌥";
    if (event.flags & event_flags::kShift) out += "⇧";
    if (event.flags & event_flags::kCommand) out += "⌘";
    if ((event.type == type::kKeyDown || event.type == type::kKeyUp) && event.characters &&
        event.charactersIgnoringModifiers) {
        const std::string name = keyString(event.keyCode);
        if (name.find(std::to_string(event.keyCode)) == std::string::npos)
            out += name;
        else if (event.flags & (event_flags::kOption | event_flags::kControl))
            out += text::uppercased(*event.charactersIgnoringModifiers);
        else
            out += text::uppercased(*event.characters);
    }
    if (out.empty() && (event.flags & event_flags::kFunction)) out = "Fn";
    return out;
}

bool shouldHandleAsGlobal(const platform::Workspace& workspace, const AppStateRealtimeMirror& mirror,
                          const std::string& ownBundleIdentifier) {
    const auto frontmost = workspace.frontmostApplication();
    if (!frontmost || frontmost->bundleIdentifier != ownBundleIdentifier) return true;
    if (!mirror.userIsHoveringContentView()) {
        logDebug("AppHelpers.shouldHandleAsGlobal => false (frontmost + not hovering)");
        return false;
    }
    const auto tab = mirror.selectedContentViewTab();
    const std::string label(contentViewTabLabel(tab));
    if (tab == ContentViewTab::ai || tab == ContentViewTab::sendreport) {
        logDebug("AppHelpers.shouldHandleAsGlobal => true (frontmost + hovered " + label + ")");
        return true;
    }
    logDebug("AppHelpers.shouldHandleAsGlobal => false (frontmost + hovered " + label + ")");
    return false;
}

EventTapManager::EventTapManager(EventTapManagerDependencies dependencies) : deps_(std::move(dependencies)) {
    const auto alive = lifetime_.token();
    deps_.keyboardShortcutManager.keysSetDidChange = [this, alive](const std::set<std::uint16_t>&) {
        if (alive && isEventTapRegistered_) syncGrabs();
    };
}

EventTapManager::~EventTapManager() {
    if (modifierOnlyHotkeyTimer_) modifierOnlyHotkeyTimer_->invalidate();
    deps_.keyboardShortcutManager.keysSetDidChange = nullptr;
    if (isEventTapRegistered_) {
        deps_.input.setEventHandler({});
        releaseGrabs();
    }
    if (isRecording_) deps_.input.ungrabKeyboard();
}

bool EventTapManager::shouldHandleAsGlobal() const {
    return sprelio::shouldHandleAsGlobal(deps_.workspace, deps_.realtimeMirror, deps_.bundleIdentifier);
}

void EventTapManager::registerEventTap(bool userTriggered) {
    logInfo("EventTapManager.registerEventTap()");
    if (deps_.accessibilityWarningActive && deps_.accessibilityWarningActive()) {
        if (!userTriggered) {
            logWarning("EventTapManager.registerEventTap() - Accessibility warning is active, skipping event tap "
                       "registration");
            const auto alive = lifetime_.token();
            deps_.loop.postAfter(kAccessibilityRetryDelay, [this, alive] {
                if (!alive) return;
                logInfo("EventTapManager.registerEventTap() - Retrying event tap registration after delay");
                registerEventTap(false);
            });
            return;
        }
        logWarning("EventTapManager.registerEventTap() - Accessibility warning is active, but user triggered, "
                   "proceeding");
    }
    if (isEventTapRegistered_) {
        logWarning("EventTapManager.registerEventTap() - already registered, skipping");
        return;
    }
    if (deps_.input.isAvailable()) {
        isEventTapRegistered_ = true;
        const auto alive = lifetime_.token();
        deps_.input.setEventHandler([this, alive](const platform::GlobalInputEvent& event) {
            return alive && eventTapCallback(event);
        });
        syncGrabs();
        return;
    }
    isEventTapRegistered_ = false;
    const bool granted = deps_.accessibilityGranted ? deps_.accessibilityGranted() : deps_.input.isAvailable();
    if (granted) {
        logCritical("EventTapManager.eventTap{} - registerEventTap() - Unable to create CGEventTap! (CRITICAL)");
        const auto alive = lifetime_.token();
        deps_.loop.post([this, alive] {
            if (alive && deps_.checkUsability) deps_.checkUsability();
        });
    } else {
        logWarning("EventTapManager.eventTap{} - registerEventTap() - Unable to create CGEventTap! (WARNING)");
    }
}

void EventTapManager::deregisterEventTap() {
    if (!isEventTapRegistered_) {
        logInfo("EventTapManager.deregisterEventTap() - no active event tap to deregister");
        return;
    }
    deps_.input.setEventHandler({});
    releaseGrabs();
    isEventTapRegistered_ = false;
    logInfo("EventTapManager.deregisterEventTap() - event tap successfully removed");
}

void EventTapManager::syncGrabs() {
    std::set<std::uint16_t> keys;
    if (const auto& keysSet = deps_.keyboardShortcutManager.keysSet())
        for (auto code : *keysSet)
            if (!isModifierKeyCode(code)) keys.insert(code);
    const auto buttons = deps_.mouseShortcutManager.boundButtons();

    for (auto it = grabbedKeys_.begin(); it != grabbedKeys_.end();) {
        if (keys.count(*it)) {
            ++it;
            continue;
        }
        deps_.input.ungrabKey(*it);
        it = grabbedKeys_.erase(it);
    }
    for (auto code : keys) {
        if (grabbedKeys_.count(code)) continue;
        if (auto error = deps_.input.grabKey(code))
            logError("EventTapManager.syncGrabs() - unable to grab key " + keyString(code) + ": " +
                     error->localizedDescription);
        else
            grabbedKeys_.insert(code);
    }
    for (auto it = grabbedButtons_.begin(); it != grabbedButtons_.end();) {
        if (buttons.count(*it)) {
            ++it;
            continue;
        }
        deps_.input.ungrabButton(*it);
        it = grabbedButtons_.erase(it);
    }
    for (auto button : buttons) {
        if (grabbedButtons_.count(button)) continue;
        if (auto error = deps_.input.grabButton(button))
            logError("EventTapManager.syncGrabs() - unable to grab mouse button " + std::to_string(button) + ": " +
                     error->localizedDescription);
        else
            grabbedButtons_.insert(button);
    }
}

void EventTapManager::releaseGrabs() {
    for (auto code : grabbedKeys_) deps_.input.ungrabKey(code);
    for (auto button : grabbedButtons_) deps_.input.ungrabButton(button);
    grabbedKeys_.clear();
    grabbedButtons_.clear();
}

bool EventTapManager::eventTapCallback(const platform::GlobalInputEvent& event) {
    if (deps_.accessibilityWarningActive && deps_.accessibilityWarningActive()) {
        logError("EventTapManager.eventTapCallback() - Accessibility permissions are disabled. Deregistering event "
                 "tap to avoid blocking input.");
        deps_.input.setEventHandler({});
        releaseGrabs();
        isEventTapRegistered_ = false;
        return true;
    }
    if (event.type == type::kTapDisabledByTimeout) {
        logError("EventTapManager.eventTapCallback() - ERROR: tapDisabledByTimeout, restarting CGEventTap...");
        const auto alive = lifetime_.token();
        deps_.loop.postAfter(kTimeoutRestartDelay, [this, alive] {
            if (!alive) return;
            isEventTapRegistered_ = false;
            registerEventTap(false);
        });
        return true;
    }
    // While the recorder records, the keyboard is grabbed for it: every key is the recorder's, wherever the
    // pointer is.
    const bool global = !isRecording_ && shouldHandleAsGlobal();
    if (shouldSwallowMouseEvent(event, global)) {
        logInfo("EventTapManager.shouldSwallowMouseEvent() - swallowing mouse event");
        return true;
    }
    if (shouldSwallowKeyEvent(event, global)) {
        logInfo("EventTapManager.shouldSwallowKeyEvent() - swallowing key event");
        return true;
    }
    return false;
}

bool EventTapManager::shouldSwallowMouseEvent(const platform::GlobalInputEvent& event, bool global) {
    if (!isTestedMouseEventType(event.type)) return false;
    if (deps_.hitTestShouldSwallowMouseEvent && deps_.hitTestShouldSwallowMouseEvent(event)) {
        logInfo("EventTapManager.shouldSwallowMouseEvent() - swallowed by HitTestManager - #690");
        return true;
    }
    if (event.type == type::kRightMouseDown || event.type == type::kOtherMouseDown)
        return global ? deps_.mouseShortcutManager.handleGlobalMouseDownEvent(event)
                      : deps_.mouseShortcutManager.handleLocalMouseDownEvent(event);
    if (event.type == type::kRightMouseUp || event.type == type::kOtherMouseUp)
        return global && deps_.mouseShortcutManager.handleGlobalMouseUpEvent(event);
    // Left button and drags serve only the region test.
    return false;
}

bool EventTapManager::shouldSwallowKeyEvent(const platform::GlobalInputEvent& event, bool global) {
    if (!isKeyEventType(event.type)) return false;
    currentEvent_ = event;

    if (global) {
        if (modifierOnlyHotkeyTimer_) modifierOnlyHotkeyTimer_->invalidate();
        if (event.type == type::kFlagsChanged) {
            // A key within the delay cancels this: the modifier was part of a combination. The modifier event
            // itself always goes on.
            const auto alive = lifetime_.token();
            modifierOnlyHotkeyTimer_ = deps_.loop.schedule(kModifierDecisionDelay, [this, alive] {
                if (!alive || !currentEvent_) return;
                deps_.keyboardShortcutManager.handleGlobalKeyPressed(*currentEvent_);
            });
            return false;
        }
        return deps_.keyboardShortcutManager.handleGlobalKeyPressed(event);
    }

    if (!isRecording_) return false;

    if (const auto special = specialKeycode(event.keyCode)) {
        if (event.type == type::kKeyDown) specialKeyCode_ = *special;
        if (onRecorderStateChange) onRecorderStateChange();
        return true;
    }
    specialKeyCode_ = SpecialKeycode::none;
    currentString_.clear();

    for (const auto& [flags, keyCodes] : blockedCombinations())
        for (const auto code : keyCodes)
            if (event.keyCode == code && (event.flags & flags) == flags) {
                logWarning("EventTapManager.shouldSwallowKeyEvent() - blocked combination, swallowing early");
                if (event.keyCode != 51) playBasso();
                if (onRecorderStateChange) onRecorderStateChange();
                return true;
            }

    if ((event.type == type::kKeyDown || event.type == type::kKeyUp) && event.keyCode == kBlockedKeyCode) {
        // The modifiers held are already the recorder's text when the key is refused.
        currentString_ = modifierString(event.flags & ~event_flags::kFunction);
        logWarning("EventTapManager.shouldSwallowKeyEvent() - blocked keyCode " + std::to_string(event.keyCode) +
                   ", swallowing early");
        playBasso();
        if (onRecorderStateChange) onRecorderStateChange();
        return true;
    }
    currentString_ = recorderString(event);

    logDebug("shouldSwallowKeyEvent() - currentString: " + currentString_);
    if (onRecorderStateChange) onRecorderStateChange();
    return true;
}

void EventTapManager::setIsRecording(bool recording) {
    if (recording == isRecording_) return;
    isRecording_ = recording;
    if (recording) {
        savedInputSource_ = deps_.input.currentInputSource();
        logDebug("getCurrentInputSource() - result: " + std::to_string(*savedInputSource_));
        logInfo("EventTapManager.isRecording{} - savedInputSource: " + std::to_string(*savedInputSource_));
        logDebug("getPrimaryInputSource() - result: 0");
        deps_.input.selectInputSource(0);
        keyboardGrabFailed_ = false;
        if (auto error = deps_.input.grabKeyboard()) {
            keyboardGrabFailed_ = true;
            logError("EventTapManager.isRecording{} - unable to grab the keyboard: " + error->localizedDescription);
        }
    } else {
        deps_.input.ungrabKeyboard();
        if (savedInputSource_) {
            deps_.input.selectInputSource(*savedInputSource_);
            savedInputSource_.reset();
        }
    }
}

void EventTapManager::playBasso() {
    const auto alive = lifetime_.token();
    deps_.loop.post([this, alive] {
        if (alive) deps_.sounds.play("Basso");
    });
}

} // namespace sprelio
