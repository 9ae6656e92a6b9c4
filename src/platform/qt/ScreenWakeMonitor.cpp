#include "platform/qt/ScreenWakeMonitor.h"

#include <QDBusError>

#include "base/Log.h"

namespace sprelio::platform {

namespace {
// Desktops answer to the freedesktop name, and GNOME, MATE and Cinnamon to their own as well; one screen unlock can
// thus come twice, and a second rebuild right after the first costs nothing.
const char* const kScreenSaverInterfaces[] = {"org.freedesktop.ScreenSaver", "org.gnome.ScreenSaver",
                                             "org.mate.ScreenSaver", "org.cinnamon.ScreenSaver"};
const QString kActiveChanged = QStringLiteral("ActiveChanged");
const QString kLogind = QStringLiteral("org.freedesktop.login1");
const QString kSessionInterface = QStringLiteral("org.freedesktop.login1.Session");
const QString kUnlock = QStringLiteral("Unlock");
} // namespace

QString ScreenWakeMonitor::currentSessionPath() {
    const QByteArray id = qgetenv("XDG_SESSION_ID");
    if (id.isEmpty()) return {};
    // logind escapes every character but letters and digits, and a leading digit, as "_" and two hex digits, so
    // session "2" is "_32" and "c2" stays "c2".
    QString path = QStringLiteral("/org/freedesktop/login1/session/");
    for (qsizetype i = 0; i < id.size(); ++i) {
        const char c = id[i];
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (letter || (digit && i > 0))
            path += QLatin1Char(c);
        else
            path += QStringLiteral("_%1").arg(static_cast<unsigned char>(c), 2, 16, QLatin1Char('0'));
    }
    return path;
}

ScreenWakeMonitor::ScreenWakeMonitor(MainLoop& loop, QDBusConnection sessionBus, QDBusConnection systemBus,
                                     QString sessionPath)
    : loop_(loop), sessionBus_(std::move(sessionBus)), systemBus_(std::move(systemBus)),
      sessionPath_(std::move(sessionPath)) {
    if (sessionBus_.isConnected()) {
        for (const char* interface : kScreenSaverInterfaces) {
            if (sessionBus_.connect(QString(), QString(), QString::fromLatin1(interface), kActiveChanged, this,
                                    SLOT(screenSaverActiveChanged(bool))))
                ++screenSaverSubscriptions_;
        }
    } else {
        logWarning("ScreenWakeMonitor: no D-Bus session bus (" + sessionBus_.lastError().message().toStdString() +
                   "), the end of the screen saver will not be noticed");
    }
    if (systemBus_.isConnected()) {
        logindListening_ =
            systemBus_.connect(kLogind, sessionPath_, kSessionInterface, kUnlock, this, SLOT(sessionUnlocked()));
        if (!logindListening_)
            logWarning("ScreenWakeMonitor: could not subscribe to logind's Unlock: " +
                       systemBus_.lastError().message().toStdString());
    } else {
        logWarning("ScreenWakeMonitor: no D-Bus system bus (" + systemBus_.lastError().message().toStdString() +
                   "), the unlock of the session will not be noticed");
    }
}

ScreenWakeMonitor::~ScreenWakeMonitor() {
    for (const char* interface : kScreenSaverInterfaces)
        sessionBus_.disconnect(QString(), QString(), QString::fromLatin1(interface), kActiveChanged, this,
                               SLOT(screenSaverActiveChanged(bool)));
    if (logindListening_)
        systemBus_.disconnect(kLogind, sessionPath_, kSessionInterface, kUnlock, this, SLOT(sessionUnlocked()));
}

void ScreenWakeMonitor::screenSaverActiveChanged(bool active) {
    if (!active) report(kScreensDidWake);
}

void ScreenWakeMonitor::sessionUnlocked() { report(kSessionDidBecomeActive); }

void ScreenWakeMonitor::report(const char* name) {
    if (!handler_) return;
    loop_.post([this, name] {
        if (handler_) handler_(name);
    });
}

} // namespace sprelio::platform
