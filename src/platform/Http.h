#pragma once
// The one HTTP transport of the system. The logic builds requests, the adapter moves the bytes; every callback
// (progress, lines, response head, completion) runs on the main loop, never on the transport's own thread.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/Error.h"

namespace sprelio::platform {

namespace url_error_extra {
// Codes of the URL loading domain that only the transport itself produces.
inline constexpr long kBadURL = -1000;
inline constexpr long kUnsupportedURL = -1002;
inline constexpr long kFileDoesNotExist = -1100;
// A cleartext request that is not allowed (plain http to another host, a bearer token in clear text).
inline constexpr long kSecureConnectionRequired = -1022;
} // namespace url_error_extra

// A request body as an ordered list of pieces: bytes held in memory, or a whole file read from disk while the
// body is sent, so that a large file never has to be in memory. The bytes on the wire are the pieces in order.
class HttpBody {
public:
    struct FileRef {
        std::filesystem::path path;
    };
    using Segment = std::variant<std::string, FileRef>;

    HttpBody() = default;
    static HttpBody fromBytes(std::string bytes) {
        HttpBody body;
        body.append(std::move(bytes));
        return body;
    }
    static HttpBody fromFile(std::filesystem::path path) {
        HttpBody body;
        body.appendFile(std::move(path));
        return body;
    }

    void append(std::string bytes) {
        if (bytes.empty()) return;
        if (!segments_.empty()) {
            if (auto* last = std::get_if<std::string>(&segments_.back())) {
                last->append(bytes);
                return;
            }
        }
        segments_.emplace_back(std::move(bytes));
    }
    void appendFile(std::filesystem::path path) { segments_.emplace_back(FileRef{std::move(path)}); }

    // No body at all (a GET, or a POST without content).
    bool isNone() const { return segments_.empty(); }
    const std::vector<Segment>& segments() const { return segments_; }

private:
    std::vector<Segment> segments_;
};

struct HttpHeader {
    std::string name;
    std::string value;
    bool operator==(const HttpHeader&) const = default;
};

struct HttpResponse {
    long status = 0;
    // In the order received; the names as the server spelled them.
    std::vector<HttpHeader> headers;
    // The Content-Type media type without parameters, as the server wrote it ("text/event-stream"); empty
    // when the answer has no Content-Type.
    std::string mimeType;
    // The whole body, unless the request asked for lines (then empty: the lines went to onLine).
    std::string body;

    // First header with this name, compared without regard to case.
    std::optional<std::string> header(std::string_view name) const;
};

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    // Sent in this order, after the transport's own Host and Content-Length.
    std::vector<HttpHeader> headers;
    HttpBody body;
    // Fails the transfer with a time-out when no byte moves in either direction for this long (connecting
    // included), as a request time-out of the platform does.
    std::chrono::milliseconds timeout{60'000};
    // A limit on the whole transfer, for answers that could trickle forever. None: only `timeout` applies.
    std::optional<std::chrono::milliseconds> totalTimeout;
    // A limit on the answer alone, for uploads whose sending time grows with the body and the link: counted from
    // the moment the last byte of the body has gone out (from the start for a request without a body) to the end
    // of the answer. The sending itself stays under `timeout`.
    std::optional<std::chrono::milliseconds> answerTimeout;
    // With onLine: fails the transfer with a time-out when the answer has begun and no complete line has arrived
    // for this long, so that bytes which trickle in without ever finishing a line count as silence.
    std::optional<std::chrono::milliseconds> lineTimeout;
    // An answer body kept in memory larger than this ends the transfer as a bad server response.
    std::size_t maxBodyBytes = 64u * 1024u * 1024u;

    // Bytes of the body sent so far and the body's total size; at most a few calls per second, the last with
    // sent == total.
    std::function<void(std::int64_t sent, std::int64_t total)> onUploadProgress;
    // When set, the answer body is not kept: each complete line (split at LF, a trailing CR removed, empty
    // lines dropped) is delivered as soon as it has arrived, and a last line without LF at the end of the body.
    // A line longer than kMaxLineBytes ends the transfer as a bad server response.
    std::function<void(std::string line)> onLine;
    // Status and headers, once they are known and before any line is delivered.
    std::function<void(const HttpResponse& head)> onResponse;
};

inline constexpr std::size_t kMaxLineBytes = 16u * 1024u * 1024u;

// A response, or a failure of the URL loading domain.
using HttpResult = std::variant<HttpResponse, Error>;

class HttpTask {
public:
    virtual ~HttpTask() = default;
    // Any thread. Ends the transfer with the cancelled error (-999) unless it has already completed; callbacks
    // not yet run are dropped. Idempotent.
    virtual void cancel() = 0;
};

class HttpClient {
public:
    using Completion = std::function<void(HttpResult result)>;
    virtual ~HttpClient() = default;
    // Any thread. The completion runs exactly once on the main loop, unless the client is destroyed first.
    virtual std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) = 0;
};

inline std::optional<std::string> HttpResponse::header(std::string_view name) const {
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
    for (const auto& h : headers) {
        if (h.name.size() != name.size()) continue;
        bool same = true;
        for (std::size_t i = 0; i < name.size() && same; ++i) same = lower(h.name[i]) == lower(name[i]);
        if (same) return h.value;
    }
    return std::nullopt;
}

} // namespace sprelio::platform
