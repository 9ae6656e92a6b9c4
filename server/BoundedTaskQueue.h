#pragma once
// The HTTP workers: a fixed number of threads and a bounded queue of accepted connections. When the queue is full
// the accepting thread waits for a free place, so the kernel's listen backlog absorbs a burst instead of this
// process's memory.
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <httplib.h>

namespace sprelio::server {

class BoundedTaskQueue final : public httplib::TaskQueue {
public:
    BoundedTaskQueue(std::size_t threads, std::size_t maxQueued);
    ~BoundedTaskQueue() override;

    void enqueue(std::function<void()> fn) override;
    // Runs what is queued to its end, then joins the threads.
    void shutdown() override;

private:
    void work();

    std::size_t maxQueued_;
    std::mutex mutex_;
    std::condition_variable hasWork_;
    std::condition_variable hasRoom_;
    std::deque<std::function<void()>> jobs_;
    bool shuttingDown_ = false;
    std::vector<std::thread> threads_;
};

} // namespace sprelio::server
