#pragma once
// The ring of AI actions that replaces the plain waveform while the floating button's AI tools are on: a stop
// button on the right, "Voice to Text" on the left, the chosen catalogue items on the two arcs between them, and a
// centre that ends the recording as the hotkey would. Overlay panels never take the focus, so every button is a
// region of the hit-test manager, registered through the overlay controller.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/LifetimeGuard.h"
#include "platform/MainLoop.h"
#include "platform/OverlayPanels.h"
#include "ui/OverlayScreenControllerImpl.h"

namespace sprelio {

namespace store {
class Settings;
}
class AppState;
class ShortcutActionDispatcher;

// One button of the ring.
struct PickerItemWrapper {
    std::string id;
    std::string title;
    std::string emoji;
    bool isCancel = false;
    bool operator==(const PickerItemWrapper&) const = default;
};

namespace radial_menu {

inline constexpr const char* kStopItemId = "__STOP__";
inline constexpr const char* kVoiceToTextItemId = "recordAndTranscribe";
inline constexpr const char* kRegionPrefix = "radial-";
inline constexpr const char* kCenterRegionID = "radial-center-circle";
// The radii handed to the hit-test manager, which stores them larger (see HitTestManager::storedCircularRadius).
inline constexpr double kItemHitRadius = 22;
inline constexpr double kStopHitRadius = 10;

PickerItemWrapper stopItem();
PickerItemWrapper voiceToTextItem();
// The ring a user gets before choosing: nine catalogue items by their ids.
const std::vector<std::string>& defaultItemIds();

// (overlaySize - 44) / 2: the ring's distance from the overlay's centre.
double menuRadius(double overlaySize);
// menuRadius - 22: the centre circle.
double centerRadius(double overlaySize);

// The angle of an item of `itemsWithStop` in degrees from the positive x axis: the stop item 0, "Voice to Text"
// 180, the first half of the others evenly on the arc between, the second half on the arc from 180 to 360. An id
// that is not in the list gets 0.
double angleDegrees(const std::vector<PickerItemWrapper>& itemsWithStop, const std::string& id);

// The item's place in the overlay's own square, as drawn: origin at the top left, y growing downwards.
platform::Point drawnPoint(double overlaySize, double degrees);

// The JSON array of ids; nothing when the text is no array of strings.
std::optional<std::vector<std::string>> decodeItemIds(const std::string& json);
std::string encodeItemIds(const std::vector<std::string>& ids);

} // namespace radial_menu

// What the ring needs of the AI catalogue: the ids of the picker's items in their order, and each item's title and
// emoji.
struct RadialMenuCatalogue {
    std::function<std::vector<std::string>()> pickerItemIds;
    std::function<std::string(const std::string& id)> title;
    std::function<std::string(const std::string& id)> emoji;
};

// The stop item, the chosen ids that the picker offers (in the stored order, with their faces) and "Voice to Text".
std::vector<PickerItemWrapper> buildItemsWithStop(const std::vector<std::string>& chosenIds,
                                                  const std::vector<std::string>& pickerIds,
                                                  const RadialMenuCatalogue& catalogue);

// Adds the ring to a drawing of the recording overlay: the buttons where they are drawn and where they take clicks,
// in canvas coordinates (the overlay's square centred in the canvas). `regionsFlipped`: the regions were registered
// with the canvas turned upside down, as on the base screen.
void addRadialMenu(platform::OverlayDrawing& drawing, const std::vector<PickerItemWrapper>& itemsWithStop,
                   bool disabled, bool regionsFlipped = true);

// The ring's items, kept from the stored choice and the catalogue's picker list.
class FloatingRecordViewModel {
public:
    FloatingRecordViewModel(platform::MainLoop& loop, store::Settings& settings, RadialMenuCatalogue catalogue);
    ~FloatingRecordViewModel();
    FloatingRecordViewModel(const FloatingRecordViewModel&) = delete;
    FloatingRecordViewModel& operator=(const FloatingRecordViewModel&) = delete;

    const std::vector<PickerItemWrapper>& itemsWithStop() const { return itemsWithStop_; }
    const RadialMenuCatalogue& catalogue() const { return catalogue_; }
    // The picker list or the stored choice changed: the ring is built again on the main loop.
    void pickerListChanged();
    // Called after every change of itemsWithStop.
    std::function<void()> onItemsChanged;

private:
    void ensureChoice();
    void rebuild();

    platform::MainLoop& loop_;
    store::Settings& settings_;
    RadialMenuCatalogue catalogue_;
    std::vector<PickerItemWrapper> itemsWithStop_;
    std::shared_ptr<platform::Timer> retry_;
    LifetimeGuard lifetime_;
};

struct FloatingRecordViewDependencies {
    platform::MainLoop& loop;
    store::Settings& settings;
    AppState& appState;
    ShortcutActionDispatcher& shortcutActions;
    FloatingRecordViewModel& model;
    OverlayScreenControllerImpl* overlayController;
    // The application's overlay type now shown and its cancel of recording and processing; empty when there is no
    // application to ask.
    std::function<std::optional<OverlayType>()> lastShownOverlayType;
    std::function<void()> cancelRecordingAndProcessing;
    // A preview shows the ring with buttons that do nothing.
    bool disableButtons = false;
};

// The ring on the recording overlay: its regions, what a press of each button does, and its part of the drawing.
class FloatingRecordView final : public RecordingOverlayMenu {
public:
    explicit FloatingRecordView(FloatingRecordViewDependencies deps);
    ~FloatingRecordView() override;
    FloatingRecordView(const FloatingRecordView&) = delete;
    FloatingRecordView& operator=(const FloatingRecordView&) = delete;

    // RecordingOverlayMenu
    void recordingOverlayAppeared() override;
    void decorate(platform::OverlayDrawing& drawing) override;

    void registerHitTestRegions();
    void pressed(const PickerItemWrapper& item);
    // Ends the recording as the key of the running shortcut would: a held shortcut is released, a tapped one is
    // pressed again.
    void finishRecording();
    bool hasInitialisedHitTestRegions() const { return hasInitialisedHitTestRegions_; }

private:
    bool lastShownIsRecording() const;
    void itemsChanged();

    FloatingRecordViewDependencies deps_;
    bool hasInitialisedHitTestRegions_ = false;
    // How the regions were registered last, for the drawing's click areas.
    bool regionsFlipped_ = true;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
