#pragma once
// Any audio or video file FFmpeg knows, from memory or from disk, to the 16 kHz mono 16-bit samples the engines take.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
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

// Samples as they are decoded; false stops the decoding (decodeAudioFile then fails with `cancelled` set).
using SampleSink = std::function<bool(std::span<const std::int16_t>)>;

struct DecodeSummary {
    std::string formatName;
    std::string codecName;
    std::uint64_t sampleCount = 0;
    double seconds() const { return static_cast<double>(sampleCount) / DecodedAudio::kSampleRate; }
};

struct FileDecodeFailure {
    DecodeFailure failure;
    bool cancelled = false; // the sink asked to stop
};

// Decodes the first audio stream of the file at `path`, handing the samples to `sink` in pieces as they come, so
// that neither the file nor its whole audio is ever held in memory.
std::variant<DecodeSummary, FileDecodeFailure> decodeAudioFile(const std::filesystem::path& path, double maxSeconds,
                                                               const SampleSink& sink);

} // namespace sprelio::server
