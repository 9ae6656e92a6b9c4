// Measurements of sprelio-server that need real speech: the tools behind bench/server/measure-server.sh (word error
// rate with sclite, real-time factor, dictation latency, throughput under 16 clients). Each is a sub-command of
// bench_server; without one, bench_server runs its Google benchmarks.
//
//   bench_server transcribe [--url URL --token-file FILE] AUDIO...
//       POST /transcribe of each file, one line "<text> (<file name without extension>)" each, the hypothesis
//       format of sclite. Without --url the server runs in this process on a free loopback port.
//   bench_server encode-caf IN OUT.caf
//       IN (any audio FFmpeg reads) as a recording of the application: 16 kHz mono Opus, 16 kbit/s, 20 ms, in CAF.
//   bench_server rtf [--repeat N] AUDIO...
//       decoding and recognition time over audio time, wall clock and CPU.
//   bench_server latency [--runs N]
//       a 5-second festival dictation through the application's upload client to the server on loopback.
//   bench_server load [--clients N] [--dictations K] [--slots N] [--threads N] [--busy-pause-ms MS]
//       N clients start together and each has the 5-second dictation transcribed K times, back to back; a
//       request answered "NoOnlineFarms" is sent again (at once, or after MS). Transcriptions and
//       "NoOnlineFarms" answers are counted apart; throughput is transcriptions over the time until all are done.
#include <httplib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "BenchDoubles.h"
#include "TimingRelay.h"
#include "audio/CafOpusWriter.h"
#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "base/Log.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/test/TestPlatform.h"
#include "server/AudioDecoder.h"
#include "server/BackendServer.h"
#include "server/PocketsphinxEngine.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

namespace platform = sprelio::platform;
using namespace std::chrono_literals;

namespace {

using sprelio::bench::NoHistory;
using sprelio::bench::NoToasts;

using sprelio::server::BackendServer;
using sprelio::server::ServerConfig;
using Clock = std::chrono::steady_clock;
using TempFolder = platform::test::TemporaryFolder;

// About five seconds of speech with festival's US voice: the length of a typical dictation.
constexpr const char* kDictation =
    "Please move the team meeting to Thursday afternoon and send the new agenda to everyone.";
constexpr const char* kModelFolder = "/usr/share/pocketsphinx/model/en-us";
constexpr const char* kQuery = "/transcribe?app=linux-bench&languages=en&os=Linux&diarization=false";

struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> files;

    std::string get(const std::string& name, const std::string& fallback) const {
        auto found = options.find(name);
        return found == options.end() ? fallback : found->second;
    }
    long number(const std::string& name, long fallback) const {
        auto found = options.find(name);
        return found == options.end() ? fallback : std::stol(found->second);
    }
};

Arguments parseArguments(int argc, char** argv, int first) {
    Arguments arguments;
    for (int i = first; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) == 0 && i + 1 < argc) {
            arguments.options[word.substr(2)] = argv[++i];
        } else {
            arguments.files.push_back(word);
        }
    }
    return arguments;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

double cpuSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double millis(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5)];
}

std::string p50p95(const std::vector<double>& values) {
    if (values.empty()) return "n/a";
    char text[64];
    std::snprintf(text, sizeof text, "p50 %8.1f  p95 %8.1f", percentile(values, 0.5), percentile(values, 0.95));
    return text;
}

// The server's own account of each transcription: its log line after recognition ("decoded in N ms, recognised
// in M ms") and the access line (routing to the last answer byte). Everything else is counted and dropped.
class ServerLogCapture final : public sprelio::LogSink {
public:
    struct Transcription {
        double decodeMs = -1;
        double recogniseMs = -1;
    };

    void log(sprelio::LogLevel level, std::string message) override {
        std::lock_guard lock(mutex_);
        if (message.rfind("BackendServer.handleTranscribe()", 0) == 0 && message.find("decoded in ") != std::string::npos) {
            Transcription entry;
            entry.decodeMs = numberAfter(message, "decoded in ");
            entry.recogniseMs = numberAfter(message, "recognised in ");
            transcriptions_.push_back(entry);
        } else if (message.rfind("BackendServer.access()", 0) == 0 && message.find(" path=/transcribe ") != std::string::npos) {
            handlerMs_.push_back(numberAfter(message, "duration_ms="));
        } else if (level >= sprelio::LogLevel::warning && message.find("answering NoOnlineFarms") == std::string::npos) {
            std::fprintf(stderr, "log: %s\n", message.c_str());
        }
        changed_.notify_all();
    }

