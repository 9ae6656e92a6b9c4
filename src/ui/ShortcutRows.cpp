#include "ui/ShortcutRows.h"

#include <algorithm>

#include "ai/IntelligenceItems.h"
#include "base/Digest.h"
#include "base/Log.h"
#include "base/TextCase.h"
#include "input/KeyNames.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

namespace {

bool runsItem(ShortcutAction action) {
    return action == ShortcutAction::recordAndProcessWithAI || action == ShortcutAction::copyTextAndAskAI;
}

bool recordsSpeech(ShortcutAction action) {
    switch (action) {
    case ShortcutAction::recordAndTranscribe:
    case ShortcutAction::voiceToDialog:
    case ShortcutAction::recordAndProcessWithAI:
    case ShortcutAction::recordAndTranscribeToFlat:
    case ShortcutAction::recordAndTranscribeToCaps:
    case ShortcutAction::transcribeLast: return true;
    default: return false;
    }
}

std::string categoryOfItem(const std::string& itemId) {
    return classifyIntelligenceItem(itemId).kind == IntelligenceItem::Kind::translation ? "translation" : "action";
}

ShortcutRow rowOf(const store::UserShortcut& shortcut) {
    ShortcutRow row;
    row.uuid = shortcut.uuid().value_or(Uuid{});
    row.order = shortcut.order();
    row.actionText = shortcut.shortcutActionRawValue().value_or("");
    row.action = shortcutActionFromRawValue(row.actionText);
    row.itemId = shortcut.intelligenceActionItemIdString();
    row.category = shortcut.intelligenceActionCategoryRawValue();
    row.completionType = shortcut.intelligenceActionCompletionType();
    row.languageCode = shortcut.inputLanguageCode();
    row.hold = shortcut.hold();
    row.holdCapable = store::holdCapableActions().count(row.actionText) > 0;
    row.needsItem = row.action && runsItem(*row.action);
    row.takesLanguage = row.action && recordsSpeech(*row.action);
    row.keys = linuxShortcutName(shortcut.singleModifierDirection(), shortcut.modifierEventKeyCode(),
                                 shortcut.mouseEventMouseButton(), shortcut.shortcutString());
    return row;
}

} // namespace

ShortcutRows::ShortcutRows(ShortcutRowsDependencies dependencies) : deps_(std::move(dependencies)) {
    deps_.recorder.shortcutAfter = [this](const Uuid& uuid) { return nextAfter(uuid); };
}

ShortcutRows::~ShortcutRows() {
    lifetime_.expire();
    deps_.recorder.shortcutAfter = nullptr;
}

std::vector<ShortcutRow> ShortcutRows::rows() const {
    std::vector<ShortcutRow> out;
    for (const auto& shortcut : store::getUserShortcuts(deps_.viewContext, true, true))
        if (shortcut->uuid()) out.push_back(rowOf(*shortcut));
    return out;
}

std::optional<ShortcutRow> ShortcutRows::row(const Uuid& uuid) const {
    if (const auto found = shortcut(uuid)) return rowOf(*found);
    return std::nullopt;
}

std::vector<ShortcutItemChoice> ShortcutRows::itemChoices() const {
    return deps_.itemChoices ? deps_.itemChoices() : std::vector<ShortcutItemChoice>{};
}

std::string ShortcutRows::itemTitle(const std::string& itemId) const {
    for (const auto& choice : itemChoices())
        if (choice.id == itemId) return choice.title;
    if (const auto face = fixedIntelligenceItemFace(classifyIntelligenceItem(itemId)))
        return face->emoji + " " + face->title;
    return itemId;
}

std::shared_ptr<store::UserShortcut> ShortcutRows::shortcut(const Uuid& uuid) const {
    for (const auto& candidate : deps_.viewContext.fetchAll<store::UserShortcut>())
        if (candidate->uuid() == uuid) return candidate;
    return nullptr;
}

std::string ShortcutRows::shortId(const Uuid& uuid) { return text::lowercased(uuid.string()).substr(0, 8); }

std::variant<Uuid, std::string> ShortcutRows::findRow(const std::string& idOrPrefix) const {
    const std::string wanted = text::lowercased(idOrPrefix);
    if (wanted.empty()) return std::string("no shortcut id given");
    std::vector<Uuid> found;
    for (const auto& row : rows())
        if (text::lowercased(row.uuid.string()).rfind(wanted, 0) == 0) found.push_back(row.uuid);
    if (found.empty()) return "no shortcut has the id \"" + idOrPrefix + "\" (see sprelio shortcuts list)";
    if (found.size() > 1) return "more than one shortcut begins with \"" + idOrPrefix + "\"; give more of the id";
    return found.front();
}

std::optional<Uuid> ShortcutRows::nextAfter(const Uuid& uuid) const {
    const auto all = rows();
    for (std::size_t i = 0; i + 1 < all.size(); ++i)
        if (all[i].uuid == uuid) return all[i + 1].uuid;
    return std::nullopt;
}

void ShortcutRows::saved(const std::string& caller) {
    store::cdSaveContext(&deps_.viewContext, caller);
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
    if (onChange) onChange();
}

