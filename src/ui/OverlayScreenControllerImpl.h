#pragma once
// The overlay panels, one per screen: where the overlay goes (screen and position), what the panel shows, and
// the clickable regions of each overlay with what they do.
//
// The overlay stands on one screen at a time: the panel of the chosen screen shows it, the others stay hidden
// and empty. A panel is as large as the canvas (the larger of the two overlay sizes), so that the button and the
// dictation overlays share one centre.
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/LifetimeGuard.h"
#include "shared/AppActivity.h"
#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"
#include "platform/OverlayPanels.h"
#include "platform/Screens.h"
#include "ui/HitTestManager.h"
#include "shared/OverlayController.h"
#include "ui/VoiceWaveformOverlayView.h"

namespace sprelio {

namespace store {
class Settings;
}

class AppDelegate;
class AppState;
class RecordingAudio;
class ShortcutActionDispatcher;

// What the overlay needs of the application object.
struct OverlayHost {
    std::function<AppActivity()> appStatus;
    std::function<std::optional<OverlayType>()> lastShownOverlayType;
    // The recorder of the current dictation; nullptr when there is none.
    std::function<std::shared_ptr<RecordingAudio>()> recordAudio;
    // The user's cancel of recording and processing; called from a task of its own.
    std::function<void()> cancelRecordingAndProcessing;
    // Shows an overlay again after the panels were rebuilt.
    std::function<void(OverlayType type, bool force)> showOverlay;
    // UsabilityManager.checkUsability(caller); may be empty.
    std::function<void(const std::string& caller)> checkUsability;

    static OverlayHost forAppDelegate(AppDelegate& app, std::function<void(const std::string&)> checkUsability);
};

// The radial menu that replaces the recording overlay's own regions while the AI tools are shown. It registers
// its regions through the controller (clearAllOverlayRegions, addCircularRegion, isBaseScreenOverlay,
// globalPositionFromOverlayLocal) when the recording overlay appears.
class RecordingOverlayMenu {
public:
    virtual ~RecordingOverlayMenu() = default;
    virtual void recordingOverlayAppeared() = 0;
    // Adds the menu's parts to what the panel draws.
    virtual void decorate(platform::OverlayDrawing& drawing) { (void)drawing; }
};

struct OverlayScreenControllerDependencies {
    platform::MainLoop& loop;
    platform::Screens& screens;
    platform::Workspace& workspace;
    platform::PointerLocation& pointer;
    platform::WindowList& windowList;
    platform::OverlayPanelFactory& panelFactory;
    store::Settings& settings;
    AppState& appState;
    // keyDownAction / keyUpAction of the shortcuts: a click on the waveform or on the button acts like the key.
    ShortcutActionDispatcher& shortcutActions;
    HitTestManager& hitTestManager;
    OverlayHost host;
};

class OverlayScreenControllerImpl final : public OverlayScreenController {
public:
    static constexpr const char* kCancelRegionID = "cancel";
    static constexpr const char* kRecordingRegionID = "recording";
    // Movement of the pressed button, in points, before the press becomes a drag.
    static constexpr double kDragThreshold = 3;
    static constexpr const char* kRecordingHelpText = "Click to complete the recording.";

    explicit OverlayScreenControllerImpl(OverlayScreenControllerDependencies dependencies);
    ~OverlayScreenControllerImpl() override;
    OverlayScreenControllerImpl(const OverlayScreenControllerImpl&) = delete;
    OverlayScreenControllerImpl& operator=(const OverlayScreenControllerImpl&) = delete;

    // ---- OverlayScreenController ----
    void placeOverlay(OverlayType type, bool force) override;
    // Clears every panel and the regions. The position of a dictation's overlay is kept while the dictation runs,
    // so that its next stage appears at the same place, and forgotten once the application is idle.
    void clearOverlays() override;
    // Rebuilds the panels for the screens there are now.
    void refreshPanels() override;
    std::size_t panelCount() const override { return panels_.size(); }
    std::string description() const override;

