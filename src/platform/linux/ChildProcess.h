#pragma once
// Programs that a desktop offers as its only way to a facility (wl-copy, wtype, swaymsg): run with a text on their
// standard input, their output read back, and a limit on how long they may take.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace sprelio::platform {

struct ProgramResult {
    // The exit status; -1 when the program could not be started, was killed, or ran out of time.
    int exitCode = -1;
    std::string output;
    std::string errorOutput;
    bool timedOut = false;
    bool started = false;
};

// Runs `argv` (the program found on PATH), writes `input` to its standard input and closes it. With
// `captureOutput` false its output goes to /dev/null, which a program that leaves a child behind to serve (wl-copy)
// needs: a pipe it inherits would never reach its end. A program still running after `timeout` is killed.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input,
                         std::chrono::milliseconds timeout, bool captureOutput = true);

// Whether an executable of that name is on PATH.
bool programOnPath(const std::string& name);

// One thread that runs jobs in the order they were given; the destructor waits for those already given.
class SerialJobs {
public:
    SerialJobs();
    ~SerialJobs();
    SerialJobs(const SerialJobs&) = delete;
    SerialJobs& operator=(const SerialJobs&) = delete;

    void add(std::function<void()> job);
    // Waits until every job given so far has run; false when the time ran out.
    bool waitUntilIdle(std::chrono::milliseconds timeout) const;

private:
    void run();

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace sprelio::platform
