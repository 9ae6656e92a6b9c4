// What logging costs: the caller's share of one log() call, and how many lines per second the writer keeps up
// with when every line is synced to disk.
//
//   bench_diagnostics [calls=200000] [syncedLines=2000] [diskFolder=$TMPDIR or /tmp] [memoryFolder=/dev/shm]
//
// The call cost is measured with the log in memoryFolder (tmpfs), so that the 200,000 queued lines drain in
// seconds; the caller never touches the file, so what it pays does not depend on the disk. The sustained rate
// is measured in diskFolder, which must be on the disk whose sync cost is of interest.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "diagnostics/LogManager.h"
#include "platform/Clock.h"
#include "platform/SystemLog.h"

namespace {

namespace fs = std::filesystem;
using Steady = std::chrono::steady_clock;

class WallClock final : public sprelio::platform::Clock {
public:
    std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }
    std::chrono::steady_clock::time_point steadyNow() const override { return std::chrono::steady_clock::now(); }
};

// Stands in for journald so that only the log's own work is measured.
class CountingSystemLog final : public sprelio::platform::SystemLog {
public:
    void write(sprelio::platform::SystemLogType, std::string_view text) override {
        lines.fetch_add(1, std::memory_order_relaxed);
        bytes.fetch_add(text.size(), std::memory_order_relaxed);
    }
    std::atomic<std::uint64_t> lines{0};
    std::atomic<std::uint64_t> bytes{0};
};

fs::path makeFolder(const fs::path& parent) {
    std::string pattern = (parent / "sprelio-log-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    return pattern;
}

double nanos(Steady::duration d) { return std::chrono::duration<double, std::nano>(d).count(); }

std::string message(std::size_t i) {
    return "AudioUploadManager.uploadRecording() - request " + std::to_string(i) + " sent to backend 2";
}

void measureCallCost(const fs::path& parent, std::size_t calls) {
    const fs::path folder = makeFolder(parent);
    WallClock clock;
    CountingSystemLog systemLog;
    std::vector<double> samples;
    samples.reserve(calls);
    std::vector<std::string> messages;
    messages.reserve(calls);
    for (std::size_t i = 0; i < calls; ++i) messages.push_back(message(i));
    Steady::duration drain{};
    {
        sprelio::LogManager manager(systemLog, clock, folder / "logs");
        manager.flush();
        for (std::size_t i = 0; i < calls; ++i) {
            const auto start = Steady::now();
            manager.log(sprelio::LogLevel::info, std::move(messages[i]));
            samples.push_back(nanos(Steady::now() - start));
        }
        const auto drainStart = Steady::now();
        manager.flush();
        drain = Steady::now() - drainStart;
    }
    // What two clock reads cost by themselves; not subtracted above, shown for reference.
    std::vector<double> empty;
    empty.reserve(10000);
    for (int i = 0; i < 10000; ++i) {
        const auto start = Steady::now();
        empty.push_back(nanos(Steady::now() - start));
    }
    std::sort(samples.begin(), samples.end());
    std::sort(empty.begin(), empty.end());
    const auto at = [&](double q) { return samples[std::min(samples.size() - 1, static_cast<std::size_t>(q * samples.size()))]; };
    std::printf("log() on the calling thread, %zu calls, log in %s (tmpfs expected)\n", calls, folder.c_str());
    std::printf("  median %.0f ns   p90 %.0f ns   p99 %.0f ns   p99.9 %.0f ns   max %.0f ns\n", at(0.5), at(0.9), at(0.99),
                at(0.999), samples.back());
    std::printf("  (two steady_clock reads alone: median %.0f ns)\n", empty[empty.size() / 2]);
    std::printf("  writer drained the backlog in %.1f ms after the last call\n", nanos(drain) / 1e6);
    std::error_code ec;
    fs::remove_all(folder, ec);
}

void measureSyncedRate(const fs::path& parent, std::size_t lines) {
    const fs::path folder = makeFolder(parent);
    WallClock clock;
    CountingSystemLog systemLog;
    std::vector<std::string> messages;
    for (std::size_t i = 0; i < lines; ++i) messages.push_back(message(i));
    Steady::duration elapsed{};
    {
        sprelio::LogManager manager(systemLog, clock, folder / "logs");
        manager.flush();
        const auto start = Steady::now();
        for (std::size_t i = 0; i < lines; ++i) manager.log(sprelio::LogLevel::info, std::move(messages[i]));
        manager.flush();
        elapsed = Steady::now() - start;
    }
    const double seconds = nanos(elapsed) / 1e9;
    std::printf("writer with fdatasync per line, %zu lines, log in %s\n", lines, folder.c_str());
    std::printf("  %.3f s from first enqueue to flush: %.0f lines/s, %.2f ms per line\n", seconds,
                static_cast<double>(lines) / seconds, seconds * 1e3 / static_cast<double>(lines));
    std::error_code ec;
    fs::remove_all(folder, ec);
}

} // namespace

int main(int argc, char** argv) {
    const std::size_t calls = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200'000;
    const std::size_t synced = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 2'000;
    const char* tmp = std::getenv("TMPDIR");
    const fs::path disk = argc > 3 ? fs::path(argv[3]) : fs::path(tmp && *tmp ? tmp : "/tmp");
    const fs::path memory = argc > 4 ? fs::path(argv[4]) : fs::path("/dev/shm");
    if (calls > 0) measureCallCost(fs::is_directory(memory) ? memory : disk, calls);
    if (synced > 0) measureSyncedRate(disk, synced);
    return 0;
}
