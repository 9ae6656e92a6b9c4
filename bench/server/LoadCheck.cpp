// The server under steady load on loopback: 32 clients, each on its own keep-alive connection, for 60 seconds,
// asking for the account (GET /users/info), sending a one-second recording (POST /transcribe) and a long file
// (POST, then GET /transcribe/file/<uuid>) in turn, each again as soon as its last answer is in. The only
// failure a client may see is the documented "NoOnlineFarms" (all engine slots busy); resident memory is read
// after a warm-up and at the end.
//
//   ninja -C build bench_server && build/bench/bench_server --benchmark_filter=LoadCheck
//
// Environment: LOAD_CLIENTS (32), LOAD_SECONDS (60), LOAD_WARMUP_SECONDS (10).
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/Uuid.h"
#include "server/BackendServer.h"
#include "server/OpenAiTranscriptionEngine.h"
#include "platform/test/TemporaryFolder.h"

namespace {

using namespace sprelio::server;
using Clock = std::chrono::steady_clock;

int envInt(const char* name, int fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::atoi(value) : fallback;
}

std::size_t residentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
    return 0;
}

// One second of a quiet tone at 16 kHz: something for the engine to listen to.
std::string recording() {
    std::vector<std::int16_t> samples(16000);
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::int16_t>((i / 8) % 2 ? 800 : -800);
    return OpenAiTranscriptionEngine::wavFile(samples);
}

struct Tally {
    std::mutex mutex;
    std::map<std::string, std::size_t> answers; // "200", "503 NoOnlineFarms", "transport error", ...
    std::vector<double> millis;
    void add(const std::string& kind, double ms) {
        std::lock_guard lock(mutex);
        ++answers[kind];
        millis.push_back(ms);
    }
};

std::string kindOf(const httplib::Result& result) {
    if (!result) return "transport error: " + httplib::to_string(result.error());
    if (result->status == 200) {
        // A long file's stream answers 200 before it knows the outcome; its last line tells.
        auto end = result->body.find_last_not_of('\n');
        auto last = end == std::string::npos ? std::string() : result->body.substr(result->body.rfind('\n', end) + 1);
        auto line = nlohmann::json::parse(last, nullptr, false);
        if (line.is_object() && line.contains("error")) return "200, stream ended with " + line.value("error", "?");
        return "200";
    }
    auto body = nlohmann::json::parse(result->body, nullptr, false);
    return std::to_string(result->status) + " " + (body.is_object() ? body.value("error", "?") : "?");
}

void BM_LoadCheck32Clients(benchmark::State& state) {
    const int clients = envInt("LOAD_CLIENTS", 32);
    const int seconds = envInt("LOAD_SECONDS", 60);
    const int warmup = std::min(seconds / 2, envInt("LOAD_WARMUP_SECONDS", 10));
    sprelio::platform::test::TemporaryFolder data;
    ServerConfig config;
    config.port = 0;
    config.dataFolder = data.path();
    config.fileChunkSeconds = 2;
    BackendServer server(config);
    server.start();
    const std::string token = server.localAccount().token;
    const std::string audio = recording();

    for (auto _ : state) {
        Tally tally;
        std::atomic<bool> measuring{false};
        std::atomic<bool> done{false};
        auto rssStart = residentBytes();
        std::vector<std::thread> threads;
        for (int c = 0; c < clients; ++c) {
            threads.emplace_back([&, c] {
                httplib::Client client("127.0.0.1", server.port());
                client.set_keep_alive(true);
                client.set_read_timeout(120, 0);
                httplib::Headers auth{{"Authorization", "Bearer " + token}};
                for (int i = c; !done; ++i) {
                    auto start = Clock::now();
                    auto result = [&]() -> httplib::Result {
                        switch (i % 4) {
                        case 0:
                            return client.Post("/transcribe?languages=en", auth,
                                               httplib::MultipartFormDataItems{
                                                   {"file", audio, "recording.wav", "application/octet-stream"}});
                        case 1: {
                            auto id = sprelio::Uuid::random().string();
                            auto uploaded =
                                client.Post(("/transcribe/file/" + id).c_str(), auth, audio, "application/octet-stream");
                            // Timed from the upload to the end of the transcription stream.
                            if (!uploaded || uploaded->status != 200) return uploaded;
                            return client.Get(("/transcribe/file/" + id + "?languages=en").c_str(), auth);
                        }
                        default: return client.Get("/users/info", auth);
                        }
                    }();
                    auto ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                    if (measuring) tally.add(kindOf(result), ms);
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::seconds(warmup));
        auto rssWarm = residentBytes();
        measuring = true;
        auto measuredFrom = Clock::now();
        std::vector<std::size_t> samples;
        while (Clock::now() - measuredFrom < std::chrono::seconds(seconds - warmup)) {
            std::this_thread::sleep_for(std::chrono::seconds(5));
            samples.push_back(residentBytes());
        }
        measuring = false;
        done = true;
        for (auto& thread : threads) thread.join();
        auto rssEnd = residentBytes();

        std::sort(tally.millis.begin(), tally.millis.end());
        auto at = [&](double q) {
            return tally.millis.empty() ? 0.0 : tally.millis[static_cast<std::size_t>(q * (tally.millis.size() - 1))];
        };
        std::size_t total = 0, unexpected = 0;
        for (const auto& [kind, count] : tally.answers) {
            total += count;
            bool fine = kind == "200" || kind == "503 NoOnlineFarms";
            if (!fine) unexpected += count;
            std::printf("  %-40s %zu\n", kind.c_str(), count);
        }
        std::size_t peak = samples.empty() ? rssEnd : *std::max_element(samples.begin(), samples.end());
        std::printf("%d clients, %d s (%d s warm-up): %zu answers, %zu unexpected; p50 %.1f ms, p95 %.1f ms\n",
                    clients, seconds, warmup, total, unexpected, at(0.5), at(0.95));
        std::printf("resident memory: start %.1f MB, after warm-up %.1f MB, peak while measured %.1f MB, end %.1f MB\n",
                    static_cast<double>(rssStart) / 1048576, static_cast<double>(rssWarm) / 1048576,
                    static_cast<double>(peak) / 1048576, static_cast<double>(rssEnd) / 1048576);
        state.counters["answers"] = static_cast<double>(total);
        state.counters["unexpected"] = static_cast<double>(unexpected);
        state.counters["p50_ms"] = at(0.5);
        state.counters["p95_ms"] = at(0.95);
        state.counters["rss_warm_MB"] = static_cast<double>(rssWarm) / 1048576;
        state.counters["rss_end_MB"] = static_cast<double>(rssEnd) / 1048576;
        if (unexpected > 0) state.SkipWithError("answers other than 200 and NoOnlineFarms");
    }
    server.stop();
}
BENCHMARK(BM_LoadCheck32Clients)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

} // namespace
