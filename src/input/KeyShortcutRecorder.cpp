#include "input/KeyShortcutRecorder.h"

#include "base/Log.h"
#include "base/TextCase.h"
#include "store/DatabaseHelpers.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

namespace {

namespace type = platform::global_event_type;

// Every event carries this bit; a release of the last modifier reads exactly it.
constexpr std::uint64_t kAlwaysSet = 0x100;

// The flag a modifier key sets while it is down.
std::uint64_t flagOfModifierKey(std::uint16_t keyCode) {
    switch (keyCode) {
    case 54:
    case 55: return event_flags::kCommand;
    case 56:
    case 60: return event_flags::kShift;
    case 57: return 0x10000; // Caps Lock
    case 58:
    case 61: return event_flags::kOption;
    case 59:
    case 62: return event_flags::kControl;
    case 63: return event_flags::kFunction;
    default: return 0;
    }
}

std::size_t characterCount(const std::string& text) { return text::graphemes(text).size(); }

bool holdsMouseWord(const std::string& text) { return text::lowercased(text).find("mouse") != std::string::npos; }

std::string directionOfEvent(const platform::GlobalInputEvent& event) {
    return std::string(directionRawValue(singleModifierDirection(event.keyCode)));
}

} // namespace

KeyShortcutRecorder::KeyShortcutRecorder(KeyShortcutRecorderDependencies dependencies)
    : deps_(std::move(dependencies)) {}

KeyShortcutRecorder::~KeyShortcutRecorder() {
    // A row that goes away while it records gives the keyboard back.
    cancel();
    if (deps_.eventTapManager) deps_.eventTapManager->onRecorderStateChange = nullptr;
    if (deps_.mouseShortcutManager) deps_.mouseShortcutManager->onMouseShortcutRecorded = nullptr;
}

std::string KeyShortcutRecorder::name() const {
    const auto uuid = shortcut_ ? shortcut_->uuid() : std::nullopt;
    return uuid ? uuid->string() : std::string();
}

KeyShortcutRecorder::Snapshot KeyShortcutRecorder::snapshotOf(const store::UserShortcut& shortcut) const {
    Snapshot snapshot;
    snapshot.shortcutString = shortcut.shortcutString();
    snapshot.modifierEventKeyCode = shortcut.modifierEventKeyCode();
    snapshot.mouseEventMouseButton = shortcut.mouseEventMouseButton();
    snapshot.singleModifierDirection = shortcut.singleModifierDirection();
    if (const auto uuid = shortcut.uuid()) snapshot.carbon = deps_.keyboardShortcuts.getShortcut(uuid->string());
    return snapshot;
}

void KeyShortcutRecorder::startRecording(const UserShortcutPtr& shortcut) {
    if (!shortcut || !shortcut->uuid()) return;
    if (isRecording()) actionForEscapeKey();
    logInfo("startRecording()");
    shortcut_ = shortcut;
    recordingUuid_ = shortcut->uuid();
    before_ = snapshotOf(*shortcut);
    currentEvent_.reset();
    currentString_.clear();
    liveString_.clear();
    modifiersHeld_.clear();
    lastOutcome_ = Outcome::none;
    lastMessage_.clear();
    const auto alive = lifetime_.token();
    if (auto* tap = deps_.eventTapManager) {
        tap->onRecorderStateChange = [this, alive] {
            if (alive) tapChanged();
        };
        tap->setIsRecording(true);
        if (tap->keyboardGrabFailed()) {
            // No key would reach us: better to say so than to wait for keys.
            tap->setIsRecording(false);
            tap->onRecorderStateChange = nullptr;
            recordingUuid_.reset();
            finished(Outcome::refused, "Another program holds the keyboard; close its menu or dialog and try again.");
            return;
        }
    }
    if (auto* mouse = deps_.mouseShortcutManager) {
        mouse->recordMouseShortcut = true;
        mouse->recordMouseShortcutEditingUserShortcut = shortcut;
        mouse->onMouseShortcutRecorded = [this, alive] {
            if (alive) mouseRecorded();
        };
    }
    changed();
}

