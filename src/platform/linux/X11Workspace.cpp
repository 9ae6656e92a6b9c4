#include "platform/linux/X11Workspace.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <unistd.h>

#include <deque>
#include <vector>

#include "base/Log.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11Errors.h"

namespace sprelio::platform {

struct X11Workspace::Impl final : x11::Connection::Client {
    MainLoop& loop;
    std::shared_ptr<ActivationHandler> handler = std::make_shared<ActivationHandler>();
    x11::Connection connection;
    bool hasXRes = false;
    Window lastActive = None;
    std::string ownBundleIdentifier;

    Impl(MainLoop& l, const std::string& displayName) : loop(l), connection(displayName, "X11Workspace") {}

    void open() {
        if (!connection.isOpen()) return;
        auto lock = connection.lock();
        Display* d = connection.display();
        (void)connection.atoms(); // interned now, with the rest of the set-up
        hasXRes = x11::hasClientProcesses(d);
        XSelectInput(d, connection.root(), PropertyChangeMask);
        lastActive = activeWindowLocked();
        XSync(d, False);
    }

    // Under the lock, on an open connection.
    const x11::Atoms& atoms() const { return connection.atoms(); }

    // ---- Reading windows ----

    bool windowManagerRunsLocked() const {
        auto check =
            x11::readProperty(connection.display(), connection.root(), atoms().netSupportingWmCheck, false, XA_WINDOW);
        return check && !check->longs.empty() && check->longs.front() != 0;
    }

    bool hasClassLocked(Window window) const {
        auto value = x11::readProperty(connection.display(), window, XA_WM_CLASS);
        return value && !value->bytes.empty();
    }

    // Below a window manager's frame: the first window down the tree that carries WM_CLASS.
    Window clientBelowLocked(Window top) const {
        std::deque<Window> queue{top};
        while (!queue.empty()) {
            const Window window = queue.front();
            queue.pop_front();
            if (hasClassLocked(window)) return window;
            Window root = 0, parent = 0, *children = nullptr;
            unsigned count = 0;
            x11::checked(connection.display(), [&] {
                if (!XQueryTree(connection.display(), window, &root, &parent, &children, &count)) children = nullptr;
            });
            if (children) {
                for (unsigned i = 0; i < count; ++i) queue.push_back(children[i]);
                XFree(children);
            }
        }
        return None;
    }

    Window activeWindowLocked() const {
        Display* d = connection.display();
        if (auto active = x11::readProperty(d, connection.root(), atoms().netActiveWindow, false, XA_WINDOW);
            active && !active->longs.empty())
            return static_cast<Window>(active->longs.front()); // None when the manager says nothing is active
        // No manager keeps the property: the focus window, up to the application's top-level window.
        Window focus = None;
        int revert = 0;
        XGetInputFocus(d, &focus, &revert);
        if (focus == None || focus == PointerRoot) return None;
        for (Window window = focus; window != None && window != connection.root();) {
            if (hasClassLocked(window)) return window;
            Window root = 0, parent = 0, *children = nullptr;
            unsigned count = 0;
            bool ok = false;
            x11::checked(d, [&] { ok = XQueryTree(d, window, &root, &parent, &children, &count); });
            if (children) XFree(children);
            if (!ok) return None;
            window = parent;
        }
        return clientBelowLocked(focus);
    }

    std::optional<pid_t> pidLocked(Window window) const {
        Display* d = connection.display();
        if (auto pid = x11::readCardinal(d, window, atoms().netWmPid); pid && *pid > 0)
            return static_cast<pid_t>(*pid);
        if (!hasXRes) return std::nullopt;
        return x11::clientProcess(d, window);
    }

    std::optional<RunningApplication> applicationLocked(Window window) const {
        if (window == None) return std::nullopt;
        Display* d = connection.display();
        RunningApplication app;
        std::optional<std::string> className;
        if (auto value = x11::readProperty(d, window, XA_WM_CLASS); value && value->format == 8) {
            // Two strings, each ending in NUL: the instance name, then the class.
            const std::string& bytes = value->bytes;
            const auto end = bytes.find('\0');
            if (end != std::string::npos && end + 1 < bytes.size()) {
                std::string cls = bytes.substr(end + 1);
                if (const auto nul = cls.find('\0'); nul != std::string::npos) cls.resize(nul);
                if (!cls.empty()) className = cls;
            }
        }
        const auto pid = pidLocked(window);
        if (!className && !pid) return std::nullopt; // not an application window, or gone
        app.processIdentifier = pid.value_or(0);
        app.localizedName = className;
        if (auto id = x11::readTextProperty(d, window, atoms().gtkApplicationId); id && !id->empty())
            app.bundleIdentifier = *id;
        else if (auto file = x11::readTextProperty(d, window, atoms().kdeNetWmDesktopFile); file && !file->empty())
            app.bundleIdentifier = *file;
        else app.bundleIdentifier = className.value_or("");
        if (!ownBundleIdentifier.empty() && pid && *pid == ::getpid()) app.bundleIdentifier = ownBundleIdentifier;
        if (auto title = x11::readTextProperty(d, window, atoms().netWmName)) app.windowTitle = *title;
        else if (auto name = x11::readTextProperty(d, window, XA_WM_NAME)) app.windowTitle = *name;
        return app;
    }

