#include "platform/qt/QtScreens.h"

#include <QGuiApplication>
#include <QScreen>
#include <algorithm>
#include <cmath>

namespace sprelio::platform {

Rect ScreenCoordinates::fromQt(const QRect& r) const {
    const double primaryBottom = primary.y() + primary.height();
    return Rect{double(r.x()), primaryBottom - (r.y() + r.height()), double(r.width()), double(r.height())};
}

QRect ScreenCoordinates::toQt(const Rect& r) const {
    const double primaryBottom = primary.y() + primary.height();
    return QRect(int(std::lround(r.x)), int(std::lround(primaryBottom - (r.y + r.height))), int(std::lround(r.width)),
                 int(std::lround(r.height)));
}

ScreenCoordinates QtScreens::coordinates() const {
    const QScreen* primary = QGuiApplication::primaryScreen();
    return ScreenCoordinates{primary ? primary->geometry() : QRect()};
}

std::vector<ScreenInfo> QtScreens::screens() const {
    std::vector<ScreenInfo> result;
    const auto coords = coordinates();
    const QScreen* primary = QGuiApplication::primaryScreen();
    // The primary screen first, as the base screen is first in the logic's list.
    auto all = QGuiApplication::screens();
    std::stable_partition(all.begin(), all.end(), [primary](QScreen* s) { return s == primary; });
    for (const QScreen* screen : all) {
        ScreenInfo info;
        info.name = screen->name().toStdString();
        const QString serial = screen->serialNumber();
        const QString model = screen->model();
        if (!serial.isEmpty() || !model.isEmpty()) {
            info.uniqueKey = (screen->manufacturer() + "/" + model + "/" + serial).toStdString();
        }
        info.frame = coords.fromQt(screen->geometry());
        info.scaling = screen->devicePixelRatio();
        info.isPrimary = screen == primary;
        result.push_back(std::move(info));
    }
    return result;
}

void QtScreens::setChangedHandler(std::function<void()> handler) {
    handler_ = std::move(handler);
    auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
    if (!app) return;
    auto notify = [this] {
        if (handler_) handler_();
    };
    auto watch = [notify](QScreen* screen) {
        QObject::connect(screen, &QScreen::geometryChanged, screen, notify);
    };
    for (QScreen* screen : QGuiApplication::screens()) watch(screen);
    QObject::connect(app, &QGuiApplication::screenAdded, app, [notify, watch](QScreen* screen) {
        watch(screen);
        notify();
    });
    QObject::connect(app, &QGuiApplication::screenRemoved, app, notify);
    QObject::connect(app, &QGuiApplication::primaryScreenChanged, app, notify);
}

} // namespace sprelio::platform
