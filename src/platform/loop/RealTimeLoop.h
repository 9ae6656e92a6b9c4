#pragma once
// The core's own main loop for headless binaries (command line, server): tasks and timers on the thread that
// calls run(), in real time.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/MainLoop.h"
#include "platform/TimerQueue.h"

namespace sprelio::platform {

class RealTimeLoop final : public MainLoop {
public:
    RealTimeLoop();
    ~RealTimeLoop() override;

    void post(Task task) override;
    std::shared_ptr<Timer> schedule(Duration delay, Task task) override;
    bool isMainThread() const override;

    // Runs tasks and timers until quit() is called. The calling thread becomes the loop's thread.
    void run();
    // Runs until `done` returns true (checked after every task) or the deadline passes; returns whether done held.
    bool runUntil(const std::function<bool()>& done, Duration timeout);
    void quit();

private:
    bool runOnce(std::chrono::steady_clock::time_point deadline);

    // Its mutex is the loop's.
    TimerQueue<std::chrono::steady_clock::time_point> timers_{[] { return std::chrono::steady_clock::now(); }};
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::atomic<bool> quit_{false};
    std::atomic<std::thread::id> thread_;
};

// A small pool of worker threads; tasks run in submission order per worker, in no overall order.
class ThreadWorkerPool final : public WorkerPool {
public:
    explicit ThreadWorkerPool(unsigned threads = 2);
    ~ThreadWorkerPool() override;
    void submit(Task task) override;

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace sprelio::platform
