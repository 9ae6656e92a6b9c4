#include "audio/CafReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>

#include "audio/OpusEncoder.h"

namespace sprelio {

using caf::CafErrorCode;

namespace {

// Packets above this size or frame count are damage, not audio.
constexpr uint64_t kMaxPacketBytes = uint64_t(1) << 20;
constexpr uint64_t kMaxPacketFrames = uint64_t(1) << 20;

bool readVarint(const uint8_t*& p, const uint8_t* end, uint64_t& value) {
    value = 0;
    for (int i = 0; i < 9; ++i) {
        if (p == end) return false;
        const uint8_t byte = *p++;
        value = (value << 7) | (byte & 0x7F);
        if (!(byte & 0x80)) return true;
    }
    return false;
}

std::string quoted(uint32_t code) { return "'" + caf::fourCCText(code) + "'"; }

std::vector<uint8_t> readWholeFile(const std::filesystem::path& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec) caf::fail(CafErrorCode::io, "can't read the file: " + ec.message(), path.string());
    if (size > uint64_t(CafReader::kMaxFileSize)) {
        caf::fail(CafErrorCode::io, "the file is too large to read (" + std::to_string(size) + " bytes)",
                  path.string());
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) caf::fail(CafErrorCode::io, std::string("can't open the file: ") + std::strerror(errno), path.string());
    std::vector<uint8_t> bytes(size);
    in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(size));
    bytes.resize(size_t(in.gcount()));
    return bytes;
}

void writeFileDurably(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) caf::fail(CafErrorCode::io, std::string("can't create: ") + std::strerror(errno), path.string());
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int err = errno;
            ::close(fd);
            caf::fail(CafErrorCode::io, std::string("can't write: ") + std::strerror(err), path.string());
        }
        done += size_t(n);
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0) {
        caf::fail(CafErrorCode::io, std::string("can't write: ") + std::strerror(errno), path.string());
    }
}

} // namespace

CafReader CafReader::open(const std::filesystem::path& path) {
    return fromBytes(readWholeFile(path), path.string());
}

CafReader CafReader::fromBytes(std::vector<uint8_t> bytes, std::string name) {
    CafReader reader;
    reader.name_ = std::move(name);
    reader.bytes_ = std::move(bytes);
    reader.parse(false);
    return reader;
}

