// A native Wayland text field for the delivery tests: one line edit with the focus, whose text is written to the
// file named by the first argument at every change (written whole, then renamed, so a reader never sees half).
// Run with QT_QPA_PLATFORM=wayland; its app id is "sprelio-test-field".
#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QFile>
#include <QLineEdit>
#include <QSaveFile>
#include <QTime>
#include <QWindow>

#include <string>

#include <cstdio>

// What reached the field, on standard error, for a test that wants to know why a paste did not arrive.
class KeyLog : public QObject {
public:
    static std::string now() {
        return QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")).toStdString();
    }
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::KeyPress) {
            const auto* key = static_cast<QKeyEvent*>(event);
            fprintf(stderr, "%s key %d modifiers 0x%x\n", now().c_str(), key->key(),
                    static_cast<unsigned>(key->modifiers()));
        } else if (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut) {
            // The keyboard taken away by another surface (wl_keyboard.leave) shows here.
            fprintf(stderr, "%s focus %s\n", now().c_str(), event->type() == QEvent::FocusIn ? "in" : "out");
        }
        return QObject::eventFilter(watched, event);
    }
};

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QGuiApplication::setDesktopFileName(QStringLiteral("sprelio-test-field"));
    if (argc < 2) return 2;
    const QString file = QString::fromLocal8Bit(argv[1]);
    QLineEdit field;
    field.setWindowTitle(QStringLiteral("Sprelio test field"));
    field.setMinimumWidth(600);
    QObject::connect(&field, &QLineEdit::textChanged, [file](const QString& text) {
        QSaveFile out(file);
        if (!out.open(QIODevice::WriteOnly)) return;
        out.write(text.toUtf8());
        out.commit();
    });
    KeyLog keyLog;
    field.installEventFilter(&keyLog);
    QObject::connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, [] {
        fprintf(stderr, "%s clipboard now: %s\n", KeyLog::now().c_str(),
                QGuiApplication::clipboard()->text().toUtf8().constData());
    });
    field.show();
    field.activateWindow();
    field.setFocus();
    // The file exists once the window is up, so that a test knows when the field can take keys.
    QObject::connect(&application, &QGuiApplication::focusWindowChanged, [file, &field](QWindow* window) {
        if (!window || QFile::exists(file)) return;
        QSaveFile out(file);
        if (out.open(QIODevice::WriteOnly)) {
            out.write(field.text().toUtf8());
            out.commit();
        }
    });
    return QApplication::exec();
}
