#pragma once
// The recorder of one file. One instance records once; a new dictation makes a new instance through the factory.
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "core/Uuid.h"

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
};

class RecordingAudioFactory {
public:
    virtual ~RecordingAudioFactory() = default;
    virtual std::shared_ptr<RecordingAudio> makeRecordingAudio(const std::filesystem::path& path) = 0;
};

} // namespace sprelio
