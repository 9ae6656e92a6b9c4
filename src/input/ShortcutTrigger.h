#pragma once
// A shortcut pressed and released from outside the keyboard: a compositor binding or a desktop's custom shortcut
// runs `sprelio shortcuts press|release|tap`, where no client may watch the whole keyboard. The edge goes in where
// the shortcut's real key would arrive (the event tap's handler for a key the tap takes, the hot key's handlers for
// a combination, the mouse manager for a button), so hold and tap behave as with the key itself.
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "base/Uuid.h"
#include "store/UserShortcutCache.h"

namespace sprelio {

class KeyboardShortcutManager;
class KeyboardShortcuts;
class MouseShortcutManager;

struct ShortcutTriggerDependencies {
    KeyboardShortcutManager& keyboard;
    KeyboardShortcuts& hotKeys;
    MouseShortcutManager& mouse;
    // AppDelegate.cachedUserShortcuts.
    const store::UserShortcutCache& cachedUserShortcuts;
    // Seconds on the steady clock, for the event timestamps the mouse manager orders by.
    std::function<double()> timestamp;
};

class ShortcutTrigger {
public:
    enum class Edge { press, release };

    explicit ShortcutTrigger(ShortcutTriggerDependencies dependencies);

    // Nothing when the edge went in; otherwise why not, in words for the user. A second press without a release in
    // between is a key repeat (a compositor binding without --no-repeat) and goes nowhere, as a held key's
    // repeats never reach the shortcut.
    std::optional<std::string> trigger(const Uuid& shortcut, Edge edge);
    // The dictation shortcut: the first `recordAndTranscribe` shortcut in list order that has a key or button.
    std::optional<Uuid> dictationShortcut() const;

private:
    ShortcutTriggerDependencies deps_;
    std::set<Uuid> pressed_;
};

} // namespace sprelio
