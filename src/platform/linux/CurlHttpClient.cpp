#include "platform/linux/CurlHttpClient.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

// The poll interval while transfers run: it bounds how late an idle time-out is noticed.
constexpr int kActivePollMs = 50;
constexpr int kIdlePollMs = 1000;
// Upload progress goes to the main loop at most this often (and once at the end).
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                             text.back() == '\n')) {
        text.remove_suffix(1);
    }
    return text;
}

Error urlError(long code, std::string description, const std::string& url) {
    Error error;
    error.domain = url_error::kDomain;
    error.code = code;
    error.localizedDescription = std::move(description);
    error.userInfo["NSErrorFailingURLStringKey"] = url;
    return error;
}

struct ParsedUrl {
    std::string scheme;
    std::string host;
};

std::optional<ParsedUrl> parseUrl(const std::string& url) {
    CURLU* handle = curl_url();
    if (!handle) return std::nullopt;
    std::optional<ParsedUrl> parsed;
    if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
        char* scheme = nullptr;
        char* host = nullptr;
        if (curl_url_get(handle, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
            curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK) {
            parsed = ParsedUrl{scheme, host};
        }
        curl_free(scheme);
        curl_free(host);
    }
    curl_url_cleanup(handle);
    return parsed;
}

} // namespace

bool isLoopbackHost(std::string_view host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (!host.empty() && host.back() == '.') host.remove_suffix(1);
    if (equalsIgnoringCase(host, "localhost")) return true;
    const std::string text(host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) == 1) return std::memcmp(&v6, &in6addr_loopback, sizeof v6) == 0;
    return false;
}

namespace {

// What the main loop side of one transfer needs; shared by the posted tasks and the task handle.
struct Delivery {
    std::atomic<bool> cancelled{false};
    std::atomic<bool> completed{false};
    HttpClient::Completion completion;
    std::function<void(std::int64_t, std::int64_t)> onUploadProgress;
    std::function<void(std::string)> onLine;
    std::function<void(const HttpResponse&)> onResponse;
};

// One transfer as the transport thread sees it. Only that thread touches it once it is queued.
struct Transfer {
    std::shared_ptr<Delivery> delivery;
    MainLoop* loop = nullptr;
    std::string url;
    std::string method;
    std::vector<HttpHeader> headers;
    std::vector<HttpBody::Segment> segments;
    std::vector<std::int64_t> segmentSizes;
    std::int64_t bodySize = 0;
    bool hasBody = false;
    bool streamsLines = false;
    // Read here rather than from the delivery, whose callbacks the main loop may let go of at any time (a cancel).
    bool wantsResponse = false;
    bool wantsUploadProgress = false;
    bool loopback = false;
    std::chrono::milliseconds timeout{0};
    std::optional<std::chrono::milliseconds> totalTimeout;
    std::optional<std::chrono::milliseconds> answerTimeout;
    std::optional<std::chrono::milliseconds> lineTimeout;
    std::size_t maxBodyBytes = 0;

    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // Body being sent.
    std::size_t segment = 0;
    std::int64_t segmentOffset = 0;
    std::FILE* file = nullptr;

    // Answer being received.
    std::vector<HttpHeader> responseHeaders;
    std::string body;
    std::string lineBuffer;
    std::size_t lineScanFrom = 0;
    bool headPosted = false;

    // Why a callback ended the transfer, when it did.
    std::optional<Error> abortReason;
    SteadyClock::time_point lastActivity;
    // When the last byte of the body went out, and when the answer began or last completed a line.
    std::optional<SteadyClock::time_point> bodySentAt;
    std::optional<SteadyClock::time_point> lastLineAt;
    curl_off_t lastDl = -1;
    curl_off_t lastUl = -1;
    curl_off_t lastPostedUl = -1;
    SteadyClock::time_point lastProgressPost;

    ~Transfer() {
        if (file) std::fclose(file);
        if (headerList) curl_slist_free_all(headerList);
        if (easy) curl_easy_cleanup(easy);
    }

    void post(std::function<void(Delivery&)> work) {
        auto target = delivery;
        loop->post([target, work = std::move(work)] {
            if (target->cancelled.load()) return;
            work(*target);
        });
    }

    long status() const {
        long code = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
        return code;
    }

