#include <unistd.h>
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QTimer>
#include <atomic>
#include <sstream>
#include <thread>

#include "PrivateDBus.h"
#include "platform/qt/LogindWakeMonitor.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/ScreenWakeMonitor.h"
#include "platform/linux/InstanceSocket.h"
#include "platform/qt/SingleInstance.h"
#include "platform/test/TemporaryFolder.h"

using namespace std::chrono_literals;
using sprelio::platform::LogindWakeMonitor;
using sprelio::platform::QtMainLoop;
using sprelio::platform::Rect;
using sprelio::platform::ScreenCoordinates;
using sprelio::dbustest::application;
using sprelio::dbustest::processUntil;

TEST(QtMainLoop, PostsRunInOrderFromAnyThreadAndTimersKeepTheirDueOrder) {
    application();
    QtMainLoop loop;
    std::vector<std::string> seen;
    std::atomic<bool> otherThreadSawMain{true};
    loop.post([&] { seen.push_back("a"); });
    std::thread([&] {
        otherThreadSawMain = loop.isMainThread();
        loop.post([&] { seen.push_back("b"); });
    }).join();
    loop.schedule(40ms, [&] { seen.push_back("late"); });
    loop.schedule(10ms, [&] { seen.push_back("early"); });
    EXPECT_TRUE(loop.isMainThread());
    EXPECT_FALSE(otherThreadSawMain.load());
    ASSERT_TRUE(processUntil([&] { return seen.size() == 4; }));
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "early", "late"}));
}

TEST(QtMainLoop, InvalidatedTimerNeverRunsAndTimerFromAnotherThreadRunsOnTheLoop) {
    application();
    QtMainLoop loop;
    bool cancelledRan = false;
    auto cancelled = loop.schedule(20ms, [&] { cancelledRan = true; });
    EXPECT_TRUE(cancelled->isValid());
    EXPECT_GT(cancelled->remaining(), 0ms);
    cancelled->invalidate();
    EXPECT_EQ(cancelled->remaining(), 0ms);

    std::atomic<bool> ranOnLoop{false};
    std::shared_ptr<sprelio::platform::Timer> fromThread;
    std::thread([&] { fromThread = loop.schedule(30ms, [&] { ranOnLoop = loop.isMainThread(); }); }).join();
    ASSERT_TRUE(processUntil([&] { return ranOnLoop.load(); }));
    EXPECT_FALSE(fromThread->isValid()) << "a fired timer is no longer valid";
    // Give the cancelled one well past its due time.
    auto marker = loop.schedule(40ms, [] {});
    ASSERT_TRUE(processUntil([&] { return !marker->isValid(); }));
    EXPECT_FALSE(cancelledRan);
}

TEST(ScreenCoordinates, FlipAboutThePrimaryScreensBottomEdge) {
    // A 1920x1080 primary at the origin and a 1280x1024 screen to its right, top-aligned (X11 view).
    ScreenCoordinates coords{QRect(0, 0, 1920, 1080)};
    EXPECT_EQ(coords.fromQt(QRect(0, 0, 1920, 1080)), (Rect{0, 0, 1920, 1080}));
    EXPECT_EQ(coords.fromQt(QRect(1920, 0, 1280, 1024)), (Rect{1920, 56, 1280, 1024}));
    // A window 100 px below the top of the primary, 50 px tall.
    EXPECT_EQ(coords.fromQt(QRect(10, 100, 200, 50)), (Rect{10, 930, 200, 50}));
    for (const QRect r : {QRect(10, 100, 200, 50), QRect(1920, 0, 1280, 1024), QRect(-800, 300, 800, 600)})
        EXPECT_EQ(coords.toQt(coords.fromQt(r)), r);
}

// A bus of the test's own stands in for the system bus; a connection on it owns logind's name and sends the
// signal exactly as logind does.
class LogindWake : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bus_.failure().isEmpty()) << bus_.failure().toStdString(); }
    void TearDown() override {
        QDBusConnection::disconnectFromBus("monitor");
        QDBusConnection::disconnectFromBus("logind");
    }
    void sendPrepareForSleep(QDBusConnection& bus, bool start) {
        auto signal = QDBusMessage::createSignal("/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                                 "PrepareForSleep");
        signal << start;
        ASSERT_TRUE(bus.send(signal));
    }
    sprelio::dbustest::PrivateBus bus_;
};

