#include "backend/HttpAudioUploadManager.h"
#include "backend/LiveDictationStreams.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/Utf8.h"
#include "base/JsonAccess.h"
#include "backend/MultipartBody.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "shared/Errors.h"

namespace sprelio {

namespace {

constexpr const char* kUpload = "AudioUploadManager.uploadRecording() - ";
constexpr const char* kEvaluate = "AudioUploadManager.evaluateAndHandleError() - ";
constexpr const char* kEventStream = "text/event-stream";
// The AI step's end is told a moment after its result, so that the user sees the result arrive.
constexpr auto kAIStepEndDelay = std::chrono::milliseconds(500);

std::string quotedOptional(const std::optional<std::string>& value) {
    return value ? "Optional(\"" + *value + "\")" : std::string("nil");
}

std::string optionalBool(std::optional<bool> value) {
    return value ? std::string("Optional(") + (*value ? "true" : "false") + ")" : std::string("nil");
}

Error plainError(std::string description) { return Error{"", -1, std::move(description), {}}; }

// What Foundation reports for a body that is no JSON object; the parser's own words go along for the log.
Error jsonError(const std::string& detail) {
    Error error{"NSCocoaErrorDomain", 3840, "The data couldn’t be read because it isn’t in the correct format.", {}};
    error.userInfo["NSDebugDescription"] = detail;
    return error;
}

// Dictated text and AI results never reach the log: their values are replaced, the rest of the answer stays.
std::string privatizedJson(const nlohmann::json& object) {
    if (!object.is_object()) return std::string(kPrivatized);
    nlohmann::json copy = object;
    for (const char* key : {"text", "completion", "progress_text"}) {
        if (copy.contains(key)) copy[key] = kPrivatized;
    }
    return copy.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// A raw answer for the log: kept when it can hold no transcript (an HTML error page), else replaced.
std::string privatizedBody(const std::string& body) {
    if (body.find("\"text\"") != std::string::npos || body.find("\"completion\"") != std::string::npos) {
        return std::string(kPrivatized);
    }
    constexpr std::size_t kMax = 1000;
    std::string shown = body.substr(0, kMax);
    if (!isValidUtf8(shown)) return "<binary, " + std::to_string(body.size()) + " bytes>";
    if (body.size() > kMax) shown += "... (" + std::to_string(body.size()) + " bytes)";
    return shown;
}

std::string responseText(const platform::HttpResponse& response, const std::string& url) {
    return "{ URL: " + url + " } { Status Code: " + std::to_string(response.status) + ", MIME type: " +
           (response.mimeType.empty() ? std::string("nil") : response.mimeType) + " }";
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

// Query values keep what a query may hold as it is, except the characters that would split or end it. A question
// mark may stand in a query, but servers that split the target at every one of them refuse it ("??" is the region
// of a locale without one): it is encoded.
std::string encodeQueryComponent(const std::string& text) {
    static constexpr std::string_view kKept = "!$'()*,/:;@";
    std::string out;
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (isUnreserved(c) || kKept.find(ch) != std::string_view::npos) {
            out += ch;
        } else {
            static constexpr char kHex[] = "0123456789ABCDEF";
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    return out;
}

std::string joinCodes(const std::vector<std::string>& codes) {
    std::string text;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        if (i > 0) text += ",";
        text += codes[i];
    }
    return text;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path, Error& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int code = errno;
        error = Error{"NSCocoaErrorDomain", code == EACCES ? 257 : 260,
                      "The file “" + path.filename().string() + "” couldn’t be opened: " + std::strerror(code) + ".",
                      {{"NSFilePath", path.string()}}};
        return std::nullopt;
    }
    std::string bytes;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) bytes.append(chunk, std::size_t(in.gcount()));
    if (in.bad()) {
        error = Error{"NSCocoaErrorDomain", 256,
                      "The file “" + path.filename().string() + "” couldn’t be read.", {{"NSFilePath", path.string()}}};
        return std::nullopt;
    }
    return bytes;
}

} // namespace

struct HttpAudioUploadManager::Attempt {
    std::filesystem::path fileURL;
    Uuid requestID;
    StatusCompletion completion;
    BackendBalancerPtr endpoint;
    std::string inputLanguageCodes;
    bool diarization = false;
    std::optional<AICompletionPromptId> aiFormField;
    std::optional<std::string> inputLanguageCode;
    platform::HttpRequest request;
    std::string url;
    std::shared_ptr<platform::HttpTask> task;
};

HttpAudioUploadManager::HttpAudioUploadManager(Dependencies deps) : deps_(std::move(deps)) {
    appIdentifier_ = deps_.constants.clientVersion();
    osIdentifier_ = deps_.constants.osName();
    const auto& preferred = deps_.constants.preferredLanguages();
    acceptLanguage_ = (!preferred.empty() && !preferred.front().empty()) ? preferred.front() : std::string("en");
    logInfo("getAcceptLanguageHeaderVal() - firstLanguageCode: " + acceptLanguage_);
}

HttpAudioUploadManager::~HttpAudioUploadManager() {
    lifetime_.expire();
    if (uploadTask_) uploadTask_->cancel();
}

void HttpAudioUploadManager::post(std::function<void()> task) {
    const auto alive = lifetime_.token();
    deps_.loop.post([alive, task = std::move(task)]() {
        if (alive) task();
    });
}

void HttpAudioUploadManager::history(int level, std::string text, const std::filesystem::path& fileURL,
                                     const Uuid& requestID) {
    // Detached: the writer never waits for the entry.
    auto* history = &deps_.history;
    deps_.loop.post([history, level, text = std::move(text), fileURL, requestID]() {
        history->log(static_cast<HistoryManagerLogLevel>(level), text, fileURL, requestID, false);
    });
}

std::string HttpAudioUploadManager::inputLanguageCodes(const std::optional<std::string>& inputLanguageCode) const {
    if (inputLanguageCode) {
        logInfo("inputLanguageCodes{} - using explicit inputLanguageCode=" + *inputLanguageCode);
        return *inputLanguageCode;
    }
    std::vector<std::string> codes;
    for (const auto& language : deps_.settings.localizedTranslationLanguages()) {
        // The empty row means "no language chosen" and adds nothing to the list.
        if (!language.code.empty()) codes.push_back(language.code);
    }
    const std::string list = joinCodes(codes);
    logInfo("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=" + list);
    return list;
}

std::optional<std::string> HttpAudioUploadManager::endpointURL(
    const std::string& base, const std::string& path, const std::vector<std::pair<std::string, std::string>>& query) {
    const auto schemeEnd = base.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) return std::nullopt;
    std::string scheme = base.substr(0, schemeEnd);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (scheme != "http" && scheme != "https") return std::nullopt;
    const std::size_t authorityStart = schemeEnd + 3;
    const std::size_t authorityEnd = base.find_first_of("/?#", authorityStart);
    const std::string authority =
        base.substr(authorityStart, authorityEnd == std::string::npos ? std::string::npos : authorityEnd - authorityStart);
    if (authority.empty() || authority.find_first_of(" \t\r\n") != std::string::npos) return std::nullopt;
    const auto at = authority.rfind('@');
    const std::string hostPort = at == std::string::npos ? authority : authority.substr(at + 1);
    if (hostPort.empty() || hostPort.front() == ':') return std::nullopt;
    std::string url = scheme + "://" + authority + path;
    for (std::size_t i = 0; i < query.size(); ++i) {
        url += i == 0 ? "?" : "&";
        url += encodeQueryComponent(query[i].first) + "=" + encodeQueryComponent(query[i].second);
    }
    return url;
}

