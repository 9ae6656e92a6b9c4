#include "server/BackendServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <fstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "core/Uuid.h"
#include "diagnostics/Log.h"
#include "server/ApiError.h"
#include "server/AudioDecoder.h"
#include "server/BoundedTaskQueue.h"
#include "server/LongFileTranscriber.h"
#include "server/OpenAiHttp.h"
#include "server/OpenAiTranscriptionEngine.h"
#include "server/PocketsphinxEngine.h"
#include "store/LocalizedLanguage.h"

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
                             {"POST", "/users/report"},    {"POST", "/completions"}};
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

std::unique_ptr<ChatCompletionClient> makeChatClient(const ServerConfig& config) {
    if (config.aiUrl.empty()) return nullptr;
    if (config.aiModel.empty())
        throw std::invalid_argument("AI completions need the model name the service expects (--ai-model or aiModel)");
    return std::make_unique<ChatCompletionClient>(
        ChatSettings{config.aiUrl, resolveApiKey(config.aiKey, config.aiKeyFile), config.aiModel,
                     std::chrono::seconds(std::max(1, config.aiTimeoutSeconds))});
}

// A value a client sent, fit to quote in a message: printable and short.
std::string quotable(const std::string& text) {
    std::string out;
    for (char c : text.substr(0, 80)) out += (c >= 0x20 && c < 0x7F) ? c : '?';
    return out;
}

ApiError aiFailure(const ChatFailure& failure) {
    switch (failure.kind) {
    case ChatFailure::Kind::unreachable:
        return {502, "AIServerUnavailable", "The AI service behind this server could not be reached; please try again "
                                            "later.",
                false};
    case ChatFailure::Kind::cancelled:
        return {503, "ServerStopping", "The server is restarting; please try again.", false};
    case ChatFailure::Kind::rejected:
        return {502, "AIServerError", "The AI service behind this server refused the request (" + failure.detail + ").",
                false};
    case ChatFailure::Kind::invalidAnswer:
        return {502, "AIInvalidResponse",
                "The AI service behind this server gave no usable answer (" + failure.detail + ").", false};
    }
    return api_error::internalError();
}

// Every language of the client's table: the chat models behind this server are multilingual, and the client
// offers translation targets from that table.
nlohmann::json aiLanguages() {
    nlohmann::json codes = nlohmann::json::array();
    for (const auto& language : store::languageTable())
        if (!language.code.empty()) codes.push_back(language.code);
    return codes;
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

// The user's languages, in order of preference; the first the engine knows wins. No list: the engine's own.
// Nothing when none of the requested codes is supported.
std::optional<std::string> chooseLanguage(const httplib::Request& request, const EngineDescription& engine) {
    std::string language = engine.languages.empty() ? "" : engine.languages.front();
    auto requested = request.has_param("languages") ? trim(request.get_param_value("languages")) : "";
    if (requested.empty()) return language;
    std::size_t start = 0;
    while (start <= requested.size()) {
        auto comma = requested.find(',', start);
        auto code = lower(trim(requested.substr(start, comma == std::string::npos ? comma : comma - start)));
        auto primary = code.substr(0, code.find_first_of("-_"));
        if (std::find(engine.languages.begin(), engine.languages.end(), primary) != engine.languages.end())
            return primary;
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return std::nullopt;
}

// Checks the query values both transcription endpoints share; the chosen language, or the answer is set.
std::optional<std::string> checkTranscriptionQuery(const httplib::Request& request, httplib::Response& response,
                                                   const EngineDescription& engine, const char* caller) {
    auto diarization = request.has_param("diarization") ? request.get_param_value("diarization") : "false";
    if (diarization != "true" && diarization != "false") {
        api_error::badRequest("The query value diarization must be true or false.").applyTo(response);
        return std::nullopt;
    }
    if (diarization == "true" && !engine.diarization) {
        api_error::diarizationUnsupported(engine.name).applyTo(response);
        return std::nullopt;
    }
    auto language = chooseLanguage(request, engine);
    if (!language) {
        // The requested codes are the user's settings, not dictated text; still kept out of the log.
        log(LogLevel::info, std::string(caller) + " - no requested language is supported by " + engine.name);
        api_error::unsupportedLanguage(trim(request.get_param_value("languages")), joined(engine.languages))
            .applyTo(response);
    }
    return language;
}

std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) text.append(buffer, static_cast<std::size_t>(in.gcount()));
    return text;
}

