#include "platform/linux/CurlStreamingUpload.h"

#include <curl/curl.h>

#include <cstring>

#include <utility>

#include "base/Error.h"
#include "platform/linux/CurlHttpClient.h"

namespace sprelio::platform {

namespace {

constexpr std::size_t kMaxAnswerBytes = 64 * 1024;
// Minutes of Opus speech; more waiting to be sent means the connection has stalled.
constexpr std::size_t kMaxPendingBytes = 4 * 1024 * 1024;

Error urlError(long code, std::string description, const std::string& url) {
    Error error;
    error.domain = url_error::kDomain;
    error.code = code;
    error.localizedDescription = std::move(description);
    error.userInfo["NSErrorFailingURLStringKey"] = url;
    return error;
}

std::string hostOf(const std::string& url) {
    CURLU* handle = curl_url();
    std::string host;
    char* part = nullptr;
    if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
        curl_url_get(handle, CURLUPART_HOST, &part, 0) == CURLUE_OK && part) {
        host = part;
        curl_free(part);
    }
    curl_url_cleanup(handle);
    return host;
}

} // namespace

struct CurlStreamingUploadClient::Transfer final : StreamingUpload {
    std::mutex mutex;
    std::string pending;
    bool finished = false;
    bool cancelled = false;
    bool overflowed = false;
    // The read callback found nothing to send and paused the upload.
    bool paused = false;
    bool done = false;
    HttpResponse response;
    // Set before the transfer's thread starts, cleaned up by the client once the thread has ended.
    CURLM* multi = nullptr;

    ~Transfer() override {
        if (multi) curl_multi_cleanup(multi);
    }

    void write(std::string bytes) override {
        {
            std::lock_guard lock(mutex);
            if (finished || cancelled) return;
            if (pending.size() + bytes.size() > kMaxPendingBytes) {
                // The network has not taken the stream for far too long: it is of no use any more.
                overflowed = true;
                cancelled = true;
            } else {
                pending.append(bytes);
            }
        }
        if (multi) curl_multi_wakeup(multi);
    }
    void finish() override {
        {
            std::lock_guard lock(mutex);
            finished = true;
        }
        if (multi) curl_multi_wakeup(multi);
    }
    void cancel() override {
        {
            std::lock_guard lock(mutex);
            cancelled = true;
        }
        if (multi) curl_multi_wakeup(multi);
    }
    bool isCancelled() {
        std::lock_guard lock(mutex);
        return cancelled;
    }
    // On the transfer's thread: whether the upload was paused, which it no longer is.
    bool takePause() {
        std::lock_guard lock(mutex);
        return std::exchange(paused, false);
    }

    static std::size_t read(char* buffer, std::size_t size, std::size_t items, void* user) {
        auto& t = *static_cast<Transfer*>(user);
        std::lock_guard lock(t.mutex);
        if (t.cancelled) return CURL_READFUNC_ABORT;
        if (t.pending.empty()) {
            if (t.finished) return 0; // the end of the body
            // Paused rather than waited for: libcurl keeps reading the connection, so an answer or a close by the
            // server is seen while the speaker is still speaking.
            t.paused = true;
            return CURL_READFUNC_PAUSE;
        }
        const std::size_t count = std::min(size * items, t.pending.size());
        std::memcpy(buffer, t.pending.data(), count);
        t.pending.erase(0, count);
        return count;
    }
    static std::size_t receive(char* data, std::size_t size, std::size_t items, void* user) {
        auto& t = *static_cast<Transfer*>(user);
        if (t.response.body.size() + size * items > kMaxAnswerBytes) return 0;
        t.response.body.append(data, size * items);
        return size * items;
    }
};

CurlStreamingUploadClient::CurlStreamingUploadClient(MainLoop& loop) : loop_(loop), alive_(std::make_shared<bool>(true)) {}

CurlStreamingUploadClient::~CurlStreamingUploadClient() {
    *alive_ = false;
    std::lock_guard lock(mutex_);
    for (auto& [transfer, thread] : running_) {
        transfer->cancel();
        if (thread.joinable()) thread.join();
    }
}

