#pragma once
// The one main loop on which all session state lives. Every "post" in the logic is a task on it.
#include <chrono>
#include <functional>
#include <memory>

namespace sprelio::platform {

using Task = std::function<void()>;
using Duration = std::chrono::nanoseconds;

// A one-shot timer on the main loop. Cancelling is idempotent; a fired timer is no longer valid.
class Timer {
public:
    virtual ~Timer() = default;
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;
    // Time left until it fires, zero once fired or invalidated.
    virtual Duration remaining() const = 0;
};

class MainLoop {
public:
    virtual ~MainLoop() = default;
    // Thread-safe. Tasks run on the loop in the order they were posted.
    virtual void post(Task task) = 0;
    // Thread-safe. Runs the task on the loop once the delay has passed; the returned timer cancels it.
    virtual std::shared_ptr<Timer> schedule(Duration delay, Task task) = 0;
    void postAfter(Duration delay, Task task) { (void)schedule(delay, std::move(task)); }
    virtual bool isMainThread() const = 0;
};

// "Global queue of user-initiated quality": work that must not run on the main loop.
class WorkerPool {
public:
    virtual ~WorkerPool() = default;
    virtual void submit(Task task) = 0;
};

} // namespace sprelio::platform