void HttpAudioUploadManager::uploadRecording(const std::filesystem::path& url, const Uuid& requestID,
                                             const std::vector<std::string>& languages,
                                             const std::optional<AICompletionPromptId>& promptId, bool diarization,
                                             const std::optional<std::string>& inputLanguageCode,
                                             Completion completion) {
    StatusCompletion adapted = [completion = std::move(completion)](std::optional<nlohmann::json> result,
                                                                    std::optional<int>, std::optional<Error> error) {
        if (completion) completion(std::move(result), std::move(error));
    };
    uploadRecording(url, requestID, std::move(adapted), nullptr, joinCodes(languages), diarization, promptId,
                    inputLanguageCode);
}

void HttpAudioUploadManager::uploadRecording(const std::filesystem::path& fileURL, const Uuid& requestID,
                                             StatusCompletion completion, BackendBalancerPtr skipBalancer,
                                             const std::string& inputLanguageCodes, bool diarization,
                                             const std::optional<AICompletionPromptId>& aiFormField,
                                             const std::optional<std::string>& inputLanguageCode) {
    retries_ = 0;
    const std::string id = requestID.string();

    if (!deps_.appState.internetAvailable()) {
        const std::string text = errorDescription(SPRLocalizedError::networkError, deps_.constants.appName());
        history(static_cast<int>(HistoryManagerLogLevel::error), text, fileURL, requestID);
        logError(std::string(kUpload) + "requestID: " + id + " - error: " + text);
        if (completion) completion(std::nullopt, std::nullopt, std::nullopt);
        return;
    }

    auto attempt = std::make_shared<Attempt>();
    attempt->fileURL = fileURL;
    attempt->requestID = requestID;
    attempt->completion = std::move(completion);
    attempt->inputLanguageCodes = inputLanguageCodes;
    attempt->diarization = diarization;
    attempt->aiFormField = aiFormField;
    attempt->inputLanguageCode = inputLanguageCode;

    const auto alive = lifetime_.token();
    deps_.balancing.getEndpoint(std::move(skipBalancer), [this, alive, attempt, id](BackendBalancerPtr endpoint) {
        if (!alive) return;
        if (!endpoint) {
            const std::string text = errorDescription(SPRLocalizedError::balancerError, deps_.constants.appName());
            logError(std::string(kUpload) + "requestID: " + id + " - error: " + text);
            history(static_cast<int>(HistoryManagerLogLevel::error), text, attempt->fileURL, attempt->requestID);
            deps_.messages.showAlertForError(SPRStringError::errorMessageError(text, text).toError());
            if (attempt->completion) attempt->completion(std::nullopt, std::nullopt, std::nullopt);
            return;
        }
        attempt->endpoint = endpoint;
        // For the log only; the answer has no say in the choice of backend.
        testLatency(deps_.http, deps_.clock, endpoint->url, [](double) {});

        logInfo(std::string(kUpload) + "endpoint: " + endpoint->name);
        logInfo(std::string(kUpload) + "endpoint.url: " + endpoint->url);
        logInfo(std::string(kUpload) + "app: " + appIdentifier_);
        logInfo(std::string(kUpload) + "inputLanguageCodes: " + attempt->inputLanguageCodes);
        logInfo(std::string(kUpload) + "os: " + osIdentifier_);

        const auto url = endpointURL(endpoint->url, "/transcribe",
                                     {{"app", appIdentifier_},
                                      {"languages", attempt->inputLanguageCodes},
                                      {"os", osIdentifier_},
                                      {"diarization", attempt->diarization ? "true" : "false"}});
        if (!url) {
            // A malformed backend entry: the caller's state stays as it is.
            logError(std::string(kUpload) + "error: failed to generate URL");
            return;
        }
        logInfo(std::string(kUpload) + "successfully generated URL: " + *url);
        logInfo(std::string(kUpload) + "url: " + *url);
        attempt->url = *url;
        sendAttempt(attempt);
    });
}

