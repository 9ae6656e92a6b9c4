#pragma once
// The overlay's windows as the logic sees them: one panel per screen that never takes the focus, the mouse
// location, and the windows of the other applications. All geometry is in the logic's coordinates (origin at the
// bottom left of the base screen, y growing upwards) unless a field says otherwise.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/Screens.h"

namespace sprelio::platform {

struct Point {
    double x = 0, y = 0;
    bool operator==(const Point&) const = default;
};

// What a panel draws. Local geometry is in the panel's own coordinates: origin at the top left of the panel
// (the canvas), y growing downwards, in points.
struct OverlayDrawing {
    enum class Kind { none, button, recording, transcribing, intelligizing };
    struct Bar {
        double x = 0, y = 0, width = 0, height = 0;
        bool operator==(const Bar&) const = default;
    };

    Kind kind = Kind::none;
    double canvasSize = 0;
    // The overlay's own square, centred in the canvas: left/top = (canvasSize - overlaySize) / 2.
    double overlaySize = 0;

    // Recording: the meter's bars (relative to the overlay's square) and the running time.
    std::vector<Bar> bars;
    bool showTimer = false;
    std::string timerText;     // "%02d:%02d"
    double timerOffsetX = 0;   // shift of the label from its place at the left
    std::string helpText;      // tooltip

    // A cancel circle, when the overlay has one: centre in canvas coordinates and the drawn radius.
    std::optional<Point> cancelCenter;
    double cancelRadius = 0;

    // Button: the stored transparency setting (0 = opaque).
    int transparency = 0;
    bool pressed = false;

    // Recording with the AI tools: the ring of buttons round a centre. `hitCenter` and `hitRadius` are where the
    // button takes clicks, in canvas coordinates, in the order in which clicks are tested (the first that holds the
    // point wins), so that a pointer over the ring can show which button a click would press.
    struct RingButton {
        std::string id;
        std::string title;
        std::string emoji;
        bool isCancel = false;
        Point center;
        double radius = 0;
        Point hitCenter;
        double hitRadius = 0;
        bool operator==(const RingButton&) const = default;
    };
    std::vector<RingButton> ringButtons;
    // The centre circle (drawn radius and its click area); zero when there is no ring.
    double ringCenterRadius = 0;
    Point ringHitCenter;
    double ringHitRadius = 0;
    // A preview: the ring is shown, its buttons do nothing.
    bool ringDisabled = false;

    bool operator==(const OverlayDrawing&) const = default;
};

// A clickable part of the overlay. Clicks that fall outside every shape go to the window below.
struct OverlayInputShape {
    bool isSquare = false;
    Rect frame;           // square shapes
    Point center;         // circular shapes
    double radius = 0;
    bool operator==(const OverlayInputShape&) const = default;
};

class OverlayPanel {
public:
    // Left button events over the panel's input shapes, with the location in the logic's coordinates. The types
    // are the event tap's numbers: 1 down, 2 up, 6 dragged. After a down, the panel keeps the mouse until the up,
    // wherever the pointer goes.
    using MouseHandler = std::function<void(int type, Point location)>;

    virtual ~OverlayPanel() = default;
    virtual void setFrame(const Rect& frame) = 0;
    virtual Rect frame() const = 0;
    virtual void setDrawing(const OverlayDrawing& drawing) = 0;
    // Shapes in the logic's global coordinates; the panel clips them to itself. Empty: every click passes.
    virtual void setInputShapes(const std::vector<OverlayInputShape>& shapes) = 0;
    // Puts the panel in front of every other window without taking the focus or activating the application.
    virtual void orderFront() = 0;
    virtual void hide() = 0;
    virtual bool isVisible() const = 0;
    virtual void setMouseHandler(MouseHandler handler) = 0;
};

class OverlayPanelFactory {
public:
    virtual ~OverlayPanelFactory() = default;
    // A hidden panel of zero size for the screen.
    virtual std::unique_ptr<OverlayPanel> makePanel(const ScreenInfo& screen) = 0;
};

class PointerLocation {
public:
    virtual ~PointerLocation() = default;
    virtual std::optional<Point> mouseLocation() const = 0;
};

// One window of the window list, front to back.
struct WindowInfo {
    pid_t ownerPID = 0;
    // Origin at the top left of the base screen, y growing downwards; absent when the window has no usable bounds.
    std::optional<Rect> bounds;
};

class WindowList {
public:
    virtual ~WindowList() = default;
    virtual std::vector<WindowInfo> windows() const = 0;
};

} // namespace sprelio::platform
