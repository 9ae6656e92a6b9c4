#pragma once
// Where on a screen the overlay goes: the stored positions, the corner of the frontmost application's window,
// and the clamp that keeps the overlay on its screen. Coordinates have their origin at the bottom left of the
// base screen; a position is the lower left corner of the overlay's canvas.
#include <optional>
#include <string>
#include <string_view>

#include "platform/OverlayPanels.h"
#include "platform/Screens.h"

namespace sprelio {

enum class OverlayPosition {
    appBottomRight,
    screenCenter,
    screenBottomRight,
    screenBottomLeft,
    screenTopRight,
    screenTopLeft,
    customDragged,
};

std::string_view overlayPositionRawValue(OverlayPosition position);
std::optional<OverlayPosition> overlayPositionFromRawValue(std::string_view raw);

struct OverlayPlacement {
    // The distance from a screen's edges.
    static constexpr double kMargin = 20;
    // A stored dragged point with these values stands for "none".
    static constexpr double kNoDraggedX = -999999999.0;
    static constexpr double kNoDraggedY = 999999999.0;

    static bool isNoDraggedPoint(const platform::Point& point);

    // A stored position on a screen frame. `appBottomRight` is not a screen position: it gives nothing.
    // `customDragged` takes the dragged point, and gives nothing without one.
    static std::optional<platform::Point> positionOnScreen(OverlayPosition position, const platform::Rect& screen,
                                                           double size,
                                                           const std::optional<platform::Point>& dragged);

    // The bottom right corner of the frontmost window. `window` has its origin at the top left of the base
    // screen; `centerScreen` is the base screen. Nothing when the window's size is zero.
    static std::optional<platform::Point> appBottomRight(const platform::Rect& window, double size,
                                                         const platform::Rect& focusedScreen,
                                                         const std::optional<platform::Rect>& centerScreen);

    static platform::Point clampToScreen(const platform::Point& position, const platform::Rect& screen, double size);
};

} // namespace sprelio