ApiError fileNotFound() {
    return {404, "FileNotFound", "There is no uploaded file with this id; please upload the file again.", true};
}

// A body the handler refuses before reading it: the connection can't be reused for another request.
void refuseBody(httplib::Response& response, const ApiError& error) {
    error.applyTo(response);
    response.set_header("Connection", "close");
}

std::string htmlPage(const std::string& title, const std::string& text) {
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + title +
           "</title></head>\n<body style=\"font-family: sans-serif; margin: 4em auto; max-width: 32em\"><h1>" + title +
           "</h1><p>" + text + "</p></body></html>\n";
}

nlohmann::json confirmationJson(const SignInConfirmed& confirmed) {
    return {{"token", confirmed.token},
            {"requests", confirmed.account.requests},
            {"email", confirmed.account.email},
            {"user", {{"email", confirmed.account.email}, {"guid", confirmed.account.guid}}}};
}

} // namespace

BackendServer::BackendServer(ServerConfig config)
    : BackendServer(config, describeEngine(config), makeEngineFactory(config, &stopping_)) {}

BackendServer::BackendServer(ServerConfig config, EngineDescription engine, EngineFactory factory)
    : config_(std::move(config)), accounts_(config_.dataFolder),
      slots_(std::move(engine), std::move(factory), config_.engineSlots), http_(std::make_unique<httplib::Server>()) {
    chat_ = makeChatClient(config_);
    janitor_ = std::make_unique<UploadJanitor>(uploadFolder(), std::chrono::seconds(config_.fileRetentionSeconds),
                                               std::chrono::seconds(config_.fileCleanupIntervalSeconds));
    local_ = accounts_.ensureLocalAccount(config_.effectiveTokenFile());
    signIn_ = std::make_unique<SignInService>(config_, accounts_);
    serverUuid_ = accounts_.serverUuid();
    installRoutes();
}

BackendServer::~BackendServer() { stop(); }

std::string BackendServer::url() const {
    if (!config_.publicUrl.empty()) return config_.publicUrl;
    std::string host = (config_.host == "0.0.0.0" || config_.host.empty()) ? "127.0.0.1" : config_.host;
    return "http://" + host + ":" + std::to_string(port_.load());
}

const char* BackendServer::allowedMethods(const std::string& path) const {
    if (path.rfind(kFilePrefix, 0) == 0 && path.find('/', kFilePrefix.size()) == std::string::npos) return "GET, POST";
    for (const auto& route : kRoutes)
        if (path == route.path) return route.method;
    return nullptr;
}

void BackendServer::installRoutes() {
    auto& http = *http_;
    http.new_task_queue = [this] { return new BoundedTaskQueue(config_.workerThreads, config_.maxQueuedConnections); };
    // The largest body any endpoint takes; each endpoint holds its own bodies to their own limits.
    std::uint64_t largest = std::max<std::uint64_t>({config_.maxUploadBytes, config_.maxFileUploadBytes,
                                                     3 * static_cast<std::uint64_t>(config_.maxReportPartBytes) + 65536});
    http.set_payload_max_length(static_cast<std::size_t>(largest));
    // Answers are small and written in pieces; without this, Nagle and delayed ACKs cost ~40 ms per request.
    http.set_tcp_nodelay(true);
    http.set_keep_alive_timeout(config_.keepAliveSeconds);
    http.set_read_timeout(config_.readTimeoutSeconds, 0);
    http.set_write_timeout(config_.readTimeoutSeconds, 0);

    http.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        tRoutedAt = Clock::now();
        // Bodies read into memory keep the smaller limit; the streaming endpoints check theirs while reading.
        bool streamed = request.path.rfind(kFilePrefix, 0) == 0 || request.path == "/users/report";
        if (!streamed && request.has_header("Content-Length")) {
            std::uint64_t length = 0;
            auto text = request.get_header_value("Content-Length");
            auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), length);
            if (ec != std::errc() || end != text.data() + text.size() || length > config_.maxUploadBytes) {
                refuseBody(response, api_error::payloadTooLarge(config_.maxUploadBytes));
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    http.Get("/users/info", [this](const httplib::Request& q, httplib::Response& r) { handleUserInfo(q, r); });
    http.Post("/transcribe", [this](const httplib::Request& q, httplib::Response& r) { handleTranscribe(q, r); });
    http.Post("/completions", [this](const httplib::Request& q, httplib::Response& r) { handleCompletions(q, r); });
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
    log(LogLevel::info, chat_ ? "BackendServer.start() - AI completions by " + config_.aiModel + " at " +
                                    urlHost(chat_->endpoint())
                              : std::string("BackendServer.start() - AI completions not configured"));
    janitor_->start();
}

