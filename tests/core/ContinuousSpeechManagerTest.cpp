// Continuous voice to text on virtual time: the level of a buffer, the calibration, the voice decisions of the tap,
// the cut at pauses, the minimum duration, the upload rate limit and what becomes of each piece's answer.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <fstream>

#include "SessionFakes.h"
#include "core/ContinuousSpeechManagerImpl.h"
#include "platform/test/FakeAudioLevelTap.h"

using namespace std::chrono_literals;
using namespace sprelio;
using namespace sprelio::testing;
using sprelio::platform::test::FakeAudioLevelTap;

namespace {

// A constant signal of this amplitude reads 40·log10(a) in the tap's scale.
float amplitudeForLevel(float level) { return std::pow(10.0f, level / 40.0f); }

constexpr float kQuiet = 0.003f;  // about -101
constexpr float kSpeech = 0.3f;   // about -21

// The real manager between the session and faked neighbours: its own uploader, the session's delivery.
struct ContinuousHarness {
    platform::test::TestPlatform tp;
    platform::Platform platform = tp.platform();
    store::MemorySettingsStore settingsStore;
    store::AppConstants constants{tp};
    store::Settings settings{settingsStore, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    FakeToasts toasts;
    MessageCenter messages{platform, settings, appState, toasts, constants.appName()};
    FakeRecorderFactory recorders;
    FakeMicrophoneManager microphones;
    FakeUploader sessionUploader;
    FakeUploader uploader;
    FakeSubstitutions substitutions;
    FakeAccessibility accessibility;
    FakeIntelligence intelligence;
    FakeHistory history;
    FakeResultsWindow resultsWindow;
    FakeOverlay overlay;
    FakeAudioLevelTap tap;
    bool withAppDelegate = true;
    ContinuousSpeechManagerImpl manager{ContinuousSpeechManagerDependencies{
        tp.loop(), tp, tap, settings, appState, recorders, uploader, history, messages,
        [this]() -> AppDelegate* { return withAppDelegate ? &app : nullptr; }}};
    AppDelegate app{AppDelegateDependencies{platform, settings, appState, mirror, messages, recorders, microphones,
                                            sessionUploader, substitutions, accessibility, intelligence, manager,
                                            history, resultsWindow, "com.sprelio.app", {}}};
    platform::test::RecordingLogSink logs;
    // Recorders asked to stop finish at once, as a fast recorder would, unless a test holds them.
    bool finishStoppedRecorders = true;

    ContinuousHarness() {
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        settings.setSaveRecordingsFolder(tp.root() / "recordings");
        app.setOverlayScreenController(&overlay);
    }

    std::chrono::nanoseconds bufferDuration() const {
        return std::chrono::nanoseconds(static_cast<long long>(tap.bufferSeconds() * 1e9));
    }
    void settle() {
        if (finishStoppedRecorders) {
            // A finish starts the next recorder, which joins the list.
            for (std::size_t i = 0; i < recorders.made.size(); ++i)
                if (recorders.made[i]->stopCalls > 0) recorders.made[i]->finish(true);
        }
        tp.runUntilIdle();
    }
    // One buffer after one buffer's time.
    void buffer(float amplitude) {
        tp.advance(bufferDuration());
        tap.deliverConstant(amplitude);
        settle();
    }
    void feed(float amplitude, std::chrono::nanoseconds duration) {
        const auto end = tp.elapsed() + duration;
        while (tp.elapsed() + bufferDuration() <= end) buffer(amplitude);
    }
    void start() {
        app.setAppStatus(AppActivity::continuousSpeechActive);
        manager.startMonitoring();
        tp.runUntilIdle();
    }
    // Starts, calibrates on quiet input and listens.
    void startListening() {
        start();
        feed(kQuiet, 2s + bufferDuration());
        ASSERT_FALSE(manager.isCalibrating());
    }
    int dropped() const {
        int count = 0;
        for (const auto& recorder : recorders.made) count += recorder->finished() ? 1 : 0;
        return count - static_cast<int>(uploader.requests.size());
    }
};

TEST(ContinuousSpeechLevel, IsTwentyTimesTheLogarithmOfTheMeanSquare) {
    const std::vector<float> half(1024, 0.5f);
    EXPECT_NEAR(ContinuousSpeechManagerImpl::level(half.data(), half.size()), 20.0f * std::log10(0.25f), 1e-4);
    const std::vector<float> silence(1024, 0.0f);
    // Full silence: the logarithm of the smallest positive float, about -897.
    EXPECT_FLOAT_EQ(ContinuousSpeechManagerImpl::level(silence.data(), silence.size()),
                    20.0f * std::log10(std::numeric_limits<float>::denorm_min()));
    // -20 dBFS, a tenth of full scale, reads -40 here.
    std::vector<float> tenth(1024);
    for (std::size_t i = 0; i < tenth.size(); ++i) tenth[i] = (i % 2 ? -0.1f : 0.1f);
    EXPECT_NEAR(ContinuousSpeechManagerImpl::level(tenth.data(), tenth.size()), -40.0f, 1e-3);
}

TEST(ContinuousSpeechCalibration, SetsTheThresholdAboveTheRoomWithAFloor) {
    struct Row {
        float roomLevel;
        float threshold;
        const char* logLine;
    };
    const std::vector<Row> rows = {
        {-70, -58, "ContinuousSpeechManager.handle() - Calibration complete: avgDb=-70.0, threshold=-58.0"},
        {-80, -65, "ContinuousSpeechManager.handle() - Calibration complete: avgDb=-80.0, threshold=-65.0"},
        {-30, -18, "ContinuousSpeechManager.handle() - Calibration complete: avgDb=-30.0, threshold=-18.0"},
    };
    for (const auto& row : rows) {
        ContinuousHarness h;
        h.start();
        EXPECT_TRUE(h.manager.isActive());
        EXPECT_TRUE(h.manager.isCalibrating());
        EXPECT_EQ(h.tap.bufferSize(), 1024u);
        EXPECT_TRUE(h.logs.contains("ContinuousSpeechManager.startMonitoring() - Starting calibration phase for 2.0 seconds"));
        // The first piece records through the calibration.
        ASSERT_EQ(h.recorders.made.size(), 1u);
        EXPECT_EQ(h.recorders.made[0]->recordCalls, 1);
        h.feed(amplitudeForLevel(row.roomLevel), 2s + h.bufferDuration());
        ASSERT_TRUE(h.manager.calibratedVoiceTriggerDbThreshold()) << row.roomLevel;
        EXPECT_NEAR(*h.manager.calibratedVoiceTriggerDbThreshold(), row.threshold, 0.01) << row.roomLevel;
        EXPECT_TRUE(h.logs.contains(row.logLine)) << row.logLine;
        EXPECT_FALSE(h.manager.isCalibrating());
    }
}

TEST(ContinuousSpeechCalibration, TakesNoVoiceDecisionWhileItRuns) {
    ContinuousHarness h;
    h.start();
    h.feed(kSpeech, 1s);
    h.feed(kQuiet, 900ms);
    EXPECT_FALSE(h.manager.voiceActivityDetected());
    EXPECT_TRUE(h.manager.isCalibrating());
    EXPECT_EQ(h.recorders.made.size(), 1u);
    EXPECT_EQ(h.recorders.made[0]->stopCalls, 0);
}

TEST(ContinuousSpeechListening, ALevelEqualToTheThresholdIsQuietAndOneJustAboveIsLoud) {
    ContinuousHarness h;
    h.startListening();
    const float threshold = *h.manager.calibratedVoiceTriggerDbThreshold();
    // A buffer with one sample whose level is the threshold to the last bit: the smallest sample that reaches it,
    // found over the ordered bit patterns of positive floats, and the next one up.
    std::vector<float> samples(1024, 0.0f);
    auto levelOf = [&](float a) {
        samples[0] = a;
        return ContinuousSpeechManagerImpl::level(samples.data(), samples.size());
    };
    std::uint32_t low = 0, high = std::bit_cast<std::uint32_t>(1.0f);
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (levelOf(std::bit_cast<float>(middle)) >= threshold) high = middle;
        else low = middle + 1;
    }
    float amplitude = std::bit_cast<float>(low);
    ASSERT_EQ(levelOf(amplitude), threshold);
    float above = amplitude;
    while (levelOf(above) <= threshold) above = std::nextafter(above, 1.0f);

