#pragma once
// Reader of CAF files holding Opus (the recordings) or plain linear PCM: format, packets, exact duration, decoding
// to float samples, and the rescue of a recording cut off by a crash.
//
// Every size in the file is checked against the bytes that are really there before anything is allocated or
// read, so a damaged or hostile file gives a caf::CafError in "CafErrorDomain" and never a crash or a huge
// allocation. A file whose data chunk runs to the end (size -1) is read through its packet table; a recording of
// this system that was never finished is read through its recording info chunk (see CafOpusWriter.h), up to its
// last complete packet, and reports isComplete() false.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "audio/CafFormat.h"

namespace sprelio {

struct DecodedAudio {
    int sampleRate = 0;
    int channels = 0;
    std::vector<float> samples; // interleaved
    int64_t frames() const { return channels > 0 ? int64_t(samples.size()) / channels : 0; }
};

struct CafRecoveryResult {
    bool wasComplete = false; // the file was fine and was left alone
    int64_t packets = 0;      // packets in the file afterwards
    double durationSeconds = 0;
};

class CafReader {
public:
    // Files above this size are refused rather than read into memory.
    static constexpr int64_t kMaxFileSize = int64_t(1) << 31;

    // Throws caf::CafError.
    static CafReader open(const std::filesystem::path& path);
    static CafReader fromBytes(std::vector<uint8_t> bytes, std::string name = {});

    // Rewrites a recording cut off by a crash (or an unfinished one) into a finished file holding every complete
    // packet, in place and atomically (a temporary file renamed over it). A finished file is left untouched.
    // Throws caf::CafError (notRecoverable when nothing tells where the packets are).
    static CafRecoveryResult recover(const std::filesystem::path& path);

    const caf::AudioDescription& format() const { return desc_; }
    bool isOpus() const { return desc_.formatID == caf::kFormatOpus; }
    bool isLinearPcm() const { return desc_.formatID == caf::kFormatLinearPcm; }
    // The packet table as stored, when there is one.
    const std::optional<caf::PacketTableHeader>& packetTable() const { return packetTable_; }
    const std::optional<caf::RecordingInfo>& recordingInfo() const { return recordingInfo_; }
    // False for an unfinished recording or a data chunk that holds more than its packet table tells of.
    bool isComplete() const { return complete_; }

    size_t packetCount() const { return packetOffsets_.empty() ? 0 : packetOffsets_.size() - 1; }
    std::span<const uint8_t> packet(size_t index) const;
    // Frames (at the file's sample rate) before the first valid one, and the valid ones.
    int64_t primingFrames() const { return primingFrames_; }
    int64_t validFrames() const { return validFrames_; }
    double durationSeconds() const;

    // Opus: decoded at `sampleRate` (8000, 12000, 16000, 24000 or 48000), priming and remainder removed. Linear
    // PCM: at the file's own rate, whatever `sampleRate` says. Throws caf::CafError.
    DecodedAudio decodeAll(int sampleRate = 16000) const;

private:
    CafReader() = default;
    void parse(bool lenient);

    std::string name_;
    std::vector<uint8_t> bytes_;
    caf::AudioDescription desc_;
    std::optional<caf::PacketTableHeader> packetTable_;
    std::optional<caf::RecordingInfo> recordingInfo_;
    std::vector<size_t> packetOffsets_; // packetCount()+1 offsets into bytes_
    std::vector<uint32_t> packetFrames_; // empty when every packet has desc_.framesPerPacket
    int64_t primingFrames_ = 0;
    int64_t validFrames_ = 0;
    bool complete_ = true;
};

} // namespace sprelio