void BackendServer::stop() {
    if (!listener_.joinable()) return;
    log(LogLevel::info, "BackendServer.stop() - stopping; running requests are finished first");
    // Long polls would otherwise hold their workers, and so this stop, until their time-out.
    stopping_ = true;
    signIn_->shutdown();
    janitor_->stop();
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

    // This server is its own AI server: the client posts to its url + "/completions".
    nlohmann::json models = nlohmann::json::array();
    nlohmann::json servers = nlohmann::json::array();
    if (chat_) {
        nlohmann::json features = CompletionPrompts::promptIds();
        features.push_back("preset");
        models.push_back({{"name", config_.aiModel},
                          {"model", config_.aiModel},
                          {"languages", aiLanguages()},
                          {"providerType", "openai-compatible"},
                          {"providerName", urlHost(chat_->endpoint())},
                          {"features", features}});
        servers.push_back({{"uuid", serverUuid_},
                           {"name", config_.name},
                           {"url", url()},
                           {"models", nlohmann::json::array({config_.aiModel})}});
    }

    nlohmann::json answer = {
        {"flags",
         {{"transcriptionEngine", engine.name}, {"transcriptionLanguages", engine.languages},
          {"diarization", engine.diarization}, {"aiCompletions", chat_ != nullptr}}},
        {"ai", {{"models", models}, {"servers", servers}}},
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
    // An AI instruction rides along: checked before any audio is decoded, so that a request the server can't
    // carry out costs no transcription.
    std::optional<CompletionRequest> ai;
    if (request.has_file("ai")) {
        auto parsed = CompletionPrompts::parse(nlohmann::json::parse(request.get_file_value("ai").content, nullptr,
                                                                     false),
                                               false);
        if (auto* error = std::get_if<ApiError>(&parsed)) {
            error->applyTo(response);
            return;
        }
        ai = std::get<CompletionRequest>(std::move(parsed));
    }

    auto chosen = checkTranscriptionQuery(request, response, engine, "BackendServer.handleTranscribe()");
    if (!chosen) return;
    const std::string& language = *chosen;

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
    } catch (const EngineRequestError& e) {
        // The engine's service failed this once; another backend may well succeed, so no stop.
        api_error::transcriptionFailed(e.what()).applyTo(response);
        return;
    } catch (const EngineError& e) {
        log(LogLevel::error, std::string("BackendServer.handleTranscribe() - engine failure: ") + e.what());
        api_error::engineUnavailable().applyTo(response);
        return;
    }
    // The slot is free for the next recording while the AI part below waits on its service.
    lease.reset();
    auto done = Clock::now();
    auto ms = [](auto d) { return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()); };
    log(LogLevel::info, "BackendServer.handleTranscribe() - " + audio.formatName + "/" + audio.codecName + ", " +
                            std::to_string(static_cast<int>(audio.seconds() * 1000)) + " ms of audio, decoded in " +
                            ms(recogniseStart - decodeStart) + " ms, recognised in " + ms(done - recogniseStart) +
                            " ms, text: " + std::string(kPrivatized));
    accounts_.countRequest(account->id);
    nlohmann::json text = {{"text", transcript.text}, {"language", transcript.language}};
    if (!ai) {
        response.set_content(text.dump(), "application/json");
        return;
    }

    // The streamed form: the transcript as the first line, as soon as it exists, then the AI result or an error
    // line. The client has the transcript by then, so a failed AI step carries `stop`: uploading the recording
    // again elsewhere would only transcribe it twice.
    ai->text = transcript.text;
    if (!transcript.language.empty()) ai->textLang = transcript.language;
    auto pending = std::make_shared<CompletionRequest>(std::move(*ai));
    auto textLine = std::make_shared<std::string>(text.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
                                                  "\n");
    response.set_chunked_content_provider(
        "text/event-stream", [this, pending, textLine](std::size_t, httplib::DataSink& sink) {
            if (!sink.write(textLine->data(), textLine->size())) return false;
            auto outcome = complete(*pending, "BackendServer.handleTranscribe()");
            std::string line;
            if (auto* completion = std::get_if<std::string>(&outcome)) {
                line = nlohmann::json{{"completion", *completion}}.dump(-1, ' ', false,
                                                                         nlohmann::json::error_handler_t::replace);
            } else {
                auto error = std::get<ApiError>(outcome);
                error.stop = true;
                line = error.json();
            }
            line += "\n";
            if (!sink.write(line.data(), line.size())) return false;
            sink.done();
            return true;
        });
}

