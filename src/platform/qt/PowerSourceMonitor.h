#pragma once
// The power state for the diagnosis of problem reports: whether the machine runs on AC or on its battery and the
// battery's charge, as UPower tells on the system bus. It is written to the log at the start and whenever the
// source changes (plugged in, unplugged); it changes nothing else.
//
// UPower's daemon property OnBattery gives the source; its display device (the combined battery of the machine) the
// charge. A machine without a battery has no information to give, as a desktop computer has none.
#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <chrono>
#include <optional>
#include <string>

#include "platform/Clock.h"

namespace sprelio::platform {

class PowerSourceMonitor final : public QObject {
    Q_OBJECT
public:
    // The connection is the system bus in the application, a private bus in tests.
    explicit PowerSourceMonitor(const Clock& clock, QDBusConnection connection = QDBusConnection::systemBus(),
                                QString service = QStringLiteral("org.freedesktop.UPower"));
    ~PowerSourceMonitor() override;

    void startMonitoring();
    // Whether the change notifications were subscribed (the "run loop source" of the notifications).
    bool isMonitoring() const { return runLoopSource_; }
    const std::optional<std::chrono::system_clock::time_point>& lastPowerEventDate() const { return lastPowerEventDate_; }
    const std::optional<std::string>& lastPowerSource() const { return lastPowerSource_; }

private slots:
    void propertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);

private:
    // Reads the state without blocking the loop and writes it with `label`; with `onlyWhenSourceChanged`, only when
    // the source differs from the last one written.
    void logCurrentPowerState(const std::string& label, bool onlyWhenSourceChanged);

    const Clock& clock_;
    QDBusConnection connection_;
    QString service_;
    bool runLoopSource_ = false;
    std::optional<std::chrono::system_clock::time_point> lastPowerEventDate_;
    std::optional<std::string> lastPowerSource_;
};

} // namespace sprelio::platform
