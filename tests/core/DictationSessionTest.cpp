// The dictation session on virtual time: every transition of the application state and the edge cases around
// them, with all neighbours faked.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "SessionFakes.h"

using namespace std::chrono_literals;
using sprelio::AppActivity;
using sprelio::Error;
using sprelio::HistoryManagerLogLevel;
using sprelio::LogLevel;
using sprelio::OverlayType;
using sprelio::ShortcutAction;
using sprelio::testing::makeShortcut;
using sprelio::testing::SessionHarness;

namespace {

class DictationSession : public ::testing::Test {
protected:
    sprelio::platform::test::RecordingLogSink logs;
    SessionHarness h;
    std::shared_ptr<sprelio::store::UserShortcut> plain = makeShortcut("recordAndTranscribe");

    bool calledInOrder(const std::vector<std::string>& wanted) const {
        const auto calls = h.tp.calls();
        auto it = calls.begin();
        for (const auto& w : wanted) {
            it = std::find(it, calls.end(), w);
            if (it == calls.end()) return false;
            ++it;
        }
        return true;
    }
    std::vector<std::string> toastTexts() const {
        std::vector<std::string> texts;
        for (const auto& t : h.toasts.shown) texts.push_back(t.toast.messageText);
        return texts;
    }
};

// ---- Entry checks ----

TEST_F(DictationSession, PressBeforeLaunchFinishedStartsNothing) {
    h.app.setOverlayScreenController(nullptr);
    h.press(plain);
    h.run();
    EXPECT_TRUE(logs.contains(
        "recordingShortcutKeyDown() - overlayScreenController not initialized, app still launching", LogLevel::warning));
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_FALSE(h.appState.lastGloballyInitiatedRequestID().has_value());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, PressWhileProcessingIsRefusedAndLeavesTheUploadAlone) {
    h.settings.setSoundEnabled(true);
    h.dictate(plain);
    ASSERT_EQ(h.app.appStatus(), AppActivity::processing);
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    const auto firstID = h.appState.lastGloballyInitiatedRequestID();
    h.tp.clearCalls();

    h.press(plain);
    h.run();
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - app not idle (.processing), skipping!", LogLevel::warning));
    EXPECT_TRUE(h.tp.called("sound:Basso"));
    EXPECT_EQ(h.recorders.made.size(), 1u);
    EXPECT_EQ(h.uploader.cancelCalls, 0);
    EXPECT_EQ(h.appState.lastGloballyInitiatedRequestID(), firstID);
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);

    // The running upload still delivers.
    h.uploader.answer(nlohmann::json{{"text", "still here"}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "still here");
}

TEST_F(DictationSession, RefusalsPlayNoSoundWhenSoundsAreOff) {
    h.settings.setSoundEnabled(false);
    h.release(plain);
    h.run();
    EXPECT_TRUE(logs.contains("onRecordingShortcut() - app not recording (.idle), skipping!", LogLevel::warning));
    EXPECT_FALSE(h.tp.called("sound:Basso"));
}

// ---- The whole road of one dictation ----

TEST_F(DictationSession, PressRecordsReleaseTranscribesAndDeliveryReturnsToIdle) {
    h.settings.setPlaySoundOnRecordingStart(true);
    h.settings.setPlaySoundOnRecordingStop(true);
    h.settings.setFloatingButtonActivation(false);
    h.substitutions.rules = {{"teh", "the"}};

    h.press(plain);
    h.run();
    const auto requestID = h.appState.lastGloballyInitiatedRequestID();
    ASSERT_TRUE(requestID.has_value());
    auto& recorder = h.recorder();
    EXPECT_EQ(recorder.recordCalls, 1);
    EXPECT_EQ(recorder.recordedRequestID, requestID);
    ASSERT_TRUE(recorder.stopwatch);
    EXPECT_EQ(recorder.stopwatch->label(), "recordingShortcutKeyDown() - requestID: " + requestID->string());
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
    EXPECT_EQ(h.app.targetPID(), 2);
    // The start sound precedes the recorder; the state image follows it.
    EXPECT_TRUE(calledInOrder({"readMute:7", "readVolume:7", "sound:Pop", "statusImage:rec_status"}));
    EXPECT_TRUE(recorder.url().string().starts_with((h.tp.root() / "recordings").string()));
    EXPECT_TRUE(std::filesystem::is_directory(recorder.url().parent_path()));
    EXPECT_TRUE(logs.contains("startRecording() - requestID " + requestID->string() + " - starting recording to " +
                              recorder.url().string()));
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - requestID: " + requestID->string() +
                              " - currentMicrophone: Desk Mic (USB)"));
    ASSERT_FALSE(h.overlay.placed.empty());
    EXPECT_EQ(h.overlay.placed.back().first, OverlayType::recording);

    h.tp.advance(1500ms);
    h.release(plain);
    h.run();
    EXPECT_EQ(recorder.stopCalls, 1);
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);
    EXPECT_TRUE(h.tp.called("statusImage:raspozn_status"));
    EXPECT_EQ(h.overlay.placed.back().first, OverlayType::transcribing);
    EXPECT_TRUE(logs.contains("onRecordingShortcut() - ++++ recording stopped ++++"));
    EXPECT_TRUE(logs.contains("onRecordingShortcut() - will start transcribing"));
    EXPECT_TRUE(h.uploader.requests.empty());

    recorder.finish(true);
    h.run();
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    const auto& request = h.uploader.requests[0];
    EXPECT_EQ(request.requestID, *requestID);
    EXPECT_EQ(request.url, recorder.url());
    EXPECT_FALSE(request.diarization);
    EXPECT_FALSE(request.promptId.has_value());
    EXPECT_FALSE(request.inputLanguageCode.has_value());
    EXPECT_FALSE(request.languages.empty());
    EXPECT_TRUE(logs.containsPrefix("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=[\"en\""));
    EXPECT_TRUE(logs.contains("startRecording() - requestID " + requestID->string() +
                              " - shortcut action: recordAndTranscribe"));

    h.tp.clearCalls();
    h.uploader.answer(nlohmann::json{{"text", "teh secret words"}, {"language", "de"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "the secret words");
    EXPECT_EQ(h.accessibility.injections[0].pid, 2);
    EXPECT_EQ(h.substitutions.inputs, std::vector<std::string>{"teh secret words"});
    EXPECT_TRUE(calledInOrder({"sound:Blow", "statusImage:micro_status"}));
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::success);
    EXPECT_EQ(h.history.entries[0].message, "teh secret words");
    EXPECT_EQ(h.history.entries[0].requestID, *requestID);
    EXPECT_EQ(h.settings.lastDetectedLanguageCode(), "de");
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_FALSE(h.app.targetPID().has_value());
    EXPECT_EQ(h.appState.currentlyActiveUserShortcut(), nullptr);
    EXPECT_TRUE(logs.contains("performPasting() - text character count: 16", LogLevel::warning));
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - generatedText: <privatized> - "
                              "detectedLanguage: de"));

    // Dictated words never reach the log.
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.message.find("secret"), std::string::npos) << line.message;
    }
}

