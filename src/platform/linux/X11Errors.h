#pragma once
// Xlib's error handlers are process-wide, so every X11 adapter of the process shares one set: errors of a request
// that a thread checks are handed to that thread, anything else is logged and never fatal, and a lost connection
// is left to each display's own exit handler instead of ending the process.
#include <X11/Xlib.h>

#include <type_traits>
#include <vector>

namespace sprelio::platform::x11 {

// Once per process, before the first connection: XInitThreads and the handlers.
void installErrorHandlers();

// Runs `request`, waits for the server's answer and returns the errors it caused on `display` (made by this
// thread). The errors are not logged.
std::vector<XErrorEvent> checked(Display* display, void (*request)(void*), void* context);

template <typename F>
std::vector<XErrorEvent> checked(Display* display, F&& request) {
    using Request = std::remove_reference_t<F>;
    return checked(display, [](void* f) { (*static_cast<Request*>(f))(); }, static_cast<void*>(&request));
}

} // namespace sprelio::platform::x11
