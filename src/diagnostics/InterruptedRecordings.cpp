#include "diagnostics/InterruptedRecordings.h"

#include <algorithm>

#include "audio/CafReader.h"
#include "base/Log.h"

namespace sprelio {

namespace fs = std::filesystem;

std::vector<InterruptedRecording> findInterruptedRecordings(const InterruptedRecordingSearch& search) {
    std::vector<InterruptedRecording> found;
    std::error_code ec;
    if (!fs::is_directory(search.recordingsFolder, ec)) return found;
    // File times have a coarser clock on some file systems; a second of slack keeps the first recording of the run.
    const auto since = search.since - std::chrono::seconds(1);
    fs::recursive_directory_iterator it(search.recordingsFolder, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it.depth() > 3) {
            it.disable_recursion_pending();
            continue;
        }
        const auto& path = it->path();
        const auto name = path.filename().string();
        if (!it->is_regular_file(ec) || !name.starts_with("rec_") || path.extension() != ".caf") continue;
        const auto written = it->last_write_time(ec);
        if (ec) continue;
        const auto writtenAt = std::chrono::file_clock::to_sys(written);
        if (writtenAt < since) continue;
        if (search.inHistory.contains(path)) continue;
        InterruptedRecording recording;
        recording.file = path;
        try {
            const auto result = CafReader::recover(path);
            recording.wasCutOff = !result.wasComplete;
            recording.durationSeconds = result.durationSeconds;
        } catch (const std::exception& e) {
            logError("findInterruptedRecordings() - " + path.string() + " can't be read, left as it is: " + e.what());
            continue;
        }
        if (recording.durationSeconds < search.minimumSeconds) continue;
        logInfo("findInterruptedRecordings() - " + path.string() + (recording.wasCutOff ? " was cut off" : " is whole") +
                ", " + std::to_string(recording.durationSeconds) + " s, no history entry");
        found.push_back(std::move(recording));
    }
    if (ec) logError("findInterruptedRecordings() - reading " + search.recordingsFolder.string() + ": " + ec.message());
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.file < b.file; });
    return found;
}

std::string interruptedRecordingMessage(const std::string& appName) {
    return appName + " stopped before this recording was transcribed. Retry transcribes it.";
}

} // namespace sprelio
