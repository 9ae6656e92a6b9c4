#include "audio/CafFormat.h"

#include <bit>
#include <cstring>

namespace sprelio::caf {

Error makeError(CafErrorCode code, std::string description, std::string path) {
    Error e;
    e.domain = kErrorDomain;
    e.code = static_cast<long>(code);
    e.localizedDescription = std::move(description);
    if (!path.empty()) e.userInfo["path"] = std::move(path);
    return e;
}

CafError::CafError(Error error) : std::runtime_error(error.debugDescription()), error_(std::move(error)) {}

void fail(CafErrorCode code, std::string description, std::string path) {
    throw CafError(makeError(code, std::move(description), std::move(path)));
}

std::string fourCCText(uint32_t code) {
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto c = static_cast<unsigned char>((code >> shift) & 0xFF);
        if (c >= 0x20 && c < 0x7F) {
            s += static_cast<char>(c);
        } else {
            static const char* hex = "0123456789ABCDEF";
            s += "\\x";
            s += hex[c >> 4];
            s += hex[c & 0xF];
        }
    }
    return s;
}

void putU16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}

void putU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

void putU64(std::vector<uint8_t>& out, uint64_t v) {
    for (int shift = 56; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

void putVarint(std::vector<uint8_t>& out, uint64_t v) {
    uint8_t bytes[10];
    int n = 0;
    do {
        bytes[n++] = uint8_t(v & 0x7F);
        v >>= 7;
    } while (v != 0);
    for (int i = n - 1; i >= 0; --i) out.push_back(i > 0 ? uint8_t(bytes[i] | 0x80) : bytes[i]);
}

uint16_t getU16(const uint8_t* p) { return uint16_t((uint16_t(p[0]) << 8) | p[1]); }

uint32_t getU32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

uint64_t getU64(const uint8_t* p) { return (uint64_t(getU32(p)) << 32) | getU32(p + 4); }

void putChunkHeader(std::vector<uint8_t>& out, uint32_t type, int64_t size) {
    putU32(out, type);
    putU64(out, static_cast<uint64_t>(size));
}

void putDescription(std::vector<uint8_t>& out, const AudioDescription& d) {
    putChunkHeader(out, kDesc, kDescSize);
    putU64(out, std::bit_cast<uint64_t>(d.sampleRate));
    putU32(out, d.formatID);
    putU32(out, d.formatFlags);
    putU32(out, d.bytesPerPacket);
    putU32(out, d.framesPerPacket);
    putU32(out, d.channelsPerFrame);
    putU32(out, d.bitsPerChannel);
}

AudioDescription parseDescription(const uint8_t* p) {
    AudioDescription d;
    d.sampleRate = std::bit_cast<double>(getU64(p));
    d.formatID = getU32(p + 8);
    d.formatFlags = getU32(p + 12);
    d.bytesPerPacket = getU32(p + 16);
    d.framesPerPacket = getU32(p + 20);
    d.channelsPerFrame = getU32(p + 24);
    d.bitsPerChannel = getU32(p + 28);
    return d;
}

void putRecordingInfoChunk(std::vector<uint8_t>& out, const RecordingInfo& info) {
    putChunkHeader(out, kUuid, kRecordingInfoBodySize);
    out.insert(out.end(), std::begin(kRecordingInfoUuid), std::end(kRecordingInfoUuid));
    putU32(out, info.version);
    putU32(out, info.bytesPerPacket);
    putU32(out, info.framesPerPacket);
    putU32(out, info.primingFrames);
}

} // namespace sprelio::caf
