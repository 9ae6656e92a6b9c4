#include "platform/loop/RealTimeLoop.h"

#include <algorithm>

namespace sprelio::platform {

using SteadyClock = std::chrono::steady_clock;

struct RealTimeLoop::LoopTimer final : Timer {
    RealTimeLoop* loop;
    SteadyClock::time_point due;
    std::uint64_t sequence;
    Task task;
    bool valid = true;

    LoopTimer(RealTimeLoop* l, SteadyClock::time_point d, std::uint64_t s, Task t)
        : loop(l), due(d), sequence(s), task(std::move(t)) {}
    void invalidate() override {
        std::lock_guard lock(loop->mutex_);
        valid = false;
    }
    bool isValid() const override {
        std::lock_guard lock(loop->mutex_);
        return valid;
    }
    Duration remaining() const override {
        std::lock_guard lock(loop->mutex_);
        if (!valid) return Duration{0};
        auto left = due - SteadyClock::now();
        return left > Duration{0} ? std::chrono::duration_cast<Duration>(left) : Duration{0};
    }
};

RealTimeLoop::RealTimeLoop() : thread_(std::this_thread::get_id()) {}

RealTimeLoop::~RealTimeLoop() {
    // Timers may outlive the loop in their holders' hands; make them inert.
    std::lock_guard lock(mutex_);
    for (auto& t : timers_) t->valid = false;
}

void RealTimeLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

std::shared_ptr<Timer> RealTimeLoop::schedule(Duration delay, Task task) {
    std::shared_ptr<LoopTimer> timer;
    {
        std::lock_guard lock(mutex_);
        timer = std::make_shared<LoopTimer>(this, SteadyClock::now() + std::max(delay, Duration{0}), sequence_++,
                                            std::move(task));
        timers_.push_back(timer);
    }
    wake_.notify_one();
    return timer;
}

bool RealTimeLoop::isMainThread() const { return std::this_thread::get_id() == thread_.load(); }

bool RealTimeLoop::runOnce(SteadyClock::time_point deadline) {
    Task task;
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (quit_) return false;
            if (!tasks_.empty()) {
                task = std::move(tasks_.front());
                tasks_.pop_front();
                break;
            }
            std::erase_if(timers_, [](const auto& t) { return !t->valid; });
            auto next = std::min_element(timers_.begin(), timers_.end(), [](const auto& a, const auto& b) {
                return a->due < b->due || (a->due == b->due && a->sequence < b->sequence);
            });
            auto now = SteadyClock::now();
            if (next != timers_.end() && (*next)->due <= now) {
                (*next)->valid = false;
                task = std::move((*next)->task);
                break;
            }
            auto wakeAt = deadline;
            if (next != timers_.end()) wakeAt = std::min(wakeAt, (*next)->due);
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