void BackendServer::handleCompletions(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    if (!chat_) {
        api_error::aiNotConfigured().applyTo(response);
        return;
    }
    auto body = nlohmann::json::parse(request.body, nullptr, false);
    auto parsed = CompletionPrompts::parse(body, true);
    if (auto* error = std::get_if<ApiError>(&parsed)) {
        error->applyTo(response);
        return;
    }
    auto outcome = complete(std::get<CompletionRequest>(parsed), "BackendServer.handleCompletions()");
    if (auto* error = std::get_if<ApiError>(&outcome)) {
        error->applyTo(response);
        return;
    }
    response.set_content(nlohmann::json{{"completion", std::get<std::string>(outcome)}}.dump(
                             -1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

std::variant<std::string, ApiError> BackendServer::complete(const CompletionRequest& request, const char* caller) {
    if (!chat_) return api_error::aiNotConfigured();
    std::string what = request.kind == CompletionRequest::Kind::preset
                           ? std::string("preset")
                           : request.promptId + (request.promptParam.empty() ? "" : "/" + quotable(request.promptParam));
    if (request.text.size() > config_.maxCompletionTextBytes)
        return ApiError{413, "TextTooLong",
                        "The text is longer than the AI actions of this server take (" +
                            std::to_string(config_.maxCompletionTextBytes / 1024) + " KB at most).",
                        true};
    if (request.kind == CompletionRequest::Kind::preset && !request.model.empty() && request.model != config_.aiModel)
        // Another server may offer that model, so no stop.
        return ApiError{400, "UnknownModel",
                        "This server does not offer the AI model " + quotable(request.model) + "; it offers " +
                            config_.aiModel + ".",
                        false};
    // Nothing was said: nothing to rewrite, and a model would only invent something.
    if (request.text.find_first_not_of(" \t\r\n") == std::string::npos) {
        log(LogLevel::info, std::string(caller) + " - " + what + ": empty text, answered without the AI service");
        return std::string();
    }

    auto started = Clock::now();
    auto answer = chat_->complete(CompletionPrompts::messages(request), config_.aiModel, &stopping_);
    auto ms = std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count());
    if (auto* failure = std::get_if<ChatFailure>(&answer)) {
        log(LogLevel::error, std::string(caller) + " - " + what + ": AI service at " + urlHost(chat_->endpoint()) +
                                 " failed after " + ms + " ms: " + failure->detail);
        return aiFailure(*failure);
    }
    log(LogLevel::info, std::string(caller) + " - " + what + ": " + std::to_string(request.text.size()) +
                            " bytes in, answered in " + ms + " ms, completion: " + std::string(kPrivatized));
    return CompletionPrompts::cleanAnswer(std::get<std::string>(answer));
}

void BackendServer::handleSignInRequest(const httplib::Request& request, httplib::Response& response) {
    if (!request.has_param("email")) {
        api_error::badRequest("Please enter a valid e-mail address.").applyTo(response);
        return;
    }
    auto started = signIn_->request(request.get_param_value("email"), url() + "/auth/confirm?token=");
    if (auto* error = std::get_if<ApiError>(&started)) {
        error->applyTo(response);
        return;
    }
    const auto& ok = std::get<SignInStarted>(started);
    response.set_content(nlohmann::json{{"uuid", ok.uuid}, {"message", ok.message}}.dump(), "application/json");
}

void BackendServer::handleSignInLink(const httplib::Request& request, httplib::Response& response) {
    auto confirmed = signIn_->confirmLink(request.has_param("token") ? request.get_param_value("token") : "");
    if (auto* error = std::get_if<ApiError>(&confirmed)) {
        response.status = error->status;
        response.set_content(htmlPage("Sign-in not possible", error->message), "text/html; charset=utf-8");
        return;
    }
    response.set_content(htmlPage("Sign-in confirmed", "You are now signed in to Sprelio. You can close this page "
                                                       "and return to the application."),
                         "text/html; charset=utf-8");
}

void BackendServer::handleSignInWait(const httplib::Request& request, httplib::Response& response) {
    auto uuid = request.has_param("uuid") ? request.get_param_value("uuid") : "";
    auto answer = signIn_->waitForLink(uuid);
    if (auto* error = std::get_if<ApiError>(&answer)) {
        error->applyTo(response);
        return;
    }
    response.set_content(confirmationJson(std::get<SignInConfirmed>(answer)).dump(), "application/json");
}

void BackendServer::handleSignInCode(const httplib::Request& request, httplib::Response& response) {
    auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object() || !body.contains("uuid") || !body["uuid"].is_string() || !body.contains("code") ||
        !body["code"].is_string()) {
        api_error::badRequest("The body must be a JSON object with the strings uuid and code.").applyTo(response);
        return;
    }
    auto answer = signIn_->submitCode(body["uuid"].get<std::string>(), body["code"].get<std::string>());
    if (auto* error = std::get_if<ApiError>(&answer)) {
        error->applyTo(response);
        return;
    }
    response.set_content(confirmationJson(std::get<SignInConfirmed>(answer)).dump(), "application/json");
}

void BackendServer::handleReport(const httplib::Request& request, httplib::Response& response,
                                 const httplib::ContentReader& reader) {
    auto account = authorize(request, response);
    if (!account) {
        response.set_header("Connection", "close");
        return;
    }
    if (!request.is_multipart_form_data()) {
        refuseBody(response, api_error::badRequest("The report must be multipart/form-data with the parts data, "
                                                   "logs and config."));
        return;
    }
    auto id = Uuid::random().string();
    auto folder = reportFolder() / (id + ".partial");
    std::filesystem::create_directories(folder);
    struct Cleanup {
        std::filesystem::path path;
        ~Cleanup() {
            std::error_code ignored;
            if (!path.empty()) std::filesystem::remove_all(path, ignored);
        }
    } cleanup{folder};

    // The three parts and the name each is stored under; the data part is small JSON, the archives are bounded.
    const std::map<std::string, std::pair<std::string, std::size_t>> kParts = {
        {"data", {"data.json", std::size_t{1024 * 1024}}},
        {"logs", {"logs.zip", config_.maxReportPartBytes}},
        {"config", {"config.zip", config_.maxReportPartBytes}}};
    std::ofstream out;
    std::string current;
    std::size_t written = 0;
    std::set<std::string> seen;
    std::optional<ApiError> refusal;
    bool read = reader(
        [&](const httplib::MultipartFormData& part) {
            out.close();
            auto known = kParts.find(part.name);
            if (known == kParts.end() || !seen.insert(part.name).second) {
                refusal = api_error::badRequest("The report has an unknown or repeated part; it takes data, logs and "
                                                "config once each.");
                return false;
            }
            current = part.name;
            written = 0;
            out.open(folder / known->second.first, std::ios::binary | std::ios::trunc);
            return static_cast<bool>(out);
        },
        [&](const char* data, std::size_t length) {
            written += length;
            if (written > kParts.at(current).second) {
                refusal = api_error::payloadTooLarge(kParts.at(current).second);
                return false;
            }
            out.write(data, static_cast<std::streamsize>(length));
            return static_cast<bool>(out);
        });
    out.close();
    if (!read || refusal) {
        refuseBody(response, refusal.value_or(api_error::badRequest("The report could not be read.")));
        return;
    }
    if (seen.size() != kParts.size()) {
        api_error::badRequest("The report needs the three parts data, logs and config.").applyTo(response);
        return;
    }
    auto data = nlohmann::json::parse(readWholeFile(folder / "data.json"), nullptr, false);
    if (!data.is_object()) {
        api_error::badRequest("The part data of the report is not a JSON object.").applyTo(response);
        return;
    }
    std::ofstream(folder / "received.json")
        << nlohmann::json{{"account", account->guid},
                          {"email", account->email},
                          {"received", static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                                                   .count())}}
               .dump();
    std::filesystem::rename(folder, reportFolder() / id);
    cleanup.path.clear();
    log(LogLevel::info, "BackendServer.handleReport() - problem report " + id + " stored");
    response.set_content(nlohmann::json{{"uuid", id}, {"message", "The report was received."}}.dump(),
                         "application/json");
}

