#pragma once
// The small pieces the route handlers of BackendServer share: reading what a request carries (its token, its
// language and query values), making client-sent text safe to quote or log, and the shapes of a few answers.
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/ApiError.h"
#include "server/TranscriptionEngine.h"

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

namespace sprelio::server {

// A value a client sent, fit to quote in a message: printable and short.
std::string quotable(const std::string& text);
// A path as it may appear in the access log: printable ASCII only and bounded, so that an odd request can't
// forge or flood log lines.
std::string loggablePath(const std::string& path);
// The names of a request's query keys (httplib's Params), each once, for the access log; never their values.
std::string queryKeys(const std::multimap<std::string, std::string>& params);

// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view text);

std::string lower(std::string text);
// Without the leading and trailing characters of `blanks`; by default HTTP's optional white space.
std::string trim(const std::string& text, const char* blanks = " \t");
// "a, b, c".
std::string joined(const std::vector<std::string>& items);

// The token of an "Authorization: Bearer <token>" header; empty when there is none.
std::string bearerToken(const httplib::Request& request);

// The user's languages, in order of preference; the first the engine knows wins. No list: the engine's own.
// Nothing when none of the requested codes is supported.
std::optional<std::string> chooseLanguage(const httplib::Request& request, const EngineDescription& engine);
// Checks the query values both transcription endpoints share; the chosen language, or the answer is set.
std::optional<std::string> checkTranscriptionQuery(const httplib::Request& request, httplib::Response& response,
                                                   const EngineDescription& engine, const char* caller);

std::string readWholeFile(const std::filesystem::path& path);
// A body the handler refuses before reading it: the connection can't be reused for another request.
void refuseBody(httplib::Response& response, const ApiError& error);
// The page a browser shows for a sign-in link.
std::string htmlPage(const std::string& title, const std::string& text);

} // namespace sprelio::server
