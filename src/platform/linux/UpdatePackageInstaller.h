#pragma once
// Hands a downloaded package to the system's package installer and reports whether it was installed.
//
// The installer is `pkexec apt-get install -y <package>`: apt resolves the package's new dependencies from the
// configured repositories (a bare `dpkg -i` would leave them broken), pkexec asks the desktop's polkit agent for an
// administrator's consent, and both report a refusal by their exit status, so that the application can say why the
// update did not happen. A graphical installer opened with xdg-open would report nothing back.
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/LifetimeGuard.h"
#include "platform/MainLoop.h"

namespace sprelio::platform {

class UpdatePackageInstaller {
public:
    using Done = std::function<void(std::optional<std::string> refusal)>;

    static std::vector<std::string> defaultCommand() { return {"pkexec", "apt-get", "install", "-y"}; }

    // `command` is the installer's program and arguments; the package's absolute path is added as the last one.
    explicit UpdatePackageInstaller(MainLoop& loop, std::vector<std::string> command = defaultCommand());
    // Waits for an installer still running: an installation is never cut off half-way.
    ~UpdatePackageInstaller();
    UpdatePackageInstaller(const UpdatePackageInstaller&) = delete;
    UpdatePackageInstaller& operator=(const UpdatePackageInstaller&) = delete;

    // `done` runs on the loop: nothing when the installer succeeded, else why it did not (its exit status and the
    // last line it wrote).
    void install(const std::filesystem::path& package, Done done);

private:
    MainLoop& loop_;
    std::vector<std::string> command_;
    LifetimeGuard lifetime_;
    std::mutex mutex_;
    std::vector<std::thread> running_;
};

// Starts `program` again once this process has ended (a detached helper waits for it), so that a freshly installed
// version takes over the single-instance socket. False when the helper could not be started.
bool relaunchWhenThisProcessEnds(const std::filesystem::path& program);

// The program of this process as it was installed: after a package upgrade /proc/self/exe names the replaced file
// "(deleted)", and the new one lies at the same path.
std::filesystem::path installedExecutable();

} // namespace sprelio::platform