    h.tp.advance(h.bufferDuration());
    levelOf(amplitude);
    h.tap.deliver(samples.data(), samples.size());
    EXPECT_FALSE(h.manager.voiceActivityDetected());
    levelOf(above);
    h.tap.deliver(samples.data(), samples.size());
    EXPECT_TRUE(h.manager.voiceActivityDetected());
}
TEST(ContinuousSpeechListening, ABufferWithoutChannelDataIsIgnored) {
    ContinuousHarness h;
    h.start();
    for (int i = 0; i < 200; ++i) {
        h.tp.advance(h.bufferDuration());
        h.tap.deliver(nullptr, 1024);
    }
    EXPECT_TRUE(h.manager.isCalibrating()) << "no sample was collected";
}

TEST(ContinuousSpeechListening, SilenceMustExceedTheThresholdToEndAPiece) {
    ContinuousHarness h;
    h.finishStoppedRecorders = false;
    h.startListening();
    h.feed(kSpeech, 1s);
    auto& piece = *h.recorders.made.back();
    ASSERT_EQ(piece.stopCalls, 0);
    // Exactly cttsSilenceTresholdMs (1500 ms) after the last loud buffer: nothing ends.
    h.tp.advance(1500ms);
    h.tap.deliverConstant(kQuiet);
    EXPECT_EQ(piece.stopCalls, 0);
    EXPECT_TRUE(h.manager.voiceActivityDetected());
    h.tp.advance(1ns);
    h.tap.deliverConstant(kQuiet);
    EXPECT_EQ(piece.stopCalls, 1);
    EXPECT_FALSE(h.manager.voiceActivityDetected());
    EXPECT_TRUE(h.manager.isRecording()) << "a stopping recorder still counts until its completion";
    // The next quiet buffer meets the finishing recorder: it is asked again, and no new one starts.
    h.tp.advance(h.bufferDuration());
    h.tap.deliverConstant(kQuiet);
    EXPECT_EQ(h.recorders.made.size(), 1u);
    EXPECT_TRUE(h.logs.contains(
        "ContinuousSpeechManager.discardAndRestartRecording() - no voice detected, restarting recording."));
}

TEST(ContinuousSpeechListening, TheSilenceSettingIsReadAtEachBuffer) {
    ContinuousHarness h;
    h.finishStoppedRecorders = false;
    h.settings.setCttsSilenceTresholdMs(800);
    h.startListening();
    h.feed(kSpeech, 500ms);
    h.feed(kQuiet, 780ms);
    EXPECT_EQ(h.recorders.made.back()->stopCalls, 0);
    h.feed(kQuiet, 60ms);
    EXPECT_GE(h.recorders.made.back()->stopCalls, 1);
}

TEST(ContinuousSpeechListening, LongSilenceCyclesRecordersWhoseShortPiecesAreDropped) {
    ContinuousHarness h;
    h.startListening();
    h.feed(kQuiet, 10s);
    // After the first 1.5 s of silence every buffer starts or stops a recorder. The piece that recorded through
    // the calibration is long enough and goes on (the decision rests on time alone); the others are too short.
    EXPECT_GT(h.recorders.made.size(), 100u);
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    EXPECT_EQ(h.uploader.requests[0].url, h.recorders.made[0]->url());
    // The first quiet buffer counts as the last loud one when none was loud.
    EXPECT_TRUE(h.logs.contains("ContinuousSpeechManager.onRecordingCompletion() - last loud sample was 1.5 seconds ago"));
    EXPECT_TRUE(h.logs.containsPrefix("ContinuousSpeechManager.onRecordingCompletion() - threshold used: -"));
    // When speech begins the recorder that happens to run carries on, and the pause after it ends the piece.
    while (h.recorders.made.back()->finished()) h.buffer(kQuiet);
    auto& carrier = *h.recorders.made.back();
    const auto before = h.recorders.made.size();
    h.feed(kSpeech, 2s);
    EXPECT_EQ(h.recorders.made.size(), before) << "a loud buffer starts no recorder";
    EXPECT_EQ(carrier.stopCalls, 0);
    h.feed(kQuiet, 1600ms);
    EXPECT_TRUE(carrier.finished());
    ASSERT_EQ(h.uploader.requests.size(), 2u);
    EXPECT_EQ(h.uploader.requests[1].url, carrier.url());
    // The next recorder's start says how long after the stop it came.
    h.feed(kQuiet, 200ms);
    EXPECT_TRUE(h.logs.containsPrefix("ContinuousSpeechManager.startRecording() - starting new recorder "));
}

TEST(ContinuousSpeechListening, SpeechThatBeginsWhileAPieceStopsIsCarriedByTheNextRecorder) {
    ContinuousHarness h;
    h.finishStoppedRecorders = false;
    h.startListening();
    h.feed(kSpeech, 1s);
    h.feed(kQuiet, 1600ms);
    auto& first = *h.recorders.made.back();
    ASSERT_GE(first.stopCalls, 1);
    // The next words come before the stopping recorder has finished: no recorder starts for them yet.
    h.feed(kSpeech, 300ms);
    EXPECT_EQ(h.recorders.made.size(), 1u);
    first.finish(true);
    h.tp.runUntilIdle();
    ASSERT_EQ(h.recorders.made.size(), 2u) << "the completion started the next recorder";
    auto& second = *h.recorders.made.back();
    EXPECT_EQ(second.recordCalls, 1);
    // Long enough that its upload comes after the rate limit.
    h.feed(kSpeech, 1500ms);
    EXPECT_EQ(second.stopCalls, 0) << "it carries the speech";
    h.feed(kQuiet, 1600ms);
    EXPECT_GE(second.stopCalls, 1);
    second.finish(true);
    h.tp.runUntilIdle();
    ASSERT_EQ(h.uploader.requests.size(), 2u);
    EXPECT_EQ(h.uploader.requests[1].url, second.url());
}

TEST(ContinuousSpeechPieces, TheMinimumDurationDecidesByTimeAlone) {
    struct Row {
        std::chrono::milliseconds length;
        bool success;
        bool uploaded;
    };
    const std::vector<Row> rows = {{399ms, true, false}, {400ms, true, true}, {400ms, false, true}, {3s, false, true}};
    for (const auto& row : rows) {
        ContinuousHarness h;
        h.finishStoppedRecorders = false;
        h.start();
        h.tp.advance(row.length);
        h.manager.stopMonitoring();
        h.recorders.made[0]->finish(row.success);
        h.tp.runUntilIdle();
        EXPECT_EQ(h.uploader.requests.size(), row.uploaded ? 1u : 0u) << row.length.count() << " ms";
        EXPECT_FALSE(h.manager.isRecording());
    }
}

TEST(ContinuousSpeechPieces, UploadsAreRateLimitedAndASkippedPieceKeepsItsFile) {
    struct Row {
        std::chrono::milliseconds gap;
        bool uploaded;
        const char* logLine;
    };
    // With the defaults the limit is (1.5 + 0.4) · 1.5 = 2.85 s between accepted uploads.
    const std::vector<Row> rows = {
        {2000ms, false, "ContinuousSpeechManager.onRecordingCompletion() - upload skipped (rate limit: 2.0s)"},
        {2900ms, true, nullptr}};
    for (const auto& row : rows) {
        ContinuousHarness h;
        h.finishStoppedRecorders = false;
        h.start();
        h.tp.advance(1s);
        h.manager.stopMonitoring();
        h.recorders.made[0]->finish(true);
        h.tp.runUntilIdle();
        ASSERT_EQ(h.uploader.requests.size(), 1u);

        h.start();
        h.tp.advance(row.gap);
        h.manager.stopMonitoring();
        auto& second = *h.recorders.made.back();
        std::filesystem::create_directories(second.url().parent_path());
        std::ofstream(second.url()) << "audio";
        second.finish(true);
        h.tp.runUntilIdle();
        EXPECT_EQ(h.uploader.requests.size(), row.uploaded ? 2u : 1u) << row.gap.count();
        if (row.logLine) {
            EXPECT_TRUE(h.logs.contains(row.logLine, LogLevel::warning)) << row.logLine;
        }
        EXPECT_TRUE(std::filesystem::exists(second.url()));
    }
}

TEST(ContinuousSpeechPieces, AnUploadAsksForTheUsersLanguagesWithoutAnExplicitOne) {
    ContinuousHarness h;
    h.finishStoppedRecorders = false;
    h.start();
    h.tp.advance(1s);
    h.manager.stopMonitoring();
    h.recorders.made[0]->finish(true);
    h.tp.runUntilIdle();
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    const auto& request = h.uploader.requests[0];
    EXPECT_EQ(request.url, h.recorders.made[0]->url());
    EXPECT_EQ(request.requestID, *h.recorders.made[0]->recordedRequestID);
    EXPECT_FALSE(request.inputLanguageCode);
    EXPECT_FALSE(request.promptId);
    EXPECT_FALSE(request.diarization);
    EXPECT_TRUE(h.logs.contains("AudioUploadManager.uploadRecording() - requestID: " + request.requestID.string() +
                                ", inputLanguageCode: nil"));
    EXPECT_TRUE(h.logs.containsPrefix("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages="));
    EXPECT_TRUE(h.sessionUploader.requests.empty()) << "continuous speech has an upload client of its own";
}

// One piece through to its answer, while monitoring goes on.
struct AnsweredPiece : ContinuousHarness {
    std::filesystem::path file;
    Uuid requestID;
    AnsweredPiece() {
        startListening();
        feed(kSpeech, 1s);
        feed(kQuiet, 1600ms);
        file = uploader.requests.at(0).url;
        requestID = uploader.requests.at(0).requestID;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "audio";
    }
};

TEST(ContinuousSpeechAnswers, ATranscriptGoesToHistoryAndIntoTheApplicationInFrontAndTheModeGoesOn) {
    AnsweredPiece h;
    h.uploader.answer(nlohmann::json{{"text", " Hello there. "}, {"language", "de"}});
    h.tp.runUntilIdle();
    ASSERT_EQ(h.history.entries.size(), 1u);
    EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::success);
    EXPECT_EQ(h.history.entries[0].message, " Hello there. ");
    EXPECT_EQ(h.history.entries[0].fileURL, h.file);
    EXPECT_EQ(h.history.entries[0].requestID, h.requestID);
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, " Hello there. ");
    EXPECT_EQ(h.settings.lastDetectedLanguageCode(), "de");
    EXPECT_EQ(h.app.appStatus(), AppActivity::continuousSpeechActive);
    EXPECT_TRUE(h.logs.contains("setupMenuWithMainMenu() - ContinuousSpeechManager.shared.isActive, skipping!"));
}

