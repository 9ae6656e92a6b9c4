#pragma once
// The screens as Qt sees them, in the logic's coordinates: origin at the bottom left of the primary screen,
// y growing upwards. X11 (and Qt) put the origin at the top left of the whole desktop, y growing downwards.
#include <QRect>
#include <functional>

#include "platform/Screens.h"

namespace sprelio::platform {

// Converts between the two systems for a desktop whose primary screen has the given geometry (in Qt's terms).
struct ScreenCoordinates {
    QRect primary;
    Rect fromQt(const QRect& r) const;
    QRect toQt(const Rect& r) const;
};

class QtScreens final : public Screens {
public:
    std::vector<ScreenInfo> screens() const override;
    ScreenCoordinates coordinates() const;
    // Called on the GUI thread when a screen is added or removed or its geometry changes. Set it once.
    void setChangedHandler(std::function<void()> handler);

private:
    std::function<void()> handler_;
};

} // namespace sprelio::platform
