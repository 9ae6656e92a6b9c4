#pragma once
// One desktop application per user session. The first process listens on a local socket in the runtime folder;
// a later one finds it there, asks it to come forward and leaves.
#include <QLocalServer>
#include <QString>
#include <functional>
#include <memory>

namespace sprelio::platform {

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

private:
    QString name_;
    std::unique_ptr<QLocalServer> server_;
    std::function<void()> activate_;
};

} // namespace sprelio::platform