void HttpAudioUploadManager::sendAttempt(const std::shared_ptr<Attempt>& attempt) {
    // A fresh boundary for every attempt, restarts included.
    MultipartBody body("----Boundary-" + Uuid::random().string());
    platform::HttpRequest& request = attempt->request;
    request.method = "POST";
    request.url = attempt->url;
    request.timeout = requestTimeout_;
    // A server that keeps trickling bytes never trips the request time-out, so the answer has a bound of its own.
    // It counts from the moment the recording has gone out, because sending takes as long as the link makes it.
    // The server's thinking needs no extra room: a silence longer than the request time-out fails the request
    // anyway. An honest answer has at most two such silences (before the transcript, and before the AI result of
    // the streamed form) and a few short lines, which two and a half periods cover.
    request.answerTimeout = requestTimeout_ * 5 / 2;
    request.headers = {{"Authorization", "Bearer " + deps_.settings.token().value_or("")},
                       {"Accept-Language", acceptLanguage_},
                       {"Content-Type", body.contentType()}};
    if (liveStreams_ && attempt->endpoint) {
        if (auto stream = liveStreams_->streamFor(attempt->requestID, attempt->endpoint->uuid))
            request.headers.push_back({LiveDictationStreams::kHeader, *stream});
    }
    if (!attempt->aiFormField) {
        logInfo("AudioUploadManager.uploadRecording().aiFormField: nil, will proceed with file-only upload");
    }

    const auto alive = lifetime_.token();
    auto& loop = deps_.loop;
    deps_.workers.submit([this, alive, attempt, body = std::move(body), &loop]() mutable {
        std::optional<Error> failure;
        Error readError;
        if (auto bytes = readWholeFile(attempt->fileURL, readError)) {
            body.addBytes("file", attempt->fileURL.filename().string(), "application/octet-stream",
                          std::move(*bytes));
            if (attempt->aiFormField) {
                nlohmann::json ai = attempt->aiFormField->dictionary();
                // The text to process is the transcript the server is about to make.
                ai.erase("text");
                try {
                    body.addBytes("ai", std::nullopt, "application/json", ai.dump());
                } catch (const nlohmann::json::exception& e) {
                    failure = Error{"NSCocoaErrorDomain", 3851,
                                    "The AI instruction couldn’t be written as JSON: " + std::string(e.what()), {}};
                }
            }
        } else {
            failure = readError;
        }
        if (!failure) attempt->request.body = body.body();
        loop.post([this, alive, attempt, failure]() {
            if (!alive) return;
            if (failure) {
                logError(std::string(kUpload) + "prepare data failed with error: " + failure->debugDescription());
                if (attempt->completion) attempt->completion(std::nullopt, std::nullopt, failure);
                return;
            }
            logInfo(std::string(kUpload) + "request: " + attempt->request.url);
            const auto aliveInner = lifetime_.token();
            attempt->request.onUploadProgress = [this, aliveInner](std::int64_t sent, std::int64_t total) {
                if (aliveInner) progress(sent, total);
            };
            attempt->task = deps_.http.send(std::move(attempt->request),
                                            [this, aliveInner, attempt](platform::HttpResult result) {
                                                if (!aliveInner) return;
                                                handleResponse(attempt, std::move(result));
                                            });
            uploadTask_ = attempt->task;
        });
    });
}

