#include "core/AppDelegate.h"
#include "backend/UploadAnswer.h"
#include "shared/InputLanguages.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include "ai/IntelligenceViewModel.h"
#include "audio/ContinuousSpeechManager.h"
#include "audio/MicrophoneManager.h"
#include "audio/RecordingAudio.h"
#include "audio/RecordingPathHelper.h"
#include "backend/AudioUploadManager.h"
#include "backend/LiveDictationStreams.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "text/AccesibilityController.h"
#include "text/SubstitutionHelpers.h"
#include "shared/Errors.h"
#include "ai/ResultsWindow.h"

namespace sprelio {

namespace {

constexpr float kLowVolumeThreshold = 0.33f;
constexpr float kRepairedVolume = 0.66f;
constexpr unsigned kActivateIgnoringOtherApps = 2;

const char* boolText(bool value) { return value ? "true" : "false"; }

// The shortest text that reads back as the same number, as the log has always printed doubles.
template <typename T> std::string numberText(T value) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (ec != std::errc{}) return "?";
    std::string text(buffer, end);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
    return text;
}

std::string optionalText(const std::optional<std::string>& value) { return value ? *value : std::string("nil"); }

std::string urlText(const std::filesystem::path& url) { return store::AppConstants::fileURL(url, false); }

// User-perceived characters (grapheme clusters), so that an emoji or an accented letter counts once.
std::size_t characterCount(const std::string& text) {
    if (text.empty()) return 0;
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    UBreakIterator* breaks = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    std::size_t count = 0;
    if (U_SUCCESS(status)) {
        ubrk_setUText(breaks, utext, &status);
        if (U_SUCCESS(status)) {
            ubrk_first(breaks);
            while (ubrk_next(breaks) != UBRK_DONE) ++count;
        }
    }
    if (breaks) ubrk_close(breaks);
    if (utext) utext_close(utext);
    return U_SUCCESS(status) ? count : text.size();
}

} // namespace

AppDelegate::AppDelegate(AppDelegateDependencies dependencies)
    : deps_(std::move(dependencies)), platform_(deps_.platform) {}

AppDelegate::~AppDelegate() {
    lifetime_.expire();
    if (recordingDurationTimer_) recordingDurationTimer_->invalidate();
}

void AppDelegate::updateCachedUserShortcuts() {
    if (deps_.updateCachedUserShortcuts) deps_.updateCachedUserShortcuts();
}

void AppDelegate::post(std::function<void()> task) { platform_.loop.post(lifetime_.guard(std::move(task))); }

std::string AppDelegate::dateText() const {
    const auto now = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(platform_.clock.now()));
    std::tm utc{};
    gmtime_r(&now, &utc);
    char buffer[40];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return buffer;
}

void AppDelegate::postHistory(HistoryManagerLogLevel level, std::string message,
                              std::optional<std::filesystem::path> url, const Uuid& requestID) {
    post([this, level, message = std::move(message), url = std::move(url), requestID]() {
        deps_.historyManager.log(level, message, url, requestID, false);
    });
}

// ---- Shortcut dispatch ----

void AppDelegate::recordingShortcutDispatch(bool start, ShortcutAction /*action*/,
                                            std::optional<std::string> /*itemId*/, UserShortcutPtr shortcut) {
    // The action and item id travel inside the shortcut; the session reads them from the active shortcut later.
    post([this, start, shortcut = std::move(shortcut)]() {
        deps_.appState.setCurrentlyActiveUserShortcut(shortcut);
        if (start) {
            recordingShortcutKeyDown();
        } else {
            recordingShortcutKeyUp();
        }
    });
}

AppDelegate::RecordingShortcutDispatch AppDelegate::onRecordingShortcut() {
    return [this](bool start, ShortcutAction action, std::optional<std::string> itemId, UserShortcutPtr shortcut) {
        recordingShortcutDispatch(start, action, std::move(itemId), std::move(shortcut));
    };
}

// ---- Key down ----

