#include "ui/HitTestManager.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "base/Log.h"
#include "platform/GlobalInput.h"

namespace sprelio {

namespace {

std::string number(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

std::optional<platform::ScreenInfo> baseScreen(const platform::Screens& screens) {
    for (const auto& screen : screens.screens()) {
        if (screen.frame.x == 0 && screen.frame.y == 0) return screen;
    }
    return std::nullopt;
}

} // namespace

bool OverlayHitRegion::contains(const platform::Point& point) const {
    if (isSquare && frame) {
        // Edges included on the near side, excluded on the far side, as a rectangle contains its points.
        return point.x >= frame->minX() && point.x < frame->maxX() && point.y >= frame->minY() &&
               point.y < frame->maxY();
    }
    return std::hypot(point.x - center.x, point.y - center.y) <= radius;
}

std::string OverlayHitRegion::description() const {
    std::string text = "OverlayHitRegion(id: " + id;
    if (isSquare && frame) {
        text += ", frame: (" + number(frame->x) + ", " + number(frame->y) + ", " + number(frame->width) + ", " +
                number(frame->height) + ")";
    } else {
        text += ", center: (" + number(center.x) + ", " + number(center.y) + "), radius: " + number(radius);
    }
    return text + ")";
}

double HitTestManager::storedCircularRadius(double radius) {
    // The circles are drawn smaller than their nominal size, and the clickable area follows what the eye takes
    // for the control: a minimum for small ones, then a slowly growing margin.
    if (radius <= 16) return 19.33;
    const double capped = std::min(radius, 256.0);
    return (capped - 16) / 240 * 196 + 16 + 3.33;
}

void HitTestManager::addSquareOverlayRegion(const std::string& id, const platform::Rect& frame,
                                            std::function<void()> action) {
    OverlayHitRegion region;
    region.id = id;
    region.frame = frame;
    region.isSquare = true;
    region.action = std::move(action);
    addRegion(std::move(region));
}

std::string HitTestManager::addCircularRegion(const std::string& id, const platform::Point& center, double radius,
                                              std::function<void()> action) {
    OverlayHitRegion region;
    region.id = id;
    region.center = platform::Point{center.x, center.y - kCircularCenterYOffset};
    region.radius = storedCircularRadius(radius);
    region.isSquare = false;
    region.action = std::move(action);
    addRegion(std::move(region));
    return id;
}

void HitTestManager::addRegion(OverlayHitRegion region) {
    logDebug("HitTestManager.addRegion() - " + region.description());
    std::erase_if(activeRegions_, [&](const OverlayHitRegion& r) { return r.id == region.id; });
    activeRegions_.push_back(std::move(region));
    changed();
}

void HitTestManager::clearAllOverlayRegions() {
    logDebug("HitTestManager.clearAllOverlayRegions() - Clearing all overlay regions.");
    const bool hadRegions = !activeRegions_.empty();
    activeRegions_.clear();
    if (hadRegions) changed();
}

void HitTestManager::changed() {
    if (onRegionsChanged_) onRegionsChanged_();
}

const OverlayHitRegion* HitTestManager::regionAt(const platform::Point& location) const {
    for (const auto& region : activeRegions_) {
        if (region.contains(location)) return &region;
    }
    return nullptr;
}

bool HitTestManager::shouldSwallowMouseEvent(int eventType, const platform::Point& location) {
    if (activeRegions_.empty()) return false;
    const auto base = baseScreen(screens_);
    if (!base) {
        logWarning("HitTestManager.shouldSwallowMouseEvent() - Could not get base screen.");
        return false;
    }
    // Above the base screen the location's y is negative.
    const double y = location.y < 0 ? std::fabs(location.y) + base->frame.height
                                    : base->frame.y + base->frame.height - location.y;
    return handleMouseEvent(eventType, platform::Point{location.x, y});
}

bool HitTestManager::handleMouseEvent(int eventType, const platform::Point& location) {
    if (activeRegions_.empty()) return false;
    const OverlayHitRegion* hit = regionAt(location);
    if (!hit) return false;
    logDebug("HitTestManager.shouldSwallowMouseEvent() - Event at (" + number(location.x) + ", " +
             number(location.y) + ") → swallowed ✅ [" + (hit->isSquare && hit->frame ? "square" : "circle") + "]");
    namespace type = platform::global_event_type;
    const bool isButton = hit->id == kButtonRegionID;
    switch (eventType) {
    case type::kLeftMouseUp: {
        if (isButton) return false;
        // The action may change the regions; it runs from a copy.
        auto action = hit->action;
        if (action) action();
        return true;
    }
    case type::kLeftMouseDown: return !isButton;
    default: return false;
    }
}

std::vector<platform::OverlayInputShape> HitTestManager::inputShapes() const {
    std::vector<platform::OverlayInputShape> shapes;
    shapes.reserve(activeRegions_.size());
    for (const auto& region : activeRegions_) {
        platform::OverlayInputShape shape;
        shape.isSquare = region.isSquare && region.frame.has_value();
        if (shape.isSquare) {
            shape.frame = *region.frame;
        } else {
            shape.center = region.center;
            shape.radius = region.radius;
        }
        shapes.push_back(shape);
    }
    return shapes;
}

} // namespace sprelio
