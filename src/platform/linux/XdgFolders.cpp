#include "platform/linux/XdgFolders.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace sprelio::platform {
namespace {

std::optional<std::filesystem::path> absolute(const std::optional<std::string>& value) {
    if (!value || value->empty() || (*value)[0] != '/') return std::nullopt;
    return std::filesystem::path(*value);
}

std::filesystem::path homeFromPasswd() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    struct passwd entry {};
    struct passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
        result->pw_dir && result->pw_dir[0] == '/')
        return result->pw_dir;
    return "/tmp";
}

} // namespace

XdgFolders::XdgFolders()
    : XdgFolders([](const char* name) -> std::optional<std::string> {
          const char* value = std::getenv(name);
          if (!value) return std::nullopt;
          return std::string(value);
      }) {}

XdgFolders::XdgFolders(const Getenv& getenv) {
    auto home = absolute(getenv("HOME"));
    home_ = home ? *home : homeFromPasswd();
    auto data = absolute(getenv("XDG_DATA_HOME"));
    dataHome_ = data ? *data : home_ / ".local/share";
    auto config = absolute(getenv("XDG_CONFIG_HOME"));
    configHome_ = config ? *config : home_ / ".config";
}

} // namespace sprelio::platform