void HttpAudioUploadManager::clearTask(const std::shared_ptr<platform::HttpTask>& task) {
    // A newer upload may have taken the slot meanwhile; its task stays cancellable.
    if (uploadTask_ == task) uploadTask_.reset();
}

void HttpAudioUploadManager::progress(std::int64_t sent, std::int64_t total) {
    if (total < 1) return;
    uploadProgress_ = static_cast<double>(sent) / static_cast<double>(total);
    if (onUploadProgressChanged) onUploadProgressChanged(uploadProgress_);
    if (std::fabs(uploadProgress_ - lastLoggedProgress_) >= 0.1) {
        lastLoggedProgress_ = uploadProgress_;
        logInfo("AudioUploadManager.urlSession() - Upload progress: " + doubleText(uploadProgress_ * 100) + "%");
    }
}

void HttpAudioUploadManager::cancelUpload() {
    logInfo("AudoUploadManager.cancelUpload()");
    uploadProgress_ = 0;
    if (onUploadProgressChanged) onUploadProgressChanged(uploadProgress_);
    if (uploadTask_) uploadTask_->cancel();
    uploadTask_.reset();
}

void HttpAudioUploadManager::handleResponse(const std::shared_ptr<Attempt>& attempt, platform::HttpResult result) {
    clearTask(attempt->task);
    const auto errorLevel = static_cast<int>(HistoryManagerLogLevel::error);

    if (auto* error = std::get_if<Error>(&result)) {
        logError(std::string(kUpload) + "error: " + error->debugDescription());
        logError(std::string(kUpload) + "dataS: nil");
        logError(std::string(kUpload) + "aResponse: nil");
        history(errorLevel, error->localizedDescription, attempt->fileURL, attempt->requestID);
        evaluateAndHandleError(attempt->endpoint, attempt->fileURL, *error, std::nullopt, std::nullopt, std::nullopt,
                               attempt->requestID, std::nullopt, attempt->completion, attempt->inputLanguageCode,
                               attempt->diarization, attempt->aiFormField);
        return;
    }
    const auto& response = std::get<platform::HttpResponse>(result);
    const int status = static_cast<int>(response.status);
    if (response.body.empty()) {
        if (attempt->completion) attempt->completion(std::nullopt, status, plainError("No data received"));
        return;
    }
    // Compared whole and case-sensitively: a longer type that begins alike is the plain form.
    if (response.mimeType == kEventStream) {
        handleStream(attempt, response, status);
    } else {
        handlePlain(attempt, response, status);
    }
}

