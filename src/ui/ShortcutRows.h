#pragma once
// The rows of the hotkey editor: each shortcut with its action, its AI item or language, hold or tap, and its
// keys as a person reads them; and what can be done to them. Every change is stored and live at once: the event
// paths read the new cache, the combinations are registered again and the tap's keys follow.
//
// The command line uses the same rows, so `sprelio shortcuts` and the editor obey the same rules.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/LifetimeGuard.h"
#include "base/Uuid.h"
#include "input/KeyShortcutRecorder.h"
#include "input/KeyboardShortcutManager.h"
#include "shared/ShortcutAction.h"

namespace sprelio {

namespace store {
class ManagedObjectContext;
class UserShortcut;
} // namespace store

struct ShortcutRow {
    Uuid uuid;
    std::int64_t order = 0;
    std::optional<ShortcutAction> action; // none: the stored text names no action
    std::string actionText;               // the stored action text, for an unknown one
    std::optional<std::string> itemId;
    std::optional<std::string> category;
    std::optional<std::string> completionType;
    std::optional<std::string> languageCode;
    bool hold = false;
    bool holdCapable = false;
    // Whether the action runs an AI item (and so needs one), or records speech (and so takes a language).
    bool needsItem = false;
    bool takesLanguage = false;
    std::string keys; // "Right Alt", "Alt+S", "Button 8"; empty without a key
    bool isEmpty() const { return keys.empty(); }
};

// An AI item as the pickers offer it.
struct ShortcutItemChoice {
    std::string id;
    std::string title; // emoji and title
    bool isTranslation = false;
};

struct ShortcutRowsDependencies {
    store::ManagedObjectContext& viewContext;
    KeyboardShortcutManager& keyboardShortcutManager;
    KeyboardShortcuts& keyboardShortcuts;
    KeyShortcutRecorder& recorder;
    // The AI items a shortcut can run, in menu order.
    std::function<std::vector<ShortcutItemChoice>()> itemChoices;
    // AppDelegate.updateCachedUserShortcuts().
    std::function<void()> updateCachedUserShortcuts;
};

class ShortcutRows {
public:
    explicit ShortcutRows(ShortcutRowsDependencies dependencies);
    ~ShortcutRows();
    ShortcutRows(const ShortcutRows&) = delete;
    ShortcutRows& operator=(const ShortcutRows&) = delete;

    // In list order; the last one is the empty row that takes a new shortcut.
    std::vector<ShortcutRow> rows() const;
    std::optional<ShortcutRow> row(const Uuid& uuid) const;
    std::vector<ShortcutItemChoice> itemChoices() const;
    // An item's emoji and title: among the choices, else from the fixed catalogue, else the id itself.
    std::string itemTitle(const std::string& itemId) const;
    // A short id a person can type: the first eight characters of the UUID, in lower case.
    static std::string shortId(const Uuid& uuid);
    // The shortcut of a full UUID or of a unique beginning of one; an error text otherwise.
    std::variant<Uuid, std::string> findRow(const std::string& idOrPrefix) const;

    // Each returns an error text when nothing was changed.
    std::optional<std::string> setAction(const Uuid& uuid, ShortcutAction action);
    std::optional<std::string> setItem(const Uuid& uuid, const std::string& itemId);
    std::optional<std::string> setCompletionType(const Uuid& uuid, IntelligenceActionCompletionType type);
    std::optional<std::string> setHold(const Uuid& uuid, bool hold);
    // None: the languages of the settings.
    std::optional<std::string> setLanguage(const Uuid& uuid, const std::optional<std::string>& code);
    std::optional<std::string> setKey(const Uuid& uuid, const KeySpec& key);
    std::optional<std::string> remove(const Uuid& uuid);
    // A new shortcut with its key; its UUID, or an error text (and nothing is left behind).
    std::variant<Uuid, std::string> add(ShortcutAction action, const std::optional<std::string>& itemId,
                                        const KeySpec& key);
    // The default set in place of every shortcut.
    void reset();

    // The shortcut that follows in list order (the recorder's Tab).
    std::optional<Uuid> nextAfter(const Uuid& uuid) const;
    std::shared_ptr<store::UserShortcut> shortcut(const Uuid& uuid) const;

    // After every change made here or by the recorder.
    std::function<void()> onChange;
    KeyShortcutRecorder& recorder() { return deps_.recorder; }
    // True while these rows (and their recorder) are there: a view that may outlive them asks first.
    LifetimeGuard::Token alive() const { return lifetime_.token(); }

private:
    void saved(const std::string& caller);

    ShortcutRowsDependencies deps_;
    LifetimeGuard lifetime_;
};


} // namespace sprelio
