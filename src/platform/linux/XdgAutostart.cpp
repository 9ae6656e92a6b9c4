#include "platform/linux/XdgAutostart.h"

#include <system_error>

#include "base/Log.h"
#include "store/AtomicFile.h"

namespace sprelio::platform {

namespace {
// Desktop entries quote arguments with double quotes; inside them these four are escaped.
std::string quoted(const std::string& path) {
    std::string out = "\"";
    for (char c : path) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}
} // namespace

XdgAutostart::XdgAutostart(std::filesystem::path configHome, std::filesystem::path executable)
    : configHome_(std::move(configHome)), executable_(std::move(executable)) {}

std::filesystem::path XdgAutostart::entryPath() const { return configHome_ / "autostart" / kEntryName; }

bool XdgAutostart::isLoginItem() const {
    std::error_code ec;
    return std::filesystem::exists(entryPath(), ec);
}

bool XdgAutostart::setLoginItem(bool enabled) {
    std::error_code ec;
    if (!enabled) {
        std::filesystem::remove(entryPath(), ec);
        if (ec) {
            logError("XdgAutostart.setLoginItem() - could not remove " + entryPath().string() + ": " + ec.message());
            return false;
        }
        logInfo("XdgAutostart.setLoginItem() - removed " + entryPath().string());
        return true;
    }
    std::filesystem::create_directories(entryPath().parent_path(), ec);
    const std::string entry = "[Desktop Entry]\n"
                              "Type=Application\n"
                              "Name=Sprelio\n"
                              "Comment=Dictation: hold a key, speak, and the text appears where you type\n"
                              "Exec=" + quoted(executable_.string()) + "\n"
                              "Icon=audio-input-microphone\n"
                              "Terminal=false\n"
                              "X-GNOME-Autostart-enabled=true\n";
    const std::string error = store::writeFileAtomically(entryPath(), entry, 0644);
    if (!error.empty()) {
        logError("XdgAutostart.setLoginItem() - could not write " + entryPath().string() + ": " + error);
        return false;
    }
    logInfo("XdgAutostart.setLoginItem() - wrote " + entryPath().string());
    return true;
}

std::filesystem::path currentExecutable() {
    std::error_code ec;
    auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path("sprelio") : path;
}

} // namespace sprelio::platform
