#include "store/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
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

namespace {
std::string timestampSuffix() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d_%H-%M-%S", &local);
    return buffer;
}
} // namespace

std::filesystem::path moveFileAside(const std::filesystem::path& path, std::string& error) {
    namespace fs = std::filesystem;
    std::error_code ec;
    const std::string stamp = timestampSuffix();
    fs::path aside = path;
    aside += ".corrupt-" + stamp;
    for (int n = 2; fs::exists(aside, ec) && n < 1000; ++n) {
        aside = path;
        aside += ".corrupt-" + stamp + "-" + std::to_string(n);
    }
    if (::rename(path.c_str(), aside.c_str()) == 0) return aside;
    error = std::strerror(errno);
    ec.clear();
    fs::copy_file(path, aside, ec);
    if (ec) {
        error += "; copying it failed too: " + ec.message();
        return {};
    }
    // A copy leaves the damaged file in its place; it goes so that a fresh one can be made.
    if (!fs::remove(path, ec)) {
        error += "; the copy is at " + aside.string() + " but the file could not be removed: " + ec.message();
        return {};
    }
    error.clear();
    return aside;
}

} // namespace sprelio::store