    HttpResponse head() const {
        HttpResponse response;
        response.status = status();
        response.headers = responseHeaders;
        if (auto type = response.header("Content-Type")) {
            std::string_view media = *type;
            media = trim(media.substr(0, media.find(';')));
            response.mimeType = std::string(media);
        }
        return response;
    }

    void postHeadIfNeeded() {
        if (headPosted) return;
        headPosted = true;
        if (!wantsResponse) return;
        post([response = head()](Delivery& d) { if (d.onResponse) d.onResponse(response); });
    }

    void abortWith(long code, std::string description) {
        if (!abortReason) abortReason = urlError(code, std::move(description), url);
    }

    void closeFile() {
        if (file) std::fclose(file);
        file = nullptr;
    }
};

std::size_t readBody(char* buffer, std::size_t size, std::size_t items, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t capacity = size * items;
    std::size_t written = 0;
    while (written < capacity && t.segment < t.segments.size()) {
        const std::int64_t left = t.segmentSizes[t.segment] - t.segmentOffset;
        if (left <= 0) {
            t.closeFile();
            ++t.segment;
            t.segmentOffset = 0;
            continue;
        }
        const auto chunk = static_cast<std::size_t>(std::min<std::int64_t>(left, std::int64_t(capacity - written)));
        if (const auto* bytes = std::get_if<std::string>(&t.segments[t.segment])) {
            std::memcpy(buffer + written, bytes->data() + t.segmentOffset, chunk);
            written += chunk;
            t.segmentOffset += static_cast<std::int64_t>(chunk);
            continue;
        }
        const auto& path = std::get<HttpBody::FileRef>(t.segments[t.segment]).path;
        if (!t.file) {
            t.file = std::fopen(path.c_str(), "rb");
            if (!t.file || (t.segmentOffset > 0 && fseeko(t.file, t.segmentOffset, SEEK_SET) != 0)) {
                t.abortWith(url_error_extra::kFileDoesNotExist,
                            "The file of the request body could not be opened: " + path.string());
                return CURL_READFUNC_ABORT;
            }
        }
        const std::size_t got = std::fread(buffer + written, 1, chunk, t.file);
        if (got == 0) {
            t.abortWith(url_error_extra::kFileDoesNotExist,
                        "The file of the request body became shorter while it was sent: " + path.string());
            return CURL_READFUNC_ABORT;
        }
        written += got;
        t.segmentOffset += static_cast<std::int64_t>(got);
    }
    if (written > 0) t.lastActivity = SteadyClock::now();
    return written;
}

int seekBody(void* user, curl_off_t offset, int origin) {
    // Only a rewind to the start is ever needed (a retried request); anything else can't be served.
    if (origin != SEEK_SET || offset != 0) return CURL_SEEKFUNC_CANTSEEK;
    auto& t = *static_cast<Transfer*>(user);
    t.closeFile();
    t.segment = 0;
    t.segmentOffset = 0;
    return CURL_SEEKFUNC_OK;
}

std::size_t receiveHeader(char* data, std::size_t size, std::size_t items, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * items;
    t.lastActivity = SteadyClock::now();
    if (!t.lastLineAt) t.lastLineAt = t.lastActivity;
    std::string_view line(data, length);
    if (line.rfind("HTTP/", 0) == 0) {
        // A new status line: an interim answer (100 Continue) is replaced by the final one.
        t.responseHeaders.clear();
        return length;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return length;
    t.responseHeaders.push_back(
        HttpHeader{std::string(trim(line.substr(0, colon))), std::string(trim(line.substr(colon + 1)))});
    return length;
}

std::size_t receiveBody(char* data, std::size_t size, std::size_t items, void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t length = size * items;
    t.lastActivity = SteadyClock::now();
    t.postHeadIfNeeded();
    if (!t.streamsLines) {
        if (t.body.size() + length > t.maxBodyBytes) {
            t.abortWith(url_error::kBadServerResponse,
                        "The server's answer is larger than " + std::to_string(t.maxBodyBytes) + " bytes.");
            return 0;
        }
        t.body.append(data, length);
        return length;
    }
    t.lineBuffer.append(data, length);
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (;;) {
        const auto end = t.lineBuffer.find('\n', std::max(start, t.lineScanFrom));
        if (end == std::string::npos) break;
        std::size_t stop = end;
        if (stop > start && t.lineBuffer[stop - 1] == '\r') --stop;
        if (stop > start) lines.emplace_back(t.lineBuffer, start, stop - start);
        start = end + 1;
    }
    t.lineBuffer.erase(0, start);
    t.lineScanFrom = t.lineBuffer.size();
    if (!lines.empty()) {
        // Only a line with content counts: blank lines are dropped and say nothing about progress.
        t.lastLineAt = t.lastActivity;
        t.post([lines = std::move(lines)](Delivery& d) {
            for (const auto& line : lines) {
                if (d.cancelled.load() || !d.onLine) return;
                d.onLine(line);
            }
        });
    }
    if (t.lineBuffer.size() > kMaxLineBytes) {
        t.abortWith(url_error::kBadServerResponse, "The server sent a line longer than 16 MB in its answer.");
        return 0;
    }
    return length;
}

int transferProgress(void* user, curl_off_t, curl_off_t dlNow, curl_off_t ulTotal, curl_off_t ulNow) {
    auto& t = *static_cast<Transfer*>(user);
    const auto now = SteadyClock::now();
    if (dlNow != t.lastDl || ulNow != t.lastUl) {
        t.lastDl = dlNow;
        t.lastUl = ulNow;
        t.lastActivity = now;
    }
    if (t.wantsUploadProgress && ulTotal > 0 && ulNow != t.lastPostedUl &&
        (ulNow == ulTotal || now - t.lastProgressPost >= kProgressInterval)) {
        t.lastPostedUl = ulNow;
        t.lastProgressPost = now;
        t.post([sent = std::int64_t(ulNow), total = std::int64_t(ulTotal)](Delivery& d) {
            if (d.onUploadProgress) d.onUploadProgress(sent, total);
        });
    }
    if (now - t.lastActivity >= t.timeout) {
        t.abortWith(url_error::kTimedOut, "The request timed out: nothing was sent or received for " +
                                              std::to_string(t.timeout.count()) + " ms.");
        return 1;
    }
    if (!t.bodySentAt && ulNow >= t.bodySize) t.bodySentAt = now;
    if (t.answerTimeout && t.bodySentAt && now - *t.bodySentAt >= *t.answerTimeout) {
        t.abortWith(url_error::kTimedOut, "The request timed out: the server's answer had not ended " +
                                              std::to_string(t.answerTimeout->count()) +
                                              " ms after the request was sent.");
        return 1;
    }
    if (t.streamsLines && t.lineTimeout && t.lastLineAt && now - *t.lastLineAt >= *t.lineTimeout) {
        t.abortWith(url_error::kTimedOut, "The request timed out: no complete line arrived in the server's answer "
                                          "for " + std::to_string(t.lineTimeout->count()) + " ms.");
        return 1;
    }
    return 0;
}

Error mapCurlError(const Transfer& t, CURLcode code) {
    std::string detail = t.errorBuffer[0] ? std::string(t.errorBuffer) : std::string(curl_easy_strerror(code));
    long osErrno = 0;
    curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
    auto make = [&](long urlCode, const std::string& text) {
        Error error = urlError(urlCode, text + " (" + detail + ")", t.url);
        error.userInfo["curlCode"] = std::to_string(static_cast<int>(code));
        return error;
    };
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
        return make(url_error::kTimedOut, "The request timed out.");
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return make(url_error::kCannotFindHost, "A server with the specified host name could not be found.");
    case CURLE_COULDNT_CONNECT:
        if (osErrno == ENETUNREACH || osErrno == ENETDOWN) {
            return make(url_error::kNotConnectedToInternet, "The Internet connection appears to be offline.");
        }
        return make(url_error::kCannotConnectToHost, "Could not connect to the server.");
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
        return make(url_error::kSecureConnectionFailed,
                    "A TLS error occurred and a secure connection to the server cannot be made.");
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2_STREAM:
        return make(url_error::kNetworkConnectionLost, "The network connection was lost.");
    case CURLE_UNSUPPORTED_PROTOCOL:
        return make(url_error_extra::kUnsupportedURL, "The URL's scheme is not supported.");
    case CURLE_URL_MALFORMAT:
        return make(url_error_extra::kBadURL, "The URL is not valid.");
    default:
        return make(url_error::kBadServerResponse, "The server's answer could not be read.");
    }
}

} // namespace

