#pragma once
// The desktop application's main loop is Qt's: posts and timers become events on the GUI thread, so the logic and
// the widgets share one thread and never need locks between them.
#include <QObject>
#include <QThread>

#include "platform/MainLoop.h"

namespace sprelio::platform {

class QtMainLoop final : public MainLoop {
public:
    // Must be made on the thread that runs the QCoreApplication.
    QtMainLoop();
    ~QtMainLoop() override;

    void post(Task task) override;
    std::shared_ptr<Timer> schedule(Duration delay, Task task) override;
    bool isMainThread() const override;

private:
    class Receiver;
    // Owned by the loop's thread; tasks are queued calls on it so they run in the order they were posted.
    QObject* receiver_;
    QThread* thread_;
};

} // namespace sprelio::platform
