#include "platform/qt/X11OverlaySupport.h"

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/shape.h>

#include "platform/linux/X11Atoms.h"
#include "platform/linux/X11Connection.h"

namespace sprelio::platform::x11overlay {

namespace {

Display* display() {
    auto* app = qGuiApp;
    if (!app) return nullptr;
    auto* x11 = app->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->display() : nullptr;
}

// Qt keeps one display connection for the application's life; its atoms are interned on first use.
const x11::Atoms& atoms(Display* dpy) {
    static Display* internedFor = nullptr;
    static x11::Atoms table;
    if (internedFor != dpy) {
        table = x11::Atoms::intern(dpy);
        internedFor = dpy;
    }
    return table;
}

} // namespace

bool available() { return display() != nullptr; }

bool setInputShape(WId window, const std::vector<QRect>& rectangles) {
    Display* dpy = display();
    if (!dpy || !window) return false;
    int eventBase = 0, errorBase = 0;
    if (!XShapeQueryExtension(dpy, &eventBase, &errorBase)) return false;
    std::vector<XRectangle> shape;
    shape.reserve(rectangles.size());
    for (const QRect& r : rectangles) {
        if (r.isEmpty()) continue;
        shape.push_back(XRectangle{static_cast<short>(r.x()), static_cast<short>(r.y()),
                                   static_cast<unsigned short>(r.width()), static_cast<unsigned short>(r.height())});
    }
    XShapeCombineRectangles(dpy, static_cast<Window>(window), ShapeInput, 0, 0, shape.data(),
                            static_cast<int>(shape.size()), ShapeSet, Unsorted);
    XFlush(dpy);
    return true;
}

bool compositorRunning() {
    Display* dpy = display();
    if (!dpy) return false;
    return XGetSelectionOwner(dpy, atoms(dpy).netWmCmSelection) != 0;
}

std::vector<ClientWindow> clientWindowsFrontToBack() {
    std::vector<ClientWindow> result;
    Display* dpy = display();
    if (!dpy) return result;
    const Window root = DefaultRootWindow(dpy);
    const x11::Atoms& names = atoms(dpy);
    std::vector<long> windows;
    if (auto list = x11::readProperty(dpy, root, names.netClientListStacking, false, XA_WINDOW);
        list && list->format == 32)
        windows = std::move(list->longs);
    // A window may go away between the list and the questions about it: the failed request answers nothing, and
    // the process's error handlers (Qt's, or the shared ones of the X11 adapters) never end the process for it.
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        const auto window = static_cast<Window>(*it);
        ClientWindow client;
        if (const auto pid = x11::readCardinal(dpy, window, names.netWmPid)) client.pid = static_cast<pid_t>(*pid);
        XWindowAttributes attributes{};
        if (XGetWindowAttributes(dpy, window, &attributes) && attributes.map_state == IsViewable) {
            int x = 0, y = 0;
            Window child = 0;
            if (XTranslateCoordinates(dpy, window, root, 0, 0, &x, &y, &child)) {
                client.frame = QRect(x, y, attributes.width, attributes.height);
            }
        }
        result.push_back(client);
    }
    return result;
}

} // namespace sprelio::platform::x11overlay