void KeyShortcutRecorder::tapChanged() {
    if (!isRecording() || !deps_.eventTapManager) return;
    const auto& tapEvent = deps_.eventTapManager->currentEvent();
    if (!tapEvent) return;
    const platform::GlobalInputEvent event = *tapEvent;
    logDebug("KeyShortcutRecorder.tapChanged() - type: " + std::to_string(event.type) +
             ", keyCode: " + std::to_string(event.keyCode) + ", flags: " + std::to_string(event.flags));

    if (const auto special = specialKeycode(event.keyCode)) {
        if (event.type != type::kKeyDown) return;
        switch (*special) {
        case SpecialKeycode::escape: actionForEscapeKey(); return;
        case SpecialKeycode::tab: actionForTabKey(); return;
        case SpecialKeycode::enter: stopRecording(); return;
        case SpecialKeycode::backspace:
            // Backspace takes the key away.
            currentEvent_.reset();
            currentString_.clear();
            stopRecording();
            return;
        case SpecialKeycode::none: return;
        }
        return;
    }

    const std::string& text = deps_.eventTapManager->currentString();
    if (event.type == type::kKeyDown) {
        if (text.empty()) return; // refused by the tap (Space, Super+Tab)
        currentEvent_ = event;
        currentString_ = text;
        liveString_ = text;
        changed();
        return;
    }
    if (event.type == type::kKeyUp) {
        if (!currentString_.empty()) stopRecording();
        return;
    }
    if (event.type != type::kFlagsChanged) return;
    // Which way a modifier went is told by the keys held, not by the flags: with both Ctrl keys down, letting go
    // of one leaves the Control flag set.
    bool pressed;
    if (modifiersHeld_.count(event.keyCode)) {
        modifiersHeld_.erase(event.keyCode);
        pressed = false;
    } else {
        pressed = (event.flags & flagOfModifierKey(event.keyCode)) != 0;
        if (pressed) modifiersHeld_.insert(event.keyCode);
    }
    if (pressed) {
        currentEvent_ = event;
        currentString_ = text;
        liveString_ = text;
        changed();
        return;
    }
    // A key let go: what was held is the shortcut.
    if (!currentString_.empty()) {
        stopRecording();
        return;
    }
    liveString_ = text;
    changed();
}

void KeyShortcutRecorder::mouseRecorded() {
    if (!isRecording() || !shortcut_) return;
    currentEvent_.reset();
    currentString_ = shortcut_->shortcutString().value_or("");
    stopRecording();
}

void KeyShortcutRecorder::endCapture() {
    if (auto* mouse = deps_.mouseShortcutManager) {
        mouse->recordMouseShortcut = false;
        mouse->recordMouseShortcutEditingUserShortcut.reset();
    }
    if (auto* tap = deps_.eventTapManager) tap->setIsRecording(false);
}

