#include "server/ConsoleLogSink.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace sprelio::server {

void ConsoleLogSink::log(LogLevel level, std::string message) {
    if (level < minimum_) return;
    auto now = std::chrono::system_clock::now();
    auto seconds = std::chrono::system_clock::to_time_t(now);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    auto word = logLevelWord(level);
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "%s.%03d [%.*s] %s\n", stamp, static_cast<int>(millis), static_cast<int>(word.size()),
                 word.data(), message.c_str());
}

void ConsoleLogSink::flush() {
    std::lock_guard lock(mutex_);
    std::fflush(stderr);
}

} // namespace sprelio::server