TEST_F(DictationSession, StateChangesThreeHopsAfterThePressAndAfterTheRecorderStarted) {
    // A chain of probes, one hop each, interleaves with the session's own hops on the FIFO loop.
    struct Seen {
        AppActivity status;
        std::size_t recorders;
    };
    std::vector<Seen> seen;
    std::function<void(int)> probe = [&](int left) {
        seen.push_back({h.app.appStatus(), h.recorders.made.size()});
        if (left > 0) h.tp.loop().post([&probe, left]() { probe(left - 1); });
    };
    h.press(plain);
    h.tp.loop().post([&probe]() { probe(4); });
    h.run();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[0].status, AppActivity::idle); // after the dispatch
    EXPECT_EQ(seen[1].status, AppActivity::idle); // after key-down step 1
    EXPECT_EQ(seen[1].recorders, 0u);
    EXPECT_EQ(seen[2].status, AppActivity::idle); // after step 2: the recorder runs, the state has not moved yet
    EXPECT_EQ(seen[2].recorders, 1u);
    EXPECT_EQ(seen[3].status, AppActivity::recording);
}

TEST_F(DictationSession, ReleaseBeforeTheStateChangeIsRefusedAndRecordingGoesOn) {
    h.settings.setSoundEnabled(true);
    h.press(plain);
    h.release(plain); // queued behind the press, ahead of the key-down hops
    h.run();
    EXPECT_TRUE(logs.contains("onRecordingShortcut() - app not recording (.idle), skipping!", LogLevel::warning));
    EXPECT_TRUE(h.tp.called("sound:Basso"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
    EXPECT_EQ(h.recorder().stopCalls, 0);

    // The next release stops it.
    h.tp.advance(1s);
    h.release(plain);
    h.run();
    EXPECT_EQ(h.recorder().stopCalls, 1);
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);
}

// ---- Minimum duration ----

TEST_F(DictationSession, RecordingOf399Point9MsIsDiscardedSilently) {
    h.settings.setSoundEnabled(true);
    h.dictate(plain, 399'900us);
    EXPECT_TRUE(logs.containsPrefix("startRecording() - requestID "));
    bool tooShort = false;
    for (const auto& line : logs.lines()) {
        if (line.message.find("recording too short (399.9 < minimum of 400), discarding!") != std::string::npos) {
            tooShort = true;
        }
    }
    EXPECT_TRUE(tooShort);
    EXPECT_TRUE(h.uploader.requests.empty());
    EXPECT_TRUE(h.history.entries.empty());
    EXPECT_TRUE(h.toasts.shown.empty());
    EXPECT_FALSE(h.tp.called("sound:Glass"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    // The file is the recorder's and stays where it is; nothing here removes it.
}

TEST_F(DictationSession, RecordingOfExactly400MsPasses) {
    h.dictate(plain, 400ms);
    EXPECT_EQ(h.uploader.requests.size(), 1u);
}

TEST_F(DictationSession, MinimumDurationIsReadFromTheSetting) {
    h.settings.setMinimumRecordingDuration(1000);
    h.dictate(plain, 999ms);
    EXPECT_TRUE(h.uploader.requests.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, DiscardFlagDropsTheRecording) {
    h.press(plain);
    h.run();
    h.app.setDiscardCurrentRecording(true);
    h.tp.advance(2s);
    h.release(plain);
    h.run();
    h.recorder().finish(true);
    h.run();
    EXPECT_TRUE(logs.containsPrefix("startRecording() - requestID "));
    bool discarded = false;
    for (const auto& line : logs.lines()) {
        discarded |= line.message.ends_with(" - discarding current recording (discardCurrentRecording = true)");
    }
    EXPECT_TRUE(discarded);
    EXPECT_TRUE(h.uploader.requests.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, FailedRecordingIsLoggedAndStillUploaded) {
    h.press(plain);
    h.run();
    h.tp.advance(1s);
    h.release(plain);
    h.run();
    h.recorder().finish(false);
    h.run();
    bool logged = false;
    for (const auto& line : logs.lines()) logged |= line.message.find("recording completed with status false") != std::string::npos;
    EXPECT_TRUE(logged);
    EXPECT_EQ(h.uploader.requests.size(), 1u);
}

// ---- Which shortcut decides ----

TEST_F(DictationSession, StopBySecondShortcutDeliversByTheSecondShortcutsAction) {
    auto caps = makeShortcut("recordAndTranscribeToCaps");
    h.press(plain);
    h.run();
    h.tp.advance(1s);
    h.release(caps);
    h.run();
    h.recorder().finish(true);
    h.run();
    h.uploader.answer(nlohmann::json{{"text", "hello world"}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "HELLO WORLD");
}

TEST_F(DictationSession, FloatingMenuShortcutWinsButLanguageComesFromTheActiveShortcut) {
    auto active = makeShortcut("recordAndTranscribe", std::nullopt, std::string("fr"));
    h.intelligence.prompts["item-7"] = sprelio::AICompletionPromptId{"summarize", "", "", "fr", "en"};
    h.press(active);
    h.run();
    h.appState.setFloatingButtonMenuShortcut(makeShortcut("recordAndProcessWithAI", std::string("item-7")));
    h.tp.advance(1s);
    h.release(active);
    h.run();
    h.recorder().finish(true);
    h.run();
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    const auto& request = h.uploader.requests[0];
    ASSERT_TRUE(request.promptId.has_value());
    EXPECT_EQ(request.promptId->promptId, "summarize");
    EXPECT_EQ(request.inputLanguageCode, std::optional<std::string>("fr"));
    EXPECT_EQ(request.languages, std::vector<std::string>{"fr"});
    EXPECT_TRUE(logs.contains("inputLanguageCodes{} - using explicit inputLanguageCode=fr"));
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - floatingButtonMenuShortcutAction    : "
                              "recordAndProcessWithAI"));
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - floatingButtonMenuActionItemIdString: item-7"));
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - requestID: " + request.requestID.string() +
                              " - action: recordAndProcessWithAI - promptId: summarize, diarization: false, "
                              "inputLanguageCode: fr"));

    h.uploader.answer(nlohmann::json{{"text", "notes"}, {"language", "fr"}});
    h.run();
    ASSERT_EQ(h.intelligence.executions.size(), 1u);
    EXPECT_EQ(h.intelligence.executions[0].itemId, "item-7");
    EXPECT_EQ(h.intelligence.executions[0].text, "notes");
    EXPECT_FALSE(h.intelligence.executions[0].completionType.has_value());
    EXPECT_TRUE(h.intelligence.executions[0].expectingCompletion) << "the prompt rode along: the server answers it";
    EXPECT_TRUE(h.accessibility.injections.empty());
}

TEST_F(DictationSession, VoiceToDialogAsksForSpeakersAndPastesLikeText) {
    auto dialog = makeShortcut("voiceToDialog");
    h.dictate(dialog);
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    EXPECT_TRUE(h.uploader.requests[0].diarization);
    h.uploader.answer(nlohmann::json{{"text", "A: hi\nB: hey"}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "A: hi\nB: hey");
    EXPECT_TRUE(h.resultsWindow.shown.empty());
}

TEST_F(DictationSession, UnknownActionAtCompletionEndsQuietlyAndKeepsTheState) {
    auto odd = makeShortcut("recordAndTranscribe");
    h.press(odd);
    h.run();
    h.tp.advance(1s);
    h.release(odd);
    h.run();
    h.appState.setCurrentlyActiveUserShortcut(makeShortcut("noSuchAction"));
    h.recorder().finish(true);
    h.run();
    EXPECT_TRUE(h.uploader.requests.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);
}

// ---- Evaluation of the answer ----

TEST_F(DictationSession, TextWithoutLanguageIsNoTranscription) {
    h.dictate(plain);
    h.uploader.answer(nlohmann::json{{"text", "half an answer"}});
    h.run();
    EXPECT_TRUE(h.accessibility.injections.empty());
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(h.history.entries[0].message, "Unknown Error");
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"Unknown Error"});
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, TextWithoutLanguageFallsThroughToCompletion) {
    h.dictate(plain);
    h.uploader.answer(nlohmann::json{{"text", "raw"}, {"completion", "polished"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "polished");
    EXPECT_TRUE(h.history.entries.empty()); // the completion path writes no history
}

TEST_F(DictationSession, KeysCountOnlyWithStringValues) {
    h.dictate(plain);
    h.uploader.answer(nlohmann::json{{"text", 42}, {"language", "en"}, {"message", nullptr}});
    h.run();
    EXPECT_TRUE(h.accessibility.injections.empty());
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"Unknown Error"});
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, LoneBackendMessageIsShownAndLeavesProcessing) {
    h.dictate(plain);
    h.uploader.answer(nlohmann::json{{"message", "Quota exceeded"}});
    h.run();
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - backend message error: Quota exceeded",
                              LogLevel::error));
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(h.history.entries[0].message, "Quota exceeded");
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"Quota exceeded"});
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);

    // Only a cancel brings it back.
    h.app.callCancelRecordingAndProcessing();
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, UploadErrorIsShownWrittenAndEndsInIdle) {
    h.settings.setSoundEnabled(true);
    h.dictate(plain);
    const Error failure{"NSURLErrorDomain", -1001, "The request timed out.", {}};
    h.uploader.answer(std::nullopt, failure);
    h.run();
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - error: " + failure.debugDescription(),
                              LogLevel::error));
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].message, "The request timed out.");
    EXPECT_EQ(h.history.entries[0].fileURL, h.recorder().url());
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"The request timed out."});
    EXPECT_TRUE(h.tp.called("sound:Glass"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, EmptyResultNamesTheNetworkStateWhenUp) {
    h.dictate(plain);
    h.uploader.answer(std::nullopt);
    h.run();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].message, "Unknown Error");
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"Unknown Error"});
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, StopWithNetworkDownKeepsRecordingUntilTheUploadFails) {
    h.press(plain);
    h.run();
    h.appState.setInternetAvailable(false);
    h.tp.advance(1s);
    h.release(plain);
    h.run();
    EXPECT_TRUE(logs.contains("onRecordingShortcut() - no internet, will transcribing skipped"));
    EXPECT_EQ(h.recorder().stopCalls, 1);
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
    EXPECT_FALSE(h.tp.called("statusImage:raspozn_status"));

    h.recorder().finish(true);
    h.run();
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    h.uploader.answer(std::nullopt);
    h.run();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].message, "The Internet connection appears to be offline.");
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"The Internet connection appears to be offline."});
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, EmptyTranscriptionIsHistoryButNoDelivery) {
    h.settings.setPlaySoundOnRecordingStop(true);
    h.dictate(plain);
    h.tp.clearCalls();
    h.uploader.answer(nlohmann::json{{"text", ""}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::success);
    EXPECT_EQ(h.history.entries[0].message, "");
    EXPECT_TRUE(h.accessibility.injections.empty());
    EXPECT_TRUE(h.substitutions.inputs.empty());
    EXPECT_FALSE(h.tp.called("sound:Blow"));
    EXPECT_TRUE(logs.contains("performPasting() - text is empty, skipping pasting and substitutions!",
                              LogLevel::warning));
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

// ---- Delivery by action ----

TEST_F(DictationSession, FlatFormContinuesASentence) {
    h.dictate(makeShortcut("recordAndTranscribeToFlat"));
    h.uploader.answer(nlohmann::json{{"text", "Hello World"}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, " hello World");
}

TEST_F(DictationSession, CapsIgnoresTheUsersLocale) {
    h.dictate(makeShortcut("recordAndTranscribeToCaps"));
    h.uploader.answer(nlohmann::json{{"text", "istanbul straße"}, {"language", "tr"}});
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "ISTANBUL STRASSE");
}

TEST_F(DictationSession, EmptyTextForAnAIActionStopsProcessing) {
    h.dictate(makeShortcut("recordAndProcessWithAI", std::string("item-1")));
    h.uploader.answer(nlohmann::json{{"text", ""}, {"language", "en"}});
    h.run();
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - itemId: item-1"));
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - generatedText is empty, stopped processing",
                              LogLevel::warning));
    EXPECT_TRUE(h.intelligence.executions.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, AIActionHandsTheTextOverAndStaysBusy) {
    h.dictate(makeShortcut("recordAndProcessWithAI", std::string("item-1")));
    h.uploader.answer(nlohmann::json{{"text", "draft"}, {"language", "en"}});
    h.run();
    ASSERT_EQ(h.intelligence.executions.size(), 1u);
    EXPECT_EQ(h.intelligence.executions[0].itemId, "item-1");
    EXPECT_FALSE(h.intelligence.executions[0].expectingCompletion) << "no prompt rode along: the step runs here";
    // The AI step returns the session to idle when it is done, not the session itself.
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);
}