void CafReader::parse(bool lenient) {
    const size_t n = bytes_.size();
    const uint8_t* b = bytes_.data();
    auto fail = [this](CafErrorCode code, const std::string& text) { caf::fail(code, text, name_); };
    recordingInfo_.reset();

    static const uint8_t kHeader[8] = {'c', 'a', 'f', 'f', 0, 1, 0, 0};
    if (n == 0) fail(CafErrorCode::notCaf, "the file is empty");
    if (n < caf::kFileHeaderSize) {
        if (std::memcmp(b, kHeader, n) == 0) fail(CafErrorCode::truncated, "the file ends inside the CAF header");
        fail(CafErrorCode::notCaf, "not a CAF file");
    }
    if (caf::getU32(b) != caf::kFileType) {
        fail(CafErrorCode::notCaf, "not a CAF file (it starts with " + quoted(caf::getU32(b)) + ")");
    }
    if (const auto version = caf::getU16(b + 4); version != 1) {
        fail(CafErrorCode::unsupportedVersion, "CAF version " + std::to_string(version) + " is not supported");
    }
    size_t pos = caf::kFileHeaderSize;
    if (n - pos < caf::kChunkHeaderSize) fail(CafErrorCode::truncated, "the file ends before the audio description");
    if (caf::getU32(b + pos) != caf::kDesc) {
        fail(CafErrorCode::missingDescription,
             "the first chunk is " + quoted(caf::getU32(b + pos)) + ", not the audio description 'desc'");
    }
    if (const auto size = int64_t(caf::getU64(b + pos + 4)); size != int64_t(caf::kDescSize)) {
        fail(CafErrorCode::damagedChunk, "the audio description has " + std::to_string(size) + " bytes, not 32");
    }
    if (n - pos - caf::kChunkHeaderSize < caf::kDescSize) {
        fail(CafErrorCode::truncated, "the file ends inside the audio description");
    }
    desc_ = caf::parseDescription(b + pos + caf::kChunkHeaderSize);
    pos += caf::kChunkHeaderSize + caf::kDescSize;
    if (!(desc_.sampleRate >= 1.0 && desc_.sampleRate <= 1'000'000.0) || desc_.channelsPerFrame < 1 ||
        desc_.channelsPerFrame > 64) {
        fail(CafErrorCode::damagedChunk, "the audio description is damaged (rate " + std::to_string(desc_.sampleRate) +
                                             ", " + std::to_string(desc_.channelsPerFrame) + " channels)");
    }

    std::optional<std::pair<size_t, size_t>> pakt; // body offset and size
    bool haveData = false;
    bool dataRunsToEnd = false; // size -1, or a size larger than what is left
    size_t dataStart = 0;
    size_t dataEnd = 0;
    while (pos < n) {
        if (n - pos < caf::kChunkHeaderSize) {
            if (lenient && haveData) break;
            fail(CafErrorCode::truncated, "the file ends inside a chunk header at byte " + std::to_string(pos));
        }
        const uint32_t type = caf::getU32(b + pos);
        const auto size = int64_t(caf::getU64(b + pos + 4));
        const size_t body = pos + caf::kChunkHeaderSize;
        const size_t remaining = n - body;
        const std::string where = "chunk " + quoted(type) + " at byte " + std::to_string(pos);
        if (type == caf::kData) {
            if (haveData) fail(CafErrorCode::damagedChunk, "a second audio data chunk at byte " + std::to_string(pos));
            if (size == -1 || (size >= int64_t(caf::kDataEditCountSize) && uint64_t(size) > remaining)) {
                if (remaining < caf::kDataEditCountSize) {
                    fail(CafErrorCode::truncated, "the file ends inside the header of the audio data");
                }
                haveData = dataRunsToEnd = true;
                dataStart = body + caf::kDataEditCountSize;
                dataEnd = n;
                break;
            }
            if (size < int64_t(caf::kDataEditCountSize)) {
                fail(CafErrorCode::damagedChunk, where + " has the impossible size " + std::to_string(size));
            }
            haveData = true;
            dataStart = body + caf::kDataEditCountSize;
            dataEnd = body + size_t(size);
            pos = dataEnd;
            continue;
        }
        if (size < 0) fail(CafErrorCode::damagedChunk, where + " has the impossible size " + std::to_string(size));
        if (uint64_t(size) > remaining) {
            if (lenient && haveData) break; // a chunk after the audio, cut off: the audio is what matters
            fail(CafErrorCode::truncated, where + " declares " + std::to_string(size) + " bytes but only " +
                                              std::to_string(remaining) + " remain");
        }
        if (type == caf::kDesc) {
            fail(CafErrorCode::damagedChunk, "a second audio description at byte " + std::to_string(pos));
        } else if (type == caf::kPakt) {
            if (pakt) fail(CafErrorCode::damagedPacketTable, "the file has two packet tables");
            pakt = std::make_pair(body, size_t(size));
        } else if (type == caf::kUuid && size_t(size) >= caf::kRecordingInfoBodySize &&
                   std::memcmp(b + body, caf::kRecordingInfoUuid, 16) == 0) {
            caf::RecordingInfo info;
            info.version = caf::getU32(b + body + 16);
            info.bytesPerPacket = caf::getU32(b + body + 20);
            info.framesPerPacket = caf::getU32(b + body + 24);
            info.primingFrames = caf::getU32(b + body + 28);
            if (info.version == 1 && info.bytesPerPacket > 0 && info.bytesPerPacket <= kMaxPacketBytes &&
                info.framesPerPacket > 0 && info.framesPerPacket <= kMaxPacketFrames) {
                recordingInfo_ = info;
            }
        }
        pos = body + size_t(size);
    }
    if (!haveData) {
        if (lenient) fail(CafErrorCode::notRecoverable, "the file ends before its audio data; nothing to recover");
        fail(CafErrorCode::missingData, "the file has no audio data chunk");
    }
    if (!isOpus() && !isLinearPcm()) {
        fail(CafErrorCode::unsupportedFormat, "the audio format " + quoted(desc_.formatID) + " is not supported");
    }
    if (isOpus() && (desc_.channelsPerFrame > 2 || desc_.framesPerPacket > kMaxPacketFrames)) {
        fail(CafErrorCode::unsupportedFormat, "Opus with " + std::to_string(desc_.channelsPerFrame) +
                                                  " channels and " + std::to_string(desc_.framesPerPacket) +
                                                  " frames per packet is not supported");
    }
    if (isLinearPcm()) {
        const uint32_t bits = desc_.bitsPerChannel;
        const bool isFloat = desc_.formatFlags & caf::kLinearPcmIsFloat;
        const bool known = isFloat ? (bits == 32 || bits == 64) : (bits == 8 || bits == 16 || bits == 24 || bits == 32);
        if (!known || desc_.framesPerPacket != 1 ||
            desc_.bytesPerPacket != desc_.channelsPerFrame * (bits / 8)) {
            fail(CafErrorCode::unsupportedFormat, "linear PCM of " + std::to_string(bits) + " bits in packets of " +
                                                      std::to_string(desc_.bytesPerPacket) +
                                                      " bytes is not supported");
        }
    }

    complete_ = !dataRunsToEnd;
    packetOffsets_.clear();
    packetFrames_.clear();
    packetTable_.reset();
    const size_t dataBytes = dataEnd - dataStart;

    auto fixedPackets = [&](uint32_t bytesPerPacket, uint32_t framesPerPacket, int64_t priming) {
        const size_t count = dataBytes / bytesPerPacket;
        packetOffsets_.reserve(count + 1);
        for (size_t i = 0; i <= count; ++i) packetOffsets_.push_back(dataStart + i * bytesPerPacket);
        const int64_t total = int64_t(count) * framesPerPacket;
        primingFrames_ = std::min(priming, total);
        validFrames_ = total - primingFrames_;
    };

    auto readPacketTable = [&](size_t body, size_t size) {
        if (size < caf::kPaktHeaderSize) {
            fail(CafErrorCode::damagedPacketTable, "the packet table has " + std::to_string(size) + " bytes");
        }
        caf::PacketTableHeader header;
        header.numberPackets = int64_t(caf::getU64(b + body));
        header.numberValidFrames = int64_t(caf::getU64(b + body + 8));
        header.primingFrames = int32_t(caf::getU32(b + body + 16));
        header.remainderFrames = int32_t(caf::getU32(b + body + 20));
        if (header.numberPackets < 0 || header.numberValidFrames < 0 || header.primingFrames < 0 ||
            header.remainderFrames < 0) {
            fail(CafErrorCode::damagedPacketTable, "the packet table holds negative counts");
        }
        const uint32_t entryBytes = (desc_.bytesPerPacket == 0 ? 1 : 0) + (desc_.framesPerPacket == 0 ? 1 : 0);
        const size_t room = size - caf::kPaktHeaderSize;
        if (entryBytes > 0 && uint64_t(header.numberPackets) > room / entryBytes) {
            fail(CafErrorCode::damagedPacketTable, "the packet table declares " +
                                                       std::to_string(header.numberPackets) +
                                                       " packets but has room for " + std::to_string(room / entryBytes));
        }
        const uint8_t* p = b + body + caf::kPaktHeaderSize;
        const uint8_t* end = b + body + size;
        size_t offset = dataStart;
        int64_t totalFrames = 0;
        bool cut = false;
        packetOffsets_.reserve(size_t(header.numberPackets) + 1);
        packetOffsets_.push_back(offset);
        for (int64_t i = 0; i < header.numberPackets; ++i) {
            uint64_t bytes = desc_.bytesPerPacket;
            uint64_t frames = desc_.framesPerPacket;
            if ((desc_.bytesPerPacket == 0 && !readVarint(p, end, bytes)) ||
                (desc_.framesPerPacket == 0 && !readVarint(p, end, frames))) {
                fail(CafErrorCode::damagedPacketTable, "entry " + std::to_string(i) + " of the packet table is damaged");
            }
            if (bytes == 0 || bytes > kMaxPacketBytes || frames == 0 || frames > kMaxPacketFrames) {
                fail(CafErrorCode::damagedPacketTable, "packet " + std::to_string(i) + " has " +
                                                           std::to_string(bytes) + " bytes and " +
                                                           std::to_string(frames) + " frames");
            }
            if (bytes > dataEnd - offset) {
                if (lenient) {
                    cut = true;
                    break;
                }
                if (dataRunsToEnd) {
                    fail(CafErrorCode::truncated, "the file ends inside packet " + std::to_string(i) + " of " +
                                                      std::to_string(header.numberPackets));
                }
                fail(CafErrorCode::damagedPacketTable, "the packet table describes more bytes than the audio data holds");
            }
            offset += size_t(bytes);
            totalFrames += int64_t(frames);
            packetOffsets_.push_back(offset);
            if (desc_.framesPerPacket == 0) packetFrames_.push_back(uint32_t(frames));
        }
        if (cut) {
            primingFrames_ = std::min<int64_t>(header.primingFrames, totalFrames);
            validFrames_ = totalFrames - primingFrames_;
        } else {
            if (header.numberValidFrames + header.primingFrames + header.remainderFrames != totalFrames) {
                fail(CafErrorCode::damagedPacketTable,
                     "the packet table's frames don't add up (" + std::to_string(header.numberValidFrames) +
                         " valid + " + std::to_string(header.primingFrames) + " priming + " +
                         std::to_string(header.remainderFrames) + " remainder != " + std::to_string(totalFrames) +
                         " in the packets)");
            }
            primingFrames_ = header.primingFrames;
            validFrames_ = header.numberValidFrames;
        }
        packetTable_ = header;
    };

    if (desc_.bytesPerPacket > 0 && desc_.framesPerPacket > 0) {
        int64_t priming = 0;
        if (pakt && pakt->second >= caf::kPaktHeaderSize) {
            priming = std::max<int32_t>(0, int32_t(caf::getU32(b + pakt->first + 16)));
        } else if (recordingInfo_) {
            // One of our recordings still being written (or cut off): its own chunk knows the encoder's delay.
            priming = recordingInfo_->primingFrames;
        }
        fixedPackets(desc_.bytesPerPacket, desc_.framesPerPacket, priming);
    } else if (pakt) {
        try {
            readPacketTable(pakt->first, pakt->second);
            // A table that stops short of a data chunk still running to the end: the writer didn't finish.
            if (dataRunsToEnd && packetOffsets_.back() < dataEnd && !recordingInfo_) complete_ = false;
        } catch (const caf::CafError&) {
            if (!recordingInfo_ || !lenient) throw;
            // A recovery of this system's recording: its packets are countable without the table.
            packetOffsets_.clear();
            packetFrames_.clear();
            packetTable_.reset();
            fixedPackets(recordingInfo_->bytesPerPacket, recordingInfo_->framesPerPacket,
                         recordingInfo_->primingFrames);
            complete_ = false;
        }
    } else if (recordingInfo_) {
        fixedPackets(recordingInfo_->bytesPerPacket, recordingInfo_->framesPerPacket, recordingInfo_->primingFrames);
        complete_ = false;
    } else {
        fail(CafErrorCode::damagedPacketTable, "the packets vary in size but the file has no packet table");
    }
}

