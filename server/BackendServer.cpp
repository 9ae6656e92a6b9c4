// The server's life cycle, its routing and authorisation, and GET /users/info. The other routes are defined by
// topic: TranscriptionRoutes.cpp, CompletionRoutes.cpp, SignInRoutes.cpp and ReportRoutes.cpp.
#include "server/BackendServer.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "base/LocalizedLanguage.h"
#include "base/Log.h"
#include "server/ApiError.h"
#include "server/ConnectionGate.h"
#include "server/OpenAiHttp.h"
#include "server/OpenAiTranscriptionEngine.h"
#include "server/PocketsphinxEngine.h"
#include "server/RequestHelpers.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;

// httplib handles a request on one worker thread from routing to the logger, so the routing time can wait here.
thread_local std::optional<Clock::time_point> tRoutedAt;

struct Route {
    const char* method;
    const char* path;
};
constexpr Route kRoutes[] = {{"GET", "/users/info"},         {"POST", "/transcribe"},      {"GET", "/auth/request"},
                             {"GET", "/auth/request/wait"}, {"POST", "/auth/request/code"}, {"GET", "/auth/confirm"},
                             {"POST", "/users/report"},    {"POST", "/completions"},     {"POST", "/transcribe/live"}};
constexpr std::string_view kFilePrefix = "/transcribe/file/";

constexpr const char* kEngines = "pocketsphinx, openai";

OpenAiTranscriptionSettings openAiSettings(const ServerConfig& config) {
    if (config.openaiUrl.empty())
        throw std::invalid_argument("the openai engine needs the URL of its service (--openai-url or openaiUrl)");
    return {config.openaiUrl, resolveApiKey(config.openaiKey, config.openaiKeyFile), config.openaiModel,
            config.openaiLanguages, std::chrono::seconds(std::max(1, config.openaiTimeoutSeconds))};
}

EngineDescription describeEngine(const ServerConfig& config) {
    if (config.engine == "pocketsphinx") return PocketsphinxEngine::description();
    if (config.engine == "openai") return OpenAiTranscriptionEngine::description(openAiSettings(config));
    throw std::invalid_argument("unknown transcription engine '" + config.engine + "' (available: " + kEngines + ")");
}

// `cancel` lets a stopping server cut short the requests of an engine that waits on another service.
EngineFactory makeEngineFactory(const ServerConfig& config, const std::atomic<bool>* cancel) {
    if (config.engine == "pocketsphinx") {
        auto folder = config.modelFolder;
        return [folder] { return std::make_unique<PocketsphinxEngine>(folder); };
    }
    if (config.engine == "openai") {
        auto settings = openAiSettings(config);
        return [settings, cancel] { return std::make_unique<OpenAiTranscriptionEngine>(settings, cancel); };
    }
    throw std::invalid_argument("unknown transcription engine '" + config.engine + "' (available: " + kEngines + ")");
}

// Every language of the client's table: the chat models behind this server are multilingual, and the client
// offers translation targets from that table.
nlohmann::json aiLanguages() {
    nlohmann::json codes = nlohmann::json::array();
    for (const auto& language : languageTable())
        if (!language.code.empty()) codes.push_back(language.code);
    return codes;
}

} // namespace

BackendServer::BackendServer(ServerConfig config)
    : BackendServer(config, describeEngine(config), makeEngineFactory(config, &stopping_)) {}

BackendServer::BackendServer(ServerConfig config, EngineDescription engine, EngineFactory factory)
    : config_(std::move(config)), accounts_(config_.dataFolder),
      slots_(std::move(engine), std::move(factory), config_.engineSlots) {
    ConnectionLimits limits;
    limits.workers = config_.workerThreads;
    limits.maxConnections = config_.maxConnections;
    limits.maxConnectionsPerClient = config_.maxConnectionsPerClient;
    limits.maxHeadBytes = config_.maxHeaderBytes;
    auto ms = [](double seconds) { return std::chrono::milliseconds(static_cast<long long>(seconds * 1000)); };
    limits.headTime = ms(config_.requestHeadSeconds);
    limits.bodyTime = ms(config_.requestBodySeconds);
    limits.minBodyBytesPerSecond = config_.minBodyBytesPerSecond;
    limits.idleTime = std::chrono::seconds(config_.keepAliveSeconds);
    limits.stallTime = std::chrono::seconds(config_.readTimeoutSeconds);
    http_ = std::make_unique<GuardedHttpServer>(limits);
    ai_ = std::make_shared<ChatServiceSource>(config_, &stopping_);
    janitor_ = std::make_unique<UploadJanitor>(uploadFolder(), std::chrono::seconds(config_.fileRetentionSeconds),
                                               std::chrono::seconds(config_.fileCleanupIntervalSeconds));
    local_ = accounts_.ensureLocalAccount(config_.effectiveTokenFile());
    signIn_ = std::make_unique<SignInService>(config_, accounts_);
    serverUuid_ = accounts_.serverUuid();
    live_ = std::make_unique<LiveDecodeSessions>(std::chrono::seconds(2), std::chrono::seconds(60));
    installRoutes();
}

