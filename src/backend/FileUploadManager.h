#pragma once
// A long file in two calls to one backend: the bytes go up first and get an id, then the same backend transcribes
// that id and answers with a stream of JSON lines (progress, then the text). Which backend took which file is
// remembered by the file's SHA-256 digest until its transcription ends.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "backend/BalancingManager.h"
#include "core/Error.h"
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

    const std::map<std::string, BackendBalancerPtr>& endpointByFileHash() const { return endpointByFileHash_; }
    double uploadProgress() const { return uploadProgress_; }
    std::function<void(double progress)> onUploadProgressChanged;
    bool hasUploadTask() const { return uploadTask_ != nullptr; }

private:
    struct Stream;
    void setEndpoint(const std::string& fileHash, std::optional<BackendBalancerPtr> endpoint);
    std::string languages() const;
    void handleLine(const std::shared_ptr<Stream>& stream, std::string line);
    void endStream(const std::shared_ptr<Stream>& stream);

    Dependencies deps_;
    std::map<std::string, BackendBalancerPtr> endpointByFileHash_;
    double uploadProgress_ = 0;
    std::shared_ptr<platform::HttpTask> uploadTask_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace sprelio
