#include "platform/qt/X11OverlaySupport.h"

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/shape.h>

#include <string>

namespace sprelio::platform::x11overlay {

namespace {

Display* display() {
    auto* app = qGuiApp;
    if (!app) return nullptr;
    auto* x11 = app->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->display() : nullptr;
}

// One property of 32-bit items; empty when the window has none.
std::vector<unsigned long> cardinals(Display* dpy, Window window, Atom property, Atom type) {
    Atom actualType = 0;
    int actualFormat = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char* data = nullptr;
    std::vector<unsigned long> values;
    if (XGetWindowProperty(dpy, window, property, 0, 1 << 16, False, type, &actualType, &actualFormat, &count,
                           &remaining, &data) == Success &&
        data && actualFormat == 32) {
        // Xlib hands 32-bit items over as longs.
        const auto* items = reinterpret_cast<const unsigned long*>(data);
        values.assign(items, items + count);
    }
    if (data) XFree(data);
    return values;
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
    const std::string name = "_NET_WM_CM_S" + std::to_string(DefaultScreen(dpy));
    const Atom selection = XInternAtom(dpy, name.c_str(), False);
    return XGetSelectionOwner(dpy, selection) != 0;
}

std::vector<ClientWindow> clientWindowsFrontToBack() {
    std::vector<ClientWindow> result;
    Display* dpy = display();
    if (!dpy) return result;
    const Window root = DefaultRootWindow(dpy);
    const Atom stacking = XInternAtom(dpy, "_NET_CLIENT_LIST_STACKING", False);
    const Atom pidAtom = XInternAtom(dpy, "_NET_WM_PID", False);
    auto windows = cardinals(dpy, root, stacking, XA_WINDOW);
    // A window may go away between the list and the questions about it: the failed request answers nothing, and
    // the process's error handlers (Qt's, or the shared ones of the X11 adapters) never end the process for it.
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        const auto window = static_cast<Window>(*it);
        ClientWindow client;
        const auto pid = cardinals(dpy, window, pidAtom, XA_CARDINAL);
        if (!pid.empty()) client.pid = static_cast<pid_t>(pid.front());
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
