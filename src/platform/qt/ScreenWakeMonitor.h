#pragma once
// The screen coming back without a sleep of the machine: the screen saver or locker ending (its ActiveChanged(false)
// on the session bus, under any of the names desktops give it) and the user's login session being unlocked (logind's
// Unlock on the system bus). Each asks for the same rebuilding as a wake from sleep; the report names which it was.
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <functional>
#include <string>

#include "platform/MainLoop.h"

namespace sprelio::platform {

class ScreenWakeMonitor final : public QObject {
    Q_OBJECT
public:
    // The names the reports carry, as the life cycle logs them.
    static constexpr const char* kScreensDidWake = "NSWorkspaceScreensDidWakeNotification";
    static constexpr const char* kSessionDidBecomeActive = "NSWorkspaceSessionDidBecomeActiveNotification";
    using Handler = std::function<void(const std::string& name)>;

    // `sessionPath` is logind's object of this login session; empty: every session's unlock counts (no
    // XDG_SESSION_ID). The buses are the session's and the system's in the application, private ones in tests.
    ScreenWakeMonitor(MainLoop& loop, QDBusConnection sessionBus = QDBusConnection::sessionBus(),
                      QDBusConnection systemBus = QDBusConnection::systemBus(),
                      QString sessionPath = currentSessionPath());
    ~ScreenWakeMonitor() override;

    // Posted to the main loop; an empty handler stops the reports.
    void setHandler(Handler handler) { handler_ = std::move(handler); }
    bool isListeningToScreenSaver() const { return screenSaverSubscriptions_ > 0; }
    bool isListeningToLogind() const { return logindListening_; }

    // logind's path for $XDG_SESSION_ID, its characters escaped as the bus requires; empty without one.
    static QString currentSessionPath();

private slots:
    void screenSaverActiveChanged(bool active);
    void sessionUnlocked();

private:
    void report(const char* name);

    MainLoop& loop_;
    QDBusConnection sessionBus_;
    QDBusConnection systemBus_;
    QString sessionPath_;
    Handler handler_;
    int screenSaverSubscriptions_ = 0;
    bool logindListening_ = false;
};

} // namespace sprelio::platform
