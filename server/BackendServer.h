#pragma once
// One sprelio-server: the account API (GET /users/info) and a transcription backend (POST /transcribe) on one
// HTTP listener. The standalone binary and the client's embedded mode both run this class.
//
// Every answer that is not a success has the shape {"error", "message", "stop"} (ApiError), the statuses the HTTP
// layer produces itself (404, 405, 413, 400, 500) included. Every endpoint requires "Authorization: Bearer <token>".
// One access-log line per request: method, path, the names of the query keys (never their values), status and
// the time from routing to answer; no header, body or transcript ever reaches the log.
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "server/AccountStore.h"
#include "server/EngineSlots.h"
#include "server/ServerConfig.h"

namespace httplib {
class Server;
struct Request;
struct Response;
} // namespace httplib

namespace sprelio::server {

class BackendServer {
public:
    // The engine named by config.engine. Opens the data folder's database and makes the local account; throws
    // std::runtime_error when that fails, std::invalid_argument for an unknown engine.
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
    const ServerConfig& config() const { return config_; }

private:
    void installRoutes();
    std::optional<Account> authorize(const httplib::Request& request, httplib::Response& response);
    void handleUserInfo(const httplib::Request& request, httplib::Response& response);
    void handleTranscribe(const httplib::Request& request, httplib::Response& response);
    bool isKnownPath(const std::string& path) const;

    ServerConfig config_;
    AccountStore accounts_;
    LocalAccount local_;
    std::string serverUuid_;
    EngineSlots slots_;
    std::unique_ptr<httplib::Server> http_;
    std::thread listener_;
    std::atomic<int> port_{0};
    std::atomic<bool> started_{false};
};

} // namespace sprelio::server