    void clear() {
        std::lock_guard lock(mutex_);
        transcriptions_.clear();
        handlerMs_.clear();
    }
    // The access line is written after the answer, so it may come after the client's completion.
    bool waitForAccessLines(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 2s, [&] { return handlerMs_.size() >= count; });
    }
    std::vector<Transcription> transcriptions() const {
        std::lock_guard lock(mutex_);
        return transcriptions_;
    }
    std::vector<double> handlerMs() const {
        std::lock_guard lock(mutex_);
        return handlerMs_;
    }

private:
    static double numberAfter(const std::string& text, const std::string& label) {
        auto at = text.find(label);
        if (at == std::string::npos) return -1;
        try {
            return std::stod(text.substr(at + label.size()));
        } catch (const std::exception&) {
            return -1;
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Transcription> transcriptions_;
    std::vector<double> handlerMs_;
};

struct InProcessServer {
    TempFolder data{"sprelio-serverbench"};
    std::unique_ptr<BackendServer> server;

    explicit InProcessServer(std::size_t slots = 0, std::size_t threads = 0) {
        ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.dataFolder = data.path();
        config.modelFolder = kModelFolder;
        if (slots > 0) config.engineSlots = slots;
        if (threads > 0) config.workerThreads = threads;
        server = std::make_unique<BackendServer>(config);
        server->start();
    }
    ~InProcessServer() { server->stop(); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(server->port()); }
    std::string token() const { return server->localAccount().token; }
    // Loads every slot's model now, so that no measured request pays for it.
    void warmEngines() {
        std::vector<sprelio::server::EngineSlots::Lease> leases;
        while (auto lease = server->engineSlots().tryAcquire()) leases.push_back(std::move(*lease));
        for (auto& lease : leases) lease.engine();
    }
};

httplib::Result postAudio(httplib::Client& client, const std::string& token, const std::string& fileName,
                          const std::string& bytes) {
    httplib::MultipartFormDataItems items{{"file", bytes, fileName, "application/octet-stream"}};
    httplib::Headers headers{{"Authorization", "Bearer " + token}};
    return client.Post(kQuery, headers, items);
}

std::optional<sprelio::server::DecodedAudio> decodeFile(const std::filesystem::path& path) {
    auto decoded = sprelio::server::decodeAudio(readFile(path), 3600);
    if (auto* failure = std::get_if<sprelio::server::DecodeFailure>(&decoded)) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), failure->message.c_str());
        return std::nullopt;
    }
    return std::get<sprelio::server::DecodedAudio>(std::move(decoded));
}

// The recorder's encoding: its writer with the encoder settings it uses (16 kHz mono, 16 kbit/s hard CBR, 20 ms).
bool encodeRecording(const std::filesystem::path& in, const std::filesystem::path& out) {
    auto audio = decodeFile(in);
    if (!audio) return false;
    std::vector<float> samples(audio->samples.size());
    std::transform(audio->samples.begin(), audio->samples.end(), samples.begin(),
                   [](std::int16_t s) { return static_cast<float>(s) / 32768.0f; });
    try {
        sprelio::CafOpusWriter writer;
        writer.open(out, sprelio::OpusEncoder::Settings{});
        writer.appendSamples(samples.data(), samples.size());
        writer.finish();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", out.c_str(), e.what());
        return false;
    }
    return true;
}

// The dictation of the latency and load runs: festival's speech, recorded the way the application records.
std::optional<std::filesystem::path> makeDictation(const std::filesystem::path& folder) {
    auto textFile = folder / "dictation.txt";
    auto wavFile = folder / "dictation.wav";
    std::ofstream(textFile) << kDictation << "\n";
    std::string command = "text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o '" + wavFile.string() + "' '" +
                          textFile.string() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0 || !std::filesystem::exists(wavFile)) {
        std::fprintf(stderr, "festival's text2wave failed\n");
        return std::nullopt;
    }
    auto caf = folder / "rec_20240501-120000-000.caf";
    if (!encodeRecording(wavFile, caf)) return std::nullopt;
    return caf;
}

// ---- transcribe ----