void KeyShortcutRecorder::stopRecording(const std::optional<Uuid>& nextShortcutUUID) {
    if (!shortcut_) return;
    endCapture();
    logInfo("stopRecording()");

    if (currentStringIsDuplicateShortcutString()) {
        logInfo("stopRecording() - currentStringIsDuplicateShortcutString() == true");
        const std::string taken = currentString_;
        const auto takenEvent = currentEvent_;
        deps_.viewContext.rollback();
        playBasso();
        currentEvent_.reset();
        currentString_ = shortcut_->shortcutString().value_or("");
        recordingUuid_.reset();
        std::string shown = linuxNameOfSymbolString(taken);
        if (takenEvent && takenEvent->type == type::kFlagsChanged && isModifierKeyCode(takenEvent->keyCode))
            shown = linuxKeyName(takenEvent->keyCode);
        if (holdsMouseWord(taken)) shown = "This mouse button";
        finished(Outcome::duplicate, shown + " is already the key of another shortcut.");
        return;
    }
    if (currentStringOnlyHasMultipleModifiers()) {
        logInfo("stopRecording() - currentStringOnlyHasMultipleModifiers()");
        playBasso();
        currentEvent_.reset();
        currentString_ = shortcut_->shortcutString().value_or("");
        liveString_.clear();
        modifiersHeld_.clear();
        // The recording goes on: the user tries again, or ends it with Escape.
        if (deps_.eventTapManager) deps_.eventTapManager->setIsRecording(true);
        if (auto* mouse = deps_.mouseShortcutManager) {
            mouse->recordMouseShortcut = true;
            mouse->recordMouseShortcutEditingUserShortcut = shortcut_;
        }
        lastOutcome_ = Outcome::multipleModifiers;
        lastMessage_ = "Modifiers alone can't be a shortcut: press a single modifier, or add a key to them.";
        changed();
        return;
    }

    Outcome outcome = Outcome::stored;
    std::string message;
    if (holdsMouseWord(currentString_)) {
        shortcut_->setSingleModifierDirection(std::nullopt);
        logInfo("stopRecording() - mouse shortcut");
        cdSaveContext(&deps_.viewContext, "stopRecording(nextShortcutUUID:)");
        if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
        deps_.keyboardShortcutManager.unregisterKeysForShortcut(shortcut_);
    } else {
        logInfo("stopRecording() - keyboard shortcut");
        shortcut_->setMouseEventMouseButton(-1);
        const std::size_t count = characterCount(currentString_);
        if (count == 1) {
            registerWithKeyboardShortcutManager();
        } else if (count == 0) {
            shortcut_->setSingleModifierDirection(std::nullopt);
            shortcut_->setShortcutString(std::string());
            cdSaveContext(&deps_.viewContext, "stopRecording(nextShortcutUUID:)");
            if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
            // Without its text the row has no key: the old one must stop answering too.
            deps_.keyboardShortcutManager.unregisterKeysForShortcut(shortcut_);
            outcome = Outcome::cleared;
        } else {
            shortcut_->setSingleModifierDirection(std::nullopt);
            if (currentEvent_ && currentEvent_->type == type::kFlagsChanged &&
                (currentEvent_->flags & event_flags::kFunction))
                registerWithKeyboardShortcutManager();
            else
                registerWithKeyboardShortcuts();
        }
        if (lastOutcome_ == Outcome::takenByAnotherClient || lastOutcome_ == Outcome::refused) {
            outcome = lastOutcome_;
            message = lastMessage_;
        }
    }

    // A row that got its first key leaves a new empty row behind it.
    if (outcome == Outcome::stored) deps_.keyboardShortcutManager.addNewShortcutIfNeeded();
    if (nextShortcutUUID && outcome == Outcome::stored) {
        std::shared_ptr<store::UserShortcut> next;
        for (const auto& candidate : deps_.viewContext.fetchAll<store::UserShortcut>())
            if (candidate->uuid() == nextShortcutUUID) next = candidate;
        finished(outcome, message);
        if (next) startRecording(next);
        return;
    }
    recordingUuid_.reset();
    finished(outcome, message);
}

void KeyShortcutRecorder::registerWithKeyboardShortcutManager() {
    if (!currentEvent_ || (currentEvent_->type != type::kFlagsChanged && currentEvent_->type != type::kKeyDown &&
                           currentEvent_->type != type::kKeyUp)) {
        logError("registerWithKeyboardShortcutManager() - currentEvent is not .flagsChanged or .keysChanged, "
                 "prevented assertion failure, check callers of registerWithKeyboardShortcutManag");
        return;
    }
    const auto event = *currentEvent_;
    if (isModifierKeyCode(event.keyCode))
        shortcut_->setSingleModifierDirection(directionOfEvent(event));
    else
        shortcut_->setSingleModifierDirection(std::nullopt);
    auto& manager = deps_.keyboardShortcutManager;
    manager.recordNextModifierEditingUserShortcut = shortcut_;
    manager.recordNextModifier = true;
    manager.handleLocalKeyPressed(event);
    if (shortcut_->modifierEventKeyCode() != event.keyCode) {
        // Refused: the key is another shortcut's, or blocked.
        manager.recordNextModifier = false;
        manager.recordNextModifierEditingUserShortcut.reset();
        const std::string shown = linuxKeyName(event.keyCode);
        restore(before_);
        lastOutcome_ = Outcome::refused;
        lastMessage_ = shown + " is already the key of another shortcut.";
        playBasso();
        return;
    }
    shortcut_->setShortcutString(currentString_);
    shortcut_->setMouseEventMouseButton(-1);
    cdSaveContext(&deps_.viewContext, "registerWithKeyboardShortcutManager()");
    // A combination the row had before stops answering.
    if (const auto uuid = shortcut_->uuid()) {
        deps_.keyboardShortcuts.disable({uuid->string()});
        deps_.keyboardShortcuts.reset({uuid->string()});
    }
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
}