TEST(ContinuousSpeechAnswers, AWhitespaceTranscriptDeletesTheFileAndDeliversNothing) {
    AnsweredPiece h;
    h.uploader.answer(nlohmann::json{{"text", " \n\t "}, {"language", "en"}});
    h.tp.runUntilIdle();
    EXPECT_FALSE(std::filesystem::exists(h.file));
    EXPECT_TRUE(h.history.entries.empty());
    EXPECT_TRUE(h.accessibility.injections.empty());
}

TEST(ContinuousSpeechAnswers, WithoutAnAppDelegateTheTextIsLoggedAndDropped) {
    AnsweredPiece h;
    h.withAppDelegate = false;
    h.uploader.answer(nlohmann::json{{"text", "Hello"}, {"language", "en"}});
    h.tp.runUntilIdle();
    EXPECT_TRUE(h.accessibility.injections.empty());
    EXPECT_TRUE(h.logs.contains("unwrappedAppDelegate() - AppDelegate.shared is nil. Make sure it's assigned in "
                                "applicationDidFinishLaunching.",
                                LogLevel::error));
}

TEST(ContinuousSpeechAnswers, FailuresAreWrittenToTheHistoryAndShown) {
    struct Row {
        std::optional<nlohmann::json> result;
        std::optional<Error> error;
        bool internet;
        std::string expected;
    };
    const Error timedOut{url_error::kDomain, url_error::kTimedOut, "The request timed out.", {}};
    const std::vector<Row> rows = {
        {std::nullopt, timedOut, true, "The request timed out."},
        {nlohmann::json{{"nothing", 1}}, std::nullopt, true, errorDescription(SPRLocalizedError::unknownError, "Sprelio")},
        {std::nullopt, std::nullopt, false, errorDescription(SPRLocalizedError::networkError, "Sprelio")},
        // A transcript without its language is no transcript.
        {nlohmann::json{{"text", "Hello"}}, std::nullopt, true, errorDescription(SPRLocalizedError::unknownError, "Sprelio")},
    };
    for (const auto& row : rows) {
        AnsweredPiece h;
        h.appState.setInternetAvailable(row.internet);
        h.uploader.answer(row.result, row.error);
        h.tp.runUntilIdle();
        ASSERT_EQ(h.history.entries.size(), 1u) << row.expected;
        EXPECT_EQ(h.history.entries[0].level, HistoryManagerLogLevel::error);
        EXPECT_EQ(h.history.entries[0].message, row.expected);
        EXPECT_EQ(h.history.entries[0].fileURL, h.file);
        EXPECT_FALSE(h.toasts.shown.empty()) << row.expected;
        EXPECT_TRUE(h.accessibility.injections.empty());
        EXPECT_TRUE(std::filesystem::exists(h.file));
    }
}

