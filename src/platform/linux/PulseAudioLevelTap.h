#pragma once
// The level tap on PulseAudio: a capture stream of its own on the default source, next to the recorders' stream,
// in the source's own rate and channels, handing channel 0 over in buffers of a fixed number of frames.
//
// The stream is made at each start and taken down at each stop: it exists only while continuous speech listens.
// Its handler runs on the connection's thread, under the connection's lock, so stop() can promise that no handler
// runs after it returns.
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/AudioLevelTap.h"
#include "platform/linux/PulseAudioConnection.h"

namespace sprelio::platform {

class PulseAudioLevelTap final : public AudioLevelTap {
public:
    static constexpr std::chrono::milliseconds kTimeout{1500};

    explicit PulseAudioLevelTap(PulseAudioConnection& connection, std::string streamName = "Level");
    ~PulseAudioLevelTap() override;
    PulseAudioLevelTap(const PulseAudioLevelTap&) = delete;
    PulseAudioLevelTap& operator=(const PulseAudioLevelTap&) = delete;

    std::optional<AudioStreamFormat> inputFormat() override;
    void installTap(std::size_t bufferSize, const AudioStreamFormat& format, BufferHandler handler) override;
    void removeTap() override;
    bool start(std::string& error) override;
    void stop() override;

private:
    void dropStreamLocked();
    static void streamStateCallback(pa_stream* stream, void* userdata);
    static void streamReadCallback(pa_stream* stream, size_t bytes, void* userdata);

    PulseAudioConnection& connection_;
    std::string streamName_;

    // Under the connection's lock.
    pa_stream* stream_ = nullptr;
    std::size_t bufferSize_ = 0;
    AudioStreamFormat format_;
    BufferHandler handler_;
    std::vector<float> pending_; // channel 0 of the buffer being filled
};

} // namespace sprelio::platform