void AppDelegate::recordingShortcutKeyDown() {
    if (!overlayScreenController_) {
        logWarning("recordingShortcutKeyDown() - overlayScreenController not initialized, app still launching");
        return;
    }
    if (appStatus_ != AppActivity::idle) {
        logWarning("recordingShortcutKeyDown() - app not idle (." + std::string(appActivityName(appStatus_)) +
                   "), skipping!");
        if (deps_.settings.soundEnabled()) platform_.sounds.play("Basso");
        return;
    }
    const Uuid requestID = Uuid::random();
    post([this, requestID]() { keyDownMainStep1(requestID); });
}

void AppDelegate::keyDownMainStep1(const Uuid& requestID) {
    deps_.appState.setLastGloballyInitiatedRequestID(requestID);
    if (!deps_.appState.internetAvailable()) {
        logError("recordingShortcutKeyDown() - requestID: " + requestID.string() + " - error: " +
                 std::string(sprLocalizedErrorName(SPRLocalizedError::networkError)));
        deps_.messages.showAlertForError(SPRLocalizedError::networkError);
        setupMenuWithMainMenu();
        return;
    }
    auto stopwatch = std::make_shared<const Stopwatch>("recordingShortcutKeyDown() - requestID: " + requestID.string(),
                                                       platform_.clock.steadyNow());
    // Taken before anything of ours can take the focus.
    const auto frontmost = platform_.workspace.frontmostApplication();
    targetPID_ = frontmost ? std::optional<pid_t>(frontmost->processIdentifier) : std::nullopt;
    post([this, requestID, stopwatch]() { keyDownMainStep2(requestID, stopwatch); });
}

void AppDelegate::keyDownMainStep2(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch) {
    const std::string id = requestID.string();
    logInfo("recordingShortcutKeyDown() - requestid: " + id + " - start selecting Mic selectOptimalInputDevice");
    const auto device = deps_.microphoneManager.selectOptimalInputDevice();
    if (!device) {
        stopRecordingDurationTimer("recordingShortcutKeyDown - requestID: " + id, "got no mic, show error");
        logError("recordingShortcutKeyDown() - requestID: " + id + " - error: " +
                 std::string(sprLocalizedErrorName(SPRLocalizedError::noMicrophonesFoundError)));
        setupMenuWithMainMenu();
        deps_.messages.showAlertForError(SPRLocalizedError::noMicrophonesFoundError);
        return;
    }

    // A muted input would record silence; unmute and give it a usable level, or tell the user.
    auto& levels = platform_.inputLevels;
    if (const auto muted = levels.readMute(device->id); muted && *muted != 0) {
        const bool unmuted = levels.writeMute(device->id, 0);
        const bool raised = levels.writeVolume(device->id, kRepairedVolume);
        if (!unmuted || !raised) {
            logError("recordingShortcutKeyDown() - Microphone is muted");
            setupMenuWithMainMenu();
            deps_.messages.showAlertForError(SPRLocalizedError::microphoneMutedError);
            return;
        }
        logInfo("recordingShortcutKeyDown() - Microphone unmuted and volume raised");
    }
    if (const auto volume = levels.readVolume(device->id); volume && *volume < kLowVolumeThreshold) {
        if (!levels.writeVolume(device->id, kRepairedVolume)) {
            logError("recordingShortcutKeyDown() - Microphone input volume very low: " + numberText(*volume) +
                     " (threshold: 0.33)");
            setupMenuWithMainMenu();
            deps_.messages.showAlertForError(SPRLocalizedError::microphoneLowVolumeError, std::nullopt, false, true);
            return;
        }
        logInfo("recordingShortcutKeyDown() - Microphone volume raised");
    }

    logInfo("recordingShortcutKeyDown() - requestID: " + id + " - currentMicrophone: " + device->name + " (" +
            std::string(micDeviceTransportTypeText(device->transportType)) + ")");
    startRecording(requestID, std::move(stopwatch));
    // The state follows the recorder, never the other way round.
    post([this]() { setupMenuWithRecording(AppActivity::recording); });
}

