#include "platform/qt/QtStatusItem.h"

#include <QAction>
#include <QCursor>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QProxyStyle>
#include <QStyleOptionMenuItem>
#include <QSystemTrayIcon>
#include <cmath>

#include "base/Log.h"
#include "ui/AppMenuBar.h"

namespace sprelio::platform {

namespace {

// A glyph drawn twice: a light halo first, then the colour, so that it reads on dark and light panels alike.
void strokeWithHalo(QPainter& p, const QPainterPath& path, const QColor& colour, double width, double scale,
                    bool fill) {
    QPen halo(QColor(255, 255, 255, 200), width + 2.0 * scale, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.strokePath(path, halo);
    if (fill) p.fillPath(path, QColor(255, 255, 255, 200));
    QPen pen(colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.strokePath(path, pen);
    if (fill) p.fillPath(path, colour);
}

void drawMicrophone(QPainter& p, double s) {
    const double u = s / 32.0; // drawn on a 32-unit grid
    const QColor ink(58, 58, 64);
    QPainterPath capsule;
    capsule.addRoundedRect(QRectF(11.5 * u, 3 * u, 9 * u, 16 * u), 4.5 * u, 4.5 * u);
    strokeWithHalo(p, capsule, ink, 1.0 * u, u, true);
    QPainterPath holder;
    holder.moveTo(7.5 * u, 13.5 * u);
    holder.cubicTo(7.5 * u, 26 * u, 24.5 * u, 26 * u, 24.5 * u, 13.5 * u);
    holder.moveTo(16 * u, 23.5 * u);
    holder.lineTo(16 * u, 28 * u);
    holder.moveTo(11 * u, 28.5 * u);
    holder.lineTo(21 * u, 28.5 * u);
    strokeWithHalo(p, holder, ink, 2.4 * u, u, false);
}

void drawRecordingDot(QPainter& p, double s) {
    const QRectF dot(s * 0.14, s * 0.14, s * 0.72, s * 0.72);
    p.setPen(QPen(QColor(255, 255, 255, 200), s * 0.06));
    p.setBrush(QColor(224, 40, 46));
    p.drawEllipse(dot);
    // A soft highlight keeps it from looking flat at large sizes.
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(255, 255, 255, 70));
    p.drawEllipse(QRectF(s * 0.3, s * 0.24, s * 0.22, s * 0.16));
}

void drawProcessing(QPainter& p, double s) {
    const double u = s / 32.0;
    const QColor ink(40, 116, 220);
    const QRectF ring(6 * u, 6 * u, 20 * u, 20 * u);
    QPainterPath arc;
    arc.arcMoveTo(ring, 90);
    arc.arcTo(ring, 90, 270);
    strokeWithHalo(p, arc, ink, 3.0 * u, u, false);
    // The arrow head where the arc ends, at three o'clock, pointing on round the circle (upwards).
    QPainterPath head;
    head.moveTo(26 * u, 10 * u);
    head.lineTo(31 * u, 17 * u);
    head.lineTo(21 * u, 17 * u);
    head.closeSubpath();
    strokeWithHalo(p, head, ink, 1.0 * u, u, true);
    // Three dots inside: work under way.
    p.setPen(Qt::NoPen);
    p.setBrush(ink);
    for (int i = -1; i <= 1; ++i) p.drawEllipse(QPointF(16 * u + i * 4.5 * u, 16 * u), 1.6 * u, 1.6 * u);
}

// Menus show an entry's key after a tab; drawn here smaller and grey, like the key hints of a native menu.
class ShortcutHintStyle final : public QProxyStyle {
public:
    void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override {
        const auto* item = qstyleoption_cast<const QStyleOptionMenuItem*>(option);
        if (element != CE_MenuItem || !item) {
            QProxyStyle::drawControl(element, option, painter, widget);
            return;
        }
        const auto tab = item->text.indexOf(QLatin1Char('\t'));
        if (tab < 0) {
            QProxyStyle::drawControl(element, option, painter, widget);
            return;
        }
        QStyleOptionMenuItem plain(*item);
        plain.text = item->text.left(tab);
        QProxyStyle::drawControl(element, &plain, painter, widget);

        painter->save();
        QFont hint = item->font;
        hint.setPointSizeF(hint.pointSizeF() > 0 ? hint.pointSizeF() * 0.85 : 8.0);
        painter->setFont(hint);
        const bool selected = (item->state & State_Selected) && (item->state & State_Enabled);
        painter->setPen(selected ? item->palette.color(QPalette::HighlightedText) : QColor(128, 128, 128));
        const QRect area = item->rect.adjusted(0, 0, -pixelMetric(PM_MenuHMargin, option, widget) - 14, 0);
        painter->drawText(area, Qt::AlignRight | Qt::AlignVCenter, item->text.mid(tab + 1));
        painter->restore();
    }
};

QString menuText(const ComposedMenuTitle& title) {
    QString text = QString::fromStdString(title.title);
    text.replace(QLatin1Char('&'), QLatin1String("&&")); // no mnemonics: a title is shown as it is
    if (!title.shortcut.empty()) text += QLatin1Char('\t') + QString::fromStdString(title.shortcut);
    return text;
}

} // namespace

QImage drawStatusImage(const std::string& name, int size) {
    if (name != "micro_status" && name != "rec_status" && name != "raspozn_status") return {};
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    if (name == "micro_status") drawMicrophone(p, size);
    else if (name == "rec_status") drawRecordingDot(p, size);
    else drawProcessing(p, size);
    return image;
}

QIcon statusIcon(const std::string& name) {
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64}) {
        const QImage image = drawStatusImage(name, size);
        if (image.isNull()) return {};
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

QtStatusItem::QtStatusItem(QObject* parent) : QObject(parent) {}

QtStatusItem::~QtStatusItem() = default;

void QtStatusItem::setImage(const std::string& name) {
    const QIcon icon = statusIcon(name);
    if (icon.isNull()) {
        logError("QtStatusItem.setImage() - no image named " + name + ", keeping " + imageName_);
        return;
    }
    imageName_ = name;
    if (tray_) tray_->setIcon(icon);
    if (onImageChanged) onImageChanged(name);
}

bool QtStatusItem::isSystemTrayAvailable() const { return QSystemTrayIcon::isSystemTrayAvailable(); }

void QtStatusItem::setMenu(AppMenuBar& menuBar) {
    menuBar_ = &menuBar;
    if (!style_) {
        style_ = new ShortcutHintStyle;
        style_->setParent(this);
    }
    menu_ = std::make_unique<QMenu>();
    menu_->setStyle(style_);
    actions_.clear();
    micMenu_ = nullptr;
    for (const MenuEntry& entry : menuBar.entries()) {
        if (entry.id == MenuItemId::separator) {
            menu_->addSeparator();
            continue;
        }
        if (entry.id == MenuItemId::microphone) {
            micMenu_ = new QMenu(menuText(entry.title), menu_.get());
            micMenu_->setStyle(style_);
            actions_[static_cast<int>(entry.id)] = menu_->addMenu(micMenu_);
            continue;
        }
        QAction* action = menu_->addAction(menuText(entry.title));
        const MenuItemId id = entry.id;
        connect(action, &QAction::triggered, this, [this, id] {
            if (menuBar_) menuBar_->activate(id);
        });
        actions_[static_cast<int>(id)] = action;
    }
    syncEntries();
    connect(menu_.get(), &QMenu::aboutToShow, this, &QtStatusItem::menuAboutToShow);
    connect(menu_.get(), &QMenu::aboutToHide, this, [this] {
        if (menuBar_) menuBar_->menuDidClose();
    });
    const auto highlighted = [this](QAction* action) {
        if (menuBar_ && action) menuBar_->menuWillHighlightItem(action->text().replace(QLatin1Char('\t'), QLatin1Char(' ')).toStdString());
    };
    connect(menu_.get(), &QMenu::hovered, this, highlighted);
    connect(micMenu_, &QMenu::hovered, this, highlighted);
    if (tray_) tray_->setContextMenu(menu_.get());
}

void QtStatusItem::show() {
    if (!tray_) {
        tray_ = std::make_unique<QSystemTrayIcon>();
        // Until the session names its state the item shows the idle image: a tray icon is never blank.
        tray_->setIcon(statusIcon(imageName_.empty() ? std::string("micro_status") : imageName_));
        tray_->setToolTip(toolTip_);
        if (menu_) tray_->setContextMenu(menu_.get());
        // Status items open their menu on a plain click as well.
        connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger && menu_ && !menu_->isVisible()) menu_->popup(QCursor::pos());
        });
    }
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        logWarning("QtStatusItem.show() - the desktop offers no system tray yet; the status item appears when it does");
    tray_->show();
}

