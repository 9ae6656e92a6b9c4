#include "base/Log.h"

#include <array>
#include <atomic>

namespace sprelio {

namespace {
std::atomic<LogSink*> gSink{nullptr};
constexpr std::array<std::string_view, 5> kWords{"DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL"};
} // namespace

std::string_view logLevelWord(LogLevel level) { return kWords.at(static_cast<std::size_t>(level)); }

std::optional<LogLevel> logLevelFromWord(std::string_view word) {
    for (std::size_t i = 0; i < kWords.size(); ++i) {
        if (kWords[i] == word) return static_cast<LogLevel>(i);
    }
    return std::nullopt;
}

void setLogSink(LogSink* sink) { gSink.store(sink, std::memory_order_release); }
LogSink* logSink() { return gSink.load(std::memory_order_acquire); }

void log(LogLevel level, std::string message) {
    if (auto* sink = gSink.load(std::memory_order_acquire)) sink->log(level, std::move(message));
}

void flushLog() {
    if (auto* sink = gSink.load(std::memory_order_acquire)) sink->flush();
}

} // namespace sprelio
