#include "platform/qt/SingleInstance.h"

#include <QFileInfo>
#include <QLocalSocket>
#include <unistd.h>

#include "base/Log.h"

namespace sprelio::platform {

namespace {
constexpr int kConnectTimeoutMs = 1000;
const QByteArray kActivate = "activate\n";
} // namespace

QString SingleInstance::defaultName() {
    // One instance per user and display: the user's runtime folder is private to the user, and a second display
    // (a nested or virtual X server) is a desktop of its own.
    QString display = QString::fromLocal8Bit(qgetenv("DISPLAY"));
    display.replace(QLatin1Char('/'), QLatin1Char('_'));
    const QString name = QStringLiteral("com.sprelio.app-display%1").arg(display);
    const QString runtime = QString::fromLocal8Bit(qgetenv("XDG_RUNTIME_DIR"));
    if (!runtime.isEmpty() && QFileInfo(runtime).isDir()) return runtime + QLatin1Char('/') + name;
    return name + QStringLiteral("-%1").arg(getuid());
}

SingleInstance::SingleInstance(QString name) : name_(std::move(name)) {}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::claim(std::function<void()> activate) {
    {
        QLocalSocket socket;
        socket.connectToServer(name_);
        if (socket.waitForConnected(kConnectTimeoutMs)) {
            socket.write(kActivate);
            socket.waitForBytesWritten(kConnectTimeoutMs);
            socket.disconnectFromServer();
            logInfo("SingleInstance: Sprelio is already running, asked it to come forward");
            return false;
        }
    }
    activate_ = std::move(activate);
    server_ = std::make_unique<QLocalServer>();
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(name_)) {
        // Nobody answered, so a socket file left by a crashed instance is in the way.
        QLocalServer::removeServer(name_);
        if (!server_->listen(name_)) {
            logError("SingleInstance: can't listen on " + name_.toStdString() + ": " +
                     server_->errorString().toStdString() + "; a second start will not find this one");
            return true;
        }
    }
    QObject::connect(server_.get(), &QLocalServer::newConnection, server_.get(), [this] {
        while (QLocalSocket* client = server_->nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            QObject::connect(client, &QLocalSocket::readyRead, client, [this, client] {
                while (client->canReadLine()) {
                    if (client->readLine() == kActivate && activate_) activate_();
                }
            });
        }
    });
    return true;
}

} // namespace sprelio::platform
