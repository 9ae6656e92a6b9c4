#include "backend/FileUploadManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <vector>

#include "base/Utf8.h"
#include "base/JsonAccess.h"
#include "backend/HttpAudioUploadManager.h"
#include "base/Digest.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "shared/Errors.h"

namespace sprelio {

namespace {

constexpr const char* kUploadFile = "AudioUploadManager.uploadFile() - ";
constexpr const char* kTranscribe = "AudioUploadManager.transcribeFile() - ";
// Large enough that the digest, not the system calls, sets the pace; small enough to be nothing next to the file.
constexpr std::size_t kHashChunkBytes = 1024 * 1024;

std::string optionalDouble(std::optional<double> value) {
    return value ? "Optional(" + doubleText(*value) + ")" : std::string("nil");
}

// Transcripts never reach the log: the values that may hold them are replaced, the rest of the line stays.
std::string privatizedLine(const std::string& line) {
    auto parsed = nlohmann::json::parse(line, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) return std::string(kPrivatized);
    for (const char* key : {"text", "progress_text"}) {
        if (parsed.contains(key)) parsed[key] = kPrivatized;
    }
    return parsed.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string responseText(const platform::HttpResponse& response, const std::string& url) {
    return "{ URL: " + url + " } { Status Code: " + std::to_string(response.status) +
           ", MIME type: " + (response.mimeType.empty() ? std::string("nil") : response.mimeType) + " }";
}

} // namespace

std::optional<std::string> sha256Hash(const std::filesystem::path& file) {
    auto failed = [&file](const std::string& reason) -> std::optional<std::string> {
        logInfo("FileManager.sha256Hash() - Failed to compute SHA-256 hash: The file “" + file.filename().string() +
                "” couldn’t be read: " + reason + ".");
        return std::nullopt;
    };
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return failed(std::strerror(errno));
    // A long file can be gigabytes: it goes through the digest a piece at a time, never whole.
    std::vector<char> chunk(kHashChunkBytes);
    std::optional<std::string> reason;
    std::optional<std::string> digest;
    try {
        Sha256Stream sha;
        for (;;) {
            const ssize_t got = ::read(fd, chunk.data(), chunk.size());
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                reason = std::strerror(errno);
                break;
            }
            if (got == 0) {
                digest = sha.finishHex();
                break;
            }
            sha.update(std::string_view(chunk.data(), static_cast<std::size_t>(got)));
        }
    } catch (const std::exception& e) {
        reason = std::string("the digest failed (") + e.what() + ")";
    }
    ::close(fd);
    if (!digest) return failed(reason.value_or("unknown error"));
    return digest;
}

struct FileUploadManager::Stream {
    std::string fileUUID;
    std::string fileHash;
    std::string url;
    ProgressCallback progress;
    TextCompletion completion;
    ErrorCallback error;
    std::shared_ptr<platform::HttpTask> task;
    long status = 0;
    std::size_t lineNumber = 0;
    bool firstLineSeen = false;
    bool done = false;
    std::optional<std::string> text;
    std::optional<double> duration;
};

FileUploadManager::FileUploadManager(Dependencies deps) : deps_(std::move(deps)) {}

FileUploadManager::~FileUploadManager() {
    lifetime_.expire();
    if (uploadTask_) uploadTask_->cancel();
}

void FileUploadManager::setEndpoint(const std::string& fileHash, std::optional<BackendBalancerPtr> endpoint) {
    if (endpoint) {
        endpointByFileHash_[fileHash] = *endpoint;
    } else {
        endpointByFileHash_.erase(fileHash);
    }
    std::string entries;
    for (const auto& [hash, balancer] : endpointByFileHash_) {
        entries += (entries.empty() ? "" : ", ") + std::string("\"") + hash + "\": " + balancer->name;
    }
    logInfo("endpointByFileHash.didSet{} - newValue: [" + entries + "]");
}

std::string FileUploadManager::languages() const {
    std::string list;
    for (const auto& language : deps_.settings.localizedTranslationLanguages()) {
        if (language.code.empty()) continue;
        list += (list.empty() ? "" : ",") + language.code;
    }
    return list;
}

void FileUploadManager::uploadFile(const std::filesystem::path& fileURL, const std::string& fileHash,
                                   const std::string& fileUUID, bool diarization, UploadCompletion completion) {
    const std::string appName = deps_.constants.appName();
    const auto alive = lifetime_.token();
    deps_.balancing.getEndpoint(nullptr, [this, alive, fileURL, fileHash, fileUUID, diarization, appName,
                                          completion = std::move(completion)](BackendBalancerPtr endpoint) mutable {
        if (!alive) return;
        if (!endpoint) {
            logError(std::string(kUploadFile) + "Failed to retrieve endpoint.");
            if (completion) completion(std::nullopt, std::nullopt, makeError(SPRLocalizedError::balancerError, appName));
            return;
        }
        setEndpoint(fileHash, endpoint);
        const auto token = deps_.settings.token();
        const auto url = HttpAudioUploadManager::endpointURL(endpoint->url, "/transcribe/file/" + fileUUID,
                                                             {{"diarization", diarization ? "true" : "false"},
                                                              {"file_hash", fileHash},
                                                              {"device_id", deps_.deviceId},
                                                              {"os", deps_.constants.osName()},
                                                              {"app", deps_.constants.clientVersion()},
                                                              {"languages", languages()}});
        if (!url) {
            logInfo(std::string(kUploadFile) + "Failed to generate upload URL.");
            if (completion) completion(std::nullopt, std::nullopt, makeError(SPRLocalizedError::invalidUrlError, appName));
            return;
        }
        // The bytes are streamed from disk while they are sent; what can be checked before is that they are there.
        std::error_code ec;
        const bool readable = std::filesystem::is_regular_file(fileURL, ec) && std::ifstream(fileURL).good();
        if (!readable) {
            const int code = errno;
            Error error{"NSCocoaErrorDomain", code == EACCES ? 257 : 260,
                        "The file “" + fileURL.filename().string() + "” couldn’t be opened because there is no such file.",
                        {{"NSFilePath", fileURL.string()}}};
            logInfo("AudioUploadManager.uploadRecording() - prepare data failed with error: " + error.debugDescription());
            logInfo(std::string(kUploadFile) + "Upload error: " + error.debugDescription());
            if (completion) completion(std::nullopt, std::nullopt, error);
            return;
        }

        platform::HttpRequest request;
        request.method = "POST";
        request.url = *url;
        request.timeout = timeouts_.request;
        request.answerTimeout = timeouts_.uploadAnswer;
        request.headers.push_back({"Authorization", "Bearer " + token.value_or("")});
        request.body = platform::HttpBody::fromFile(fileURL);
        request.onUploadProgress = [this, alive](std::int64_t sent, std::int64_t total) {
            if (!alive) return;
            uploadProgress_ = total > 0 ? static_cast<double>(sent) / static_cast<double>(total) : 0.0;
            if (onUploadProgressChanged) onUploadProgressChanged(uploadProgress_);
        };
        auto task = std::make_shared<std::shared_ptr<platform::HttpTask>>();
        *task = deps_.http.send(std::move(request), [this, alive, endpoint, appName, task,
                                                     completion = std::move(completion)](platform::HttpResult result) {
            if (!alive) return;
            if (uploadTask_ == *task) uploadTask_.reset();
            if (auto* error = std::get_if<Error>(&result)) {
                logInfo(std::string(kUploadFile) + "Upload error: " + error->debugDescription());
                uploadProgress_ = 0;
                if (completion) completion(std::nullopt, std::nullopt, *error);
                return;
            }
            const auto& response = std::get<platform::HttpResponse>(result);
            const int status = static_cast<int>(response.status);
            if (status == 200) {
                auto parsed = nlohmann::json::parse(response.body, nullptr, false);
                if (auto uuid = parsed.is_discarded() ? std::nullopt : stringValue(parsed, "uuid")) {
                    logInfo(std::string(kUploadFile) + "File uploaded successfully to " + endpoint->name +
                            " with UUID: " + *uuid);
                    if (completion) completion(*uuid, status, std::nullopt);
                    return;
                }
                logError(std::string(kUploadFile) + "Unexpected response format.");
                if (completion) completion(std::nullopt, status, makeError(SPRLocalizedError::uploadFailedError, appName));
                return;
            }
            logInfo(std::string(kUploadFile) + "Upload failed: " +
                    (response.body.empty() ? std::string("No error message") : response.body.substr(0, 1000)));
            if (completion) completion(std::nullopt, status, makeError(SPRLocalizedError::balancerError, appName));
        });
        uploadTask_ = *task;
    });
}

void FileUploadManager::transcribeFile(const std::string& fileUUID, const std::string& fileHash, bool diarization,
                                       ProgressCallback progress, TextCompletion completion, ErrorCallback error) {
    const std::string appName = deps_.constants.appName();
    auto found = endpointByFileHash_.find(fileHash);
    if (found == endpointByFileHash_.end()) {
        logError("AudioUploadManager.transcribeFile - No backend endpoint available for fileUUID: " + fileUUID);
        if (error) error(makeError(SPRLocalizedError::balancerError, appName));
        return;
    }
    const auto url = HttpAudioUploadManager::endpointURL(found->second->url, "/transcribe/file/" + fileUUID,
                                                         {{"diarization", diarization ? "true" : "false"},
                                                          {"device_id", deps_.deviceId},
                                                          {"os", deps_.constants.osName()},
                                                          {"app", deps_.constants.clientVersion()},
                                                          {"languages", languages()}});
    if (!url) {
        logInfo(std::string(kTranscribe) + "Failed to generate transcription URL.");
        if (error) error(makeError(SPRLocalizedError::invalidUrlError, appName));
        return;
    }
    logInfo(std::string(kTranscribe) + "finalURL: " + *url);

    auto stream = std::make_shared<Stream>();
    stream->fileUUID = fileUUID;
    stream->fileHash = fileHash;
    stream->url = *url;
    stream->progress = std::move(progress);
    stream->completion = std::move(completion);
    stream->error = std::move(error);

    activeStream_ = stream;
    const auto alive = lifetime_.token();
    platform::HttpRequest request;
    request.method = "GET";
    request.url = *url;
    request.timeout = timeouts_.request;
    request.lineTimeout = timeouts_.streamLine;
    request.totalTimeout = timeouts_.streamTotal;
    request.headers.push_back({"Authorization", "Bearer " + deps_.settings.token().value_or("")});
    request.onResponse = [alive, stream](const platform::HttpResponse& head) {
        if (!alive) return;
        stream->status = head.status;
        if (head.status == 200) {
            logInfo(std::string(kTranscribe) + "httpResponse: " + responseText(head, stream->url));
            logInfo(std::string(kTranscribe) + "stream: " + stream->url);
        }
    };
    request.onLine = [this, alive, stream](std::string line) {
        if (!alive) return;
        handleLine(stream, std::move(line));
    };
    stream->task = deps_.http.send(std::move(request), [this, alive, stream, appName](platform::HttpResult result) {
        if (!alive) return;
        if (stream->done) return;
        if (auto* failure = std::get_if<Error>(&result)) {
            stream->done = true;
            logInfo(std::string(kTranscribe) + "Transcription failed: " + failure->debugDescription());
            setEndpoint(stream->fileHash, std::nullopt);
            if (stream->error) stream->error(*failure);
            return;
        }
        const auto& response = std::get<platform::HttpResponse>(result);
        if (response.status != 200) {
            // An error answer without any line to explain it.
            stream->done = true;
            logInfo(std::string(kTranscribe) + "Failed to read first stream line: the answer has no body");
            logInfo(std::string(kTranscribe) + "httpResponse: " + responseText(response, stream->url));
            setEndpoint(stream->fileHash, std::nullopt);
            if (stream->error) stream->error(makeError(SPRLocalizedError::transcriptionFailedError, appName));
            return;
        }
        endStream(stream);
    });
}

void FileUploadManager::cancelUpload() {
    if (auto task = std::move(uploadTask_)) {
        uploadProgress_ = 0;
        task->cancel();
    }
    if (auto stream = activeStream_.lock(); stream && !stream->done) {
        stream->done = true;
        if (stream->task) stream->task->cancel();
        setEndpoint(stream->fileHash, std::nullopt);
    }
    activeStream_.reset();
}

void FileUploadManager::handleLine(const std::shared_ptr<Stream>& stream, std::string line) {
    if (stream->done) return;
    const std::string appName = deps_.constants.appName();
    auto fail = [this, &stream](const Error& error) {
        stream->done = true;
        if (stream->task) stream->task->cancel();
        setEndpoint(stream->fileHash, std::nullopt);
        if (stream->error) stream->error(error);
    };

    if (stream->status != 200) {
        logInfo(std::string(kTranscribe) + "FIRST STREAM LINE (error case): " + line);
        auto parsed = nlohmann::json::parse(line, nullptr, false);
        std::optional<Error> error;
        if (auto name = parsed.is_discarded() ? std::nullopt : stringValue(parsed, "error")) {
            const auto message = stringValue(parsed, "message").value_or("");
            logInfo(std::string(kTranscribe) + "Stream error: " + *name + ", message: " + message);
            error = SPRStringError::errorMessageError(*name, message).toError();
        } else {
            error = makeError(SPRLocalizedError::transcriptionFailedError, appName);
        }
        logInfo(std::string(kTranscribe) + "httpResponse: " + std::to_string(stream->status));
        fail(*error);
        return;
    }

    const std::size_t n = ++stream->lineNumber;
    auto parsed = nlohmann::json::parse(line, nullptr, false);
    if (line.empty()) {
        logInfo(std::string(kTranscribe) + "Line " + std::to_string(n) +
                " is empty or cannot be converted to data, skipping!");
        return;
    }
    logInfo(std::string(kTranscribe) + "line " + std::to_string(n) + ": " +
            (parsed.is_discarded() && !isValidUtf8(line) ? std::string("<binary>") : privatizedLine(line)));

    if (line.find("\"error\"") != std::string::npos) {
        logInfo(std::string(kTranscribe) + "Raw error line: " + privatizedLine(line));
        if (auto name = parsed.is_discarded() ? std::nullopt : stringValue(parsed, "error")) {
            const auto message = stringValue(parsed, "message").value_or("");
            logInfo(std::string(kTranscribe) + "error received in event stream: " + *name + ", message: " + message);
            fail(SPRStringError::errorMessageError(*name, message).toError());
            return;
        }
    }

    const bool known = !parsed.is_discarded() && parsed.is_object() &&
                       (parsed.contains("progress_text") || parsed.contains("text") || parsed.contains("error"));
    if (!known) {
        const std::string description =
            "Received unknown/non-JSON line from transcription stream: " + privatizedLine(line);
        logInfo(std::string(kTranscribe) + description);
        fail(Error{kStreamErrorDomain, -2, "Received unknown/non-JSON line from transcription stream: " + line, {}});
        return;
    }
    if (parsed.contains("progress_text")) {
        const auto text = stringValue(parsed, "progress_text").value_or("");
        std::optional<double> duration;
        if (auto it = parsed.find("duration"); it != parsed.end() && it->is_number()) duration = it->get<double>();
        logInfo(std::string(kTranscribe) + "Transcription progress: " + std::string(kPrivatized) +
                ", duration: " + optionalDouble(duration));
        if (duration) stream->duration = duration;
        if (stream->progress) stream->progress(text, duration);
        return;
    }
    if (parsed.contains("text")) {
        logInfo(std::string(kTranscribe) + "Final transcription received.");
        stream->text = stringValue(parsed, "text").value_or("");
        if (auto it = parsed.find("duration"); it != parsed.end() && it->is_number()) {
            stream->duration = it->get<double>();
        }
        if (stream->task) stream->task->cancel();
        endStream(stream);
        return;
    }
    // An `error` whose value is no string passed the quick test above without ending the stream.
    const std::string name = parsed["error"].dump();
    const auto message = stringValue(parsed, "message").value_or("");
    logInfo(std::string(kTranscribe) + "Transcription error: " + name + ", message: " + message);
    fail(SPRStringError::errorMessageError(name, message).toError());
}

void FileUploadManager::endStream(const std::shared_ptr<Stream>& stream) {
    if (stream->done) return;
    stream->done = true;
    if (stream->completion) stream->completion(stream->text.value_or(""), stream->duration);
    uploadTask_.reset();
    setEndpoint(stream->fileHash, std::nullopt);
    deps_.balancing.initializeIfNeeded("AudioUploadManager.transcribeFile()", false);
}

} // namespace sprelio