void AppDelegate::setupMenuWithRecording(AppActivity state) {
    appStatus_ = state;
    deps_.appState.setLastKnownErrorLocalizedDescription(std::nullopt);
    showOverlay(OverlayType::recording);
    platform_.statusImage.setImage("rec_status");
}

// ---- Recorder ----

void AppDelegate::startRecording(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch) {
    const std::string id = requestID.string();
    std::error_code folderError;
    const auto path =
        RecordingPathHelper::pathForDate(deps_.settings.saveRecordingsFolder(), platform_.clock.now(), folderError)
            .file;
    if (folderError) {
        logError("startRecording() - requestID " + id + " - error: " + folderError.message());
    }
    logInfo("startRecording() - requestID " + id + " - starting recording to " + path.string());
    if (deps_.settings.playSoundOnRecordingStart()) platform_.sounds.play(deps_.settings.recordingStartSoundName());

    recordAudio_ = deps_.recordingAudioFactory.makeRecordingAudio(path);
    if (!recordAudio_) {
        logError("startRecording() - requestID " + id + " - error: recordAudio is nil");
        return;
    }
    Dictation dictation;
    dictation.requestID = requestID;
    dictation.file = path;
    dictation.startDate = platform_.clock.now();
    const auto alive = lifetime_.token();
    platform::MainLoop& loop = platform_.loop;
    platform::Clock& clock = platform_.clock;
    recordAudio_->setOnRecordingCompletion(
        [this, alive, &loop, &clock, dictation](const std::filesystem::path& url, bool success) {
            // The end is taken where the recorder reports it; the decision runs on the main loop, where the
            // cancel mark and the rest of the session state live.
            const auto endDate = clock.now();
            Dictation recorded = dictation;
            recorded.file = url;
            loop.post([this, alive, recorded = std::move(recorded), success, endDate]() {
                if (!alive) return;
                recordingCompleted(recorded, success, endDate);
            });
        });
    if (deps_.liveDictation) {
        // The languages and diarization the upload is expected to ask for; should the stopping shortcut settle
        // others, the backend sees the difference and transcribes the upload as usual.
        const auto& active = deps_.appState.currentlyActiveUserShortcut();
        const auto languages =
            chooseInputLanguages(active ? active->inputLanguageCode() : std::nullopt, deps_.settings);
        std::string codes;
        for (const auto& code : languages.codes) codes += (codes.empty() ? "" : ",") + code;
        const auto raw = active ? active->shortcutActionRawValue() : std::nullopt;
        if (auto sink = deps_.liveDictation->begin(requestID, codes, raw && *raw == "voiceToDialog"))
            recordAudio_->setPacketSink(std::move(sink));
    }
    recordAudio_->record(requestID, std::move(stopwatch));
}

void AppDelegate::recordingCompleted(Dictation dictation, bool success, std::chrono::system_clock::time_point endDate) {
    const std::string id = dictation.requestID.string();
    const auto& url = dictation.file;
    logInfo("startRecording() - requestID " + id + " - recording completed with status " + boolText(success) +
            " - url: " + urlText(url));
    if (discardCurrentRecording_) {
        logInfo("startRecording() - requestID " + id +
                " - discarding current recording (discardCurrentRecording = true)");
        setupMenuWithMainMenu();
        return;
    }
    const double elapsedMs = std::chrono::duration<double>(endDate - dictation.startDate).count() * 1000.0;
    const int minimum = deps_.settings.minimumRecordingDuration();
    if (static_cast<double>(minimum) > std::trunc(elapsedMs)) {
        logInfo("startRecording() - requestID " + id + " - recording too short (" + numberText(elapsedMs) +
                " < minimum of " + std::to_string(minimum) + "), discarding!");
        setupMenuWithMainMenu();
        return;
    }
    if (deps_.appState.lastGloballyCancelledRequestID() == dictation.requestID) {
        const Error cancelled = makeError(SPRLocalizedError::userCancelledRecordingError, deps_.messages.appName());
        logError("startRecording() - error: " +
                 std::string(sprLocalizedErrorName(SPRLocalizedError::userCancelledRecordingError)));
        postHistory(HistoryManagerLogLevel::error, cancelled.localizedDescription, url, dictation.requestID);
        post([this]() { setupMenuWithMainMenu(); });
        return;
    }
    post([this, dictation = std::move(dictation), success, id]() mutable {
        // The shortcut that stopped the dictation decides what its result becomes.
        const auto shortcut = deps_.appState.currentlyActiveUserShortcut();
        if (!shortcut) return;
        const auto raw = shortcut->shortcutActionRawValue();
        const auto action = raw ? shortcutActionFromRawValue(*raw) : std::nullopt;
        if (!action) return;
        logInfo("startRecording() - requestID " + id + " - shortcut action: " +
                std::string(shortcutActionRawValue(*action)));
        dictation.action = *action;
        dictation.itemId = shortcut->intelligenceActionItemIdString();
        handleRecordingCompletion(std::move(dictation), success);
    });
}