std::optional<std::string> ShortcutRows::setAction(const Uuid& uuid, ShortcutAction action) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    target->setShortcutActionRawValue(std::string(shortcutActionRawValue(action)));
    if (runsItem(action)) {
        // An AI action without an item of its own starts with the one most people want.
        auto item = target->intelligenceActionItemIdString();
        if (!item || *item == md5Hex("showActionsDialog") || *item == md5Hex("useAsIs") || *item == md5Hex("editor"))
            item = md5Hex("improveWriting");
        target->setIntelligenceActionItemIdString(item);
        target->setIntelligenceActionCategoryRawValue(categoryOfItem(*item));
        if (target->intelligenceActionCompletionType().value_or("").empty())
            target->setIntelligenceActionCompletionType(std::string("paste"));
    }
    logInfo("ShortcutRows.setAction() - " + uuid.string() + ": " + std::string(shortcutActionRawValue(action)));
    saved("setShortcutAction()");
    return std::nullopt;
}

std::optional<std::string> ShortcutRows::setItem(const Uuid& uuid, const std::string& itemId) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    const auto action = shortcutActionFromRawValue(target->shortcutActionRawValue().value_or(""));
    if (!action || !runsItem(*action))
        return std::string("only \"Voice to text and use AI\" and \"Copy text and use AI\" run an AI item");
    target->setIntelligenceActionItemIdString(itemId);
    target->setIntelligenceActionCategoryRawValue(categoryOfItem(itemId));
    if (target->intelligenceActionCompletionType().value_or("").empty())
        target->setIntelligenceActionCompletionType(std::string("paste"));
    saved("setIntelligenceActionCategory()");
    return std::nullopt;
}

std::optional<std::string> ShortcutRows::setCompletionType(const Uuid& uuid, IntelligenceActionCompletionType type) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    target->setIntelligenceActionCompletionType(std::string(intelligenceActionCompletionTypeRawValue(type)));
    saved("setIntelligenceActionCompletionType()");
    return std::nullopt;
}

std::optional<std::string> ShortcutRows::setHold(const Uuid& uuid, bool hold) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    if (hold && !store::holdCapableActions().count(target->shortcutActionRawValue().value_or("")))
        return std::string("only the actions that record speech can be held");
    target->setHold(hold);
    saved("setHold()");
    return std::nullopt;
}

std::optional<std::string> ShortcutRows::setLanguage(const Uuid& uuid, const std::optional<std::string>& code) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    target->setInputLanguageCode(code && !code->empty() ? code : std::nullopt);
    saved("InputLanguageCodePicker");
    return std::nullopt;
}

std::optional<std::string> ShortcutRows::setKey(const Uuid& uuid, const KeySpec& key) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    const auto outcome = deps_.recorder.assign(target, key);
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
    if (onChange) onChange();
    if (outcome == KeyShortcutRecorder::Outcome::stored || outcome == KeyShortcutRecorder::Outcome::cleared)
        return std::nullopt;
    return deps_.recorder.lastMessage().empty() ? std::string("the key was not stored") : deps_.recorder.lastMessage();
}

std::optional<std::string> ShortcutRows::remove(const Uuid& uuid) {
    const auto target = shortcut(uuid);
    if (!target) return std::string("no such shortcut");
    if (deps_.recorder.isRecording()) deps_.recorder.cancel();
    deps_.keyboardShortcutManager.unregisterKeysForShortcut(target);
    deps_.viewContext.deleteObject(target);
    store::cdSaveContext(&deps_.viewContext, "removeShortcut()");
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
    deps_.keyboardShortcutManager.configureKeyboardShortcuts();
    deps_.keyboardShortcutManager.updateKeysSetFromUserShortcuts();
    saved("removeShortcut()");
    return std::nullopt;
}

std::variant<Uuid, std::string> ShortcutRows::add(ShortcutAction action, const std::optional<std::string>& itemId,
                                                  const KeySpec& key) {
    if (itemId && !runsItem(action))
        return std::string("only \"Voice to text and use AI\" and \"Copy text and use AI\" run an AI item");
    // The editor's way: the empty row at the end takes the new shortcut.
    auto all = store::getUserShortcuts(deps_.viewContext, true, true);
    if (all.empty() || !all.back()->shortcutString().value_or("").empty()) {
        deps_.keyboardShortcutManager.addNewShortcut();
        all = store::getUserShortcuts(deps_.viewContext, true, true);
    }
    if (all.empty() || !all.back()->uuid()) return std::string("the new shortcut could not be stored");
    const auto target = all.back();
    const Uuid uuid = *target->uuid();
    setAction(uuid, action);
    if (itemId) setItem(uuid, *itemId);
    if (auto error = setKey(uuid, key)) {
        // Nothing is left behind: the empty row is as it was.
        target->setShortcutActionRawValue(std::string("recordAndTranscribe"));
        target->setIntelligenceActionCategoryRawValue(std::string("action"));
        target->setIntelligenceActionItemIdString(md5Hex("showActionsDialog"));
        target->setIntelligenceActionCompletionType(std::nullopt);
        saved("addShortcut()");
        return *error;
    }
    deps_.keyboardShortcutManager.configureKeyboardShortcuts();
    saved("addShortcut()");
    return uuid;
}

void ShortcutRows::reset() {
    if (deps_.recorder.isRecording()) deps_.recorder.cancel();
    logInfo("ShortcutRows.reset() - restoring the default set");
    for (const auto& shortcut : deps_.viewContext.fetchAll<store::UserShortcut>())
        if (const auto uuid = shortcut->uuid()) {
            deps_.keyboardShortcuts.disable({uuid->string()});
            deps_.keyboardShortcuts.reset({uuid->string()});
        }
    auto& manager = deps_.keyboardShortcutManager;
    manager.setupDefaultSet();
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
    manager.configureKeyboardShortcuts();
    manager.addMissingShortcutStringsToKeyboardShortcutsShortcuts();
    manager.updateKeysSetFromUserShortcuts();
    saved("setupDefaultSet()");
}

} // namespace sprelio
