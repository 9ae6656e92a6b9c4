#include "server/SmtpMailer.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/Uuid.h"
#include "server/CurlHandles.h"

namespace sprelio::server {

namespace {

struct Payload {
    std::string text;
    std::size_t offset = 0;
};

std::size_t readPayload(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto* payload = static_cast<Payload*>(user);
    std::size_t room = size * count;
    std::size_t left = payload->text.size() - payload->offset;
    std::size_t n = std::min(room, left);
    std::memcpy(buffer, payload->text.data() + payload->offset, n);
    payload->offset += n;
    return n;
}

std::string rfc5322Date() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char buf[64];
    std::strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S +0000", &utc);
    return buf;
}

std::string domainOf(const std::string& address) {
    auto at = address.rfind('@');
    return at == std::string::npos ? "localhost" : address.substr(at + 1);
}

bool isLoopbackUrl(const std::string& url) {
    for (const char* prefix : {"smtp://localhost", "smtp://127.0.0.1", "smtp://[::1]"})
        if (url.rfind(prefix, 0) == 0) return true;
    return false;
}

} // namespace

SmtpMailer::SmtpMailer(std::string url, std::string from) : url_(std::move(url)), from_(std::move(from)) {}

std::string SmtpMailer::send(const MailMessage& message, long timeoutSeconds) const {
    std::unique_ptr<CURL, CurlCloser> curl(curl_easy_init());
    if (!curl) return "libcurl could not be initialised";

    Payload payload;
    payload.text = "Date: " + rfc5322Date() + "\r\nTo: <" + message.to + ">\r\nFrom: <" + from_ +
                   ">\r\nMessage-ID: <" + Uuid::random().string() + "@" + domainOf(from_) +
                   ">\r\nSubject: " + message.subject +
                   "\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n"
                   "Content-Transfer-Encoding: 8bit\r\n\r\n" +
                   message.body;

    std::unique_ptr<curl_slist, ListCloser> recipients(curl_slist_append(nullptr, ("<" + message.to + ">").c_str()));
    std::string mailFrom = "<" + from_ + ">";
    char errorText[CURL_ERROR_SIZE] = {};
    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(c, CURLOPT_MAIL_FROM, mailFrom.c_str());
    curl_easy_setopt(c, CURLOPT_MAIL_RCPT, recipients.get());
    curl_easy_setopt(c, CURLOPT_READFUNCTION, readPayload);
    curl_easy_setopt(c, CURLOPT_READDATA, &payload);
    curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
    // Credentials and sign-in links never travel in clear over the network.
    curl_easy_setopt(c, CURLOPT_USE_SSL, isLoopbackUrl(url_) ? static_cast<long>(CURLUSESSL_TRY)
                                                             : static_cast<long>(CURLUSESSL_ALL));
    curl_easy_setopt(c, CURLOPT_TIMEOUT, timeoutSeconds);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorText);
    CURLcode rc = curl_easy_perform(c);
    if (rc == CURLE_OK) return {};
    return errorText[0] ? std::string(errorText) : std::string(curl_easy_strerror(rc));
}

} // namespace sprelio::server
