#include "ui/FloatingButtonController.h"

#include "base/Log.h"
#include "store/Settings.h"
#include "ui/OverlayPlacement.h"
#include "ui/RadialMenu.h"

namespace sprelio {

bool FloatingButtonController::idle() const {
    return !deps_.appStatus || deps_.appStatus() == AppActivity::idle;
}

void FloatingButtonController::settingChanged(const std::string& key) {
    if (key == "floatingButtonActivation") {
        activationChanged();
    } else if (key == "floatingRecordButtonSize" || key == "floatingRecordButtonTransparency" ||
               key == "overlaySize") {
        // The button is drawn again with what it now reads; the panel's canvas follows a new size.
        if (idle() && deps_.settings.floatingButtonActivation() && deps_.showOverlay)
            deps_.showOverlay(OverlayType::button, true);
    } else if (key == "floatingRecord.selectedItemIDs.json") {
        if (deps_.ringModel) deps_.ringModel->pickerListChanged();
    }
}

void FloatingButtonController::activationChanged() {
    const bool on = deps_.settings.floatingButtonActivation();
    logInfo(std::string("FloatingButtonController.settingChanged() - floatingButtonActivation: ") +
            (on ? "true" : "false"));
    // A dictation shows its own overlays; the return to idle decides about the button.
    if (!idle()) return;
    if (on) {
        if (deps_.showOverlay) deps_.showOverlay(OverlayType::button, true);
        return;
    }
    // The dictation overlays need a place of their own on the screen the user works on, now that the button no
    // longer gives them one.
    if (const auto mouse = deps_.pointer.mouseLocation()) {
        for (const auto& screen : deps_.screens.screens()) {
            const auto& f = screen.frame;
            if (!screen.uniqueKey || mouse->x < f.minX() || mouse->x > f.maxX() || mouse->y < f.minY() ||
                mouse->y > f.maxY())
                continue;
            auto positions = deps_.settings.overlayPositionPerScreen();
            if (!positions.contains(*screen.uniqueKey)) {
                positions[*screen.uniqueKey] = std::string(overlayPositionRawValue(OverlayPosition::appBottomRight));
                deps_.settings.setOverlayPositionPerScreen(positions);
            }
            break;
        }
    }
    if (deps_.removeOverlay) deps_.removeOverlay(false, true);
}

} // namespace sprelio