TEST(ContinuousSpeechAnswers, TextsArriveInTheOrderOfTheirPiecesWhateverOrderTheAnswersCameIn) {
    ContinuousHarness h;
    for (int piece = 0; piece < 4; ++piece) {
        h.start();
        h.tp.advance(3s);
        h.manager.stopMonitoring();
        h.settle();
    }
    ASSERT_EQ(h.uploader.requests.size(), 4u);
    auto answer = [&](std::size_t index, const std::string& text) {
        h.uploader.requests[index].completion(nlohmann::json{{"text", text}, {"language", "en"}}, std::nullopt);
        h.tp.runUntilIdle();
    };
    answer(3, "third");
    answer(1, "first");
    EXPECT_TRUE(h.accessibility.injections.empty()) << "the calibration piece's answer is still out";
    answer(0, " ");
    answer(2, "second");
    std::vector<std::string> delivered;
    for (const auto& injection : h.accessibility.injections) delivered.push_back(injection.text);
    EXPECT_EQ(delivered, (std::vector<std::string>{"first", "second", "third"}));
}

TEST(ContinuousSpeechMonitoring, StoppingDuringAPieceStillUploadsAndDeliversIt) {
    ContinuousHarness h;
    h.finishStoppedRecorders = false;
    h.startListening();
    h.feed(kSpeech, 1s);
    auto& piece = *h.recorders.made.back();
    h.manager.stopMonitoring();
    EXPECT_FALSE(h.manager.isActive());
    EXPECT_FALSE(h.tap.running());
    EXPECT_FALSE(h.tap.installed());
    EXPECT_EQ(piece.stopCalls, 1);
    h.app.setAppStatus(AppActivity::idle);
    piece.finish(true);
    h.tp.runUntilIdle();
    ASSERT_EQ(h.uploader.requests.size(), 1u);
    h.uploader.answer(nlohmann::json{{"text", "Last words"}, {"language", "en"}});
    h.tp.runUntilIdle();
    ASSERT_EQ(h.accessibility.injections.size(), 1u);
    EXPECT_EQ(h.accessibility.injections[0].text, "Last words");
    EXPECT_EQ(h.app.appStatus(), AppActivity::idle);
}

