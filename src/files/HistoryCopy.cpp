#include "files/HistoryCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include "audio/RecordingPathHelper.h"
#include "base/Log.h"

namespace sprelio {

namespace fs = std::filesystem;

std::optional<fs::path> keepCopyForHistory(const fs::path& recordingsRoot, std::chrono::system_clock::time_point now,
                                           const fs::path& file, std::string& problem) {
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        problem = "The file is no longer there (was it moved, or its folder removed?).";
        return std::nullopt;
    }
    // A file we can't open would give the server nothing: said here, in words, rather than as an upload error.
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        problem = "The file can't be read (no permission to read it).";
        return std::nullopt;
    }
    ::close(fd);
    const auto target = RecordingPathHelper::pathForDate(recordingsRoot, now, error);
    if (error) {
        problem = "The recordings folder " + target.folder.string() + " can't be made: " + error.message();
        return std::nullopt;
    }
    fs::path kept = target.file;
    kept.replace_extension(file.extension());
    // Two files in the same millisecond must not share (or overwrite) one name.
    for (int n = 2; fs::exists(kept, error); ++n) {
        kept = target.file;
        kept.replace_filename(target.file.stem().string() + "-" + std::to_string(n) + file.extension().string());
    }
    fs::create_hard_link(file, kept, error);
    if (error) {
        error.clear();
        fs::copy_file(file, kept, fs::copy_options::none, error);
    }
    if (error) {
        problem = "The file could not be kept for the history in " + target.folder.string() + ": " + error.message();
        return std::nullopt;
    }
    logInfo("FilesMenuView{} - keeping " + file.filename().string() + " for the history as " + kept.string());
    return kept;
}

} // namespace sprelio
