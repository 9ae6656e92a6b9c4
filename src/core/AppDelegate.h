#pragma once
// The central object of the process. This part of it is the dictation session: from a shortcut press to
// delivered text and back to idle. Every step runs on the main loop and each hop is a post, so that a press
// handler returns at once to the event path.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "base/LifetimeGuard.h"
#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "base/Error.h"
#include "shared/ShortcutAction.h"
#include "base/Uuid.h"
#include "core/Dictation.h"
#include "diagnostics/HistoryManager.h"
#include "platform/Platform.h"
#include "shared/OverlayController.h"

namespace sprelio {

namespace store {
class Settings;
class UserShortcut;
} // namespace store

class AccesibilityController;
class AudioUploadManager;
class ContinuousSpeechManager;
class IntelligenceViewModel;
class ErrorPresenter;
class MicrophoneManager;
class RecordingAudio;
class RecordingAudioFactory;
class LiveDictationStreams;
class ResultsWindow;
class Stopwatch;
class SubstitutionHelpers;

struct AppDelegateDependencies {
    platform::Platform platform;
    store::Settings& settings;
    AppState& appState;
    AppStateRealtimeMirror& realtimeMirror;
    ErrorPresenter& messages;
    RecordingAudioFactory& recordingAudioFactory;
    MicrophoneManager& microphoneManager;
    AudioUploadManager& uploadManager;
    SubstitutionHelpers& substitutionHelpers;
    AccesibilityController& accessibilityController;
    IntelligenceViewModel& intelligenceViewModel;
    ContinuousSpeechManager& continuousSpeechManager;
    HistoryManager& historyManager;
    ResultsWindow& resultsWindow;
    // Sprelio's own application identifier: focus is never "restored" to ourselves.
    std::string bundleIdentifier = "com.sprelio.app";
    // Refreshes the event path's copy of the stored shortcuts.
    std::function<void()> updateCachedUserShortcuts;
    // Streams each dictation to its backend while it records, where the backend decodes live; none: never.
    LiveDictationStreams* liveDictation = nullptr;
};

class AppDelegate final {
public:
    using UserShortcutPtr = std::shared_ptr<store::UserShortcut>;
    // The closure the shortcut managers call with (start, action, itemId, shortcut).
    using RecordingShortcutDispatch =
        std::function<void(bool start, ShortcutAction action, std::optional<std::string> itemId, UserShortcutPtr)>;

    explicit AppDelegate(AppDelegateDependencies dependencies);
    ~AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void updateCachedUserShortcuts();

    // Set at the end of launch; until then a press is refused because the application is still launching.
    void setOverlayScreenController(OverlayScreenController* controller) { overlayScreenController_ = controller; }
    OverlayScreenController* overlayScreenController() const { return overlayScreenController_; }

    // ---- Shortcut dispatch ----
    // Posts: the shortcut becomes the active one, then key down (start) or key up, in the same turn. A stop press
    // thereby decides the action and language of the result.
    void recordingShortcutDispatch(bool start, ShortcutAction action, std::optional<std::string> itemId,
                                   UserShortcutPtr shortcut);
    // The same as a closure, for the shortcut managers.
    RecordingShortcutDispatch onRecordingShortcut();

    // ---- The session ----
    void recordingShortcutKeyDown();
    void recordingShortcutKeyUp();
    void recordingShortcutKeyUpByTimer();
    void startRecordingDurationTimer(int minutes);
    void stopRecordingDurationTimer(const std::string& caller, const std::string& reason);
    void startRecording(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch);
    // The state change after the recorder started; continuous speech uses it with its own state.
    void setupMenuWithRecording(AppActivity state = AppActivity::recording);
    // `dictation` comes with its action and item settled from the stopping shortcut; the floating button's choice
    // and the languages are added here.
    void handleRecordingCompletion(Dictation dictation, bool success);
    // The evaluation of an upload's answer; may be called from any thread.
    void evaluateUploadResult(const std::optional<nlohmann::json>& result, const std::optional<Error>& error,
                              const Dictation& dictation);
    // May be called from any thread; off the main loop the whole step is posted.
    void performPasting(std::string text);
    void setupMenuWithTranslation();
    // The one way back to idle.
    void setupMenuWithMainMenu();
    void cancelRecordingAndProcessing();
    void callCancelRecordingAndProcessing();

    // ---- Overlays and focus ----
    // The wake and a screen change redraw the button without moving the user's focus; a screen change doesn't take
    // the frontmost application as the one to return to either.
    enum class OverlayTrigger { session, wake, screenChange };
    void showOverlay(OverlayType overlayType, bool force = false, OverlayTrigger trigger = OverlayTrigger::session);
    void removeOverlay(bool force, bool preserveAppFocus);
    // The stages of a streamed answer: while the server's AI step runs the intelligizing overlay stands where the
    // transcribing one stood; when it is over the overlay goes. Focus is not touched: the dictation is not over.
    void aiStepStarted();
    void aiStepEnded();
    void capturePreviouslyActiveAppIfNeeded();
    void restoreFocusToPreviouslyActiveApp();

    // ---- Fields ----
    AppActivity appStatus() const { return appStatus_; }
    void setAppStatus(AppActivity status) { appStatus_ = status; }
    const std::shared_ptr<RecordingAudio>& recordAudio() const { return recordAudio_; }
    std::optional<pid_t> targetPID() const { return targetPID_; }
    const std::optional<platform::RunningApplication>& previouslyActiveApp() const { return previouslyActiveApp_; }
    bool discardCurrentRecording() const { return discardCurrentRecording_; }
    void setDiscardCurrentRecording(bool discard) { discardCurrentRecording_ = discard; }
    bool hasRecordingDurationTimer() const { return recordingDurationTimer_ != nullptr; }
    bool overlayScreenControllerPanelsNeedRefresh() const { return overlayScreenControllerPanelsNeedRefresh_; }
    void setOverlayScreenControllerPanelsNeedRefresh(bool value) { overlayScreenControllerPanelsNeedRefresh_ = value; }
    std::optional<OverlayType> lastShownOverlayType() const { return lastShownOverlayType_; }

private:
    // Posts a task that is dropped when this object is gone by the time it runs.
    void post(std::function<void()> task);
    void keyDownMainStep1(const Uuid& requestID);
    void keyDownMainStep2(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch);
    void recordingCompleted(Dictation dictation, bool success, std::chrono::system_clock::time_point endDate);
    void deliverTranscription(const std::string& text, const Dictation& dictation);
    // When the server's AI step fails after its transcript came: the transcript is delivered, with Glass, so that
    // the user never loses it to the AI. False when no transcript waits.
    bool deliverTranscriptInsteadOfCompletion(const Dictation& dictation, const std::string& failure);
    void pasteOrShowCompletion(const std::string& completion);
    void logRecordingDurationTimerStopped(const std::string& caller, const std::string& reason);
    void postHistory(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> url, const Uuid& requestID);
    std::string dateText() const;

    AppDelegateDependencies deps_;
    platform::Platform& platform_;
    LifetimeGuard lifetime_;

    AppActivity appStatus_ = AppActivity::idle;
    std::shared_ptr<RecordingAudio> recordAudio_;
    std::optional<pid_t> targetPID_;
    std::optional<platform::RunningApplication> previouslyActiveApp_;
    bool discardCurrentRecording_ = false;
    std::shared_ptr<platform::Timer> recordingDurationTimer_;
    OverlayScreenController* overlayScreenController_ = nullptr;
    bool overlayScreenControllerPanelsNeedRefresh_ = false;
    std::optional<OverlayType> lastShownOverlayType_;
};

} // namespace sprelio