void HttpAudioUploadManager::handleStream(const std::shared_ptr<Attempt>& attempt,
                                          const platform::HttpResponse& response, int status) {
    if (!isValidUtf8(response.body)) {
        if (attempt->completion) attempt->completion(std::nullopt, status, plainError("Failed to decode response"));
        return;
    }
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start <= response.body.size()) {
        std::size_t end = response.body.find('\n', start);
        if (end == std::string::npos) end = response.body.size();
        if (end > start) lines.push_back(response.body.substr(start, end - start));
        start = end + 1;
    }

    for (const auto& line : lines) {
        nlohmann::json object;
        std::optional<std::string> parseFailure;
        try {
            object = nlohmann::json::parse(line);
        } catch (const nlohmann::json::exception& e) {
            parseFailure = e.what();
        }
        logInfo(std::string(kUpload) + "handle text/event-stream response - event: " +
                (parseFailure ? std::string(kPrivatized) : privatizedJson(object)));
        if (parseFailure) {
            const Error error = jsonError(*parseFailure);
            logError(std::string(kUpload) + "event parsing error: " + error.debugDescription());
            // After the hops of the lines before it, so that the caller sees the lines in order.
            post([attempt, status, error]() {
                if (attempt->completion) attempt->completion(std::nullopt, status, error);
            });
            return;
        }
        if (!object.is_object()) continue; // not an event of this protocol
        logInfo(std::string(kUpload) + "eventObj");

        if (const auto errorString = stringValue(object, "error")) {
            const std::string message = stringValue(object, "message").value_or(*errorString);
            logError(std::string(kUpload) + "event error: " + *errorString + " : " + message);
            history(static_cast<int>(HistoryManagerLogLevel::error), message, attempt->fileURL, attempt->requestID);
            const auto stop = boolValue(object, "stop");
            post([this, attempt, errorString, message, stop, status]() {
                evaluateAndHandleError(attempt->endpoint, attempt->fileURL, std::nullopt, errorString, message, stop,
                                       attempt->requestID, status, attempt->completion, attempt->inputLanguageCode,
                                       attempt->diarization, attempt->aiFormField);
            });
            return;
        }
        if (object.contains("text")) {
            logInfo(std::string(kUpload) + "got TEXT event");
            post([this, attempt, object, status]() {
                if (attempt->completion) attempt->completion(object, status, std::nullopt);
                if (deps_.stages.aiStepStarted) deps_.stages.aiStepStarted();
            });
            continue;
        }
        if (object.contains("completion")) {
            logInfo(std::string(kUpload) + "got COMPLETION event");
            post([this, attempt, object, status]() {
                if (attempt->completion) attempt->completion(object, status, std::nullopt);
                const auto alive = lifetime_.token();
                deps_.loop.postAfter(kAIStepEndDelay, [this, alive]() {
                    if (!alive) return;
                    if (deps_.stages.aiStepEnded) deps_.stages.aiStepEnded();
                    deps_.balancing.initializeIfNeeded("AudioUploadManager.uploadRecording()", false);
                });
            });
            continue;
        }
        logWarning(std::string(kUpload) + "got unknown event, skipping it");
    }
}

