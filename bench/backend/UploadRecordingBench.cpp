// The recording upload's own cost on loopback for a 60-second recording (about 120 KB of CAF): from the
// uploadRecording call to the first byte of the POST at the server (endpoint pick, latency probe, body built from
// the file on a worker, request handed to the transport), and from the last byte of the answer to the completion.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "BenchDoubles.h"
#include "backend/BalancingManager.h"
#include "backend/HttpAudioUploadManager.h"
#include "backend/ScriptedServer.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManager.h"
#include "base/Log.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

using namespace std::chrono_literals;
namespace platform = sprelio::platform;

namespace {

using sprelio::bench::CountingSink;
using sprelio::bench::NoHistory;
using sprelio::bench::NoToasts;

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * double(values.size() - 1) + 0.5)];
}

} // namespace

int runUploadRecordingBench() {
    CountingSink sink;
    sprelio::setLogSink(&sink);
    platform::test::TestPlatform tp;
    platform::RealTimeLoop loop;
    platform::ThreadWorkerPool workers{2};
    platform::SystemClock clock;
    platform::CurlHttpClient http(loop);
    sprelio::store::AppConstants constants(tp);
    sprelio::store::MemorySettingsStore store;
    sprelio::store::Settings settings(store, constants);
    settings.setToken(std::string("bench-token"));
    sprelio::AppStateRealtimeMirror mirror;
    sprelio::AppState appState(mirror);
    NoToasts toasts;
    sprelio::MessageCenter messages(platform::Platform{loop, workers, clock, tp, tp, tp, tp, tp, tp, tp}, settings,
                                    appState, toasts, "Sprelio");
    NoHistory history;
    sprelio::BalancingManager balancing(loop, clock, settings, appState, "Sprelio");
    sprelio::backendtest::ScriptedServer server;
    balancing.setBalancers({std::make_shared<sprelio::BackendBalancer>("BENCH", "bench", server.url(""))});
    sprelio::backendtest::Script answer;
    answer.body = R"({"text":"a transcript of a minute of speech","language":"en"})";
    server.script("/transcribe", answer);

    sprelio::HttpAudioUploadManager manager(sprelio::HttpAudioUploadManager::Dependencies{
        loop, workers, clock, http, balancing, appState, settings, constants, history, messages, {}, nullptr, {}});

    std::string pattern = (std::filesystem::temp_directory_path() / "sprelio-upload-bench-XXXXXX").string();
    const std::filesystem::path folder = ::mkdtemp(pattern.data());
    const auto recording = folder / "rec_20240501-120000-000.caf";
    {
        std::mt19937 random(7);
        std::string data(120 * 1024, '\0');
        for (auto& c : data) c = static_cast<char>(random());
        std::ofstream(recording, std::ios::binary) << data;
    }

    constexpr int kWarmup = 10;
    constexpr int kRounds = 200;
    std::vector<double> toFirstByte, toCompletion;
    for (int i = 0; i < kWarmup + kRounds; ++i) {
        bool done = false;
        bool ok = false;
        std::chrono::steady_clock::time_point completedAt;
        const auto calledAt = std::chrono::steady_clock::now();
        manager.uploadRecording(recording, sprelio::Uuid::random(),
                                [&](std::optional<nlohmann::json> result, std::optional<int> status,
                                    std::optional<sprelio::Error>) {
                                    completedAt = std::chrono::steady_clock::now();
                                    ok = result.has_value() && status == 200;
                                    done = true;
                                },
                                nullptr, "en", false, std::nullopt, std::nullopt);
        if (!loop.runUntil([&] { return done; }, 60s) || !ok) {
            std::fprintf(stderr, "round %d failed\n", i);
            std::filesystem::remove_all(folder);
            sprelio::setLogSink(nullptr);
            return 1;
        }
        if (i < kWarmup) continue;
        sprelio::backendtest::RecordedRequest upload;
        for (const auto& request : server.requests()) {
            if (request.method == "POST") upload = request;
        }
        toFirstByte.push_back(std::chrono::duration<double, std::micro>(upload.firstByteAt - calledAt).count());
        toCompletion.push_back(std::chrono::duration<double, std::micro>(completedAt - upload.answeredAt).count());
    }
    // Let the latency probes of the last rounds finish before the server goes away.
    loop.runUntil([] { return false; }, 100ms);
    std::filesystem::remove_all(folder);
    std::printf("uploadRecording, 120 KB CAF, %d rounds on loopback (%ld log lines):\n", kRounds, sink.lines.load());
    std::printf("  uploadRecording call -> first request byte at the server: p50 %.0f us, p95 %.0f us\n",
                percentile(toFirstByte, 0.5), percentile(toFirstByte, 0.95));
    std::printf("  last answer byte -> completion: p50 %.0f us, p95 %.0f us\n", percentile(toCompletion, 0.5),
                percentile(toCompletion, 0.95));
    sprelio::setLogSink(nullptr);
    return 0;
}