BackendServer::~BackendServer() { stop(); }

std::shared_ptr<ChatServiceSource> BackendServer::aiSource() const {
    std::lock_guard lock(aiLock_);
    return ai_;
}

void BackendServer::reconfigureAi(const ServerConfig& config) {
    ServerConfig next = config_;
    next.aiUrl = config.aiUrl;
    next.aiModel = config.aiModel;
    next.aiKey = config.aiKey;
    next.aiKeyFile = config.aiKeyFile;
    auto source = std::make_shared<ChatServiceSource>(next, &stopping_);
    if (started_) source->start();
    std::shared_ptr<ChatServiceSource> previous;
    {
        std::lock_guard lock(aiLock_);
        previous = std::exchange(ai_, std::move(source));
    }
    log(LogLevel::info, "BackendServer.reconfigureAi() - AI service " +
                            (next.aiUrl.empty() ? std::string("looked for") : urlHost(next.aiUrl)));
    // The previous source ends with its last request.
}

std::string BackendServer::url() const {
    if (!config_.publicUrl.empty()) return config_.publicUrl;
    std::string host = (config_.host == "0.0.0.0" || config_.host.empty()) ? "127.0.0.1" : config_.host;
    return "http://" + host + ":" + std::to_string(port_.load());
}

std::vector<BackendServer::RouteInfo> BackendServer::routes() {
    std::vector<RouteInfo> all;
    for (const auto& route : kRoutes)
        all.push_back({route.method, route.path, std::string_view(route.path).rfind("/auth/", 0) != 0});
    all.push_back({"POST", std::string(kFilePrefix) + "<uuid>", true});
    all.push_back({"GET", std::string(kFilePrefix) + "<uuid>", true});
    return all;
}

std::size_t BackendServer::openConnections() const { return http_->openConnections(); }

std::uint64_t BackendServer::bodyAllowance(const std::string& path) const {
    // Room for chunk sizes and part headers on top of what the handlers themselves accept.
    auto framed = [](std::uint64_t limit) { return limit + limit / 16 + 64 * 1024; };
    if (path.rfind("/auth/", 0) == 0) return 64 * 1024;
    if (path.rfind(kFilePrefix, 0) == 0) return framed(config_.maxFileUploadBytes);
    if (path == "/users/report") return framed(3 * static_cast<std::uint64_t>(config_.maxReportPartBytes) + 1024 * 1024);
    return framed(config_.maxUploadBytes);
}

const char* BackendServer::allowedMethods(const std::string& path) const {
    if (path.rfind(kFilePrefix, 0) == 0 && path.find('/', kFilePrefix.size()) == std::string::npos) return "GET, POST";
    for (const auto& route : kRoutes)
        if (path == route.path) return route.method;
    return nullptr;
}

