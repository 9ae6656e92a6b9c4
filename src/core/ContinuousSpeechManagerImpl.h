#pragma once
// Continuous voice to text: while active, a level tap on the input decides where speech pauses, recorders of their
// own cut the speech into pieces at those pauses, and each piece is uploaded and its text delivered into the
// application in front, in the order the pieces end.
//
// Pieces. A recorder runs whenever the manager listens: the one that records through the calibration carries the
// first speech, a pause past the silence setting stops it, and each completion starts the next at once. During
// long silence the quiet buffers stop those recorders in a tight cycle and their pieces fall below the minimum;
// when speech begins, the recorder running then carries on. A loud buffer never starts a recorder.
//
// Threads. The tap's handler makes the voice decisions on the tap's thread and starts and stops recorders from
// there, without a lock: the fields it shares with the recorders' completions (which run on a worker) and with the
// main loop are atomics. Uploads and their results run on the main loop.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "audio/ContinuousSpeechManager.h"
#include "base/Error.h"
#include "base/LifetimeGuard.h"
#include "base/Uuid.h"
#include "platform/AudioLevelTap.h"
#include "platform/Clock.h"
#include "platform/MainLoop.h"

namespace sprelio {

namespace store {
class Settings;
}
class AppDelegate;
class AppState;
class AudioUploadManager;
class ErrorPresenter;
class HistoryManager;
class RecordingAudio;
class RecordingAudioFactory;

// A date that threads share without a lock; nothing is a value of its own.
class AtomicDate {
public:
    using Date = std::chrono::system_clock::time_point;
    std::optional<Date> load() const {
        const auto ticks = ticks_.load();
        if (ticks == kNothing) return std::nullopt;
        return Date(Date::duration(ticks));
    }
    void store(std::optional<Date> date) { ticks_.store(date ? date->time_since_epoch().count() : kNothing); }

private:
    static constexpr Date::rep kNothing = std::numeric_limits<Date::rep>::min();
    std::atomic<Date::rep> ticks_{kNothing};
};

struct ContinuousSpeechManagerDependencies {
    platform::MainLoop& loop;
    platform::Clock& clock;
    // The separate audio engine, only for the level tap.
    platform::AudioLevelTap& audioEngine;
    store::Settings& settings;
    AppState& appState;
    RecordingAudioFactory& recorders;
    // The manager's own upload client.
    AudioUploadManager& uploadManager;
    HistoryManager& historyManager;
    ErrorPresenter& messages;
    // The shared application delegate, nullptr while there is none; it delivers the text.
    std::function<AppDelegate*()> appDelegate;
};

class ContinuousSpeechManagerImpl final : public ContinuousSpeechManager {
public:
    static constexpr float voiceTriggerDbThreshold = -40.0f;
    static constexpr double calibrationDuration = 2.0;
    static constexpr float calibrationOffset = 12.0f;
    static constexpr float calibrationFloor = -65.0f;
    static constexpr double uploadRateFactor = 1.5;
    static constexpr std::size_t tapBufferSize = 1024;

    explicit ContinuousSpeechManagerImpl(ContinuousSpeechManagerDependencies dependencies);
    ~ContinuousSpeechManagerImpl() override;
    ContinuousSpeechManagerImpl(const ContinuousSpeechManagerImpl&) = delete;
    ContinuousSpeechManagerImpl& operator=(const ContinuousSpeechManagerImpl&) = delete;

    // The level of a buffer: 20·log10 of the mean square of channel 0 (no square root), in 32-bit floats.
    static float level(const float* samples, std::size_t frameLength);

    bool isActive() const override { return isActive_.load(); }
    void startMonitoring() override;
    void stopMonitoring() override;
    // One buffer of the tap, on the tap's thread.
    void handle(const float* channel0, std::size_t frameLength);

    // What tests and the status display read.
    bool isRecording() const { return isRecording_.load(); }
    bool isCalibrating() const { return calibrationStartTime_.load().has_value(); }
    std::optional<float> calibratedVoiceTriggerDbThreshold() const;
    bool voiceActivityDetected() const { return voiceActivityDetected_.load(); }
    std::shared_ptr<RecordingAudio> activeRecorder() const { return activeRecorder_.load(); }
    // What the recording overlay's meter reads while the mode listens: the level of whichever recorder runs at
    // that moment, the floor between two of them. Records nothing itself.
    std::shared_ptr<RecordingAudio> meterSource();

private:
    void startRecording();
    void stopRecording();
    void discardAndRestartRecording();
    void onRecordingCompletion(const std::filesystem::path& fileURL, bool success,
                               std::chrono::system_clock::time_point startDate, const Uuid& requestID,
                               const std::shared_ptr<RecordingAudio>& recorder);
    void uploadWithinRateLimit(const std::filesystem::path& fileURL, const Uuid& requestID);
    void uploadAndProcessAudio(const std::filesystem::path& fileURL, const Uuid& requestID);
    void processUploadResult(const std::optional<nlohmann::json>& result, const std::optional<Error>& error,
                             const std::filesystem::path& fileURL, const Uuid& requestID);
    void answerArrived(std::uint64_t sequence, std::function<void()> handle);
    float currentThreshold() const;

    ContinuousSpeechManagerDependencies deps_;
    std::shared_ptr<RecordingAudio> meterSource_;
    LifetimeGuard lifetime_;

    std::atomic<bool> isActive_{false};
    std::atomic<bool> isRecording_{false};
    std::atomic<std::shared_ptr<RecordingAudio>> activeRecorder_;
    std::optional<Uuid> requestID_;
    AtomicDate recordingStartTime_;
    std::atomic<bool> voiceActivityDetected_{false};
    AtomicDate lastLoudSampleTime_;
    // NaN while there is no calibrated value.
    std::atomic<float> calibratedVoiceTriggerDbThreshold_{std::numeric_limits<float>::quiet_NaN()};
    AtomicDate calibrationStartTime_;
    // The tap's thread's while the tap runs, the main loop's while it doesn't.
    std::vector<float> calibrationDbSamples_;
    // Main loop only.
    std::optional<std::chrono::system_clock::time_point> lastUploadTimestamp_;
    // Answers wait here until every earlier piece's answer has been handled, so that the texts arrive in the order
    // the pieces were spoken even when a later upload is answered first.
    struct PendingAnswer {
        std::uint64_t sequence = 0;
        std::function<void()> handle; // empty until the answer is in
    };
    std::deque<PendingAnswer> pendingAnswers_;
    std::uint64_t nextUploadSequence_ = 0;
    AtomicDate lastStopTimestamp_;
};

} // namespace sprelio
