#include "platform/qt/QtMainLoop.h"

#include <QCoreApplication>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>

namespace sprelio::platform {

namespace {

class QtLoopTimer final : public Timer {
public:
    QtLoopTimer(Duration delay, Task task)
        : deadline_(std::chrono::steady_clock::now() + delay), task_(std::move(task)) {}

    void invalidate() override {
        std::lock_guard lock(mutex_);
        valid_ = false;
        task_ = nullptr;
    }
    bool isValid() const override {
        std::lock_guard lock(mutex_);
        return valid_;
    }
    Duration remaining() const override {
        std::lock_guard lock(mutex_);
        if (!valid_) return Duration::zero();
        const auto left = deadline_ - std::chrono::steady_clock::now();
        return left > Duration::zero() ? std::chrono::duration_cast<Duration>(left) : Duration::zero();
    }
    // On the loop's thread when the Qt timer fires; a timer invalidated in the meantime runs nothing.
    void fire() {
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (!valid_) return;
            valid_ = false;
            task = std::move(task_);
            task_ = nullptr;
        }
        if (task) task();
    }
    std::chrono::steady_clock::time_point deadline() const { return deadline_; }

private:
    mutable std::mutex mutex_;
    const std::chrono::steady_clock::time_point deadline_;
    Task task_;
    bool valid_ = true;
};

} // namespace

class QtMainLoop::Receiver final : public QObject {
public:
    using QObject::QObject;
};

QtMainLoop::QtMainLoop() : receiver_(new Receiver), thread_(QThread::currentThread()) {}

QtMainLoop::~QtMainLoop() { delete receiver_; }

void QtMainLoop::post(Task task) {
    QMetaObject::invokeMethod(receiver_, [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

std::shared_ptr<Timer> QtMainLoop::schedule(Duration delay, Task task) {
    auto timer = std::make_shared<QtLoopTimer>(delay, std::move(task));
    std::weak_ptr<QtLoopTimer> weak = timer;
    // Qt timers belong to the thread that starts them, so the timer is started from a task on the loop; the
    // remaining delay is measured then, so a busy loop doesn't add its backlog to the delay.
    auto start = [this, weak] {
        auto strong = weak.lock();
        if (!strong || !strong->isValid()) return;
        const auto left = strong->deadline() - std::chrono::steady_clock::now();
        const auto ms = std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(left).count());
        // The timer object keeps itself alive until it fires, independently of who holds the handle.
        QTimer::singleShot(std::chrono::milliseconds(ms), Qt::PreciseTimer, receiver_, [strong] { strong->fire(); });
    };
    if (isMainThread()) {
        start();
    } else {
        post(std::move(start));
    }
    return timer;
}

bool QtMainLoop::isMainThread() const { return QThread::currentThread() == thread_; }

} // namespace sprelio::platform
