#pragma once
// The two sources a recording of the Files tab takes, each as 16 kHz mono float samples: the computer's sound (what
// goes to the default output) and the microphone (the default input).
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace sprelio::platform {

enum class SystemAudioSource { computerSound, microphone };

// One capture of one source. The source is fixed when the capture starts: if it goes away, or another device
// becomes the default for that role, the capture ends (the caller keeps what came so far) rather than recording
// something the user did not choose.
class SourceCapture {
public:
    // Runs on the capture's own thread and must return quickly.
    using SamplesHandler = std::function<void(const float* samples, std::size_t frames)>;
    enum class End { deviceRemoved, defaultChanged, serverLost };
    // The capture ended by itself; no samples follow. `detail` is for the log.
    using EndedHandler = std::function<void(End why, const std::string& detail)>;

    virtual ~SourceCapture() = default;
    // Blocks for a bounded time until samples flow or the start failed (then `error` says why and no handler runs).
    virtual bool start(SamplesHandler onSamples, EndedHandler onEnded, std::string& error) = 0;
    // Delivers what was captured up to this call, then ends; no handler runs after it returns. Harmless twice.
    virtual void stop() = 0;
    // The device as the user knows it (its description), once started.
    virtual std::string deviceName() const = 0;
};

class SystemAudio {
public:
    virtual ~SystemAudio() = default;
    // The permission to record the computer's sound; the desktop asks for none on X11.
    virtual bool screenCaptureAccess() = 0;
    virtual std::unique_ptr<SourceCapture> makeCapture(SystemAudioSource source) = 0;
};

} // namespace sprelio::platform
