#pragma once
// One desktop application per user session. The first process listens on a local socket in the runtime folder;
// a later one finds it there, asks it to come forward and leaves.
#include <QLocalServer>
#include <QLocalSocket>
#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sprelio::platform {

// One command from the command line, carried over the instance's socket (see platform/linux/InstanceSocket.h).
// `print` and `printError` send a line to the caller's stdout and stderr; `finish` ends the conversation with the
// exit status. They may be called later, from the GUI thread, after the handler returned (a command that waits for a
// recording to end); once the caller has gone they do nothing.
struct RemoteCommand {
    std::vector<std::string> args; // as typed after "sprelio": {"continuous", "start"}
    std::function<void(const std::string&)> print;
    std::function<void(const std::string&)> printError;
    std::function<void(int)> finish;
};
using RemoteCommandHandler = std::function<void(RemoteCommand)>;

class SingleInstance {
public:
    // `name` is the socket's name; the default one is per user and display: in XDG_RUNTIME_DIR, which is private
    // to the user, or with the user id in its name where Qt falls back to /tmp.
    explicit SingleInstance(QString name = defaultName());
    ~SingleInstance();

    // True when this process is the one instance; `activate` then runs (on the GUI thread) whenever a later start
    // asks. False when another instance answered and was asked to come forward.
    bool claim(std::function<void()> activate);

    static QString defaultName();

    // Runs `handler` (on the GUI thread) for every command whose first argument is `verb`. A verb nobody handles is
    // answered with an error and status 2.
    void handleCommands(const std::string& verb, RemoteCommandHandler handler);

private:
    void runCommand(QLocalSocket* client, const QByteArray& json);

    QString name_;
    std::unique_ptr<QLocalServer> server_;
    std::function<void()> activate_;
    std::map<std::string, RemoteCommandHandler> handlers_;
};

} // namespace sprelio::platform
