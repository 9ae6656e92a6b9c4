#include "input/KeyboardShortcutManager.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "store/DatabaseHelpers.h"
#include "base/Log.h"
#include "base/Digest.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

namespace type = platform::global_event_type;
using event_flags::kControl;
using event_flags::kOption;
using event_flags::kShift;

[[noreturn]] void fatal(const std::string& message) {
    logCritical(message);
    flushLog();
    std::abort();
}

DefaultShortcut actionRow(ShortcutAction action, std::string_view itemCase, Key key, std::uint64_t flags) {
    return DefaultShortcut{action, md5Hex(itemCase), std::string("action"), std::string("paste"),
                           std::make_pair(key, flags), std::nullopt};
}

std::string describeKeysSet(const std::set<std::uint16_t>& keys) {
    std::string out = "[";
    for (auto it = keys.begin(); it != keys.end(); ++it) {
        if (it != keys.begin()) out += ", ";
        out += std::to_string(*it);
    }
    return out + "]";
}

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

const std::vector<DefaultShortcut>& defaultShortcutSet() {
    using A = ShortcutAction;
    static const std::vector<DefaultShortcut> rows = {
        DefaultShortcut{A::recordAndTranscribe, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                        std::uint16_t{61}},
        actionRow(A::recordAndProcessWithAI, "addEmoji", Key::s, kOption),
        actionRow(A::copyTextAndAskAI, "addEmoji", Key::s, kOption | kShift),
        actionRow(A::recordAndProcessWithAI, "improveWriting", Key::w, kOption),
        actionRow(A::copyTextAndAskAI, "improveWriting", Key::w, kOption | kShift),
        actionRow(A::recordAndProcessWithAI, "lowercaseFirstChar", Key::l, kOption),
        actionRow(A::copyTextAndAskAI, "lowercaseAll", Key::l, kOption | kShift),
        actionRow(A::recordAndProcessWithAI, "uppercaseAll", Key::u, kOption),
        actionRow(A::recordAndProcessWithAI, "uppercaseFirstChar", Key::u, kOption | kShift),
        actionRow(A::copyTextAndAskAI, "uppercaseAll", Key::u, kOption | kControl),
        DefaultShortcut{A::recordAndProcessWithAI, md5Hex("es"), std::string("translation"), std::string("paste"),
                        std::make_pair(Key::t, kOption), std::nullopt},
        DefaultShortcut{A::copyTextAndAskAI, md5Hex("en"), std::string("translation"), std::string("dialog"),
                        std::make_pair(Key::t, kOption | kShift), std::nullopt},
        DefaultShortcut{A::showHistory, std::nullopt, std::nullopt, std::nullopt, std::make_pair(Key::h, kOption),
                        std::nullopt},
    };
    return rows;
}

std::shared_ptr<store::UserShortcut>
firstShortcutInListOrder(const store::UserShortcutCache::Shortcuts& shortcuts,
                         const std::function<bool(const store::UserShortcut&)>& matches) {
    // The cache is unordered; the list order is `order`, then `timestamp` (nil first).
    std::shared_ptr<store::UserShortcut> best;
    for (const auto& shortcut : shortcuts) {
        if (!shortcut || !matches(*shortcut)) continue;
        if (!best) {
            best = shortcut;
            continue;
        }
        const auto order = shortcut->order(), bestOrder = best->order();
        if (order < bestOrder ||
            (order == bestOrder && shortcut->timestamp().value_or(-1e300) < best->timestamp().value_or(-1e300)))
            best = shortcut;
    }
    return best;
}

void runShortcutActionTask(platform::MainLoop& loop, AppState& appState, ShortcutActionDispatcher* actions,
                           const std::function<void(const std::string&)>& checkUsability,
                           std::shared_ptr<store::UserShortcut> shortcut, bool isDown, std::string caller,
                           LifetimeGuard::Token alive) {
    loop.post([&loop, &appState, actions, checkUsability, shortcut = std::move(shortcut), isDown,
               caller = std::move(caller), alive = std::move(alive)] {
        if (!alive) return;
        appState.setCurrentlyActiveUserShortcut(shortcut);
        if (!actions)
            logError(caller + " - no action dispatcher, the shortcut does nothing");
        else if (isDown)
            actions->keyDownAction(shortcut);
        else
            actions->keyUpAction(shortcut);
        if (checkUsability) loop.post([checkUsability, caller] { checkUsability(caller); });
    });
}

KeyboardShortcutManager::KeyboardShortcutManager(KeyboardShortcutManagerDependencies dependencies)
    : deps_(std::move(dependencies)) {
    logInfo("KeyboardShortcutManager.init() - initialized, waiting for setup() to be called");
}

KeyboardShortcutManager::~KeyboardShortcutManager() = default;

