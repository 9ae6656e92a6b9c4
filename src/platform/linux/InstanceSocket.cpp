#include "platform/linux/InstanceSocket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace sprelio::platform {

namespace {

std::string sanitizedDisplay(std::string display) {
    for (char& c : display)
        if (c == '/') c = '_';
    return display;
}

bool isDirectory(const char* path) {
    struct stat info {};
    return path && *path && ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

class Connection {
public:
    explicit Connection(int fd) : fd_(fd) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        if (fd_ >= 0) ::close(fd_);
    }
    int fd() const { return fd_; }

    bool sendAll(const std::string& data) {
        std::size_t sent = 0;
        while (sent < data.size()) {
            const ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }

    // The next line without its newline; false at the end of the conversation.
    bool readLine(std::string& line) {
        for (;;) {
            const auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return true;
            }
            char chunk[4096];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

private:
    int fd_;
    std::string buffer_;
};

} // namespace

std::string instanceSocketPath(const std::string& display) {
    const std::string name = "com.sprelio.app-display" + sanitizedDisplay(display);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (isDirectory(runtime)) return std::string(runtime) + "/" + name;
    // Where the desktop application's socket library puts a name that is not a path: the temporary folder.
    const char* tmp = std::getenv("TMPDIR");
    const std::string folder = isDirectory(tmp) ? std::string(tmp) : std::string("/tmp");
    return folder + "/" + name + "-" + std::to_string(::getuid());
}

int askRunningInstance(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const char* display = std::getenv("DISPLAY");
    const std::string path = instanceSocketPath(display ? display : "");
    const auto notRunning = [&err] {
        err << "sprelio: Sprelio is not running; start it first (sprelio)\n";
        return kNoRunningInstance;
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return notRunning();
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Connection connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connection.fd() < 0) return notRunning();
    if (::connect(connection.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return notRunning();

    if (!connection.sendAll("command " + nlohmann::json(args).dump() + "\n")) {
        err << "sprelio: the running Sprelio did not take the command\n";
        return 1;
    }
    std::string line;
    while (connection.readLine(line)) {
        const auto space = line.find(' ');
        const std::string kind = line.substr(0, space);
        const std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
        if (kind == "exit") {
            char* end = nullptr;
            const long status = std::strtol(rest.c_str(), &end, 10);
            return end != rest.c_str() ? static_cast<int>(status) : 1;
        }
        const auto text = nlohmann::json::parse(rest, nullptr, false);
        if (!text.is_string()) continue;
        (kind == "err" ? err : out) << text.get<std::string>() << "\n";
        (kind == "err" ? err : out).flush();
    }
    err << "sprelio: the running Sprelio went away before it answered\n";
    return 1;
}

} // namespace sprelio::platform
