#pragma once
// Word from the operating system about the machine as a whole. On Linux the wake comes from logind's
// PrepareForSleep(false) signal on the system bus.
#include <functional>

namespace sprelio::platform {

class SystemEvents {
public:
    // Posted to the main loop.
    using WakeHandler = std::function<void()>;

    virtual ~SystemEvents() = default;
    // One handler; a new one replaces the former, an empty one stops the reports.
    virtual void setWakeHandler(WakeHandler handler) = 0;
};

} // namespace sprelio::platform