void QtStatusItem::setWarnings(const std::vector<std::string>& texts, std::function<void()> open) {
    openWarnings_ = std::move(open);
    toolTip_ = QStringLiteral("Sprelio");
    for (const auto& text : texts) toolTip_ += QStringLiteral("\n⚠ ") + QString::fromStdString(text);
    if (tray_) tray_->setToolTip(toolTip_);
    if (!menu_) return;
    if (!warningAction_) {
        warningAction_ = new QAction(menu_.get());
        QAction* first = menu_->actions().isEmpty() ? nullptr : menu_->actions().first();
        menu_->insertAction(first, warningAction_);
        connect(warningAction_, &QAction::triggered, this, [this] {
            if (openWarnings_) openWarnings_();
        });
    }
    // One line in the menu: the first problem, or how many there are; the tooltip and the window say the rest.
    const QString title = texts.size() == 1 ? QString::fromStdString(texts.front())
                                            : QStringLiteral("%1 problems keep Sprelio from working").arg(texts.size());
    warningAction_->setText(QStringLiteral("⚠ ") + menu_->fontMetrics().elidedText(title, Qt::ElideRight, 420));
    warningAction_->setToolTip(toolTip_);
    warningAction_->setVisible(!texts.empty());
}

void QtStatusItem::setContinuousDictation(std::function<std::optional<bool>()> listening,
                                          std::function<void()> toggle) {
    continuousListening_ = std::move(listening);
    toggleContinuous_ = std::move(toggle);
    if (!menu_ || continuousAction_) return;
    continuousAction_ = new QAction(QStringLiteral("♾️ Continuous Voice to Text"), menu_.get());
    continuousAction_->setCheckable(true);
    // Right after File to Text, with the other things Sprelio does.
    const QList<QAction*> entries = menu_->actions();
    QAction* files = action(MenuItemId::fileToText);
    const auto at = files ? entries.indexOf(files) : -1;
    menu_->insertAction(at >= 0 && at + 1 < entries.size() ? entries[at + 1] : nullptr, continuousAction_);
    connect(continuousAction_, &QAction::triggered, this, [this] {
        if (toggleContinuous_) toggleContinuous_();
    });
    syncEntries();
}

