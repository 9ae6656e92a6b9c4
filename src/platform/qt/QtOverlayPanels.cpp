#include "platform/qt/QtOverlayPanels.h"

#include <QCursor>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QLinearGradient>
#include <QConicalGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>
#include <QScreen>
#include <algorithm>
#include <cmath>
#include <numbers>

#include "platform/GlobalInput.h"
#include "platform/qt/X11OverlaySupport.h"

namespace sprelio::platform {

namespace {

namespace event_type = global_event_type;

// The meter's colours: from the top of a bar to its bottom.
const QColor kGradientTop(250, 14, 85);
const QColor kGradientBottom(97, 22, 219);
const QColor kDiscFill(22, 22, 28, 236);
const QColor kDiscRim(255, 255, 255, 46);
constexpr int kAnimationIntervalMs = 33;

QRect toQtRect(const ScreenCoordinates& coordinates, const Rect& rect) { return coordinates.toQt(rect); }

} // namespace

Point logicPointFromQt(const ScreenCoordinates& coordinates, const QPointF& point) {
    const double primaryBottom = coordinates.primary.y() + coordinates.primary.height();
    return Point{point.x(), primaryBottom - point.y()};
}

// ---- Widget ----

OverlayPanelWidget::OverlayPanelWidget()
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                           Qt::BypassWindowManagerHint) {
    // Never activated, never focused: the application being dictated into keeps the keyboard.
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_X11DoNotAcceptFocus);
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_NoSystemBackground);
    setAttribute(Qt::WA_AlwaysShowToolTips);
    setFocusPolicy(Qt::NoFocus);
    // The pointer over the ring lights the button that a click would press.
    setMouseTracking(true);
    compositor_ = x11overlay::compositorRunning();
    animation_.setInterval(kAnimationIntervalMs);
    QObject::connect(&animation_, &QTimer::timeout, this, [this] { update(); });
    clock_.start();
}

void OverlayPanelWidget::setDrawing(const OverlayDrawing& drawing) {
    if (drawing == drawing_) return;
    const bool kindChanged = drawing.kind != drawing_.kind || drawing.overlaySize != drawing_.overlaySize ||
                             drawing.canvasSize != drawing_.canvasSize;
    drawing_ = drawing;
    if (drawing_.ringButtons.empty()) hovered_.clear();
    setToolTip(QString::fromStdString(drawing_.helpText));
    const bool animated =
        drawing_.kind == OverlayDrawing::Kind::transcribing || drawing_.kind == OverlayDrawing::Kind::intelligizing;
    if (animated && !animation_.isActive()) {
        clock_.restart();
        animation_.start();
    } else if (!animated) {
        animation_.stop();
    }
    if (kindChanged) updateVisibleShape();
    update();
}

void OverlayPanelWidget::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    updateVisibleShape();
}

void OverlayPanelWidget::updateVisibleShape() {
    // With a compositing manager the translucent corners blend with the desktop. Without one they would show
    // black, so the window itself is cut to the round overlay.
    if (compositor_ || drawing_.kind == OverlayDrawing::Kind::none || drawing_.canvasSize <= 0) {
        clearMask();
        return;
    }
    const double scale = width() / drawing_.canvasSize;
    const double inset = (drawing_.canvasSize - drawing_.overlaySize) / 2 * scale;
    const int size = static_cast<int>(std::lround(drawing_.overlaySize * scale));
    const int origin = static_cast<int>(std::lround(inset));
    setMask(QRegion(QRect(origin, origin, size, size), QRegion::Ellipse));
}

void OverlayPanelWidget::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillRect(rect(), Qt::transparent);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    if (drawing_.kind == OverlayDrawing::Kind::none || drawing_.canvasSize <= 0) return;
    painter.scale(width() / drawing_.canvasSize, width() / drawing_.canvasSize);
    paintOverlayDrawing(painter, drawing_, static_cast<double>(clock_.elapsed()) / 1000.0, hovered_);
}

