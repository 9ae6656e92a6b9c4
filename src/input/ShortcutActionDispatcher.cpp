#include "input/ShortcutActionDispatcher.h"

#include "base/Log.h"
#include "store/Entities.h"

namespace sprelio {

ShortcutActions::ShortcutActions(ShortcutSession& session, std::function<int()> tapAndRecordTimeoutMinutes)
    : session_(session), tapAndRecordTimeoutMinutes_(std::move(tapAndRecordTimeoutMinutes)) {}

void ShortcutActions::keyDownAction(const UserShortcutPtr& shortcut) {
    if (!shortcut) return;
    const auto raw = shortcut->shortcutActionRawValue();
    const auto action = raw ? shortcutActionFromRawValue(*raw) : std::nullopt;
    if (!action) {
        logError("UserShortcut.keyDownAction: no ShortcutAction for shortcutActionRawValue: " + raw.value_or("nil"));
        return;
    }
    const bool hold = shortcut->hold();
    const auto itemId = shortcut->intelligenceActionItemIdString();
    switch (*action) {
    case ShortcutAction::recordAndTranscribe:
    case ShortcutAction::voiceToDialog:
    case ShortcutAction::recordAndTranscribeToFlat:
    case ShortcutAction::recordAndTranscribeToCaps:
        handleRecording(hold, *action, std::nullopt, shortcut);
        break;
    case ShortcutAction::recordAndProcessWithAI:
        handleRecording(hold, *action, itemId, shortcut);
        break;
    case ShortcutAction::copyTextAndAskAI:
        session_.copyTextAndAskAI(shortcut);
        break;
    case ShortcutAction::transcribeLast:
        session_.transcribeLast(shortcut);
        break;
    case ShortcutAction::showHistory:
        session_.showMainWindowTab(ContentViewTab::history);
        break;
    case ShortcutAction::showSubstitutions:
        session_.showMainWindowTab(ContentViewTab::substitutions);
        break;
    case ShortcutAction::showIntelligence:
        session_.showMainWindowTab(ContentViewTab::ai);
        break;
    case ShortcutAction::showFileToText:
        session_.showMainWindowTab(ContentViewTab::files);
        break;
    case ShortcutAction::continuousVoiceToText:
        session_.continuousVoiceToText();
        break;
    }
}

void ShortcutActions::keyUpAction(const UserShortcutPtr& shortcut) {
    if (!shortcut) return;
    const auto raw = shortcut->shortcutActionRawValue();
    const auto action = raw ? shortcutActionFromRawValue(*raw) : std::nullopt;
    if (!action) {
        logError("UserShortcut.keyUpAction: no ShortcutAction for shortcutActionRawValue: " + raw.value_or("nil"));
        return;
    }
    switch (*action) {
    case ShortcutAction::recordAndTranscribe:
    case ShortcutAction::voiceToDialog:
    case ShortcutAction::recordAndTranscribeToFlat:
    case ShortcutAction::recordAndTranscribeToCaps:
        if (shortcut->hold()) session_.onRecordingShortcut(false, *action, std::nullopt, shortcut);
        break;
    case ShortcutAction::recordAndProcessWithAI:
        if (shortcut->hold())
            session_.onRecordingShortcut(false, *action, shortcut->intelligenceActionItemIdString(), shortcut);
        break;
    default:
        // Everything else did its work on key down.
        break;
    }
}

void ShortcutActions::handleRecording(bool isHold, ShortcutAction action, std::optional<std::string> itemId,
                                      const UserShortcutPtr& shortcut) {
    if (isHold) {
        session_.onRecordingShortcut(true, action, std::move(itemId), shortcut);
        return;
    }
    const auto status = session_.appStatus();
    if (!status) {
        logError("handleRecording() - appDelegate is nil");
        return;
    }
    if (*status == AppActivity::idle) {
        session_.startRecordingDurationTimer(tapAndRecordTimeoutMinutes_ ? tapAndRecordTimeoutMinutes_() : 10);
        session_.onRecordingShortcut(true, action, std::move(itemId), shortcut);
        return;
    }
    if (action == ShortcutAction::recordAndProcessWithAI)
        session_.stopRecordingDurationTimer("recordAndProcessWithAI", "} else {");
    session_.onRecordingShortcut(false, action, std::move(itemId), shortcut);
}

} // namespace sprelio
