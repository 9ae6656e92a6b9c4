#pragma once
// One PulseAudio record stream of 32-bit float frames on a shared connection: its making and connecting, the reading
// of what the server delivers, and the wait at a stop for the audio still on its way.
//
// Everything ending in Locked runs under the connection's lock, and both handlers run on the connection's thread
// under that lock, so that a holder that takes the lock knows no handler is running.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/PulseAudioConnection.h"

namespace sprelio::platform {

class PulseRecordStream {
public:
    // Interleaved frames as the server delivered them. Returns whether the holder took them: only frames taken count
    // towards a drain.
    using FramesHandler = std::function<bool(const float* samples, std::size_t frames)>;
    // The stream failed or the server ended it; `context` is the stream's context, or nullptr when it has none.
    using EndedHandler = std::function<void(pa_context* context)>;

    // What to do with a hole in the stream, a stretch of audio that never came.
    enum class Holes {
        silence, // hand it over as silence, which keeps the timing of a recording right
        skip,    // leave it out
    };

    struct Options {
        std::string name;
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, 16000, 1};
        // How much the server gathers before it sends: the bound on the wait for each buffer.
        std::uint32_t fragmentBytes = 0;
        // The source to record; empty for the default source, which the stream then follows when it changes.
        std::string device;
        pa_stream_flags_t flags = PA_STREAM_ADJUST_LATENCY;
        Holes holes = Holes::silence;
    };

    PulseRecordStream(PulseAudioConnection& connection, FramesHandler onFrames, EndedHandler onEnded);
    ~PulseRecordStream();
    PulseRecordStream(const PulseRecordStream&) = delete;
    PulseRecordStream& operator=(const PulseRecordStream&) = delete;

    // Makes the stream on `context` and connects it; the stream is then being created until settledLocked().
    // On failure nothing is left open and `error` says why.
    bool openLocked(pa_context* context, const Options& options, std::string& error);
    // Not under the lock: waits until the stream is no longer being created or `ended` (tested under the lock)
    // holds; false when the deadline came first.
    bool waitSettled(std::chrono::steady_clock::time_point deadline, const std::function<bool()>& ended = nullptr);
    // Under the lock, after waitSettled(): true when the stream is ready. Otherwise closes it and says why in
    // `error`, `what` naming the stream ("the level stream").
    bool keepIfReadyLocked(bool settled, const std::string& what, std::string& error);
    // Disconnects and lets the stream go; no handler runs for it any more.
    void closeLocked();

    bool isOpenLocked() const { return stream_ != nullptr; }
    // No longer being created: ready, failed or ended (or closed).
    bool settledLocked() const;
    bool readyLocked() const;
    // Of no use any more: made on an earlier connection, failed or ended.
    bool staleLocked() const;
    // For what only its holder does with the stream (corking it); nullptr when closed.
    pa_stream* handleLocked() const { return stream_; }

    // A stop that waits for the audio still on its way, in three steps. Under the lock: from now on the frames taken
    // are counted against what the stream says is on its way (at most `maxDrain` of it); returns when the wait
    // should give up, that much time plus `slack` from now.
    std::chrono::steady_clock::time_point beginDrainLocked(std::chrono::milliseconds maxDrain,
                                                           std::chrono::milliseconds slack);
    // Not under the lock: waits until all of it has been taken, `ended` holds (tested under the lock) or the
    // deadline passes.
    void waitDrained(std::chrono::steady_clock::time_point deadline, const std::function<bool()>& ended);
    // Under the lock: stops counting; returns how many frames did not arrive in time.
    std::uint64_t endDrainLocked();

private:
    static void stateCallback(pa_stream* stream, void* userdata);
    static void readCallback(pa_stream* stream, size_t bytes, void* userdata);
    bool drainedLocked() const { return framesSinceStop_ >= stopTarget_; }

    PulseAudioConnection& connection_;
    const FramesHandler onFrames_;
    const EndedHandler onEnded_;

    // Under the connection's lock.
    pa_stream* stream_ = nullptr;
    std::uint64_t generation_ = 0;
    pa_sample_spec spec_{};
    std::uint32_t fragmentBytes_ = 0;
    Holes holes_ = Holes::silence;
    std::vector<float> scratch_;
    bool stopping_ = false;
    std::uint64_t framesSinceStop_ = 0;
    std::uint64_t stopTarget_ = 0;
};

} // namespace sprelio::platform
