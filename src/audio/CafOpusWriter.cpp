#include "audio/CafOpusWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "audio/CafFormat.h"

namespace sprelio {

using caf::CafErrorCode;

CafOpusWriter::~CafOpusWriter() { abandon(); }

void CafOpusWriter::open(const std::filesystem::path& path, const OpusEncoder::Settings& settings) {
    if (isOpen()) caf::fail(CafErrorCode::invalidState, "the writer has a file open already", path_.string());
    if (!settings.constantBitRate) {
        // The recovery of a file cut off by a crash counts packets by their common size.
        caf::fail(CafErrorCode::invalidState, "recordings are written with a constant bit rate", path.string());
    }
    auto encoder = std::make_unique<OpusEncoder>(settings);
    const int frameMs = settings.frameMilliseconds;
    const auto bytesPerPacket = uint32_t(int64_t(settings.bitRate) * frameMs / 8000);
    if (bytesPerPacket < 2) caf::fail(CafErrorCode::codec, "the bit rate is too low for a packet", path.string());

    rateFactor_ = kContainerSampleRate / settings.sampleRate;
    caf::AudioDescription desc;
    desc.sampleRate = kContainerSampleRate;
    desc.formatID = caf::kFormatOpus;
    desc.framesPerPacket = uint32_t(kContainerSampleRate / 1000 * frameMs);
    desc.channelsPerFrame = uint32_t(settings.channels);
    // Until finish() the packets are declared by their common size: a file cut off by a crash then needs no packet
    // table, and other readers (FFmpeg) play it up to its last complete packet. finish() declares them variable,
    // with the table, as finished recordings are.
    desc.bytesPerPacket = bytesPerPacket;

    caf::RecordingInfo info;
    info.bytesPerPacket = bytesPerPacket;
    info.framesPerPacket = desc.framesPerPacket;
    info.primingFrames = uint32_t(encoder->lookahead() * rateFactor_);

    std::vector<uint8_t> head;
    caf::putU32(head, caf::kFileType);
    caf::putU16(head, 1);
    caf::putU16(head, 0);
    caf::putDescription(head, desc);
    caf::putRecordingInfoChunk(head, info);
    const auto sizeOffset = int64_t(head.size()) + 4;
    caf::putChunkHeader(head, caf::kData, -1);
    caf::putU32(head, 0); // edit count

    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        caf::fail(CafErrorCode::io, std::string("can't create the recording: ") + std::strerror(errno), path.string());
    }
    path_ = path;
    fd_ = fd;
    encoder_ = std::move(encoder);
    pending_.clear();
    framesAppended_ = framesEncoded_ = packetsWritten_ = dataBytes_ = 0;
    dataSizeOffset_ = sizeOffset;
    bytesPerPacket_ = bytesPerPacket;
    try {
        writeAll(head.data(), head.size());
    } catch (...) {
        closeFile();
        throw;
    }
}

void CafOpusWriter::encodeFrame(const float* frame, std::vector<uint8_t>& out) {
    const auto packet = encoder_->encodeFrame(frame);
    if (packet.size() != bytesPerPacket_) {
        caf::fail(CafErrorCode::codec,
                  "the encoder made a packet of " + std::to_string(packet.size()) + " bytes instead of " +
                      std::to_string(bytesPerPacket_),
                  path_.string());
    }
    if (onPacket) onPacket(packet.data(), packet.size());
    out.insert(out.end(), packet.begin(), packet.end());
    framesEncoded_ += encoder_->frameSize();
}

