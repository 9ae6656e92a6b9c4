#include "platform/linux/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace sprelio::platform {

namespace {

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

} // namespace

ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input,
                         std::chrono::milliseconds timeout, bool captureOutput) {
    ProgramResult result;
    if (argv.empty()) return result;
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0) return result;
    if (captureOutput && (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)) {
        for (int* fd : {&in[0], &in[1], &out[0], &out[1], &err[0], &err[1]}) closeFd(*fd);
        return result;
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    if (captureOutput) {
        ::posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        ::posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    } else {
        ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    closeFd(in[0]);
    closeFd(out[1]);
    closeFd(err[1]);
    if (spawned != 0) {
        for (int* fd : {&in[1], &out[0], &err[0]}) closeFd(*fd);
        result.errorOutput = argv[0] + ": cannot be started";
        return result;
    }
    result.started = true;

    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::size_t written = 0;
    if (input.empty()) closeFd(in[1]);
    else ::fcntl(in[1], F_SETFL, O_NONBLOCK);
    // A reader that stops early must not kill us with SIGPIPE.
    ::signal(SIGPIPE, SIG_IGN);
    char buffer[4096];
    while (in[1] >= 0 || out[0] >= 0 || err[0] >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            break;
        }
        pollfd fds[3];
        int n = 0;
        if (in[1] >= 0) fds[n++] = {in[1], POLLOUT, 0};
        if (out[0] >= 0) fds[n++] = {out[0], POLLIN, 0};
        if (err[0] >= 0) fds[n++] = {err[0], POLLIN, 0};
        const int ready = ::poll(fds, n, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) break;
        for (int i = 0; i < n; ++i) {
            if (!fds[i].revents) continue;
            if (fds[i].fd == in[1]) {
                const auto w = ::write(in[1], input.data() + written, input.size() - written);
                if (w > 0) written += static_cast<std::size_t>(w);
                if (w < 0 && errno != EAGAIN) closeFd(in[1]);
                if (written >= input.size()) closeFd(in[1]);
                continue;
            }
            const auto r = ::read(fds[i].fd, buffer, sizeof buffer);
            if (r > 0) (fds[i].fd == out[0] ? result.output : result.errorOutput).append(buffer, static_cast<std::size_t>(r));
            else if (r == 0 || errno != EAGAIN) closeFd(fds[i].fd == out[0] ? out[0] : err[0]);
        }
    }
    for (int* fd : {&in[1], &out[0], &err[0]}) closeFd(*fd);
    int status = 0;
    if (result.timedOut) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return result;
    }
    // The pipes ended; the program itself may still be on its way out.
    while (true) {
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) return result;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            result.timedOut = true;
            return result;
        }
        ::usleep(1000);
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

bool programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (dir.empty()) continue;
        const std::string candidate = dir + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return true;
    }
    return false;
}

SerialJobs::SerialJobs() : thread_([this] { run(); }) {}

SerialJobs::~SerialJobs() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void SerialJobs::add(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
}

bool SerialJobs::waitUntilIdle(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return jobs_.empty() && !busy_; });
}

void SerialJobs::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) return; // stopping, and everything given has run
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lock.unlock();
        job();
        lock.lock();
        busy_ = false;
        changed_.notify_all();
    }
}

} // namespace sprelio::platform