void AppDelegate::handleRecordingCompletion(Dictation dictation, bool success) {
    const std::string id = dictation.requestID.string();
    // What the recorder kept still goes on to be transcribed; the user hears of the loss without losing the front
    // to the message, which the paste needs.
    if (!success) {
        deps_.messages.showNotice("The recording was cut short",
                                  "The end of this recording could not be saved (the disk may be full, or the sound "
                                  "device stopped). The text of what was saved is delivered as usual; the log has the "
                                  "details.");
    }
    const auto& appState = deps_.appState;
    const auto& active = appState.currentlyActiveUserShortcut();
    const auto& menuShortcut = appState.floatingButtonMenuShortcut();
    const auto menuActionRaw = menuShortcut ? menuShortcut->shortcutActionRawValue() : std::nullopt;
    const auto menuItemId = menuShortcut ? menuShortcut->intelligenceActionItemIdString() : std::nullopt;

    logInfo("AppDelegate.handleRecordingCompletion() - requestID: " + id +
            " - recording completed: " + urlText(dictation.file) + ", status: " + boolText(success));
    logInfo("AppDelegate.handleRecordingCompletion() - currentlyActiveUserShortcut: " + describeUserShortcut(active));
    logInfo("AppDelegate.handleRecordingCompletion() - floatingButtonMenuShortcutAction    : " +
            optionalText(menuActionRaw));
    logInfo("AppDelegate.handleRecordingCompletion() - floatingButtonMenuActionItemIdString: " +
            optionalText(menuItemId));

    // A choice in the floating button's menu outranks the shortcut that started the dictation.
    if (const auto menuAction = menuActionRaw ? shortcutActionFromRawValue(*menuActionRaw) : std::nullopt) {
        dictation.action = *menuAction;
    }
    if (menuItemId) dictation.itemId = menuItemId;

    if (dictation.itemId) dictation.prompt = deps_.intelligenceViewModel.promptIdForItemWithId(*dictation.itemId);
    dictation.diarization = shortcutActionRawValue(dictation.action) == "voiceToDialog";
    // The language always belongs to the shortcut pressed, even when the menu chose the action.
    dictation.languages =
        chooseInputLanguages(active ? active->inputLanguageCode() : std::nullopt, deps_.settings);
    const auto& inputLanguageCode = dictation.languages.inputLanguageCode;

    logInfo("AppDelegate.handleRecordingCompletion() - requestID: " + id +
            " - action: " + std::string(shortcutActionRawValue(dictation.action)) +
            " - promptId: " + (dictation.prompt ? dictation.prompt->promptId : std::string("nil")) +
            ", diarization: " + boolText(dictation.diarization) +
            ", inputLanguageCode: " + optionalText(inputLanguageCode));
    logInfo("AudioUploadManager.uploadRecording() - requestID: " + id +
            ", inputLanguageCode: " + optionalText(inputLanguageCode));

    post([this, dictation = std::move(dictation)]() {
        const auto alive = lifetime_.token();
        deps_.uploadManager.uploadRecording(
            dictation.file, dictation.requestID, dictation.languages.codes, dictation.prompt, dictation.diarization,
            dictation.languages.inputLanguageCode,
            [this, alive, dictation](std::optional<nlohmann::json> result, std::optional<Error> error) {
                if (!alive) return;
                evaluateUploadResult(result, error, dictation);
            });
    });
}

