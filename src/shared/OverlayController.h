#pragma once
// The overlay panels, one per screen. AppDelegate decides which overlay is wanted and when, and owns the
// focus steps around it; placing and drawing on the screens is behind this interface.
#include <cstddef>
#include <string>
#include <string_view>

namespace sprelio {

enum class OverlayType { button, recording, transcribing, intelligizing };

inline std::string_view overlayTypeName(OverlayType type) {
    switch (type) {
    case OverlayType::button: return "button";
    case OverlayType::recording: return "recording";
    case OverlayType::transcribing: return "transcribing";
    case OverlayType::intelligizing: return "intelligizing";
    }
    return "button";
}

class OverlayScreenController {
public:
    virtual ~OverlayScreenController() = default;
    // The placement task: picks the screen and position and draws the overlay. It runs as a task of its own and
    // leaves a dictation overlay out when the application is idle by then, unless `force` is set.
    virtual void placeOverlay(OverlayType type, bool force) = 0;
    // Clears the overlay of every panel. The position used during a dictation is forgotten once the application is
    // idle again; between the stages of one dictation it is kept, so that the next stage appears at the same place.
    virtual void clearOverlays() = 0;
    virtual void refreshPanels() = 0;
    virtual std::size_t panelCount() const = 0;
    virtual std::string description() const = 0;
};

} // namespace sprelio
