#pragma once
// The recorder of one file. One instance records once; a new dictation makes a new instance through the factory.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Uuid.h"

namespace sprelio {

// Started at key down and handed down the press path, so that the recorder can log the latency to its start.
class Stopwatch {
public:
    using Clock = std::chrono::steady_clock;
    Stopwatch(std::string label, Clock::time_point start) : label_(std::move(label)), start_(start) {}
    const std::string& label() const { return label_; }
    Clock::time_point start() const { return start_; }
    double secondsUntil(Clock::time_point now) const { return std::chrono::duration<double>(now - start_).count(); }

private:
    std::string label_;
    Clock::time_point start_;
};

// Hears the encoded packets of a recording as they are made, for a live stream beside the file. Called on the
// capture's thread while it holds the recorder: an implementation hands the bytes over and returns, never waits.
class RecordingPacketSink {
public:
    virtual ~RecordingPacketSink() = default;
    virtual void packet(const std::uint8_t* data, std::size_t size) = 0;
    // After the last packet: `complete` when the file holds exactly the packets given, false when the recording
    // failed or was let go.
    virtual void ended(bool complete) = 0;
};

class RecordingAudio {
public:
    // Called once per instance, after stop() or the recorder's own finish, on a worker thread.
    using Completion = std::function<void(const std::filesystem::path& url, bool success)>;

    virtual ~RecordingAudio() = default;
    virtual const std::filesystem::path& url() const = 0;
    virtual void setOnRecordingCompletion(Completion completion) = 0;
    // Both return at once; the work runs off the main loop.
    virtual void record(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch) = 0;
    virtual void stop() = 0;
    // Stops like stop(); the file stays and the completion still runs: dropping the result is the caller's part.
    virtual void stopAndDiscard() { stop(); }
    // Level since the last read of the same value, in dBFS from -160 to 0; nothing without a running recorder.
    virtual std::optional<float> averagePower() { return std::nullopt; }
    virtual std::optional<float> peakPower() { return std::nullopt; }
    virtual bool isRecording() const { return false; }
    // Before record(); a recorder without packets to tell of ignores it.
    virtual void setPacketSink(std::shared_ptr<RecordingPacketSink> /*sink*/) {}
};

class RecordingAudioFactory {
public:
    virtual ~RecordingAudioFactory() = default;
    virtual std::shared_ptr<RecordingAudio> makeRecordingAudio(const std::filesystem::path& path) = 0;
};

} // namespace sprelio
