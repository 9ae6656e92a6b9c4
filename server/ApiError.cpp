#include "server/ApiError.h"

#include <httplib.h>

#include <nlohmann/json.hpp>

namespace sprelio::server {

std::string ApiError::json() const {
    // A message may quote what a client sent; bytes that are not UTF-8 must not turn a refusal into a crash.
    return nlohmann::json{{"error", error}, {"message", message}, {"stop", stop}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void ApiError::applyTo(httplib::Response& response) const {
    response.status = status;
    response.set_content(json(), "application/json");
}

namespace api_error {

ApiError unauthorized(std::string message) { return {401, "Unauthorized", std::move(message), true}; }

ApiError noOnlineFarms() {
    return {503, "NoOnlineFarms", "All transcription engines of this server are busy, please try again.", false};
}

ApiError notFound() { return {404, "NotFound", "There is no such endpoint on this server.", true}; }

ApiError methodNotAllowed() {
    return {405, "MethodNotAllowed", "This endpoint does not accept this HTTP method.", true};
}

ApiError payloadTooLarge(std::size_t limitBytes) {
    return {413, "PayloadTooLarge",
            "The upload is larger than this server accepts (" + std::to_string(limitBytes / (1024 * 1024)) + " MB).",
            true};
}

ApiError badRequest(std::string message) { return {400, "BadRequest", std::move(message), true}; }

// Not our client's fault: another backend may well succeed, so no stop.
ApiError internalError() { return {500, "InternalError", "The server failed to handle the request.", false}; }

ApiError undecodableAudio(std::string message) { return {422, "UndecodableAudio", std::move(message), true}; }

ApiError unsupportedLanguage(const std::string& requested, const std::string& supported) {
    return {422, "UnsupportedLanguage",
            "The transcription engine of this server does not recognise the requested languages (" + requested +
                "); it supports: " + supported + ".",
            true};
}

ApiError diarizationUnsupported(const std::string& engine) {
    return {422, "DiarizationUnsupported",
            "Speaker separation is not available with the transcription engine of this server (" + engine + ").",
            true};
}

ApiError aiNotConfigured(std::string message) { return {501, "AINotConfigured", std::move(message), true}; }

ApiError engineUnavailable() {
    return {503, "EngineUnavailable", "The transcription engine of this server could not be started.", false};
}

ApiError transcriptionFailed(std::string message) { return {502, "TranscriptionFailed", std::move(message), false}; }

} // namespace api_error

} // namespace sprelio::server
