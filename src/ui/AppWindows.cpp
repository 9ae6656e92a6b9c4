#include "ui/AppWindows.h"

#include <chrono>
#include <cmath>

#include "base/Log.h"
#include "store/PointText.h"
#include "store/Settings.h"

namespace sprelio {

WindowTitles WindowTitles::make(const std::string& appName) {
    return WindowTitles{appName + " Preferences", appName + " Settings", appName + " Tutorial",
                        appName + " AI Results"};
}

AppWindows::AppWindows(Dependencies deps) : deps_(std::move(deps)) {}

AppWindows::~AppWindows() { lifetime_.expire(); }

void AppWindows::post(std::function<void()> task) {
    const auto alive = lifetime_.token();
    deps_.loop.post([alive, task = std::move(task)] {
        if (alive) task();
    });
}

void AppWindows::openTab(ContentViewTab tab) {
    // AppState copies the tab into the realtime mirror for the event path.
    deps_.appState.setSelectedContentViewTab(tab);
    if (mainWindow_) mainWindow_->showTab(tab);
    if (tab == ContentViewTab::history && deps_.scrollHistoryToTop) deps_.scrollHistoryToTop();
    restoreAndShowWindow(mainWindow_);
}

void AppWindows::bringForward(AppWindow* window) {
    if (deps_.capturePreviouslyActiveAppIfNeeded) deps_.capturePreviouslyActiveAppIfNeeded();
    if (deps_.activateSelf) deps_.activateSelf();
    window->makeKeyAndOrderFront();
}

void AppWindows::restoreAndShowWindow(AppWindow* window) {
    if (!window) {
        logWarning("restoreAndShowWindow() - window is nil");
        return;
    }
    if (!window->isMiniaturized()) {
        bringForward(window);
        return;
    }
    window->deminiaturize();
    const auto alive = lifetime_.token();
    deps_.loop.postAfter(std::chrono::milliseconds(100), [this, alive, window] {
        if (alive) bringForward(window);
    });
}

bool AppWindows::keyDown(std::int64_t keyCode) {
    if (keyCode != kEscapeKeyCode) return false;
    logInfo("AppDelegate.keyDown() - escape pressed");
    bool closed = false;
    if (mainWindow_ && mainWindow_->isKeyWindow()) {
        logInfo("AppDelegate.keyDown() - closing mainWindow");
        mainWindow_->close();
        closed = true;
    } else if (tutorialWindow_ && tutorialWindow_->isKeyWindow()) {
        logInfo("AppDelegate.keyDown() - closing tutorialViewController window");
        tutorialWindow_->close();
        closed = true;
    } else {
        logInfo("AppDelegate.keyDown() - no window to close");
    }
    post([this] {
        if (deps_.restoreFocusToPreviouslyActiveApp) deps_.restoreFocusToPreviouslyActiveApp();
    });
    return closed;
}

void AppWindows::handleWindowClose(const ClosingWindow& window) {
    if (!window.screenWithMouse) {
        logWarning("handleWindowClose() - unable to get screen with mouse or window information, frame not saved");
        return;
    }
    const std::string frameText = store::RectText::format(window.frame);
    if (window.title == deps_.titles.tutorialControllerWindowTitle) {
        logInfo("handleWindowClose() - saving Tutorial window frame as " + frameText);
        deps_.settings.setTutorialViewFrame(window.frame);
    } else if (window.title == deps_.titles.intelligenceResultsControllerWindowTitle) {
        logInfo("handleWindowClose() - saving IntelligenceResults window frame as " + frameText);
        deps_.settings.setIntelligenceResultsViewFrame(window.frame);
    } else {
        logInfo("handleWindowClose() - unknown window title " + window.title +
                ", frame not saved (this is not an error and only indicates we are not persisting window frames for "
                "this window type)");
    }
}

bool AppWindows::applicationShouldHandleReopen(bool hasVisibleWindows) {
    logInfo(std::string("applicationShouldHandleReopen() - hasVisibleWindows: ") +
            (hasVisibleWindows ? "true" : "false"));
    post([this] { openTab(deps_.appState.selectedContentViewTab()); });
    return mainWindow_ == nullptr;
}

StatusBannerController::StatusBannerController(platform::MainLoop& loop, AppState& appState)
    : loop_(loop), appState_(appState) {}

StatusBannerController::~StatusBannerController() {
    if (timer_) timer_->invalidate();
}

void StatusBannerController::update() {
    if (clearing_) return;
    const auto& message = appState_.statusBannerViewMessage();
    const auto& timeout = appState_.statusBannerViewTimeoutSeconds();
    if (!message) {
        if (timer_) timer_->invalidate();
        timer_.reset();
        const bool wasShown = shown_.has_value();
        shown_.reset();
        shownTimeout_.reset();
        if (appState_.isShowingBanner()) appState_.setIsShowingBanner(false);
        if (wasShown && onChange) onChange();
        return;
    }
    if (shown_ == message && shownTimeout_ == timeout) return;
    shown_ = message;
    shownTimeout_ = timeout;
    if (timer_) timer_->invalidate();
    timer_.reset();
    if (!appState_.isShowingBanner()) appState_.setIsShowingBanner(true);
    if (timeout && std::isfinite(*timeout) && *timeout > 0) {
        const auto delay = std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(*timeout));
        timer_ = loop_.schedule(delay, [this] { clear(); });
    }
    if (onChange) onChange();
}

void StatusBannerController::clear() {
    clearing_ = true;
    if (timer_) timer_->invalidate();
    timer_.reset();
    appState_.setStatusBannerViewMessage(std::nullopt);
    appState_.setStatusBannerViewTimeoutSeconds(std::nullopt);
    appState_.setIsShowingBanner(false);
    clearing_ = false;
    const bool wasShown = shown_.has_value();
    shown_.reset();
    shownTimeout_.reset();
    if (wasShown && onChange) onChange();
}

} // namespace sprelio