void KeyShortcutRecorder::registerWithKeyboardShortcuts() {
    if (!currentEvent_) return;
    const auto event = *currentEvent_;
    shortcut_->setShortcutString(currentString_);
    shortcut_->setModifierEventKeyCode(-1);
    shortcut_->setMouseEventMouseButton(-1);
    cdSaveContext(&deps_.viewContext, "registerWithKeyboardShortcuts()");
    const std::string shortcutName = name();
    deps_.keyboardShortcuts.setShortcut(CarbonShortcut::fromEvent(event.keyCode, event.flags), shortcutName);
    if (!deps_.keyboardShortcuts.isRegistered(shortcutName)) {
        // The desktop refused the combination: another program holds it. The row keeps its former key.
        const std::string shown = linuxNameOfSymbolString(currentString_);
        const std::string former = linuxShortcutName(before_.singleModifierDirection, before_.modifierEventKeyCode,
                                                     before_.mouseEventMouseButton, before_.shortcutString);
        logWarning("registerWithKeyboardShortcuts() - the combination is taken by another client, keeping the "
                   "former key");
        restore(before_);
        lastOutcome_ = Outcome::takenByAnotherClient;
        lastMessage_ = shown + " is taken by another application, so the shortcut keeps " +
                       (former.empty() ? std::string("no key") : former) + ".";
        playBasso();
        return;
    }
    deps_.keyboardShortcutManager.configureKeyboardShortcuts();
    // A key the row had on the tap before stops answering.
    deps_.keyboardShortcutManager.updateKeysSetFromUserShortcuts();
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
}

void KeyShortcutRecorder::restore(const Snapshot& snapshot) {
    shortcut_->setShortcutString(snapshot.shortcutString);
    shortcut_->setModifierEventKeyCode(snapshot.modifierEventKeyCode);
    shortcut_->setMouseEventMouseButton(snapshot.mouseEventMouseButton);
    shortcut_->setSingleModifierDirection(snapshot.singleModifierDirection);
    cdSaveContext(&deps_.viewContext, "restore()");
    const std::string shortcutName = name();
    if (snapshot.carbon)
        deps_.keyboardShortcuts.setShortcut(snapshot.carbon, shortcutName);
    else
        deps_.keyboardShortcuts.reset({shortcutName});
    deps_.keyboardShortcutManager.configureKeyboardShortcuts();
    deps_.keyboardShortcutManager.updateKeysSetFromUserShortcuts();
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
    currentEvent_.reset();
    currentString_ = snapshot.shortcutString.value_or("");
}

void KeyShortcutRecorder::actionForEscapeKey() {
    if (auto* mouse = deps_.mouseShortcutManager) {
        mouse->recordMouseShortcut = false;
        mouse->recordMouseShortcutEditingUserShortcut.reset();
    }
    logInfo("actionForEscapeKey()");
    if (auto* tap = deps_.eventTapManager) tap->setIsRecording(false);
    deps_.viewContext.rollback();
    currentEvent_.reset();
    currentString_ = shortcut_ ? shortcut_->shortcutString().value_or("") : std::string();
    recordingUuid_.reset();
    finished(Outcome::cancelled);
}

void KeyShortcutRecorder::actionForTabKey() {
    const auto uuid = recordingUuid_;
    std::optional<Uuid> next;
    if (uuid && shortcutAfter) next = shortcutAfter(*uuid);
    if (currentString_.empty()) {
        // Nothing typed: Tab only moves on, the row keeps its key.
        actionForEscapeKey();
        if (next)
            for (const auto& candidate : deps_.viewContext.fetchAll<store::UserShortcut>())
                if (candidate->uuid() == next) startRecording(candidate);
        return;
    }
    stopRecording(next);
}

void KeyShortcutRecorder::cancel() {
    if (isRecording()) actionForEscapeKey();
}

