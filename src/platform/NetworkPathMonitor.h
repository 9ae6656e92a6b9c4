#pragma once
// Whether the machine has a way out to the network. "Satisfied" means a default route exists; it says nothing of
// whether a particular server answers.
#include <functional>

namespace sprelio::platform {

class NetworkPathMonitor {
public:
    // Called on the monitor's own thread, once at start and then whenever the answer changes; the handler hops to
    // the main loop itself before touching session state.
    using PathUpdateHandler = std::function<void(bool satisfied)>;
    virtual ~NetworkPathMonitor() = default;
    virtual void setPathUpdateHandler(PathUpdateHandler handler) = 0;
    virtual void start() = 0;
    virtual void cancel() = 0;
};

} // namespace sprelio::platform
