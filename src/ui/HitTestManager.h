#pragma once
// The overlay's clickable parts. The overlay panels never take the focus, so their controls cannot be clicked in
// the ordinary way: each control is a region here, and mouse events over the overlay are tested against the
// regions. A region that is hit keeps both the press and the release from the application below and acts on the
// release; the region "button" is a real control whose clicks are left to it.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/OverlayPanels.h"
#include "platform/Screens.h"

namespace sprelio {

struct OverlayHitRegion {
    std::string id;
    std::optional<platform::Rect> frame;
    platform::Point center;
    double radius = 0;
    bool isSquare = false;
    std::function<void()> action;

    bool contains(const platform::Point& point) const;
    std::string description() const;
};

class HitTestManager {
public:
    static constexpr const char* kButtonRegionID = "button";

    explicit HitTestManager(const platform::Screens& screens) : screens_(screens) {}

    // All geometry in the logic's coordinates (origin at the bottom left of the base screen).
    void addSquareOverlayRegion(const std::string& id, const platform::Rect& frame, std::function<void()> action);
    // Stores the region larger and a little lower than given: see storedCircularRadius.
    std::string addCircularRegion(const std::string& id, const platform::Point& center, double radius,
                                  std::function<void()> action);
    void clearAllOverlayRegions();

    // The event tap's test. `location` has its origin at the top left of the base screen, y growing downwards.
    bool shouldSwallowMouseEvent(int eventType, const platform::Point& location);
    // The same test for a location already in the logic's coordinates.
    bool handleMouseEvent(int eventType, const platform::Point& location);

    // The first region that contains the point, in order of registration.
    const OverlayHitRegion* regionAt(const platform::Point& location) const;
    const std::vector<OverlayHitRegion>& activeRegions() const { return activeRegions_; }

    // The shapes of the regions, as they are stored, for the panels' input masks.
    std::vector<platform::OverlayInputShape> inputShapes() const;
    // Called after every change of the regions.
    void setOnRegionsChanged(std::function<void()> handler) { onRegionsChanged_ = std::move(handler); }

    // The radius a circular region gets for a given radius: 19.33 up to 16, then linear up to 215.33 at 256.
    static double storedCircularRadius(double radius);
    static constexpr double kCircularCenterYOffset = 3.0;

private:
    void addRegion(OverlayHitRegion region);
    void changed();

    const platform::Screens& screens_;
    std::vector<OverlayHitRegion> activeRegions_;
    std::function<void()> onRegionsChanged_;
};

} // namespace sprelio
