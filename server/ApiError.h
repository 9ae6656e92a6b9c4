#pragma once
// The one shape of a failed answer at every endpoint: {"error": name, "message": text, "stop": bool}. `error` is a
// machine-readable name the client compares, `message` is shown to the user, and `stop` true tells the client not
// to try another backend with the same request.
#include <string>

namespace httplib {
struct Response;
}

namespace sprelio::server {

struct ApiError {
    int status = 500;
    std::string error;
    std::string message;
    bool stop = false;

    std::string json() const;
    // Status, body and content type of `response`.
    void applyTo(httplib::Response& response) const;
};

namespace api_error {
// The client's own rules act on these two names: "Unauthorized" gives up without blaming the backend,
// "NoOnlineFarms" moves on to another backend without marking this one offline.
ApiError unauthorized(std::string message);
ApiError noOnlineFarms();

ApiError notFound();
ApiError methodNotAllowed();
ApiError payloadTooLarge(std::size_t limitBytes);
ApiError badRequest(std::string message);
ApiError internalError();
ApiError undecodableAudio(std::string message);
ApiError unsupportedLanguage(const std::string& requested, const std::string& supported);
ApiError diarizationUnsupported(const std::string& engine);
// No AI service to forward to; `message` says what to set up and where.
ApiError aiNotConfigured(std::string message);
ApiError engineUnavailable();
// The engine's own service failed one request; `message` says how, for the user.
ApiError transcriptionFailed(std::string message);
} // namespace api_error

} // namespace sprelio::server