void AppDelegate::evaluateUploadResult(const std::optional<nlohmann::json>& result, const std::optional<Error>& error,
                                       const Dictation& dictation) {
    const auto& url = dictation.file;
    const auto& requestID = dictation.requestID;
    logInfo("AppDelegate.handleRecordingCompletion() - result: " + std::string(kPrivatized));

    const UploadAnswer answer = readUploadAnswer(result, error);
    switch (answer.kind) {
    case UploadAnswer::Kind::transcript:
        deps_.settings.setLastDetectedLanguageCode(*answer.language);
        logInfo("AppDelegate.handleRecordingCompletion() - generatedText: " + std::string(kPrivatized) +
                " - detectedLanguage: " + *answer.language);
        postHistory(HistoryManagerLogLevel::success, answer.text, url, requestID);
        if (dictation.prompt) *dictation.transcriptAwaitingCompletion = answer.text;
        deliverTranscription(answer.text, dictation);
        return;
    case UploadAnswer::Kind::completion:
        logInfo("AppDelegate.handleRecordingCompletion() - completion: " + std::string(kPrivatized));
        dictation.transcriptAwaitingCompletion->reset();
        post([this, completion = answer.text]() { pasteOrShowCompletion(completion); });
        return;
    case UploadAnswer::Kind::serverMessage:
        logError("AppDelegate.handleRecordingCompletion() - backend message error: " + answer.text);
        postHistory(HistoryManagerLogLevel::error, answer.text, url, requestID);
        deps_.messages.showAlertForError(SPRStringError::errorMessageError(std::nullopt, answer.text).toError());
        // Otherwise the session stays where it is: the user sees the server's words and cancels when done.
        deliverTranscriptInsteadOfCompletion(dictation, answer.text);
        return;
    case UploadAnswer::Kind::failure:
        logError("AppDelegate.handleRecordingCompletion() - error: " + answer.error->debugDescription());
        postHistory(HistoryManagerLogLevel::error, answer.error->localizedDescription, url, requestID);
        deps_.messages.showAlertForError(*answer.error);
        if (deliverTranscriptInsteadOfCompletion(dictation, answer.error->localizedDescription)) return;
        post([this]() { setupMenuWithMainMenu(); });
        return;
    case UploadAnswer::Kind::empty: break;
    }
    logInfo("AppDelegate.handleRecordingCompletion() - result: " +
            (result ? std::string(kPrivatized) : std::string("nil")));
    post([this, url, requestID]() {
        const auto kind = deps_.appState.internetAvailable() ? SPRLocalizedError::unknownError
                                                             : SPRLocalizedError::networkError;
        const Error empty = makeError(kind, deps_.messages.appName());
        deps_.historyManager.log(HistoryManagerLogLevel::error, empty.localizedDescription, url, requestID, false);
        deps_.messages.showAlertForError(empty);
    });
    if (deliverTranscriptInsteadOfCompletion(dictation, "the answer held nothing usable")) return;
    post([this]() { setupMenuWithMainMenu(); });
}

bool AppDelegate::deliverTranscriptInsteadOfCompletion(const Dictation& dictation, const std::string& failure) {
    auto& pending = *dictation.transcriptAwaitingCompletion;
    if (!pending) return false;
    const std::string transcript = *pending;
    pending.reset();
    logError("AppDelegate.handleRecordingCompletion() - recordAndProcessWithAI completion failed with error: " +
             failure + " - will paste transcribed text instead: " + std::string(kPrivatized));
    platform_.sounds.play("Glass");
    performPasting(transcript);
    return true;
}

