// The reader and the recovery against cut, damaged and foreign files.
#include <gtest/gtest.h>

#include <cstring>

#include "audio/AudioTestSupport.h"
#include "audio/CafFormat.h"
#include "audio/CafOpusWriter.h"
#include "audio/CafReader.h"

using sprelio::CafOpusWriter;
using sprelio::CafReader;
namespace caf = sprelio::caf;
using namespace sprelio::audio_test;

namespace {

constexpr size_t kPacketBytes = 40;

// A finished recording of `frames` samples, with the offset where its packets start.
struct Recording {
    std::vector<uint8_t> bytes;
    size_t dataStart = 0;
    size_t packets = 0;
};

Recording makeRecording(const TempDir& dir, size_t frames) {
    const auto path = dir / "source.caf";
    const auto signal = speechLike(frames);
    CafOpusWriter writer;
    writer.open(path);
    writer.appendSamples(signal.data(), signal.size());
    writer.finish();
    Recording r;
    r.bytes = readBytes(path);
    r.packets = size_t(writer.packetsWritten());
    // header, desc, recording info chunk, data chunk header and edit count
    r.dataStart = 8 + 12 + 32 + 12 + 32 + 12 + 4;
    return r;
}

caf::CafErrorCode codeOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const caf::CafError& e) {
        EXPECT_EQ(e.error().domain, "CafErrorDomain");
        EXPECT_FALSE(e.error().localizedDescription.empty());
        return e.code();
    }
    ADD_FAILURE() << "no error";
    return caf::CafErrorCode::io;
}

TEST(CafRecovery, EveryCutOfARecordingIsReadOrRefusedAndRecoveredToItsLastCompletePacket) {
    TempDir dir;
    const auto rec = makeRecording(dir, 8000); // half a second: 26 packets
    ASSERT_EQ(rec.bytes.size(), rec.dataStart + rec.packets * kPacketBytes + 12 + 24 + rec.packets);
    ASSERT_EQ(std::memcmp(rec.bytes.data() + rec.dataStart + 4 * kPacketBytes,
                          CafReader::open(dir / "source.caf").packet(4).data(), kPacketBytes),
              0);
    const auto cut = dir / "cut.caf";
    for (size_t length = 0; length <= rec.bytes.size(); ++length) {
        SCOPED_TRACE("cut at " + std::to_string(length));
        const size_t whole = length > rec.dataStart
                                 ? std::min(rec.packets, (length - rec.dataStart) / kPacketBytes)
                                 : 0;
        writeBytes(cut, rec.bytes, length);
        try {
            const auto reader = CafReader::open(cut);
            ASSERT_LE(reader.packetCount(), whole);
            for (size_t i = 0; i < reader.packetCount(); ++i) {
                ASSERT_EQ(std::memcmp(reader.packet(i).data(), rec.bytes.data() + rec.dataStart + i * kPacketBytes,
                                      kPacketBytes),
                          0);
            }
            if (length < rec.bytes.size()) {
                EXPECT_FALSE(reader.isComplete() && reader.packetCount() == rec.packets);
            }
        } catch (const caf::CafError&) {
        }
        if (length < rec.dataStart) {
            EXPECT_THROW(CafReader::recover(cut), caf::CafError);
            continue;
        }
        const auto result = CafReader::recover(cut);
        ASSERT_EQ(result.packets, int64_t(whole));
        EXPECT_EQ(result.wasComplete, length == rec.bytes.size());
        const auto reader = CafReader::open(cut);
        ASSERT_TRUE(reader.isComplete());
        ASSERT_EQ(reader.packetCount(), whole);
        EXPECT_EQ(reader.validFrames() + reader.primingFrames() + (length == rec.bytes.size()
                                                                       ? reader.packetTable()->remainderFrames
                                                                       : 0),
                  int64_t(whole) * 960);
        EXPECT_EQ(CafReader::recover(cut).wasComplete, true) << "a recovered file is finished";
    }
}

