// The long-file upload as the application runs it, for a file of 1 GB: the file's SHA-256 digest, then
// FileUploadManager::uploadFile to a loopback server. Prints how much the resident memory of this process grows
// at its peak during each step, and how long each takes.
//
// The server runs in a child process, so that its buffers do not count; the process's peak (VmHWM) is reset
// before each step through /proc/self/clear_refs, so that each figure is that step's own. The file holds
// pseudo-random bytes written before the measurement; the digest and upload read it from disk (or from the page
// cache, which is not part of the resident memory of a process).
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "BenchDoubles.h"
#include "backend/BalancingManager.h"
#include "backend/FileUploadManager.h"
#include "backend/ScriptedServer.h"
#include "shared/AppState.h"
#include "base/Uuid.h"
#include "base/Log.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

using namespace std::chrono_literals;
namespace platform = sprelio::platform;

namespace {

using sprelio::bench::CountingSink;

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::size_t length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0) return std::stol(line.substr(length));
    }
    return -1;
}

// Makes VmHWM start again from the present resident size; false where the kernel does not allow it.
bool resetPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good() && statusKiB("VmHWM:") <= statusKiB("VmRSS:") + 64;
}

bool writeAll(int fd, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool readAll(int fd, void* data, std::size_t size) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = ::read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

// The child: a scripted server that answers every upload with an id and counts the bytes without keeping them.
// It writes its port, then, when the parent closes `control`, the body size of the last request, and ends.
[[noreturn]] void serveUploads(int report, int control) {
    int status = 0;
    try {
        sprelio::backendtest::ScriptedServer server;
        sprelio::backendtest::Script answer;
        answer.discardBody = true;
        answer.body = R"({"uuid":"BENCH-FILE"})";
        server.scriptDefault(answer);
        const std::int32_t port = server.port();
        writeAll(report, &port, sizeof port);
        char ignored;
        while (::read(control, &ignored, 1) > 0) {
        }
        std::uint64_t received = 0;
        for (const auto& request : server.requests()) {
            if (request.method == "POST") received = request.bodySize;
        }
        writeAll(report, &received, sizeof received);
        server.stop();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench server: %s\n", e.what());
        status = 1;
    }
    ::_exit(status);
}

} // namespace

