#pragma once
// The playing time of an audio file on disk, for the history's duration column. Recordings are CAF (Opus or
// linear PCM); files given to the command line are often WAV. The format is told by the file's first bytes, not by
// its name.
#include <filesystem>
#include <optional>

namespace sprelio {

// Seconds, or nothing when the file is missing, unreadable, damaged or of another format.
std::optional<double> audioFileDurationSeconds(const std::filesystem::path& path);

} // namespace sprelio
