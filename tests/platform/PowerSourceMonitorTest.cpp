// The power state in the log: a bus of the test's own (a real dbus-daemon) stands in for the system bus, and a
// small UPower of the test's own on it answers property reads and announces changes as the real daemon does.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>

#include "PrivateDBus.h"
#include "platform/qt/PowerSourceMonitor.h"
#include "platform/test/TestPlatform.h"

using namespace std::chrono_literals;
using sprelio::platform::PowerSourceMonitor;
using sprelio::platform::test::RecordingLogSink;
using sprelio::platform::test::TestPlatform;
using sprelio::dbustest::processUntil;

namespace {

const QString kDaemonPath = QStringLiteral("/org/freedesktop/UPower");
const QString kDisplayDevicePath = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

// One object of the fake UPower: its properties by interface, read through org.freedesktop.DBus.Properties.
class FakeUPowerObject final : public QDBusVirtualObject {
public:
    FakeUPowerObject(QString interface, QVariantMap properties)
        : properties_(std::move(properties)), interface_(std::move(interface)) {}
    QVariantMap properties_;

    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.interface() != kProperties) return false;
        const auto arguments = message.arguments();
        if (arguments.isEmpty() || arguments.at(0).toString() != interface_) {
            connection.send(message.createErrorReply(QDBusError::UnknownInterface, "no such interface"));
            return true;
        }
        if (message.member() == QStringLiteral("GetAll")) {
            connection.send(message.createReply(QVariant::fromValue(properties_)));
            return true;
        }
        if (message.member() == QStringLiteral("Get") && arguments.size() == 2 &&
            properties_.contains(arguments.at(1).toString())) {
            connection.send(
                message.createReply(QVariant::fromValue(QDBusVariant(properties_.value(arguments.at(1).toString())))));
            return true;
        }
        connection.send(message.createErrorReply(QDBusError::UnknownProperty, "no such property"));
        return true;
    }

private:
    QString interface_;
};

class PowerSource : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bus_.failure().isEmpty()) << bus_.failure().toStdString(); }
    void TearDown() override {
        QDBusConnection::disconnectFromBus("monitor");
        QDBusConnection::disconnectFromBus("upower");
    }
    // UPower on the bus, with a battery when `battery` holds.
    void startUPower(bool onBattery, bool battery, double percentage) {
        upowerBus_ = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(bus_.address(), "upower"));
        ASSERT_TRUE(upowerBus_->isConnected());
        daemonObject_ = std::make_unique<FakeUPowerObject>(QStringLiteral("org.freedesktop.UPower"),
                                                           QVariantMap{{"OnBattery", onBattery}});
        deviceObject_ = std::make_unique<FakeUPowerObject>(
            QStringLiteral("org.freedesktop.UPower.Device"),
            QVariantMap{{"IsPresent", battery}, {"Percentage", percentage}, {"Type", 2u}});
        ASSERT_TRUE(upowerBus_->registerVirtualObject(kDaemonPath, daemonObject_.get()));
        ASSERT_TRUE(upowerBus_->registerVirtualObject(kDisplayDevicePath, deviceObject_.get()));
        ASSERT_TRUE(upowerBus_->registerService("org.freedesktop.UPower"));
    }
    // A property changes and UPower says so.
    void change(FakeUPowerObject& object, const QString& path, const QString& interface, const QString& name,
                const QVariant& value) {
        object.properties_[name] = value;
        auto signal = QDBusMessage::createSignal(path, kProperties, QStringLiteral("PropertiesChanged"));
        signal << interface << QVariantMap{{name, value}} << QStringList{};
        ASSERT_TRUE(upowerBus_->send(signal));
    }
    void setOnBattery(bool value) {
        change(*daemonObject_, kDaemonPath, QStringLiteral("org.freedesktop.UPower"), "OnBattery", value);
    }
    void setPercentage(double value) {
        change(*deviceObject_, kDisplayDevicePath, QStringLiteral("org.freedesktop.UPower.Device"), "Percentage",
               value);
    }
    std::vector<std::string> stateLines() const {
        std::vector<std::string> lines;
        for (const auto& line : logs_.lines())
            if (line.message.rfind("PowerSourceMonitor.logCurrentPowerState() - ", 0) == 0) lines.push_back(line.message);
        return lines;
    }

    sprelio::dbustest::PrivateBus bus_;
    RecordingLogSink logs_;
    TestPlatform tp_;
    std::unique_ptr<QDBusConnection> upowerBus_;
    std::unique_ptr<FakeUPowerObject> daemonObject_, deviceObject_;
};