void BackendServer::handleFileUpload(const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
    auto account = authorize(request, response);
    if (!account) {
        response.set_header("Connection", "close");
        return;
    }
    auto uuid = Uuid::parse(request.matches[1].str());
    if (!uuid) {
        refuseBody(response, api_error::badRequest("The file id in the path is not a UUID."));
        return;
    }
    if (request.has_header("Content-Length")) {
        auto length = std::strtoull(request.get_header_value("Content-Length").c_str(), nullptr, 10);
        if (length > config_.maxFileUploadBytes) {
            refuseBody(response, api_error::payloadTooLarge(config_.maxFileUploadBytes));
            return;
        }
    }
    std::filesystem::create_directories(uploadFolder());
    auto name = uuid->string();
    // A slow upload leaves its partial file alone for long stretches; the clean-up must not take it meanwhile.
    auto busy = janitor_->markBusy(name);
    auto partial = uploadFolder() / (name + ".partial");
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    std::uint64_t written = 0;
    bool tooLarge = false;
    bool read = out && reader([&](const char* data, std::size_t length) {
        written += length;
        if (written > config_.maxFileUploadBytes) {
            tooLarge = true;
            return false;
        }
        out.write(data, static_cast<std::streamsize>(length));
        return static_cast<bool>(out);
    });
    out.close();
    if (!read || !out || written == 0) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        refuseBody(response, tooLarge      ? api_error::payloadTooLarge(config_.maxFileUploadBytes)
                             : written == 0 ? api_error::badRequest("The upload is empty.")
                                            : api_error::badRequest("The upload could not be read or stored."));
        return;
    }
    std::filesystem::rename(partial, uploadFolder() / (name + ".upload"));
    std::ofstream(uploadFolder() / (name + ".owner")) << account->id << "\n";
    log(LogLevel::info, "BackendServer.handleFileUpload() - stored " + std::to_string(written) + " bytes as " + name);
    response.set_content(nlohmann::json{{"uuid", name}}.dump(), "application/json");
}

