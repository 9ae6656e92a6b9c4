// The decoder against uploads whose headers lie: each row is an input the fuzz target (tests/fuzz) found, or the
// boundary next to it, read from memory as /transcribe does and from disk as the long-file path does.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "ServerTestSupport.h"
#include "server/AudioDecoder.h"

namespace sprelio::server::test {
namespace {

// A PCM WAV file: mono, 16 bits, `rate` as its header says, `frames` samples of silence.
std::string wavFile(std::uint32_t rate, std::uint32_t frames) {
    auto le = [](std::string& out, std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
    };
    const std::uint32_t dataBytes = frames * 2;
    std::string out = "RIFF";
    le(out, 36 + dataBytes, 4);
    out += "WAVEfmt ";
    le(out, 16, 4);
    le(out, 1, 2); // PCM
    le(out, 1, 2); // mono
    le(out, rate, 4);
    le(out, rate * 2, 4);
    le(out, 2, 2);
    le(out, 16, 2);
    out += "data";
    le(out, dataBytes, 4);
    out.append(dataBytes, '\0');
    return out;
}

struct Row {
    const char* name;
    std::string bytes;
    // The samples at 16 kHz it decodes to, or nothing when it is refused.
    std::optional<std::size_t> samples;
};

TEST(AudioDecoder, UploadsWithLyingHeadersAreRefusedAtOnceOrDecoded) {
    const Row rows[] = {
        {"16 kHz, a tenth of a second", wavFile(16000, 1600), 1600},
        {"768 kHz, the highest rate of real audio", wavFile(768000, 7680), 160},
        // Found by fuzz_audio_decoder: 3 KB of upload held a worker for 18 s and 1 GB while the resampler built
        // its filter for a 1.56 GHz rate.
        {"a header claiming 1.56 GHz", wavFile(1560559232u, 1600), std::nullopt},
        {"one hertz above 768 kHz", wavFile(768001, 7680), std::nullopt},
    };
    TempFolder folder;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto fromMemory = decodeAudio(row.bytes, 60);
        const auto file = folder.path() / "upload.wav";
        std::ofstream(file, std::ios::binary) << row.bytes;
        std::uint64_t streamed = 0;
        auto fromDisk = decodeAudioFile(file, 60, [&streamed](std::span<const std::int16_t> piece) {
            streamed += piece.size();
            return true;
        });
        if (row.samples) {
            auto* audio = std::get_if<DecodedAudio>(&fromMemory);
            ASSERT_NE(audio, nullptr) << std::get<DecodeFailure>(fromMemory).message;
            EXPECT_NEAR(static_cast<double>(audio->samples.size()), static_cast<double>(*row.samples), 2.0);
            ASSERT_TRUE(std::holds_alternative<DecodeSummary>(fromDisk));
            EXPECT_EQ(streamed, audio->samples.size());
        } else {
            auto* failure = std::get_if<DecodeFailure>(&fromMemory);
            ASSERT_NE(failure, nullptr);
            EXPECT_NE(failure->message.find("sample rate"), std::string::npos) << failure->message;
            auto* diskFailure = std::get_if<FileDecodeFailure>(&fromDisk);
            ASSERT_NE(diskFailure, nullptr);
            EXPECT_FALSE(diskFailure->cancelled);
            EXPECT_EQ(streamed, 0u);
        }
    }
}

} // namespace
} // namespace sprelio::server::test
