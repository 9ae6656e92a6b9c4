#include "server/OpenAiHttp.h"

#include <curl/curl.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "server/CurlHandles.h"

namespace sprelio::server {

namespace {

// Answers of these services are JSON of a few kilobytes; a body beyond this is no answer of theirs.
constexpr std::size_t kMaxReplyBytes = 16 * 1024 * 1024;

struct Collected {
    std::string body;
    bool tooLarge = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    auto* collected = static_cast<Collected*>(user);
    std::size_t n = size * count;
    if (collected->body.size() + n > kMaxReplyBytes) {
        collected->tooLarge = true;
        return 0;
    }
    collected->body.append(data, n);
    return n;
}

int checkCancel(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* cancel = static_cast<const std::atomic<bool>*>(user);
    return cancel && cancel->load() ? 1 : 0;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string printable(const std::string& text, std::size_t limit) {
    std::string out;
    for (char c : text) {
        if (out.size() >= limit) {
            out += "...";
            break;
        }
        auto u = static_cast<unsigned char>(c);
        out += (u < 0x20 || u == 0x7F) ? ' ' : c;
    }
    return out;
}

std::variant<OpenAiReply, OpenAiTransportFailure> perform(const OpenAiRequest& request, curl_slist* headers,
                                                          const std::function<void(CURL*)>& setBody) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    std::unique_ptr<CURL, CurlCloser> curl(curl_easy_init());
    if (!curl) return OpenAiTransportFailure{"libcurl could not be initialised", false};
    CURL* c = curl.get();
    Collected collected;
    char errorText[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &collected);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(request.timeout.count()));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min<std::chrono::milliseconds>(request.connectTimeout, request.timeout)
                                           .count()));
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, checkCancel);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool>*>(request.cancel));
    setBody(c);
    CURLcode rc = curl_easy_perform(c);
    if (rc == CURLE_ABORTED_BY_CALLBACK) return OpenAiTransportFailure{"the request was cancelled", true};
    if (rc == CURLE_WRITE_ERROR && collected.tooLarge)
        return OpenAiTransportFailure{"the answer is larger than " + std::to_string(kMaxReplyBytes / (1024 * 1024)) +
                                          " MB",
                                      false};
    OpenAiReply reply;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &reply.status);
    if (rc != CURLE_OK) {
        bool brokeOff = reply.status != 0 && (rc == CURLE_PARTIAL_FILE || rc == CURLE_RECV_ERROR);
        return OpenAiTransportFailure{errorText[0] ? std::string(errorText) : std::string(curl_easy_strerror(rc)),
                                      false, brokeOff};
    }
    if (char* type = nullptr; curl_easy_getinfo(c, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type)
        reply.contentType = type;
    reply.body = std::move(collected.body);
    return reply;
}

using HeaderList = std::unique_ptr<curl_slist, ListCloser>;

void append(HeaderList& list, const std::string& header) {
    curl_slist* head = curl_slist_append(list.get(), header.c_str());
    if (!head) throw std::bad_alloc();
    (void)list.release();
    list.reset(head);
}

} // namespace

std::string openAiEndpoint(const std::string& configured, const std::string& path) {
    std::string base = configured;
    while (!base.empty() && base.back() == '/') base.pop_back();
    if (endsWith(base, "/" + path)) return base;
    if (endsWith(base, "/v1")) return base + "/" + path;
    return base + "/v1/" + path;
}

std::string resolveApiKey(const std::string& key, const std::filesystem::path& keyFile) {
    if (!key.empty() || keyFile.empty()) return key;
    std::ifstream in(keyFile);
    if (!in) throw std::runtime_error("cannot read the key file " + keyFile.string());
    std::string line;
    std::getline(in, line);
    auto end = line.find_last_not_of(" \t\r\n");
    line.erase(end == std::string::npos ? 0 : end + 1);
    auto begin = line.find_first_not_of(" \t");
    return begin == std::string::npos ? std::string() : line.substr(begin);
}

std::string urlHost(const std::string& url) {
    auto start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    auto end = url.find_first_of("/?#", start);
    std::string authority = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    auto at = authority.rfind('@');
    if (at != std::string::npos) authority = authority.substr(at + 1);
    return authority;
}

std::variant<OpenAiReply, OpenAiTransportFailure> getJson(const OpenAiRequest& request) {
    HeaderList headers;
    append(headers, "Accept: application/json");
    if (!request.key.empty()) append(headers, "Authorization: Bearer " + request.key);
    return perform(request, headers.get(), [](CURL* c) { curl_easy_setopt(c, CURLOPT_HTTPGET, 1L); });
}

std::variant<OpenAiReply, OpenAiTransportFailure> postJson(const OpenAiRequest& request, const std::string& json) {
    HeaderList headers;
    append(headers, "Content-Type: application/json");
    append(headers, "Accept: application/json");
    // Without this libcurl holds larger bodies back for a second, waiting for a "100 Continue".
    append(headers, "Expect:");
    if (!request.key.empty()) append(headers, "Authorization: Bearer " + request.key);
    return perform(request, headers.get(), [&json](CURL* c) {
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, json.data());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(json.size()));
    });
}

std::variant<OpenAiReply, OpenAiTransportFailure> postMultipart(const OpenAiRequest& request,
                                                                const std::vector<OpenAiPart>& parts) {
    HeaderList headers;
    append(headers, "Accept: application/json");
    // Without this libcurl holds larger bodies back for a second, waiting for a "100 Continue".
    append(headers, "Expect:");
    if (!request.key.empty()) append(headers, "Authorization: Bearer " + request.key);
    std::unique_ptr<curl_mime, MimeCloser> mime;
    return perform(request, headers.get(), [&](CURL* c) {
        mime.reset(curl_mime_init(c));
        for (const auto& part : parts) {
            curl_mimepart* field = curl_mime_addpart(mime.get());
            curl_mime_name(field, part.name.c_str());
            curl_mime_data(field, part.data.data(), part.data.size());
            if (!part.fileName.empty()) curl_mime_filename(field, part.fileName.c_str());
            if (!part.contentType.empty()) curl_mime_type(field, part.contentType.c_str());
        }
        curl_easy_setopt(c, CURLOPT_MIMEPOST, mime.get());
    });
}

std::string serviceErrorMessage(const std::string& body) {
    auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object()) return {};
    std::string message;
    if (json.contains("error")) {
        const auto& error = json["error"];
        if (error.is_object() && error.contains("message") && error["message"].is_string())
            message = error["message"].get<std::string>();
        else if (error.is_string())
            message = error.get<std::string>();
    }
    if (message.empty() && json.contains("message") && json["message"].is_string())
        message = json["message"].get<std::string>();
    if (message.empty() && json.contains("detail") && json["detail"].is_string())
        message = json["detail"].get<std::string>();
    return printable(message, 300);
}

} // namespace sprelio::server