void HttpAudioUploadManager::handlePlain(const std::shared_ptr<Attempt>& attempt,
                                         const platform::HttpResponse& response, int status) {
    nlohmann::json object;
    std::optional<Error> failure;
    try {
        object = nlohmann::json::parse(response.body);
        if (!object.is_object()) {
            failure = jsonError("the answer is JSON but not an object (" + std::string(object.type_name()) + ")");
        }
    } catch (const nlohmann::json::exception& e) {
        failure = jsonError(e.what());
    }
    if (failure) {
        logError(std::string(kUpload) + "upload error: " + failure->debugDescription());
        logError(std::string(kUpload) + "upload error - dataS: " + privatizedBody(response.body));
        logError(std::string(kUpload) + "upload error - aResponse: " + responseText(response, attempt->url));
        history(static_cast<int>(HistoryManagerLogLevel::error), failure->localizedDescription, attempt->fileURL,
                attempt->requestID);
        evaluateAndHandleError(attempt->endpoint, attempt->fileURL, failure, std::nullopt, std::nullopt, std::nullopt,
                               attempt->requestID, status, attempt->completion, attempt->inputLanguageCode,
                               attempt->diarization, attempt->aiFormField);
        return;
    }
    logInfo(std::string(kUpload) + "handle JSON response - responseObj: " + std::string(kPrivatized));
    logWarning(std::string(kUpload) + "FULL RESPONSE DEBUG: " + privatizedJson(object));

    if (const auto errorString = stringValue(object, "error")) {
        const std::string message = stringValue(object, "message").value_or(*errorString);
        const auto stop = boolValue(object, "stop");
        logError(std::string(kUpload) + "error in responseObj: " + *errorString + " : " + message);
        history(static_cast<int>(HistoryManagerLogLevel::error), message, attempt->fileURL, attempt->requestID);
        evaluateAndHandleError(attempt->endpoint, attempt->fileURL, std::nullopt, errorString, message, stop,
                               attempt->requestID, status, attempt->completion, attempt->inputLanguageCode,
                               attempt->diarization, attempt->aiFormField);
        return;
    }
    if (attempt->completion) attempt->completion(object, status, std::nullopt);
    post([this]() { deps_.balancing.initializeIfNeeded("AudioUploadManager.uploadRecording()", false); });
}

