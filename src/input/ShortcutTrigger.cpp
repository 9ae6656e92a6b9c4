#include "input/ShortcutTrigger.h"

#include "base/Log.h"
#include "input/Key.h"
#include "input/KeyboardShortcutManager.h"
#include "input/KeyboardShortcuts.h"
#include "input/MouseShortcutManager.h"
#include "platform/GlobalInput.h"
#include "shared/ShortcutAction.h"
#include "store/Entities.h"

namespace sprelio {

namespace {

namespace type = platform::global_event_type;

// Every event carries 0x100; a modifier's own flag is set while it is down.
constexpr std::uint64_t kNonCoalesced = 0x100;

std::uint64_t modifierFlag(std::int64_t keyCode) {
    switch (keyCode) {
    case 54: case 55: return event_flags::kCommand;
    case 56: case 60: return event_flags::kShift;
    case 58: case 61: return event_flags::kOption;
    case 59: case 62: return event_flags::kControl;
    case 63: return event_flags::kFunction;
    default: return 0; // Caps Lock: its state, not its being held, is what flags tell
    }
}

bool hasKeyOrButton(const store::UserShortcut& shortcut, const KeyboardShortcuts& hotKeys) {
    if (shortcut.modifierEventKeyCode() >= 0 || shortcut.mouseEventMouseButton() >= 0) return true;
    const auto uuid = shortcut.uuid();
    return uuid && hotKeys.getShortcut(uuid->string()).has_value();
}

} // namespace

ShortcutTrigger::ShortcutTrigger(ShortcutTriggerDependencies dependencies) : deps_(std::move(dependencies)) {}

std::optional<Uuid> ShortcutTrigger::dictationShortcut() const {
    const auto shortcuts = deps_.cachedUserShortcuts.cachedUserShortcuts();
    if (!shortcuts) return std::nullopt;
    const auto found = firstShortcutInListOrder(*shortcuts, [this](const store::UserShortcut& s) {
        return s.shortcutActionRawValue() == std::string(shortcutActionRawValue(ShortcutAction::recordAndTranscribe)) &&
               hasKeyOrButton(s, deps_.hotKeys);
    });
    if (!found) return std::nullopt;
    return found->uuid();
}

std::optional<std::string> ShortcutTrigger::trigger(const Uuid& uuid, Edge edge) {
    const bool down = edge == Edge::press;
    const auto shortcuts = deps_.cachedUserShortcuts.cachedUserShortcuts();
    std::shared_ptr<store::UserShortcut> shortcut;
    if (shortcuts)
        for (const auto& s : *shortcuts)
            if (s && s->uuid() == uuid) shortcut = s;
    if (!shortcut) {
        logError("ShortcutTrigger.trigger() - no shortcut " + uuid.string());
        return "there is no such shortcut";
    }
    if (down && !pressed_.insert(uuid).second) {
        logInfo("ShortcutTrigger.trigger() - " + uuid.string() + " is already pressed: a repeat, ignored");
        return "the shortcut is already pressed; release it first (sprelio shortcuts release)";
    }
    if (!down) pressed_.erase(uuid);
    logInfo("ShortcutTrigger.trigger() - " + std::string(down ? "press" : "release") + " of " + uuid.string());

    if (const auto keyCode = shortcut->modifierEventKeyCode(); keyCode >= 0) {
        // The event the tap hands over for this key: a flags change for a modifier, a key event otherwise.
        platform::GlobalInputEvent event;
        event.keyCode = static_cast<std::uint16_t>(keyCode);
        event.timestamp = deps_.timestamp();
        if (isModifierKeyCode(keyCode) && modifierFlag(keyCode) != 0) {
            event.type = type::kFlagsChanged;
            event.flags = kNonCoalesced | (down ? modifierFlag(keyCode) : 0);
        } else {
            event.type = down ? type::kKeyDown : type::kKeyUp;
            event.flags = kNonCoalesced;
        }
        deps_.keyboard.handleGlobalKeyPressed(event);
        return std::nullopt;
    }
    if (const auto button = shortcut->mouseEventMouseButton(); button >= 0) {
        platform::GlobalInputEvent event;
        event.buttonNumber = button;
        event.timestamp = deps_.timestamp();
        if (button == 0) event.type = down ? type::kLeftMouseDown : type::kLeftMouseUp;
        else if (button == 1) event.type = down ? type::kRightMouseDown : type::kRightMouseUp;
        else event.type = down ? type::kOtherMouseDown : type::kOtherMouseUp;
        if (down) deps_.mouse.handleGlobalMouseDownEvent(event);
        else deps_.mouse.handleGlobalMouseUpEvent(event);
        return std::nullopt;
    }
    const std::string name = uuid.string();
    if (!deps_.hotKeys.getShortcut(name)) {
        logWarning("ShortcutTrigger.trigger() - shortcut " + name + " has no key");
        return "the shortcut has no key yet; give it one first (sprelio shortcuts set ID --key KEY)";
    }
    // As the system hot key reports it: the handlers of its name, whether or not the desktop took the combination.
    if (down) deps_.hotKeys.press(name);
    else deps_.hotKeys.release(name);
    return std::nullopt;
}

} // namespace sprelio
