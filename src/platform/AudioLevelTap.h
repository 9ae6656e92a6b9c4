#pragma once
// A listener on the default input, apart from any recording: it hands the input's audio over in buffers of a fixed
// number of frames, so that a level can be watched while recorders come and go.
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace sprelio::platform {

struct AudioStreamFormat {
    double sampleRate = 0;
    unsigned channels = 0;
};

class AudioLevelTap {
public:
    // Channel 0 of one buffer as 32-bit floats, or nullptr for a buffer that carries no channel data. Runs on the
    // tap's own thread and must return quickly; it may not call start(), stop() or removeTap().
    using BufferHandler = std::function<void(const float* channel0, std::size_t frameLength)>;

    virtual ~AudioLevelTap() = default;
    // The format of the input as it is now; nothing when there is no input to listen to.
    virtual std::optional<AudioStreamFormat> inputFormat() = 0;
    // Buffers of `bufferSize` frames in `format` go to `handler` while the tap runs. One tap at a time: a second
    // install replaces the first.
    virtual void installTap(std::size_t bufferSize, const AudioStreamFormat& format, BufferHandler handler) = 0;
    virtual void removeTap() = 0;
    // Blocks, for a bounded time, until audio flows or the start failed; the reason goes to `error`.
    virtual bool start(std::string& error) = 0;
    // After it returns the handler doesn't run any more. Harmless when not started.
    virtual void stop() = 0;
};

} // namespace sprelio::platform