int KeyboardShortcutManager::tapAndRecordTimeoutMinutes() const { return deps_.settings.tapAndRecordTimeoutMinutes(); }

std::optional<std::vector<KeyboardShortcutManager::UserShortcutPtr>> KeyboardShortcutManager::fetchShortcuts() {
    return store::cdGetEntity<store::UserShortcut>(deps_.viewContext, store::userShortcutSortDescriptors());
}

std::string KeyboardShortcutManager::normalShortcutString(const CarbonShortcut& shortcut) const {
    return sprelio::normalShortcutString(shortcut.eventFlags(),
                                         deps_.keyCodes.character(static_cast<std::uint16_t>(shortcut.carbonKeyCode)));
}

void KeyboardShortcutManager::setup() {
    if (isSetupComplete_) {
        logWarning("KeyboardShortcutManager.setup() - already completed, skipping");
        return;
    }
    logInfo("KeyboardShortcutManager.setup() - starting setup");
    if (deps_.checkAndMigrate && deps_.checkAndMigrate())
        logInfo("KeyboardShortcutManager.setup() - migrationsOccured: true");
    updateKeysSetFromUserShortcuts();
    if (const auto shortcuts = fetchShortcuts()) {
        const bool unconfigured =
            shortcuts->empty() ||
            (shortcuts->size() == 1 && shortcuts->front()->shortcutString().value_or("").empty());
        if (unconfigured) {
            logInfo("setup() - no shortcuts configured, creating default set");
            setupDefaultSet();
        }
    }
    configureKeyboardShortcuts();
    addMissingShortcutStringsToKeyboardShortcutsShortcuts();
    isSetupComplete_ = true;
    logInfo("KeyboardShortcutManager.setup() - setup completed");
}

void KeyboardShortcutManager::setupDefaultSet() {
    auto& context = deps_.viewContext;
    try {
        for (const auto& shortcut : context.fetchAll<store::UserShortcut>()) context.deleteObject(shortcut);
        cdSaveContext(&context, "setupDefaultSet()");
    } catch (const std::exception&) {
        logWarning("setupDefaultSet() - error clearing database");
    }

    for (const auto& row : defaultShortcutSet()) {
        auto record = context.insertNew<store::UserShortcut>();
        const auto uuid = Uuid::random();
        record->setUuid(uuid);
        record->setTimestamp(nowSeconds());
        record->setShortcutActionRawValue(std::string(shortcutActionRawValue(row.action)));
        record->setIntelligenceActionItemIdString(row.intelligenceActionItemIdString);
        record->setIntelligenceActionCategoryRawValue(row.intelligenceActionCategoryRawValue);
        record->setIntelligenceActionCompletionType(row.intelligenceActionCompletionType);
        // "None" is -1 for both fields; a new record must not claim key code 0 or button 0.
        record->setModifierEventKeyCode(-1);
        record->setMouseEventMouseButton(-1);
        if (row.key) {
            const auto shortcut = CarbonShortcut::fromEvent(deps_.keyCodes.keyCode(row.key->first), row.key->second);
            deps_.keyboardShortcuts.setShortcut(shortcut, uuid.string());
            record->setShortcutString(normalShortcutString(shortcut));
        } else if (row.singleModifierKeyCode) {
            const std::int64_t code = *row.singleModifierKeyCode;
            if (code < 0) fatal("setupDefaultSet() - negative singleModifierKeyCode");
            record->setModifierEventKeyCode(code);
            record->setSingleModifierDirection(std::string(directionRawValue(singleModifierDirection(code))));
            record->setShortcutString(keyString(code));
        } else {
            logError("setupDefaultSet() - invalid shortcut definition: missing key or singleModifierKeyCode");
        }
        updateKeysSetFromUserShortcuts();
    }
    cdSaveContext(&context, "setupDefaultSet()");
}

void KeyboardShortcutManager::updateKeysSetFromUserShortcuts() {
    const auto shortcuts = fetchShortcuts();
    if (!shortcuts) {
        logError("updateKeysSetFromUserShortcuts() - failed to retrieve user shortcuts from database");
        return;
    }
    std::set<std::uint16_t> keys;
    for (const auto& shortcut : *shortcuts) {
        const auto code = shortcut->modifierEventKeyCode();
        if (code == -1) continue;
        // A stored value no key can have is damage in the store, not a reason to stop dictation: that shortcut's
        // key is left out.
        if (code < 0 || code > 0xffff) {
            logError("updateKeysSetFromUserShortcuts() - invalid modifierEventKeyCode " + std::to_string(code) +
                     ", the shortcut's key is left out");
            continue;
        }
        keys.insert(static_cast<std::uint16_t>(code));
    }
    keysSet_ = keys;
    logInfo("updateKeysSetFromUserShortcuts() - keysSet: " + describeKeysSet(keys));
    if (keysSetDidChange) keysSetDidChange(keys);
}

