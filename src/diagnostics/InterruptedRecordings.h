#pragma once
// A run that ended without its orderly stop (a crash, a kill, a power cut) can leave recordings that never got
// their history entry: one cut off while the user spoke, or one whose transcription was under way. Found at the
// next start, they are made whole and handed to the history, so that nothing the user said is lost and each can
// be transcribed again from there.
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace sprelio {

struct InterruptedRecording {
    std::filesystem::path file;
    bool wasCutOff = false; // written to the end of its last packet only; made a finished file
    double durationSeconds = 0;
};

struct InterruptedRecordingSearch {
    std::filesystem::path recordingsFolder;
    // The start of the run that was interrupted: older recordings had their chance in runs that ended in order.
    std::chrono::system_clock::time_point since;
    // Recordings the history already holds (their paths as the history stores them, made absolute).
    std::set<std::filesystem::path> inHistory;
    // Shorter recordings are discarded by a running session too (the minimum recording duration).
    double minimumSeconds = 0;
};

// Recordings of the session ("rec_*.caf") from `since` on without a history entry, each recovered when it was cut
// off. A file that can't be read or recovered is logged and left where it is, untouched.
std::vector<InterruptedRecording> findInterruptedRecordings(const InterruptedRecordingSearch& search);

// The history entry's text for such a recording.
std::string interruptedRecordingMessage(const std::string& appName);

} // namespace sprelio
