#pragma once
// Any audio or video file FFmpeg knows, from memory, to the 16 kHz mono 16-bit samples the engines take.
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sprelio::server {

struct DecodedAudio {
    std::vector<std::int16_t> samples; // 16 kHz, mono
    std::string formatName;            // the container FFmpeg recognised ("wav", "caf", ...)
    std::string codecName;
    double seconds() const { return static_cast<double>(samples.size()) / kSampleRate; }
    static constexpr int kSampleRate = 16000;
};

struct DecodeFailure {
    std::string message; // for the user; never holds the file's content
};

// Decodes the first audio stream of `bytes`. More than `maxSeconds` of audio is a failure, so that a small
// compressed upload can't make the server hold hours of samples.
std::variant<DecodedAudio, DecodeFailure> decodeAudio(std::string_view bytes, double maxSeconds);

} // namespace sprelio::server
