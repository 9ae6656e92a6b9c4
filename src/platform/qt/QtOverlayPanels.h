#pragma once
// The overlay panels as Qt windows: frameless, above every other window, never focused or activated, painted with
// a translucent background. Only the input shapes that the logic gives take clicks (the X input shape of the
// window); every other click goes to the window below. Geometry arrives in the logic's coordinates and is
// converted to Qt's (origin at the top left) through the screens' coordinates.
#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>
#include <memory>
#include <string>

class QPainter;

#include "platform/OverlayPanels.h"
#include "platform/qt/QtScreens.h"

namespace sprelio::platform {

class OverlayPanelWidget;

class QtOverlayPanel final : public OverlayPanel {
public:
    QtOverlayPanel(const QtScreens& screens, const ScreenInfo& screen);
    ~QtOverlayPanel() override;

    void setFrame(const Rect& frame) override;
    Rect frame() const override { return frame_; }
    void setDrawing(const OverlayDrawing& drawing) override;
    void setInputShapes(const std::vector<OverlayInputShape>& shapes) override;
    void orderFront() override;
    void hide() override;
    bool isVisible() const override;
    void setMouseHandler(MouseHandler handler) override;

    // The window, for tests and screenshots.
    QWidget* widget() const;
    // The input shape now set, in the window's own coordinates (logical pixels).
    QRegion inputRegion() const { return inputRegion_; }

private:
    void applyInputShape();

    const QtScreens& screens_;
    std::unique_ptr<OverlayPanelWidget> widget_;
    Rect frame_;
    std::vector<OverlayInputShape> shapes_;
    QRegion inputRegion_;
};

class QtOverlayPanelFactory final : public OverlayPanelFactory {
public:
    explicit QtOverlayPanelFactory(const QtScreens& screens) : screens_(screens) {}
    std::unique_ptr<OverlayPanel> makePanel(const ScreenInfo& screen) override;

private:
    const QtScreens& screens_;
};

class QtPointerLocation final : public PointerLocation {
public:
    explicit QtPointerLocation(const QtScreens& screens) : screens_(screens) {}
    std::optional<Point> mouseLocation() const override;

private:
    const QtScreens& screens_;
};

// The desktop's managed windows with their owning process, from the window manager's stacking list.
class X11WindowList final : public WindowList {
public:
    explicit X11WindowList(const QtScreens& screens) : screens_(screens) {}
    std::vector<WindowInfo> windows() const override;

private:
    const QtScreens& screens_;
};

// A point in Qt's global coordinates, in the logic's.
Point logicPointFromQt(const ScreenCoordinates& coordinates, const QPointF& point);

// Paints a drawing onto a canvas of drawing.canvasSize points (the painter already scaled to it). `seconds` drives
// the animations; `hovered` is the id of the ring button under the pointer ("center" for the centre), if any.
void paintOverlayDrawing(QPainter& painter, const OverlayDrawing& drawing, double seconds,
                         const std::string& hovered = {});
// The ring button a click at this canvas point would press: the first whose click area holds it, else "center"
// when the centre's does; empty for none.
std::string ringButtonAt(const OverlayDrawing& drawing, const QPointF& canvasPoint);

// The widget behind a panel: paints the drawing, reports left-button events.
class OverlayPanelWidget final : public QWidget {
    Q_OBJECT
public:
    OverlayPanelWidget();
    void setDrawing(const OverlayDrawing& drawing);
    const OverlayDrawing& drawing() const { return drawing_; }
    std::function<void(int type, QPointF globalPosition)> onMouse;

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void updateVisibleShape();
    void setHovered(const std::string& id);

    OverlayDrawing drawing_;
    // The ring button under the pointer: drawn lit, its title as the tooltip.
    std::string hovered_;
    QTimer animation_;
    QElapsedTimer clock_;
    bool compositor_ = false;
};

} // namespace sprelio::platform