TEST_F(DictationSession, CompletionOpensTheDialogWhenTheShortcutAsksForIt) {
    h.dictate(makeShortcut("recordAndProcessWithAI", std::string("item-1"), std::nullopt, std::string("dialog")));
    h.uploader.answer(nlohmann::json{{"completion", "answer"}});
    h.run();
    EXPECT_EQ(h.resultsWindow.shown, std::vector<std::string>{"answer"});
    EXPECT_TRUE(h.accessibility.injections.empty());
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - currentlyActiveIntelligenceActionCompletionType "
                              "is .dialog, opening completion in IntelligenceResultView"));
}

TEST_F(DictationSession, TheServersAIStepDeliversExactlyOneText) {
    h.intelligence.prompts["item-1"] = sprelio::AICompletionPromptId{"add_emoji", "", "", "en", "en"};
    const auto stringError = [](const std::string& message) {
        return sprelio::SPRStringError::errorMessageError(std::string("AINotConfigured"), message).toError();
    };
    struct Row {
        const char* what;
        std::optional<nlohmann::json> second;
        std::optional<Error> secondError;
        std::string pasted;
        bool glass;
    };
    const Row rows[] = {
        {"the completion follows the transcript", nlohmann::json{{"completion", "words 😀"}}, std::nullopt, "words 😀",
         false},
        {"the AI step fails after the transcript", std::nullopt, stringError("No AI service is set up."), "words",
         true},
        {"an answer without anything usable follows", nlohmann::json::object(), std::nullopt, "words", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        h.accessibility.injections.clear();
        h.tp.clearCalls();
        h.dictate(makeShortcut("recordAndProcessWithAI", std::string("item-1")));
        h.uploader.answer(nlohmann::json{{"text", "words"}, {"language", "en"}});
        h.run();
        ASSERT_FALSE(h.intelligence.executions.empty());
        EXPECT_TRUE(h.intelligence.executions.back().expectingCompletion);
        EXPECT_TRUE(h.accessibility.injections.empty()) << "the transcript waits for the AI result";
        h.uploader.answer(row.second, row.secondError);
        h.run();
        ASSERT_EQ(h.accessibility.injections.size(), 1u);
        EXPECT_EQ(h.accessibility.injections[0].text, row.pasted);
        EXPECT_EQ(h.tp.called("sound:Glass"), row.glass);
        EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    }
    EXPECT_TRUE(logs.contains("AppDelegate.handleRecordingCompletion() - recordAndProcessWithAI completion failed with "
                              "error: No AI service is set up. - will paste transcribed text instead: <privatized>",
                              LogLevel::error));
}

TEST_F(DictationSession, CompletionIsPastedForPasteOrNoType) {
    for (const auto& type : {std::optional<std::string>("paste"), std::optional<std::string>()}) {
        h.accessibility.injections.clear();
        h.dictate(makeShortcut("recordAndProcessWithAI", std::string("item-1"), std::nullopt, type));
        h.uploader.answer(nlohmann::json{{"completion", "answer"}});
        h.run();
        ASSERT_EQ(h.accessibility.injections.size(), 1u);
        EXPECT_EQ(h.accessibility.injections[0].text, "answer");
        EXPECT_TRUE(h.resultsWindow.shown.empty());
        EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    }
    EXPECT_EQ(logs.count("AppDelegate.handleRecordingCompletion() - currentlyActiveIntelligenceActionCompletionType "
                         "is .paste OR nil, pasting completion"),
              2u);
}

TEST_F(DictationSession, PastingFromAnotherThreadIsPostedToTheLoop) {
    std::thread worker([this]() { h.app.performPasting("from a worker"); });
    worker.join();
    EXPECT_TRUE(h.accessibility.injections.empty());
    h.run();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "from a worker");
}

