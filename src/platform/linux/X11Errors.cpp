#include "platform/linux/X11Errors.h"

#include <mutex>
#include <string>

#include "base/Log.h"

namespace sprelio::platform::x11 {

namespace {

thread_local std::vector<XErrorEvent>* tCapture = nullptr;
thread_local Display* tCaptureDisplay = nullptr;

int onXError(Display* display, XErrorEvent* event) {
    if (tCapture && display == tCaptureDisplay) {
        tCapture->push_back(*event);
        return 0;
    }
    char text[256] = {};
    XGetErrorText(display, event->error_code, text, sizeof text);
    logWarning("X11 - X error " + std::to_string(event->error_code) + " (" + text + ") on request " +
               std::to_string(event->request_code) + "." + std::to_string(event->minor_code));
    return 0;
}

// The default handler of a lost connection ends the process; the per-display exit handler reports it instead.
int onXIOError(Display*) { return 0; }

} // namespace

void installErrorHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        XInitThreads();
        XSetErrorHandler(onXError);
        XSetIOErrorHandler(onXIOError);
    });
}

std::vector<XErrorEvent> checked(Display* display, void (*request)(void*), void* context) {
    std::vector<XErrorEvent> errors;
    auto* previous = tCapture;
    auto* previousDisplay = tCaptureDisplay;
    // Errors of requests sent before this point belong to their own senders, not to this check.
    XSync(display, False);
    tCapture = &errors;
    tCaptureDisplay = display;
    request(context);
    XSync(display, False);
    tCapture = previous;
    tCaptureDisplay = previousDisplay;
    return errors;
}

} // namespace sprelio::platform::x11
