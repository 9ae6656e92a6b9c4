#pragma once
// Turns key events into the actions of the user's shortcuts. Keys that the event tap handles (a modifier alone,
// or any single key taken over by the tap) carry their code in `modifierEventKeyCode` and reach
// handleGlobalKeyPressed; normal combinations are system hot keys named by the shortcut's UUID. Both end in the
// shortcut's keyDownAction / keyUpAction. The manager also keeps the list of shortcuts sound: the default set for a
// fresh store and one empty row at the end for the editor.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/LifetimeGuard.h"
#include "shared/AppState.h"
#include "shared/ShortcutAction.h"
#include "input/Key.h"
#include "input/KeyCodes.h"
#include "input/KeyboardShortcuts.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/GlobalInput.h"
#include "platform/MainLoop.h"
#include "store/UserShortcutCache.h"

namespace sprelio {

namespace store {
class ManagedObjectContext;
class Settings;
class UserShortcut;
} // namespace store

// One row of the default set.
struct DefaultShortcut {
    ShortcutAction action;
    std::optional<std::string> intelligenceActionItemIdString;
    std::optional<std::string> intelligenceActionCategoryRawValue;
    std::optional<std::string> intelligenceActionCompletionType;
    // A normal combination: the key and its CGEventFlags.
    std::optional<std::pair<Key, std::uint64_t>> key;
    std::optional<std::uint16_t> singleModifierKeyCode;
};
// The 13 shortcuts a fresh installation starts with, in order.
const std::vector<DefaultShortcut>& defaultShortcutSet();

struct KeyboardShortcutManagerDependencies {
    platform::MainLoop& loop;
    store::ManagedObjectContext& viewContext;
    store::Settings& settings;
    KeyboardShortcuts& keyboardShortcuts;
    KeyCodes& keyCodes;
    AppState& appState;
    // AppDelegate.cachedUserShortcuts; nullptr stands for a process without its AppDelegate.
    const store::UserShortcutCache* cachedUserShortcuts = nullptr;
    // MigrationHelper.checkAndMigrate(); true when migrations ran. Empty: none.
    std::function<bool()> checkAndMigrate;
    // UsabilityManager.checkUsability(caller). Empty: no check.
    std::function<void(const std::string& caller)> checkUsability;
};

class KeyboardShortcutManager {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;
    using RecordingShortcutCallback =
        std::function<void(bool isKeyDown, ShortcutAction action, std::optional<std::string> itemId, UserShortcutPtr)>;

    explicit KeyboardShortcutManager(KeyboardShortcutManagerDependencies dependencies);
    ~KeyboardShortcutManager();
    KeyboardShortcutManager(const KeyboardShortcutManager&) = delete;
    KeyboardShortcutManager& operator=(const KeyboardShortcutManager&) = delete;

    // Where keyDownAction and keyUpAction of a shortcut go; must outlive this object.
    void setActionDispatcher(ShortcutActionDispatcher* dispatcher) { actions_ = dispatcher; }

    void setup();
    void setupDefaultSet();
    void updateKeysSetFromUserShortcuts();
    void configureKeyboardShortcuts();
    void addMissingShortcutStringsToKeyboardShortcutsShortcuts();
    void addNewShortcutIfNeeded(const UserShortcutPtr& forceAfterLast = nullptr);
    void addNewShortcut();
    void unregisterKeysForShortcut(const UserShortcutPtr& shortcut);

    // True when the event is to be swallowed. Reads the cached shortcuts only, never the store.
    bool handleGlobalKeyPressed(const platform::GlobalInputEvent& event);
    // Stores the key of the shortcut being edited when `recordNextModifier` is set; returns the event.
    platform::GlobalInputEvent handleLocalKeyPressed(const platform::GlobalInputEvent& event);
    void executeActionForKeyCode(std::uint16_t keyCode, bool isKeyDown, const store::UserShortcutCache::Shortcuts& shortcuts);

    // The shortcutString of a normal combination: modifiers and the key's character in the current layout.
    std::string normalShortcutString(const CarbonShortcut& shortcut) const;

    // ---- Fields ----
    int tapAndRecordTimeoutMinutes() const;
    bool isSetupComplete() const { return isSetupComplete_; }
    bool isKeyPressed() const { return isKeyPressed_; }
    std::uint16_t lastKeyPressed() const { return lastKeyPressed_; }
    std::optional<std::uint16_t> currentActionInitiatedWithKeyCode() const { return currentActionInitiatedWithKeyCode_; }
    const std::optional<std::set<std::uint16_t>>& keysSet() const { return keysSet_; }
    // Called with every change of keysSet (the event tap grabs the keys it holds).
    std::function<void(const std::set<std::uint16_t>&)> keysSetDidChange;

    // Set by the AppDelegate.
    RecordingShortcutCallback onRecordingShortcut;
    UserShortcutPtr recordNextModifierEditingUserShortcut;
    bool recordNextModifier = false;

private:
    std::optional<std::vector<UserShortcutPtr>> fetchShortcuts();

    KeyboardShortcutManagerDependencies deps_;
    ShortcutActionDispatcher* actions_ = nullptr;
    LifetimeGuard lifetime_;

    bool isSetupComplete_ = false;
    bool isKeyPressed_ = false;
    std::uint16_t lastKeyPressed_ = 0;
    std::optional<std::uint16_t> currentActionInitiatedWithKeyCode_;
    std::optional<std::set<std::uint16_t>> keysSet_;
};

// The first shortcut in list order (order, then timestamp) for which `matches` holds; nullptr when none.
std::shared_ptr<store::UserShortcut>
firstShortcutInListOrder(const store::UserShortcutCache::Shortcuts& shortcuts,
                         const std::function<bool(const store::UserShortcut&)>& matches);

// Runs a shortcut's action as the event paths do: in a task on the main loop, the shortcut becomes the active one,
// its key-down or key-up action runs, then the usability check in a further task.
void runShortcutActionTask(platform::MainLoop& loop, AppState& appState, ShortcutActionDispatcher* actions,
                           const std::function<void(const std::string&)>& checkUsability,
                           std::shared_ptr<store::UserShortcut> shortcut, bool isDown, std::string caller,
                           LifetimeGuard::Token alive);

} // namespace sprelio
