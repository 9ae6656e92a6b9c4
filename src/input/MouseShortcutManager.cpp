#include "input/MouseShortcutManager.h"

#include <cstdlib>

#include "base/Log.h"
#include "input/KeyboardShortcutManager.h"
#include "store/Entities.h"

namespace sprelio {

namespace {

bool hasButton(const store::UserShortcutCache::Shortcuts& shortcuts, std::int64_t button) {
    for (const auto& shortcut : shortcuts)
        if (shortcut && shortcut->mouseEventMouseButton() == button) return true;
    return false;
}

} // namespace

MouseShortcutManager::MouseShortcutManager(MouseShortcutManagerDependencies dependencies)
    : deps_(std::move(dependencies)) {}

MouseShortcutManager::~MouseShortcutManager() = default;

bool MouseShortcutManager::handleLocalMouseDownEvent(const platform::GlobalInputEvent& event) {
    if (!recordMouseShortcut) return deps_.shouldHandleAsGlobal ? deps_.shouldHandleAsGlobal() : true;
    if (!recordMouseShortcutEditingUserShortcut) return false;
    if (event.buttonNumber < -32768 || event.buttonNumber > 32767) {
        logCritical("handleLocalMouseDownEvent() - buttonNumber out of range: " + std::to_string(event.buttonNumber));
        flushLog();
        std::abort();
    }
    auto& target = *recordMouseShortcutEditingUserShortcut;
    target.setMouseEventMouseButton(event.buttonNumber);
    target.setModifierEventKeyCode(-1);
    target.setShortcutString("Mouse " + std::to_string(event.buttonNumber));
    if (onMouseShortcutRecorded) {
        // The recorder stores and re-grabs; that must not happen inside the event delivery that is running.
        const auto alive = lifetime_.token();
        deps_.loop.post([this, alive] {
            if (alive && onMouseShortcutRecorded) onMouseShortcutRecorded();
        });
    }
    // The press used for recording goes on to the application.
    return false;
}

bool MouseShortcutManager::handleGlobalMouseDownEvent(const platform::GlobalInputEvent& event) {
    if (!deps_.cachedUserShortcuts) {
        logError("handleGlobalMouseDownEvent() - failed to retrieve cached user shortcuts from appDelegate");
        return false;
    }
    const auto shortcuts = deps_.cachedUserShortcuts->cachedUserShortcuts();
    {
        std::lock_guard lock(syncQueue_);
        tsDown_ = event.timestamp;
        tsUp_.reset();
    }
    {
        std::lock_guard lock(syncQueue_);
        executeActionForMouseButton(event.buttonNumber, true, *shortcuts);
    }
    return hasButton(*shortcuts, event.buttonNumber);
}

bool MouseShortcutManager::handleGlobalMouseUpEvent(const platform::GlobalInputEvent& event) {
    if (!deps_.cachedUserShortcuts) {
        logError("handleGlobalMouseUpEvent() - failed to retrieve cached user shortcuts from appDelegate");
        return false;
    }
    const auto shortcuts = deps_.cachedUserShortcuts->cachedUserShortcuts();
    {
        std::lock_guard lock(syncQueue_);
        tsUp_ = event.timestamp;
        if (tsDown_) {
            executeActionForMouseButton(event.buttonNumber, false, *shortcuts);
            tsDown_.reset();
        }
    }
    return hasButton(*shortcuts, event.buttonNumber);
}

void MouseShortcutManager::executeActionForMouseButton(std::int64_t button, bool isDown,
                                                       const store::UserShortcutCache::Shortcuts& shortcuts) {
    auto shortcut = firstShortcutInListOrder(
        shortcuts, [button](const store::UserShortcut& s) { return s.mouseEventMouseButton() == button; });
    if (!shortcut) return;
    runShortcutActionTask(deps_.loop, deps_.appState, actions_, deps_.checkUsability, std::move(shortcut), isDown,
                          "MouseShortcutManager.executeActionForMouseButton()", lifetime_.token());
}

std::set<std::int64_t> MouseShortcutManager::boundButtons() const {
    std::set<std::int64_t> buttons;
    if (!deps_.cachedUserShortcuts) return buttons;
    for (const auto& shortcut : *deps_.cachedUserShortcuts->cachedUserShortcuts())
        if (shortcut && shortcut->mouseEventMouseButton() > 0) buttons.insert(shortcut->mouseEventMouseButton());
    return buttons;
}

std::optional<double> MouseShortcutManager::tsDown() const {
    std::lock_guard lock(syncQueue_);
    return tsDown_;
}

std::optional<double> MouseShortcutManager::tsUp() const {
    std::lock_guard lock(syncQueue_);
    return tsUp_;
}

} // namespace sprelio