void HttpAudioUploadManager::evaluateAndHandleError(
    const BackendBalancerPtr& endpoint, const std::filesystem::path& urlPath, const std::optional<Error>& error,
    const std::optional<std::string>& errorString, const std::optional<std::string>& messageString,
    std::optional<bool> stop, const Uuid& requestID, std::optional<int> statusCode, StatusCompletion completion,
    const std::optional<std::string>& inputLanguageCode, bool diarization,
    const std::optional<AICompletionPromptId>& aiFormField) {
    const auto errorLevel = static_cast<int>(HistoryManagerLogLevel::error);
    auto giveUpWithStringError = [&]() {
        const Error stringError =
            SPRStringError::errorMessageError(errorString, messageString.value_or("")).toError();
        if (completion) completion(std::nullopt, statusCode, stringError);
    };
    const std::string historyText = error ? error->localizedDescription
                                    : messageString ? *messageString
                                                    : std::string("Unknown Error");
    const std::string logText =
        error ? error->localizedDescription : quotedOptional(errorString) + " : " + quotedOptional(messageString);

    // 1
    logWarning(std::string(kEvaluate) + "endpoint: " + endpoint->name + ": " + endpoint->url + " (" + endpoint->uuid +
               ")" + " / urlPath: " + store::AppConstants::fileURL(urlPath, false));
    logWarning(std::string(kEvaluate) + "errorString: " + quotedOptional(errorString) +
               ", messageString: " + quotedOptional(messageString) + ", stop: " + optionalBool(stop));

    // 2: the server forbids any retry.
    if (stop == true) {
        logWarning(std::string(kEvaluate) + "handling STOP");
        history(static_cast<int>(HistoryManagerLogLevel::warning), quotedOptional(messageString), urlPath, requestID);
        giveUpWithStringError();
        return;
    }

    // 3: the chain is exhausted. This comes before the cancellation test on purpose: a cancelled upload to the
    // last backend is reported as the end of the chain.
    const auto& balancers = deps_.balancing.balancers();
    if (!balancers.empty() && balancers.back()->uuid == endpoint->uuid) {
        deps_.balancing.setOnline(endpoint, false);
        logError(std::string(kEvaluate) + "(last balancer in array failed, handle error) - error: " + logText);
        history(errorLevel, historyText, urlPath, requestID);
        deps_.balancing.resetAllServersToOnline();
        if (auto* service = deps_.accountService) {
            deps_.loop.post([service]() {
                service->refreshUserInfo("AudioUploadManager.evaluateAndHandleError()", true,
                                         [](std::optional<Error>) {});
            });
        }
        if (error) {
            if (completion) completion(std::nullopt, statusCode, error);
        } else {
            giveUpWithStringError();
        }
        return;
    }

    // 4: every attempt that fails from here on leaves its own entry.
    logError(std::string(kEvaluate) + "error: " + logText);
    history(errorLevel, historyText, urlPath, requestID);

    // 5: the code that cancelled has already cleaned up.
    if (error && error->domain == url_error::kDomain && error->code == url_error::kCancelled) {
        logInfo(std::string(kEvaluate) +
                "upload was cancelled (NSURLErrorCancelled), will not retry, will not show error");
        if (deps_.rebuildStatusMenu) deps_.rebuildStatusMenu();
        return;
    }

    const auto inList = [&](const auto& list) {
        return errorString && std::any_of(std::begin(list), std::end(list),
                                          [&](const char* name) { return *errorString == name; });
    };

    // 6: the error says nothing about the backend.
    if (inList(kNoInvalidateErrors)) {
        logWarning(std::string(kEvaluate) + "'" + quotedOptional(errorString) + "' error, will not invalidate balancer");
        if (*errorString == "Unauthorized") {
            deps_.messages.showAlertForError(
                SPRStringError::errorMessageError(errorString, messageString.value_or("")).toError(), statusCode);
        }
        giveUpWithStringError();
        return;
    }

    BackendBalancerPtr skip;
    if (inList(kSkipErrors)) {
        // 7: healthy but full; try elsewhere and keep it online.
        ++retries_;
        logWarning(std::string(kEvaluate) + "'" + "NoOnlineFarms" + "' error - skipping balancer " + endpoint->name +
                   ", initiating retry #" + std::to_string(retries_));
        skip = endpoint;
    } else {
        // 8: transport errors, unreadable answers and unknown error names.
        logWarning(std::string(kEvaluate) + "invalidating balancer " + endpoint->name);
        deps_.balancing.setOnline(endpoint, false);
        ++retries_;
        logWarning(std::string(kEvaluate) + "initiating retry #" + std::to_string(retries_));
    }

    // The restart: no delay, and a fresh language list so that a change made meanwhile reaches the retry.
    logInfo(std::string(kUpload) + "requestID: " + requestID.string() +
            ", inputLanguageCode: " + quotedOptional(inputLanguageCode));
    const std::string codes = inputLanguageCodes(inputLanguageCode);
    post([this, urlPath, requestID, completion, skip, codes, diarization, aiFormField, inputLanguageCode]() {
        uploadRecording(urlPath, requestID, completion, skip, codes, diarization, aiFormField, inputLanguageCode);
    });
}

} // namespace sprelio