// The transport thread and its queue of commands.
class CurlHttpClient::Engine {
public:
    explicit Engine(MainLoop& loop) : loop_(loop) {
        static std::once_flag once;
        std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        multi_ = curl_multi_init();
        thread_ = std::thread([this] { run(); });
    }

    ~Engine() { stop(); }

    void stop() {
        {
            std::lock_guard lock(mutex_);
            if (stopping_.exchange(true)) return;
            curl_multi_wakeup(multi_);
        }
        if (thread_.joinable()) thread_.join();
        for (auto& [easy, transfer] : active_) curl_multi_remove_handle(multi_, easy);
        active_.clear();
        std::lock_guard lock(mutex_);
        adds_.clear();
        cancels_.clear();
        curl_multi_cleanup(multi_);
        multi_ = nullptr;
    }

    MainLoop& loop() { return loop_; }

    void add(std::shared_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            adds_.push_back(std::move(transfer));
            curl_multi_wakeup(multi_);
        }
    }

    void cancel(std::shared_ptr<Delivery> delivery) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            cancels_.push_back(std::move(delivery));
            curl_multi_wakeup(multi_);
        }
    }

private:
    void run() {
        while (!stopping_) {
            takeCommands();
            int running = 0;
            curl_multi_perform(multi_, &running);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                auto it = active_.find(message->easy_handle);
                if (it == active_.end()) continue;
                auto transfer = it->second;
                finish(*transfer, message->data.result);
            }
            curl_multi_poll(multi_, nullptr, 0, active_.empty() ? kIdlePollMs : kActivePollMs, nullptr);
        }
    }

    void takeCommands() {
        std::deque<std::shared_ptr<Transfer>> adds;
        std::vector<std::shared_ptr<Delivery>> cancels;
        {
            std::lock_guard lock(mutex_);
            adds.swap(adds_);
            cancels.swap(cancels_);
        }
        for (auto& transfer : adds) start(std::move(transfer));
        for (const auto& delivery : cancels) {
            for (auto& [easy, transfer] : active_) {
                if (transfer->delivery == delivery) {
                    finish(*transfer, CURLE_ABORTED_BY_CALLBACK);
                    break;
                }
            }
        }
    }

    void start(std::shared_ptr<Transfer> transfer) {
        Transfer& t = *transfer;
        if (t.delivery->cancelled) {
            postCompletion(t, urlError(url_error::kCancelled, "The request was cancelled.", t.url));
            return;
        }
        t.easy = curl_easy_init();
        if (!t.easy) {
            postCompletion(t, urlError(url_error::kBadServerResponse, "The transfer could not be set up.", t.url));
            return;
        }
        CURL* e = t.easy;
        curl_easy_setopt(e, CURLOPT_URL, t.url.c_str());
        curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
        if (t.loopback) curl_easy_setopt(e, CURLOPT_NOPROXY, "*");
        curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(t.timeout.count()));
        if (t.totalTimeout) curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(t.totalTimeout->count()));
        curl_easy_setopt(e, CURLOPT_UPLOAD_BUFFERSIZE, 256L * 1024L);

        bool hasContentType = false;
        bool hasExpect = false;
        for (const auto& header : t.headers) {
            hasContentType = hasContentType || equalsIgnoringCase(header.name, "Content-Type");
            hasExpect = hasExpect || equalsIgnoringCase(header.name, "Expect");
            // "Name;" is how an empty value is sent; "Name:" would remove the header.
            const std::string line = header.value.empty() ? header.name + ";" : header.name + ": " + header.value;
            t.headerList = curl_slist_append(t.headerList, line.c_str());
        }
        // The body goes out at once: waiting for "100 Continue" only adds a round trip.
        if (!hasExpect) t.headerList = curl_slist_append(t.headerList, "Expect:");
        // A body without a type of its own must not get the form type that curl would add for a POST.
        if (!hasContentType) t.headerList = curl_slist_append(t.headerList, "Content-Type:");
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headerList);

        if (t.method == "GET" && !t.hasBody) {
            curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
        } else if (t.method == "HEAD") {
            curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
        } else {
            curl_easy_setopt(e, CURLOPT_POST, 1L);
            curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.bodySize));
            curl_easy_setopt(e, CURLOPT_READFUNCTION, readBody);
            curl_easy_setopt(e, CURLOPT_READDATA, &t);
            curl_easy_setopt(e, CURLOPT_SEEKFUNCTION, seekBody);
            curl_easy_setopt(e, CURLOPT_SEEKDATA, &t);
            if (t.method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, t.method.c_str());
        }
        curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, receiveHeader);
        curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, receiveBody);
        curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, transferProgress);
        curl_easy_setopt(e, CURLOPT_XFERINFODATA, &t);

        t.lastActivity = SteadyClock::now();
        t.lastProgressPost = t.lastActivity - kProgressInterval;
        if (curl_multi_add_handle(multi_, e) != CURLM_OK) {
            postCompletion(t, urlError(url_error::kBadServerResponse, "The transfer could not be started.", t.url));
            return;
        }
        active_.emplace(e, std::move(transfer));
    }

    void finish(Transfer& t, CURLcode code) {
        auto keep = active_.at(t.easy);
        curl_multi_remove_handle(multi_, t.easy);
        active_.erase(t.easy);
        t.closeFile();
        if (t.delivery->cancelled) {
            postCompletion(t, urlError(url_error::kCancelled, "The request was cancelled.", t.url));
        } else if (t.abortReason) {
            postCompletion(t, *t.abortReason);
        } else if (code != CURLE_OK) {
            postCompletion(t, mapCurlError(t, code));
        } else {
            t.postHeadIfNeeded();
            if (t.streamsLines) {
                std::string_view rest = t.lineBuffer;
                if (!rest.empty() && rest.back() == '\r') rest.remove_suffix(1);
                if (!rest.empty()) t.post([line = std::string(rest)](Delivery& d) { if (d.onLine) d.onLine(line); });
            }
            HttpResponse response = t.head();
            response.body = std::move(t.body);
            postCompletion(t, std::move(response));
        }
    }

    void postCompletion(Transfer& t, HttpResult result) {
        auto delivery = t.delivery;
        if (delivery->completed.exchange(true)) return;
        loop_.post([delivery, result = std::move(result)]() mutable {
            auto completion = std::move(delivery->completion);
            delivery->onLine = nullptr;
            delivery->onUploadProgress = nullptr;
            delivery->onResponse = nullptr;
            if (completion) completion(std::move(result));
        });
    }

    MainLoop& loop_;
    CURLM* multi_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::deque<std::shared_ptr<Transfer>> adds_;
    std::vector<std::shared_ptr<Delivery>> cancels_;
    std::map<CURL*, std::shared_ptr<Transfer>> active_; // transport thread only
};