namespace {

void paintOverlayDisc(QPainter& painter, const QRectF& overlay) {
    painter.setPen(QPen(kDiscRim, 1));
    painter.setBrush(kDiscFill);
    painter.drawEllipse(overlay.adjusted(0.5, 0.5, -0.5, -0.5));
}

void paintRecording(QPainter& painter, const OverlayDrawing& drawing, const QRectF& overlay) {
    painter.setPen(Qt::NoPen);
    for (const auto& bar : drawing.bars) {
        const QRectF r(overlay.x() + bar.x, overlay.y() + bar.y, bar.width, bar.height);
        QLinearGradient gradient(r.topLeft(), r.bottomLeft());
        gradient.setColorAt(0, kGradientTop);
        gradient.setColorAt(1, kGradientBottom);
        painter.setBrush(gradient);
        painter.drawRoundedRect(r, 1.5, 1.5);
    }
    if (drawing.showTimer) {
        QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        font.setPixelSize(std::max(7, static_cast<int>(std::lround(drawing.overlaySize * 0.08))));
        painter.setFont(font);
        painter.setPen(QColor(255, 255, 255, 215));
        // The label fills the space left of the bars.
        const QRectF label(overlay.x() + 3 + drawing.timerOffsetX, overlay.y(), overlay.width() * 0.30,
                           overlay.height());
        painter.drawText(label, Qt::AlignCenter, QString::fromStdString(drawing.timerText));
    }
}

void paintTranscribing(QPainter& painter, const QRectF& overlay, double seconds) {
    // A ring that turns once a second, in the meter's colours.
    const double radius = overlay.width() * 0.24;
    const QPointF center = overlay.center() - QPointF(overlay.width() * 0.06, 0);
    const QRectF ring(center.x() - radius, center.y() - radius, 2 * radius, 2 * radius);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(QColor(255, 255, 255, 30), overlay.width() * 0.045));
    painter.drawEllipse(ring);
    const double turn = std::fmod(seconds, 1.0) * 360.0;
    QConicalGradient gradient(center, -turn);
    gradient.setColorAt(0.0, kGradientTop);
    gradient.setColorAt(0.7, kGradientBottom);
    gradient.setColorAt(1.0, QColor(97, 22, 219, 0));
    QPen pen(QBrush(gradient), overlay.width() * 0.045);
    pen.setCapStyle(Qt::RoundCap);
    painter.setPen(pen);
    painter.drawArc(ring, static_cast<int>(-turn * 16), static_cast<int>(-270 * 16));
}

void paintIntelligizing(QPainter& painter, const QRectF& overlay, double seconds) {
    // Eight points circling a star, each brightening in turn.
    const QPointF center = overlay.center() - QPointF(overlay.width() * 0.06, 0);
    const double radius = overlay.width() * 0.24;
    painter.setPen(Qt::NoPen);
    const double phase = seconds * 1.4;
    for (int i = 0; i < 8; ++i) {
        const double angle = (i / 8.0 + phase / 8.0) * 2 * std::numbers::pi;
        const double glow = 0.5 + 0.5 * std::sin(phase * 2 * std::numbers::pi / 2 - i * 0.8);
        QColor color = i % 2 ? kGradientTop : kGradientBottom;
        color.setAlphaF(static_cast<float>(0.35 + 0.65 * glow));
        painter.setBrush(color);
        const double dot = overlay.width() * (0.025 + 0.02 * glow);
        painter.drawEllipse(QPointF(center.x() + std::cos(angle) * radius, center.y() + std::sin(angle) * radius),
                            dot, dot);
    }
    const double s = overlay.width() * (0.11 + 0.015 * std::sin(seconds * 4));
    QPainterPath star;
    star.moveTo(center.x(), center.y() - s);
    star.quadTo(center, QPointF(center.x() + s, center.y()));
    star.quadTo(center, QPointF(center.x(), center.y() + s));
    star.quadTo(center, QPointF(center.x() - s, center.y()));
    star.quadTo(center, QPointF(center.x(), center.y() - s));
    QLinearGradient gradient(QPointF(center.x(), center.y() - s), QPointF(center.x(), center.y() + s));
    gradient.setColorAt(0, QColor(255, 255, 255));
    gradient.setColorAt(1, kGradientTop);
    painter.setBrush(gradient);
    painter.drawPath(star);
}

