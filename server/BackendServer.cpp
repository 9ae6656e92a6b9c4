#include "server/BackendServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "diagnostics/Log.h"
#include "server/ApiError.h"
#include "server/AudioDecoder.h"
#include "server/BoundedTaskQueue.h"
#include "server/PocketsphinxEngine.h"

namespace sprelio::server {

namespace {

using Clock = std::chrono::steady_clock;

// httplib handles a request on one worker thread from routing to the logger, so the routing time can wait here.
thread_local std::optional<Clock::time_point> tRoutedAt;

struct Route {
    const char* method;
    const char* path;
};
constexpr Route kRoutes[] = {{"GET", "/users/info"}, {"POST", "/transcribe"}};

EngineDescription describeEngine(const ServerConfig& config) {
    if (config.engine == "pocketsphinx") return PocketsphinxEngine::description();
    throw std::invalid_argument("unknown transcription engine '" + config.engine + "' (available: pocketsphinx)");
}

EngineFactory makeEngineFactory(const ServerConfig& config) {
    if (config.engine == "pocketsphinx") {
        auto folder = config.modelFolder;
        return [folder] { return std::make_unique<PocketsphinxEngine>(folder); };
    }
    throw std::invalid_argument("unknown transcription engine '" + config.engine + "' (available: pocketsphinx)");
}

// A path as it may appear in the access log: printable ASCII only and bounded, so that an odd request can't
// forge or flood log lines.
std::string loggablePath(const std::string& path) {
    std::string out;
    for (char c : path.substr(0, 120)) out += (c > 0x20 && c < 0x7F) ? c : '?';
    if (path.size() > 120) out += "...";
    return out.empty() ? "-" : out;
}

std::string queryKeys(const httplib::Params& params) {
    std::string out;
    std::string last;
    for (const auto& [key, value] : params) {
        (void)value;
        if (key == last) continue;
        last = key;
        if (!out.empty()) out += ',';
        out += loggablePath(key);
    }
    return out.empty() ? "-" : out;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string trim(const std::string& text) {
    auto begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return {};
    auto end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

std::string bearerToken(const httplib::Request& request) {
    if (!request.has_header("Authorization")) return {};
    auto value = request.get_header_value("Authorization");
    constexpr std::string_view kScheme = "bearer ";
    if (value.size() < kScheme.size() || lower(value.substr(0, kScheme.size())) != kScheme) return {};
    return trim(value.substr(kScheme.size()));
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

} // namespace

BackendServer::BackendServer(ServerConfig config)
    : BackendServer(config, describeEngine(config), makeEngineFactory(config)) {}

BackendServer::BackendServer(ServerConfig config, EngineDescription engine, EngineFactory factory)
    : config_(std::move(config)), accounts_(config_.dataFolder),
      slots_(std::move(engine), std::move(factory), config_.engineSlots), http_(std::make_unique<httplib::Server>()) {
    local_ = accounts_.ensureLocalAccount(config_.effectiveTokenFile());
    serverUuid_ = accounts_.serverUuid();
    installRoutes();
}

BackendServer::~BackendServer() { stop(); }

std::string BackendServer::url() const {
    if (!config_.publicUrl.empty()) return config_.publicUrl;
    std::string host = (config_.host == "0.0.0.0" || config_.host.empty()) ? "127.0.0.1" : config_.host;
    return "http://" + host + ":" + std::to_string(port_.load());
}

bool BackendServer::isKnownPath(const std::string& path) const {
    return std::any_of(std::begin(kRoutes), std::end(kRoutes), [&](const Route& r) { return path == r.path; });
}

void BackendServer::installRoutes() {
    auto& http = *http_;
    http.new_task_queue = [this] { return new BoundedTaskQueue(config_.workerThreads, config_.maxQueuedConnections); };
    http.set_payload_max_length(config_.maxUploadBytes);
    // Answers are small and written in pieces; without this, Nagle and delayed ACKs cost ~40 ms per request.
    http.set_tcp_nodelay(true);
    http.set_keep_alive_timeout(config_.keepAliveSeconds);
    http.set_read_timeout(config_.readTimeoutSeconds, 0);
    http.set_write_timeout(config_.readTimeoutSeconds, 0);

    http.set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
        tRoutedAt = Clock::now();
        return httplib::Server::HandlerResponse::Unhandled;
    });

    http.Get("/users/info", [this](const httplib::Request& q, httplib::Response& r) { handleUserInfo(q, r); });
    http.Post("/transcribe", [this](const httplib::Request& q, httplib::Response& r) { handleTranscribe(q, r); });

    // Statuses httplib sets by itself arrive here with an empty body; handlers' own error answers pass untouched.
    http.set_error_handler(httplib::Server::HandlerWithResponse([this](const httplib::Request& request,
                                                                       httplib::Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        ApiError error;
        switch (response.status) {
        case 404:
            if (isKnownPath(request.path)) {
                error = api_error::methodNotAllowed();
                for (const auto& route : kRoutes)
                    if (request.path == route.path) response.set_header("Allow", route.method);
            } else {
                error = api_error::notFound();
            }
            break;
        case 413: error = api_error::payloadTooLarge(config_.maxUploadBytes); break;
        case 400: error = api_error::badRequest("The request could not be read."); break;
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
    listener_ = std::thread([this] { http_->listen_after_bind(); });
    // stop() only takes effect once the accept loop runs; until then it would be lost.
    while (!http_->is_running() && listener_.joinable()) std::this_thread::yield();
    log(LogLevel::info, "BackendServer.start() - listening on " + config_.host + ":" + std::to_string(bound) +
                            ", engine " + slots_.description().name + " with " +
                            std::to_string(slots_.capacity()) + " slot(s), announced as " + url());
}

void BackendServer::stop() {
    if (!listener_.joinable()) return;
    log(LogLevel::info, "BackendServer.stop() - stopping; running requests are finished first");
    http_->stop();
    listener_.join();
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

void BackendServer::handleUserInfo(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    const auto& engine = slots_.description();

    nlohmann::json balancers = nlohmann::json::array();
    balancers.push_back({{"uuid", serverUuid_}, {"name", config_.name}, {"url", url()}});
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

    nlohmann::json answer = {
        {"flags",
         {{"transcriptionEngine", engine.name}, {"transcriptionLanguages", engine.languages},
          {"diarization", engine.diarization}, {"aiCompletions", false}}},
        {"ai", {{"models", nlohmann::json::array()}, {"servers", nlohmann::json::array()}}},
        {"balancers", balancers},
        {"user", user},
    };
    response.set_content(answer.dump(), "application/json");
}

void BackendServer::handleTranscribe(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    const auto& engine = slots_.description();

    if (!request.is_multipart_form_data() || !request.has_file("file")) {
        api_error::badRequest("The upload must be multipart/form-data with the recording in a part named \"file\".")
            .applyTo(response);
        return;
    }
    if (request.has_file("ai")) {
        api_error::aiNotConfigured().applyTo(response);
        return;
    }

    auto diarization = request.has_param("diarization") ? request.get_param_value("diarization") : "false";
    if (diarization != "true" && diarization != "false") {
        api_error::badRequest("The query value diarization must be true or false.").applyTo(response);
        return;
    }
    if (diarization == "true" && !engine.diarization) {
        api_error::diarizationUnsupported(engine.name).applyTo(response);
        return;
    }

    // The user's languages, in order of preference; the first the engine knows wins. No list: the engine's own.
    std::string language = engine.languages.empty() ? "" : engine.languages.front();
    auto requested = request.has_param("languages") ? trim(request.get_param_value("languages")) : "";
    if (!requested.empty()) {
        std::optional<std::string> chosen;
        std::size_t start = 0;
        while (start <= requested.size() && !chosen) {
            auto comma = requested.find(',', start);
            auto code = lower(trim(requested.substr(start, comma == std::string::npos ? comma : comma - start)));
            auto primary = code.substr(0, code.find_first_of("-_"));
            if (std::find(engine.languages.begin(), engine.languages.end(), primary) != engine.languages.end())
                chosen = primary;
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        if (!chosen) {
            // The requested codes are the user's settings, not dictated text; still kept out of the log.
            log(LogLevel::info, "BackendServer.handleTranscribe() - no requested language is supported by " +
                                    engine.name);
            api_error::unsupportedLanguage(requested, joined(engine.languages)).applyTo(response);
            return;
        }
        language = *chosen;
    }

    auto lease = slots_.tryAcquire();
    if (!lease) {
        log(LogLevel::warning, "BackendServer.handleTranscribe() - all " + std::to_string(slots_.capacity()) +
                                   " engine slot(s) busy, answering NoOnlineFarms");
        api_error::noOnlineFarms().applyTo(response);
        return;
    }

    const auto& upload = request.get_file_value("file").content;
    auto decodeStart = Clock::now();
    auto decoded = decodeAudio(upload, config_.maxAudioSeconds);
    if (auto* failure = std::get_if<DecodeFailure>(&decoded)) {
        log(LogLevel::warning, "BackendServer.handleTranscribe() - upload of " + std::to_string(upload.size()) +
                                   " bytes not decodable: " + failure->message);
        api_error::undecodableAudio(failure->message).applyTo(response);
        return;
    }
    auto& audio = std::get<DecodedAudio>(decoded);
    auto recogniseStart = Clock::now();

    Transcript transcript;
    try {
        transcript = lease->engine().transcribe(audio.samples, language);
    } catch (const EngineError& e) {
        log(LogLevel::error, std::string("BackendServer.handleTranscribe() - engine failure: ") + e.what());
        api_error::engineUnavailable().applyTo(response);
        return;
    }
    auto done = Clock::now();
    auto ms = [](auto d) { return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()); };
    log(LogLevel::info, "BackendServer.handleTranscribe() - " + audio.formatName + "/" + audio.codecName + ", " +
                            std::to_string(static_cast<int>(audio.seconds() * 1000)) + " ms of audio, decoded in " +
                            ms(recogniseStart - decodeStart) + " ms, recognised in " + ms(done - recogniseStart) +
                            " ms, text: " + std::string(kPrivatized));
    accounts_.countRequest(account->id);
    response.set_content(nlohmann::json{{"text", transcript.text}, {"language", transcript.language}}.dump(),
                         "application/json");
}

} // namespace sprelio::server