void BackendServer::handleFileTranscribe(const httplib::Request& request, httplib::Response& response) {
    auto account = authorize(request, response);
    if (!account) return;
    auto uuid = Uuid::parse(request.matches[1].str());
    auto name = uuid ? uuid->string() : std::string();
    auto file = uploadFolder() / (name + ".upload");
    // Marked before the file is looked for: from here on the clean-up leaves it be until the stream has ended.
    auto busy = std::make_shared<UploadJanitor::Busy>(janitor_->markBusy(name));
    // Another account's file is as unknown as a missing one.
    std::int64_t owner = -1;
    if (uuid) std::ifstream(uploadFolder() / (name + ".owner")) >> owner;
    if (!uuid || owner != account->id || !std::filesystem::exists(file)) {
        fileNotFound().applyTo(response);
        return;
    }
    const auto& engine = slots_.description();
    auto language = checkTranscriptionQuery(request, response, engine, "BackendServer.handleFileTranscribe()");
    if (!language) return;
    auto acquired = slots_.tryAcquire();
    if (!acquired) {
        api_error::noOnlineFarms().applyTo(response);
        return;
    }
    auto lease = std::make_shared<EngineSlots::Lease>(std::move(*acquired));
    LongFileTranscriber::Options options{*language, config_.fileChunkSeconds, config_.maxAudioSeconds};
    auto accountId = account->id;
    auto folder = uploadFolder();
    response.set_chunked_content_provider(
        "application/x-ndjson",
        [this, lease, busy, options, file, accountId, folder, name](std::size_t, httplib::DataSink& sink) {
            LongFileTranscriber::Outcome outcome;
            try {
                outcome = LongFileTranscriber::run(file, lease->engine(), options, stopping_,
                                                   [&sink](const std::string& line) {
                                                       return sink.write(line.data(), line.size());
                                                   });
            } catch (const EngineError& e) {
                log(LogLevel::error, std::string("BackendServer.handleFileTranscribe() - engine failure: ") + e.what());
                auto line = nlohmann::json{{"error", "EngineUnavailable"},
                                           {"message", "The transcription engine of this server could not be "
                                                       "started."}}.dump() + "\n";
                sink.write(line.data(), line.size());
                outcome = LongFileTranscriber::Outcome::failed;
            }
            if (outcome == LongFileTranscriber::Outcome::transcribed) {
                accounts_.countRequest(accountId);
                // The client uploads again for another try, so a transcribed file is not kept.
                std::error_code ignored;
                std::filesystem::remove(folder / (name + ".upload"), ignored);
                std::filesystem::remove(folder / (name + ".owner"), ignored);
            }
            if (outcome != LongFileTranscriber::Outcome::clientGone) sink.done();
            return outcome != LongFileTranscriber::Outcome::clientGone;
        });
}

} // namespace sprelio::server
