#include "platform/qt/QtToastPresenter.h"

#include <QCheckBox>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "base/Log.h"
#include "platform/qt/QtScreens.h"

namespace sprelio::platform {

namespace {

QColor accentFor(const std::optional<SPRToastViewWarningLevel>& level) {
    if (!level) return QColor(90, 90, 100);
    switch (*level) {
    case SPRToastViewWarningLevel::error: return QColor(205, 45, 50);
    case SPRToastViewWarningLevel::warning: return QColor(220, 140, 20);
    case SPRToastViewWarningLevel::message: return QColor(40, 116, 220);
    }
    return QColor(90, 90, 100);
}

} // namespace

ToastWindow::ToastWindow(const SPRToastView& toast, std::function<void()> onNeverShowAgain,
                         std::function<void()> dismiss)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                           Qt::BypassWindowManagerHint),
      accent_(accentFor(toast.warningLevel)) {
    // The user is dictating into another application: a toast must never take its keyboard. Left to the window
    // manager, a window that refuses the focus still makes it activate another window of ours; so the toast is
    // not managed at all, as a notification bubble is not.
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_X11DoNotAcceptFocus);
    setFocusPolicy(Qt::NoFocus);
    setWindowOpacity(0.95);
    setObjectName(QStringLiteral("SPRToastView"));

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 14, 16, 12);
    layout->setSpacing(8);

    if (toast.messageTitle && !toast.messageTitle->empty()) {
        auto* title = new QLabel(QString::fromStdString(*toast.messageTitle), this);
        QFont bold = title->font();
        bold.setBold(true);
        bold.setPointSizeF(bold.pointSizeF() * 1.1);
        title->setFont(bold);
        title->setWordWrap(true);
        layout->addWidget(title);
    }

    shownText_ = QString::fromStdString(toast.messageText);
    if (toast.warningLevel == SPRToastViewWarningLevel::error) shownText_.prepend(QStringLiteral("Error: "));
    auto* text = new QLabel(shownText_);
    text->setWordWrap(true);
    text->setTextFormat(Qt::PlainText);
    text->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    text->setObjectName(QStringLiteral("toastText"));
    // Long texts scroll inside the fixed window instead of pushing the buttons out of it.
    auto* scroll = new QScrollArea(this);
    scroll->setWidget(text);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setFocusPolicy(Qt::NoFocus);
    scroll->viewport()->setAutoFillBackground(false);
    text->setAutoFillBackground(false);
    layout->addWidget(scroll, 1);

    if (toast.statusCode) {
        auto* code = new QLabel(QStringLiteral("Status code: %1").arg(*toast.statusCode), this);
        code->setObjectName(QStringLiteral("toastStatusCode"));
        QPalette grey = code->palette();
        grey.setColor(QPalette::WindowText, QColor(110, 110, 110));
        code->setPalette(grey);
        layout->addWidget(code);
    }

    if (toast.showNeverShowAgain) {
        neverShowAgain_ = new QCheckBox(QString::fromUtf8(kNeverShowAgainText.data(), int(kNeverShowAgainText.size())),
                                        this);
        neverShowAgain_->setFocusPolicy(Qt::NoFocus);
        connect(neverShowAgain_, &QCheckBox::toggled, this, [this, onNeverShowAgain](bool checked) {
            if (!checked) return;
            if (onNeverShowAgain) onNeverShowAgain();
            // The choice is stored; taking it back is done in the settings, not here.
            neverShowAgain_->setEnabled(false);
        });
        layout->addWidget(neverShowAgain_);
    }

    const std::string label = toast.tapActionText.value_or(std::string(kDefaultTapActionText));
    tapButton_ = new QPushButton(QString::fromStdString(label), this);
    tapButton_->setFocusPolicy(Qt::NoFocus);
    tapButton_->setAutoDefault(false);
    auto tapAction = toast.tapAction;
    connect(tapButton_, &QPushButton::clicked, this, [tapAction, dismiss] {
        // The action may close every toast, this one included; the windows go by deleteLater.
        if (tapAction) tapAction();
        else if (dismiss) dismiss();
    });
    layout->addWidget(tapButton_);
}

void ToastWindow::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), palette().color(QPalette::Window));
    p.fillRect(QRect(0, 0, width(), 4), accent_);
    p.setPen(QPen(accent_.darker(130), 1));
    p.drawRect(rect().adjusted(0, 0, -1, -1));
}

QtToastPresenter::QtToastPresenter(const QtScreens& screens, QObject* parent) : QObject(parent), screens_(screens) {}

QtToastPresenter::~QtToastPresenter() {
    for (const auto& window : windows_)
        if (window) delete window.data();
}

void QtToastPresenter::showToast(const SPRToastView& toast, const ScreenInfo& screen, const Rect& frame,
                                 std::function<void()> onNeverShowAgain) {
    auto* window = new ToastWindow(toast, std::move(onNeverShowAgain), [this] { closeAllToasts(); });
    const QRect geometry = screens_.coordinates().toQt(frame);
    window->setGeometry(geometry);
    window->setFixedSize(geometry.size());
    window->setWindowTitle(QString());
    window->show();
    window->raise();
    windows_.emplace_back(window);
    logDebug("QtToastPresenter.showToast() - screen " + screen.name + " at " + std::to_string(geometry.x()) + "," +
             std::to_string(geometry.y()));
}

void QtToastPresenter::closeAllToasts() {
    for (const auto& window : windows_) {
        if (!window) continue;
        window->hide();
        window->deleteLater();
    }
    windows_.clear();
}

std::vector<ToastWindow*> QtToastPresenter::toastWindows() const {
    std::vector<ToastWindow*> result;
    for (const auto& window : windows_)
        if (window) result.push_back(window.data());
    return result;
}

} // namespace sprelio::platform
