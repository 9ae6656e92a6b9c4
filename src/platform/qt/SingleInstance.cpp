#include "platform/qt/SingleInstance.h"

#include <QLocalSocket>
#include <QPointer>
#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "platform/linux/InstanceSocket.h"

namespace sprelio::platform {

namespace {
constexpr int kConnectTimeoutMs = 1000;
const QByteArray kActivate = "activate\n";
const QByteArray kCommand = "command ";

// One line of the answer: "out" or "err" and a JSON string, so a line break inside the text can't end it early.
void sendLine(const QPointer<QLocalSocket>& client, const char* kind, const std::string& text) {
    if (!client || client->state() != QLocalSocket::ConnectedState) return;
    client->write(QByteArray(kind) + ' ' + QByteArray::fromStdString(nlohmann::json(text).dump()) + '\n');
    client->flush();
}
} // namespace

QString SingleInstance::defaultName() {
    // One instance per user and display: a second display (a nested or virtual X server) is a desktop of its own.
    // The command line computes the same path to reach it.
    return QString::fromStdString(instanceSocketPath(qgetenv("DISPLAY").toStdString()));
}

void SingleInstance::handleCommands(const std::string& verb, RemoteCommandHandler handler) {
    handlers_[verb] = std::move(handler);
}

void SingleInstance::runCommand(QLocalSocket* socket, const QByteArray& json) {
    const QPointer<QLocalSocket> client(socket);
    const auto parsed = nlohmann::json::parse(json.toStdString(), nullptr, false);
    RemoteCommand command;
    if (parsed.is_array()) {
        for (const auto& item : parsed)
            if (item.is_string()) command.args.push_back(item.get<std::string>());
    }
    command.print = [client](const std::string& text) { sendLine(client, "out", text); };
    command.printError = [client](const std::string& text) { sendLine(client, "err", text); };
    // The conversation ends once: a handler that answers twice must not write past the exit line.
    auto finished = std::make_shared<bool>(false);
    command.finish = [client, finished](int status) {
        if (*finished) return;
        *finished = true;
        if (!client) return;
        client->write("exit " + QByteArray::number(status) + '\n');
        client->flush();
        client->disconnectFromServer();
    };
    const auto handler = command.args.empty() ? handlers_.end() : handlers_.find(command.args.front());
    if (handler == handlers_.end()) {
        const std::string verb = command.args.empty() ? std::string() : command.args.front();
        logError("SingleInstance: a command nobody handles: \"" + verb + "\"");
        command.printError("sprelio: the running Sprelio does not know the command \"" + verb + "\"");
        command.finish(2);
        return;
    }
    logInfo("SingleInstance: command \"" + command.args.front() + "\" from the command line");
    handler->second(std::move(command));
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
                    const QByteArray line = client->readLine();
                    if (line == kActivate) {
                        if (activate_) activate_();
                    } else if (line.startsWith(kCommand)) {
                        runCommand(client, line.mid(kCommand.size()).trimmed());
                    }
                }
            });
        }
    });
    return true;
}

} // namespace sprelio::platform
