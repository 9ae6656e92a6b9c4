#include "core/AppShortcutSession.h"

#include <algorithm>
#include <cstdlib>

#include "backend/UploadAnswer.h"
#include "ai/IntelligenceViewModel.h"
#include "audio/ContinuousSpeechManager.h"
#include "backend/AudioUploadManager.h"
#include "core/AppDelegate.h"
#include "shared/InputLanguages.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "shared/Errors.h"

namespace sprelio {

namespace {
const char* const kNoAppDelegate =
    "unwrappedAppDelegate() - AppDelegate.shared is nil. Make sure it's assigned in applicationDidFinishLaunching.";

std::string errorText(const Error& error) { return error.localizedDescription; }
} // namespace

AppShortcutSession::AppShortcutSession(AppShortcutSessionDependencies dependencies) : deps_(std::move(dependencies)) {}

AppShortcutSession::~AppShortcutSession() { lifetime_.expire(); }

void AppShortcutSession::post(std::function<void()> task) { deps_.loop.post(lifetime_.guard(std::move(task))); }

std::optional<AppActivity> AppShortcutSession::appStatus() const {
    AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr;
    if (!delegate) return std::nullopt;
    return delegate->appStatus();
}

void AppShortcutSession::startRecordingDurationTimer(int minutes) {
    if (AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr)
        delegate->startRecordingDurationTimer(minutes);
    else
        logError(kNoAppDelegate);
}

void AppShortcutSession::stopRecordingDurationTimer(const std::string& caller, const std::string& reason) {
    if (AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr)
        delegate->stopRecordingDurationTimer(caller, reason);
    else
        logError(kNoAppDelegate);
}

void AppShortcutSession::onRecordingShortcut(bool isKeyDown, ShortcutAction action, std::optional<std::string> itemId,
                                             UserShortcutPtr shortcut) {
    // Without the closure every dictation would be silently lost: that is a broken build, not a state to run in.
    if (!deps_.onRecordingShortcut) {
        logCritical("KeyboardShortcutManager.onRecordingShortcut is nil");
        flushLog();
        std::abort();
    }
    deps_.onRecordingShortcut(isKeyDown, action, std::move(itemId), std::move(shortcut));
}

void AppShortcutSession::copyTextAndAskAI(const UserShortcutPtr& shortcut) {
    post([this, shortcut] { copyTextAndAskAIMain(shortcut); });
}

void AppShortcutSession::copyTextAndAskAIMain(const UserShortcutPtr& shortcut) {
    const auto withSelection = [this, shortcut](std::optional<std::string> clipboardText) {
        logInfo(".copyTextAndAskAI{} - clipboardText: " + std::string(kPrivatized));
        const auto& clipboard = deps_.clipboard;
        auto fromCommandC = [this, shortcut, clipboardText](std::optional<std::string> selectedText) {
            if (selectedText)
                logInfo(".copyTextAndAskAI{} - selectedText : " + std::string(kPrivatized) +
                        " ( from getStringWithCommandC() )");
            else
                logInfo(".copyTextAndAskAI{} - selectedText : NIL");
            copyTextAndAskAIWithTexts(shortcut, clipboardText, selectedText);
        };
        auto fromSelection = [this, shortcut, clipboardText, fromCommandC](std::optional<std::string> selectedText) {
            if (selectedText) {
                logInfo(".copyTextAndAskAI{} - selectedText : " + std::string(kPrivatized) +
                        " ( from getSelectedTextFromFrontmostApp() )");
                copyTextAndAskAIWithTexts(shortcut, clipboardText, selectedText);
                return;
            }
            if (deps_.clipboard.getStringWithCommandC)
                deps_.clipboard.getStringWithCommandC(lifetime_.guard(fromCommandC));
            else
                fromCommandC(std::nullopt);
        };
        if (clipboard.getSelectedTextFromFrontmostApp)
            clipboard.getSelectedTextFromFrontmostApp(lifetime_.guard(fromSelection));
        else
            fromSelection(std::nullopt);
    };
    if (deps_.clipboard.getString) deps_.clipboard.getString(lifetime_.guard(withSelection));
    else withSelection(std::nullopt);
}

void AppShortcutSession::copyTextAndAskAIWithTexts(const UserShortcutPtr& shortcut,
                                                   const std::optional<std::string>& clipboardText,
                                                   const std::optional<std::string>& selectedText) {
    // The copy command replaced the clipboard; the user's own text goes back first.
    if (deps_.clipboard.setString) deps_.clipboard.setString(clipboardText.value_or(""), "keyDownAction");

    const auto itemId = shortcut ? shortcut->intelligenceActionItemIdString() : std::nullopt;
    if (!itemId) {
        logError("copyTextAndAskAI{} - intelligenceActionItemIdString is nil, skipping");
        return;
    }
    const std::string text = selectedText ? *selectedText : clipboardText.value_or("");
    std::optional<IntelligenceActionCompletionType> completionType;
    if (const auto raw = shortcut->intelligenceActionCompletionType())
        completionType = intelligenceActionCompletionTypeFromRawValue(*raw);
    deps_.intelligenceViewModel.executeActionForItemWithText(*itemId, text, false, completionType);
}

void AppShortcutSession::transcribeLast(const UserShortcutPtr& shortcut) {
    post([this, shortcut] { transcribeLastMain(shortcut); });
}

void AppShortcutSession::transcribeLastMain(const UserShortcutPtr& shortcut) {
    if (!deps_.appState.internetAvailable()) {
        const auto error = errorDescription(SPRLocalizedError::networkError, "Sprelio");
        logError(".transcribeLast() - error: " + error);
        deps_.messages.showAlertForError(SPRLocalizedError::networkError);
        return;
    }
    std::vector<std::shared_ptr<store::LogEntry>> entries;
    try {
        entries = deps_.viewContext.fetchAll<store::LogEntry>({store::SortDescriptor{"timestamp", false}});
    } catch (const store::StoreError& error) {
        logError("ShortcutAction.transcribeLast - error while fetching existing log entries: " +
                 error.error().localizedDescription);
        return;
    }
    // The newest entry decides; an older one with a recording is deliberately not looked for.
    if (entries.empty()) return;
    const auto& newest = entries.front();
    const auto fileURL = newest->fileURL();
    const auto requestID = newest->requestID();
    if (!fileURL || !requestID) return;

    const auto path = store::AppConstants::pathFromFileURLOrPath(*fileURL);
    const auto languages =
        chooseInputLanguages(shortcut ? shortcut->inputLanguageCode() : std::nullopt, deps_.settings);
    post([this, path, id = *requestID, languages] {
        auto upload = deps_.makeUploadManager();
        if (!upload) return;
        uploads_.push_back(upload);
        logInfo("AudioUploadManager.uploadRecording() - requestID: " + id.string() +
                ", inputLanguageCode: " + languages.inputLanguageCode.value_or("nil"));
        const auto alive = lifetime_.token();
        std::weak_ptr<AudioUploadManager> weakUpload = upload;
        upload->uploadRecording(
            path, id, languages.codes, std::nullopt, false, languages.inputLanguageCode,
            [this, alive, weakUpload, path](std::optional<nlohmann::json> result, std::optional<Error> error) {
                deps_.loop.post([this, alive, weakUpload, path, result = std::move(result),
                                 error = std::move(error)] {
                    if (!alive) return;
                    if (auto done = weakUpload.lock()) std::erase(uploads_, done);
                    if (const auto answered = readUploadAnswer(result, error).anyText) {
                        const std::string text = *answered;
                        logInfo("ShortcutAction.transcribeLast - generatedText: " + std::string(kPrivatized));
                        post([this, text, path] {
                            deps_.historyManager.log(HistoryManagerLogLevel::success, text, path, Uuid::random(),
                                                     false);
                        });
                        if (AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr)
                            delegate->performPasting(text);
                        else
                            logError(kNoAppDelegate);
                    } else if (error) {
                        logInfo("ShortcutAction.transcribeLast - error: " + errorText(*error));
                        post([this, message = errorText(*error), path] {
                            deps_.historyManager.log(HistoryManagerLogLevel::error, message, path, Uuid::random(),
                                                     false);
                        });
                        deps_.messages.showAlertForError(*error);
                    } else {
                        logInfo("ShortcutAction.transcribeLast - result: " + std::string(kPrivatized));
                        const std::string printed = result ? result->dump() : std::string("nil");
                        post([this, printed, path] {
                            deps_.historyManager.log(HistoryManagerLogLevel::error, printed, path, Uuid::random(),
                                                     false);
                        });
                    }
                });
            });
    });
}

void AppShortcutSession::showMainWindowTab(ContentViewTab tab) {
    post([this, tab] {
        if (deps_.appDelegate && !deps_.appDelegate()) {
            logError(kNoAppDelegate);
            return;
        }
        if (deps_.openTab) deps_.openTab(tab);
    });
}

void AppShortcutSession::continuousVoiceToText() {
    AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr;
    if (!delegate) {
        logError(kNoAppDelegate);
        return;
    }
    const AppActivity state = delegate->appStatus();
    logInfo("continuousVoiceToText - appStatus=" + std::string(appActivityName(state)));
    if (state == AppActivity::idle) {
        delegate->setAppStatus(AppActivity::continuousSpeechActive);
        deps_.continuousSpeechManager.startMonitoring();
        post([delegate] { delegate->setupMenuWithRecording(AppActivity::continuousSpeechActive); });
        return;
    }
    // Any other state, recording and processing included, is forced back to idle: the way out when
    // something hangs. That activity's recorder and upload are left to finish on their own.
    deps_.continuousSpeechManager.stopMonitoring();
    delegate->setAppStatus(AppActivity::idle);
    delegate->setupMenuWithMainMenu();
}

} // namespace sprelio