void KeyboardShortcutManager::configureKeyboardShortcuts() {
    const auto shortcuts = fetchShortcuts();
    if (!shortcuts) {
        logError("configureKeyboardShortcuts() - failed to retrieve user shortcuts from database");
        return;
    }
    deps_.keyboardShortcuts.removeAllHandlers();
    for (const auto& shortcut : *shortcuts) {
        const auto raw = shortcut->shortcutActionRawValue();
        if (!raw) {
            logError("onChange(of: userShortcuts.count) - could not unwrap shortcut.shortcutActionRawValue, this will "
                     "need to be handled in code!!!");
            continue;
        }
        const auto uuid = shortcut->uuid();
        if (!uuid) {
            logError("configureKeyboardShortcuts() - UserShortcut without uuid, left without keys");
            continue;
        }
        const std::string name = uuid->string();
        const auto alive = lifetime_.token();
        deps_.keyboardShortcuts.onKeyDown(name, [this, alive, raw, shortcut] {
            if (!alive || !actions_) return;
            actions_->keyDownAction(shortcut);
        });
        deps_.keyboardShortcuts.onKeyUp(name, [this, alive, raw, shortcut] {
            if (!alive || !actions_) return;
            actions_->keyUpAction(shortcut);
        });
    }
    addNewShortcutIfNeeded();
}

void KeyboardShortcutManager::addNewShortcutIfNeeded(const UserShortcutPtr& forceAfterLast) {
    logInfo("addNewShortcutIfNeeded() - forceAfterLast: " +
            (forceAfterLast ? "Optional(" + forceAfterLast->description() + ")" : std::string("nil")));
    const auto shortcuts = fetchShortcuts();
    if (!shortcuts) return;
    if (shortcuts->empty()) {
        addNewShortcut();
        return;
    }
    const auto& last = shortcuts->back();
    if (!last->shortcutString().value_or("").empty()) {
        addNewShortcut();
        return;
    }
    if (forceAfterLast && forceAfterLast == last) addNewShortcut();
}

void KeyboardShortcutManager::addNewShortcut() {
    const auto shortcuts = fetchShortcuts().value_or(std::vector<UserShortcutPtr>{});
    std::int64_t highest = -1;
    for (const auto& shortcut : shortcuts) highest = std::max(highest, shortcut->order());
    const std::int64_t order = highest + 1;
    if (order > 32767) fatal("addNewShortcut() - order beyond the 16-bit range: " + std::to_string(order));

    auto& context = deps_.viewContext;
    auto record = context.insertNew<store::UserShortcut>();
    record->setUuid(Uuid::random());
    record->setShortcutActionRawValue(std::string("recordAndTranscribe"));
    record->setTimestamp(nowSeconds());
    record->setIntelligenceActionCategoryRawValue(std::string("action"));
    record->setIntelligenceActionItemIdString(md5Hex("showActionsDialog"));
    record->setModifierEventKeyCode(-1);
    record->setMouseEventMouseButton(-1);
    record->setOrder(order);
    try {
        context.save();
        logInfo("addNewShortcut() - New shortcut successfully added with order: " + std::to_string(order));
    } catch (const store::StoreError& error) {
        logError("addNewShortcut() - Failed to save new shortcut: " + error.error().debugDescription());
    } catch (const std::exception& error) {
        logError(std::string("addNewShortcut() - Failed to save new shortcut: ") + error.what());
    }
}

void KeyboardShortcutManager::addMissingShortcutStringsToKeyboardShortcutsShortcuts() {
    const auto shortcuts = fetchShortcuts();
    if (!shortcuts) {
        logError("addMissingShortcutStringsToKeyboardShortcutsShortcuts() - failed to retrieve user shortcuts from "
                 "database");
        return;
    }
    for (const auto& shortcut : *shortcuts) {
        if (shortcut->modifierEventKeyCode() != -1 || shortcut->mouseEventMouseButton() != -1) continue;
        if (!shortcut->shortcutString().value_or("").empty()) continue;
        const auto uuid = shortcut->uuid();
        if (!uuid) continue;
        if (const auto stored = deps_.keyboardShortcuts.getShortcut(uuid->string()))
            shortcut->setShortcutString(normalShortcutString(*stored));
    }
    cdSaveContext(&deps_.viewContext, "addMissingShortcutStringsToKeyboardShortcutsShortcuts()");
}

void KeyboardShortcutManager::unregisterKeysForShortcut(const UserShortcutPtr& shortcut) {
    if (!shortcut) return;
    shortcut->setModifierEventKeyCode(-1);
    cdSaveContext(&deps_.viewContext, "unregisterKeysForShortcut(_:)");
    updateKeysSetFromUserShortcuts();
    const auto uuid = shortcut->uuid();
    if (!uuid) {
        logError("unregisterKeysForShortcut(_:) - UserShortcut without uuid");
        return;
    }
    deps_.keyboardShortcuts.disable({uuid->string()});
    deps_.keyboardShortcuts.reset({uuid->string()});
}