TEST_F(LogindWake, OnlyTheEndOfASleepFromLogindIsAWake) {
    QtMainLoop loop;
    QDBusConnection monitorBus = QDBusConnection::connectToBus(bus_.address(), "monitor");
    QDBusConnection logindBus = QDBusConnection::connectToBus(bus_.address(), "logind");
    ASSERT_TRUE(monitorBus.isConnected() && logindBus.isConnected());
    ASSERT_TRUE(logindBus.registerService("org.freedesktop.login1"));

    LogindWakeMonitor monitor(loop, monitorBus);
    ASSERT_TRUE(monitor.isListening());
    int wakes = 0;
    monitor.setWakeHandler([&] { ++wakes; });

    sendPrepareForSleep(logindBus, true);
    sendPrepareForSleep(logindBus, false);
    ASSERT_TRUE(processUntil([&] { return wakes == 1; }));

    // Somebody else on the bus sending the same signal is not logind.
    QDBusConnection impostor = QDBusConnection::connectToBus(bus_.address(), "impostor");
    sendPrepareForSleep(impostor, false);
    sendPrepareForSleep(logindBus, true);
    sendPrepareForSleep(logindBus, false);
    ASSERT_TRUE(processUntil([&] { return wakes >= 2; }));
    auto settle = loop.schedule(100ms, [] {});
    ASSERT_TRUE(processUntil([&] { return !settle->isValid(); }));
    EXPECT_EQ(wakes, 2);
    QDBusConnection::disconnectFromBus("impostor");

    monitor.setWakeHandler(nullptr);
    sendPrepareForSleep(logindBus, false);
    auto marker = loop.schedule(100ms, [] {});
    ASSERT_TRUE(processUntil([&] { return !marker->isValid(); }));
    EXPECT_EQ(wakes, 2) << "an empty handler stops the reports";
}

TEST_F(LogindWake, NoBusMeansNoListeningAndNoCrash) {
    QtMainLoop loop;
    QDBusConnection none = QDBusConnection::connectToBus(bus_.absentAddress(), "monitor");
    LogindWakeMonitor monitor(loop, none);
    EXPECT_FALSE(monitor.isListening());
    monitor.setWakeHandler([] {});
}

TEST(SingleInstance, TheSecondStartAsksTheFirstToComeForwardAndLeaves) {
    application();
    const QString name = QStringLiteral("sprelio-test-instance-%1").arg(QCoreApplication::applicationPid());
    int activations = 0;
    auto first = std::make_unique<sprelio::platform::SingleInstance>(name);
    ASSERT_TRUE(first->claim([&] { ++activations; }));

    // The second start runs in a process of its own in real life; the socket can't tell the difference.
    std::atomic<bool> secondClaimed{true};
    std::thread second([&] {
        sprelio::platform::SingleInstance other(name);
        secondClaimed = other.claim([] {});
    });
    ASSERT_TRUE(processUntil([&] { return activations == 1; }, 10s));
    second.join();
    EXPECT_FALSE(secondClaimed.load());

    first.reset();
    sprelio::platform::SingleInstance third(name);
    EXPECT_TRUE(third.claim([] {})) << "with the first gone, the next start is the instance";
}

TEST(SingleInstance, OneInstancePerUserAndDisplayInTheUsersRuntimeFolder) {
    const sprelio::platform::test::TemporaryFolder runtime("sprelio-runtime");
    const QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR"), savedDisplay = qgetenv("DISPLAY");
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(runtime.path().string()));
    qputenv("DISPLAY", ":7");
    const QString first = sprelio::platform::SingleInstance::defaultName();
    qputenv("DISPLAY", ":8.0");
    const QString second = sprelio::platform::SingleInstance::defaultName();
    qputenv("XDG_RUNTIME_DIR", QByteArray());
    const QString withoutRuntime = sprelio::platform::SingleInstance::defaultName();
    qputenv("XDG_RUNTIME_DIR", savedRuntime);
    qputenv("DISPLAY", savedDisplay);

    EXPECT_TRUE(first.startsWith(QString::fromStdString(runtime.path().string()) + QLatin1Char('/'))) << first.toStdString();
    EXPECT_NE(first, second) << "another display is another desktop";
    EXPECT_FALSE(withoutRuntime.startsWith(QString::fromStdString(runtime.path().string())));
    EXPECT_TRUE(withoutRuntime.endsWith(QStringLiteral("-%1").arg(getuid()))) << withoutRuntime.toStdString();
}

