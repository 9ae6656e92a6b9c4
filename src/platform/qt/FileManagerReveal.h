#pragma once
// "Show in File Manager": the user's file manager opens the file's folder with the file selected. Asked over the
// session bus (org.freedesktop.FileManager1.ShowItems); where no file manager answers there, the folder is opened
// with xdg-open. Never waits for the file manager.
#include <QDBusConnection>
#include <QString>
#include <filesystem>
#include <functional>

namespace sprelio::platform {

class FileManagerReveal {
public:
    // `openFolder` opens a folder without the bus; the default starts xdg-open.
    explicit FileManagerReveal(QDBusConnection bus = QDBusConnection::sessionBus(),
                               std::function<bool(const QString& folder)> openFolder = {});

    // False when the file does not exist or nobody could be asked to show it.
    bool showItem(const std::filesystem::path& file);

    static bool xdgOpen(const QString& folder);

private:
    QDBusConnection bus_;
    std::function<bool(const QString&)> openFolder_;
};

} // namespace sprelio::platform