TEST_F(PowerSource, TheStateIsLoggedAtTheStartAndWhenTheSourceChanges) {
    startUPower(false, true, 80.4);
    PowerSourceMonitor monitor(tp_, QDBusConnection::connectToBus(bus_.address(), "monitor"));
    monitor.startMonitoring();
    ASSERT_TRUE(monitor.isMonitoring());
    EXPECT_TRUE(logs_.contains("PowerSourceMonitor.startMonitoring() - started"));
    const std::string initial = "PowerSourceMonitor.logCurrentPowerState() - 🔋 Initial power state at startup - "
                                "Power Source State: AC Power, Current Capacity: 80";
    ASSERT_TRUE(processUntil([&] { return logs_.contains(initial); })) << ::testing::PrintToString(stateLines());
    EXPECT_EQ(monitor.lastPowerSource(), "AC Power");

    setOnBattery(true);
    const std::string unplugged = "PowerSourceMonitor.logCurrentPowerState() - ⚡️ Power source changed - "
                                  "Power Source State: Battery Power, Current Capacity: 80";
    ASSERT_TRUE(processUntil([&] { return logs_.contains(unplugged); })) << ::testing::PrintToString(stateLines());
    EXPECT_TRUE(monitor.lastPowerEventDate());

    // The charge falls on battery: an event, but the same source, so nothing new in the log.
    setPercentage(79.0);
    setOnBattery(false);
    const std::string pluggedIn = "PowerSourceMonitor.logCurrentPowerState() - ⚡️ Power source changed - "
                                  "Power Source State: AC Power, Current Capacity: 79";
    ASSERT_TRUE(processUntil([&] { return logs_.contains(pluggedIn); })) << ::testing::PrintToString(stateLines());
    EXPECT_EQ(stateLines().size(), 3u) << ::testing::PrintToString(stateLines());
}

TEST_F(PowerSource, AMachineWithoutBatteryHasNoPowerSourceInfo) {
    startUPower(false, false, 0.0);
    PowerSourceMonitor monitor(tp_, QDBusConnection::connectToBus(bus_.address(), "monitor"));
    monitor.startMonitoring();
    ASSERT_TRUE(processUntil([&] {
        return logs_.contains("PowerSourceMonitor.logCurrentPowerState() - unable to read power source info",
                              sprelio::LogLevel::warning);
    }));
    EXPECT_FALSE(monitor.lastPowerSource());
}

TEST_F(PowerSource, NoUPowerOnTheBusMeansNoInfoAndNoCrash) {
    PowerSourceMonitor monitor(tp_, QDBusConnection::connectToBus(bus_.address(), "monitor"));
    monitor.startMonitoring();
    EXPECT_TRUE(monitor.isMonitoring()) << "the subscription waits for UPower to appear";
    ASSERT_TRUE(processUntil(
        [&] { return logs_.contains("PowerSourceMonitor.logCurrentPowerState() - unable to read power source info"); }));
}

TEST_F(PowerSource, NoBusMeansNoMonitoringAndNoCrash) {
    PowerSourceMonitor monitor(
        tp_, QDBusConnection::connectToBus(bus_.absentAddress(), "monitor"));
    monitor.startMonitoring();
    EXPECT_FALSE(monitor.isMonitoring());
    EXPECT_TRUE(logs_.contains("PowerSourceMonitor.startMonitoring() - failed to create run loop source",
                               sprelio::LogLevel::error));
    EXPECT_FALSE(logs_.contains("PowerSourceMonitor.startMonitoring() - started"));
}

} // namespace
