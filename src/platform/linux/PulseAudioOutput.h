#pragma once
// A playback stream to the default sink. The samples are handed to the server as it asks for them, and the
// finish is reported once the server has played them out (drain).
#include <pulse/pulseaudio.h>

#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/AudioOutput.h"
#include "platform/MainLoop.h"
#include "platform/linux/PulseAudioConnection.h"

namespace sprelio::platform {

class PulseAudioOutput final : public AudioOutput {
public:
    static constexpr std::chrono::milliseconds kConnectTimeout{500};

    PulseAudioOutput(PulseAudioConnection& connection, MainLoop& loop);
    ~PulseAudioOutput() override;
    PulseAudioOutput(const PulseAudioOutput&) = delete;
    PulseAudioOutput& operator=(const PulseAudioOutput&) = delete;

    bool play(std::vector<float> samples, int sampleRate, int channels, float volume, FinishedHandler onFinished,
              std::string& error) override;
    void stop() override;

private:
    struct Playback;
    static void stateCallback(pa_stream* stream, void* userdata);
    static void writeCallback(pa_stream* stream, std::size_t bytes, void* userdata);
    static void drainCallback(pa_stream* stream, int success, void* userdata);
    void stopLocked();
    void finishLocked(Playback& playback);

    PulseAudioConnection& connection_;
    MainLoop& loop_;
    std::unique_ptr<Playback> current_; // under the connection's lock
};

} // namespace sprelio::platform