// ---- Cancel ----

TEST_F(DictationSession, CancelDuringRecordingWritesOneHistoryEntry) {
    h.press(plain);
    h.run();
    const auto requestID = h.appState.lastGloballyInitiatedRequestID();
    h.tp.advance(2s);
    h.app.callCancelRecordingAndProcessing();
    h.run();
    EXPECT_EQ(h.appState.lastGloballyCancelledRequestID(), requestID);
    EXPECT_EQ(h.recorder().stopCalls, 1);
    EXPECT_EQ(h.uploader.cancelCalls, 1);
    EXPECT_EQ(h.continuousSpeech.stopCalls, 1);
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    EXPECT_TRUE(logs.contains("cancelRecordingAndProcessing() - recording/processing has been cancelled by the user",
                              LogLevel::warning));

    h.recorder().finish(true);
    h.run();
    EXPECT_TRUE(logs.contains("startRecording() - error: userCancelledRecordingError", LogLevel::error));
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(h.history.entries[0].message, "Cancelled recording.");
    EXPECT_EQ(h.history.entries[0].requestID, *requestID);
    EXPECT_EQ(h.history.entries[0].fileURL, h.recorder().url());
    EXPECT_TRUE(h.uploader.requests.empty());
    EXPECT_TRUE(h.toasts.shown.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, CancelDuringProcessingWritesNoHistory) {
    h.dictate(plain);
    ASSERT_EQ(h.app.appStatus(), AppActivity::processing);
    h.app.callCancelRecordingAndProcessing();
    h.run();
    EXPECT_EQ(h.uploader.cancelCalls, 1);
    EXPECT_TRUE(h.history.entries.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
    // The next dictation is not confused by the old cancel mark.
    h.dictate(plain);
    EXPECT_EQ(h.uploader.requests.size(), 2u);
}

// ---- Continuous speech ----

TEST_F(DictationSession, ReturnToIdleIsRefusedWhileContinuousSpeechRuns) {
    h.app.setupMenuWithRecording(AppActivity::continuousSpeechActive);
    h.run();
    h.continuousSpeech.active = true;
    h.tp.clearCalls();
    h.app.setupMenuWithMainMenu();
    h.run();
    EXPECT_TRUE(logs.contains("setupMenuWithMainMenu() - ContinuousSpeechManager.shared.isActive, skipping!",
                              LogLevel::warning));
    EXPECT_EQ(h.app.appStatus(), AppActivity::continuousSpeechActive);
    EXPECT_FALSE(h.tp.called("statusImage:micro_status"));
}

// ---- Failures before recording ----

TEST_F(DictationSession, NoInternetAtKeyDownShowsTheNetworkErrorAndRecordsNothing) {
    h.appState.setInternetAvailable(false);
    h.press(plain);
    h.run();
    const auto requestID = h.appState.lastGloballyInitiatedRequestID();
    ASSERT_TRUE(requestID.has_value());
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - requestID: " + requestID->string() +
                                  " - error: networkError",
                              LogLevel::error));
    EXPECT_EQ(toastTexts(), std::vector<std::string>{"The Internet connection appears to be offline."});
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_EQ(h.microphones.calls, 0);
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, NoMicrophoneStopsTheTapTimerAndShowsTheError) {
    h.microphones.device.reset();
    h.app.startRecordingDurationTimer(10);
    h.press(plain);
    h.run();
    EXPECT_FALSE(h.app.hasRecordingDurationTimer());
    EXPECT_EQ(h.tp.loop().pendingTimers(), 0u);
    bool stopped = false;
    for (const auto& line : logs.lines()) {
        stopped |= line.message.find("caller: recordingShortcutKeyDown - requestID: ") != std::string::npos &&
                   line.message.ends_with("reason: got no mic, show error");
    }
    EXPECT_TRUE(stopped);
    ASSERT_EQ(h.toasts.shown.size(), 1u);
    EXPECT_EQ(h.toasts.shown[0].toast.messageText,
              "Your computer has no microphones that are accessible by Sprelio. Please connect a microphone to your "
              "computer first, then press the button below to relaunch the application.");
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, MutedMicrophoneIsUnmutedAndRaised) {
    h.tp.devices[7].mute = 1;
    h.tp.devices[7].volume = 0.1f;
    h.press(plain);
    h.run();
    EXPECT_TRUE(calledInOrder({"readMute:7", "writeMute:7:0", "writeVolume:7:0.66", "readVolume:7"}));
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone unmuted and volume raised"));
    // The raised volume passes the low-volume test without a second write.
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
}