    // The screens changed: rebuild, then show again the overlay that was showing.
    void screenChanged(const std::string& notificationName);
    // Whether a panel exists for the base screen (the one whose frame starts at 0,0).
    bool isBaseScreenOverlay() const;
    // Shows every panel that holds an overlay in front of all windows, without taking the focus.
    void orderPanelsFront();
    // A point of the overlay's canvas (origin at its lower left, overlaySize wide) in screen coordinates.
    std::optional<platform::Point> globalPositionFromOverlayLocal(const platform::Point& point) const;
    // Registers the regions of the overlay type on the panel now showing it.
    void updateOverlayHitRegionIfNeeded(std::optional<OverlayType> overlayType);
    void cancelButtonClicked();
    void clearAllOverlayRegions() { deps_.hitTestManager.clearAllOverlayRegions(); }
    std::string addCircularRegion(const std::string& id, const platform::Point& center, double radius,
                                  std::function<void()> action) {
        return deps_.hitTestManager.addCircularRegion(id, center, radius, std::move(action));
    }

    void setRecordingOverlayMenu(RecordingOverlayMenu* menu) { recordingMenu_ = menu; }

    // ---- State ----
    std::optional<double> currentOverlayXPosition() const { return currentOverlayXPosition_; }
    std::optional<double> currentOverlayYPosition() const { return currentOverlayYPosition_; }
    platform::Point lastOverlayCenter() const { return lastOverlayCenter_; }
    int lastOverlaySize() const { return lastOverlaySize_; }
    bool enabled() const { return enabled_; }
    // The overlay on screen and the screen that shows it, if any.
    std::optional<OverlayType> currentOverlayType() const;
    std::optional<std::string> currentScreenName() const { return currentScreen_; }
    const VoiceWaveformOverlayView* waveform() const { return waveform_.get(); }
    // The panel of a screen, by the screen's name; nullptr when there is none.
    platform::OverlayPanel* panel(const std::string& screenName) const;
    // What the panel of the current screen draws now.
    platform::OverlayDrawing currentDrawing() const;

    // The sizes of the overlay types and of the canvas that holds them.
    int overlaySizeFor(OverlayType type) const;
    int canvasSize() const;

private:
    struct PanelEntry {
        platform::ScreenInfo screen;
        std::unique_ptr<platform::OverlayPanel> panel;
        std::optional<OverlayType> currentOverlayType;
    };
    struct ButtonPress {
        std::string screenName;
        platform::Point initialMouseLocation;
        platform::Point initialWindowOrigin;
        bool dragging = false;
    };

    void rebuildPanels();
    void closePanels();
    std::optional<platform::ScreenInfo> focusedScreen(const std::vector<platform::ScreenInfo>& screens) const;
    std::optional<platform::Rect> frontMostApplicationFocusedWindowDimensions() const;
    void addOverlayImage(OverlayType type, const std::string& screenName, const platform::Point& canvasOrigin);
    void clearPanel(PanelEntry& entry);
    void updateDrawing();
    void updateInputShapes();
    void handleMouse(const std::string& screenName, int type, const platform::Point& location);
    void finishRecordingFromWaveform();
    void airButtonTapped();
    void dragEnded(const std::string& screenName, const platform::Rect& frame);
    void post(std::function<void()> task);

    OverlayScreenControllerDependencies deps_;
    LifetimeGuard lifetime_;
    std::map<std::string, PanelEntry> panels_;
    bool enabled_ = false;
    std::optional<std::string> currentScreen_;
    std::unique_ptr<VoiceWaveformOverlayView> waveform_;
    std::optional<ButtonPress> buttonPress_;
    RecordingOverlayMenu* recordingMenu_ = nullptr;

    std::optional<double> currentOverlayXPosition_;
    std::optional<double> currentOverlayYPosition_;
    platform::Point lastOverlayCenter_;
    int lastOverlaySize_ = 0;
};

} // namespace sprelio