int runTranscribe(const Arguments& arguments) {
    std::optional<InProcessServer> local;
    std::string url = arguments.get("url", "");
    std::string token;
    if (url.empty()) {
        local.emplace();
        url = local->url();
        token = local->token();
    } else {
        token = readFile(arguments.get("token-file", ""));
        while (!token.empty() && std::isspace(static_cast<unsigned char>(token.back()))) token.pop_back();
    }
    httplib::Client client(url);
    client.set_read_timeout(300, 0);
    for (const auto& file : arguments.files) {
        std::filesystem::path path(file);
        auto result = postAudio(client, token, path.filename().string(), readFile(path));
        if (!result) {
            std::fprintf(stderr, "%s: no answer (%s)\n", file.c_str(), httplib::to_string(result.error()).c_str());
            return 1;
        }
        auto answer = nlohmann::json::parse(result->body, nullptr, false);
        if (result->status != 200 || !answer.is_object() || !answer.contains("text")) {
            std::fprintf(stderr, "%s: HTTP %d %s\n", file.c_str(), result->status, result->body.c_str());
            return 1;
        }
        std::printf("%s (%s)\n", answer["text"].get<std::string>().c_str(), path.stem().c_str());
        std::fflush(stdout);
    }
    return 0;
}

// ---- rtf ----

int runRealTimeFactor(const Arguments& arguments) {
    const long repeat = std::max(1L, arguments.number("repeat", 3));
    struct Clip {
        std::string name;
        std::string bytes;
        double audioSeconds = 0;
    };
    std::vector<Clip> clips;
    for (const auto& file : arguments.files) {
        auto audio = decodeFile(file);
        if (!audio) return 1;
        clips.push_back({std::filesystem::path(file).filename().string(), readFile(file), audio->seconds()});
    }
    if (clips.empty()) {
        std::fprintf(stderr, "rtf: no audio files given\n");
        return 2;
    }
    sprelio::server::PocketsphinxEngine engine(kModelFolder);
    {
        // The first utterance of a fresh decoder is not representative (lazy allocations).
        auto audio = std::get<sprelio::server::DecodedAudio>(sprelio::server::decodeAudio(clips.front().bytes, 3600));
        engine.transcribe(audio.samples, "en");
    }
    std::printf("%-48s %8s %10s %10s %10s %8s %8s\n", "clip", "audio s", "decode ms", "engine ms", "engine cpu",
                "RTF", "RTF cpu");
    double audioTotal = 0, decodeTotal = 0, wallTotal = 0, cpuTotal = 0;
    for (const auto& clip : clips) {
        double decodeWall = 0, engineWall = 0, engineCpu = 0;
        for (long r = 0; r < repeat; ++r) {
            auto start = Clock::now();
            auto decoded = sprelio::server::decodeAudio(clip.bytes, 3600);
            auto& audio = std::get<sprelio::server::DecodedAudio>(decoded);
            auto decodedAt = Clock::now();
            double cpuStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            auto transcript = engine.transcribe(audio.samples, "en");
            double cpuEnd = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
            auto end = Clock::now();
            decodeWall += millis(decodedAt - start);
            engineWall += millis(end - decodedAt);
            engineCpu += (cpuEnd - cpuStart) * 1000;
        }
        decodeWall /= static_cast<double>(repeat);
        engineWall /= static_cast<double>(repeat);
        engineCpu /= static_cast<double>(repeat);
        std::printf("%-48s %8.2f %10.1f %10.1f %10.1f %8.3f %8.3f\n", clip.name.c_str(), clip.audioSeconds, decodeWall,
                    engineWall, engineCpu, engineWall / 1000 / clip.audioSeconds, engineCpu / 1000 / clip.audioSeconds);
        audioTotal += clip.audioSeconds;
        decodeTotal += decodeWall;
        wallTotal += engineWall;
        cpuTotal += engineCpu;
    }
    std::printf("%-48s %8.2f %10.1f %10.1f %10.1f %8.3f %8.3f\n", "all clips (mean of each clip's runs)", audioTotal,
                decodeTotal, wallTotal, cpuTotal, wallTotal / 1000 / audioTotal, cpuTotal / 1000 / audioTotal);
    std::printf("real-time factor (engine): wall %.3f, CPU %.3f; with FFmpeg decoding: wall %.3f  [%ld run(s) per clip]\n",
                wallTotal / 1000 / audioTotal, cpuTotal / 1000 / audioTotal,
                (wallTotal + decodeTotal) / 1000 / audioTotal, repeat);
    return 0;
}

// ---- latency ----

