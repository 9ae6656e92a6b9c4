#include "audio/RecordingPathHelper.h"

#include <cstdio>
#include <ctime>

namespace sprelio {

RecordingPathHelper::RecordingPath RecordingPathHelper::pathForDate(const std::filesystem::path& root,
                                                                    std::chrono::system_clock::time_point date,
                                                                    std::error_code& error) {
    using namespace std::chrono;
    error.clear();
    const auto sinceEpoch = date.time_since_epoch();
    auto secs = duration_cast<seconds>(sinceEpoch);
    auto millis = duration_cast<milliseconds>(sinceEpoch - secs).count();
    if (millis < 0) { // dates before 1970 still get a stamp in 000..999
        secs -= seconds{1};
        millis += 1000;
    }
    const std::time_t time = static_cast<std::time_t>(secs.count());
    std::tm local{};
    localtime_r(&time, &local);

    char day[64];
    std::snprintf(day, sizeof day, "%04d/%02d/%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    char name[96];
    std::snprintf(name, sizeof name, "rec_%04d%02d%02d-%02d%02d%02d-%03d.caf", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(millis));

    RecordingPath result;
    result.folder = root / day;
    result.file = result.folder / name;
    std::error_code ec;
    if (!std::filesystem::is_directory(result.folder, ec)) {
        std::filesystem::create_directories(result.folder, error);
    }
    return result;
}

} // namespace sprelio
