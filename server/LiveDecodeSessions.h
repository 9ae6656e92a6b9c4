#pragma once
// Live decoding: a client that records a dictation streams its Opus packets to POST /transcribe/live while the
// user speaks, and the server recognises them as they come. The ordinary upload of the finished recording then
// names the stream (header "X-Live-Stream"); when that stream was decoded to its end from exactly the packets of
// the uploaded file, for the same account, language and diarization, its text is the answer and nothing is decoded
// again. In every other case the upload is transcribed as if there had been no stream, so a stream can change
// when the text arrives, never what it says.
//
// The stream's body is the packets in order, each as a 16-bit big-endian length followed by its bytes.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/TranscriptionEngine.h"

namespace sprelio::server {

inline constexpr const char* kLiveStreamHeader = "X-Live-Stream";

// A running digest of Opus packets, in the framing of the live stream, so that the packets of a stream and those of
// a file compare by value.
class PacketDigest {
public:
    PacketDigest();
    ~PacketDigest();
    PacketDigest(const PacketDigest&) = delete;
    PacketDigest& operator=(const PacketDigest&) = delete;
    void add(std::string_view packet);
    // Lower-case hex; ends the digest.
    std::string finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The Opus packets of a CAF file, as they lie in it; nothing for a file that is not an Opus CAF file the live
// decoder describes the same way (48 kHz frame count, no magic cookie, one or two channels, a complete packet
// table when packets vary in size).
struct CafOpusPackets {
    int channels = 0;
    std::vector<std::string_view> packets;
};
std::optional<CafOpusPackets> readCafOpusPackets(std::string_view file);

// What an upload brings to be matched against a stream.
struct LiveClaim {
    std::int64_t accountId = 0;
    std::string language;
    bool diarization = false;
    int channels = 0;
    std::string digest;
};

class LiveDecodeSessions {
public:
    class Session {
    public:
        const std::string& id() const { return id_; }
        // The server gave up waiting for it: the stream's reader stops at its next packet.
        bool abandoned() const { return abandoned_; }
        // Bytes arrived or audio was decoded just now; an upload waits only for a stream that moves.
        void touch() { lastActivity_ = std::chrono::steady_clock::now().time_since_epoch().count(); }

    private:
        friend class LiveDecodeSessions;
        enum class State { running, finished, failed };
        std::string id_;
        LiveClaim expected_;
        State state_ = State::running;
        std::atomic<bool> abandoned_{false};
        std::optional<Transcript> transcript_;
        std::atomic<std::chrono::steady_clock::rep> lastActivity_{0};
        std::chrono::steady_clock::time_point finishedAt_;
    };

    // `stall`: an upload waits for a stream that has not finished yet as long as the stream moves, and gives up
    // after this long without a byte or a decoded piece. `keep`: a finished stream that no upload claims is
    // dropped after this long.
    LiveDecodeSessions(std::chrono::milliseconds stall, std::chrono::milliseconds keep);

    // A new stream, or nothing when the account has one of this id already.
    std::shared_ptr<Session> open(const std::string& id, std::int64_t accountId, std::string language,
                                  bool diarization, int channels);
    // The stream was read and decoded to its end.
    void finished(const std::shared_ptr<Session>& session, Transcript transcript, std::string digest);
    // The stream broke off, or its decoding failed: no upload will be answered from it.
    void failed(const std::shared_ptr<Session>& session);

    // The text of stream `id` when it matches `claim` in every respect, waiting while the stream still runs and
    // moves. The stream is used up either way. `why` tells the log what kept it from answering.
    std::optional<Transcript> take(const std::string& id, const LiveClaim& claim, std::string& why);

    std::size_t size() const;

private:
    void dropExpired(std::chrono::steady_clock::time_point now);

    const std::chrono::milliseconds stall_;
    const std::chrono::milliseconds keep_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::pair<std::int64_t, std::string>, std::shared_ptr<Session>> sessions_;
};

} // namespace sprelio::server