int runLatency(const Arguments& arguments) {
    const long runs = std::max(3L, arguments.number("runs", 20));
    TempFolder folder{"sprelio-latency"};
    auto recording = makeDictation(folder.path());
    if (!recording) return 1;
    auto audio = decodeFile(*recording);
    if (!audio) return 1;

    ServerLogCapture capture;
    sprelio::setLogSink(&capture);
    InProcessServer server;
    sprelio::server::bench::TimingRelay relay(server.server->port());

    platform::test::TestPlatform tp;
    platform::RealTimeLoop loop;
    platform::ThreadWorkerPool workers{2};
    platform::SystemClock clock;
    platform::CurlHttpClient http(loop);
    sprelio::store::AppConstants constants(tp);
    sprelio::store::MemorySettingsStore store;
    sprelio::store::Settings settings(store, constants);
    settings.setToken(server.token());
    sprelio::AppStateRealtimeMirror mirror;
    sprelio::AppState appState(mirror);
    NoToasts toasts;
    sprelio::MessageCenter messages(platform::Platform{loop, workers, clock, tp, tp, tp, tp, tp, tp, tp}, settings,
                                    appState, toasts, "Sprelio");
    NoHistory history;
    sprelio::BalancingManager balancing(loop, clock, settings, appState, "Sprelio");
    sprelio::HttpAudioUploadManager manager(sprelio::HttpAudioUploadManager::Dependencies{
        loop, workers, clock, http, balancing, appState, settings, constants, history, messages, {}, nullptr, {}});

    struct Round {
        Clock::time_point calledAt, completedAt;
        std::string text;
    };
    auto dictate = [&](const std::string& url) -> std::optional<Round> {
        balancing.setBalancers({std::make_shared<sprelio::BackendBalancer>("BENCH", "bench", url)});
        Round round;
        bool done = false, ok = false;
        round.calledAt = Clock::now();
        manager.uploadRecording(*recording, sprelio::Uuid::random(),
                                [&](std::optional<nlohmann::json> result, std::optional<int> status,
                                    std::optional<sprelio::Error>) {
                                    round.completedAt = Clock::now();
                                    ok = result && status == 200 && result->contains("text");
                                    if (ok) round.text = (*result)["text"].get<std::string>();
                                    done = true;
                                },
                                nullptr, "en", false, std::nullopt, std::nullopt);
        if (!loop.runUntil([&] { return done; }, 120s) || !ok) return std::nullopt;
        return round;
    };

    std::printf("dictation: %.2f s of festival speech as %s, %zu bytes (%s/%s)\n", audio->seconds(),
                recording->filename().c_str(), static_cast<std::size_t>(std::filesystem::file_size(*recording)),
                audio->formatName.c_str(), audio->codecName.c_str());
    std::printf("server: in this process, %zu engine slot(s), %zu worker threads; client: HttpAudioUploadManager over "
                "CurlHttpClient\n",
                server.server->config().engineSlots, server.server->config().workerThreads);

    // The first request of a fresh server loads the model in its slot.
    auto cold = dictate(server.url());
    if (!cold) {
        std::fprintf(stderr, "the first dictation failed\n");
        sprelio::setLogSink(nullptr);
        return 1;
    }
    std::printf("first request of a fresh server (model load included): %.1f ms, text: \"%s\"\n",
                millis(cold->completedAt - cold->calledAt), cold->text.c_str());
    for (int i = 0; i < 2; ++i) dictate(server.url());

    std::vector<double> direct;
    for (long i = 0; i < runs; ++i) {
        auto round = dictate(server.url());
        if (!round) {
            std::fprintf(stderr, "dictation %ld failed\n", i);
            sprelio::setLogSink(nullptr);
            return 1;
        }
        direct.push_back(millis(round->completedAt - round->calledAt));
    }

    // The same through the relay, which tells when the bytes passed.
    capture.waitForAccessLines(static_cast<std::size_t>(3 + runs));
    capture.clear();
    std::vector<double> relayed, beforeSend, requestWire, serverTime, answerWire, afterAnswer, handler, decode, recognise;
    for (long i = 0; i < runs; ++i) {
        relay.clear();
        auto round = dictate("http://127.0.0.1:" + std::to_string(relay.port()));
        if (!round) {
            std::fprintf(stderr, "relayed dictation %ld failed\n", i);
            sprelio::setLogSink(nullptr);
            return 1;
        }
        capture.waitForAccessLines(static_cast<std::size_t>(i + 1));
        auto exchange = relay.find("POST /transcribe", round->calledAt);
        if (!exchange) {
            std::fprintf(stderr, "relayed dictation %ld: the POST was not seen at the relay\n", i);
            continue;
        }
        relayed.push_back(millis(round->completedAt - round->calledAt));
        beforeSend.push_back(millis(exchange->requestFirstByte - round->calledAt));
        requestWire.push_back(millis(exchange->requestLastByte - exchange->requestFirstByte));
        serverTime.push_back(millis(exchange->answerFirstByte - exchange->requestLastByte));
        answerWire.push_back(millis(exchange->answerLastByte - exchange->answerFirstByte));
        afterAnswer.push_back(millis(round->completedAt - exchange->answerLastByte));
    }
    for (const auto& entry : capture.transcriptions()) {
        if (entry.decodeMs >= 0) decode.push_back(entry.decodeMs);
        if (entry.recogniseMs >= 0) recognise.push_back(entry.recogniseMs);
    }
    handler = capture.handlerMs();
    sprelio::setLogSink(nullptr);

    std::printf("\n%ld dictations each, milliseconds:\n", runs);
    std::printf("  %-62s %s\n", "end to end, uploadRecording call -> completion", p50p95(direct).c_str());
    std::printf("  %-62s %s\n", "end to end through the timing relay", p50p95(relayed).c_str());
    std::printf("  split (relayed runs):\n");
    std::printf("  %-62s %s\n", "client: call -> first request byte on the wire", p50p95(beforeSend).c_str());
    std::printf("  %-62s %s\n", "upload: first -> last request byte", p50p95(requestWire).c_str());
    std::printf("  %-62s %s\n", "server: last request byte -> first answer byte", p50p95(serverTime).c_str());
    std::printf("  %-62s %s\n", "  of which FFmpeg decoding (server log, whole ms)", p50p95(decode).c_str());
    std::printf("  %-62s %s\n", "  of which recognition (server log, whole ms)", p50p95(recognise).c_str());
    std::printf("  %-62s %s\n", "answer: first -> last answer byte", p50p95(answerWire).c_str());
    std::printf("  %-62s %s\n", "client: last answer byte -> completion", p50p95(afterAnswer).c_str());
    std::printf("  %-62s %s\n", "server access log: routing -> answer written", p50p95(handler).c_str());
    return 0;
}