void AppDelegate::deliverTranscription(const std::string& text, const Dictation& dictation) {
    const auto& itemId = dictation.itemId;
    switch (dictation.action) {
    case ShortcutAction::recordAndTranscribe:
    case ShortcutAction::voiceToDialog: performPasting(text); return;
    case ShortcutAction::recordAndTranscribeToFlat: performPasting(flatFormOfText(text)); return;
    case ShortcutAction::recordAndTranscribeToCaps: performPasting(capsFormOfText(text)); return;
    case ShortcutAction::recordAndProcessWithAI:
        post([this, text, itemId, expectingCompletion = dictation.prompt.has_value()]() {
            logInfo("AppDelegate.handleRecordingCompletion() - itemId: " + optionalText(itemId));
            if (!text.empty()) {
                // No completion type here: the action takes it from the active shortcut. When the item's prompt
                // rode along with the upload, the server's COMPLETION line brings the result.
                deps_.intelligenceViewModel.executeActionForItemWithText(itemId.value_or(""), text,
                                                                         expectingCompletion, std::nullopt);
            } else {
                logWarning("AppDelegate.handleRecordingCompletion() - generatedText is empty, stopped processing");
                post([this]() { setupMenuWithMainMenu(); });
            }
        });
        return;
    case ShortcutAction::copyTextAndAskAI:
    case ShortcutAction::showIntelligence:
    case ShortcutAction::transcribeLast:
    case ShortcutAction::showHistory:
    case ShortcutAction::showSubstitutions:
    case ShortcutAction::showFileToText:
    case ShortcutAction::continuousVoiceToText: return;
    }
}

void AppDelegate::pasteOrShowCompletion(const std::string& completion) {
    if (deps_.appState.currentlyActiveIntelligenceActionCompletionType() == IntelligenceActionCompletionType::dialog) {
        logInfo("AppDelegate.handleRecordingCompletion() - currentlyActiveIntelligenceActionCompletionType is .dialog, "
                "opening completion in IntelligenceResultView");
        deps_.resultsWindow.showCompletion(completion);
        return;
    }
    logInfo("AppDelegate.handleRecordingCompletion() - currentlyActiveIntelligenceActionCompletionType is .paste OR "
            "nil, pasting completion");
    performPasting(completion);
}

void AppDelegate::performPasting(std::string text) {
    if (!platform_.loop.isMainThread()) {
        post([this, text = std::move(text)]() mutable { performPasting(std::move(text)); });
        return;
    }
    const std::size_t count = characterCount(text);
    logWarning("performPasting() - text character count: " + std::to_string(count));
    if (count > 0) {
        const std::string substituted = deps_.substitutionHelpers.applySubstitutions(text);
        logInfo("performPasting() - pasting text: " + std::string(kPrivatized));
        deps_.accessibilityController.injectTextViaPaste(substituted, targetPID_);
        // The stop sound marks delivery, not the end of the recording.
        if (deps_.settings.playSoundOnRecordingStop()) platform_.sounds.play(deps_.settings.recordingStopSoundName());
    } else {
        logWarning("performPasting() - text is empty, skipping pasting and substitutions!");
    }
    setupMenuWithMainMenu();
}

// ---- Key up and the tap-mode limit ----

void AppDelegate::recordingShortcutKeyUp() {
    if (appStatus_ != AppActivity::recording) {
        logWarning("onRecordingShortcut() - app not recording (." + std::string(appActivityName(appStatus_)) +
                   "), skipping!");
        if (deps_.settings.soundEnabled()) platform_.sounds.play("Basso");
        return;
    }
    logInfo("onRecordingShortcut() - will stop recording");
    stopRecordingDurationTimer("recordingShortcutKeyUp()", "user stopped recording");
    post([this]() {
        if (recordAudio_) {
            recordAudio_->stop();
            logInfo("onRecordingShortcut() - ++++ recording stopped ++++");
        } else {
            logInfo("onRecordingShortcut() - self.recordAudio is nil, recording not stopped (not recording)");
        }
        if (deps_.appState.internetAvailable()) {
            logInfo("onRecordingShortcut() - will start transcribing");
            setupMenuWithTranslation();
        } else {
            // The upload's failure brings the session back to idle.
            logInfo("onRecordingShortcut() - no internet, will transcribing skipped");
        }
    });
}