void BackendServer::installRoutes() {
    auto& http = *http_;
    // The largest body any endpoint takes; each endpoint holds its own bodies to their own limits.
    std::uint64_t largest = std::max<std::uint64_t>({config_.maxUploadBytes, config_.maxFileUploadBytes,
                                                     3 * static_cast<std::uint64_t>(config_.maxReportPartBytes) + 65536});
    http.set_payload_max_length(static_cast<std::size_t>(largest));
    http.set_keep_alive_max_count(100);
    // Answers are small and written in pieces; without this, Nagle and delayed ACKs cost ~40 ms per request.
    http.set_tcp_nodelay(true);
    http.set_keep_alive_timeout(config_.keepAliveSeconds);
    http.set_read_timeout(config_.readTimeoutSeconds, 0);
    http.set_write_timeout(config_.readTimeoutSeconds, 0);

    http.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        tRoutedAt = Clock::now();
        // Bodies read into memory keep the smaller limit; the streaming endpoints check theirs while reading.
        bool streamed = request.path.rfind(kFilePrefix, 0) == 0 || request.path == "/users/report";
        if (request.has_header("Content-Length")) {
            std::uint64_t length = 0;
            auto text = request.get_header_value("Content-Length");
            auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), length);
            if (ec != std::errc() || end != text.data() + text.size() || text.empty()) {
                refuseBody(response, api_error::badRequest("The Content-Length header is not a number."));
                return httplib::Server::HandlerResponse::Handled;
            }
            if (!streamed && length > config_.maxUploadBytes) {
                refuseBody(response, api_error::payloadTooLarge(config_.maxUploadBytes));
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        // Query values end up in messages and JSON answers, which must be UTF-8.
        for (const auto& [key, value] : request.params) {
            if (!isValidUtf8(key) || !isValidUtf8(value)) {
                refuseBody(response, api_error::badRequest("A query value of the request is not valid UTF-8."));
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        // httplib reads the body of these methods before any handler runs, whatever the route, so everything
        // that decides against a body is decided here, before its first byte is read.
        const auto& method = request.method;
        if (method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE") {
            if (auto allowed = allowedMethods(request.path);
                allowed && std::string_view(allowed).find(method) == std::string_view::npos) {
                response.set_header("Allow", allowed);
                refuseBody(response, api_error::methodNotAllowed());
                return httplib::Server::HandlerResponse::Handled;
            }
            // Sign-in is the one way in without a token; nobody else may make the server read a byte.
            if (request.path.rfind("/auth/", 0) != 0 && !authorizeBeforeBody(request, response))
                return httplib::Server::HandlerResponse::Handled;
            // A live stream is paced by the speaker: only a stall ends it, and its own time limit.
            GuardedHttpServer::allowBody(bodyAllowance(request.path), request.path == "/transcribe/live");
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    http.Get("/users/info", [this](const httplib::Request& q, httplib::Response& r) { handleUserInfo(q, r); });
    http.Post("/transcribe", [this](const httplib::Request& q, httplib::Response& r) { handleTranscribe(q, r); });
    http.Post("/completions", [this](const httplib::Request& q, httplib::Response& r) { handleCompletions(q, r); });
    http.Post("/transcribe/live",
              [this](const httplib::Request& q, httplib::Response& r, const httplib::ContentReader& c) {
                  handleLiveTranscribe(q, r, c);
              });
    http.Get("/auth/request", [this](const httplib::Request& q, httplib::Response& r) { handleSignInRequest(q, r); });
    http.Get("/auth/request/wait", [this](const httplib::Request& q, httplib::Response& r) { handleSignInWait(q, r); });
    http.Post("/auth/request/code", [this](const httplib::Request& q, httplib::Response& r) { handleSignInCode(q, r); });
    http.Get("/auth/confirm", [this](const httplib::Request& q, httplib::Response& r) { handleSignInLink(q, r); });
    http.Post("/users/report", [this](const httplib::Request& q, httplib::Response& r, const httplib::ContentReader& c) {
        handleReport(q, r, c);
    });
    http.Post(R"(/transcribe/file/([^/]+))",
              [this](const httplib::Request& q, httplib::Response& r, const httplib::ContentReader& c) {
                  handleFileUpload(q, r, c);
              });
    http.Get(R"(/transcribe/file/([^/]+))",
             [this](const httplib::Request& q, httplib::Response& r) { handleFileTranscribe(q, r); });

    // Statuses httplib sets by itself arrive here with an empty body; handlers' own error answers pass untouched.
    http.set_error_handler(httplib::Server::HandlerWithResponse([this](const httplib::Request& request,
                                                                       httplib::Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        ApiError error;
        switch (response.status) {
        case 404:
            if (auto allowed = allowedMethods(request.path)) {
                error = api_error::methodNotAllowed();
                response.set_header("Allow", allowed);
            } else {
                error = api_error::notFound();
            }
            break;
        case 413: error = api_error::payloadTooLarge(config_.maxUploadBytes); break;
        case 400:
            // A body cut at its allowance (a chunked one has no length to refuse it by beforehand).
            error = GuardedHttpServer::bodyOverAllowance()
                        ? api_error::payloadTooLarge(config_.maxUploadBytes)
                        : api_error::badRequest("The request could not be read.");
            break;
        case 500: error = api_error::internalError(); break;
        default:
            error = {response.status, "HttpError",
                     "The server could not handle the request (HTTP " + std::to_string(response.status) + ").", true};
            break;
        }
        error.applyTo(response);
        return httplib::Server::HandlerResponse::Handled;
    }));

    http.set_exception_handler([](const httplib::Request& request, httplib::Response& response, std::exception_ptr ep) {
        std::string what = "unknown exception";
        try {
            if (ep) std::rethrow_exception(ep);
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        log(LogLevel::error, "BackendServer.handler() - " + loggablePath(request.path) + " failed: " + what);
        api_error::internalError().applyTo(response);
    });

    http.set_logger([](const httplib::Request& request, const httplib::Response& response) {
        std::string duration = "-";
        if (tRoutedAt) {
            auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - *tRoutedAt).count();
            char buf[32];
            std::snprintf(buf, sizeof buf, "%.1f", static_cast<double>(us) / 1000.0);
            duration = buf;
            tRoutedAt.reset();
        }
        log(LogLevel::info, "BackendServer.access() - method=" + loggablePath(request.method) +
                                " path=" + loggablePath(request.path) + " query=" + queryKeys(request.params) +
                                " status=" + std::to_string(response.status) + " duration_ms=" + duration);
    });
}

void BackendServer::start() {
    if (started_.exchange(true)) return;
    int bound = config_.port == 0 ? http_->bind_to_any_port(config_.host)
                                  : (http_->bind_to_port(config_.host, config_.port) ? config_.port : -1);
    if (bound <= 0) {
        started_ = false;
        throw std::runtime_error("cannot listen on " + config_.host + ":" + std::to_string(config_.port));
    }
    port_ = bound;
    http_->setListenBacklog(static_cast<int>(std::min<std::size_t>(config_.maxConnections, 1024)));
    listener_ = std::thread([this] { http_->listen_after_bind(); });
    // stop() only takes effect once the accept loop runs; until then it would be lost.
    while (!http_->is_running() && listener_.joinable()) std::this_thread::yield();
    log(LogLevel::info, "BackendServer.start() - listening on " + config_.host + ":" + std::to_string(bound) +
                            ", engine " + slots_.description().name + " with " +
                            std::to_string(slots_.capacity()) + " slot(s), announced as " + url());
    const auto ai = aiSource();
    if (auto chat = ai->current())
        log(LogLevel::info, "BackendServer.start() - AI completions by " + chat->settings().model + " at " +
                                urlHost(chat->endpoint()));
    else if (ai->looks())
        log(LogLevel::info, "BackendServer.start() - looking for an AI service at " + ai->lookedAt());
    else
        log(LogLevel::info, "BackendServer.start() - AI completions not configured");
    janitor_->start();
    ai->start();
}

void BackendServer::stop() {
    if (!listener_.joinable()) return;
    log(LogLevel::info, "BackendServer.stop() - stopping; running requests are finished first");
    // Long polls would otherwise hold their workers, and so this stop, until their time-out.
    stopping_ = true;
    signIn_->shutdown();
    janitor_->stop();
    aiSource()->stop();
    http_->stop();
    listener_.join();
    // The requests under way finish and answer; waiting connections are closed.
    http_->shutdownGate();
    log(LogLevel::info, "BackendServer.stop() - stopped");
}

bool BackendServer::isRunning() const { return http_->is_running(); }

std::optional<Account> BackendServer::authorize(const httplib::Request& request, httplib::Response& response) {
    auto token = bearerToken(request);
    if (token.empty()) {
        api_error::unauthorized("Sign-in required: the request carries no token.").applyTo(response);
        return std::nullopt;
    }
    auto account = accounts_.authenticate(token);
    if (!account) {
        api_error::unauthorized("Your session is no longer valid, please sign in again.").applyTo(response);
        return std::nullopt;
    }
    return account;
}

std::optional<Account> BackendServer::authorizeBeforeBody(const httplib::Request& request,
                                                          httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) response.set_header("Connection", "close");
    return account;
}

void BackendServer::handleUserInfo(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    const auto& engine = slots_.description();

    nlohmann::json balancers = nlohmann::json::array();
    balancers.push_back({{"uuid", serverUuid_}, {"name", config_.name}, {"url", url()}});
    if (liveDecoding()) balancers.back()["liveDecoding"] = true;
    for (const auto& peer : config_.peers)
        balancers.push_back({{"uuid", peer.uuid}, {"name", peer.name}, {"url", peer.url}});

    nlohmann::json identity = {{"email", account->email}, {"guid", account->guid}};
    // The client finds the address either at the top of the section or in its nested `user` object; both are
    // filled so that either reading works.
    nlohmann::json user = identity;
    user["user"] = identity;
    user["requests"] = account->requests;
    // The token stays the one the client already holds: it is stored hashed, and the answer returns what came in.
    user["token"] = bearerToken(request);

    // This server is its own AI server: the client posts to its url + "/completions".
    nlohmann::json models = nlohmann::json::array();
    nlohmann::json servers = nlohmann::json::array();
    // Asked here too, so that a refresh of the account announces a local service started after this server.
    auto chat = aiSource()->acquire().client;
    if (chat) {
        const auto& model = chat->settings().model;
        nlohmann::json features = CompletionPrompts::promptIds();
        features.push_back("preset");
        models.push_back({{"name", model},
                          {"model", model},
                          {"languages", aiLanguages()},
                          {"providerType", "openai-compatible"},
                          {"providerName", urlHost(chat->endpoint())},
                          {"features", features}});
        servers.push_back({{"uuid", serverUuid_},
                           {"name", config_.name},
                           {"url", url()},
                           {"models", nlohmann::json::array({model})}});
    }

    nlohmann::json answer = {
        {"flags",
         {{"transcriptionEngine", engine.name}, {"transcriptionLanguages", engine.languages},
          {"diarization", engine.diarization}, {"aiCompletions", chat != nullptr}}},
        {"ai", {{"models", models}, {"servers", servers}}},
        {"balancers", balancers},
        {"user", user},
    };
    response.set_content(answer.dump(), "application/json");
}

} // namespace sprelio::server
