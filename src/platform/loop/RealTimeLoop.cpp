#include "platform/loop/RealTimeLoop.h"

#include <algorithm>

namespace sprelio::platform {

using SteadyClock = std::chrono::steady_clock;

RealTimeLoop::RealTimeLoop() : thread_(std::this_thread::get_id()) {}

// The timer queue makes the timers that outlive the loop in their holders' hands inert.
RealTimeLoop::~RealTimeLoop() = default;

void RealTimeLoop::post(Task task) {
    {
        std::lock_guard lock(timers_.mutex());
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

std::shared_ptr<Timer> RealTimeLoop::schedule(Duration delay, Task task) {
    std::shared_ptr<Timer> timer;
    {
        std::lock_guard lock(timers_.mutex());
        timer = timers_.add(delay, std::move(task));
    }
    wake_.notify_one();
    return timer;
}

bool RealTimeLoop::isMainThread() const { return std::this_thread::get_id() == thread_.load(); }

bool RealTimeLoop::runOnce(SteadyClock::time_point deadline) {
    Task task;
    {
        std::unique_lock lock(timers_.mutex());
        for (;;) {
            if (quit_) return false;
            if (!tasks_.empty()) {
                task = std::move(tasks_.front());
                tasks_.pop_front();
                break;
            }
            const auto now = SteadyClock::now();
            if (auto fired = timers_.takeDue(now)) {
                task = std::move(fired->task);
                break;
            }
            auto wakeAt = deadline;
            if (auto due = timers_.nextDue()) wakeAt = std::min(wakeAt, *due);
            if (now >= deadline) return false;
            wake_.wait_until(lock, wakeAt);
        }
    }
    task();
    return true;
}

void RealTimeLoop::run() {
    thread_ = std::this_thread::get_id();
    while (runOnce(SteadyClock::time_point::max())) {
    }
}

bool RealTimeLoop::runUntil(const std::function<bool()>& done, Duration timeout) {
    thread_ = std::this_thread::get_id();
    quit_ = false;
    const auto deadline = SteadyClock::now() + timeout;
    while (!done()) {
        if (!runOnce(deadline)) return done();
    }
    return true;
}

void RealTimeLoop::quit() {
    quit_ = true;
    wake_.notify_all();
}

ThreadWorkerPool::ThreadWorkerPool(unsigned threads) {
    for (unsigned i = 0; i < std::max(1u, threads); ++i) {
        threads_.emplace_back([this] {
            for (;;) {
                Task task;
                {
                    std::unique_lock lock(mutex_);
                    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
                    if (tasks_.empty()) return;
                    task = std::move(tasks_.front());
                    tasks_.pop_front();
                }
                task();
            }
        });
    }
}

ThreadWorkerPool::~ThreadWorkerPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (auto& t : threads_) t.join();
}

void ThreadWorkerPool::submit(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

} // namespace sprelio::platform
