#pragma once
// Owners of libcurl's handles for the server's outgoing requests (the OpenAI-compatible services, the sign-in
// mail), so that every return path frees them.
#include <curl/curl.h>

#include <memory>

namespace sprelio::server {

struct CurlCloser {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct ListCloser {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct MimeCloser {
    void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};

} // namespace sprelio::server
