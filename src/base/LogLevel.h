#pragma once
#include <optional>
#include <string_view>

namespace sprelio {

enum class LogLevel { debug = 0, info = 1, warning = 2, error = 3, critical = 4 };

// The word written into the log file: "DEBUG", "INFO", ...
std::string_view logLevelWord(LogLevel level);
std::optional<LogLevel> logLevelFromWord(std::string_view word);

} // namespace sprelio
