#pragma once
// The recorder of one dictation: the platform's capture of the default input, encoded to Opus in a CAF file as it
// arrives.
//
// Contract for the owner:
// - record() and stop() return at once; the work runs on the worker pool. The two are carried out in the order they
//   were called even when the pool runs them on two threads, so a stop right after a record still stops it.
// - Once a recording has started, exactly one completion arrives: after stop() (success unless the capture or the
//   encoder failed), or by itself when the capture ends under it (the sound server went away), with success false.
//   A recording that never started (the file can't be made, the capture refuses) gives no completion; the log
//   says why, and the owner's next stop() finds nothing to stop.
// - Everything captured up to stop() is in the file when the completion runs.
// - A recording that finishes while no completion is set has no owner to end the session: the recorder sends the
//   session back to idle itself, so that the next press isn't refused as "not idle".
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "audio/CafOpusWriter.h"
#include "audio/RecordingAudio.h"
#include "platform/AudioCapture.h"
#include "platform/MainLoop.h"

namespace sprelio {

// The rates the Opus encoder accepts, in Hertz.
enum class Valid_kAudioFormatOpusSamplingRates : int {
    hz8000 = 8000,
    hz12000 = 12000,
    hz16000 = 16000,
    hz24000 = 24000,
    hz48000 = 48000,
};

class CaptureRecordingAudio final : public RecordingAudio, public std::enable_shared_from_this<CaptureRecordingAudio> {
public:
    // Use the factory: the instance must be owned by a shared_ptr, because the pool's tasks hold it weakly.
    // `returnToMainMenu` runs, on a worker thread, when the recording finishes without a completion set.
    using ReturnToMainMenu = std::function<void()>;
    CaptureRecordingAudio(std::filesystem::path path, platform::AudioCapture& capture, platform::WorkerPool& workers,
                          ReturnToMainMenu returnToMainMenu);
    ~CaptureRecordingAudio() override;
    CaptureRecordingAudio(const CaptureRecordingAudio&) = delete;
    CaptureRecordingAudio& operator=(const CaptureRecordingAudio&) = delete;

    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion completion) override;
    void record(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch) override;
    void stop() override;
    void stopAndDiscard() override;

    std::optional<float> averagePower() override;
    std::optional<float> peakPower() override;
    bool isRecording() const override;
    void setPacketSink(std::shared_ptr<RecordingPacketSink> sink) override;

    // Changeable until record().
    int bitRate = 16000;
    Valid_kAudioFormatOpusSamplingRates sampleRate = Valid_kAudioFormatOpusSamplingRates::hz16000;
    int channels = 1;

private:
    enum class State { constructed, recording, finished };

    void recordOnWorker(const std::string& id, const std::shared_ptr<const Stopwatch>& stopwatch);
    void stopOnWorker();
    void finishOnWorker(bool captureFailed);
    void onSamples(const float* samples, std::size_t frames);
    void onCaptureError(const std::string& message);
    void deliverCompletion(bool success);
    std::string powerText(std::optional<float> value) const;

    const std::filesystem::path url_;
    platform::AudioCapture& capture_;
    platform::WorkerPool& workers_;
    const ReturnToMainMenu returnToMainMenu_;

    // Orders the pool's tasks of this instance and guards the state.
    std::mutex operationMutex_;
    State state_ = State::constructed;
    bool stopRequested_ = false;

    // Guards what the capture thread touches.
    mutable std::mutex samplesMutex_;
    std::unique_ptr<CafOpusWriter> writer_; // the "recorder": non-null while recording
    std::shared_ptr<RecordingPacketSink> packetSink_;
    bool encodeFailed_ = false;
    bool captureFailed_ = false;
    double averageSumSquares_ = 0;
    std::uint64_t averageCount_ = 0;
    float peakSinceRead_ = 0;
    bool peakHasSamples_ = false;
    float lastAverage_ = -160;
    float lastPeak_ = -160;

    std::mutex completionMutex_;
    Completion onRecordingCompletion_;
    std::atomic<bool> completed_{false};
};

class CaptureRecordingAudioFactory final : public RecordingAudioFactory {
public:
    CaptureRecordingAudioFactory(
        platform::AudioCapture& capture, platform::WorkerPool& workers,
        CaptureRecordingAudio::ReturnToMainMenu returnToMainMenu)
        : capture_(capture), workers_(workers), returnToMainMenu_(std::move(returnToMainMenu)) {}
    std::shared_ptr<RecordingAudio> makeRecordingAudio(const std::filesystem::path& path) override;
    std::shared_ptr<CaptureRecordingAudio> makeCaptureRecordingAudio(const std::filesystem::path& path);

private:
    platform::AudioCapture& capture_;
    platform::WorkerPool& workers_;
    CaptureRecordingAudio::ReturnToMainMenu returnToMainMenu_;
};

} // namespace sprelio