void AppDelegate::recordingShortcutKeyUpByTimer() {
    stopRecordingDurationTimer("recordingShortcutKeyUpByTimer()", "timer ended");
    recordingShortcutKeyUp();
}

void AppDelegate::startRecordingDurationTimer(int minutes) {
    logInfo("startRecordingDurationTimer() - at: " + dateText());
    post([this, minutes]() {
        if (recordingDurationTimer_) recordingDurationTimer_->invalidate();
        recordingDurationTimer_.reset();
        const auto alive = lifetime_.token();
        recordingDurationTimer_ =
            platform_.loop.schedule(std::chrono::minutes(minutes), [this, alive]() {
                if (!alive) return;
                recordingShortcutKeyUpByTimer();
            });
    });
}

void AppDelegate::stopRecordingDurationTimer(const std::string& caller, const std::string& reason) {
    logInfo("stopRecordingDurationTimer() - at: " + dateText() + " - caller: " + caller + ", reason: " + reason);
    post([this, caller, reason]() {
        if (!recordingDurationTimer_) return;
        logRecordingDurationTimerStopped(caller, reason);
        recordingDurationTimer_->invalidate();
        recordingDurationTimer_.reset();
    });
}

void AppDelegate::logRecordingDurationTimerStopped(const std::string& caller, const std::string& reason) {
    if (!recordingDurationTimer_ || !recordingDurationTimer_->isValid()) return;
    const double remaining = std::chrono::duration<double>(recordingDurationTimer_->remaining()).count();
    logInfo("logRecordingDurationTimerStopped() - at: " + dateText() + " - remaining: " + numberText(remaining) +
            "s (out of " + std::to_string(deps_.settings.tapAndRecordTimeoutMinutes() * 60) +
            ".0s) - caller: " + caller + " - reason: " + reason);
}

// ---- States ----

void AppDelegate::setupMenuWithTranslation() {
    logInfo("setupMenuWithTranslation() - Starting transcription setup");
    post([this]() {
        logInfo("setupMenuWithTranslation() - appStatus: ." + std::string(appActivityName(appStatus_)) +
                " -> .processing");
        appStatus_ = AppActivity::processing;
        deps_.appState.setLastKnownErrorLocalizedDescription(std::nullopt);
        logInfo("setupMenuWithTranslation() - About to show transcribing overlay");
        showOverlay(OverlayType::transcribing);
        logInfo("setupMenuWithTranslation() - Transcribing overlay shown successfully");
        platform_.statusImage.setImage("raspozn_status");
    });
}

void AppDelegate::setupMenuWithMainMenu() {
    // A finished piece of continuous speech must not end the mode.
    if (deps_.continuousSpeechManager.isActive()) {
        logWarning("setupMenuWithMainMenu() - ContinuousSpeechManager.shared.isActive, skipping!");
        return;
    }
    post([this]() {
        appStatus_ = AppActivity::idle;
        targetPID_.reset();
        platform_.statusImage.setImage("micro_status");
        if (overlayScreenControllerPanelsNeedRefresh_ && overlayScreenController_) {
            overlayScreenController_->refreshPanels();
            overlayScreenControllerPanelsNeedRefresh_ = false;
        }
        stopRecordingDurationTimer("setupMenuWithMainMenu()", "setupMenuWithMainMenu()");
        deps_.appState.setCurrentlyActiveUserShortcut(nullptr);
        if (deps_.settings.floatingButtonActivation()) {
            showOverlay(OverlayType::button, true);
        } else {
            removeOverlay(false, false);
        }
    });
}

