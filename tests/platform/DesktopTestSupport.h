#pragma once
// A private desktop for the widget tests of one test process: an X server (Xvfb, which picks a free display number
// itself), a session bus of its own and openbox as window manager. It starts with the first test that asks for the
// application and goes when the process ends. Qt's application object lives on it; a process can hold only one,
// so every widget test of the process shares it.
//
// The files of this folder are named so that these tests register before those that make a plain
// QCoreApplication; ctest runs each test in a process of its own anyway.
//
// Include this header after every Qt header of the test: Xlib's macros (KeyPress, None, FocusIn, ...) would
// otherwise rewrite Qt's enumerations. The ones that collide are undefined at the end of the X11 includes.
#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPixmap>
#include <QScreen>
#include <QScrollArea>
#include <QWidget>
#include <QWindow>

#include "X11TestSupport.h"
#undef None
#undef KeyPress
#undef KeyRelease
#undef FocusIn
#undef FocusOut
#undef Bool
#undef Status
#undef Expose
#undef Unsorted
#undef Always
#undef CursorShape
#undef FontChange

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace sprelio::desktoptest {

using namespace std::chrono_literals;

class Desktop {
public:
    static Desktop& instance() {
        static Desktop desktop;
        return desktop;
    }

    bool ready() const { return failure.empty(); }
    const std::string& display() const { return display_; }
    Display* x() const { return x_; }
    std::string failure;

    // Runs a command against this desktop; true when it exited with 0.
    bool run(const std::string& command) const {
        const std::string line = "DISPLAY=" + display_ + " " + command + " >/dev/null 2>&1";
        return std::system(line.c_str()) == 0;
    }

    Window activeWindow() const {
        Window result = 0;
        Atom type;
        int format;
        unsigned long count, after;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(x_, DefaultRootWindow(x_), XInternAtom(x_, "_NET_ACTIVE_WINDOW", False), 0, 1, False,
                               XA_WINDOW, &type, &format, &count, &after, &data) == Success &&
            data && count == 1)
            result = *reinterpret_cast<Window*>(data);
        if (data) XFree(data);
        return result;
    }
    Window inputFocus() const {
        Window focus = 0;
        int revert = 0;
        XGetInputFocus(x_, &focus, &revert);
        return focus;
    }

private:
    Desktop() {
        if (!server_.ready()) {
            failure = "Xvfb did not start";
            return;
        }
        display_ = server_.name();
        ::setenv("DISPLAY", display_.c_str(), 1);
        x_ = XOpenDisplay(display_.c_str());
        if (!x_) {
            failure = "cannot connect to Xvfb at " + display_;
            return;
        }
        startBus();
        if (!ready()) return;
        if (!server_.startWindowManager()) failure = "openbox did not start";
    }
    ~Desktop() {
        // Qt's application stays: tearing it down after the tests could touch objects of other statics. Only the
        // servers go, so no process is left behind.
        if (x_) XCloseDisplay(x_);
        server_.stop();
        x11test::stopProcess(bus_);
    }

    void startBus() {
        int fds[2];
        if (::pipe(fds) != 0) {
            failure = "no pipe";
            return;
        }
        bus_ = ::fork();
        if (bus_ == 0) {
            ::close(fds[0]);
            ::dup2(fds[1], 1);
            const int devnull = ::open("/dev/null", O_RDWR);
            if (devnull >= 0) ::dup2(devnull, 2);
            ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address=1",
                     "--address=unix:tmpdir=/tmp", nullptr);
            ::_exit(127);
        }
        ::close(fds[1]);
        std::string address;
        ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
        x11test::waitFor(
            [&] {
                char c;
                while (::read(fds[0], &c, 1) == 1) {
                    if (c == '\n') return true;
                    address += c;
                }
                return false;
            },
            10s);
        ::close(fds[0]);
        if (address.empty()) {
            failure = "dbus-daemon did not start";
            return;
        }
        ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }

    x11test::XServer server_;
    pid_t bus_ = -1;
    std::string display_;
    Display* x_ = nullptr;
};

