#pragma once
// One playback stream to the default output.
#include <functional>
#include <string>
#include <vector>

namespace sprelio::platform {

class AudioOutput {
public:
    // Posted to the main loop once the last sample has been played, or the stream broke off.
    using FinishedHandler = std::function<void()>;

    virtual ~AudioOutput() = default;
    // Plays interleaved float samples at `volume` (a linear factor, 1.0 = as they are), replacing whatever plays;
    // the replaced playback's handler is never called. Returns false, with the reason in `error`, when the sound
    // server can't take a stream.
    virtual bool play(std::vector<float> samples, int sampleRate, int channels, float volume,
                      FinishedHandler onFinished, std::string &error) = 0;
    // Stops at once; no handler follows.
    virtual void stop() = 0;
};

} // namespace sprelio::platform
