#pragma once
// The floating button's settings take effect at once: the button goes when the user turns it off and comes back
// when it is turned on, and a new size or transparency shows at once. During a dictation nothing changes until the
// return to idle, which reads the settings afresh.
#include <functional>
#include <string>

#include "platform/OverlayPanels.h"
#include "platform/Screens.h"
#include "shared/AppActivity.h"
#include "shared/OverlayController.h"

namespace sprelio {

namespace store {
class Settings;
}
class FloatingRecordViewModel;

struct FloatingButtonControllerDependencies {
    store::Settings& settings;
    const platform::Screens& screens;
    const platform::PointerLocation& pointer;
    std::function<AppActivity()> appStatus;
    // AppDelegate.showOverlay and removeOverlay.
    std::function<void(OverlayType type, bool force)> showOverlay;
    std::function<void(bool force, bool preserveAppFocus)> removeOverlay;
    // The ring's model, which follows the stored choice of items; may be null.
    FloatingRecordViewModel* ringModel = nullptr;
};

class FloatingButtonController {
public:
    explicit FloatingButtonController(FloatingButtonControllerDependencies deps) : deps_(std::move(deps)) {}

    // A view wrote the setting `key`.
    void settingChanged(const std::string& key);

private:
    void activationChanged();
    bool idle() const;

    FloatingButtonControllerDependencies deps_;
};

} // namespace sprelio