// ---- load ----

int runLoad(const Arguments& arguments) {
    const long clients = std::max(1L, arguments.number("clients", 16));
    const long dictations = std::max(1L, arguments.number("dictations", 3));
    // 0: a client turned away asks again at once, the harshest case; a pause stands for a user trying again.
    const auto busyPause = std::chrono::milliseconds(std::max(0L, arguments.number("busy-pause-ms", 0)));
    const auto deadline = Clock::now() + std::chrono::seconds(std::max(1L, arguments.number("max-seconds", 1800)));
    TempFolder folder{"sprelio-load"};
    auto recording = makeDictation(folder.path());
    if (!recording) return 1;
    const std::string bytes = readFile(*recording);
    const std::string fileName = recording->filename().string();

    ServerLogCapture capture;
    sprelio::setLogSink(&capture);
    InProcessServer server(static_cast<std::size_t>(arguments.number("slots", 0)),
                           static_cast<std::size_t>(arguments.number("threads", 0)));
    server.warmEngines();
    const std::string token = server.token();
    const std::string url = server.url();

    struct ClientFigures {
        std::vector<double> transcribedMs;  // the request that got the text
        std::vector<double> busyMs;         // requests answered "NoOnlineFarms"
        std::vector<double> dictationMs;    // first attempt of a dictation to its text, retries included
        std::map<std::string, long> failures;
    };
    std::vector<ClientFigures> figures(static_cast<std::size_t>(clients));
    std::barrier start(clients + 1);
    std::vector<std::thread> threads;
    for (long c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            httplib::Client client(url);
            client.set_keep_alive(true);
            client.set_read_timeout(600, 0);
            auto& mine = figures[static_cast<std::size_t>(c)];
            start.arrive_and_wait();
            for (long d = 0; d < dictations && Clock::now() < deadline; ++d) {
                const auto firstAttempt = Clock::now();
                while (Clock::now() < deadline) {
                    const auto sent = Clock::now();
                    auto result = postAudio(client, token, fileName, bytes);
                    const auto answered = Clock::now();
                    std::string error;
                    if (!result) {
                        error = "transport: " + httplib::to_string(result.error());
                    } else {
                        auto json = nlohmann::json::parse(result->body, nullptr, false);
                        if (result->status == 200 && json.is_object() && json.contains("text")) {
                            mine.transcribedMs.push_back(millis(answered - sent));
                            mine.dictationMs.push_back(millis(answered - firstAttempt));
                            break;
                        }
                        error = json.is_object() && json.contains("error") && json["error"].is_string()
                                    ? json["error"].get<std::string>()
                                    : "HTTP " + std::to_string(result->status);
                    }
                    if (error != "NoOnlineFarms") {
                        ++mine.failures[error];
                        break;
                    }
                    mine.busyMs.push_back(millis(answered - sent));
                    if (busyPause.count() > 0) std::this_thread::sleep_for(busyPause);
                }
            }
        });
    }
    double loadBefore[3] = {0, 0, 0};
    getloadavg(loadBefore, 3);
    start.arrive_and_wait();
    const auto began = Clock::now();
    const double cpuBegan = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
    for (auto& thread : threads) thread.join();
    const double wall = std::chrono::duration<double>(Clock::now() - began).count();
    const double cpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpuBegan;
    sprelio::setLogSink(nullptr);

    ClientFigures all;
    for (const auto& mine : figures) {
        all.transcribedMs.insert(all.transcribedMs.end(), mine.transcribedMs.begin(), mine.transcribedMs.end());
        all.busyMs.insert(all.busyMs.end(), mine.busyMs.begin(), mine.busyMs.end());
        all.dictationMs.insert(all.dictationMs.end(), mine.dictationMs.begin(), mine.dictationMs.end());
        for (const auto& [error, count] : mine.failures) all.failures[error] += count;
    }
    long failed = 0;
    for (const auto& [error, count] : all.failures) failed += count;
    const auto& config = server.server->config();
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    std::printf("load: %ld clients at once, %ld dictations each (%s, %zu bytes), turned-away requests asked again "
                "after %lld ms; server in this process with %zu engine slot(s), %zu worker threads; load average "
                "before %.2f\n",
                clients, dictations, fileName.c_str(), bytes.size(), static_cast<long long>(busyPause.count()),
                config.engineSlots, config.workerThreads, loadBefore[0]);
    std::printf("  all done in %.1f s; process CPU %.1f s (%.0f%% of %ld cores)\n", wall, cpu,
                100.0 * cpu / wall / static_cast<double>(cores), cores);
    std::printf("  transcriptions   %6zu  %7.3f /s   request ms   %s\n", all.transcribedMs.size(),
                static_cast<double>(all.transcribedMs.size()) / wall, p50p95(all.transcribedMs).c_str());
    std::printf("  NoOnlineFarms    %6zu  %7.3f /s   request ms   %s\n", all.busyMs.size(),
                static_cast<double>(all.busyMs.size()) / wall, p50p95(all.busyMs).c_str());
    std::printf("  dictations, first attempt to text (retries included): ms %s\n", p50p95(all.dictationMs).c_str());
    std::printf("  other failures   %6ld\n", failed);
    for (const auto& [error, count] : all.failures) std::printf("    %s: %ld\n", error.c_str(), count);
    const bool complete = static_cast<long>(all.dictationMs.size()) == clients * dictations;
    if (!complete) std::printf("  NOT COMPLETE: %zu of %ld dictations got their text\n", all.dictationMs.size(),
                               clients * dictations);
    return complete && failed == 0 ? 0 : 1;
}

} // namespace

// Called by main() in ServerBench.cpp; -1: not one of these sub-commands.
int runServerMeasurement(int argc, char** argv) {
    if (argc < 2) return -1;
    const std::string command = argv[1];
    auto arguments = parseArguments(argc, argv, 2);
    try {
        if (command == "transcribe") return runTranscribe(arguments);
        if (command == "encode-caf") {
            if (arguments.files.size() != 2) {
                std::fprintf(stderr, "usage: bench_server encode-caf IN OUT.caf\n");
                return 2;
            }
            return encodeRecording(arguments.files[0], arguments.files[1]) ? 0 : 1;
        }
        if (command == "rtf") return runRealTimeFactor(arguments);
        if (command == "latency") return runLatency(arguments);
        if (command == "load") return runLoad(arguments);
    } catch (const std::exception& e) {
        sprelio::setLogSink(nullptr);
        std::fprintf(stderr, "bench_server %s: %s\n", command.c_str(), e.what());
        return 1;
    }
    return -1;
}
