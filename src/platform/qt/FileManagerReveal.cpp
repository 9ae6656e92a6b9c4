#include "platform/qt/FileManagerReveal.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QProcess>
#include <QUrl>

#include "base/Log.h"

namespace sprelio::platform {

FileManagerReveal::FileManagerReveal(QDBusConnection bus, std::function<bool(const QString&)> openFolder)
    : bus_(std::move(bus)), openFolder_(openFolder ? std::move(openFolder) : &FileManagerReveal::xdgOpen) {}

bool FileManagerReveal::xdgOpen(const QString& folder) {
    const bool started = QProcess::startDetached(QStringLiteral("xdg-open"), {folder});
    if (!started) logError("FileManagerReveal.xdgOpen() - could not start xdg-open for " + folder.toStdString());
    return started;
}

bool FileManagerReveal::showItem(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        logError("FileManagerReveal.showItem() - no such file: " + file.string());
        return false;
    }
    const QString path = QString::fromStdString(file.string());
    const QString folder = QString::fromStdString(file.parent_path().string());
    if (!bus_.isConnected()) {
        logWarning("FileManagerReveal.showItem() - no session bus, opening the folder instead");
        return openFolder_(folder);
    }
    auto message = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    message << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    // The answer comes later; a desktop without a file manager on the bus gets the folder opened instead.
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message, 5000));
    const auto openFolder = openFolder_;
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [watcher, openFolder, folder](QDBusPendingCallWatcher*) {
        const QDBusPendingReply<> reply = *watcher;
        if (reply.isError()) {
            logWarning("FileManagerReveal.showItem() - ShowItems failed (" + reply.error().name().toStdString() +
                       "), opening the folder instead");
            openFolder(folder);
        }
        watcher->deleteLater();
    });
    return true;
}

} // namespace sprelio::platform
