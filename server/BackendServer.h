#pragma once
// One sprelio-server: the account API (sign-in under /auth, GET /users/info, POST /users/report), a transcription
// backend (POST /transcribe, long files under /transcribe/file/<uuid>) and an AI server (POST /completions, and
// the AI part of an upload) on one HTTP listener. The standalone binary and the client's embedded mode both run this class.
//
// Every answer that is not a success has the shape {"error", "message", "stop"} (ApiError), the statuses the HTTP
// layer produces itself (404, 405, 408, 413, 431, 400, 500, 503) included. Every endpoint but those of sign-in requires
// "Authorization: Bearer <token>".
// One access-log line per request: method, path, the names of the query keys (never their values), status and
// the time from routing to answer; no header, body or transcript ever reaches the log.
#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "server/AccountStore.h"
#include "server/ChatServiceSource.h"
#include "server/CompletionPrompts.h"
#include "server/EngineSlots.h"
#include "server/LiveDecodeSessions.h"
#include "server/ServerConfig.h"
#include "server/SignInService.h"
#include "server/UploadJanitor.h"

namespace httplib {
class Server;
struct Request;
struct Response;
class ContentReader;
} // namespace httplib

namespace sprelio::server {

class GuardedHttpServer;

class BackendServer {
public:
    // The engine named by config.engine. Opens the data folder's database and makes the local account; throws
    // std::runtime_error when that fails or a key file can't be read, std::invalid_argument for an unknown
    // engine or an incomplete engine or AI configuration.
    explicit BackendServer(ServerConfig config);
    // Any engine, for other engines and for tests of the server's own behaviour.
    BackendServer(ServerConfig config, EngineDescription engine, EngineFactory factory);
    ~BackendServer();
    BackendServer(const BackendServer&) = delete;
    BackendServer& operator=(const BackendServer&) = delete;

    // Binds the listening socket and serves on a thread of its own; returns once connections are accepted.
    // Throws std::runtime_error when the address can't be bound.
    void start();
    // Closes the listening socket, lets the requests that are running finish and answer, then returns.
    // Safe to call more than once and from any thread but a worker's.
    void stop();
    bool isRunning() const;

    int port() const { return port_; }
    // The URL announced in `balancers`: the configured public URL, else http://host:port.
    std::string url() const;
    const LocalAccount& localAccount() const { return local_; }
    EngineSlots& engineSlots() { return slots_; }
    AccountStore& accounts() { return accounts_; }
    SignInService& signIn() { return *signIn_; }
    // Where long files and problem reports are kept.
    std::filesystem::path uploadFolder() const { return config_.dataFolder / "files"; }
    std::filesystem::path reportFolder() const { return config_.dataFolder / "reports"; }
    const ServerConfig& config() const { return config_; }
    UploadJanitor& uploadJanitor() { return *janitor_; }
    // Whether a chat service for AI completions is known now (configured, or found by a look that has ended).
    bool hasAi() const { return aiSource()->current() != nullptr; }
    // Another chat service from now on: the AI fields of `config` (aiUrl, aiModel, aiKey, aiKeyFile) replace
    // this server's; requests under way finish with the service they started with. Throws as the constructor
    // does for a service that can't be used.
    void reconfigureAi(const ServerConfig& config);

    struct RouteInfo {
        const char* method;
        std::string path; // a file route holds "<uuid>" where the id goes
        bool needsToken;
    };
    // Every endpoint this server answers, for tests that walk them all.
    static std::vector<RouteInfo> routes();
    // Connections open now, for tests of the connection limits.
    std::size_t openConnections() const;
    // Whether dictations are decoded while they are spoken: switched on and an engine that can.
    bool liveDecoding() const;
    // Live streams running, or finished and not yet claimed by their upload.
    std::size_t liveStreams() const { return live_ ? live_->size() : 0; }

private:
    void installRoutes();
    std::optional<Account> authorize(const httplib::Request& request, httplib::Response& response);
    // The same for the endpoints that stream their body: a refusal leaves the body unread, so the connection
    // can't serve another request.
    std::optional<Account> authorizeBeforeBody(const httplib::Request& request, httplib::Response& response);
    void handleUserInfo(const httplib::Request& request, httplib::Response& response);
    void handleTranscribe(const httplib::Request& request, httplib::Response& response);
    void handleSignInRequest(const httplib::Request& request, httplib::Response& response);
    void handleSignInLink(const httplib::Request& request, httplib::Response& response);
    void handleSignInWait(const httplib::Request& request, httplib::Response& response);
    void handleSignInCode(const httplib::Request& request, httplib::Response& response);
    void handleReport(const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& reader);
    void handleFileUpload(const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader& reader);
    void handleFileTranscribe(const httplib::Request& request, httplib::Response& response);
    void handleCompletions(const httplib::Request& request, httplib::Response& response);
    void handleLiveTranscribe(const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& reader);
    // The text of the live stream an upload names, when that stream matches the upload in every respect.
    std::optional<Transcript> takeLiveTranscript(const httplib::Request& request, const Account& account,
                                                 const std::string& language);
    // The answer to a recording's upload once its transcript exists, with the AI step when one rides along.
    void answerTranscript(httplib::Response& response, const Account& account, const Transcript& transcript,
                          std::optional<CompletionRequest> ai);
    // Runs one AI request through the chat service; the text, or the error to answer.
    std::variant<std::string, ApiError> complete(const CompletionRequest& request, const char* caller);
    // The answer when there is no chat service to use.
    ApiError aiUnavailable(const ChatServiceSource::Lookup& lookup) const;
    const char* allowedMethods(const std::string& path) const;
    // The most bytes the body of a request to `path` may carry, its transfer coding included.
    std::uint64_t bodyAllowance(const std::string& path) const;

    ServerConfig config_;
    AccountStore accounts_;
    LocalAccount local_;
    std::string serverUuid_;
    EngineSlots slots_;
    std::unique_ptr<SignInService> signIn_;
    std::unique_ptr<UploadJanitor> janitor_;
    std::unique_ptr<LiveDecodeSessions> live_;
    std::atomic<bool> stopping_{false};
    std::shared_ptr<ChatServiceSource> aiSource() const;
    // After stopping_, which cuts its looks short. Swapped whole by reconfigureAi, under aiLock_.
    mutable std::mutex aiLock_;
    std::shared_ptr<ChatServiceSource> ai_;
    std::unique_ptr<GuardedHttpServer> http_;
    std::thread listener_;
    std::atomic<int> port_{0};
    std::atomic<bool> started_{false};
};

} // namespace sprelio::server
