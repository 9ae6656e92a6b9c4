#include "ui/OverlayScreenControllerImpl.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "audio/RecordingAudio.h"
#include "core/AppDelegate.h"
#include "shared/AppState.h"
#include "shared/SessionShortcutBuilder.h"
#include "base/Log.h"
#include "input/ShortcutActionDispatcher.h"
#include "platform/GlobalInput.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "ui/OverlayPlacement.h"

namespace sprelio {

namespace {

namespace event_type = platform::global_event_type;

std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

std::string pointText(const platform::Point& point) { return "(" + number(point.x) + ", " + number(point.y) + ")"; }

std::string rectText(const platform::Rect& rect) {
    return "(" + number(rect.x) + ", " + number(rect.y) + ", " + number(rect.width) + ", " + number(rect.height) + ")";
}

std::string screenText(const platform::ScreenInfo& screen) {
    return screen.name + " " + rectText(screen.frame) + (screen.uniqueKey ? " id: " + *screen.uniqueKey : "");
}

bool contains(const platform::Rect& rect, const platform::Point& point) {
    return point.x >= rect.minX() && point.x < rect.maxX() && point.y >= rect.minY() && point.y < rect.maxY();
}

// The mouse may stand on a screen's last row or column, which the half-open test leaves out.
bool containsMouse(const platform::Rect& rect, const platform::Point& point) {
    return point.x >= rect.minX() && point.x <= rect.maxX() && point.y >= rect.minY() && point.y <= rect.maxY();
}

bool isDictationOverlay(OverlayType type) {
    return type == OverlayType::recording || type == OverlayType::transcribing ||
           type == OverlayType::intelligizing;
}

platform::OverlayDrawing::Kind drawingKind(OverlayType type) {
    switch (type) {
    case OverlayType::button: return platform::OverlayDrawing::Kind::button;
    case OverlayType::recording: return platform::OverlayDrawing::Kind::recording;
    case OverlayType::transcribing: return platform::OverlayDrawing::Kind::transcribing;
    case OverlayType::intelligizing: return platform::OverlayDrawing::Kind::intelligizing;
    }
    return platform::OverlayDrawing::Kind::none;
}

// The cancel circle lies on the middle line, this far inside the right edge of the canvas.
double cancelInsetFor(OverlayType type) { return type == OverlayType::recording ? 10 : 20; }
constexpr double kCancelRadius = 10;
// Drawn a little smaller than its region, which is larger still (see HitTestManager).
constexpr double kCancelDrawnRadius = 8;

} // namespace

OverlayHost OverlayHost::forAppDelegate(AppDelegate& app, std::function<void(const std::string&)> checkUsability) {
    OverlayHost host;
    host.appStatus = [&app] { return app.appStatus(); };
    host.lastShownOverlayType = [&app] { return app.lastShownOverlayType(); };
    host.recordAudio = [&app] { return app.recordAudio(); };
    host.cancelRecordingAndProcessing = [&app] { app.cancelRecordingAndProcessing(); };
    host.showOverlay = [&app](OverlayType type, bool force) { app.showOverlay(type, force); };
    host.checkUsability = std::move(checkUsability);
    return host;
}

OverlayScreenControllerImpl::OverlayScreenControllerImpl(OverlayScreenControllerDependencies dependencies)
    : deps_(std::move(dependencies)) {
    deps_.hitTestManager.setOnRegionsChanged([this] { updateInputShapes(); });
    rebuildPanels();
}

OverlayScreenControllerImpl::~OverlayScreenControllerImpl() {
    lifetime_.expire();
    deps_.hitTestManager.setOnRegionsChanged({});
    waveform_.reset();
    closePanels();
}

void OverlayScreenControllerImpl::post(std::function<void()> task) {
    const auto alive = lifetime_.token();
    deps_.loop.post([alive, task = std::move(task)] {
        if (!alive) return;
        task();
    });
}

std::string OverlayScreenControllerImpl::description() const {
    return "OverlayScreenController(panels: " + std::to_string(panels_.size()) +
           ", enabled: " + (enabled_ ? "true" : "false") + ")";
}

int OverlayScreenControllerImpl::overlaySizeFor(OverlayType type) const {
    return type == OverlayType::button ? deps_.settings.floatingRecordButtonSize() : deps_.settings.overlaySize();
}

int OverlayScreenControllerImpl::canvasSize() const {
    return std::max(deps_.settings.overlaySize(), deps_.settings.floatingRecordButtonSize());
}

platform::OverlayPanel* OverlayScreenControllerImpl::panel(const std::string& screenName) const {
    const auto it = panels_.find(screenName);
    return it == panels_.end() ? nullptr : it->second.panel.get();
}

std::optional<OverlayType> OverlayScreenControllerImpl::currentOverlayType() const {
    if (!currentScreen_) return std::nullopt;
    const auto it = panels_.find(*currentScreen_);
    return it == panels_.end() ? std::nullopt : it->second.currentOverlayType;
}

// ---- Panels ----

void OverlayScreenControllerImpl::closePanels() {
    for (auto& [name, entry] : panels_) {
        entry.panel->setInputShapes({});
        entry.panel->hide();
    }
    panels_.clear();
    currentScreen_.reset();
    buttonPress_.reset();
    enabled_ = false;
}

void OverlayScreenControllerImpl::rebuildPanels() {
    // Whatever the old panels showed goes with them, and so do its regions: an invisible region would keep
    // taking clicks.
    waveform_.reset();
    const bool hadOverlay = currentScreen_.has_value();
    closePanels();
    if (hadOverlay) deps_.hitTestManager.clearAllOverlayRegions();
    for (const auto& screen : deps_.screens.screens()) {
        if (panels_.contains(screen.name)) continue;
        auto made = deps_.panelFactory.makePanel(screen);
        if (!made) {
            logError("OverlayScreenController.setupPanels() - unable to create a panel for screen '" + screen.name +
                     "'");
            continue;
        }
        const std::string name = screen.name;
        const auto alive = lifetime_.token();
        made->setMouseHandler([this, alive, name](int type, platform::Point location) {
            if (!alive) return;
            handleMouse(name, type, location);
        });
        panels_.emplace(name, PanelEntry{screen, std::move(made), std::nullopt});
    }
}

void OverlayScreenControllerImpl::refreshPanels() { rebuildPanels(); }

void OverlayScreenControllerImpl::screenChanged(const std::string& notificationName) {
    logInfo("OverlayScreenController.screenChanged() - notification: " + notificationName);
    if (!deps_.host.showOverlay || !deps_.host.lastShownOverlayType) {
        logError("OverlayScreenController.screenChanged() - AppDelegate is nil");
        return;
    }
    rebuildPanels();
    post([this] {
        const auto type = deps_.host.lastShownOverlayType();
        logInfo("OverlayScreenController.screenChanged() - re-showing overlay of type " +
                (type ? std::string(overlayTypeName(*type)) : std::string("nil")));
        if (!type) return;
        // The button shows at idle; it needs the force that the dictation overlays must not have.
        deps_.host.showOverlay(*type, *type == OverlayType::button);
    });
}

bool OverlayScreenControllerImpl::isBaseScreenOverlay() const {
    for (const auto& screen : deps_.screens.screens()) {
        if (screen.frame.x == 0 && screen.frame.y == 0) return panels_.contains(screen.name);
    }
    logWarning("OverlayScreenController.isBaseScreenOverlay() - No base screen found.");
    return false;
}

void OverlayScreenControllerImpl::orderPanelsFront() {
    for (auto& [name, entry] : panels_) {
        if (entry.currentOverlayType) entry.panel->orderFront();
    }
    enabled_ = true;
}

void OverlayScreenControllerImpl::clearPanel(PanelEntry& entry) {
    entry.currentOverlayType.reset();
    entry.panel->setInputShapes({});
    entry.panel->setDrawing(platform::OverlayDrawing{});
    entry.panel->hide();
}

void OverlayScreenControllerImpl::clearOverlays() {
    waveform_.reset();
    buttonPress_.reset();
    for (auto& [name, entry] : panels_) clearPanel(entry);
    currentScreen_.reset();
    deps_.hitTestManager.clearAllOverlayRegions();
    // Between the stages of a dictation the state is not idle; at its end it is.
    const bool dictationOver = !deps_.host.appStatus || deps_.host.appStatus() == AppActivity::idle;
    if (dictationOver) {
        currentOverlayXPosition_.reset();
        currentOverlayYPosition_.reset();
    }
}

// ---- Placement ----

std::optional<platform::ScreenInfo>
OverlayScreenControllerImpl::focusedScreen(const std::vector<platform::ScreenInfo>& screens) const {
    const std::string preferred = deps_.settings.buttonPrefersDisplayUniqueID();
    if (!preferred.empty()) {
        for (const auto& screen : screens) {
            if (screen.uniqueKey && *screen.uniqueKey == preferred) {
                logInfo("AppDelegate.showOverlay() - Matched saved preferred screen (buttonPrefersDisplayUniqueID): " +
                        preferred);
                return screen;
            }
        }
    }
    logInfo("AppDelegate.showOverlay() - No saved preferred screen by uniqueID, returning nil");
    if (const auto mouse = deps_.pointer.mouseLocation()) {
        for (const auto& screen : screens) {
            if (containsMouse(screen.frame, *mouse)) return screen;
        }
    }
    for (const auto& screen : screens) {
        if (screen.isPrimary) return screen;
    }
    if (!screens.empty()) return screens.front();
    return std::nullopt;
}

std::optional<platform::Rect> OverlayScreenControllerImpl::frontMostApplicationFocusedWindowDimensions() const {
    const auto app = deps_.workspace.frontmostApplication();
    if (!app) return std::nullopt;
    logInfo("getFrontMostApplicationFocusedWindowDimensions() - activePID: " + std::to_string(app->processIdentifier) +
            ", activeAppName: " + app->localizedName.value_or("nil"));
    for (const auto& window : deps_.windowList.windows()) {
        if (window.ownerPID == app->processIdentifier && window.bounds) return window.bounds;
    }
    return std::nullopt;
}

void OverlayScreenControllerImpl::placeOverlay(OverlayType type, bool force) {
    const auto screens = deps_.screens.screens();
    std::optional<platform::ScreenInfo> centerScreen;
    for (const auto& screen : screens) {
        if (screen.frame.x == 0 && screen.frame.y == 0) {
            centerScreen = screen;
            break;
        }
    }
    const auto focused = focusedScreen(screens);
    if (!focused) {
        logInfo("AppDelegate.showOverlay() - unable to get windowPosition, centerScreen or focusedScreen");
        return;
    }

    const double size = overlaySizeFor(type);
    const double inset = (canvasSize() - size) / 2;
    const auto positions = deps_.settings.overlayPositionPerScreen();
    std::optional<std::string> stored;
    std::optional<platform::Point> dragged;
    std::map<std::string, store::Point> draggedPositions;
    if (focused->uniqueKey) {
        if (const auto it = positions.find(*focused->uniqueKey); it != positions.end()) stored = it->second;
    }
    if (deps_.settings.floatingButtonActivation()) {
        draggedPositions = deps_.settings.draggedOverlayPositionPerScreen();
        if (focused->uniqueKey) {
            if (const auto it = draggedPositions.find(*focused->uniqueKey); it != draggedPositions.end())
                dragged = platform::Point{it->second.x, it->second.y};
        }
    }

    std::string screensText = "[";
    for (std::size_t i = 0; i < screens.size(); ++i) screensText += (i ? ", " : "") + screenText(screens[i]);
    screensText += "]";
    std::string positionsText = "[";
    for (const auto& [key, value] : positions) positionsText += (positionsText.size() > 1 ? ", " : "") + key + ": " + value;
    positionsText += "]";
    std::string draggedText = "[";
    for (const auto& [key, value] : draggedPositions)
        draggedText += (draggedText.size() > 1 ? ", " : "") + key + ": " + pointText({value.x, value.y});
    draggedText += "]";
    logInfo("AppDelegate.showOverlay() - NSScreen.screens: " + screensText);
    logInfo("AppDelegate.showOverlay() - centerScreen    : " + (centerScreen ? screenText(*centerScreen) : "nil"));
    logInfo("AppDelegate.showOverlay() - focusedScreen   : " + screenText(*focused));
    logInfo("AppDelegate.showOverlay() - overlayPositionPerScreen       : " + positionsText);
    logInfo("AppDelegate.showOverlay() - overlay                        : " + stored.value_or("nil"));
    logInfo("AppDelegate.showOverlay() - draggedOverlayPositionPerScreen: " + draggedText);
    logInfo("AppDelegate.showOverlay() - dragged                        : " + (dragged ? pointText(*dragged) : "nil"));

    const platform::Rect& frame = focused->frame;
    const bool buttonAtDraggedPoint =
        type == OverlayType::button && dragged && !OverlayPlacement::isNoDraggedPoint(*dragged);
    const AppActivity status = deps_.host.appStatus ? deps_.host.appStatus() : AppActivity::idle;
    platform::Point position;
    if (status == AppActivity::continuousSpeechActive) {
        // Continuous speech runs for a long time: the overlay stays out of the way whatever is stored.
        position = {frame.maxX() - size - OverlayPlacement::kMargin, frame.minY() + OverlayPlacement::kMargin};
        logInfo("AppDelegate.showOverlay() - continuousSpeechActive → forcing overlay at bottom-right: (" +
                number(position.x) + ", " + number(position.y) + ") on screen '" + focused->name + "'");
    } else if (type == OverlayType::button && !buttonAtDraggedPoint) {
        position = {frame.midX() - size / 2, frame.midY() - size / 2};
        logInfo("AppDelegate.showOverlay() - Air Button active but no dragged position, defaulting to screen center");
    } else if (buttonAtDraggedPoint) {
        position = *dragged;
    } else if (isDictationOverlay(type) && currentOverlayXPosition_ && currentOverlayYPosition_) {
        // The stages of one dictation stay where the first one appeared.
        position = {*currentOverlayXPosition_, *currentOverlayYPosition_};
    } else {
        const auto parsed = stored ? overlayPositionFromRawValue(*stored) : std::nullopt;
        const OverlayPosition chosen = parsed.value_or(OverlayPosition::appBottomRight);
        logInfo("AppDelegate.showOverlay() - Using Animation Position: overlay=" +
                std::string(overlayTypeName(type)) + ", position=" + std::string(overlayPositionRawValue(chosen)));
        std::optional<platform::Point> computed;
        if (chosen == OverlayPosition::appBottomRight) {
            if (const auto window = frontMostApplicationFocusedWindowDimensions()) {
                computed = OverlayPlacement::appBottomRight(
                    *window, size, frame, centerScreen ? std::optional(centerScreen->frame) : std::nullopt);
            }
        } else {
            computed = OverlayPlacement::positionOnScreen(chosen, frame, size, dragged);
        }
        // An unknown window (or a dragged position without a point) falls to the screen's corner.
        position = computed.value_or(
            *OverlayPlacement::positionOnScreen(OverlayPosition::screenBottomRight, frame, size, std::nullopt));
    }

    // Centre keeping: an overlay of another size replaces the last one around the same centre. Continuous speech
    // keeps its corner: the last centre is the floating button's, which would pull it back into the middle.
    const auto lastType = deps_.host.lastShownOverlayType ? deps_.host.lastShownOverlayType() : std::nullopt;
    if (!buttonAtDraggedPoint && status != AppActivity::continuousSpeechActive && lastType == type && !(lastOverlayCenter_ == platform::Point{}) &&
        lastOverlaySize_ != static_cast<int>(size)) {
        position = {lastOverlayCenter_.x - size / 2 - inset, lastOverlayCenter_.y - size / 2 - inset};
    }

    position = OverlayPlacement::clampToScreen(position, frame, size);
    currentOverlayXPosition_ = position.x;
    currentOverlayYPosition_ = position.y;
    logInfo("AppDelegate.showOverlay() - overlaying screen '" + focused->name + "' with image named '" +
            std::string(overlayTypeName(type)) + "'");

    if (!panels_.contains(focused->name)) {
        logInfo("AppDelegate.showOverlay() - unable to get drawViewController");
        return;
    }
    if (!force && status == AppActivity::idle) {
        // The dictation ended while this task waited: no stale overlay.
        logWarning("AppDelegate.showOverlay() - app is idle, skipping overlay");
        return;
    }
    lastOverlayCenter_ = {position.x + inset + size / 2, position.y + inset + size / 2};
    lastOverlaySize_ = static_cast<int>(size);
    addOverlayImage(type, focused->name, position);
}

void OverlayScreenControllerImpl::addOverlayImage(OverlayType type, const std::string& screenName,
                                                  const platform::Point& canvasOrigin) {
    waveform_.reset();
    buttonPress_.reset();
    for (auto& [name, entry] : panels_) {
        if (name != screenName) clearPanel(entry);
    }
    PanelEntry& entry = panels_.at(screenName);
    const double canvas = canvasSize();
    entry.panel->setFrame(platform::Rect{canvasOrigin.x, canvasOrigin.y, canvas, canvas});
    entry.currentOverlayType = type;
    currentScreen_ = screenName;

    if (type == OverlayType::recording) {
        waveform_ = std::make_unique<VoiceWaveformOverlayView>(deps_.loop, deps_.settings);
        waveform_->onChange = [this] { updateDrawing(); };
        auto audio = deps_.host.recordAudio ? deps_.host.recordAudio() : nullptr;
        if (!audio) {
            logError("OverlayScreenController.addOverlayImage() - recordAudio is nil! Using fallback");
            audio = std::make_shared<StandbyRecordingAudio>();
        }
        waveform_->connect(std::move(audio));
    }
    updateDrawing();
    updateOverlayHitRegionIfNeeded(type);
    orderPanelsFront();
    if (type == OverlayType::recording && deps_.settings.floatingRecordShowAITools() && recordingMenu_) {
        recordingMenu_->recordingOverlayAppeared();
    }
}

platform::OverlayDrawing OverlayScreenControllerImpl::currentDrawing() const {
    platform::OverlayDrawing drawing;
    const auto type = currentOverlayType();
    if (!type) return drawing;
    const double size = overlaySizeFor(*type);
    const double canvas = canvasSize();
    drawing.kind = drawingKind(*type);
    drawing.canvasSize = canvas;
    drawing.overlaySize = size;
    const bool showAITools = deps_.settings.floatingRecordShowAITools();
    switch (*type) {
    case OverlayType::button:
        drawing.transparency = deps_.settings.floatingRecordButtonTransparency();
        drawing.pressed = buttonPress_.has_value() && !buttonPress_->dragging;
        break;
    case OverlayType::recording:
        if (waveform_) {
            auto layout = waveform_->layout();
            layout.totalWidth = size;
            drawing.bars = waveformBars(waveform_->samples(), layout, size, size);
            drawing.timerText = recordingTimeText(waveform_->timerModel().elapsedTime());
        } else {
            drawing.timerText = recordingTimeText(0);
        }
        drawing.showTimer = deps_.settings.showRecordingTimer();
        drawing.timerOffsetX = showAITools ? -55 : 0;
        drawing.helpText = kRecordingHelpText;
        [[fallthrough]];
    case OverlayType::transcribing:
    case OverlayType::intelligizing:
        if (!(*type == OverlayType::recording && showAITools)) {
            drawing.cancelCenter = platform::Point{canvas - cancelInsetFor(*type), canvas / 2};
            drawing.cancelRadius = kCancelDrawnRadius;
        }
        break;
    }
    return drawing;
}

void OverlayScreenControllerImpl::updateDrawing() {
    if (!currentScreen_) return;
    auto drawing = currentDrawing();
    if (drawing.kind == platform::OverlayDrawing::Kind::recording && deps_.settings.floatingRecordShowAITools() &&
        recordingMenu_) {
        recordingMenu_->decorate(drawing);
    }
    if (auto* shown = panel(*currentScreen_)) shown->setDrawing(drawing);
}

// ---- Regions ----

void OverlayScreenControllerImpl::updateOverlayHitRegionIfNeeded(std::optional<OverlayType> overlayType) {
    if (!overlayType) {
        logInfo("OverlayViewController.updateOverlayHitRegionIfNeeded() - overlayType is nil!, can not update hit "
                "region!");
        return;
    }
    logDebug("OverlayViewController.updateOverlayHitRegionIfNeeded() - setting hit region for overlayType: " +
             std::string(overlayTypeName(*overlayType)));
    deps_.hitTestManager.clearAllOverlayRegions();
    if (!currentScreen_) return;
    const auto* shown = panel(*currentScreen_);
    if (!shown) return;
    const platform::Rect f = shown->frame();
    const auto alive = lifetime_.token();
    auto cancel = [this, alive] {
        if (alive) cancelButtonClicked();
    };
    switch (*overlayType) {
    case OverlayType::button:
        if (deps_.settings.floatingButtonActivation()) {
            // Clicks on the button are the button's own; this region only lets them reach it.
            deps_.hitTestManager.addCircularRegion(HitTestManager::kButtonRegionID, {f.midX(), f.midY()},
                                                   f.width / 2, [] {});
        }
        break;
    case OverlayType::recording:
        if (!deps_.settings.floatingRecordShowAITools()) {
            // The circle lies inside the square and wins because it comes first.
            deps_.hitTestManager.addCircularRegion(kCancelRegionID, {f.maxX() - cancelInsetFor(*overlayType), f.midY()},
                                                   kCancelRadius, cancel);
            deps_.hitTestManager.addSquareOverlayRegion(kRecordingRegionID, f, [this, alive] {
                if (alive) finishRecordingFromWaveform();
            });
        }
        break;
    case OverlayType::transcribing:
    case OverlayType::intelligizing:
        deps_.hitTestManager.addCircularRegion(kCancelRegionID, {f.maxX() - cancelInsetFor(*overlayType), f.midY()},
                                               kCancelRadius, cancel);
        break;
    }
}

void OverlayScreenControllerImpl::updateInputShapes() {
    const auto shapes = deps_.hitTestManager.inputShapes();
    for (auto& [name, entry] : panels_) {
        entry.panel->setInputShapes(currentScreen_ && name == *currentScreen_ ? shapes
                                                                               : std::vector<platform::OverlayInputShape>{});
    }
}

void OverlayScreenControllerImpl::cancelButtonClicked() {
    logDebug("HitTestManager.action() - Triggered CANCEL button overlay region.");
    post([this] {
        if (deps_.host.cancelRecordingAndProcessing) deps_.host.cancelRecordingAndProcessing();
    });
}

void OverlayScreenControllerImpl::finishRecordingFromWaveform() {
    logDebug("HitTestManager.action() - Triggered square waveform overlay region.");
    const auto shortcut = deps_.appState.currentlyActiveUserShortcut();
    if (!shortcut) return;
    // As the hotkey would: a held shortcut is released, a tapped one is pressed again.
    if (shortcut->hold()) {
        deps_.shortcutActions.keyUpAction(shortcut);
    } else {
        deps_.shortcutActions.keyDownAction(shortcut);
    }
}

std::optional<platform::Point>
OverlayScreenControllerImpl::globalPositionFromOverlayLocal(const platform::Point& point) const {
    logDebug("globalPositionFromOverlayLocal() - overlay center: " + pointText(lastOverlayCenter_));
    const double half = deps_.settings.overlaySize() / 2.0;
    const platform::Point global{lastOverlayCenter_.x + point.x - half, lastOverlayCenter_.y + point.y - half};
    const auto screens = deps_.screens.screens();
    const bool onScreen = std::any_of(screens.begin(), screens.end(),
                                      [&](const platform::ScreenInfo& s) { return contains(s.frame, global); });
    if (!onScreen) {
        logWarning("globalPositionFromOverlayLocal() - computed point " + pointText(global) +
                   " is outside visible screens");
    }
    return global;
}

// ---- Mouse over a panel ----

void OverlayScreenControllerImpl::handleMouse(const std::string& screenName, int type,
                                              const platform::Point& location) {
    auto it = panels_.find(screenName);
    if (it == panels_.end()) return;
    PanelEntry& entry = it->second;
    auto& regions = deps_.hitTestManager;

    switch (type) {
    case event_type::kLeftMouseDown: {
        if (regions.handleMouseEvent(type, location)) return;
        const auto* region = regions.regionAt(location);
        if (region && region->id == HitTestManager::kButtonRegionID &&
            entry.currentOverlayType == OverlayType::button) {
            const auto frame = entry.panel->frame();
            buttonPress_ = ButtonPress{screenName, location, {frame.x, frame.y}, false};
            updateDrawing();
        }
        return;
    }
    case event_type::kLeftMouseDragged: {
        if (!buttonPress_ || buttonPress_->screenName != screenName) return;
        const double dx = location.x - buttonPress_->initialMouseLocation.x;
        const double dy = location.y - buttonPress_->initialMouseLocation.y;
        if (!buttonPress_->dragging && std::hypot(dx, dy) < kDragThreshold) return;
        if (!buttonPress_->dragging) {
            buttonPress_->dragging = true;
            updateDrawing();
        }
        const auto frame = entry.panel->frame();
        entry.panel->setFrame(platform::Rect{buttonPress_->initialWindowOrigin.x + dx,
                                             buttonPress_->initialWindowOrigin.y + dy, frame.width, frame.height});
        return;
    }
    case event_type::kLeftMouseUp: {
        if (buttonPress_ && buttonPress_->screenName == screenName) {
            const ButtonPress press = *buttonPress_;
            buttonPress_.reset();
            if (press.dragging) {
                dragEnded(screenName, entry.panel->frame());
            } else {
                updateDrawing();
                const auto* region = regions.regionAt(location);
                if (region && region->id == HitTestManager::kButtonRegionID) airButtonTapped();
            }
            return;
        }
        regions.handleMouseEvent(type, location);
        return;
    }
    default: return;
    }
}

void OverlayScreenControllerImpl::dragEnded(const std::string& screenName, const platform::Rect& frame) {
    // The drop may have carried the button onto another screen: it belongs to the screen under its centre.
    const platform::Point center{frame.midX(), frame.midY()};
    std::optional<platform::ScreenInfo> target;
    for (const auto& screen : deps_.screens.screens()) {
        if (contains(screen.frame, center)) target = screen;
    }
    if (!target) target = panels_.at(screenName).screen;

    currentOverlayXPosition_ = frame.x;
    currentOverlayYPosition_ = frame.y;
    const double size = overlaySizeFor(OverlayType::button);
    const double inset = (canvasSize() - size) / 2;
    lastOverlayCenter_ = {frame.x + inset + size / 2, frame.y + inset + size / 2};
    updateDrawing();
    // The regions follow the button to where it now stands.
    updateOverlayHitRegionIfNeeded(OverlayType::button);

    if (!target->uniqueKey) {
        logError("OverlayViewController.loadView() - failed to get uniqueID for screen");
        return;
    }
    auto dragged = deps_.settings.draggedOverlayPositionPerScreen();
    dragged[*target->uniqueKey] = store::Point{frame.x, frame.y};
    deps_.settings.setDraggedOverlayPositionPerScreen(dragged);
    deps_.settings.setButtonPrefersDisplayUniqueID(*target->uniqueKey);
    logInfo("OverlayViewController.loadView() - normalized drag on screen " + target->name +
            " to canvas origin: " + pointText({frame.x, frame.y}));
}

void OverlayScreenControllerImpl::airButtonTapped() {
    logInfo("AirButtonView tapped, calling action");
    post([this] {
        if (deps_.host.checkUsability) deps_.host.checkUsability("AirButtonView.action{}");
    });
    deps_.appState.setCurrentlyActiveUserShortcut(SessionShortcutBuilder::recordAndTranscribe());
    // Its hold is off: the dictation runs in tap mode and the next click on the recording overlay ends it.
    const auto shortcut = deps_.appState.currentlyActiveUserShortcut();
    if (shortcut) deps_.shortcutActions.keyDownAction(shortcut);
}

} // namespace sprelio