bool KeyboardShortcutManager::handleGlobalKeyPressed(const platform::GlobalInputEvent& event) {
    if (event.type != type::kKeyDown && event.type != type::kKeyUp && event.type != type::kFlagsChanged) {
        logWarning("handleGlobalKeyPressed() - NSEvent contains no flags or keys, skipping event");
        return false;
    }
    if (!deps_.cachedUserShortcuts) {
        logError("handleGlobalKeyPressed() - failed to retrieve cached user shortcuts from appDelegate");
        return false;
    }
    const auto shortcuts = deps_.cachedUserShortcuts->cachedUserShortcuts();
    const std::uint16_t keyCode = event.keyCode;

    bool swallow = false;
    if (currentActionInitiatedWithKeyCode_ == keyCode && event.type == type::kKeyUp) {
        currentActionInitiatedWithKeyCode_.reset();
        swallow = true;
        isKeyPressed_ = false;
        executeActionForKeyCode(keyCode, false, *shortcuts);
    }
    if (!keysSet_) return false;
    if (!keysSet_->count(keyCode)) return swallow;

    lastKeyPressed_ = keyCode;
    bool isDown;
    if (event.type == type::kFlagsChanged)
        // No modifier left, or only the Caps Lock state.
        isDown = event.flags != 0x100 && event.flags != 0x10100;
    else
        isDown = event.type == type::kKeyDown;
    isKeyPressed_ = isDown;

    // A key up of a running action arrives here too and runs its key-up a second time; the action handlers are
    // made for that (the session refuses a stop without a recording).
    executeActionForKeyCode(keyCode, isDown, *shortcuts);
    currentActionInitiatedWithKeyCode_ = keyCode;
    return true;
}

void KeyboardShortcutManager::executeActionForKeyCode(std::uint16_t keyCode, bool isKeyDown,
                                                      const store::UserShortcutCache::Shortcuts& shortcuts) {
    logInfo("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: " + std::to_string(keyCode) +
            ", isKeyDown: " + (isKeyDown ? "true" : "false"));
    auto shortcut = firstShortcutInListOrder(shortcuts, [keyCode](const store::UserShortcut& s) {
        const auto code = s.modifierEventKeyCode();
        return code >= 0 && code == keyCode;
    });
    if (!shortcut) return;
    runShortcutActionTask(deps_.loop, deps_.appState, actions_, deps_.checkUsability, std::move(shortcut), isKeyDown,
                          "KeyboardShortcutManager.executeActionForKeyCode()", lifetime_.token());
}

platform::GlobalInputEvent KeyboardShortcutManager::handleLocalKeyPressed(const platform::GlobalInputEvent& event) {
    if (event.type != type::kKeyDown && event.type != type::kKeyUp && event.type != type::kFlagsChanged) {
        logWarning("handleLocalKeyPressed() - NSEvent contains no flags or keys, skipping event");
        return event;
    }
    if (!recordNextModifier) return event;
    const auto shortcuts = fetchShortcuts();
    if (!shortcuts) {
        logError("handleLocalKeyPressed() - failed to retrieve user shortcuts from database");
        return event;
    }
    const std::int64_t keyCode = event.keyCode;
    for (const auto& shortcut : *shortcuts)
        if (shortcut->modifierEventKeyCode() == keyCode) {
            logInfo("handleLocalKeyPressed() - event.keyCode is already in use, will not be stored!");
            return event;
        }
    if (keyCode == 49) {
        logInfo("handleLocalKeyPressed() - blocked keyCode: (" + std::to_string(keyCode) + "), SKIPPING");
        recordNextModifier = false;
        recordNextModifierEditingUserShortcut.reset();
        return event;
    }
    if (!recordNextModifierEditingUserShortcut) {
        logError("handleLocalKeyPressed() - no shortcut to record the key for");
        recordNextModifier = false;
        return event;
    }
    recordNextModifierEditingUserShortcut->setMouseEventMouseButton(-1);
    recordNextModifierEditingUserShortcut->setModifierEventKeyCode(keyCode);
    cdSaveContext(&deps_.viewContext, "handleLocalKeyPressed(with:)");
    recordNextModifier = false;
    recordNextModifierEditingUserShortcut.reset();
    updateKeysSetFromUserShortcuts();
    if (keysSet_ && keysSet_->count(event.keyCode))
        logInfo("handleLocalKeyPressed() - set keyCode " + std::to_string(keyCode) + " as recording key!");
    return event;
}

} // namespace sprelio
