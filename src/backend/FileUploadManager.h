#pragma once
// A long file in two calls to one backend: the bytes go up first and get an id, then the same backend transcribes
// that id and answers with a stream of JSON lines (progress, then the text). Which backend took which file is
// remembered by the file's SHA-256 digest until its transcription ends.
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "backend/BalancingManager.h"
#include "base/Error.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio {

namespace store {
class AppConstants;
class Settings;
} // namespace store

// The lower-case hexadecimal SHA-256 of the file's bytes, or nothing (logged) when it can't be read.
std::optional<std::string> sha256Hash(const std::filesystem::path& file);

inline constexpr const char* kStreamErrorDomain = "StreamError";

class FileUploadManager {
public:
    using UploadCompletion =
        std::function<void(std::optional<std::string> fileId, std::optional<int> statusCode, std::optional<Error>)>;
    using ProgressCallback = std::function<void(const std::string& text, std::optional<double> duration)>;
    using TextCompletion = std::function<void(const std::string& text, std::optional<double> duration)>;
    using ErrorCallback = std::function<void(const Error& error)>;

    struct Dependencies {
        platform::MainLoop& loop;
        platform::HttpClient& http;
        BalancingManager& balancing;
        store::Settings& settings;
        const store::AppConstants& constants;
        // device_id of the account service.
        std::string deviceId;
    };

    static constexpr std::chrono::milliseconds kRequestTimeout{60'000};

    // Besides the request time-out (nothing moving for that long), what keeps a server that never ends its
    // answer from holding a job open.
    struct Timeouts {
        // Both requests: no byte in either direction for this long.
        std::chrono::milliseconds request = kRequestTimeout;
        // The upload's answer, counted from its last byte sent. Sending a large file may take hours on a slow
        // link and is only held to `request`; after it the server merely stores the bytes and answers with an
        // id, and its silence is already bounded by `request`, so two such periods cover any honest answer.
        std::chrono::milliseconds uploadAnswer = 2 * kRequestTimeout;
        // The transcription stream legitimately runs as long as the file is long, so it is judged by progress:
        // a server sends a whole line for each piece it has done, and bytes that trickle in without completing
        // a line for this long are no progress.
        std::chrono::milliseconds streamLine = kRequestTimeout;
        // A backstop for a server that keeps sending progress lines forever: the bound the command line puts on
        // a whole long-file job, past which no user is still waiting.
        std::chrono::milliseconds streamTotal = std::chrono::hours(6);
    };

    explicit FileUploadManager(Dependencies deps);
    ~FileUploadManager();
    FileUploadManager(const FileUploadManager&) = delete;
    FileUploadManager& operator=(const FileUploadManager&) = delete;

    // Main loop only. The file is streamed from disk, never held in memory whole.
    void uploadFile(const std::filesystem::path& fileURL, const std::string& fileHash, const std::string& fileUUID,
                    bool diarization, UploadCompletion completion);
    // Main loop only. Exactly one of `completion` and `error` is called, once.
    void transcribeFile(const std::string& fileUUID, const std::string& fileHash, bool diarization,
                        ProgressCallback progress, TextCompletion completion, ErrorCallback error);

    // Main loop only. Ends the upload and the transcription stream under way: the stream calls back no more, the
    // upload's completion may still come with the cancelled error.
    void cancelUpload();

    const std::map<std::string, BackendBalancerPtr>& endpointByFileHash() const { return endpointByFileHash_; }
    double uploadProgress() const { return uploadProgress_; }
    std::function<void(double progress)> onUploadProgressChanged;
    bool hasUploadTask() const { return uploadTask_ != nullptr; }

    // The defaults unless a test needs time-outs that end sooner.
    void setTimeouts(const Timeouts& timeouts) { timeouts_ = timeouts; }
    const Timeouts& timeouts() const { return timeouts_; }

private:
    struct Stream;
    void setEndpoint(const std::string& fileHash, std::optional<BackendBalancerPtr> endpoint);
    std::string languages() const;
    void handleLine(const std::shared_ptr<Stream>& stream, std::string line);
    void endStream(const std::shared_ptr<Stream>& stream);

    Dependencies deps_;
    std::map<std::string, BackendBalancerPtr> endpointByFileHash_;
    Timeouts timeouts_;
    double uploadProgress_ = 0;
    std::shared_ptr<platform::HttpTask> uploadTask_;
    std::weak_ptr<Stream> activeStream_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
