#pragma once
// Where a new recording goes: one folder per day under the root, a millisecond stamp in the file name.
#include <chrono>
#include <filesystem>
#include <system_error>

namespace sprelio {

class RecordingPathHelper {
public:
    struct RecordingPath {
        std::filesystem::path folder; // <root>/yyyy/MM/dd
        std::filesystem::path file;   // <folder>/rec_yyyyMMdd-HHmmss-SSS.caf
    };

    // Dates are formatted in local time. Makes the day's folder when it is missing; a failure is reported in
    // `error` and the path is returned all the same, so the recorder fails on it rather than the press path.
    static RecordingPath pathForDate(const std::filesystem::path& root, std::chrono::system_clock::time_point date,
                                     std::error_code& error);
};

} // namespace sprelio
