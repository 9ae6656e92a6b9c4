#pragma once
// The HTTP transport on libcurl: one multi handle on a thread of its own carries every transfer of the process;
// results and callbacks are posted to the main loop.
//
// Rules that hold for every request, whatever the caller asks:
// - TLS peers and host names are always verified; proxies come from the environment (http_proxy, https_proxy,
//   no_proxy), except that loopback addresses never go through a proxy.
// - Plain http:// reaches loopback addresses only (127.0.0.0/8, ::1, "localhost"); a request with a bearer token
//   in clear text to any other host is refused as well. Both refusals happen before any connection is made.
// - Redirects are not followed: a 3xx answer is handed to the caller as it is.
// - Failures carry the codes of the URL loading domain ("NSURLErrorDomain").
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class CurlHttpClient final : public HttpClient {
public:
    explicit CurlHttpClient(MainLoop& loop);
    // Stops the transport thread; transfers still running end without their completions.
    ~CurlHttpClient() override;
    CurlHttpClient(const CurlHttpClient&) = delete;
    CurlHttpClient& operator=(const CurlHttpClient&) = delete;

    std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) override;

    class Engine;

private:
    std::shared_ptr<Engine> engine_;
    // Every request not yet forgotten (its callbacks are let go of when the client goes).
    std::mutex deliveriesMutex_;
    std::vector<std::weak_ptr<void>> deliveries_;
};

// True for 127.0.0.0/8, ::1 (with or without brackets) and "localhost" (any case).
bool isLoopbackHost(std::string_view host);

} // namespace sprelio::platform
