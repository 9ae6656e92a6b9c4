#pragma once
// The system's wake, as logind announces it: PrepareForSleep(false) on the system bus. The same signal with true
// (going to sleep) is not a wake and is ignored.
#include <QDBusConnection>
#include <QObject>
#include <QString>

#include "platform/MainLoop.h"
#include "platform/SystemEvents.h"

namespace sprelio::platform {

class LogindWakeMonitor final : public QObject, public SystemEvents {
    Q_OBJECT
public:
    // `service` is the sender the signal must come from; the connection is the system bus in the application,
    // a private bus in tests.
    LogindWakeMonitor(MainLoop& loop, QDBusConnection connection = QDBusConnection::systemBus(),
                      QString service = QStringLiteral("org.freedesktop.login1"));
    ~LogindWakeMonitor() override;

    void setWakeHandler(WakeHandler handler) override;
    // Whether the subscription to the signal was accepted by the bus (false without a bus, e.g. in a container).
    bool isListening() const { return listening_; }

private slots:
    void prepareForSleep(bool start);

private:
    MainLoop& loop_;
    QDBusConnection connection_;
    QString service_;
    WakeHandler handler_;
    bool listening_ = false;
};

} // namespace sprelio::platform