std::span<const uint8_t> CafReader::packet(size_t index) const {
    if (index >= packetCount()) return {};
    return {bytes_.data() + packetOffsets_[index], packetOffsets_[index + 1] - packetOffsets_[index]};
}

double CafReader::durationSeconds() const { return double(validFrames_) / desc_.sampleRate; }

DecodedAudio CafReader::decodeAll(int sampleRate) const {
    DecodedAudio out;
    const int channels = int(desc_.channelsPerFrame);
    out.channels = channels;
    if (isOpus()) {
        OpusDecoder decoder(sampleRate, channels);
        out.sampleRate = sampleRate;
        out.samples.reserve(size_t(double(primingFrames_ + validFrames_) * sampleRate / desc_.sampleRate + 1) *
                            size_t(channels));
        for (size_t i = 0; i < packetCount(); ++i) {
            const auto p = packet(i);
            try {
                decoder.decodePacket(p.data(), p.size(), out.samples);
            } catch (const caf::CafError& e) {
                caf::fail(CafErrorCode::codec,
                          "Opus packet " + std::to_string(i) + " of " + std::to_string(packetCount()) +
                              " can't be decoded (" + e.error().localizedDescription + ")",
                          name_);
            }
        }
        const double factor = double(sampleRate) / desc_.sampleRate;
        const auto decoded = int64_t(out.samples.size()) / channels;
        const int64_t skip = std::min<int64_t>(std::llround(double(primingFrames_) * factor), decoded);
        const int64_t keep = std::min<int64_t>(std::llround(double(validFrames_) * factor), decoded - skip);
        out.samples.erase(out.samples.begin() + (skip + keep) * channels, out.samples.end());
        out.samples.erase(out.samples.begin(), out.samples.begin() + skip * channels);
        return out;
    }
    // Linear PCM, at its own rate.
    out.sampleRate = int(std::lround(desc_.sampleRate));
    const bool isFloat = desc_.formatFlags & caf::kLinearPcmIsFloat;
    const bool little = desc_.formatFlags & caf::kLinearPcmIsLittleEndian;
    const uint32_t width = desc_.bitsPerChannel / 8;
    const size_t first = packetOffsets_.empty() ? 0 : packetOffsets_.front();
    const int64_t frames = std::min<int64_t>(validFrames_, int64_t(packetCount()) - primingFrames_);
    out.samples.reserve(size_t(std::max<int64_t>(frames, 0)) * size_t(channels));
    for (int64_t f = 0; f < frames; ++f) {
        for (int c = 0; c < channels; ++c) {
            const uint8_t* s = bytes_.data() + first + size_t(primingFrames_ + f) * desc_.bytesPerPacket + size_t(c) * width;
            uint64_t raw = 0;
            for (uint32_t k = 0; k < width; ++k) {
                const uint8_t byte = little ? s[width - 1 - k] : s[k];
                raw = (raw << 8) | byte;
            }
            float value = 0;
            if (isFloat) {
                value = width == 4 ? std::bit_cast<float>(uint32_t(raw)) : float(std::bit_cast<double>(raw));
            } else if (width == 1) {
                value = (float(raw) - 128.0f) / 128.0f; // 8-bit PCM is unsigned
            } else {
                const int shift = int(64 - 8 * width);
                const auto signedValue = int64_t(raw << shift) >> shift;
                value = float(double(signedValue) / double(int64_t(1) << (8 * width - 1)));
            }
            out.samples.push_back(value);
        }
    }
    return out;
}

