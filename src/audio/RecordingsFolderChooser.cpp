#include "audio/RecordingsFolderChooser.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

std::string failure(const std::string& what, const std::filesystem::path& path, int error) {
    return what + " " + path.string() + ": " + std::strerror(error);
}

} // namespace

RecordingsFolderChooser::RecordingsFolderChooser(store::Settings& settings,
                                                 std::function<void(const std::string&)> showMessage)
    : settings_(settings), showMessage_(std::move(showMessage)) {}

std::optional<std::string> RecordingsFolderChooser::writeCheck(const std::filesystem::path& folder) {
    const std::filesystem::path target = folder / std::string(kWriteTestFileName);
    // The same way the settings file is written: a file of our own next to the target, renamed over it, so that
    // the check also proves that the folder allows the rename our atomic writes rely on.
    std::string temporary = (folder / (std::string(kWriteTestFileName) + ".XXXXXX")).string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return failure("can't create a file in", folder, errno);

    const char* data = kWriteTestText.data();
    std::size_t left = kWriteTestText.size();
    int writeError = 0;
    while (left > 0) {
        const ssize_t n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            writeError = n < 0 ? errno : EIO;
            break;
        }
        data += n;
        left -= std::size_t(n);
    }
    if (writeError == 0 && ::fsync(fd) != 0) writeError = errno;
    if (::close(fd) != 0 && writeError == 0) writeError = errno;
    if (writeError != 0) {
        ::unlink(temporary.c_str());
        return failure("can't write", std::filesystem::path(temporary), writeError);
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const int renameError = errno;
        ::unlink(temporary.c_str());
        return failure("can't write", target, renameError);
    }
    if (::unlink(target.c_str()) != 0) return failure("can't remove", target, errno);
    return std::nullopt;
}

RecordingsFolderChooser::Outcome RecordingsFolderChooser::selectFolder(
    const std::optional<std::filesystem::path>& selected) {
    if (!selected || selected->empty()) {
        logInfo("selectFolder() - user cancelled or error occurred");
        return {Result::cancelled, settings_.saveRecordingsFolder()};
    }
    // The setting holds absolute paths only; a dialog gives one, anything else is taken from here.
    std::error_code absoluteError;
    std::filesystem::path folder = std::filesystem::absolute(*selected, absoluteError);
    if (absoluteError) folder = *selected;
    logInfo("selectFolder() - selected path: " + folder.string());
    // There is no sandbox to open the folder for: a process may write wherever its user may.

    if (auto problem = writeCheck(folder)) {
        logError("selectFolder() - write check failed: " + *problem + ", falling back to default");
        settings_.setSelectedFolderBookmark(std::nullopt);
        const std::filesystem::path fallback = settings_.constants().recordingsFolder();
        settings_.setSaveRecordingsFolder(fallback);
        if (showMessage_) showMessage_(std::string(kFallBackMessage));
        return {Result::fellBack, fallback};
    }

    // The bookmark stands for the folder itself, with links and dot segments resolved. Nothing reads it back.
    std::error_code bookmarkError;
    const std::filesystem::path bookmark = std::filesystem::canonical(folder, bookmarkError);
    if (bookmarkError) {
        logError("selectFolder() - failed to create bookmark: " + bookmarkError.message());
    } else {
        settings_.setSelectedFolderBookmark(bookmark.string());
    }
    settings_.setSaveRecordingsFolder(folder);
    return {Result::chosen, folder};
}

} // namespace sprelio
