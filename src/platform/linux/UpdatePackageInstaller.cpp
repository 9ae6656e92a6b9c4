#include "platform/linux/UpdatePackageInstaller.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "base/Log.h"

extern char** environ;

namespace sprelio::platform {

namespace {

// The last non-empty line of what the installer wrote: its own reason, as a rule.
std::string lastLine(std::string output) {
    while (!output.empty() && std::isspace(static_cast<unsigned char>(output.back()))) output.pop_back();
    const auto newline = output.find_last_of('\n');
    return newline == std::string::npos ? output : output.substr(newline + 1);
}

std::string exitText(int status, const std::string& program) {
    if (WIFSIGNALED(status)) return program + " was ended by signal " + std::to_string(WTERMSIG(status));
    const int code = WEXITSTATUS(status);
    // pkexec's own codes: the user dismissed the authentication, or may not act as administrator.
    if (program == "pkexec" && code == 126) return "the administrator authentication was dismissed";
    if (program == "pkexec" && code == 127) return "the administrator authentication failed or is not allowed";
    return program + " exited with status " + std::to_string(code);
}

} // namespace

UpdatePackageInstaller::UpdatePackageInstaller(MainLoop& loop, std::vector<std::string> command)
    : loop_(loop), command_(std::move(command)) {}

UpdatePackageInstaller::~UpdatePackageInstaller() {
    std::vector<std::thread> running;
    {
        std::lock_guard lock(mutex_);
        running.swap(running_);
    }
    for (auto& thread : running) thread.join();
    lifetime_.expire();
}

void UpdatePackageInstaller::install(const std::filesystem::path& package, Done done) {
    std::vector<std::string> arguments = command_;
    arguments.push_back(std::filesystem::absolute(package).string());
    const std::string program = arguments.empty() ? std::string() : arguments.front();
    std::string line;
    for (const auto& argument : arguments) line += (line.empty() ? "" : " ") + argument;
    logInfo("UpdatePackageInstaller.install() - running: " + line);

    auto finish = [this, done = lifetime_.guard(std::move(done))](std::optional<std::string> refusal) mutable {
        loop_.post([done = std::move(done), refusal = std::move(refusal)]() mutable { done(std::move(refusal)); });
    };
    int pipe[2];
    if (program.empty() || ::pipe2(pipe, O_CLOEXEC) != 0) {
        finish("the package installer could not be started");
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    if (spawned != 0) {
        ::close(pipe[0]);
        finish("the package installer " + program + " could not be started: " + std::strerror(spawned));
        return;
    }
    const int readEnd = pipe[0];
    std::lock_guard lock(mutex_);
    running_.emplace_back([readEnd, pid, program, finish = std::move(finish)]() mutable {
        std::string output;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(readEnd, buffer, sizeof buffer);
            if (n > 0) {
                output.append(buffer, static_cast<std::size_t>(n));
                // Only the end matters; apt can be talkative.
                if (output.size() > 64 * 1024) output.erase(0, output.size() - 16 * 1024);
            } else if (n == 0 || errno != EINTR) {
                break;
            }
        }
        ::close(readEnd);
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            logInfo("UpdatePackageInstaller.install() - " + program + " succeeded");
            finish(std::nullopt);
            return;
        }
        std::string reason = exitText(status, program);
        if (const auto last = lastLine(output); !last.empty()) reason += " (\"" + last + "\")";
        logError("UpdatePackageInstaller.install() - " + reason);
        finish(reason);
    });
}

std::filesystem::path installedExecutable() {
    std::error_code error;
    std::string path = std::filesystem::read_symlink("/proc/self/exe", error).string();
    if (error || path.empty()) return "sprelio";
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    return path;
}

bool relaunchWhenThisProcessEnds(const std::filesystem::path& program) {
    const std::string pid = std::to_string(::getpid());
    const std::string script = "while kill -0 " + pid + " 2>/dev/null; do sleep 0.2; done; exec \"$0\"";
    std::vector<std::string> arguments{"/bin/sh", "-c", script, program.string()};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // A session of its own: the helper outlives this process and whatever ends its process group.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t helper = -1;
    const int spawned = posix_spawn(&helper, "/bin/sh", nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        logError(std::string("relaunchWhenThisProcessEnds() - the helper could not be started: ") +
                 std::strerror(spawned));
        return false;
    }
    logInfo("relaunchWhenThisProcessEnds() - " + program.string() + " starts when this process has ended");
    return true;
}

} // namespace sprelio::platform