void CafOpusWriter::appendSamples(const float* samples, size_t frames) {
    if (!isOpen()) caf::fail(CafErrorCode::invalidState, "appendSamples() without an open file");
    const auto channels = size_t(encoder_->settings().channels);
    const auto frameSamples = size_t(encoder_->frameSize()) * channels;
    std::vector<uint8_t> packets;
    size_t consumed = 0;
    const size_t total = frames * channels;
    if (!pending_.empty()) {
        const size_t take = std::min(frameSamples - pending_.size(), total);
        pending_.insert(pending_.end(), samples, samples + take);
        consumed = take;
        if (pending_.size() == frameSamples) {
            encodeFrame(pending_.data(), packets);
            pending_.clear();
        }
    }
    while (total - consumed >= frameSamples) {
        encodeFrame(samples + consumed, packets);
        consumed += frameSamples;
    }
    pending_.insert(pending_.end(), samples + consumed, samples + total);
    framesAppended_ += int64_t(frames);
    if (!packets.empty()) {
        writeAll(packets.data(), packets.size());
        dataBytes_ += int64_t(packets.size());
        packetsWritten_ += int64_t(packets.size() / bytesPerPacket_);
    }
}

void CafOpusWriter::finish() {
    if (!isOpen()) caf::fail(CafErrorCode::invalidState, "finish() without an open file");
    const auto channels = size_t(encoder_->settings().channels);
    const auto frameSamples = size_t(encoder_->frameSize()) * channels;
    // The decoder gives back the input delayed by the lookahead; encode silence until the last sample is out.
    std::vector<uint8_t> packets;
    const int64_t needed = framesAppended_ + encoder_->lookahead();
    while (framesEncoded_ < needed || !pending_.empty()) {
        pending_.resize(frameSamples, 0.0f);
        encodeFrame(pending_.data(), packets);
        pending_.clear();
    }
    if (!packets.empty()) {
        writeAll(packets.data(), packets.size());
        dataBytes_ += int64_t(packets.size());
        packetsWritten_ += int64_t(packets.size() / bytesPerPacket_);
    }

    const int64_t framesPerPacket = int64_t(encoder_->frameSize()) * rateFactor_;
    caf::PacketTableHeader table;
    table.numberPackets = packetsWritten_;
    table.primingFrames = int32_t(encoder_->lookahead() * rateFactor_);
    table.numberValidFrames = framesAppended_ * rateFactor_;
    table.remainderFrames =
        int32_t(packetsWritten_ * framesPerPacket - table.numberValidFrames - table.primingFrames);

    std::vector<uint8_t> size;
    caf::putU64(size, uint64_t(caf::kDataEditCountSize + dataBytes_));
    writeAt(dataSizeOffset_, size.data(), size.size());

    std::vector<uint8_t> pakt;
    std::vector<uint8_t> body;
    caf::putU64(body, uint64_t(table.numberPackets));
    caf::putU64(body, uint64_t(table.numberValidFrames));
    caf::putU32(body, uint32_t(table.primingFrames));
    caf::putU32(body, uint32_t(table.remainderFrames));
    for (int64_t i = 0; i < packetsWritten_; ++i) caf::putVarint(body, bytesPerPacket_);
    caf::putChunkHeader(pakt, caf::kPakt, int64_t(body.size()));
    pakt.insert(pakt.end(), body.begin(), body.end());
    writeAll(pakt.data(), pakt.size());
    std::vector<uint8_t> variable;
    caf::putU32(variable, 0);
    writeAt(kDescBytesPerPacketOffset, variable.data(), variable.size());
    if (::fsync(fd_) != 0) {
        caf::fail(CafErrorCode::io, std::string("can't sync the recording: ") + std::strerror(errno), path_.string());
    }
    closeFile();
}

void CafOpusWriter::abandon() { closeFile(); }

void CafOpusWriter::closeFile() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    encoder_.reset();
    pending_.clear();
}

void CafOpusWriter::writeAll(const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            caf::fail(CafErrorCode::io, std::string("can't write the recording: ") + std::strerror(errno),
                      path_.string());
        }
        data += n;
        size -= size_t(n);
    }
}

void CafOpusWriter::writeAt(int64_t offset, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd_, data, size, off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            caf::fail(CafErrorCode::io, std::string("can't write the recording: ") + std::strerror(errno),
                      path_.string());
        }
        data += n;
        size -= size_t(n);
        offset += n;
    }
}

} // namespace sprelio
