#include "platform/qt/LogindWakeMonitor.h"

#include <QDBusError>

#include "base/Log.h"

namespace sprelio::platform {

namespace {
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSignal = QStringLiteral("PrepareForSleep");
} // namespace

LogindWakeMonitor::LogindWakeMonitor(MainLoop& loop, QDBusConnection connection, QString service)
    : loop_(loop), connection_(std::move(connection)), service_(std::move(service)) {
    if (!connection_.isConnected()) {
        logWarning("LogindWakeMonitor: no D-Bus system bus (" + connection_.lastError().message().toStdString() +
                   "), system wake will not be noticed");
        return;
    }
    listening_ = connection_.connect(service_, kPath, kInterface, kSignal, this, SLOT(prepareForSleep(bool)));
    if (!listening_) {
        logWarning("LogindWakeMonitor: could not subscribe to " + kInterface.toStdString() + "." +
                   kSignal.toStdString() + ": " + connection_.lastError().message().toStdString());
    }
}

LogindWakeMonitor::~LogindWakeMonitor() {
    if (listening_) connection_.disconnect(service_, kPath, kInterface, kSignal, this, SLOT(prepareForSleep(bool)));
}

void LogindWakeMonitor::setWakeHandler(WakeHandler handler) { handler_ = std::move(handler); }

void LogindWakeMonitor::prepareForSleep(bool start) {
    if (start || !handler_) return;
    // Posted, so that the handler runs as a task of its own like every other report of the machine.
    loop_.post([this] {
        if (handler_) handler_();
    });
}

} // namespace sprelio::platform
