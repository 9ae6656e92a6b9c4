// The AI side of BackendServer: POST /completions, and the one way both it and a transcription's AI step reach
// the chat service.
#include "server/BackendServer.h"

#include <httplib.h>

#include <chrono>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "server/ApiError.h"
#include "server/OpenAiHttp.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;

ApiError aiFailure(const ChatFailure& failure) {
    switch (failure.kind) {
    case ChatFailure::Kind::unreachable:
        return {502, "AIServerUnavailable", "The AI service behind this server could not be reached; please try again "
                                            "later.",
                false};
    case ChatFailure::Kind::cancelled:
        return {503, "ServerStopping", "The server is restarting; please try again.", false};
    case ChatFailure::Kind::rejected:
        return {502, "AIServerError", "The AI service behind this server refused the request (" + failure.detail + ").",
                false};
    case ChatFailure::Kind::invalidAnswer:
        return {502, "AIInvalidResponse",
                "The AI service behind this server gave no usable answer (" + failure.detail + ").", false};
    }
    return api_error::internalError();
}

} // namespace

void BackendServer::handleCompletions(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    if (auto service = aiSource()->acquire(); !service.client) {
        aiUnavailable(service).applyTo(response);
        return;
    }
    auto body = nlohmann::json::parse(request.body, nullptr, false);
    auto parsed = CompletionPrompts::parse(body, true);
    if (auto* error = std::get_if<ApiError>(&parsed)) {
        error->applyTo(response);
        return;
    }
    auto outcome = complete(std::get<CompletionRequest>(parsed), "BackendServer.handleCompletions()");
    if (auto* error = std::get_if<ApiError>(&outcome)) {
        error->applyTo(response);
        return;
    }
    response.set_content(nlohmann::json{{"completion", std::get<std::string>(outcome)}}.dump(
                             -1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

ApiError BackendServer::aiUnavailable(const ChatServiceSource::Lookup& lookup) const {
    if (lookup.failure) return aiFailure(*lookup.failure);
    if (!config_.aiMissingAdvice.empty()) return api_error::aiNotConfigured(config_.aiMissingAdvice);
    return api_error::aiNotConfigured(
        "No AI service is set up on this server: its operator names an OpenAI-compatible chat service with --ai-url "
        "and --ai-model (aiUrl and aiModel in its configuration file)" +
        (config_.aiAutoDetect ? ", or starts a local one on " + urlHost(config_.aiAutoDetectUrl) : std::string()) +
        ".");
}

std::variant<std::string, ApiError> BackendServer::complete(const CompletionRequest& request, const char* caller) {
    const auto source = aiSource();
    auto service = source->acquire();
    if (!service.client) return aiUnavailable(service);
    const ChatCompletionClient& chat = *service.client;
    const std::string& model = chat.settings().model;
    std::string what = request.kind == CompletionRequest::Kind::preset
                           ? std::string("preset")
                           : request.promptId + (request.promptParam.empty() ? "" : "/" + quotable(request.promptParam));
    if (request.text.size() > config_.maxCompletionTextBytes)
        return ApiError{413, "TextTooLong",
                        "The text is longer than the AI actions of this server take (" +
                            std::to_string(config_.maxCompletionTextBytes / 1024) + " KB at most).",
                        true};
    if (request.kind == CompletionRequest::Kind::preset && !request.model.empty() && request.model != model)
        // Another server may offer that model, so no stop.
        return ApiError{400, "UnknownModel",
                        "This server does not offer the AI model " + quotable(request.model) + "; it offers " +
                            model + ".",
                        false};
    // Nothing was said: nothing to rewrite, and a model would only invent something.
    if (request.text.find_first_not_of(" \t\r\n") == std::string::npos) {
        log(LogLevel::info, std::string(caller) + " - " + what + ": empty text, answered without the AI service");
        return std::string();
    }

    auto started = Clock::now();
    auto answer = chat.complete(CompletionPrompts::messages(request), model, &stopping_);
    auto ms = std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count());
    if (auto* failure = std::get_if<ChatFailure>(&answer)) {
        log(LogLevel::error, std::string(caller) + " - " + what + ": AI service at " + urlHost(chat.endpoint()) +
                                 " failed after " + ms + " ms: " + failure->detail);
        if (failure->kind == ChatFailure::Kind::unreachable) source->forget(service.client);
        return aiFailure(*failure);
    }
    log(LogLevel::info, std::string(caller) + " - " + what + ": " + std::to_string(request.text.size()) +
                            " bytes in, answered in " + ms + " ms, completion: " + std::string(kPrivatized));
    return CompletionPrompts::cleanAnswer(std::get<std::string>(answer));
}

} // namespace sprelio::server
