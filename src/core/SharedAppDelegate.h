#pragma once
// What model and helper code may ask of the process's one AppDelegate, without depending on the whole of it.

namespace sprelio {

class SharedAppDelegate {
public:
    virtual ~SharedAppDelegate() = default;
    virtual void updateCachedUserShortcuts() = 0;
    // The one way back to idle; may be called from any thread (the work is posted to the main loop).
    virtual void setupMenuWithMainMenu() = 0;
};

// Set as the first step of launch; nullptr clears it.
void setSharedAppDelegate(SharedAppDelegate* delegate);
// Returns the shared AppDelegate, or logs that it is missing and returns nullptr.
SharedAppDelegate* unwrappedAppDelegate();

} // namespace sprelio
