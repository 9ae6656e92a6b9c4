#include "store/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace sprelio::store {

std::string writeFileAtomically(const std::filesystem::path& path, std::string_view content, mode_t mode) {
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    std::string pattern = (folder / ("." + path.filename().string() + ".tmp-XXXXXX")).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) return "cannot create a temporary file in " + folder.string() + ": " + std::strerror(errno);
    auto failWith = [&](const char* what) {
        std::string error = std::string(what) + ": " + std::strerror(errno);
        ::close(fd);
        ::unlink(name.data());
        return error;
    };
    if (::fchmod(fd, mode) != 0) return failWith("chmod");
    const char* data = content.data();
    std::size_t left = content.size();
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return failWith("write");
        }
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0) return failWith("fsync");
    if (::close(fd) != 0) {
        std::string error = std::string("close: ") + std::strerror(errno);
        ::unlink(name.data());
        return error;
    }
    if (::rename(name.data(), path.c_str()) != 0) {
        std::string error = std::string("rename: ") + std::strerror(errno);
        ::unlink(name.data());
        return error;
    }
    int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir); // best effort: the rename is done either way
        ::close(dir);
    }
    return {};
}

} // namespace sprelio::store
