#pragma once
// The transcription upload over HTTP: one multipart POST of a recording to the backend that BalancingManager
// picks, the answer as one JSON object or as JSON lines (transcript, then AI result), and the judgement of every
// failure, which may restart the same upload on the next backend of the chain.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/LifetimeGuard.h"
#include "backend/AudioUploadManager.h"
#include "backend/BalancingManager.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/MainLoop.h"

namespace sprelio {

class AppState;
class HistoryManager;
class ErrorPresenter;
namespace store {
class AppConstants;
class Settings;
} // namespace store

class LiveDictationStreams;

class HttpAudioUploadManager final : public AudioUploadManager {
public:
    // The stages of a streamed answer, each on the main loop: the transcript is in and the server's AI step has
    // begun; a moment after the AI result, that step is over (the moment lets the user see the change).
    struct StreamStages {
        std::function<void()> aiStepStarted;
        std::function<void()> aiStepEnded;
    };

    // The answer (TEXT and COMPLETION lines each call it once), the HTTP status when there was one, the error.
    using StatusCompletion = std::function<void(std::optional<nlohmann::json> result, std::optional<int> statusCode,
                                                std::optional<Error> error)>;

    struct Dependencies {
        platform::MainLoop& loop;
        // Builds request bodies, so that reading a recording never blocks the main loop.
        platform::WorkerPool& workers;
        platform::Clock& clock;
        platform::HttpClient& http;
        BalancingManager& balancing;
        AppState& appState;
        store::Settings& settings;
        const store::AppConstants& constants;
        HistoryManager& history;
        ErrorPresenter& messages;
        // Owners that show the stages of a streamed answer (the session's overlay) hear of them here; the others
        // (the history view, the Files tab, the command line) leave it empty.
        StreamStages stages;
        // The account service; asked for a fresh backend list when the last backend of the chain has failed.
        UserInfoRefresher* accountService = nullptr;
        // Rebuilds the status menu after a cancelled upload.
        std::function<void()> rebuildStatusMenu;
    };

    // Error names of a backend answer with a fixed meaning for the chain.
    static constexpr const char* kNoInvalidateErrors[] = {"Unauthorized"};
    static constexpr const char* kSkipErrors[] = {"NoOnlineFarms"};
    static constexpr std::chrono::milliseconds kRequestTimeout{120'000};

    explicit HttpAudioUploadManager(Dependencies deps);
    ~HttpAudioUploadManager() override;
    HttpAudioUploadManager(const HttpAudioUploadManager&) = delete;
    HttpAudioUploadManager& operator=(const HttpAudioUploadManager&) = delete;

    // The session's form: `languages` are joined with a comma for the query; the status code is dropped.
    void uploadRecording(const std::filesystem::path& url, const Uuid& requestID,
                         const std::vector<std::string>& languages,
                         const std::optional<AICompletionPromptId>& promptId, bool diarization,
                         const std::optional<std::string>& inputLanguageCode, Completion completion) override;

    // Main loop only. `skipBalancer` is set by restarts only.
    void uploadRecording(const std::filesystem::path& fileURL, const Uuid& requestID, StatusCompletion completion,
                         BackendBalancerPtr skipBalancer, const std::string& inputLanguageCodes, bool diarization,
                         const std::optional<AICompletionPromptId>& aiFormField,
                         const std::optional<std::string>& inputLanguageCode);

    void cancelUpload() override;

    // The single judge of a failed attempt: give up, stay silent, or upload again elsewhere. Main loop only.
    void evaluateAndHandleError(const BackendBalancerPtr& endpoint, const std::filesystem::path& urlPath,
                                const std::optional<Error>& error, const std::optional<std::string>& errorString,
                                const std::optional<std::string>& messageString, std::optional<bool> stop,
                                const Uuid& requestID, std::optional<int> statusCode, StatusCompletion completion,
                                const std::optional<std::string>& inputLanguageCode, bool diarization,
                                const std::optional<AICompletionPromptId>& aiFormField);

    // The `languages` value of a request: the explicit code, or the codes of the user's languages.
    std::string inputLanguageCodes(const std::optional<std::string>& inputLanguageCode) const;

    // Fraction of the request body sent; not reset between uploads except by cancelUpload.
    double uploadProgress() const { return uploadProgress_; }
    std::function<void(double progress)> onUploadProgressChanged;
    bool hasUploadTask() const { return uploadTask_ != nullptr; }
    int retries() const { return retries_; }

    // 120 seconds unless a test needs time-outs that end sooner; the bound on the answer follows it.
    void setRequestTimeout(std::chrono::milliseconds timeout) { requestTimeout_ = timeout; }
    // The session's live streams: an upload to a stream's own backend names the stream in one extra header.
    void setLiveStreams(const LiveDictationStreams* streams) { liveStreams_ = streams; }

    // Process-wide request constants.
    const std::string& appIdentifier() const { return appIdentifier_; }
    const std::string& osIdentifier() const { return osIdentifier_; }
    const std::string& acceptLanguage() const { return acceptLanguage_; }

    // The backend's URL with its path replaced and the query set from the items, in their order, values
    // percent-encoded; nothing when `base` is not an absolute http(s) URL with a host.
    static std::optional<std::string> endpointURL(const std::string& base, const std::string& path,
                                                  const std::vector<std::pair<std::string, std::string>>& query);

private:
    struct Attempt;
    void sendAttempt(const std::shared_ptr<Attempt>& attempt);
    void handleResponse(const std::shared_ptr<Attempt>& attempt, platform::HttpResult result);
    void handleStream(const std::shared_ptr<Attempt>& attempt, const platform::HttpResponse& response, int status);
    void handlePlain(const std::shared_ptr<Attempt>& attempt, const platform::HttpResponse& response, int status);
    void progress(std::int64_t sent, std::int64_t total);
    void history(int level, std::string text, const std::filesystem::path& fileURL, const Uuid& requestID);
    void post(std::function<void()> task);
    void clearTask(const std::shared_ptr<platform::HttpTask>& task);

    Dependencies deps_;
    std::string appIdentifier_;
    std::string osIdentifier_;
    std::string acceptLanguage_;
    double uploadProgress_ = 0;
    double lastLoggedProgress_ = 0;
    int retries_ = 0;
    std::chrono::milliseconds requestTimeout_ = kRequestTimeout;
    std::shared_ptr<platform::HttpTask> uploadTask_;
    const LiveDictationStreams* liveStreams_ = nullptr;
    // Callbacks that outlive the manager find this expired and do nothing.
    LifetimeGuard lifetime_;
};

} // namespace sprelio
