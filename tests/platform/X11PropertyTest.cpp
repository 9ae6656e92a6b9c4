// Window properties as other clients set them, read back on a real X server. Any client may set any type on a
// property we read, so a property of the wrong type must read as nothing, never as a wait.
#include <gtest/gtest.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <cstring>

#include "platform/X11TestSupport.h"
#include "platform/linux/X11Connection.h"

using sprelio::x11test::XServer;
namespace x11 = sprelio::platform::x11;

namespace {

TEST(X11Property, ACardinalOfTheRightTypeIsReadAndOneOfAnotherTypeReadsAsNothing) {
    XServer server;
    ASSERT_TRUE(server.ready()) << "Xvfb did not start";
    Display* display = XOpenDisplay(server.name().c_str());
    ASSERT_NE(display, nullptr);
    const Window window = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 10, 10, 0, 0, 0);
    const Atom pid = XInternAtom(display, "_NET_WM_PID", False);

    const long value = 4242;
    XChangeProperty(display, window, pid, XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(&value), 1);
    XSync(display, False);
    EXPECT_EQ(x11::readCardinal(display, window, pid), 4242u);

    // The server answers a read of another type with the length and no data; a reader that asks again for the
    // rest never ends.
    const char* text = "4242";
    XChangeProperty(display, window, pid, XA_STRING, 8, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(text), static_cast<int>(std::strlen(text)));
    XSync(display, False);
    EXPECT_EQ(x11::readCardinal(display, window, pid), std::nullopt);

    XDeleteProperty(display, window, pid);
    XSync(display, False);
    EXPECT_EQ(x11::readCardinal(display, window, pid), std::nullopt);

    XDestroyWindow(display, window);
    XCloseDisplay(display);
    server.stop();
}

} // namespace
