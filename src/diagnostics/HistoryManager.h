#pragma once
// The history of requests as the session writes to it. Writers never wait for the entry.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/Uuid.h"

namespace sprelio {

// Stored as a 16-bit integer; values of 5 and up may exist in old stores and are shown as "other".
enum class HistoryManagerLogLevel : std::int16_t { info = 0, warning = 1, error = 2, debug = 3, success = 4 };

inline std::string_view historyManagerLogLevelName(HistoryManagerLogLevel level) {
    switch (level) {
    case HistoryManagerLogLevel::info: return "info";
    case HistoryManagerLogLevel::warning: return "warning";
    case HistoryManagerLogLevel::error: return "error";
    case HistoryManagerLogLevel::debug: return "debug";
    case HistoryManagerLogLevel::success: return "success";
    }
    return "other";
}

class HistoryManager {
public:
    virtual ~HistoryManager() = default;
    // Writes one entry into the default context; `skipSave` leaves it unsaved there.
    virtual void log(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> fileURL,
                     Uuid requestID, bool skipSave) = 0;
};

} // namespace sprelio