void paintButton(QPainter& painter, const OverlayDrawing& drawing, const QRectF& overlay) {
    const int transparency = std::clamp(drawing.transparency, 0, 90);
    painter.setOpacity(1.0 - transparency / 100.0);
    QLinearGradient fill(overlay.topLeft(), overlay.bottomRight());
    fill.setColorAt(0, drawing.pressed ? kGradientTop.darker(130) : kGradientTop);
    fill.setColorAt(1, drawing.pressed ? kGradientBottom.darker(130) : kGradientBottom);
    painter.setPen(QPen(QColor(255, 255, 255, 70), 1));
    painter.setBrush(fill);
    painter.drawEllipse(overlay.adjusted(0.5, 0.5, -0.5, -0.5));

    // A microphone: capsule, cradle and stand.
    const double w = overlay.width();
    const QPointF c = overlay.center();
    painter.setBrush(Qt::white);
    painter.setPen(Qt::NoPen);
    const QRectF capsule(c.x() - w * 0.09, c.y() - w * 0.25, w * 0.18, w * 0.32);
    painter.drawRoundedRect(capsule, w * 0.09, w * 0.09);
    QPen line(Qt::white, std::max(1.5, w * 0.045));
    line.setCapStyle(Qt::RoundCap);
    painter.setPen(line);
    painter.setBrush(Qt::NoBrush);
    const QRectF cradle(c.x() - w * 0.16, c.y() - w * 0.13, w * 0.32, w * 0.3);
    painter.drawArc(cradle, 180 * 16, 180 * 16);
    painter.drawLine(QPointF(c.x(), c.y() + w * 0.17), QPointF(c.x(), c.y() + w * 0.26));
    painter.setOpacity(1.0);
}

void paintCross(QPainter& painter, const QPointF& c, double r, bool lit) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(lit ? QColor(235, 60, 80, 200) : QColor(255, 255, 255, 52));
    painter.drawEllipse(c, r, r);
    QPen cross(QColor(255, 255, 255, 225), std::max(1.2, r * 0.2));
    cross.setCapStyle(Qt::RoundCap);
    painter.setPen(cross);
    const double d = r * 0.42;
    painter.drawLine(QPointF(c.x() - d, c.y() - d), QPointF(c.x() + d, c.y() + d));
    painter.drawLine(QPointF(c.x() - d, c.y() + d), QPointF(c.x() + d, c.y() - d));
}

// Without a font that has the emoji a button shows the first letter of its title.
bool emojiFontInstalled() {
    static const bool installed = [] {
        for (const QString& family : QFontDatabase::families())
            if (family.contains(QStringLiteral("Emoji"), Qt::CaseInsensitive)) return true;
        return false;
    }();
    return installed;
}

void paintRing(QPainter& painter, const OverlayDrawing& drawing, const QRectF& overlay, const std::string& hovered) {
    const QPointF middle = overlay.center();
    // The centre: the level of the voice, from the meter's tallest bar, and the time.
    double level = 0;
    for (const auto& bar : drawing.bars) level = std::max(level, bar.height / std::max(1.0, drawing.overlaySize));
    const double r = drawing.ringCenterRadius;
    if (r > 0) {
        const double pulse = r * (0.8 + 0.35 * std::clamp(level * 1.4, 0.0, 1.0));
        QRadialGradient glow(middle, pulse);
        glow.setColorAt(0, kGradientTop);
        glow.setColorAt(1, kGradientBottom);
        painter.setPen(hovered == "center" ? QPen(QColor(255, 255, 255, 200), 1.5) : Qt::NoPen);
        painter.setBrush(glow);
        painter.drawEllipse(middle, pulse, pulse);
        if (drawing.showTimer && r >= 9) {
            QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
            font.setPixelSize(std::clamp(static_cast<int>(std::lround(r * 0.55)), 6, 14));
            painter.setFont(font);
            painter.setPen(QColor(255, 255, 255, 235));
            painter.drawText(QRectF(middle.x() - r, middle.y() - r, 2 * r, 2 * r), Qt::AlignCenter,
                             QString::fromStdString(drawing.timerText));
        }
    }
    const double opacity = painter.opacity();
    painter.setOpacity(opacity * (drawing.ringDisabled ? 0.7 : 1.0));
    const bool emoji = emojiFontInstalled();
    for (const auto& button : drawing.ringButtons) {
        const QPointF c(button.center.x, button.center.y);
        const bool lit = !drawing.ringDisabled && button.id == hovered;
        if (button.isCancel) {
            paintCross(painter, c, button.radius, lit);
            continue;
        }
        painter.setPen(lit ? QPen(QColor(255, 255, 255, 230), 1.2) : QPen(QColor(255, 255, 255, 40), 0.8));
        painter.setBrush(lit ? QColor(250, 14, 85, 150) : QColor(255, 255, 255, 28));
        painter.drawEllipse(c, button.radius, button.radius);
        QFont font = painter.font();
        const QString face = emoji && !button.emoji.empty() ? QString::fromStdString(button.emoji)
                                                            : QString::fromStdString(button.title).left(1);
        font.setPixelSize(std::max(6, static_cast<int>(std::lround(button.radius * 1.1))));
        painter.setFont(font);
        painter.setPen(Qt::white);
        painter.drawText(QRectF(c.x() - button.radius, c.y() - button.radius, 2 * button.radius, 2 * button.radius),
                         Qt::AlignCenter, face);
    }
    painter.setOpacity(opacity);
}

} // namespace

