#pragma once
// Owners of libopus encoder and decoder states. Recordings are speech for a transcription service, so the encoder
// runs in the VOIP application: libopus then tunes its analysis for the intelligibility of a voice (high-pass
// input, speech-optimised SILK at this bit rate) rather than for the fidelity of music.
//
// Hard CBR is the default on purpose: every 20 ms packet is then exactly bitRate / 400 bytes (40 at 16 kbit/s), which
// makes the packets of a file cut off by a crash countable without any packet table (see CafOpusWriter.h).
#include <cstddef>
#include <cstdint>
#include <vector>

struct OpusEncoder;
struct OpusDecoder;

namespace sprelio {

class OpusEncoder {
public:
    struct Settings {
        int sampleRate = 16000; // 8000, 12000, 16000, 24000 or 48000
        int channels = 1;
        int bitRate = 16000;
        int frameMilliseconds = 20;
        bool constantBitRate = true;
    };

    // Throws caf::CafError (code `codec`) when libopus refuses the settings.
    explicit OpusEncoder(const Settings& settings);
    ~OpusEncoder();
    OpusEncoder(const OpusEncoder&) = delete;
    OpusEncoder& operator=(const OpusEncoder&) = delete;

    const Settings& settings() const { return settings_; }
    // Samples per channel in one packet (320 for 20 ms at 16 kHz).
    int frameSize() const { return frameSize_; }
    // Samples per channel that the decoder puts out before the first input sample, at the encoder's rate.
    int lookahead() const { return lookahead_; }
    // Encodes exactly frameSize() interleaved samples into one packet. Throws caf::CafError on failure.
    std::vector<uint8_t> encodeFrame(const float* pcm);

private:
    Settings settings_;
    ::OpusEncoder* state_ = nullptr;
    int frameSize_ = 0;
    int lookahead_ = 0;
};

class OpusDecoder {
public:
    // Throws caf::CafError (code `codec`) for a rate or channel count libopus refuses.
    OpusDecoder(int sampleRate, int channels);
    ~OpusDecoder();
    OpusDecoder(const OpusDecoder&) = delete;
    OpusDecoder& operator=(const OpusDecoder&) = delete;

    int sampleRate() const { return sampleRate_; }
    int channels() const { return channels_; }
    // Decodes one packet and appends its interleaved samples to `out`; returns the samples per channel added.
    // Throws caf::CafError (code `codec`) for a packet libopus can't read.
    int decodePacket(const uint8_t* data, size_t size, std::vector<float>& out);

private:
    ::OpusDecoder* state_ = nullptr;
    int sampleRate_ = 0;
    int channels_ = 0;
};

} // namespace sprelio
