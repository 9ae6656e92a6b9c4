#pragma once
// Shortcuts that live for one dictation started from the floating button's menu. They are never inserted into a
// context, so nothing ever saves them.
#include <memory>
#include <optional>
#include <string>

#include "shared/ShortcutAction.h"

namespace sprelio {

namespace store {
class UserShortcut;
}

// A menu item as the builder needs it: its id, whether it is itself a recording action, and the category its kind
// stands for ("action" or "translation").
struct SessionMenuItem {
    std::string itemId;
    std::optional<ShortcutAction> recordingAction;
    std::string category = "action";
};

class SessionShortcutBuilder {
public:
    // Dictation without AI: the use-as-is item, pasted, tap mode.
    static std::shared_ptr<store::UserShortcut> recordAndTranscribe();
    // The base shortcut's attributes, turned into a shortcut for the item.
    static std::shared_ptr<store::UserShortcut> copyForItem(const store::UserShortcut& base,
                                                            const SessionMenuItem& item);
};

} // namespace sprelio
