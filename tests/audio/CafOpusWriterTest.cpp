// The recording writer and reader against FFmpeg as an independent reader, and the Opus wrappers.
#include <gtest/gtest.h>

#include <cmath>

#include "audio/AudioTestSupport.h"
#include "audio/CafFormat.h"
#include "audio/CafOpusWriter.h"
#include "audio/CafReader.h"
#include "audio/OpusEncoder.h"

using sprelio::CafOpusWriter;
using sprelio::CafReader;
namespace caf = sprelio::caf;
using namespace sprelio::audio_test;

namespace {

constexpr int kRate = 16000;
constexpr int kPacket = 320; // 20 ms at 16 kHz

// Feeds the signal in uneven pieces, as a capture stream would, so partial frames are buffered across calls.
void writeRecording(const std::filesystem::path& path, const std::vector<float>& signal) {
    CafOpusWriter writer;
    writer.open(path);
    const size_t pieces[] = {1024, 77, 320, 1, 513, 4000};
    size_t at = 0;
    for (size_t i = 0; at < signal.size(); ++i) {
        const size_t n = std::min(pieces[i % 6], signal.size() - at);
        writer.appendSamples(signal.data() + at, n);
        at += n;
    }
    writer.finish();
}

TEST(OpusWrappers, EncoderMakesConstantSizePacketsThatTheDecoderRestores) {
    sprelio::OpusEncoder encoder({});
    EXPECT_EQ(encoder.frameSize(), kPacket);
    EXPECT_GT(encoder.lookahead(), 0);
    sprelio::OpusDecoder decoder(kRate, 1);
    const auto signal = speechLike(kRate);
    std::vector<float> decoded;
    for (size_t at = 0; at + kPacket <= signal.size(); at += kPacket) {
        const auto packet = encoder.encodeFrame(signal.data() + at);
        ASSERT_EQ(packet.size(), 40u) << "16 kbit/s in 20 ms packets is 40 bytes each";
        EXPECT_EQ(decoder.decodePacket(packet.data(), packet.size(), decoded), kPacket);
    }
    const auto like = bestCorrelation(signal, decoded, 400);
    EXPECT_NEAR(like.lag, encoder.lookahead(), 2);
    EXPECT_GT(like.correlation, 0.9);
}

TEST(OpusWrappers, RefusalsAreCafErrors) {
    sprelio::OpusEncoder::Settings bad;
    bad.sampleRate = 44100;
    try {
        sprelio::OpusEncoder encoder(bad);
        FAIL() << "44.1 kHz is no Opus rate";
    } catch (const caf::CafError& e) {
        EXPECT_EQ(e.error().domain, "CafErrorDomain");
        EXPECT_EQ(e.code(), caf::CafErrorCode::codec);
    }
    EXPECT_THROW(sprelio::OpusDecoder(16000, 3), caf::CafError);
    sprelio::OpusDecoder decoder(kRate, 1);
    std::vector<float> out;
    const uint8_t garbage[] = {0xFF, 0xFF, 0xFF};
    EXPECT_THROW(decoder.decodePacket(garbage, sizeof garbage, out), caf::CafError);
    EXPECT_TRUE(out.empty());
}

TEST(CafOpusWriter, FfmpegDecodesTheRecordingWithItsDurationAndWaveform) {
    TempDir dir;
    const auto path = dir / "rec.caf";
    const size_t fed = 53'981; // 3.37 s, not a whole number of packets
    const auto signal = speechLike(fed);
    writeRecording(path, signal);

    const auto ff = ffmpegDecode(path);
    ASSERT_EQ(ff.exitCode, 0);
    // FFmpeg may or may not drop the priming frames; either way what follows them is the input, padded to at most
    // the end of the last packet.
    const auto reader = CafReader::open(path);
    const auto priming16 = reader.primingFrames() / 3;
    const auto like = bestCorrelation(signal, ff.samples, 400);
    std::printf("ffmpeg: %zu samples for %zu fed, best lag %ld, correlation %.4f\n", ff.samples.size(), fed, like.lag,
                like.correlation);
    ASSERT_TRUE(like.lag == 0 || std::abs(like.lag - priming16) <= 2) << "lag " << like.lag;
    const long afterAlignment = long(ff.samples.size()) - like.lag;
    EXPECT_GE(afterAlignment, long(fed) - 2);
    EXPECT_LT(afterAlignment, long(fed) + kPacket);
    // A writer that mangles samples, drops packets or shifts the rate lands far below this (measured 0.96).
    EXPECT_GT(like.correlation, 0.9);
}

TEST(CafOpusWriter, OurReaderAgreesWithFfmpegAndKeepsTheExactDuration) {
    TempDir dir;
    const auto path = dir / "rec.caf";
    const size_t fed = 40'017;
    const auto signal = speechLike(fed);
    writeRecording(path, signal);

    const auto reader = CafReader::open(path);
    EXPECT_TRUE(reader.isOpus());
    EXPECT_TRUE(reader.isComplete());
    EXPECT_EQ(reader.format().sampleRate, 48000.0);
    EXPECT_EQ(reader.format().framesPerPacket, 960u);
    EXPECT_EQ(reader.format().channelsPerFrame, 1u);
    ASSERT_TRUE(reader.packetTable().has_value());
    EXPECT_EQ(reader.validFrames(), int64_t(fed) * 3);
    EXPECT_DOUBLE_EQ(reader.durationSeconds(), double(fed) / kRate);
    const auto& table = *reader.packetTable();
    EXPECT_EQ(table.numberValidFrames + table.primingFrames + table.remainderFrames, table.numberPackets * 960);
    EXPECT_LT(table.remainderFrames, 960);

    const auto ours = reader.decodeAll(kRate);
    ASSERT_EQ(ours.frames(), int64_t(fed)) << "priming and remainder are dropped exactly";
    const auto withInput = bestCorrelation(signal, ours.samples, 50);
    EXPECT_LE(std::abs(withInput.lag), 1) << "our decoding is aligned with the input (the codec delay is fractional)";
    EXPECT_GT(withInput.correlation, 0.9);

    const auto ff = ffmpegDecode(path);
    ASSERT_EQ(ff.exitCode, 0);
    const auto withFfmpeg = bestCorrelation(ours.samples, ff.samples, 400);
    std::printf("reader vs input %.4f, reader vs ffmpeg %.4f at lag %ld\n", withInput.correlation,
                withFfmpeg.correlation, withFfmpeg.lag);
    EXPECT_GT(withFfmpeg.correlation, 0.99) << "both decode the same packets";
    EXPECT_EQ(long(ff.samples.size()) - withFfmpeg.lag - long(fed), long(table.remainderFrames / 3))
        << "FFmpeg plays every packet; beyond the priming it adds only the remainder";

    const auto probe = runCommand("ffprobe -v error -show_entries stream=codec_name,sample_rate,channels -of csv=p=0 " +
                                  shellQuoted(path.string()));
    EXPECT_EQ(probe.out, "opus,48000,1\n");
}

TEST(CafOpusWriter, AnEmptyRecordingIsAValidFileOfNoDuration) {
    TempDir dir;
    const auto path = dir / "empty.caf";
    CafOpusWriter writer;
    writer.open(path);
    writer.finish();
    const auto reader = CafReader::open(path);
    EXPECT_EQ(reader.durationSeconds(), 0.0);
    EXPECT_EQ(reader.decodeAll().frames(), 0);
    EXPECT_EQ(ffmpegDecode(path).exitCode, 0);
}

TEST(CafOpusWriter, CallsOutOfOrderAreRefused) {
    TempDir dir;
    CafOpusWriter writer;
    const float one = 0;
    EXPECT_THROW(writer.appendSamples(&one, 1), caf::CafError);
    EXPECT_THROW(writer.finish(), caf::CafError);
    writer.open(dir / "a.caf");
    EXPECT_THROW(writer.open(dir / "b.caf"), caf::CafError);
    try {
        CafOpusWriter other;
        other.open(dir / "missing-folder" / "c.caf");
        FAIL();
    } catch (const caf::CafError& e) {
        EXPECT_EQ(e.code(), caf::CafErrorCode::io);
        EXPECT_NE(e.error().localizedDescription.find("can't create the recording"), std::string::npos);
    }
}

} // namespace
