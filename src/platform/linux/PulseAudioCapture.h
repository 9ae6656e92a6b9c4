#pragma once
// Capture of the default source through PulseAudio, 16 kHz mono float.
//
// Why the start is fast: the record stream is made once and then kept corked between recordings, so a start is one
// uncork on an open connection instead of a connection, a stream negotiation and the source's start-up. A corked
// stream takes no audio, so the microphone isn't held open between recordings. The stream asks for 10 ms
// fragments, which bounds the wait for the first buffer.
//
// Why nothing is lost at the end: stop() asks the stream how much audio is still on its way (the source's and the
// transport's latency) and keeps delivering until that much has arrived, then corks.
#include <chrono>
#include <string>

#include "platform/AudioCapture.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseRecordStream.h"

namespace sprelio::platform {

class PulseAudioCapture final : public AudioCapture {
public:
    static constexpr std::chrono::milliseconds kStartTimeout{1500};
    // The longest stop waits for audio in flight, beyond the latency it reports.
    static constexpr std::chrono::milliseconds kDrainSlack{150};
    static constexpr std::chrono::milliseconds kMaxDrain{300};

    explicit PulseAudioCapture(PulseAudioConnection& connection, std::string streamName = "Recording");
    ~PulseAudioCapture() override;
    PulseAudioCapture(const PulseAudioCapture&) = delete;
    PulseAudioCapture& operator=(const PulseAudioCapture&) = delete;

    bool start(SamplesHandler onSamples, ErrorHandler onError, std::string& error) override;
    void stop() override;
    // Makes the corked stream ahead of the first start. Optional: start() makes it when it is missing.
    bool prepare(std::string& error);

private:
    bool ensureStream(std::string& error);
    void failLocked(const std::string& message);

    PulseAudioConnection& connection_;
    std::string streamName_;

    // Under the connection's lock.
    bool active_ = false;
    SamplesHandler onSamples_;
    ErrorHandler onError_;
    PulseRecordStream stream_;
};

} // namespace sprelio::platform
