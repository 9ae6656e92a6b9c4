// The transport's own cost on loopback, and its memory while a huge file part is uploaded.
// Prints: send -> first request byte at the server, last answer byte -> completion (p50/p95), and the peak
// resident memory of the process around a 1 GB streamed file part; then the recording upload's figures and the
// long-file upload's (digest and uploadFile of a 1 GB file, in a process of its own).
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "backend/MultipartBody.h"
#include "backend/ScriptedServer.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TemporaryFolder.h"

using namespace std::chrono_literals;
using sprelio::MultipartBody;
using sprelio::backendtest::Script;
using sprelio::backendtest::ScriptedServer;
namespace platform = sprelio::platform;

namespace {

long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * double(values.size() - 1) + 0.5);
    return values[index];
}

using TempFolder = sprelio::platform::test::TemporaryFolder;

bool post(platform::RealTimeLoop& loop, platform::CurlHttpClient& client, const std::string& url,
          const MultipartBody& body, std::chrono::steady_clock::time_point* sentAt,
          std::chrono::steady_clock::time_point* completedAt) {
    platform::HttpRequest request;
    request.method = "POST";
    request.url = url;
    request.headers = {{"Authorization", "Bearer bench"}, {"Content-Type", body.contentType()}};
    request.body = body.body();
    request.timeout = 120s;
    bool ok = false;
    bool done = false;
    *sentAt = std::chrono::steady_clock::now();
    client.send(std::move(request), [&](platform::HttpResult result) {
        *completedAt = std::chrono::steady_clock::now();
        ok = std::holds_alternative<platform::HttpResponse>(result) &&
             std::get<platform::HttpResponse>(result).status == 200;
        if (!ok && std::holds_alternative<sprelio::Error>(result)) {
            std::fprintf(stderr, "error: %s\n", std::get<sprelio::Error>(result).debugDescription().c_str());
        }
        done = true;
    });
    return loop.runUntil([&] { return done; }, 600s) && ok;
}

} // namespace

// In UploadRecordingBench.cpp.
int runUploadRecordingBench();
// In FileUploadBench.cpp; must run before this process starts any thread.
int runFileUploadBench(std::uint64_t fileBytes);

namespace {

// The long-file bench in a process of its own: it forks its server before any thread exists, and its peak memory
// must not include what this process has used.
int runFileUploadBenchProcess() {
    char self[] = "/proc/self/exe";
    char mode[] = "--file";
    char* arguments[] = {self, mode, nullptr};
    std::fflush(stdout);
    pid_t child = 0;
    if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments, environ) != 0) {
        std::perror("posix_spawn");
        return 1;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char** argv) {
    // "--upload": only the recording upload's figures, without the transport's 1 GB run.
    if (argc > 1 && std::string(argv[1]) == "--upload") return runUploadRecordingBench();
    // "--file [MiB]": only the long-file upload (1024 MiB unless given).
    if (argc > 1 && std::string(argv[1]) == "--file") {
        const std::uint64_t mebibytes = argc > 2 ? std::stoull(argv[2]) : 1024;
        return runFileUploadBench(mebibytes * 1024 * 1024);
    }
    platform::RealTimeLoop loop;
    ScriptedServer server;
    platform::CurlHttpClient client(loop);
    TempFolder folder;
    Script discard;
    discard.discardBody = true;
    discard.body = R"({"text":"<privatized>","language":"en"})";
    server.scriptDefault(discard);

    // ---- Peak memory while a 1 GB sparse file goes out as a multipart file part ----
    {
        const auto huge = folder.path() / "huge.caf";
        { std::ofstream(huge, std::ios::binary); }
        std::filesystem::resize_file(huge, 1024ull * 1024ull * 1024ull);
        MultipartBody body("----Boundary-BENCH");
        body.addFile("file", "huge.caf", "application/octet-stream", huge);
        const long before = peakResidentKiB();
        std::chrono::steady_clock::time_point sentAt, completedAt;
        const bool ok = post(loop, client, server.url("/transcribe"), body, &sentAt, &completedAt);
        const long after = peakResidentKiB();
        const auto received = server.requests().back().bodySize;
        std::filesystem::remove(huge);
        std::printf("1 GB streamed file part: %s, %zu body bytes at the server in %.2f s\n", ok ? "ok" : "FAILED",
                    received, std::chrono::duration<double>(completedAt - sentAt).count());
        std::printf("  peak RSS (VmHWM) before: %ld KiB, after: %ld KiB, growth: %ld KiB\n", before, after,
                    after - before);
    }

    // ---- Client overhead for a recording-sized upload (about 120 KB, a 60-second recording) ----
    const auto recording = folder.path() / "rec.caf";
    {
        std::mt19937 random(1);
        std::string data(120 * 1024, '\0');
        for (auto& c : data) c = static_cast<char>(random());
        std::ofstream(recording, std::ios::binary) << data;
    }
    MultipartBody body("----Boundary-BENCH-SMALL");
    body.addFile("file", "rec.caf", "application/octet-stream", recording);
    body.addBytes("ai", std::nullopt, "application/json", R"({"prompt_id":"x"})");

    constexpr int kWarmup = 10;
    constexpr int kRounds = 200;
    std::vector<double> toFirstByte, toCompletion;
    for (int i = 0; i < kWarmup + kRounds; ++i) {
        std::chrono::steady_clock::time_point sentAt, completedAt;
        if (!post(loop, client, server.url("/transcribe"), body, &sentAt, &completedAt)) {
            std::fprintf(stderr, "round %d failed\n", i);
            return 1;
        }
        if (i < kWarmup) continue;
        const auto recorded = server.requests().back();
        toFirstByte.push_back(std::chrono::duration<double, std::micro>(recorded.firstByteAt - sentAt).count());
        toCompletion.push_back(std::chrono::duration<double, std::micro>(completedAt - recorded.answeredAt).count());
    }
    std::printf("120 KB multipart, %d rounds on loopback (one connection, reused):\n", kRounds);
    std::printf("  send -> first request byte at the server: p50 %.0f us, p95 %.0f us\n", percentile(toFirstByte, 0.5),
                percentile(toFirstByte, 0.95));
    std::printf("  last answer byte -> completion on the loop: p50 %.0f us, p95 %.0f us\n",
                percentile(toCompletion, 0.5), percentile(toCompletion, 0.95));
    const int uploadStatus = runUploadRecordingBench();
    const int fileStatus = runFileUploadBenchProcess();
    return uploadStatus != 0 ? uploadStatus : fileStatus;
}