CafRecoveryResult CafReader::recover(const std::filesystem::path& path) {
    CafReader reader;
    reader.name_ = path.string();
    reader.bytes_ = readWholeFile(path);
    bool finished = false;
    try {
        reader.parse(false);
        finished = reader.complete_;
    } catch (const caf::CafError& e) {
        if (e.code() == CafErrorCode::notCaf || e.code() == CafErrorCode::unsupportedVersion ||
            e.code() == CafErrorCode::io) {
            throw;
        }
    }
    if (finished) return {true, int64_t(reader.packetCount()), reader.durationSeconds()};
    reader.parse(true);
    // A description that no packet can follow (a foreign or damaged header): not even an empty recording can be
    // made of it. A recording of ours cut before its first packet still has the data's start and becomes an empty
    // finished file; its packets always have their length in frames.
    if (reader.packetOffsets_.empty()) {
        caf::fail(CafErrorCode::notRecoverable, "the audio data can't be divided into packets; nothing to recover",
                  reader.name_);
    }
    if (reader.desc_.framesPerPacket == 0 && reader.packetFrames_.size() < reader.packetCount()) {
        caf::fail(CafErrorCode::notRecoverable, "the packets' lengths in frames are unknown; nothing to recover",
                  reader.name_);
    }

    auto d = reader.desc_;
    // Opus recordings declare their common packet size only while they are written; finished, they are described
    // as variable, with every packet in the table, like the recordings that were finished in time.
    if (reader.isOpus()) d.bytesPerPacket = 0;
    std::vector<uint8_t> out;
    caf::putU32(out, caf::kFileType);
    caf::putU16(out, 1);
    caf::putU16(out, 0);
    caf::putDescription(out, d);
    if (reader.recordingInfo_) caf::putRecordingInfoChunk(out, *reader.recordingInfo_);
    const size_t first = reader.packetOffsets_.front();
    const size_t last = reader.packetOffsets_.back();
    caf::putChunkHeader(out, caf::kData, int64_t(caf::kDataEditCountSize + (last - first)));
    caf::putU32(out, 0);
    out.insert(out.end(), reader.bytes_.begin() + std::ptrdiff_t(first), reader.bytes_.begin() + std::ptrdiff_t(last));
    const bool variable = d.bytesPerPacket == 0 || d.framesPerPacket == 0;
    if (variable || reader.primingFrames_ > 0) {
        std::vector<uint8_t> body;
        int64_t total = 0;
        for (size_t i = 0; i < reader.packetCount(); ++i) {
            total += d.framesPerPacket ? int64_t(d.framesPerPacket) : int64_t(reader.packetFrames_[i]);
        }
        caf::putU64(body, variable ? reader.packetCount() : 0);
        caf::putU64(body, uint64_t(reader.validFrames_));
        caf::putU32(body, uint32_t(reader.primingFrames_));
        caf::putU32(body, uint32_t(total - reader.validFrames_ - reader.primingFrames_));
        if (variable) {
            for (size_t i = 0; i < reader.packetCount(); ++i) {
                if (d.bytesPerPacket == 0) caf::putVarint(body, reader.packet(i).size());
                if (d.framesPerPacket == 0) caf::putVarint(body, reader.packetFrames_[i]);
            }
        }
        caf::putChunkHeader(out, caf::kPakt, int64_t(body.size()));
        out.insert(out.end(), body.begin(), body.end());
    }

    auto temporary = path;
    temporary += ".recovering";
    writeFileDurably(temporary, out);
    std::error_code ec;
    std::filesystem::rename(temporary, path, ec);
    if (ec) {
        std::filesystem::remove(temporary, ec);
        caf::fail(CafErrorCode::io, "can't replace the recording: " + ec.message(), path.string());
    }
    const auto result = fromBytes(std::move(out), path.string());
    return {false, int64_t(result.packetCount()), result.durationSeconds()};
}

} // namespace sprelio
