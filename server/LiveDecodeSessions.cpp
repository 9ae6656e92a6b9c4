#include "server/LiveDecodeSessions.h"

#include <openssl/evp.h>

#include <cstring>

namespace sprelio::server {

struct PacketDigest::Impl {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~Impl() { EVP_MD_CTX_free(context); }
};

PacketDigest::PacketDigest() : impl_(std::make_unique<Impl>()) { EVP_DigestInit_ex(impl_->context, EVP_sha256(), nullptr); }

PacketDigest::~PacketDigest() = default;

void PacketDigest::add(std::string_view packet) {
    const unsigned char length[4] = {static_cast<unsigned char>(packet.size() >> 24),
                                     static_cast<unsigned char>(packet.size() >> 16),
                                     static_cast<unsigned char>(packet.size() >> 8),
                                     static_cast<unsigned char>(packet.size())};
    EVP_DigestUpdate(impl_->context, length, sizeof length);
    EVP_DigestUpdate(impl_->context, packet.data(), packet.size());
}

std::string PacketDigest::finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(impl_->context, digest, &size);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 15];
    }
    return text;
}

namespace {

class Cursor {
public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
    bool has(std::size_t n) const { return bytes_.size() - at_ >= n; }
    std::size_t at() const { return at_; }
    std::uint64_t big(int n) {
        std::uint64_t value = 0;
        for (int i = 0; i < n; ++i) value = (value << 8) | static_cast<unsigned char>(bytes_[at_++]);
        return value;
    }
    // The variable-length integers of the packet table: seven bits a byte, the high bit set on all but the last.
    std::optional<std::uint64_t> varint(std::size_t end) {
        std::uint64_t value = 0;
        for (int i = 0; i < 9 && at_ < end; ++i) {
            auto byte = static_cast<unsigned char>(bytes_[at_++]);
            value = (value << 7) | (byte & 0x7f);
            if (!(byte & 0x80)) return value;
        }
        return std::nullopt;
    }
    void skipTo(std::size_t at) { at_ = at; }

private:
    std::string_view bytes_;
    std::size_t at_ = 0;
};

constexpr std::uint32_t fourCc(const char (&text)[5]) {
    return (std::uint32_t(std::uint8_t(text[0])) << 24) | (std::uint32_t(std::uint8_t(text[1])) << 16) |
           (std::uint32_t(std::uint8_t(text[2])) << 8) | std::uint32_t(std::uint8_t(text[3]));
}

} // namespace

std::optional<CafOpusPackets> readCafOpusPackets(std::string_view file) {
    Cursor in(file);
    if (!in.has(8) || in.big(4) != fourCc("caff")) return std::nullopt;
    in.big(4); // version and flags
    bool haveDesc = false;
    std::uint32_t bytesPerPacket = 0;
    std::uint32_t framesPerPacket = 0;
    int channels = 0;
    std::optional<std::string_view> data;
    std::optional<std::pair<std::size_t, std::size_t>> table; // its entries: from, to
    std::uint64_t tablePackets = 0;
    while (in.has(12)) {
        const auto type = static_cast<std::uint32_t>(in.big(4));
        const auto size = static_cast<std::int64_t>(in.big(8));
        const std::size_t start = in.at();
        const bool toEnd = size < 0;
        if (!toEnd && static_cast<std::uint64_t>(size) > file.size() - start) return std::nullopt;
        const std::size_t end = toEnd ? file.size() : start + static_cast<std::size_t>(size);
        if (type == fourCc("desc")) {
            if (end - start < 32) return std::nullopt;
            std::uint64_t rateBits = in.big(8);
            double rate = 0;
            std::memcpy(&rate, &rateBits, sizeof rate);
            const auto format = static_cast<std::uint32_t>(in.big(4));
            in.big(4); // flags
            bytesPerPacket = static_cast<std::uint32_t>(in.big(4));
            framesPerPacket = static_cast<std::uint32_t>(in.big(4));
            channels = static_cast<int>(in.big(4));
            if (format != fourCc("opus") || rate != 48000.0 || framesPerPacket != 960 || channels < 1 || channels > 2)
                return std::nullopt;
            haveDesc = true;
        } else if (type == fourCc("kuki")) {
            return std::nullopt; // a magic cookie sets the decoder up differently from a live stream
        } else if (type == fourCc("data")) {
            if (end - start < 4) return std::nullopt;
            data = file.substr(start + 4, end - start - 4);
        } else if (type == fourCc("pakt")) {
            if (end - start < 24) return std::nullopt;
            tablePackets = in.big(8);
            table = {{start + 24, end}};
        }
        if (toEnd) break;
        in.skipTo(end);
    }
    if (!haveDesc || !data) return std::nullopt;
    CafOpusPackets result;
    result.channels = channels;
    if (bytesPerPacket > 0) {
        if (data->size() % bytesPerPacket != 0) return std::nullopt;
        for (std::size_t at = 0; at < data->size(); at += bytesPerPacket)
            result.packets.push_back(data->substr(at, bytesPerPacket));
        return result;
    }
    if (!table || tablePackets > data->size()) return std::nullopt;
    in.skipTo(table->first);
    std::size_t at = 0;
    for (std::uint64_t i = 0; i < tablePackets; ++i) {
        auto size = in.varint(table->second);
        if (!size || *size > data->size() - at) return std::nullopt;
        result.packets.push_back(data->substr(at, static_cast<std::size_t>(*size)));
        at += static_cast<std::size_t>(*size);
    }
    if (at != data->size()) return std::nullopt;
    return result;
}

