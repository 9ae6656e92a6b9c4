#pragma once
// A D-Bus of the test's own: a real dbus-daemon in a temporary folder, standing in for the system bus, with Qt's
// core application and a wait that spins Qt's loop. For adapters that listen to system services (logind, UPower).
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <chrono>
#include <functional>

namespace sprelio::dbustest {

using namespace std::chrono_literals;

inline QCoreApplication& application() {
    static int argc = 1;
    static char name[] = "test_platform";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = QCoreApplication::instance() ? QCoreApplication::instance()
                                                                : new QCoreApplication(argc, argv);
    return *app;
}

// Spins Qt's loop until the condition holds or the deadline passes.
inline bool processUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

class PrivateBus {
public:
    // Empty `failure()` when the daemon runs and has told its address.
    PrivateBus() {
        application();
        if (!folder_.isValid()) {
            failure_ = "no temporary folder";
            return;
        }
        daemon_.setProgram("dbus-daemon");
        daemon_.setArguments({"--session", "--nofork", "--print-address=1", "--address=unix:dir=" + folder_.path()});
        daemon_.start();
        if (!daemon_.waitForStarted(5000)) {
            failure_ = "dbus-daemon missing";
            return;
        }
        if (!processUntil([&] { return daemon_.canReadLine(); }, 10s)) {
            failure_ = "dbus-daemon gave no address";
            return;
        }
        address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
    }
    ~PrivateBus() {
        daemon_.kill();
        daemon_.waitForFinished(5000);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const QString& failure() const { return failure_; }
    const QString& address() const { return address_; }
    // An address where no bus listens.
    QString absentAddress() const { return QStringLiteral("unix:path=") + folder_.path() + "/absent"; }

private:
    QTemporaryDir folder_;
    QProcess daemon_;
    QString address_;
    QString failure_;
};

} // namespace sprelio::dbustest
