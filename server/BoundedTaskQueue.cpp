#include "server/BoundedTaskQueue.h"

#include "base/Log.h"

namespace sprelio::server {

BoundedTaskQueue::BoundedTaskQueue(std::size_t threads, std::size_t maxQueued) : maxQueued_(maxQueued ? maxQueued : 1) {
    if (threads == 0) threads = 1;
    threads_.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

BoundedTaskQueue::~BoundedTaskQueue() { shutdown(); }

void BoundedTaskQueue::enqueue(std::function<void()> fn) {
    std::unique_lock lock(mutex_);
    hasRoom_.wait(lock, [this] { return jobs_.size() < maxQueued_ || shuttingDown_; });
    jobs_.push_back(std::move(fn));
    hasWork_.notify_one();
}

void BoundedTaskQueue::shutdown() {
    {
        std::lock_guard lock(mutex_);
        if (shuttingDown_ && threads_.empty()) return;
        shuttingDown_ = true;
    }
    hasWork_.notify_all();
    hasRoom_.notify_all();
    for (auto& thread : threads_)
        if (thread.joinable()) thread.join();
    threads_.clear();
}

void BoundedTaskQueue::work() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            hasWork_.wait(lock, [this] { return !jobs_.empty() || shuttingDown_; });
            if (jobs_.empty()) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        hasRoom_.notify_one();
        try {
            job();
        } catch (const std::exception& e) {
            log(LogLevel::error, std::string("BoundedTaskQueue.work() - a connection ended with an exception: ") +
                                     e.what());
        } catch (...) {
            log(LogLevel::error, "BoundedTaskQueue.work() - a connection ended with an unknown exception");
        }
    }
}

} // namespace sprelio::server