TEST_F(DictationSession, MutedMicrophoneThatCannotBeUnmutedStops) {
    h.tp.devices[7].mute = 1;
    h.tp.devices[7].muteWritable = false;
    h.press(plain);
    h.run();
    // Both writes are tried even when the first fails.
    EXPECT_TRUE(calledInOrder({"writeMute:7:0", "writeVolume:7:0.66"}));
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone is muted", LogLevel::error));
    EXPECT_EQ(toastTexts(),
              std::vector<std::string>{"Your microphone is muted. Please unmute your microphone and try again."});
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, UnreadableMuteSkipsTheMuteRepair) {
    h.tp.devices[7].mute.reset();
    h.press(plain);
    h.run();
    EXPECT_FALSE(h.tp.called("writeMute:7:0"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
}

TEST_F(DictationSession, LowVolumeIsRaised) {
    h.tp.devices[7].volume = 0.2f;
    h.press(plain);
    h.run();
    EXPECT_TRUE(h.tp.called("writeVolume:7:0.66"));
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
}

TEST_F(DictationSession, VolumeAtTheThresholdIsLeftAlone) {
    h.tp.devices[7].volume = 0.33f;
    h.press(plain);
    h.run();
    EXPECT_FALSE(h.tp.called("writeVolume:7:0.66"));
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
}

TEST_F(DictationSession, LowVolumeThatCannotBeRaisedOffersNeverShowAgain) {
    h.tp.devices[7].volume = 0.2f;
    h.tp.devices[7].volumeWritable = false;
    h.press(plain);
    h.run();
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone input volume very low: 0.2 (threshold: 0.33)",
                              LogLevel::error));
    ASSERT_EQ(h.toasts.shown.size(), 1u);
    EXPECT_TRUE(h.toasts.shown[0].toast.showNeverShowAgain);
    EXPECT_EQ(h.toasts.shown[0].toast.messageText,
              "Your microphone input volume is very low. Please increase your microphone volume or check your "
              "microphone settings.");
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST_F(DictationSession, DeviceWithoutReadableVolumeIsUsed) {
    h.tp.devices[7].volume.reset();
    h.press(plain);
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
}

TEST_F(DictationSession, RecorderThatCannotBeMadeIsLogged) {
    h.recorders.failToCreate = true;
    h.press(plain);
    h.run();
    const auto requestID = h.appState.lastGloballyInitiatedRequestID();
    EXPECT_TRUE(logs.contains("startRecording() - requestID " + requestID->string() + " - error: recordAudio is nil",
                              LogLevel::error));
}

// ---- Tap-mode limit ----

TEST_F(DictationSession, TapModeStopsWhenTheLimitRunsOut) {
    const int minutes = h.settings.tapAndRecordTimeoutMinutes();
    h.press(plain);
    h.app.startRecordingDurationTimer(minutes);
    h.run();
    ASSERT_TRUE(h.app.hasRecordingDurationTimer());
    h.tp.advance(std::chrono::minutes(minutes) - 1ms);
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
    EXPECT_EQ(h.recorder().stopCalls, 0);
    h.tp.advance(1ms);
    EXPECT_EQ(h.recorder().stopCalls, 1);
    EXPECT_EQ(h.app.appStatus(), AppActivity::processing);
    EXPECT_FALSE(h.app.hasRecordingDurationTimer());
    bool timerEnded = false;
    for (const auto& line : logs.lines()) {
        timerEnded |= line.message.starts_with("stopRecordingDurationTimer() - at: ") &&
                      line.message.ends_with(" - caller: recordingShortcutKeyUpByTimer(), reason: timer ended");
    }
    EXPECT_TRUE(timerEnded);
    // A fired timer has nothing left to report.
    EXPECT_FALSE(logs.containsPrefix("logRecordingDurationTimerStopped()"));
}

TEST_F(DictationSession, SecondTapStopsTheLimitAndLogsWhatWasLeft) {
    h.press(plain);
    h.app.startRecordingDurationTimer(10);
    h.run();
    h.tp.advance(90s);
    h.release(plain);
    h.run();
    EXPECT_FALSE(h.app.hasRecordingDurationTimer());
    EXPECT_EQ(h.tp.loop().pendingTimers(), 0u);
    EXPECT_TRUE(logs.contains("logRecordingDurationTimerStopped() - at: 2026-01-01 10:01:30 +0000 - remaining: 510.0s "
                              "(out of 600.0s) - caller: recordingShortcutKeyUp() - reason: user stopped recording"));
    h.tp.advance(std::chrono::minutes(20));
    EXPECT_EQ(h.recorder().stopCalls, 1);
}

TEST_F(DictationSession, RestartingTheLimitReplacesTheOldTimer) {
    h.app.startRecordingDurationTimer(10);
    h.app.startRecordingDurationTimer(10);
    h.run();
    EXPECT_EQ(h.tp.loop().pendingTimers(), 1u);
}

// ---- Overlays and focus ----

TEST_F(DictationSession, TheServersAIStepSwapsTheOverlayInPlaceAndItsEndClearsIt) {
    h.app.setAppStatus(AppActivity::processing);
    h.app.aiStepStarted();
    ASSERT_EQ(h.overlay.placed.size(), 1u);
    EXPECT_EQ(h.overlay.placed.back(), std::make_pair(OverlayType::intelligizing, true));
    EXPECT_EQ(h.overlay.clears, 1);
    h.app.aiStepEnded();
    EXPECT_EQ(h.overlay.clears, 2);
    EXPECT_EQ(h.overlay.placed.size(), 1u);
    // Once the dictation is back at idle (the floating button shows) or a new one records, the end of the AI step
    // leaves their overlay alone.
    for (const AppActivity later : {AppActivity::idle, AppActivity::recording}) {
        h.app.setAppStatus(later);
        h.app.aiStepEnded();
        EXPECT_EQ(h.overlay.clears, 2) << appActivityName(later);
    }
}

TEST_F(DictationSession, FocusIsCapturedAtEachOverlayAndGivenBackAtTheNext) {
    h.settings.setFloatingButtonActivation(false);
    h.press(plain);
    h.run();
    EXPECT_TRUE(logs.contains("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Captured frontmost app: Editor"));
    ASSERT_TRUE(h.app.previouslyActiveApp().has_value());
    h.tp.clearCalls();

    h.tp.advance(1s);
    h.release(plain);
    h.run();
    // The transcribing overlay first gives focus back, then captures again.
    EXPECT_TRUE(h.tp.called("activate:2:2"));
    EXPECT_TRUE(h.app.previouslyActiveApp().has_value());

    h.recorder().finish(true);
    h.run();
    h.tp.clearCalls();
    h.uploader.answer(nlohmann::json{{"text", "x"}, {"language", "en"}});
    h.run();
    EXPECT_TRUE(h.tp.called("activate:2:2"));
    EXPECT_FALSE(h.app.previouslyActiveApp().has_value());
    EXPECT_GT(h.overlay.clears, 0);
}

TEST_F(DictationSession, OwnWindowInFrontIsNotCaptured) {
    h.tp.frontmost = sprelio::platform::RunningApplication{99, "com.sprelio.app", std::string("Sprelio")};
    h.app.capturePreviouslyActiveAppIfNeeded();
    EXPECT_TRUE(logs.contains("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Skipped capturing: app is self",
                              LogLevel::debug));
    EXPECT_FALSE(h.app.previouslyActiveApp().has_value());
    h.tp.frontmost.reset();
    h.app.capturePreviouslyActiveAppIfNeeded();
    EXPECT_EQ(logs.count("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Skipped capturing: app is self"), 2u);
    h.app.restoreFocusToPreviouslyActiveApp();
    EXPECT_TRUE(logs.contains("AppDelegate.restoreFocusToPreviouslyActiveApp() - No previously active app to restore "
                              "focus to",
                              LogLevel::warning));
}

TEST_F(DictationSession, ApplicationWithoutNameIsCapturedAsUnknown) {
    h.tp.frontmost = sprelio::platform::RunningApplication{5, "org.example.Nameless", std::nullopt};
    h.app.capturePreviouslyActiveAppIfNeeded();
    EXPECT_TRUE(logs.contains("AppDelegate.capturePreviouslyActiveAppIfNeeded() - Captured frontmost app: unknown"));
}

TEST_F(DictationSession, ReturnToIdleShowsTheButtonWhenItIsOn) {
    h.settings.setFloatingButtonActivation(true);
    h.app.setOverlayScreenControllerPanelsNeedRefresh(true);
    h.app.setupMenuWithMainMenu();
    h.run();
    EXPECT_EQ(h.overlay.refreshes, 1);
    EXPECT_FALSE(h.app.overlayScreenControllerPanelsNeedRefresh());
    ASSERT_FALSE(h.overlay.placed.empty());
    EXPECT_EQ(h.overlay.placed.back(), std::make_pair(OverlayType::button, true));
    EXPECT_EQ(h.app.lastShownOverlayType(), OverlayType::button);
}

TEST_F(DictationSession, NonForcedRemovalKeepsTheButton) {
    h.settings.setFloatingButtonActivation(true);
    h.app.removeOverlay(false, true);
    EXPECT_TRUE(logs.contains("AppDelegate.removeOverlay() - Skipping removal of overlays as Floating Button is "
                              "activated, showing Button instead"));
    EXPECT_EQ(h.overlay.clears, 0);
    h.run();
    ASSERT_FALSE(h.overlay.placed.empty());
    EXPECT_EQ(h.overlay.placed.back().first, OverlayType::button);
    h.app.removeOverlay(true, true);
    EXPECT_EQ(h.overlay.clears, 2); // the forced one, plus the one inside showOverlay
    EXPECT_EQ(h.app.lastShownOverlayType(), OverlayType::button);
}

// ---- Dispatch ----

TEST_F(DictationSession, DispatchClosureSetsTheShortcutThenActsInOneTurn) {
    auto dispatch = h.app.onRecordingShortcut();
    dispatch(true, ShortcutAction::recordAndTranscribe, std::nullopt, plain);
    EXPECT_EQ(h.appState.currentlyActiveUserShortcut(), nullptr); // nothing happens before the loop runs
    h.run();
    EXPECT_EQ(h.app.appStatus(), AppActivity::recording);
    EXPECT_TRUE(logs.containsPrefix("AppState.currentlyActiveUserShortcut: "));
}

TEST_F(DictationSession, DelegateForwardsTheShortcutCacheRefresh) {
    h.app.updateCachedUserShortcuts();
    EXPECT_EQ(h.cachedShortcutUpdates, 1);
}

} // namespace