std::shared_ptr<StreamingUpload> CurlStreamingUploadClient::start(HttpRequest request, Completion completion) {
    auto transfer = std::make_shared<Transfer>();
    std::lock_guard lock(mutex_);
    for (auto it = running_.begin(); it != running_.end();) {
        bool over = false;
        {
            std::lock_guard transferLock(it->first->mutex);
            over = it->first->done;
        }
        if (over) {
            it->second.join();
            it = running_.erase(it);
        } else {
            ++it;
        }
    }
    auto& loop = loop_;
    auto alive = alive_;
    auto post = [&loop, alive, completion](HttpResult result) {
        loop.post([alive, completion, result = std::move(result)]() mutable {
            if (*alive && completion) completion(std::move(result));
        });
    };
    const std::string host = hostOf(request.url);
    const bool secure = request.url.rfind("https://", 0) == 0;
    if (host.empty() || (!secure && !isLoopbackHost(host))) {
        // The same refusal as the ordinary transport's: a bearer token never travels in clear text.
        post(urlError(url_error_extra::kSecureConnectionRequired,
                      "A live stream to " + (host.empty() ? request.url : host) + " needs https.", request.url));
        transfer->done = true;
        return transfer;
    }
    transfer->multi = curl_multi_init();
    std::thread thread([transfer, request = std::move(request), post] {
        CURL* e = curl_easy_init();
        curl_slist* headers = nullptr;
        for (const auto& header : request.headers)
            headers = curl_slist_append(headers, (header.name + ": " + header.value).c_str());
        headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
        headers = curl_slist_append(headers, "Expect:");
        char errorBuffer[CURL_ERROR_SIZE] = {0};
        curl_easy_setopt(e, CURLOPT_URL, request.url.c_str());
        curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorBuffer);
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(e, CURLOPT_NOPROXY, "127.0.0.1,localhost,::1");
        curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout.count()));
        curl_easy_setopt(e, CURLOPT_TCP_NODELAY, 1L);
        // One connection per stream, closed with it: a kept-alive one would hold the server's reader.
        curl_easy_setopt(e, CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(e, CURLOPT_POST, 1L);
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(e, CURLOPT_READFUNCTION, &Transfer::read);
        curl_easy_setopt(e, CURLOPT_READDATA, transfer.get());
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Transfer::receive);
        curl_easy_setopt(e, CURLOPT_WRITEDATA, transfer.get());
        CURLM* multi = transfer->multi;
        curl_multi_add_handle(multi, e);
        CURLcode code = CURLE_OK;
        int running = 1;
        while (running > 0 && !transfer->isCancelled()) {
            if (curl_multi_perform(multi, &running) != CURLM_OK || running == 0) break;
            // A paused upload is resumed after every wake-up, not only for new bytes: libcurl holds a transfer
            // whose sending is paused open even after the server has answered it and stopped the sending, and
            // resuming is what lets it end. Nothing to send pauses it again at once.
            if (transfer->takePause()) {
                curl_easy_pause(e, CURLPAUSE_CONT);
                if (curl_multi_perform(multi, &running) != CURLM_OK || running == 0) break;
            }
            // Woken by new bytes, the end, a cancel (curl_multi_wakeup) or the connection itself.
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &left))
            if (message->msg == CURLMSG_DONE) code = message->data.result;
        const bool ended = running == 0;
        long status = 0;
        curl_easy_getinfo(e, CURLINFO_RESPONSE_CODE, &status);
        // Removing the handle of a transfer under way closes its connection: a cancel ends it here and now.
        curl_multi_remove_handle(multi, e);
        curl_slist_free_all(headers);
        curl_easy_cleanup(e);
        bool overflowed = false;
        {
            std::lock_guard state(transfer->mutex);
            overflowed = transfer->overflowed;
        }
        HttpResult result;
        if (overflowed) {
            result = urlError(url_error::kNetworkConnectionLost,
                              "The live stream fell behind the recording; it was given up.", request.url);
        } else if (transfer->isCancelled()) {
            result = urlError(url_error::kCancelled, "The request was cancelled.", request.url);
        } else if (!ended || code != CURLE_OK) {
            result = urlError(url_error::kNetworkConnectionLost,
                              std::string("The live stream failed: ") +
                                  (errorBuffer[0] ? errorBuffer : ended ? curl_easy_strerror(code) : "libcurl stopped"),
                              request.url);
        } else {
            transfer->response.status = status;
            result = transfer->response;
        }
        post(std::move(result));
        std::lock_guard over(transfer->mutex);
        transfer->done = true;
    });
    running_.emplace_back(transfer, std::move(thread));
    return transfer;
}

} // namespace sprelio::platform
