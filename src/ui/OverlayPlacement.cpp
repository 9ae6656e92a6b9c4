#include "ui/OverlayPlacement.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace sprelio {

namespace {

struct PositionName {
    OverlayPosition position;
    std::string_view raw;
};

constexpr std::array<PositionName, 7> kPositionNames{{
    {OverlayPosition::appBottomRight, "appBottomRight"},
    {OverlayPosition::screenCenter, "screenCenter"},
    {OverlayPosition::screenBottomRight, "screenBottomRight"},
    {OverlayPosition::screenBottomLeft, "screenBottomLeft"},
    {OverlayPosition::screenTopRight, "screenTopRight"},
    {OverlayPosition::screenTopLeft, "screenTopLeft"},
    {OverlayPosition::customDragged, "customDragged"},
}};

} // namespace

std::string_view overlayPositionRawValue(OverlayPosition position) {
    for (const auto& entry : kPositionNames) {
        if (entry.position == position) return entry.raw;
    }
    return "appBottomRight";
}

std::optional<OverlayPosition> overlayPositionFromRawValue(std::string_view raw) {
    for (const auto& entry : kPositionNames) {
        if (entry.raw == raw) return entry.position;
    }
    return std::nullopt;
}

bool OverlayPlacement::isNoDraggedPoint(const platform::Point& point) {
    return point.x == kNoDraggedX && point.y == kNoDraggedY;
}

std::optional<platform::Point> OverlayPlacement::positionOnScreen(OverlayPosition position,
                                                                  const platform::Rect& screen, double size,
                                                                  const std::optional<platform::Point>& dragged) {
    switch (position) {
    case OverlayPosition::screenCenter: return platform::Point{screen.midX() - size / 2, screen.midY() - size / 2};
    case OverlayPosition::screenBottomRight:
        return platform::Point{screen.maxX() - size - kMargin, screen.minY() + kMargin};
    case OverlayPosition::screenBottomLeft: return platform::Point{screen.minX() + kMargin, screen.minY() + kMargin};
    case OverlayPosition::screenTopRight:
        return platform::Point{screen.maxX() - size - kMargin, screen.maxY() - size - kMargin};
    case OverlayPosition::screenTopLeft: return platform::Point{screen.minX() + kMargin, screen.maxY() - size - kMargin};
    case OverlayPosition::customDragged:
        if (dragged && !isNoDraggedPoint(*dragged)) return dragged;
        return std::nullopt;
    case OverlayPosition::appBottomRight: return std::nullopt;
    }
    return std::nullopt;
}

std::optional<platform::Point> OverlayPlacement::appBottomRight(const platform::Rect& window, double size,
                                                                const platform::Rect& focusedScreen,
                                                                const std::optional<platform::Rect>& centerScreen) {
    if (window.width == 0 || window.height == 0 || !centerScreen) return std::nullopt;
    // The window list counts y downwards from the top of the base screen; the overlay counts upwards from its
    // bottom. The canvas is global, so the screen's own origin plays no part in x.
    const double x = window.maxX() - size;
    const double primaryHeight = centerScreen->height;
    double y = 0;
    if (focusedScreen == *centerScreen) {
        y = window.minY() > 0 ? primaryHeight - window.maxY() : 0;
    } else if (window.maxY() >= 0) {
        y = primaryHeight - window.maxY();
    } else {
        // A window on a screen above the base screen.
        y = focusedScreen.y + std::fabs(window.maxY());
    }
    return platform::Point{x, y};
}

platform::Point OverlayPlacement::clampToScreen(const platform::Point& position, const platform::Rect& screen,
                                                double size) {
    return platform::Point{std::max(std::min(position.x, screen.maxX() - size), screen.minX()),
                           std::max(std::min(position.y, screen.maxY() - size), screen.minY())};
}

} // namespace sprelio