std::string ringButtonAt(const OverlayDrawing& drawing, const QPointF& p) {
    for (const auto& button : drawing.ringButtons) {
        if (std::hypot(p.x() - button.hitCenter.x, p.y() - button.hitCenter.y) <= button.hitRadius) return button.id;
    }
    if (drawing.ringHitRadius > 0 &&
        std::hypot(p.x() - drawing.ringHitCenter.x, p.y() - drawing.ringHitCenter.y) <= drawing.ringHitRadius)
        return "center";
    return {};
}

void paintOverlayDrawing(QPainter& painter, const OverlayDrawing& drawing, double seconds, const std::string& hovered) {
    if (drawing.kind == OverlayDrawing::Kind::none || drawing.canvasSize <= 0) return;
    const double inset = (drawing.canvasSize - drawing.overlaySize) / 2;
    const QRectF overlay(inset, inset, drawing.overlaySize, drawing.overlaySize);
    switch (drawing.kind) {
    case OverlayDrawing::Kind::button: paintButton(painter, drawing, overlay); break;
    case OverlayDrawing::Kind::recording:
        paintOverlayDisc(painter, overlay);
        if (drawing.ringButtons.empty()) {
            paintRecording(painter, drawing, overlay);
        } else {
            paintRing(painter, drawing, overlay, hovered);
        }
        break;
    case OverlayDrawing::Kind::transcribing:
        paintOverlayDisc(painter, overlay);
        paintTranscribing(painter, overlay, seconds);
        break;
    case OverlayDrawing::Kind::intelligizing:
        paintOverlayDisc(painter, overlay);
        paintIntelligizing(painter, overlay, seconds);
        break;
    case OverlayDrawing::Kind::none: break;
    }
    if (drawing.cancelCenter)
        paintCross(painter, QPointF(drawing.cancelCenter->x, drawing.cancelCenter->y), drawing.cancelRadius, false);
}

void OverlayPanelWidget::setHovered(const std::string& id) {
    if (id == hovered_) return;
    hovered_ = id;
    QString tip = QString::fromStdString(drawing_.helpText);
    for (const auto& button : drawing_.ringButtons)
        if (button.id == id) tip = QString::fromStdString(button.title);
    setToolTip(tip);
    update();
}

void OverlayPanelWidget::leaveEvent(QEvent* event) {
    QWidget::leaveEvent(event);
    setHovered({});
}

void OverlayPanelWidget::mousePressEvent(QMouseEvent* event) {
    event->accept();
    if (event->button() == Qt::LeftButton && onMouse) onMouse(event_type::kLeftMouseDown, event->globalPosition());
}

void OverlayPanelWidget::mouseMoveEvent(QMouseEvent* event) {
    event->accept();
    if (!drawing_.ringButtons.empty() && drawing_.canvasSize > 0) {
        const double scale = width() / drawing_.canvasSize;
        setHovered(ringButtonAt(drawing_, event->position() / scale));
    }
    if ((event->buttons() & Qt::LeftButton) && onMouse) onMouse(event_type::kLeftMouseDragged, event->globalPosition());
}

