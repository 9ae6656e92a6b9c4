#pragma once
// The server's log: one line per entry on standard error (journald or the terminal takes it from there).
#include <mutex>

#include "base/Log.h"

namespace sprelio::server {

class ConsoleLogSink final : public LogSink {
public:
    explicit ConsoleLogSink(LogLevel minimum = LogLevel::info) : minimum_(minimum) {}
    void log(LogLevel level, std::string message) override;
    void flush() override;

private:
    LogLevel minimum_;
    std::mutex mutex_;
};

} // namespace sprelio::server
