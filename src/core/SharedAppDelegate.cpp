#include "core/SharedAppDelegate.h"

#include <atomic>

#include "diagnostics/Log.h"

namespace sprelio {

namespace {
std::atomic<SharedAppDelegate*> gShared{nullptr};
}

void setSharedAppDelegate(SharedAppDelegate* delegate) { gShared.store(delegate); }

SharedAppDelegate* unwrappedAppDelegate() {
    auto* d = gShared.load();
    if (!d) {
        logError("unwrappedAppDelegate() - AppDelegate.shared is nil. Make sure it's assigned in "
                 "applicationDidFinishLaunching.");
    }
    return d;
}

} // namespace sprelio