    std::vector<Window> topLevelWindowsLocked() const {
        Display* d = connection.display();
        std::vector<Window> windows;
        if (auto list = x11::readProperty(d, connection.root(), atoms().netClientList, false, XA_WINDOW)) {
            for (long w : list->longs) windows.push_back(static_cast<Window>(w));
            return windows;
        }
        Window root = 0, parent = 0, *children = nullptr;
        unsigned count = 0;
        if (XQueryTree(d, connection.root(), &root, &parent, &children, &count) && children) {
            for (unsigned i = 0; i < count; ++i)
                if (Window client = clientBelowLocked(children[i])) windows.push_back(client);
            XFree(children);
        }
        return windows;
    }

    // ---- Reader thread ----

    void handleEvent(XEvent& event) override {
        if (event.type != PropertyNotify || event.xproperty.window != connection.root() ||
            event.xproperty.atom != atoms().netActiveWindow)
            return;
        const Window active = activeWindowLocked();
        if (active == lastActive) return;
        lastActive = active;
        if (active == None) return; // nothing active: not an application's activation
        auto app = applicationLocked(active);
        std::weak_ptr<ActivationHandler> weak = handler;
        loop.post([weak, app = std::move(app)] {
            if (auto h = weak.lock(); h && *h) (*h)(app);
        });
    }
};

X11Workspace::X11Workspace(MainLoop& loop, const std::string& displayName, std::string ownBundleIdentifier)
    : impl_(std::make_unique<Impl>(loop, displayName)) {
    impl_->ownBundleIdentifier = std::move(ownBundleIdentifier);
    impl_->open();
    impl_->connection.start(*impl_);
}

X11Workspace::~X11Workspace() { impl_->connection.stop(); }

bool X11Workspace::isAvailable() const { return impl_->connection.isOpen(); }

std::optional<RunningApplication> X11Workspace::frontmostApplication() const {
    auto& d = *impl_;
    if (!d.connection.isOpen()) return std::nullopt;
    auto lock = d.connection.lock();
    return d.applicationLocked(d.activeWindowLocked());
}

bool X11Workspace::activate(const RunningApplication& app, unsigned /*options*/) {
    auto& d = *impl_;
    if (!d.connection.isOpen()) return false;
    auto lock = d.connection.lock();
    Display* display = d.connection.display();
    Window target = None;
    for (Window window : d.topLevelWindowsLocked())
        if (d.pidLocked(window) == app.processIdentifier) {
            target = window;
            break;
        }
    if (target == None) {
        logWarning("X11Workspace.activate() - no window of process " + std::to_string(app.processIdentifier));
        return false;
    }
    auto errors = x11::checked(display, [&] {
        if (d.windowManagerRunsLocked()) {
            // Source 2 ("pager"): the user asked for the switch, so the manager's focus-stealing rules let it pass.
            XEvent event{};
            event.xclient.type = ClientMessage;
            event.xclient.window = target;
            event.xclient.message_type = d.atoms().netActiveWindow;
            event.xclient.format = 32;
            event.xclient.data.l[0] = 2;
            event.xclient.data.l[1] = CurrentTime;
            XSendEvent(display, d.connection.root(), False, SubstructureRedirectMask | SubstructureNotifyMask, &event);
        } else {
            XRaiseWindow(display, target);
            XSetInputFocus(display, target, RevertToParent, CurrentTime);
        }
    });
    return errors.empty();
}

void X11Workspace::activateSelf() {
    RunningApplication self;
    self.processIdentifier = ::getpid();
    activate(self, 2);
}

void X11Workspace::setDidActivateApplicationHandler(ActivationHandler handler) {
    *impl_->handler = std::move(handler);
}

} // namespace sprelio::platform
