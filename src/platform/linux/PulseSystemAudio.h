#pragma once
// The computer's sound and the microphone through PulseAudio (or pipewire-pulse): the monitor source of the default
// sink, and the default source.
//
// Why each capture has a connection of its own: a capture watches the server for a change of the default device,
// and a context has one subscription callback, which the microphone list already holds on the shared connection.
//
// Why the stream is tied to its device (PA_STREAM_DONT_MOVE): when the device goes away the server would otherwise
// move the stream to another one without a word, and the file would silently hold a different source.
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/SystemAudio.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseRecordStream.h"

namespace sprelio::platform {

class PulseSourceCapture final : public SourceCapture {
public:
    static constexpr std::chrono::milliseconds kStartTimeout{3000};
    static constexpr std::chrono::milliseconds kMaxDrain{300};

    explicit PulseSourceCapture(SystemAudioSource source);
    ~PulseSourceCapture() override;
    PulseSourceCapture(const PulseSourceCapture&) = delete;
    PulseSourceCapture& operator=(const PulseSourceCapture&) = delete;

    bool start(SamplesHandler onSamples, EndedHandler onEnded, std::string& error) override;
    void stop() override;
    std::string deviceName() const override;

private:
    bool resolveDevice(std::string& error);
    void endLocked(End why, const std::string& detail);
    void checkDefaultLocked(pa_context* context);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                                  void* userdata);

    const SystemAudioSource source_;
    PulseAudioConnection connection_;

    // Under the connection's lock.
    std::string roleDevice_;   // the default sink (computer sound) or source (microphone) at the start
    std::string sourceName_;   // what the stream records: the sink's monitor, or the source itself
    std::string description_;
    bool active_ = false;
    SamplesHandler onSamples_;
    EndedHandler onEnded_;
    PulseRecordStream stream_;
};

class PulseSystemAudio final : public SystemAudio {
public:
    bool screenCaptureAccess() override { return true; }
    std::unique_ptr<SourceCapture> makeCapture(SystemAudioSource source) override {
        return std::make_unique<PulseSourceCapture>(source);
    }
};

} // namespace sprelio::platform