TEST(CafRecovery, AnAbandonedRecordingPlaysInFfmpegAndRecoversIntoAFinishedFile) {
    TempDir dir;
    const auto path = dir / "crashed.caf";
    const auto signal = speechLike(16000);
    {
        CafOpusWriter writer;
        writer.open(path);
        writer.appendSamples(signal.data(), 12345); // 38 whole packets and a partial frame in memory
        EXPECT_EQ(writer.packetsWritten(), 38);
        // What a crash leaves on disk: nothing more is written.
        writer.abandon();
    }
    // Other readers play the unfinished file as it is, to its last complete packet (FFmpeg knows nothing of the
    // priming, so its count is that of the whole packets).
    const auto beforeRecovery = ffmpegDecode(path);
    ASSERT_EQ(beforeRecovery.exitCode, 0);
    EXPECT_EQ(beforeRecovery.samples.size(), 38u * 320);
    const auto unfinished = CafReader::open(path);
    EXPECT_FALSE(unfinished.isComplete());
    EXPECT_EQ(unfinished.packetCount(), 38u);

    const auto result = CafReader::recover(path);
    EXPECT_FALSE(result.wasComplete);
    EXPECT_EQ(result.packets, 38);
    const auto reader = CafReader::open(path);
    const auto priming16 = reader.primingFrames() / 3;
    EXPECT_DOUBLE_EQ(reader.durationSeconds(), (38.0 * 320 - double(priming16)) / 16000);
    const auto ours = reader.decodeAll();
    EXPECT_GT(bestCorrelation(std::vector<float>(signal.begin(), signal.begin() + 12000), ours.samples, 2).correlation,
              0.9);
    const auto ff = ffmpegDecode(path);
    ASSERT_EQ(ff.exitCode, 0);
    EXPECT_EQ(ff.samples.size(), 38u * 320);
}

TEST(CafDamage, ADamagedPacketTableIsReportedAndARecordingIsRebuiltFromItsData) {
    TempDir dir;
    const auto rec = makeRecording(dir, 8000);
    const size_t pakt = rec.dataStart + rec.packets * kPacketBytes + 12;
    const auto path = dir / "damaged.caf";

    auto damaged = rec.bytes;
    for (int i = 0; i < 8; ++i) damaged[pakt + size_t(i)] = i == 0 ? 0x40 : 0; // 2^62 packets
    writeBytes(path, damaged);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedPacketTable);

    damaged = rec.bytes;
    damaged[pakt + 15] ^= 0x01; // valid frames no longer add up
    writeBytes(path, damaged);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedPacketTable);

    damaged = rec.bytes;
    damaged[pakt + 24 + 3] = 0xFF; // a packet size whose varint never ends... runs into the next bytes
    for (size_t i = pakt + 24 + 3; i < damaged.size(); ++i) damaged[i] = 0xFF;
    writeBytes(path, damaged);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedPacketTable);

    const auto result = CafReader::recover(path);
    EXPECT_EQ(result.packets, int64_t(rec.packets));
    EXPECT_TRUE(CafReader::open(path).isComplete());
}

// A CAF built by hand: Opus with a packet table before a data chunk of size -1, as a writer without our recording
// chunk would leave a file still growing.
std::vector<uint8_t> foreignOpusFile(const std::vector<std::vector<uint8_t>>& packets, int64_t dataSize,
                                     int32_t priming) {
    std::vector<uint8_t> f;
    caf::putU32(f, caf::kFileType);
    caf::putU16(f, 1);
    caf::putU16(f, 0);
    caf::AudioDescription d;
    d.sampleRate = 48000;
    d.formatID = caf::kFormatOpus;
    d.framesPerPacket = 960;
    d.channelsPerFrame = 1;
    caf::putDescription(f, d);
    std::vector<uint8_t> body;
    caf::putU64(body, packets.size());
    caf::putU64(body, packets.size() * 960 - uint64_t(priming));
    caf::putU32(body, uint32_t(priming));
    caf::putU32(body, 0);
    for (const auto& p : packets) caf::putVarint(body, p.size());
    caf::putChunkHeader(f, caf::kFree, 3);
    f.insert(f.end(), {0, 0, 0});
    caf::putChunkHeader(f, caf::kPakt, int64_t(body.size()));
    f.insert(f.end(), body.begin(), body.end());
    caf::putChunkHeader(f, caf::kData, dataSize);
    caf::putU32(f, 0);
    for (const auto& p : packets) f.insert(f.end(), p.begin(), p.end());
    return f;
}

