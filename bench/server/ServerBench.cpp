// Figures of sprelio-server: the embedded engine's real-time factor on a 10-second festival clip (decode and
// recognise time over audio duration), and GET /users/info answers per second on loopback with keep-alive.
//
//   ninja -C build-server bench_server && build-server/bench/bench_server
//
// Word error rate, dictation latency and throughput under load: bench/server/measure-server.sh (see there).
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "server/AudioDecoder.h"
#include "server/BackendServer.h"
#include "server/PocketsphinxEngine.h"
#include "platform/test/TemporaryFolder.h"

namespace {

using namespace sprelio::server;

using TempFolder = sprelio::platform::test::TemporaryFolder;

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// About ten seconds of speech at festival's speaking rate.
const char* kClipText =
    "Good morning everyone. Please remember that the meeting about the new project starts at ten o'clock in the "
    "large room on the second floor. Bring your notes and the numbers from last week, and we will decide together "
    "what to do next.";

void BM_EmbeddedEngineRealTimeFactor(benchmark::State& state) {
    TempFolder folder;
    auto textFile = folder.path() / "clip.txt";
    auto wavFile = folder.path() / "clip.wav";
    std::ofstream(textFile) << kClipText << "\n";
    std::string command = "text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o '" + wavFile.string() + "' '" +
                          textFile.string() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        state.SkipWithError("festival's text2wave failed");
        return;
    }
    auto bytes = readFile(wavFile);
    PocketsphinxEngine engine("/usr/share/pocketsphinx/model/en-us");
    double audioSeconds = 0;
    double busySeconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        auto decoded = decodeAudio(bytes, 600);
        auto& audio = std::get<DecodedAudio>(decoded);
        auto transcript = engine.transcribe(audio.samples, "en");
        benchmark::DoNotOptimize(transcript);
        busySeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        audioSeconds += audio.seconds();
    }
    state.counters["audio_s_per_clip"] = audioSeconds / static_cast<double>(state.iterations());
    state.counters["real_time_factor"] = busySeconds / audioSeconds;
}
BENCHMARK(BM_EmbeddedEngineRealTimeFactor)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_UserInfoRequestsPerSecond(benchmark::State& state) {
    TempFolder data;
    ServerConfig config;
    config.port = 0;
    config.dataFolder = data.path();
    BackendServer server(config);
    server.start();
    httplib::Client client("127.0.0.1", server.port());
    client.set_keep_alive(true);
    httplib::Headers headers{{"Authorization", "Bearer " + server.localAccount().token}};
    for (auto _ : state) {
        auto result = client.Get("/users/info?api_version=2&device_id=bench", headers);
        if (!result || result->status != 200) {
            state.SkipWithError("GET /users/info failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    server.stop();
}
BENCHMARK(BM_UserInfoRequestsPerSecond)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

// In ServerMeasurements.cpp: the sub-commands (transcribe, encode-caf, rtf, latency, load).
int runServerMeasurement(int argc, char** argv);

int main(int argc, char** argv) {
    if (int status = runServerMeasurement(argc, argv); status >= 0) return status;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