int runFileUploadBench(std::uint64_t fileBytes) {
    // The server's process is made before this one starts any thread.
    int reportPipe[2];
    int controlPipe[2];
    if (::pipe2(reportPipe, O_CLOEXEC) != 0 || ::pipe2(controlPipe, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        return 1;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("fork");
        return 1;
    }
    if (child == 0) {
        ::close(reportPipe[0]);
        ::close(controlPipe[1]);
        serveUploads(reportPipe[1], controlPipe[0]);
    }
    ::close(reportPipe[1]);
    ::close(controlPipe[0]);
    auto endServer = [&]() -> std::optional<std::uint64_t> {
        ::close(controlPipe[1]);
        std::uint64_t received = 0;
        const bool got = readAll(reportPipe[0], &received, sizeof received);
        ::close(reportPipe[0]);
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return got ? std::optional<std::uint64_t>(received) : std::nullopt;
    };
    std::int32_t port = 0;
    if (!readAll(reportPipe[0], &port, sizeof port)) {
        std::fprintf(stderr, "the bench server did not start\n");
        endServer();
        return 1;
    }

    std::string pattern = (std::filesystem::temp_directory_path() / "sprelio-file-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        endServer();
        return 1;
    }
    const std::filesystem::path folder = pattern;
    const auto file = folder / "long-recording.mp4";
    {
        std::ofstream out(file, std::ios::binary);
        std::mt19937_64 random(42);
        std::vector<std::uint64_t> block(128 * 1024); // 1 MiB
        for (std::uint64_t written = 0; written < fileBytes && out;) {
            for (auto& word : block) word = random();
            const auto take = std::min<std::uint64_t>(fileBytes - written, block.size() * sizeof(std::uint64_t));
            out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(take));
            written += take;
        }
        if (!out) {
            std::fprintf(stderr, "could not write %s\n", file.c_str());
            std::filesystem::remove_all(folder);
            endServer();
            return 1;
        }
    }

    int status = 0;
    {
        CountingSink sink;
        sprelio::setLogSink(&sink);
        platform::test::TestPlatform tp;
        platform::RealTimeLoop loop;
        platform::SystemClock clock;
        platform::CurlHttpClient http(loop);
        sprelio::store::AppConstants constants(tp);
        sprelio::store::MemorySettingsStore store;
        sprelio::store::Settings settings(store, constants);
        settings.setToken(std::string("bench-token"));
        sprelio::AppStateRealtimeMirror mirror;
        sprelio::AppState appState(mirror);
        sprelio::BalancingManager balancing(loop, clock, settings, appState, "Sprelio");
        balancing.setBalancers({std::make_shared<sprelio::BackendBalancer>(
            "BENCH", "bench", "http://127.0.0.1:" + std::to_string(port))});
        sprelio::FileUploadManager files(
            sprelio::FileUploadManager::Dependencies{loop, http, balancing, settings, constants, "BENCH-DEVICE"});
        long progressCalls = 0;
        files.onUploadProgressChanged = [&](double) { ++progressCalls; };

        const bool peakReset = resetPeak();
        const long hashBase = statusKiB("VmRSS:");
        const auto hashStart = std::chrono::steady_clock::now();
        const auto digest = sprelio::sha256Hash(file);
        const auto hashEnd = std::chrono::steady_clock::now();
        const long hashPeak = statusKiB("VmHWM:");

        resetPeak();
        const long uploadBase = statusKiB("VmRSS:");
        bool done = false;
        std::optional<std::string> fileId;
        std::optional<sprelio::Error> failure;
        const auto uploadStart = std::chrono::steady_clock::now();
        std::chrono::steady_clock::time_point uploadEnd;
        if (digest) {
            files.uploadFile(file, *digest, sprelio::Uuid::random().string(), false,
                             [&](std::optional<std::string> id, std::optional<int>, std::optional<sprelio::Error> e) {
                                 uploadEnd = std::chrono::steady_clock::now();
                                 fileId = std::move(id);
                                 failure = std::move(e);
                                 done = true;
                             });
            loop.runUntil([&] { return done; }, 30min);
        }
        const long uploadPeak = statusKiB("VmHWM:");
        const auto received = endServer();
        sprelio::setLogSink(nullptr);

        const double gib = double(fileBytes) / (1024.0 * 1024.0 * 1024.0);
        const double hashSeconds = std::chrono::duration<double>(hashEnd - hashStart).count();
        std::printf("uploadFile, %.2f GiB file streamed from disk to a loopback server in another process%s:\n", gib,
                    peakReset ? "" : " (peak reset not allowed: figures include earlier peaks)");
        if (!digest) {
            std::printf("  sha256Hash FAILED\n");
            status = 1;
        } else {
            std::printf("  sha256Hash: %s in %.2f s (%.0f MiB/s); peak RSS %ld KiB over %ld KiB before: +%ld KiB\n",
                        digest->c_str(), hashSeconds, double(fileBytes) / 1048576.0 / hashSeconds, hashPeak, hashBase,
                        hashPeak - hashBase);
        }
        if (digest && done && fileId && !failure) {
            const double uploadSeconds = std::chrono::duration<double>(uploadEnd - uploadStart).count();
            std::printf("  uploadFile: ok, id %s, %llu body bytes at the server in %.2f s (%.0f MiB/s), %ld progress "
                        "updates\n",
                        fileId->c_str(), static_cast<unsigned long long>(received.value_or(0)), uploadSeconds,
                        double(fileBytes) / 1048576.0 / uploadSeconds, progressCalls);
            std::printf("  uploadFile: peak RSS %ld KiB over %ld KiB before: +%ld KiB\n", uploadPeak, uploadBase,
                        uploadPeak - uploadBase);
            if (received.value_or(0) != fileBytes) {
                std::printf("  the server received %llu bytes, not %llu\n",
                            static_cast<unsigned long long>(received.value_or(0)),
                            static_cast<unsigned long long>(fileBytes));
                status = 1;
            }
        } else if (digest) {
            std::printf("  uploadFile FAILED: %s\n",
                        failure ? failure->debugDescription().c_str() : (done ? "no id" : "no answer in 30 minutes"));
            status = 1;
        }
        std::printf("  (%ld log lines)\n", sink.lines.load());
    }
    std::filesystem::remove_all(folder);
    return status;
}