// Qt's application on the private desktop; nullptr (with the reason in `why`) when it can't be had.
inline QApplication* application(std::string* why = nullptr) {
    static QApplication* app = nullptr;
    if (app) return app;
    Desktop& desktop = Desktop::instance();
    if (!desktop.ready()) {
        if (why) *why = desktop.failure;
        return nullptr;
    }
    if (QCoreApplication::instance()) {
        app = qobject_cast<QApplication*>(QCoreApplication::instance());
        if (!app && why) *why = "a QCoreApplication exists already in this process; run this test on its own";
        return app;
    }
    ::setenv("QT_QPA_PLATFORM", "xcb", 1);
    ::unsetenv("WAYLAND_DISPLAY");
    ::unsetenv("QT_QPA_PLATFORMTHEME");
    static int argc = 1;
    static char name[] = "test_platform";
    static char* argv[] = {name, nullptr};
    app = new QApplication(argc, argv);
    QApplication::setStyle(QStringLiteral("Fusion"));
    return app;
}

// Spins Qt's loop until the condition holds or the deadline passes.
inline bool processUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Lets Qt handle what is queued now (deferred deletes included).
inline void settle() {
    for (int i = 0; i < 5; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

// Screenshots go to "<build>/screenshots", where they can be looked at after a run.
inline std::filesystem::path screenshotFolder() {
    const std::filesystem::path build = std::filesystem::path(SPRELIO_BINARY).parent_path().parent_path();
    return build / "screenshots";
}

// The whole screen as the X server has it.
inline QImage grabScreen() { return QGuiApplication::primaryScreen()->grabWindow(0).toImage(); }

inline std::filesystem::path saveScreenshot(const std::string& name) {
    std::filesystem::create_directories(screenshotFolder());
    const auto file = screenshotFolder() / (name + ".png");
    grabScreen().save(QString::fromStdString(file.string()), "PNG");
    return file;
}

// Scrolls every scroll area around the widget so that the widget is on screen: a click at a place the user can't
// see would land on whatever is drawn there.
inline void bringIntoView(const QWidget* widget) {
    // A window that the X server has not shown yet lets the click through to whatever lies below.
    processUntil([&] {
        const QWindow* window = widget->window()->windowHandle();
        return window && window->isExposed();
    });
    bool scrolled = false;
    for (QWidget* parent = widget->parentWidget(); parent; parent = parent->parentWidget()) {
        if (auto* area = qobject_cast<QScrollArea*>(parent); area && area->widget()) {
            area->ensureWidgetVisible(const_cast<QWidget*>(widget), 10, 10);
            scrolled = true;
        }
    }
    if (scrolled) settle();
}

// The centre of a widget on the screen, for xdotool.
inline std::string clickAt(const QWidget* widget, QPoint local = {-1, -1}) {
    bringIntoView(widget);
    const QPoint at = widget->mapToGlobal(local.x() < 0 ? widget->rect().center() : local);
    return "xdotool mousemove " + std::to_string(at.x()) + " " + std::to_string(at.y()) + " click 1";
}

// An ordinary application of another process's kind: its own connection and a window that holds the focus.
class ForeignWindow {
public:
    ForeignWindow() {
        display_ = XOpenDisplay(Desktop::instance().display().c_str());
        if (!display_) return;
        window_ = XCreateSimpleWindow(display_, DefaultRootWindow(display_), 40, 40, 500, 300, 0, 0, 0xdddddd);
        XStoreName(display_, window_, "Other application");
        XSelectInput(display_, window_, StructureNotifyMask | FocusChangeMask | KeyPressMask);
        XMapRaised(display_, window_);
        XSync(display_, False);
    }
    ~ForeignWindow() {
        if (display_) XCloseDisplay(display_);
    }
    ForeignWindow(const ForeignWindow&) = delete;
    ForeignWindow& operator=(const ForeignWindow&) = delete;

    Window window() const { return window_; }
    void pump() {
        while (display_ && XPending(display_)) {
            XEvent ev;
            XNextEvent(display_, &ev);
            if (ev.type == MapNotify) mapped_ = true;
        }
    }
    bool mapped() {
        pump();
        return mapped_;
    }
    void focus() {
        XSetInputFocus(display_, window_, RevertToParent, CurrentTime);
        XSync(display_, False);
    }

private:
    Display* display_ = nullptr;
    Window window_ = 0;
    bool mapped_ = false;
};

} // namespace sprelio::desktoptest
