#pragma once
// The application's own windows as the session sees them: their titles, opening the main window on a tab, the
// Escape key that closes the window in front, and the frames kept across closes. The toolkit's windows stand
// behind `AppWindow`; everything here runs on the main loop.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "shared/AppState.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"

namespace sprelio {

namespace store {
class Settings;
}

// Each is the application's name, a blank and the word of the window.
struct WindowTitles {
    std::string preferencesControllerWindowTitle;
    std::string contentViewWindowTitle;
    std::string tutorialControllerWindowTitle;
    std::string intelligenceResultsControllerWindowTitle;
    static WindowTitles make(const std::string& appName);
};

// One top-level window of the application.
class AppWindow {
public:
    virtual ~AppWindow() = default;
    virtual bool isMiniaturized() const = 0;
    virtual void deminiaturize() = 0;
    // Shows the window in front of the others and gives it the keyboard.
    virtual void makeKeyAndOrderFront() = 0;
    virtual bool isKeyWindow() const = 0;
    virtual void close() = 0;
};

// The main window also follows the selected tab.
class ContentWindow : public AppWindow {
public:
    virtual void showTab(ContentViewTab tab) = 0;
};

// What the close of a window tells.
struct ClosingWindow {
    std::string title;
    platform::Rect frame; // in the logic's coordinates
    // False when no screen holds the mouse (or the window's frame is unknown): nothing can be saved then.
    bool screenWithMouse = true;
};

class AppWindows {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        AppState& appState;
        store::Settings& settings;
        WindowTitles titles;
        // The session's focus steps: note the application in front before our window takes it, and hand focus
        // back once our window is gone.
        std::function<void()> capturePreviouslyActiveAppIfNeeded;
        std::function<void()> restoreFocusToPreviouslyActiveApp;
        // Brings this application to the front.
        std::function<void()> activateSelf;
        // "SPRScrollHistoryToTop": the history list goes back to its newest entry.
        std::function<void()> scrollHistoryToTop;
    };

    static constexpr std::int64_t kEscapeKeyCode = 53;

    explicit AppWindows(Dependencies deps);
    ~AppWindows();
    AppWindows(const AppWindows&) = delete;
    AppWindows& operator=(const AppWindows&) = delete;

    void setMainWindow(ContentWindow* window) { mainWindow_ = window; }
    ContentWindow* mainWindow() const { return mainWindow_; }
    void setTutorialWindow(AppWindow* window) { tutorialWindow_ = window; }

    // The target of the show shortcut actions and the status menu.
    void openTab(ContentViewTab tab);
    // A miniaturised window comes back first and is brought forward 0.1 s later.
    void restoreAndShowWindow(AppWindow* window);
    // The local key monitor. Returns true when the event is consumed, which happens only when a window closed.
    bool keyDown(std::int64_t keyCode);
    // The notification of any closing window: frames of the windows that keep them are saved.
    void handleWindowClose(const ClosingWindow& window);
    // The application is opened again (launcher, second start): shows the selected tab. True when there is no
    // main window, so that the caller makes one.
    bool applicationShouldHandleReopen(bool hasVisibleWindows);

    const WindowTitles& titles() const { return deps_.titles; }

private:
    void bringForward(AppWindow* window);
    void post(std::function<void()> task);

    Dependencies deps_;
    ContentWindow* mainWindow_ = nullptr;
    AppWindow* tutorialWindow_ = nullptr;
    LifetimeGuard lifetime_;
};

// The banner inside the main window: AppState's message is shown until its timeout, if it has one, or until the
// user dismisses it.
class StatusBannerController {
public:
    StatusBannerController(platform::MainLoop& loop, AppState& appState);
    ~StatusBannerController();
    StatusBannerController(const StatusBannerController&) = delete;
    StatusBannerController& operator=(const StatusBannerController&) = delete;

    // Reads AppState again (after a change of its banner fields, or when the window appears). A new message starts
    // its timeout over.
    void update();
    // Takes the banner away: message, timeout and the showing flag are cleared.
    void clear();
    // The text on screen; nothing when no banner shows.
    const std::optional<std::string>& shownMessage() const { return shown_; }
    // Called after the banner appeared, changed or went.
    std::function<void()> onChange;

private:
    platform::MainLoop& loop_;
    AppState& appState_;
    std::optional<std::string> shown_;
    std::optional<double> shownTimeout_;
    std::shared_ptr<platform::Timer> timer_;
    bool clearing_ = false;
};

} // namespace sprelio