QAction* QtStatusItem::action(MenuItemId id) const {
    auto it = actions_.find(static_cast<int>(id));
    return it == actions_.end() ? nullptr : it->second;
}

void QtStatusItem::menuAboutToShow() {
    if (!menuBar_) return;
    menuBar_->menuWillOpen();
    syncEntries();
}

void QtStatusItem::syncEntries() {
    if (continuousAction_ && continuousListening_) {
        const auto listening = continuousListening_();
        continuousAction_->setEnabled(listening.has_value());
        continuousAction_->setChecked(listening.value_or(false));
    }
    if (!menuBar_) return;
    for (const MenuEntry& entry : menuBar_->entries()) {
        QAction* a = action(entry.id);
        if (!a) continue;
        if (entry.id != MenuItemId::microphone) a->setText(menuText(entry.title));
        a->setVisible(!entry.hidden);
    }
    syncMicrophones();
}

void QtStatusItem::syncMicrophones() {
    const MenuEntry* entry = menuBar_ ? menuBar_->entry(MenuItemId::microphone) : nullptr;
    if (!micMenu_ || !entry) return;
    micMenu_->clear();
    for (const MicMenuEntry& mic : entry->submenu) {
        QAction* a = micMenu_->addAction(menuText(ComposedMenuTitle{mic.title, {}}));
        a->setCheckable(true);
        a->setChecked(mic.checked);
        a->setEnabled(mic.enabled);
        const int tag = mic.tag;
        connect(a, &QAction::triggered, this, [this, tag] {
            if (menuBar_) menuBar_->userSelectedMic(tag);
        });
    }
    if (entry->submenu.empty()) micMenu_->addAction(QStringLiteral("No microphone found"))->setEnabled(false);
}

} // namespace sprelio::platform
