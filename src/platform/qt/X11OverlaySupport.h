#pragma once
// The few X11 calls the overlay needs beyond Qt: the input shape of a window (which parts take clicks), whether a
// compositing manager runs (which decides how round windows get their shape), and the window list with owners
// and frames. The X headers stay inside the .cpp, away from Qt's names.
#include <QRect>
#include <QWindow>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace sprelio::platform::x11overlay {

// False when the application does not run on an X server.
bool available();
// Only the given rectangles (native pixels, relative to the window) take clicks; empty: none does.
bool setInputShape(WId window, const std::vector<QRect>& rectangles);
// Whether a compositing manager owns the screen's selection: then translucent windows blend with what is below.
bool compositorRunning();

struct ClientWindow {
    pid_t pid = 0;
    // Native pixels, in the root window's coordinates; absent for a window that is not shown.
    std::optional<QRect> frame;
};
// The managed top-level windows, front to back.
std::vector<ClientWindow> clientWindowsFrontToBack();

} // namespace sprelio::platform::x11overlay
