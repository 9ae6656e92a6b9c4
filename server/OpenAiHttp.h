#pragma once
// The HTTP side of the OpenAI-compatible services the server forwards to (chat completions, audio
// transcriptions, the model list): endpoint URLs from what the operator configures, the Bearer key, and one
// blocking request over libcurl that a server shutdown can cut short.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <variant>
#include <vector>

namespace sprelio::server {

// The URL of `path` ("chat/completions", "audio/transcriptions") under what the operator configured, which may
// be the service's root ("http://host:8080"), its API root ("https://api.example.org/v1") or already the full
// endpoint URL.
std::string openAiEndpoint(const std::string& configured, const std::string& path);

// The configured key, else the first line of `keyFile` (so that the key need not appear on a command line).
// Throws std::runtime_error when the file is named but can't be read.
std::string resolveApiKey(const std::string& key, const std::filesystem::path& keyFile);

// The host of a URL, for what the server tells clients and its log; never the path, query or credentials.
std::string urlHost(const std::string& url);

struct OpenAiReply {
    long status = 0;
    std::string body;
    std::string contentType; // as the service named it; empty when it named none
};

// The request could not be made or got no answer: connection refused, time-out, TLS failure, cancelled.
struct OpenAiTransportFailure {
    std::string message;
    bool cancelled = false;
    // The service had begun to answer (a status came) when the connection broke: a cut answer, not a service
    // out of reach.
    bool brokeOff = false;
};

struct OpenAiPart {
    std::string name;
    std::string data;
    std::string fileName; // set for a file part
    std::string contentType;
};

struct OpenAiRequest {
    std::string url;
    std::string key; // empty: no Authorization header
    std::chrono::seconds timeout{60};
    // Polled while the request runs; once true the request is abandoned.
    const std::atomic<bool>* cancel = nullptr;
    // The part of `timeout` a connection may take; a probe of a local address wants far less than a service
    // across the internet.
    std::chrono::milliseconds connectTimeout{15000};
};

std::variant<OpenAiReply, OpenAiTransportFailure> getJson(const OpenAiRequest& request);
std::variant<OpenAiReply, OpenAiTransportFailure> postJson(const OpenAiRequest& request, const std::string& json);
std::variant<OpenAiReply, OpenAiTransportFailure> postMultipart(const OpenAiRequest& request,
                                                                const std::vector<OpenAiPart>& parts);

// The service's own explanation in an error answer ({"error": {"message": ...}} or {"error": "..."} or
// {"message": ...}), shortened and made printable; empty when the body has none.
std::string serviceErrorMessage(const std::string& body);

} // namespace sprelio::server
