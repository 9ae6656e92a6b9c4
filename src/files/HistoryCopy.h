#pragma once
// The history keeps the recording of every request and removes it with its entry. A file the user brings is the
// user's own: the history gets a name of its own for it in the recordings folder, so that removing the entry never
// deletes the user's file.
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace sprelio {

// A hard link next to the day's recordings (a copy when the file lies on another file system), named like a
// recording with the file's own extension. Nothing, with a sentence for the user in `problem`, when the file is
// gone or can't be read or the folder can't be made.
std::optional<std::filesystem::path> keepCopyForHistory(const std::filesystem::path& recordingsRoot,
                                                        std::chrono::system_clock::time_point now,
                                                        const std::filesystem::path& file, std::string& problem);

} // namespace sprelio
