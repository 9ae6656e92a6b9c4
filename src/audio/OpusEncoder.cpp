#include "audio/OpusEncoder.h"

#include <opus/opus.h>

#include <string>

#include "audio/CafFormat.h"

namespace sprelio {

namespace {

bool isOpusRate(int rate) {
    return rate == 8000 || rate == 12000 || rate == 16000 || rate == 24000 || rate == 48000;
}

[[noreturn]] void codecFailure(const std::string& what, int status) {
    caf::fail(caf::CafErrorCode::codec, what + ": " + opus_strerror(status));
}

} // namespace

OpusEncoder::OpusEncoder(const Settings& settings) : settings_(settings) {
    if (!isOpusRate(settings.sampleRate)) {
        caf::fail(caf::CafErrorCode::codec,
                  "Opus can't encode at " + std::to_string(settings.sampleRate) + " Hz");
    }
    if (settings.channels < 1 || settings.channels > 2) {
        caf::fail(caf::CafErrorCode::codec, "Opus can't encode " + std::to_string(settings.channels) + " channels");
    }
    const int ms = settings.frameMilliseconds;
    if (ms != 10 && ms != 20 && ms != 40 && ms != 60) {
        caf::fail(caf::CafErrorCode::codec, "Opus has no frame of " + std::to_string(ms) + " ms");
    }
    frameSize_ = settings.sampleRate / 1000 * ms;
    int status = OPUS_OK;
    state_ = opus_encoder_create(settings.sampleRate, settings.channels, OPUS_APPLICATION_VOIP, &status);
    if (status != OPUS_OK || !state_) codecFailure("opus_encoder_create", status);
    auto set = [&](int result, const char* what) {
        if (result != OPUS_OK) {
            opus_encoder_destroy(state_);
            state_ = nullptr;
            codecFailure(what, result);
        }
    };
    set(opus_encoder_ctl(state_, OPUS_SET_BITRATE(settings.bitRate)), "OPUS_SET_BITRATE");
    set(opus_encoder_ctl(state_, OPUS_SET_VBR(settings.constantBitRate ? 0 : 1)), "OPUS_SET_VBR");
    set(opus_encoder_ctl(state_, OPUS_SET_SIGNAL(OPUS_SIGNAL_VOICE)), "OPUS_SET_SIGNAL");
    set(opus_encoder_ctl(state_, OPUS_GET_LOOKAHEAD(&lookahead_)), "OPUS_GET_LOOKAHEAD");
}

OpusEncoder::~OpusEncoder() {
    if (state_) opus_encoder_destroy(state_);
}

std::vector<uint8_t> OpusEncoder::encodeFrame(const float* pcm) {
    // 1275 bytes is the largest frame Opus defines; a packet of one frame never needs more.
    std::vector<uint8_t> packet(1275 * 3 + 7);
    const opus_int32 n = opus_encode_float(state_, pcm, frameSize_, packet.data(), opus_int32(packet.size()));
    if (n < 0) codecFailure("opus_encode_float", n);
    packet.resize(size_t(n));
    return packet;
}

OpusDecoder::OpusDecoder(int sampleRate, int channels) : sampleRate_(sampleRate), channels_(channels) {
    if (!isOpusRate(sampleRate)) {
        caf::fail(caf::CafErrorCode::codec, "Opus can't decode at " + std::to_string(sampleRate) + " Hz");
    }
    if (channels < 1 || channels > 2) {
        caf::fail(caf::CafErrorCode::codec, "Opus can't decode " + std::to_string(channels) + " channels");
    }
    int status = OPUS_OK;
    state_ = opus_decoder_create(sampleRate, channels, &status);
    if (status != OPUS_OK || !state_) codecFailure("opus_decoder_create", status);
}

OpusDecoder::~OpusDecoder() {
    if (state_) opus_decoder_destroy(state_);
}

int OpusDecoder::decodePacket(const uint8_t* data, size_t size, std::vector<float>& out) {
    // 120 ms is the longest packet Opus defines.
    const int maxFrames = sampleRate_ / 1000 * 120;
    const size_t start = out.size();
    out.resize(start + size_t(maxFrames) * size_t(channels_));
    const int n = opus_decode_float(state_, data, opus_int32(size), out.data() + start, maxFrames, 0);
    if (n < 0) {
        out.resize(start);
        codecFailure("opus_decode_float", n);
    }
    out.resize(start + size_t(n) * size_t(channels_));
    return n;
}

} // namespace sprelio
