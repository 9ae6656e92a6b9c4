#pragma once
// A capture of the default input as float samples, 16 kHz mono, for one consumer at a time.
#include <cstddef>
#include <functional>
#include <string>

namespace sprelio::platform {

class AudioCapture {
public:
    static constexpr int kSampleRate = 16000;
    static constexpr int kChannels = 1;

    // Both run on the capture's own thread and must return quickly; neither may call start() or stop().
    using SamplesHandler = std::function<void(const float* samples, std::size_t frames)>;
    // The capture ended by itself (the server went away, the stream failed). No samples follow.
    using ErrorHandler = std::function<void(const std::string& message)>;

    virtual ~AudioCapture() = default;
    // Blocks until samples flow or the start failed, for a bounded time; not on the capture's thread.
    // On failure returns false with a reason in `error` and calls neither handler.
    virtual bool start(SamplesHandler onSamples, ErrorHandler onError, std::string& error) = 0;
    // Delivers everything captured up to this call, then ends the capture; after it returns no handler runs.
    // Bounded in time; harmless when not started or already ended by an error.
    virtual void stop() = 0;
};

} // namespace sprelio::platform