void OverlayPanelWidget::mouseReleaseEvent(QMouseEvent* event) {
    event->accept();
    if (event->button() == Qt::LeftButton && onMouse) onMouse(event_type::kLeftMouseUp, event->globalPosition());
}

// ---- Panel ----

QtOverlayPanel::QtOverlayPanel(const QtScreens& screens, const ScreenInfo& screen)
    : screens_(screens), widget_(std::make_unique<OverlayPanelWidget>()) {
    for (QScreen* candidate : QGuiApplication::screens()) {
        if (candidate->name().toStdString() == screen.name) widget_->setScreen(candidate);
    }
    widget_->resize(0, 0);
    // The native window exists from now on, so that its input shape can be set before it is first shown.
    (void)widget_->winId();
    applyInputShape();
}

QtOverlayPanel::~QtOverlayPanel() = default;

QWidget* QtOverlayPanel::widget() const { return widget_.get(); }

void QtOverlayPanel::setFrame(const Rect& frame) {
    frame_ = frame;
    widget_->setGeometry(toQtRect(screens_.coordinates(), frame));
    applyInputShape();
}

void QtOverlayPanel::setDrawing(const OverlayDrawing& drawing) { widget_->setDrawing(drawing); }

void QtOverlayPanel::setInputShapes(const std::vector<OverlayInputShape>& shapes) {
    shapes_ = shapes;
    applyInputShape();
}

void QtOverlayPanel::applyInputShape() {
    const auto coordinates = screens_.coordinates();
    const QPoint origin = widget_->geometry().topLeft();
    QRegion region;
    for (const auto& shape : shapes_) {
        if (shape.isSquare) {
            region += toQtRect(coordinates, shape.frame).translated(-origin);
        } else {
            const Rect bounds{shape.center.x - shape.radius, shape.center.y - shape.radius, 2 * shape.radius,
                              2 * shape.radius};
            region += QRegion(toQtRect(coordinates, bounds).translated(-origin), QRegion::Ellipse);
        }
    }
    region &= QRect(QPoint(0, 0), widget_->size());
    inputRegion_ = region;
    const double ratio = widget_->devicePixelRatioF();
    std::vector<QRect> native;
    for (const QRect& r : region) {
        native.emplace_back(static_cast<int>(std::floor(r.x() * ratio)), static_cast<int>(std::floor(r.y() * ratio)),
                            static_cast<int>(std::ceil(r.width() * ratio)),
                            static_cast<int>(std::ceil(r.height() * ratio)));
    }
    x11overlay::setInputShape(widget_->winId(), native);
}

void QtOverlayPanel::orderFront() {
    widget_->show();
    widget_->raise();
}

void QtOverlayPanel::hide() { widget_->hide(); }

bool QtOverlayPanel::isVisible() const { return widget_->isVisible(); }

void QtOverlayPanel::setMouseHandler(MouseHandler handler) {
    widget_->onMouse = [this, handler = std::move(handler)](int type, QPointF global) {
        if (handler) handler(type, logicPointFromQt(screens_.coordinates(), global));
    };
}

// ---- Factory, pointer, window list ----

std::unique_ptr<OverlayPanel> QtOverlayPanelFactory::makePanel(const ScreenInfo& screen) {
    return std::make_unique<QtOverlayPanel>(screens_, screen);
}

std::optional<Point> QtPointerLocation::mouseLocation() const {
    return logicPointFromQt(screens_.coordinates(), QPointF(QCursor::pos()));
}

std::vector<WindowInfo> X11WindowList::windows() const {
    const auto coordinates = screens_.coordinates();
    const QScreen* primary = QGuiApplication::primaryScreen();
    const double ratio = primary ? primary->devicePixelRatio() : 1.0;
    std::vector<WindowInfo> result;
    for (const auto& client : x11overlay::clientWindowsFrontToBack()) {
        WindowInfo info;
        info.ownerPID = client.pid;
        if (client.frame && !client.frame->isEmpty()) {
            // From the root window's origin to the top left of the base screen, in logical pixels.
            info.bounds = Rect{client.frame->x() / ratio, client.frame->y() / ratio - coordinates.primary.y(),
                               client.frame->width() / ratio, client.frame->height() / ratio};
        }
        result.push_back(info);
    }
    return result;
}

} // namespace sprelio::platform
