#pragma once
// Finding a chat service by its model list (GET .../v1/models, the OpenAI form {"data": [{"id": ...}]}): a
// runner of local models at its conventional address, or the model of a configured service whose model was
// left unnamed.
#include <atomic>
#include <chrono>
#include <string>
#include <variant>

#include "server/ChatCompletionClient.h"

namespace sprelio::server {

// Where the popular local-model runners answer their OpenAI-compatible API.
inline constexpr const char* kLocalAiAddress = "http://127.0.0.1:11434";

struct ProbeRequest {
    std::string url; // the service's root, its API root (".../v1") or its chat-completions URL
    std::string key; // empty: no Authorization header
    // Taken when the service lists it; otherwise its first model.
    std::string wantedModel;
    std::chrono::milliseconds connectTimeout{500};
    std::chrono::seconds timeout{2};
    const std::atomic<bool>* cancel = nullptr;
};

struct ProbedService {
    std::string apiRoot; // ".../v1": what ChatSettings::url takes
    std::string model;
    std::size_t modelCount = 0;
};

// The service and the model to use, or why there is none: unreachable (nothing listens, time-out), rejected
// (an HTTP error), invalidAnswer (no model list, or an empty one).
std::variant<ProbedService, ChatFailure> probeChatService(const ProbeRequest& request);

} // namespace sprelio::server