LiveDecodeSessions::LiveDecodeSessions(std::chrono::milliseconds stall, std::chrono::milliseconds keep)
    : stall_(stall), keep_(keep) {}

std::shared_ptr<LiveDecodeSessions::Session> LiveDecodeSessions::open(const std::string& id, std::int64_t accountId,
                                                                      std::string language, bool diarization,
                                                                      int channels) {
    std::lock_guard lock(mutex_);
    dropExpired(std::chrono::steady_clock::now());
    auto key = std::make_pair(accountId, id);
    if (sessions_.count(key)) return nullptr;
    auto session = std::make_shared<Session>();
    session->id_ = id;
    session->expected_ = {accountId, std::move(language), diarization, channels, {}};
    session->touch();
    sessions_.emplace(key, session);
    return session;
}

void LiveDecodeSessions::finished(const std::shared_ptr<Session>& session, Transcript transcript, std::string digest) {
    std::lock_guard lock(mutex_);
    session->expected_.digest = std::move(digest);
    session->transcript_ = std::move(transcript);
    session->state_ = Session::State::finished;
    session->finishedAt_ = std::chrono::steady_clock::now();
    changed_.notify_all();
}

void LiveDecodeSessions::failed(const std::shared_ptr<Session>& session) {
    std::lock_guard lock(mutex_);
    session->state_ = Session::State::failed;
    auto found = sessions_.find({session->expected_.accountId, session->id_});
    if (found != sessions_.end() && found->second == session) sessions_.erase(found);
    changed_.notify_all();
}

std::optional<Transcript> LiveDecodeSessions::take(const std::string& id, const LiveClaim& claim, std::string& why) {
    std::unique_lock lock(mutex_);
    auto key = std::make_pair(claim.accountId, id);
    auto found = sessions_.find(key);
    if (found == sessions_.end()) {
        why = "no such stream (never opened, broken off, or expired)";
        return std::nullopt;
    }
    auto session = found->second;
    sessions_.erase(found);
    using Clock = std::chrono::steady_clock;
    while (session->state_ == Session::State::running) {
        const auto last = Clock::time_point(Clock::duration(session->lastActivity_.load()));
        if (Clock::now() - last > stall_) {
            session->abandoned_ = true;
            why = "the stream had not ended and stood still";
            return std::nullopt;
        }
        changed_.wait_for(lock, std::chrono::milliseconds(50));
    }
    if (session->state_ != Session::State::finished || !session->transcript_) {
        why = "the stream broke off";
        return std::nullopt;
    }
    const auto& expected = session->expected_;
    if (expected.digest != claim.digest || expected.channels != claim.channels) {
        why = "the uploaded audio differs from the stream's";
        return std::nullopt;
    }
    if (expected.language != claim.language || expected.diarization != claim.diarization) {
        why = "the upload asks for another language or diarization";
        return std::nullopt;
    }
    return session->transcript_;
}

std::size_t LiveDecodeSessions::size() const {
    std::lock_guard lock(mutex_);
    return sessions_.size();
}

void LiveDecodeSessions::dropExpired(std::chrono::steady_clock::time_point now) {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        const auto& session = *it->second;
        if (session.state_ == Session::State::finished && now - session.finishedAt_ > keep_)
            it = sessions_.erase(it);
        else
            ++it;
    }
}

} // namespace sprelio::server
