#pragma once
// The level tap on PulseAudio: a capture stream of its own on the default source, next to the recorders' stream,
// in the source's own rate and channels, handing channel 0 over in buffers of a fixed number of frames.
//
// The stream is made at each start and taken down at each stop: it exists only while continuous speech listens.
// Its handler runs on the connection's thread, under the connection's lock, so stop() can promise that no handler
// runs after it returns.
#include <chrono>
#include <string>
#include <vector>

#include "platform/AudioLevelTap.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseRecordStream.h"

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
    bool takeFramesLocked(const float* samples, std::size_t frames);

    PulseAudioConnection& connection_;
    std::string streamName_;

    // Under the connection's lock.
    std::size_t bufferSize_ = 0;
    AudioStreamFormat format_;
    unsigned channels_ = 1; // of the stream that runs
    BufferHandler handler_;
    std::vector<float> pending_; // channel 0 of the buffer being filled
    PulseRecordStream stream_;
};

} // namespace sprelio::platform