// A command typed in a terminal reaches the running instance, which answers with lines and a status, possibly
// later; the terminal side is the command line's own client, run on a thread as it would run in its own process.
TEST(SingleInstance, CommandsFromTheCommandLineGetTheirLinesAndStatus) {
    application();
    const sprelio::platform::test::TemporaryFolder runtime("sprelio-runtime");
    const QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR"), savedDisplay = qgetenv("DISPLAY");
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(runtime.path().string()));
    qputenv("DISPLAY", QByteArray(":channel") + QByteArray::number(QCoreApplication::applicationPid()));
    const auto ask = [](std::vector<std::string> args) {
        struct Answer {
            int status = -1;
            std::string out, err;
        };
        auto answer = std::make_shared<Answer>();
        auto done = std::make_shared<std::atomic<bool>>(false);
        std::thread([args, answer, done] {
            std::ostringstream out, err;
            answer->status = sprelio::platform::askRunningInstance(args, out, err);
            answer->out = out.str();
            answer->err = err.str();
            *done = true;
        }).detach();
        EXPECT_TRUE(processUntil([&] { return done->load(); }, 10s)) << args.front();
        return *answer;
    };

    const auto nobody = ask({"continuous", "start"});
    EXPECT_EQ(nobody.status, sprelio::platform::kNoRunningInstance);
    EXPECT_NE(nobody.err.find("not running"), std::string::npos) << nobody.err;

    sprelio::platform::SingleInstance instance;
    ASSERT_TRUE(instance.claim([] {}));
    std::vector<std::string> received;
    instance.handleCommands("echo", [&](sprelio::platform::RemoteCommand command) {
        received = command.args;
        command.print("first line\nwith a break");
        command.printError("a warning");
        // Answered later, as a command that waits for a recording would.
        QTimer::singleShot(30, [command] {
            command.print("done");
            command.finish(4);
            command.finish(0); // a second end is ignored
        });
    });

    const auto answered = ask({"echo", "a b", "\"quoted\""});
    EXPECT_EQ(received, (std::vector<std::string>{"echo", "a b", "\"quoted\""}));
    EXPECT_EQ(answered.status, 4);
    EXPECT_EQ(answered.out, "first line\nwith a break\ndone\n");
    EXPECT_EQ(answered.err, "a warning\n");

    const auto unknown = ask({"nonsense"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("nonsense"), std::string::npos) << unknown.err;

    qputenv("XDG_RUNTIME_DIR", savedRuntime);
    qputenv("DISPLAY", savedDisplay);
}

// The screen saver ending on the session bus, and logind unlocking this session on the system bus, are reported as
// wakes of their own; the screen saver starting, or another session's unlock, are not.
TEST_F(LogindWake, TheScreenSaversEndAndThisSessionsUnlockAreWakes) {
    QtMainLoop loop;
    QDBusConnection monitorBus = QDBusConnection::connectToBus(bus_.address(), "monitor");
    QDBusConnection logindBus = QDBusConnection::connectToBus(bus_.address(), "logind");
    ASSERT_TRUE(logindBus.registerService("org.freedesktop.login1"));
    const QString ours = QStringLiteral("/org/freedesktop/login1/session/_32");
    sprelio::platform::ScreenWakeMonitor monitor(loop, monitorBus, monitorBus, ours);
    ASSERT_TRUE(monitor.isListeningToScreenSaver());
    ASSERT_TRUE(monitor.isListeningToLogind());
    std::vector<std::string> reports;
    monitor.setHandler([&](const std::string& name) { reports.push_back(name); });

    const auto screenSaver = [&](const char* interface, const char* path, bool active) {
        auto signal = QDBusMessage::createSignal(path, interface, "ActiveChanged");
        signal << active;
        ASSERT_TRUE(logindBus.send(signal));
    };
    const auto unlock = [&](const QString& path) {
        ASSERT_TRUE(logindBus.send(QDBusMessage::createSignal(path, "org.freedesktop.login1.Session", "Unlock")));
    };
    screenSaver("org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", true);
    screenSaver("org.freedesktop.ScreenSaver", "/ScreenSaver", false);
    unlock(QStringLiteral("/org/freedesktop/login1/session/_33"));
    screenSaver("org.gnome.ScreenSaver", "/org/gnome/ScreenSaver", false);
    unlock(ours);
    ASSERT_TRUE(processUntil([&] { return reports.size() >= 3; }));
    auto settle = loop.schedule(100ms, [] {});
    ASSERT_TRUE(processUntil([&] { return !settle->isValid(); }));
    EXPECT_EQ(reports, (std::vector<std::string>{"NSWorkspaceScreensDidWakeNotification",
                                                 "NSWorkspaceScreensDidWakeNotification",
                                                 "NSWorkspaceSessionDidBecomeActiveNotification"}));
}

TEST(ScreenWakeMonitor, LogindsPathOfThisSessionIsEscapedAsLogindDoes) {
    const QByteArray saved = qgetenv("XDG_SESSION_ID");
    const std::pair<const char*, const char*> rows[] = {
        {"2", "/org/freedesktop/login1/session/_32"},
        {"c2", "/org/freedesktop/login1/session/c2"},
        {"12", "/org/freedesktop/login1/session/_312"},
        {"", ""},
    };
    for (const auto& [id, path] : rows) {
        qputenv("XDG_SESSION_ID", id);
        EXPECT_EQ(sprelio::platform::ScreenWakeMonitor::currentSessionPath().toStdString(), path) << id;
    }
    qputenv("XDG_SESSION_ID", saved);
}
