#pragma once
// The one way every subsystem writes a diagnostic line. The process installs a sink (the file log in the
// application, a recording sink in tests); before one is installed, lines are dropped.
#include <string>
#include <string_view>

#include "base/LogLevel.h"

namespace sprelio {

// Dictated or user-owned text never reaches a log line; this is what stands in its place.
inline constexpr std::string_view kPrivatized = "<privatized>";

class LogSink {
public:
    virtual ~LogSink() = default;
    // Must return at once and may be called from any thread.
    virtual void log(LogLevel level, std::string message) = 0;
    // Waits until every line logged so far is written. Only for the moments before the process ends.
    virtual void flush() {}
};

// Installs the process-wide sink; nullptr removes it. The sink must outlive its installation.
void setLogSink(LogSink* sink);
LogSink* logSink();

void log(LogLevel level, std::string message);
// Before a fatal stop: lets the last lines, the reason for the stop among them, reach the file.
void flushLog();
inline void logDebug(std::string message) { log(LogLevel::debug, std::move(message)); }
inline void logInfo(std::string message) { log(LogLevel::info, std::move(message)); }
inline void logWarning(std::string message) { log(LogLevel::warning, std::move(message)); }
inline void logError(std::string message) { log(LogLevel::error, std::move(message)); }
inline void logCritical(std::string message) { log(LogLevel::critical, std::move(message)); }

} // namespace sprelio