std::vector<std::vector<uint8_t>> vbrPackets(size_t count) {
    sprelio::OpusEncoder::Settings s;
    s.constantBitRate = false;
    sprelio::OpusEncoder encoder(s);
    const auto signal = speechLike(count * 320);
    std::vector<std::vector<uint8_t>> packets;
    for (size_t i = 0; i < count; ++i) packets.push_back(encoder.encodeFrame(signal.data() + i * 320));
    return packets;
}

TEST(CafForeign, ADataChunkOfUnknownSizeIsReadThroughItsPacketTable) {
    TempDir dir;
    const auto packets = vbrPackets(30);
    const auto path = dir / "growing.caf";
    writeBytes(path, foreignOpusFile(packets, -1, 312));
    const auto reader = CafReader::open(path);
    ASSERT_EQ(reader.packetCount(), 30u);
    for (size_t i = 0; i < 30; ++i) {
        ASSERT_EQ(reader.packet(i).size(), packets[i].size());
        ASSERT_EQ(std::memcmp(reader.packet(i).data(), packets[i].data(), packets[i].size()), 0);
    }
    EXPECT_DOUBLE_EQ(reader.durationSeconds(), (30.0 * 960 - 312) / 48000);
    EXPECT_EQ(reader.decodeAll(48000).frames(), 30 * 960 - 312);
    const auto ff = ffmpegDecode(path);
    ASSERT_EQ(ff.exitCode, 0);
    EXPECT_GT(bestCorrelation(reader.decodeAll().samples, ff.samples, 150).correlation, 0.99);

    // Cut inside packet 20: the table promises more than there is.
    auto bytes = readBytes(path);
    size_t end = bytes.size();
    for (size_t i = 29; i >= 20; --i) end -= packets[i].size();
    writeBytes(path, bytes, end + 3);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::truncated);
    EXPECT_EQ(CafReader::recover(path).packets, 20);
    EXPECT_EQ(CafReader::open(path).packetCount(), 20u);
}

TEST(CafForeign, WithoutAPacketTableOrRecordingInfoThereIsNothingToRecover) {
    TempDir dir;
    const auto path = dir / "vbr.caf";
    auto bytes = foreignOpusFile(vbrPackets(5), -1, 0);
    // Turn the packet table into a 'free' chunk.
    const size_t paktAt = 8 + 44 + 15;
    ASSERT_EQ(caf::getU32(bytes.data() + paktAt), caf::kPakt);
    bytes[paktAt] = 'f', bytes[paktAt + 1] = 'r', bytes[paktAt + 2] = 'e', bytes[paktAt + 3] = 'e';
    writeBytes(path, bytes);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedPacketTable);
    EXPECT_EQ(codeOf([&] { CafReader::recover(path); }), caf::CafErrorCode::damagedPacketTable);
}

TEST(CafForeign, LinearPcmFromFfmpegReadsLikeFfmpegReadsIt) {
    TempDir dir;
    const auto path = dir / "pcm.caf";
    const auto made = runCommand("ffmpeg -nostdin -hide_banner -loglevel error -f lavfi -i "
                                 "'sine=frequency=440:duration=0.5:sample_rate=16000' -c:a pcm_s16le " +
                                 shellQuoted(path.string()) + " 2>&1");
    ASSERT_EQ(made.exitCode, 0) << made.out;
    const auto reader = CafReader::open(path);
    EXPECT_TRUE(reader.isLinearPcm());
    EXPECT_DOUBLE_EQ(reader.durationSeconds(), 0.5);
    const auto ours = reader.decodeAll();
    const auto ff = ffmpegDecode(path);
    ASSERT_EQ(ours.samples.size(), ff.samples.size());
    for (size_t i = 0; i < ours.samples.size(); ++i) ASSERT_NEAR(ours.samples[i], ff.samples[i], 1e-6) << i;
}

