#include "platform/qt/PowerSourceMonitor.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <cmath>

#include "base/Log.h"

namespace sprelio::platform {

namespace {
const QString kDaemonPath = QStringLiteral("/org/freedesktop/UPower");
const QString kDaemonInterface = QStringLiteral("org.freedesktop.UPower");
const QString kDisplayDevicePath = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");
const QString kDeviceInterface = QStringLiteral("org.freedesktop.UPower.Device");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kPropertiesChanged = QStringLiteral("PropertiesChanged");

void logUnreadable() { logWarning("PowerSourceMonitor.logCurrentPowerState() - unable to read power source info"); }
} // namespace

PowerSourceMonitor::PowerSourceMonitor(const Clock& clock, QDBusConnection connection, QString service)
    : clock_(clock), connection_(std::move(connection)), service_(std::move(service)) {}

PowerSourceMonitor::~PowerSourceMonitor() {
    if (!runLoopSource_) return;
    for (const auto& path : {kDaemonPath, kDisplayDevicePath})
        connection_.disconnect(service_, path, kProperties, kPropertiesChanged, this,
                               SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
}

void PowerSourceMonitor::startMonitoring() {
    if (runLoopSource_) return;
    // The source changes on the daemon (OnBattery), the charge on the display device; both can mean a new source.
    runLoopSource_ = connection_.isConnected();
    for (const auto& path : {kDaemonPath, kDisplayDevicePath}) {
        if (runLoopSource_)
            runLoopSource_ = connection_.connect(service_, path, kProperties, kPropertiesChanged, this,
                                                 SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
    }
    if (!runLoopSource_) {
        logError("PowerSourceMonitor.startMonitoring() - failed to create run loop source");
        return;
    }
    logInfo("PowerSourceMonitor.startMonitoring() - started");
    logCurrentPowerState("🔋 Initial power state at startup", false);
}

void PowerSourceMonitor::propertiesChanged(const QString&, const QVariantMap&, const QStringList&) {
    lastPowerEventDate_ = clock_.now();
    logCurrentPowerState("⚡️ Power source changed", true);
}

void PowerSourceMonitor::logCurrentPowerState(const std::string& label, bool onlyWhenSourceChanged) {
    auto onBattery = QDBusMessage::createMethodCall(service_, kDaemonPath, kProperties, QStringLiteral("Get"));
    onBattery << kDaemonInterface << QStringLiteral("OnBattery");
    auto* sourceCall = new QDBusPendingCallWatcher(connection_.asyncCall(onBattery), this);
    connect(sourceCall, &QDBusPendingCallWatcher::finished, this,
            [this, label, onlyWhenSourceChanged](QDBusPendingCallWatcher* source) {
                source->deleteLater();
                const QDBusPendingReply<QDBusVariant> sourceReply = *source;
                if (sourceReply.isError()) {
                    logUnreadable();
                    return;
                }
                const std::string powerSource =
                    sourceReply.value().variant().toBool() ? "Battery Power" : "AC Power";
                auto device = QDBusMessage::createMethodCall(service_, kDisplayDevicePath, kProperties,
                                                             QStringLiteral("GetAll"));
                device << kDeviceInterface;
                auto* deviceCall = new QDBusPendingCallWatcher(connection_.asyncCall(device), this);
                connect(deviceCall, &QDBusPendingCallWatcher::finished, this,
                        [this, label, onlyWhenSourceChanged, powerSource](QDBusPendingCallWatcher* call) {
                            call->deleteLater();
                            const QDBusPendingReply<QVariantMap> reply = *call;
                            // Without a battery there is no power source to describe.
                            if (reply.isError() || !reply.value().value(QStringLiteral("IsPresent")).toBool()) {
                                logUnreadable();
                                return;
                            }
                            if (onlyWhenSourceChanged && lastPowerSource_ == powerSource) return;
                            lastPowerSource_ = powerSource;
                            const double percentage = reply.value().value(QStringLiteral("Percentage")).toDouble();
                            logInfo("PowerSourceMonitor.logCurrentPowerState() - " + label +
                                    " - Power Source State: " + powerSource +
                                    ", Current Capacity: " + std::to_string(std::lround(percentage)));
                        });
            });
}

} // namespace sprelio::platform
