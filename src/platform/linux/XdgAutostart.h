#pragma once
// The login item of a freedesktop session: a desktop entry in $XDG_CONFIG_HOME/autostart that the session starts
// at log-in.
#include <filesystem>
#include <string>

namespace sprelio::platform {

class XdgAutostart {
public:
    // `configHome` is $XDG_CONFIG_HOME; `executable` is what the entry starts.
    XdgAutostart(std::filesystem::path configHome, std::filesystem::path executable);

    // Writes or removes the entry; false (logged) when the folder can't be written.
    bool setLoginItem(bool enabled);
    bool isLoginItem() const;
    std::filesystem::path entryPath() const;

    static constexpr const char* kEntryName = "com.sprelio.app.desktop";

private:
    std::filesystem::path configHome_;
    std::filesystem::path executable_;
};

// The path of the running program (/proc/self/exe), or "sprelio" to be found on the PATH.
std::filesystem::path currentExecutable();

} // namespace sprelio::platform