namespace {

class CurlTask final : public HttpTask {
public:
    CurlTask(std::weak_ptr<CurlHttpClient::Engine> engine, std::shared_ptr<Delivery> delivery,
             std::function<void(std::shared_ptr<Delivery>)> cancelHook)
        : engine_(std::move(engine)), delivery_(std::move(delivery)), cancelHook_(std::move(cancelHook)) {}

    void cancel() override {
        if (delivery_->completed.load()) return;
        if (delivery_->cancelled.exchange(true)) return;
        if (engine_.lock()) cancelHook_(delivery_);
    }

private:
    std::weak_ptr<CurlHttpClient::Engine> engine_;
    std::shared_ptr<Delivery> delivery_;
    std::function<void(std::shared_ptr<Delivery>)> cancelHook_;
};

} // namespace

CurlHttpClient::CurlHttpClient(MainLoop& loop) : engine_(std::make_shared<Engine>(loop)) {}

// The client is gone, so no callback of a request of its will run, not even one already posted to the loop. They
// go now: what they hold often holds the request's task, and through it the callbacks themselves, a circle that
// would otherwise outlive everything. The transport thread has ended; the loop runs on this thread.
CurlHttpClient::~CurlHttpClient() {
    engine_->stop();
    std::lock_guard lock(deliveriesMutex_);
    for (const auto& weak : deliveries_) {
        const auto delivery = std::static_pointer_cast<Delivery>(weak.lock());
        if (!delivery) continue;
        delivery->completion = nullptr;
        delivery->onLine = nullptr;
        delivery->onUploadProgress = nullptr;
        delivery->onResponse = nullptr;
    }
}

