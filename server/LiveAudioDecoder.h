#pragma once
// The Opus packets of a recording that is still being spoken, decoded to the samples the engines take while they
// arrive. For the same packets the samples are exactly those decodeAudio() gives for the finished recording file
// (a CAF file of the same packets): the live text may only ever be the text of the upload.
#include <memory>
#include <optional>
#include <string_view>

#include "server/AudioDecoder.h"

namespace sprelio::server {

class LiveOpusDecoder {
public:
    // `channels`: of the recording (1 or 2). Decoded audio beyond `maxSeconds` is a failure, as for an upload.
    LiveOpusDecoder(int channels, double maxSeconds);
    ~LiveOpusDecoder();
    LiveOpusDecoder(const LiveOpusDecoder&) = delete;
    LiveOpusDecoder& operator=(const LiveOpusDecoder&) = delete;

    // Nothing when the decoder could be made, else why not; must be asked before push().
    const std::optional<DecodeFailure>& openFailure() const;
    // One packet; the samples it yields (if any) go to `sink` before this returns. A packet the codec can't read is
    // skipped, as the file decoder skips it.
    std::optional<DecodeFailure> push(std::string_view packet, const SampleSink& sink);
    // The end of the recording: what the codec and the resampler still hold.
    std::optional<DecodeFailure> finish(const SampleSink& sink);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace sprelio::server