TEST(ContinuousSpeechMonitoring, TheMeterReadsTheRunningPieceWhileTheModeListens) {
    ContinuousHarness h;
    const auto meter = h.manager.meterSource();
    EXPECT_FALSE(meter->averagePower()) << "nothing while idle";
    h.startListening();
    EXPECT_TRUE(meter->isRecording());
    // The faked recorders have no level: the floor stands in until one has.
    EXPECT_EQ(meter->averagePower(), -160.0f);
    EXPECT_EQ(h.manager.meterSource(), meter) << "one source for every piece";
    h.manager.stopMonitoring();
    EXPECT_FALSE(meter->averagePower());
    EXPECT_FALSE(meter->isRecording());
}

TEST(ContinuousSpeechMonitoring, StartingAgainRestartsTheCalibrationAndForgetsTheThreshold) {
    ContinuousHarness h;
    h.startListening();
    ASSERT_TRUE(h.manager.calibratedVoiceTriggerDbThreshold());
    h.manager.startMonitoring();
    EXPECT_FALSE(h.manager.calibratedVoiceTriggerDbThreshold());
    EXPECT_TRUE(h.manager.isCalibrating());
    EXPECT_TRUE(h.manager.isActive());
    EXPECT_EQ(h.tap.starts, 2);
    EXPECT_GE(h.tap.stops, 2);
    EXPECT_EQ(h.logs.count("ContinuousSpeechManager.stopMonitoring() - called"), 2u);
}

TEST(ContinuousSpeechMonitoring, AnEngineThatCannotStartOrAnInputWithoutFormatIsLoggedOnly) {
    ContinuousHarness h;
    h.tap.startFailure = "the sound server is not reachable";
    h.start();
    EXPECT_FALSE(h.manager.isActive());
    EXPECT_TRUE(h.tap.installed()) << "the tap stays installed";
    EXPECT_TRUE(h.recorders.made.empty());
    EXPECT_TRUE(h.logs.contains(
        "ContinuousSpeechManager.startMonitoring() - Audio engine failed to start: the sound server is not reachable",
        LogLevel::error));
    EXPECT_EQ(h.app.appStatus(), AppActivity::continuousSpeechActive) << "the caller's state is left as it is";

    ContinuousHarness without;
    without.tap.format.reset();
    without.start();
    EXPECT_FALSE(without.manager.isActive());
    EXPECT_EQ(without.tap.installs, 0);
    EXPECT_TRUE(without.logs.contains("ContinuousSpeechManager.startMonitoring() - Failed to get input node format",
                                      LogLevel::error));
}

} // namespace
