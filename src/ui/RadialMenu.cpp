#include "ui/RadialMenu.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

#include <nlohmann/json.hpp>

#include "ai/IntelligenceItems.h"
#include "base/Log.h"
#include "input/ShortcutActionDispatcher.h"
#include "shared/AppState.h"
#include "shared/IntelligenceItemIds.h"
#include "shared/SessionShortcutBuilder.h"
#include "store/Entities.h"
#include "store/Settings.h"
#include "ui/HitTestManager.h"

namespace sprelio {

namespace radial_menu {

namespace {
constexpr double kDegreesToRadians = 0.017453292519943295;
constexpr double kOverlayMargin = 44;
// A recording's overlay with the ring is usually 112 points: its buttons are drawn no larger than leaves a point
// between neighbours, and no smaller than an emoji can be read at.
constexpr double kLargestButtonRadius = 16;
constexpr double kSmallestButtonRadius = 7;
constexpr double kStopDrawnRadius = 8;
} // namespace

PickerItemWrapper stopItem() { return PickerItemWrapper{kStopItemId, "Cancel", "❌", true}; }

PickerItemWrapper voiceToTextItem() { return PickerItemWrapper{kVoiceToTextItemId, "Voice to Text", "🎙️", false}; }

const std::vector<std::string>& defaultItemIds() {
    static const std::vector<std::string> ids = [] {
        std::vector<std::string> made;
        for (const char* name : {"showActionsDialog", "askAI", "addEmoji", "improveWriting", "fixGrammar",
                                 "uppercaseAll", "lowercaseAll", "fun", "flirt"})
            made.push_back(intelligenceItemId(name));
        return made;
    }();
    return ids;
}

double menuRadius(double overlaySize) { return (overlaySize - kOverlayMargin) * 0.5; }

double centerRadius(double overlaySize) { return menuRadius(overlaySize) - kItemHitRadius; }

double angleDegrees(const std::vector<PickerItemWrapper>& itemsWithStop, const std::string& id) {
    if (id == kStopItemId) return 0;
    if (id == kVoiceToTextItemId) return 180;
    std::vector<std::string> rest;
    for (const auto& item : itemsWithStop)
        if (item.id != kStopItemId && item.id != kVoiceToTextItemId) rest.push_back(item.id);
    const auto found = std::find(rest.begin(), rest.end(), id);
    if (found == rest.end()) return 0;
    const int n = static_cast<int>(rest.size());
    const int i = static_cast<int>(found - rest.begin());
    const int half = n / 2;
    if (i < half) return 180.0 / (half + 1) * (i + 1);
    return 180.0 / (n - half + 1) * (i - half + 1) + 180;
}

platform::Point drawnPoint(double overlaySize, double degrees) {
    const double a = degrees * kDegreesToRadians;
    const double radius = menuRadius(overlaySize);
    return {overlaySize * 0.5 + std::cos(a) * radius, overlaySize * 0.5 + std::sin(a) * radius};
}

std::optional<std::vector<std::string>> decodeItemIds(const std::string& json) {
    const auto parsed = nlohmann::json::parse(json, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_array()) return std::nullopt;
    std::vector<std::string> ids;
    for (const auto& element : parsed) {
        if (!element.is_string()) return std::nullopt;
        ids.push_back(element.get<std::string>());
    }
    return ids;
}

std::string encodeItemIds(const std::vector<std::string>& ids) { return nlohmann::json(ids).dump(); }

// The drawn radius of the ring's buttons: neighbours on the closest arc keep a point between them.
double buttonDrawnRadius(const std::vector<PickerItemWrapper>& itemsWithStop, double overlaySize) {
    std::vector<double> angles;
    for (const auto& item : itemsWithStop) angles.push_back(angleDegrees(itemsWithStop, item.id));
    std::sort(angles.begin(), angles.end());
    double gap = 360;
    for (std::size_t i = 0; i < angles.size(); ++i) {
        const double next = i + 1 < angles.size() ? angles[i + 1] : angles.front() + 360;
        if (next > angles[i]) gap = std::min(gap, next - angles[i]);
    }
    const double chord = 2 * menuRadius(overlaySize) * std::sin(gap * kDegreesToRadians / 2);
    return std::clamp(chord / 2 - 1, kSmallestButtonRadius, kLargestButtonRadius);
}

} // namespace radial_menu

namespace {

std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

constexpr const char* kNoAppDelegate =
    "unwrappedAppDelegate() - AppDelegate.shared is nil. Make sure it's assigned in applicationDidFinishLaunching.";

} // namespace

std::vector<PickerItemWrapper> buildItemsWithStop(const std::vector<std::string>& chosenIds,
                                                  const std::vector<std::string>& pickerIds,
                                                  const RadialMenuCatalogue& catalogue) {
    std::vector<PickerItemWrapper> items{radial_menu::stopItem()};
    for (const auto& id : chosenIds) {
        // An item that left the catalogue (a deleted preset) drops out; the others close up.
        if (std::find(pickerIds.begin(), pickerIds.end(), id) == pickerIds.end()) continue;
        items.push_back(PickerItemWrapper{id, catalogue.title ? catalogue.title(id) : id,
                                          catalogue.emoji ? catalogue.emoji(id) : std::string(), false});
    }
    items.push_back(radial_menu::voiceToTextItem());
    return items;
}

void addRadialMenu(platform::OverlayDrawing& drawing, const std::vector<PickerItemWrapper>& itemsWithStop,
                   bool disabled, bool regionsFlipped) {
    const double size = drawing.overlaySize;
    const double inset = (drawing.canvasSize - size) / 2;
    const double buttonRadius = radial_menu::buttonDrawnRadius(itemsWithStop, size);
    // Where a region takes clicks, in the canvas: as registered (flipped or not), and 3 points lower, as the hit-test
    // manager stores circles.
    auto hitPoint = [&](const platform::Point& local) {
        const double y = regionsFlipped ? local.y : size - local.y;
        return platform::Point{inset + local.x, inset + y + HitTestManager::kCircularCenterYOffset};
    };
    drawing.ringButtons.clear();
    for (const auto& item : itemsWithStop) {
        const auto local = radial_menu::drawnPoint(size, radial_menu::angleDegrees(itemsWithStop, item.id));
        platform::OverlayDrawing::RingButton button;
        button.id = item.id;
        button.title = item.title;
        button.emoji = item.emoji;
        button.isCancel = item.isCancel;
        button.center = {inset + local.x, inset + local.y};
        button.radius = item.isCancel ? radial_menu::kStopDrawnRadius : buttonRadius;
        button.hitCenter = hitPoint(local);
        button.hitRadius = HitTestManager::storedCircularRadius(item.isCancel ? radial_menu::kStopHitRadius
                                                                              : radial_menu::kItemHitRadius);
        drawing.ringButtons.push_back(std::move(button));
    }
    drawing.ringCenterRadius = std::max(0.0, radial_menu::centerRadius(size));
    drawing.ringHitCenter = hitPoint({size * 0.5, size * 0.5});
    drawing.ringHitRadius = HitTestManager::storedCircularRadius(radial_menu::centerRadius(size));
    drawing.ringDisabled = disabled;
    // The stop button is the ring's cancel: the overlay's own cross would stand on top of it.
    drawing.cancelCenter.reset();
    drawing.cancelRadius = 0;
}

// ---- FloatingRecordViewModel ----

FloatingRecordViewModel::FloatingRecordViewModel(platform::MainLoop& loop, store::Settings& settings,
                                                 RadialMenuCatalogue catalogue)
    : loop_(loop), settings_(settings), catalogue_(std::move(catalogue)) {
    ensureChoice();
    rebuild();
}

FloatingRecordViewModel::~FloatingRecordViewModel() {
    lifetime_.expire();
    if (retry_) retry_->invalidate();
}

void FloatingRecordViewModel::ensureChoice() {
    const auto ids = radial_menu::decodeItemIds(settings_.floatingRecordSelectedItemIDsJson())
                         .value_or(std::vector<std::string>{});
    if (ids.size() >= 2) return;
    // A single chosen item is a choice; nothing, or only the stop button, is not.
    if (ids.size() == 1 && ids.front() != radial_menu::kStopItemId) return;
    settings_.setFloatingRecordSelectedItemIDsJson(radial_menu::encodeItemIds(radial_menu::defaultItemIds()));
}

void FloatingRecordViewModel::pickerListChanged() {
    loop_.post(lifetime_.guard([this] { rebuild(); }));
}

void FloatingRecordViewModel::rebuild() {
    const auto pickerIds = catalogue_.pickerItemIds ? catalogue_.pickerItemIds() : std::vector<std::string>{};
    if (pickerIds.empty()) {
        // The catalogue may not be built yet.
        if (!retry_ || !retry_->isValid()) {
            retry_ = loop_.schedule(std::chrono::milliseconds(200), lifetime_.guard([this] { rebuild(); }));
        }
        return;
    }
    const auto chosen = radial_menu::decodeItemIds(settings_.floatingRecordSelectedItemIDsJson())
                            .value_or(std::vector<std::string>{});
    auto items = buildItemsWithStop(chosen, pickerIds, catalogue_);
    if (items == itemsWithStop_) return;
    itemsWithStop_ = std::move(items);
    if (onItemsChanged) onItemsChanged();
}

// ---- FloatingRecordView ----

FloatingRecordView::FloatingRecordView(FloatingRecordViewDependencies deps) : deps_(std::move(deps)) {
    deps_.model.onItemsChanged = lifetime_.guard([this] { itemsChanged(); });
}

FloatingRecordView::~FloatingRecordView() {
    lifetime_.expire();
    deps_.model.onItemsChanged = nullptr;
}

bool FloatingRecordView::lastShownIsRecording() const {
    return deps_.lastShownOverlayType && deps_.lastShownOverlayType() == OverlayType::recording;
}

void FloatingRecordView::recordingOverlayAppeared() {
    if (deps_.overlayController) deps_.overlayController->orderPanelsFront();
    logInfo("FloatingRecordView.onappear{} - FloatingRecordView appeared. Waiting to register hit test regions...");
    deps_.loop.post(lifetime_.guard([this] {
        if (lastShownIsRecording()) {
            registerHitTestRegions();
            hasInitialisedHitTestRegions_ = true;
        } else {
            logInfo("FloatingRecordView.onappear{} - Skipped hit test registration - not recording overlay.");
        }
    }));
}

void FloatingRecordView::itemsChanged() {
    // Only a ring on screen has regions to renew.
    if (!hasInitialisedHitTestRegions_ || !deps_.settings.floatingRecordShowAITools() || !deps_.overlayController ||
        deps_.overlayController->currentOverlayType() != OverlayType::recording)
        return;
    logInfo("FloatingRecordView - itemsWithStop changed, re-registering hit regions.");
    registerHitTestRegions();
}

void FloatingRecordView::registerHitTestRegions() {
    const double size = deps_.settings.overlaySize();
    const double radius = radial_menu::menuRadius(size);
    logInfo("FloatingRecordView.registerHitTestRegions() - overlaySize: " + std::to_string(deps_.settings.overlaySize()) +
            ", menuRadius: " + number(radius));
    if (!lastShownIsRecording()) {
        logInfo("FloatingRecordView.registerHitTestRegions() - Skipping, not the active overlay.");
        return;
    }
    auto* controller = deps_.overlayController;
    if (!controller) return;
    controller->clearAllOverlayRegions();
    const bool flip = controller->isBaseScreenOverlay();
    regionsFlipped_ = flip;
    auto global = [&](platform::Point local) {
        // The regions' coordinates grow upwards; the drawing's grow downwards.
        if (flip) local.y = size - local.y;
        return controller->globalPositionFromOverlayLocal(local);
    };
    const auto items = deps_.model.itemsWithStop();
    int count = 0;
    for (const auto& item : items) {
        const auto point = global(radial_menu::drawnPoint(size, radial_menu::angleDegrees(items, item.id)));
        if (!point) {
            logInfo("FloatingButtonMenu.registerHitTestRegions() - Failed to calculate global center for radial item " +
                    item.id);
            continue;
        }
        controller->addCircularRegion(radial_menu::kRegionPrefix + item.id, *point,
                                      item.isCancel ? radial_menu::kStopHitRadius : radial_menu::kItemHitRadius,
                                      lifetime_.guard([this, item] { pressed(item); }));
        ++count;
    }
    // The centre comes last: where it overlaps a ring button, the button wins.
    if (const auto center = global({size * 0.5, size * 0.5})) {
        controller->addCircularRegion(radial_menu::kCenterRegionID, *center, radial_menu::centerRadius(size),
                                      lifetime_.guard([this] { finishRecording(); }));
        ++count;
    } else {
        logInfo("FloatingRecordView.registerCenterRegion() - Failed to calculate center point!");
    }
    logInfo("FloatingButtonMenu.registerHitTestRegions() - Registered " + std::to_string(count) + " regions");
}

void FloatingRecordView::pressed(const PickerItemWrapper& item) {
    if (deps_.disableButtons) {
        logInfo("FloatingButtonRecordView{} - " + item.id + " pressed, but disableButtons == true, skipping");
        return;
    }
    logInfo("FloatingButtonRecordView{} - " + item.id + " pressed, will handle action");
    if (item.isCancel) {
        logWarning("FloatingButtonMenu{} - STOP pressed");
        if (!deps_.cancelRecordingAndProcessing) {
            logError(kNoAppDelegate);
            return;
        }
        deps_.loop.post([cancel = deps_.cancelRecordingAndProcessing] { cancel(); });
        return;
    }
    if (item.id == radial_menu::kVoiceToTextItemId) {
        deps_.appState.activateRecordAndTranscribeShortcut();
    } else {
        logInfo("FloatingButtonMenu{} - Clicked item: " + item.id + " - title: " + item.title + " - emoji: " +
                item.emoji);
        // A catalogue item on the ring records and processes with that item, whatever the key that started the
        // recording does; a translation keeps its own category.
        const bool translation =
            classifyIntelligenceItem(item.id).kind == IntelligenceItem::Kind::translation;
        deps_.appState.activateSessionShortcut(SessionMenuItem{item.id, ShortcutAction::recordAndProcessWithAI,
                                                               translation ? "translation" : "action"});
    }
    finishRecording();
}

void FloatingRecordView::finishRecording() {
    const auto shortcut = deps_.appState.currentlyActiveUserShortcut();
    if (!shortcut) return;
    const auto raw = shortcut->shortcutActionRawValue();
    if (!raw || !shortcutActionFromRawValue(*raw)) return;
    if (shortcut->hold()) {
        deps_.shortcutActions.keyUpAction(shortcut);
    } else {
        deps_.shortcutActions.keyDownAction(shortcut);
    }
}

void FloatingRecordView::decorate(platform::OverlayDrawing& drawing) {
    addRadialMenu(drawing, deps_.model.itemsWithStop(), deps_.disableButtons, regionsFlipped_);
}

} // namespace sprelio
