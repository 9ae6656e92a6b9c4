#pragma once
// Vocabulary of the Core Audio Format as this system writes and reads it: chunk codes, the audio description, the
// packet table header, the failure type, and the big-endian and variable-length integer coding of the format.
//
// A file is the 8-byte header ('caff', version 1, flags 0) followed by chunks, each a 4-character type, a signed
// 64-bit size and the body. 'desc' comes first. A 'data' chunk starts with a 32-bit edit count; its size may be -1
// only when it is the last chunk, and then it runs to the end of the file. A 'pakt' chunk gives, for formats whose
// packets vary in size, the number of packets, the valid frames, the priming and remainder frames (what the decoder
// must drop at the start and end) and one variable-length integer per packet size (7 bits a byte, most significant
// first, high bit set on all bytes but the last).
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Error.h"

namespace sprelio::caf {

inline constexpr const char* kErrorDomain = "CafErrorDomain";

// The codes of kErrorDomain.
enum class CafErrorCode : long {
    io = 1,                 // the file can't be opened, read or written
    notCaf = 2,             // no 'caff' header
    unsupportedVersion = 3, // a header of a version other than 1
    truncated = 4,          // a chunk or a packet runs past the end of the file
    damagedChunk = 5,       // a chunk size that can't be, or a chunk in the wrong place
    missingDescription = 6, // no 'desc' chunk first
    missingData = 7,        // no 'data' chunk
    damagedPacketTable = 8, // a 'pakt' that contradicts itself or the data
    unsupportedFormat = 9,  // neither Opus nor plain linear PCM
    codec = 10,             // the Opus library refused
    notRecoverable = 11,    // a broken file that holds nothing to rescue
    invalidState = 12,      // a writer call out of order
};

Error makeError(CafErrorCode code, std::string description, std::string path = {});

// Thrown by the CAF reader, the writer and the Opus wrappers.
class CafError : public std::runtime_error {
public:
    explicit CafError(Error error);
    const Error& error() const { return error_; }
    CafErrorCode code() const { return static_cast<CafErrorCode>(error_.code); }

private:
    Error error_;
};

[[noreturn]] void fail(CafErrorCode code, std::string description, std::string path = {});

constexpr uint32_t fourCC(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) | (uint32_t(uint8_t(s[2])) << 8) |
           uint32_t(uint8_t(s[3]));
}
std::string fourCCText(uint32_t code);

inline constexpr uint32_t kFileType = fourCC("caff");
inline constexpr uint32_t kDesc = fourCC("desc");
inline constexpr uint32_t kData = fourCC("data");
inline constexpr uint32_t kPakt = fourCC("pakt");
inline constexpr uint32_t kFree = fourCC("free");
inline constexpr uint32_t kUuid = fourCC("uuid");
inline constexpr uint32_t kFormatOpus = fourCC("opus");
inline constexpr uint32_t kFormatLinearPcm = fourCC("lpcm");
// Flags of linear PCM.
inline constexpr uint32_t kLinearPcmIsFloat = 1;
inline constexpr uint32_t kLinearPcmIsLittleEndian = 2;

inline constexpr size_t kFileHeaderSize = 8;
inline constexpr size_t kChunkHeaderSize = 12;
inline constexpr size_t kDescSize = 32;
inline constexpr size_t kPaktHeaderSize = 24;
inline constexpr size_t kDataEditCountSize = 4;

struct AudioDescription {
    double sampleRate = 0;
    uint32_t formatID = 0;
    uint32_t formatFlags = 0;
    uint32_t bytesPerPacket = 0;
    uint32_t framesPerPacket = 0;
    uint32_t channelsPerFrame = 0;
    uint32_t bitsPerChannel = 0;
    bool operator==(const AudioDescription&) const = default;
};

struct PacketTableHeader {
    int64_t numberPackets = 0;
    int64_t numberValidFrames = 0;
    int32_t primingFrames = 0;
    int32_t remainderFrames = 0;
    bool operator==(const PacketTableHeader&) const = default;
};

// Appends big-endian fields to a byte buffer.
void putU16(std::vector<uint8_t>& out, uint16_t v);
void putU32(std::vector<uint8_t>& out, uint32_t v);
void putU64(std::vector<uint8_t>& out, uint64_t v);
void putVarint(std::vector<uint8_t>& out, uint64_t v);
uint16_t getU16(const uint8_t* p);
uint32_t getU32(const uint8_t* p);
uint64_t getU64(const uint8_t* p);

void putChunkHeader(std::vector<uint8_t>& out, uint32_t type, int64_t size);
void putDescription(std::vector<uint8_t>& out, const AudioDescription& d);
AudioDescription parseDescription(const uint8_t* p);

// The identifier of this system's own recording chunk (a 'uuid' chunk; other readers skip it). It tells a recovery
// that the packets of the file all have one size, which is what makes an unfinished file readable.
inline constexpr uint8_t kRecordingInfoUuid[16] = {0x6C, 0x2F, 0x1B, 0x8E, 0x5A, 0x43, 0x4C, 0x1D,
                                                   0x9B, 0x27, 0xE0, 0x3A, 0x51, 0xC4, 0x76, 0x08};

// Body of the recording chunk after the identifier, all big-endian: version (1), bytes of every packet,
// frames of every packet, priming frames, in units of the description's sample rate.
struct RecordingInfo {
    uint32_t version = 1;
    uint32_t bytesPerPacket = 0;
    uint32_t framesPerPacket = 0;
    uint32_t primingFrames = 0;
    bool operator==(const RecordingInfo&) const = default;
};
inline constexpr size_t kRecordingInfoBodySize = 16 + 16;
void putRecordingInfoChunk(std::vector<uint8_t>& out, const RecordingInfo& info);

} // namespace sprelio::caf