TEST(CafBadInput, ForeignEmptyAndAbsurdFilesAreRefusedClearly) {
    TempDir dir;
    const auto path = dir / "x.caf";
    writeBytes(path, {});
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::notCaf);
    EXPECT_EQ(codeOf([&] { CafReader::recover(path); }), caf::CafErrorCode::notCaf);

    const std::string wav = "RIFF\x24\x00\x00\x00WAVEfmt some more bytes of a wave file";
    writeBytes(path, std::vector<uint8_t>(wav.begin(), wav.end()));
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::notCaf);

    EXPECT_EQ(codeOf([&] { CafReader::open(dir / "missing.caf"); }), caf::CafErrorCode::io);

    std::vector<uint8_t> f;
    caf::putU32(f, caf::kFileType);
    caf::putU16(f, 2);
    caf::putU16(f, 0);
    writeBytes(path, f);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::unsupportedVersion);

    // A chunk claiming 2^62 bytes.
    auto rec = makeRecording(dir, 3200);
    auto absurd = rec.bytes;
    const size_t infoSize = 8 + 44 + 4;
    absurd[infoSize] = 0x40;
    writeBytes(path, absurd);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::truncated);
    // A data chunk claiming 2^62 bytes reads as one cut off: what is there is kept.
    absurd = rec.bytes;
    absurd[rec.dataStart - 12] = 0x40;
    writeBytes(path, absurd);
    EXPECT_FALSE(CafReader::open(path).isComplete());
    // A negative chunk size and a second description.
    absurd = rec.bytes;
    absurd[infoSize] = 0x80;
    writeBytes(path, absurd);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedChunk);
    // Not Opus, not PCM.
    absurd = rec.bytes;
    std::memcpy(absurd.data() + 8 + 12 + 8, "aac ", 4);
    writeBytes(path, absurd);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::unsupportedFormat);
    // A description of 0 Hz.
    absurd = rec.bytes;
    std::memset(absurd.data() + 8 + 12, 0, 8);
    writeBytes(path, absurd);
    EXPECT_EQ(codeOf([&] { CafReader::open(path); }), caf::CafErrorCode::damagedChunk);
    // Packets the codec can't read.
    absurd = rec.bytes;
    for (size_t i = rec.dataStart; i < rec.dataStart + 40 * 3; ++i) absurd[i] = 0xFF;
    writeBytes(path, absurd);
    EXPECT_EQ(codeOf([&] { CafReader::open(path).decodeAll(); }), caf::CafErrorCode::codec);
}

// Found by fuzz_caf: an Opus description with no channels, a recording-info chunk and a data chunk cut short. The
// lenient reading finds no packet boundary at all, and the rebuild used to index the empty list of them.
TEST(CafBadInput, AHeaderThatNoPacketCanFollowIsNotRecoverableRatherThanACrash) {
    TempDir dir;
    const auto path = dir / "found.caf";
    const std::vector<std::uint8_t> bytes = {
        0x63, 0x61, 0x66, 0x66, 0x00, 0x01, 0x00, 0x00, 0x64, 0x65, 0x73, 0x63, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x20, 0x40, 0xe7, 0x70, 0x00, 0x00, 0x00, 0x00, 0x00, 0x6f, 0x70, 0x75, 0x73, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x75, 0x75,
        0x69, 0x64, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0x6c, 0x2f, 0x1b, 0x8e, 0x5a, 0x43, 0x4c, 0x1d,
        0x9b, 0x27, 0xe0, 0x3a, 0x51, 0xc4, 0x76, 0x08, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x28, 0x00, 0x00,
        0x03, 0xc0, 0x00, 0x00, 0x01, 0x38, 0x64, 0x61, 0x74, 0x61, 0x00, 0x00, 0xbd, 0x3d, 0x62, 0x62, 0x4b, 0x01,
        0xa0, 0x3a, 0x73, 0x9f, 0x30, 0xfa, 0xac, 0x10, 0xaa, 0xd1, 0x49, 0xce, 0xd3, 0xb6, 0x7a, 0xcb, 0x5f, 0xb9,
        0xcb, 0x9c, 0x47, 0x66, 0x51, 0x41, 0x91, 0x91, 0xf3, 0x2f, 0x21, 0xdb, 0xba, 0xb3, 0xa0, 0x76, 0xc5, 0xbe,
        0x44, 0x37, 0xec, 0xbc, 0x31, 0x14, 0x4b, 0x41, 0x00, 0x9f, 0xf9, 0xb9, 0x66, 0x12, 0xaf, 0xc2, 0x3e, 0x18,
        0x6f, 0xc2, 0x81, 0x82, 0x7e, 0xed, 0x0d, 0x6b, 0xd3, 0x28};
    writeBytes(path, bytes);
    EXPECT_EQ(codeOf([&] { CafReader::recover(path); }), caf::CafErrorCode::notRecoverable);
    EXPECT_EQ(readBytes(path), bytes) << "a file that can't be recovered is left as it was";
}

} // namespace