KeyShortcutRecorder::Outcome KeyShortcutRecorder::assign(const UserShortcutPtr& shortcut, const KeySpec& key) {
    if (!shortcut || !shortcut->uuid()) return Outcome::refused;
    if (isRecording()) actionForEscapeKey();
    shortcut_ = shortcut;
    before_ = snapshotOf(*shortcut);
    recordingUuid_ = shortcut->uuid();
    lastOutcome_ = Outcome::none;
    lastMessage_.clear();
    currentEvent_.reset();
    currentString_.clear();

    if (key.kind == KeySpec::Kind::mouse) {
        shortcut->setMouseEventMouseButton(key.buttonNumber);
        shortcut->setModifierEventKeyCode(-1);
        shortcut->setShortcutString("Mouse " + std::to_string(key.buttonNumber));
        currentString_ = *shortcut->shortcutString();
        stopRecording();
        return lastOutcome_;
    }
    platform::GlobalInputEvent event;
    event.keyCode = key.keyCode;
    if (key.kind == KeySpec::Kind::modifier) {
        event.type = type::kFlagsChanged;
        event.flags = kAlwaysSet | flagOfModifierKey(key.keyCode);
        currentString_ = key.keyCode == 63 ? std::string("Fn") : keyString(key.keyCode);
    } else {
        const std::string shown = linuxModifierPrefix(key.flags) + linuxKeyName(key.keyCode, key.characters);
        if (specialKeycode(key.keyCode) || isBlockedWhileRecording(key.flags, key.keyCode)) {
            recordingUuid_.reset();
            finished(Outcome::refused, shown + " can't be a shortcut.");
            return lastOutcome_;
        }
        event.type = type::kKeyDown;
        event.flags = kAlwaysSet | key.flags;
        event.characters = key.characters.value_or(" ");
        event.charactersIgnoringModifiers = event.characters;
        currentString_ = recorderString(event);
    }
    currentEvent_ = event;
    stopRecording();
    return lastOutcome_;
}

bool KeyShortcutRecorder::currentStringIsDuplicateShortcutString() const {
    if (!shortcut_ || currentString_.empty()) return false;
    const auto all = deps_.viewContext.fetchAll<store::UserShortcut>();
    if (holdsMouseWord(currentString_)) {
        int same = 0;
        for (const auto& other : all)
            if (other->shortcutString() == currentString_) ++same;
        return same >= 2 && deps_.viewContext.hasChanges();
    }
    // A modifier alone is told apart by its side; a combination has none.
    std::string direction;
    if (currentEvent_ && currentEvent_->type == type::kFlagsChanged)
        direction = directionOfEvent(*currentEvent_);
    else if (!currentEvent_)
        direction = shortcut_->singleModifierDirection().value_or("");
    for (const auto& other : all) {
        if (other == shortcut_) continue;
        if (other->shortcutString().value_or("") == currentString_ &&
            other->singleModifierDirection().value_or("") == direction)
            return true;
    }
    return false;
}

bool KeyShortcutRecorder::currentStringOnlyHasMultipleModifiers() const {
    return characterCount(currentString_) >= 2 && currentEvent_ && currentEvent_->type == type::kFlagsChanged &&
           !(currentEvent_->flags & event_flags::kFunction) && !holdsMouseWord(currentString_) &&
           isModifierKeyCode(currentEvent_->keyCode);
}

std::string KeyShortcutRecorder::displayString() const {
    const std::string& text = isRecording() && !liveString_.empty() ? liveString_ : currentString_;
    if (isRecording() && text.empty()) return "Press the keys…";
    if (currentEvent_ && currentEvent_->type == type::kFlagsChanged && isModifierKeyCode(currentEvent_->keyCode) &&
        characterCount(text) == 1)
        return linuxKeyName(currentEvent_->keyCode);
    if (!isRecording() && shortcut_)
        return linuxShortcutName(shortcut_->singleModifierDirection(), shortcut_->modifierEventKeyCode(),
                                 shortcut_->mouseEventMouseButton(), shortcut_->shortcutString());
    std::string shown = linuxNameOfSymbolString(text);
    if (isRecording() && currentEvent_ && currentEvent_->type == type::kFlagsChanged) shown += "+…";
    return shown;
}

void KeyShortcutRecorder::finished(Outcome outcome, std::string message) {
    lastOutcome_ = outcome;
    lastMessage_ = std::move(message);
    if (!lastMessage_.empty()) logWarning("KeyShortcutRecorder - " + lastMessage_);
    changed();
}

void KeyShortcutRecorder::changed() {
    if (onChange) onChange();
}

void KeyShortcutRecorder::playBasso() {
    if (deps_.sounds) deps_.sounds->play("Basso");
}

} // namespace sprelio