void AppDelegate::cancelRecordingAndProcessing() {
    deps_.appState.setLastGloballyCancelledRequestID(deps_.appState.lastGloballyInitiatedRequestID());
    logWarning("cancelRecordingAndProcessing() - recording/processing has been cancelled by the user");
    // The stopped recorder still completes; its completion finds the cancel mark and writes the history entry.
    if (recordAudio_) recordAudio_->stop();
    if (deps_.liveDictation && deps_.appState.lastGloballyInitiatedRequestID())
        deps_.liveDictation->cancel(*deps_.appState.lastGloballyInitiatedRequestID());
    deps_.uploadManager.cancelUpload();
    deps_.continuousSpeechManager.stopMonitoring();
    setupMenuWithMainMenu();
}

void AppDelegate::callCancelRecordingAndProcessing() {
    post([this]() { cancelRecordingAndProcessing(); });
}

// ---- Overlays and focus ----

void AppDelegate::aiStepStarted() {
    if (!overlayScreenController_) return;
    overlayScreenController_->clearOverlays();
    overlayScreenController_->placeOverlay(OverlayType::intelligizing, true);
}

void AppDelegate::aiStepEnded() {
    // Half a second after the completion the dictation has usually returned to idle and shows the floating button,
    // or a new dictation is recording: what shows then is theirs, not the AI step's.
    if (!overlayScreenController_ || appStatus_ != AppActivity::processing) return;
    overlayScreenController_->clearOverlays();
}

void AppDelegate::showOverlay(OverlayType overlayType, bool force, OverlayTrigger trigger) {
    logInfo("showOverlay() - Called with overlayType: " + std::string(overlayTypeName(overlayType)) +
            ", on thread: " + (platform_.loop.isMainThread() ? "main" : "background"));
    logInfo("showOverlay() - Removing old overlays before showing new one");
    removeOverlay(true, trigger != OverlayTrigger::session);
    if (trigger != OverlayTrigger::screenChange) capturePreviouslyActiveAppIfNeeded();
    lastShownOverlayType_ = overlayType;
    post([this, overlayType, force]() {
        if (overlayScreenController_) overlayScreenController_->placeOverlay(overlayType, force);
    });
}

void AppDelegate::removeOverlay(bool force, bool preserveAppFocus) {
    logInfo(std::string("AppDelegate.removeOverlay(force: ") + boolText(force) +
            ", preserveAppFocus: " + boolText(preserveAppFocus) + ") - overlayScreenController: " +
            (overlayScreenController_ ? overlayScreenController_->description() : std::string("nil")) +
            " - panels: " + std::to_string(overlayScreenController_ ? overlayScreenController_->panelCount() : 0));
    if (!preserveAppFocus) restoreFocusToPreviouslyActiveApp();
    if (!force && deps_.settings.floatingButtonActivation()) {
        logInfo("AppDelegate.removeOverlay() - Skipping removal of overlays as Floating Button is activated, showing "
                "Button instead");
        post([this]() { showOverlay(OverlayType::button, true); });
        return;
    }
    // The button keeps its type across removals so that its centre is kept when it comes back.
    if (lastShownOverlayType_ != OverlayType::button) lastShownOverlayType_.reset();
    if (overlayScreenController_) overlayScreenController_->clearOverlays();
}

void AppDelegate::capturePreviouslyActiveAppIfNeeded() {
    const auto frontmost = platform_.workspace.frontmostApplication();
    if (!frontmost || frontmost->bundleIdentifier == deps_.bundleIdentifier) {
        logDebug("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Skipped capturing: app is self");
        return;
    }
    previouslyActiveApp_ = frontmost;
    logInfo("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Captured frontmost app: " +
            frontmost->localizedName.value_or("unknown"));
}

void AppDelegate::restoreFocusToPreviouslyActiveApp() {
    if (!previouslyActiveApp_) {
        logWarning("AppDelegate.restoreFocusToPreviouslyActiveApp() - No previously active app to restore focus to");
        return;
    }
    logInfo("AppDelegate.restoreFocusToPreviouslyActiveApp() - Restoring focus to app: " +
            previouslyActiveApp_->description());
    platform_.workspace.activate(*previouslyActiveApp_, kActivateIgnoringOtherApps);
    previouslyActiveApp_.reset();
}

} // namespace sprelio
