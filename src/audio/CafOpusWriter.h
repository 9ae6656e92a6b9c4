#pragma once
// Streaming writer of one recording: Opus packets in a CAF file, written while the user speaks.
//
// What the file looks like, and why a crash can't lose more than the packet being written:
//
//   while recording   'caff' | desc (constant bytes per packet) | uuid (recording info) | data (size -1, edit count
//                     0, packet, packet, ...)
//   after finish()    'caff' | desc (variable bytes per packet) | uuid (recording info) | data (exact size) | pakt
//
// - A finished desc describes Opus the way other CAF writers do: 48000 Hz (the rate in which Opus counts its frames, whatever
//   rate the encoder runs at), format 'opus', no flags, variable bytes per packet, 960 frames per packet (20 ms),
//   one channel. Priming and remainder in the packet table are counted in the same 48 kHz frames. No magic cookie:
//   one or two channels without a mapping table need none, and the priming frames carry the pre-skip.
// - The encoder runs in hard CBR, so every packet has the same size (40 bytes at 16 kbit/s). The recording info
//   chunk, a 'uuid' chunk that other readers skip, records that size, the frames per packet and the priming frames.
//   A file cut off at any byte therefore still tells where each complete packet begins and ends: the data chunk
//   runs to the end of the file (size -1) until finish(), and its complete packets are floor(bytes / size).
// - Every encoded packet goes to the kernel by write(2) before appendSamples() returns, so a crash of the process
//   loses at most the samples of a frame that wasn't complete yet. (A power cut may lose what the kernel hadn't
//   stored; finish() syncs the file.)
// - finish() pads the last frame with silence, encodes until the encoder's lookahead has come out, writes the
//   exact data size, appends the packet table (valid frames = samples fed, so the duration is exact), and only
//   then declares the packets variable. A crash between those writes leaves constant packets of a known size,
//   with or without a table, which every reader understands.
// - While recording, desc declares the common packet size, so that FFmpeg plays a file cut off by a crash to its
//   last complete packet without a packet table.
//
// CafReader::recover() turns an unfinished file into a finished one up to its last complete packet.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "audio/OpusEncoder.h"

namespace sprelio {

class CafOpusWriter {
public:
    // The container counts Opus frames at 48 kHz.
    static constexpr int kContainerSampleRate = 48000;

    CafOpusWriter() = default;
    // An open writer is abandoned: the file stays as a crash would leave it.
    ~CafOpusWriter();
    CafOpusWriter(const CafOpusWriter&) = delete;
    CafOpusWriter& operator=(const CafOpusWriter&) = delete;

    // Creates (or replaces) the file and writes its head. Throws caf::CafError (io, codec, invalidState).
    void open(const std::filesystem::path& path, const OpusEncoder::Settings& settings = {});
    // Interleaved samples at the encoder's rate, -1..1. Complete frames are encoded and written at once; the rest
    // waits for the next call. Throws caf::CafError (io, codec, invalidState).
    void appendSamples(const float* samples, size_t frames);
    // Pads, writes the last packets and the packet table, syncs and closes. Throws caf::CafError; after a failure
    // the file is left as it was, which a recovery can still read.
    void finish();
    // Closes without the packet table. The file is not removed: what was written stays recoverable.
    void abandon();

    // Each packet as it is encoded, in file order, before it is written.
    std::function<void(const uint8_t* data, size_t size)> onPacket;

    bool isOpen() const { return fd_ >= 0; }
    const std::filesystem::path& path() const { return path_; }
    // Samples per channel passed to appendSamples().
    int64_t framesAppended() const { return framesAppended_; }
    int64_t packetsWritten() const { return packetsWritten_; }
    int64_t dataBytesWritten() const { return dataBytes_; }

private:
    void encodeFrame(const float* frame, std::vector<uint8_t>& out);
    void writeAll(const uint8_t* data, size_t size);
    void writeAt(int64_t offset, const uint8_t* data, size_t size);
    void closeFile();

    std::filesystem::path path_;
    int fd_ = -1;
    std::unique_ptr<OpusEncoder> encoder_;
    std::vector<float> pending_; // samples of an incomplete frame, interleaved
    int64_t framesAppended_ = 0;
    int64_t framesEncoded_ = 0; // at the encoder's rate
    int64_t packetsWritten_ = 0;
    int64_t dataBytes_ = 0;
    int64_t dataSizeOffset_ = 0; // where the data chunk's size field lies
    uint32_t bytesPerPacket_ = 0;
    int rateFactor_ = 1; // container frames per encoder frame
    // The bytes-per-packet field of desc: file header (8), chunk header (12), rate (8), format (4), flags (4).
    static constexpr int64_t kDescBytesPerPacketOffset = 36;
};

} // namespace sprelio