std::shared_ptr<HttpTask> CurlHttpClient::send(HttpRequest request, Completion completion) {
    auto delivery = std::make_shared<Delivery>();
    {
        std::lock_guard lock(deliveriesMutex_);
        std::erase_if(deliveries_, [](const std::weak_ptr<void>& weak) { return weak.expired(); });
        deliveries_.push_back(delivery);
    }
    delivery->completion = std::move(completion);
    delivery->onUploadProgress = std::move(request.onUploadProgress);
    delivery->onLine = std::move(request.onLine);
    delivery->onResponse = std::move(request.onResponse);

    std::weak_ptr<Engine> weakEngine = engine_;
    auto task = std::make_shared<CurlTask>(weakEngine, delivery, [weakEngine](std::shared_ptr<Delivery> d) {
        if (auto engine = weakEngine.lock()) engine->cancel(std::move(d));
    });

    // Refusals and local failures end here, before anything touches the network.
    auto refuse = [&](Error error) {
        logError("CurlHttpClient.send() - " + error.debugDescription());
        delivery->completed = true;
        engine_->loop().post([delivery, error = std::move(error)] {
            if (auto done = std::move(delivery->completion)) done(error);
        });
        return task;
    };

    const auto parsed = parseUrl(request.url);
    if (!parsed) return refuse(urlError(url_error_extra::kBadURL, "The URL is not valid.", request.url));
    const bool https = equalsIgnoringCase(parsed->scheme, "https");
    const bool http = equalsIgnoringCase(parsed->scheme, "http");
    if (!https && !http) {
        return refuse(urlError(url_error_extra::kUnsupportedURL,
                               "The URL scheme \"" + parsed->scheme + "\" is not supported.", request.url));
    }
    const bool loopback = isLoopbackHost(parsed->host);
    if (http && !loopback) {
        for (const auto& header : request.headers) {
            if (equalsIgnoringCase(header.name, "Authorization") && startsWithIgnoringCase(header.value, "Bearer")) {
                return refuse(urlError(url_error_extra::kSecureConnectionRequired,
                                       "Refused to send a bearer token in clear text to " + parsed->host + ".",
                                       request.url));
            }
        }
        return refuse(urlError(url_error_extra::kSecureConnectionRequired,
                               "Refused a plain http:// request to " + parsed->host +
                                   ": only loopback addresses may be reached without TLS.",
                               request.url));
    }

    auto transfer = std::make_shared<Transfer>();
    transfer->delivery = delivery;
    transfer->loop = &engine_->loop();
    transfer->url = request.url;
    transfer->method = request.method.empty() ? "GET" : request.method;
    transfer->headers = std::move(request.headers);
    transfer->hasBody = !request.body.isNone();
    for (const auto& segment : request.body.segments()) {
        std::int64_t size = 0;
        if (const auto* bytes = std::get_if<std::string>(&segment)) {
            size = static_cast<std::int64_t>(bytes->size());
        } else {
            const auto& path = std::get<HttpBody::FileRef>(segment).path;
            std::error_code ec;
            const auto fileSize = std::filesystem::file_size(path, ec);
            if (ec) {
                return refuse(urlError(url_error_extra::kFileDoesNotExist,
                                       "The file of the request body can't be read: " + path.string() + " (" +
                                           ec.message() + ")",
                                       request.url));
            }
            size = static_cast<std::int64_t>(fileSize);
        }
        transfer->segmentSizes.push_back(size);
        transfer->bodySize += size;
    }
    transfer->segments = request.body.segments();
    transfer->streamsLines = static_cast<bool>(delivery->onLine);
    transfer->wantsResponse = static_cast<bool>(delivery->onResponse);
    transfer->wantsUploadProgress = static_cast<bool>(delivery->onUploadProgress);
    transfer->loopback = loopback;
    transfer->timeout = std::max(request.timeout, std::chrono::milliseconds(1));
    transfer->totalTimeout = request.totalTimeout;
    transfer->answerTimeout = request.answerTimeout;
    transfer->lineTimeout = request.lineTimeout;
    transfer->maxBodyBytes = request.maxBodyBytes;
    engine_->add(std::move(transfer));
    return task;
}

} // namespace sprelio::platform
