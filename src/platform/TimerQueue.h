#pragma once
// The one-shot timers of a main loop, on whatever time line the loop keeps: steady-clock time points for a loop
// that runs in real time, the elapsed virtual time for a loop that only moves when a test tells it to.
//
// The queue owns the loop's mutex: one lock guards the loop's own state, the queue and the valid flag of every
// timer, so a timer can be cancelled or asked from any thread. A timer keeps that mutex alive, and the queue makes
// all its timers inert when it goes, so a timer that outlives its loop never fires and reports no time left.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/MainLoop.h"

namespace sprelio::platform {

template <typename TimePoint>
class TimerQueue {
public:
    // `now` tells the loop's time; it is asked with the mutex held.
    explicit TimerQueue(std::function<TimePoint()> now) : shared_(std::make_shared<Shared>()) {
        shared_->now = std::move(now);
    }
    ~TimerQueue() {
        std::lock_guard lock(shared_->mutex);
        for (auto& timer : timers_) timer->valid = false;
    }
    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    std::mutex& mutex() const { return shared_->mutex; }

    // The rest only with mutex() held.

    // A timer due `delay` from now (a negative delay counts as none).
    std::shared_ptr<Timer> add(Duration delay, Task task) {
        auto timer = std::make_shared<Entry>(shared_, shared_->now() + std::max(delay, Duration{0}), sequence_++,
                                             std::move(task));
        timers_.push_back(timer);
        return timer;
    }

    struct Fired {
        TimePoint due;
        Task task;
    };
    // Forgets the timers that were cancelled, then takes the earliest one (by due time, then by the order they were
    // scheduled in) if it is due at or before `by`: it is no longer valid, and its due time and task come back.
    std::optional<Fired> takeDue(TimePoint by) {
        std::erase_if(timers_, [](const auto& t) { return !t->valid; });
        auto next = earliest();
        if (next == timers_.end() || (*next)->due > by) return std::nullopt;
        (*next)->valid = false;
        return Fired{(*next)->due, std::move((*next)->task)};
    }

    // When the earliest valid timer is due; nothing when none is.
    std::optional<TimePoint> nextDue() const {
        auto next = earliest();
        if (next == timers_.end()) return std::nullopt;
        return (*next)->due;
    }

    std::size_t pending() const {
        return static_cast<std::size_t>(
            std::count_if(timers_.begin(), timers_.end(), [](const auto& t) { return t->valid; }));
    }

private:
    struct Shared {
        std::mutex mutex;
        std::function<TimePoint()> now;
    };

    struct Entry final : Timer {
        std::shared_ptr<Shared> shared;
        TimePoint due;
        std::uint64_t sequence;
        Task task;
        bool valid = true;

        Entry(std::shared_ptr<Shared> s, TimePoint d, std::uint64_t n, Task t)
            : shared(std::move(s)), due(d), sequence(n), task(std::move(t)) {}
        void invalidate() override {
            std::lock_guard lock(shared->mutex);
            valid = false;
        }
        bool isValid() const override {
            std::lock_guard lock(shared->mutex);
            return valid;
        }
        Duration remaining() const override {
            std::lock_guard lock(shared->mutex);
            if (!valid) return Duration{0};
            const auto left = due - shared->now();
            return left > decltype(left){0} ? std::chrono::duration_cast<Duration>(left) : Duration{0};
        }
    };

    typename std::vector<std::shared_ptr<Entry>>::const_iterator earliest() const {
        typename std::vector<std::shared_ptr<Entry>>::const_iterator next = timers_.end();
        for (auto it = timers_.begin(); it != timers_.end(); ++it) {
            if (!(*it)->valid) continue;
            if (next == timers_.end() || (*it)->due < (*next)->due ||
                ((*it)->due == (*next)->due && (*it)->sequence < (*next)->sequence))
                next = it;
        }
        return next;
    }

    std::shared_ptr<Shared> shared_;
    std::vector<std::shared_ptr<Entry>> timers_;
    std::uint64_t sequence_ = 0;
};

} // namespace sprelio::platform
