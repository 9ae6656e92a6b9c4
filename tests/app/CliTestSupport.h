#pragma once
// Runs the real `sprelio` binary as a user would: a fresh, empty home in a temporary folder, nothing inherited
// from the environment but PATH.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace clitest {

namespace fs = std::filesystem;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

class CliFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "sprelio-cli-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
    }
    void TearDown() override { fs::remove_all(root_); }

    // The command line of one run, its output going to the two files.
    std::string commandLine(const std::vector<std::string>& args, const fs::path& out, const fs::path& err) const {
        std::string cmd = "env -i PATH=/usr/bin:/bin HOME=" + quote(root_.string());
        for (const auto& [name, value] : environment) cmd += " " + name + "=" + quote(value);
        cmd += " " + quote(SPRELIO_BINARY);
        for (const auto& a : args) cmd += " " + quote(a);
        cmd += " >" + quote(out.string()) + " 2>" + quote(err.string());
        return cmd;
    }

    Result run(const std::vector<std::string>& args) {
        const std::string cmd = commandLine(args, root_ / "out", root_ / "err");
        int raw = std::system(cmd.c_str());
        Result r;
        r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        r.out = readFile(root_ / "out");
        r.err = readFile(root_ / "err");
        return r;
    }

    fs::path settingsFile() const { return root_ / ".config/Sprelio/settings.json"; }
    fs::path storeFile() const { return root_ / ".local/share/Sprelio/Persistence.sqlite"; }
    fs::path logFile() const { return root_ / ".local/share/Sprelio/logs/app_log.txt"; }

    // Variables given to every run besides PATH and HOME.
    std::vector<std::pair<std::string, std::string>> environment;
    fs::path root_;
};

// A run that goes on while the test does other things; ended (SIGTERM) if the test leaves it running.
class BackgroundRun {
public:
    BackgroundRun(const std::string& commandLine, fs::path out, fs::path err)
        : out_(std::move(out)), err_(std::move(err)) {
        // Made before the fork: the child of a process with threads may only exec.
        const std::string script = "exec " + commandLine;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~BackgroundRun() {
        if (pid_ > 0 && !finished_) {
            ::kill(pid_, SIGTERM);
            int raw = 0;
            ::waitpid(pid_, &raw, 0);
        }
    }
    BackgroundRun(const BackgroundRun&) = delete;
    BackgroundRun& operator=(const BackgroundRun&) = delete;

    bool started() const { return pid_ > 0; }
    std::string out() const { return readFile(out_); }
    std::string err() const { return readFile(err_); }
    // Waits until the process has ended, polling; nothing when it is still running after `timeout`.
    std::optional<Result> wait(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!finished_) {
            int raw = 0;
            const pid_t done = ::waitpid(pid_, &raw, WNOHANG);
            if (done == pid_) {
                finished_ = true;
                status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
                break;
            }
            if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return Result{status_, out(), err()};
    }

private:
    fs::path out_, err_;
    pid_t pid_ = -1;
    bool finished_ = false;
    int status_ = -1;
};

// Polls `condition` until it holds or `timeout` passes; returns whether it held.
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace clitest
