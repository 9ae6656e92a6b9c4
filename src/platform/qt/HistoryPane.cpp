#include "platform/qt/HistoryPane.h"

#include <QApplication>
#include <QCursor>
#include <QSignalBlocker>
#include <QHBoxLayout>
#include <QHideEvent>
#include <QMouseEvent>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QStyle>
#include <QTimer>
#include <QToolButton>
#include <QToolTip>
#include <QVBoxLayout>
#include <algorithm>

#include "diagnostics/MaintenanceManager.h"
#include "store/Entities.h"
#include "store/Settings.h"

namespace sprelio::platform {

namespace {

QColor colourOf(HistoryRowColor colour, const QPalette& palette) {
    switch (colour) {
    case HistoryRowColor::primary: return palette.color(QPalette::WindowText);
    case HistoryRowColor::yellow: return QColor(190, 140, 0);
    case HistoryRowColor::red: return QColor(200, 40, 40);
    case HistoryRowColor::blue: return QColor(40, 100, 210);
    case HistoryRowColor::secondary: return QColor(120, 120, 120);
    }
    return palette.color(QPalette::WindowText);
}

QToolButton* rowButton(QWidget* parent, QStyle::StandardPixmap icon, const std::string& help, bool enabled) {
    auto* button = new QToolButton(parent);
    button->setIcon(parent->style()->standardIcon(icon));
    button->setIconSize(QSize(14, 14));
    button->setAutoRaise(true);
    button->setFixedSize(17, 17);
    button->setToolTip(QString::fromStdString(help));
    button->setEnabled(enabled);
    return button;
}

} // namespace

// ---- Row ----

HistoryRowWidget::HistoryRowWidget(HistoryViewModel& history, const HistoryRow& row, QWidget* parent)
    : QFrame(parent), history_(history), entry_(row.entry) {
    setFrameShape(QFrame::StyledPanel);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 6, 6, 6);
    auto* column = new QVBoxLayout;
    text_ = new QLabel(QString::fromStdString(row.text), this);
    text_->setObjectName(QStringLiteral("historyText"));
    text_->setTextFormat(Qt::PlainText);
    text_->setWordWrap(true);
    // A word longer than the row (a pasted link, a run without blanks) is cut at the row's edge rather than
    // widening the row until its buttons leave the window.
    text_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    text_->setMinimumWidth(0);
    text_->setCursor(Qt::PointingHandCursor);
    text_->setToolTip(QStringLiteral("Click to copy"));
    QPalette palette = text_->palette();
    palette.setColor(QPalette::WindowText, colourOf(row.color, palette));
    text_->setPalette(palette);
    text_->installEventFilter(this);
    auto* date = new QLabel(QString::fromStdString(row.dateLine), this);
    QFont small = date->font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    date->setFont(small);
    QPalette grey = date->palette();
    grey.setColor(QPalette::WindowText, QColor(120, 120, 120));
    date->setPalette(grey);
    column->addWidget(text_);
    column->addWidget(date);
    layout->addLayout(column, 1);

    retry_ = rowButton(this, QStyle::SP_BrowserReload, row.retryHelp, row.fileActionsEnabled);
    play_ = rowButton(this, row.playing ? QStyle::SP_MediaStop : QStyle::SP_MediaPlay, row.playHelp,
                      row.fileActionsEnabled);
    show_ = rowButton(this, QStyle::SP_DirOpenIcon, row.showHelp, row.fileActionsEnabled);
    remove_ = rowButton(this, QStyle::SP_TrashIcon, row.removeHelp, true);
    for (QToolButton* b : {retry_, play_, show_, remove_}) layout->addWidget(b, 0, Qt::AlignTop);

    // A button's action may rebuild the list, this row included: it runs once the click has ended.
    connect(retry_, &QToolButton::clicked, this, [this] {
        auto entry = entry_;
        auto* model = &history_;
        QTimer::singleShot(0, parentWidget(), [model, entry] { model->retry(entry); });
    });
    connect(play_, &QToolButton::clicked, this, [this] {
        auto entry = entry_;
        auto* model = &history_;
        QTimer::singleShot(0, parentWidget(), [model, entry] { model->playOrStop(entry); });
    });
    connect(show_, &QToolButton::clicked, this, [this] {
        auto entry = entry_;
        auto* model = &history_;
        QTimer::singleShot(0, parentWidget(), [model, entry] { model->showInFileManager(entry); });
    });
    connect(remove_, &QToolButton::clicked, this, [this] {
        auto entry = entry_;
        auto* model = &history_;
        QTimer::singleShot(0, parentWidget(), [model, entry] { model->remove(entry); });
    });
}

bool HistoryRowWidget::eventFilter(QObject* watched, QEvent* event) {
    // The press is taken too, so that the release comes back to the text.
    if (watched == text_ && event->type() == QEvent::MouseButtonPress) return true;
    if (watched == text_ && event->type() == QEvent::MouseButtonRelease &&
        static_cast<QMouseEvent*>(event)->button() == Qt::LeftButton) {
        history_.clipText(entry_);
        emit copied();
        return true;
    }
    return QFrame::eventFilter(watched, event);
}

// ---- Settings popover ----

HistorySettingsPopover::HistorySettingsPopover(HistoryViewModel& history, store::Settings& settings, QWidget* parent)
    : QFrame(parent, Qt::Popup), history_(history), settings_(settings) {
    setFrameShape(QFrame::StyledPanel);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(10, 10, 10, 10);
    wipeAll_ = new QPushButton(style()->standardIcon(QStyle::SP_TrashIcon), QStringLiteral("Wipe all"), this);
    wipeAll_->setToolTip(QStringLiteral("Wipe all entries (!)"));
    connect(wipeAll_, &QPushButton::clicked, this, [this] { history_.wipeAll(); });
    layout->addWidget(wipeAll_);

    auto* daysRow = new QHBoxLayout;
    daysToKeep_ = new QPushButton(style()->standardIcon(QStyle::SP_FileDialogDetailedView), QString(), this);
    daysToKeep_->setToolTip(QStringLiteral("Days to keep"));
    days_ = new QSpinBox(this);
    days_->setRange(0, 36500);
    days_->setSpecialValueText(QStringLiteral("Forever"));
    days_->setSuffix(QStringLiteral(" days"));
    days_->setToolTip(QStringLiteral("Days to keep (0 keeps everything)"));
    days_->setVisible(false);
    connect(daysToKeep_, &QPushButton::clicked, this, [this] {
        days_->setVisible(!days_->isVisible());
        if (days_->isVisible()) days_->setFocus();
    });
    connect(days_, &QSpinBox::valueChanged, this, [this](int value) {
        settings_.setHistoryRetentionDays(value);
        showDays();
    });
    daysRow->addWidget(daysToKeep_);
    daysRow->addWidget(days_);
    layout->addLayout(daysRow);
    showDays();
}

void HistorySettingsPopover::showDays() {
    const int days = settings_.historyRetentionDays();
    daysToKeep_->setText(QString::fromStdString(daysToKeepLabel(days)));
    if (days_->value() != days) {
        const QSignalBlocker block(days_);
        days_->setValue(std::max(0, days));
    }
}

void HistorySettingsPopover::hideEvent(QHideEvent* event) {
    QFrame::hideEvent(event);
    emit closed();
}

// ---- Pane ----

HistoryPane::HistoryPane(HistoryViewModel& history, MaintenanceManager& maintenance, store::Settings& settings,
                         QWidget* parent)
    : QWidget(parent), history_(history), maintenance_(maintenance), settings_(settings) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(10);

    auto* top = new QHBoxLayout;
    auto* title = new QLabel(QStringLiteral("History"), this);
    QFont font = title->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.5);
    title->setFont(font);
    header_ = new QLabel(this);
    header_->setObjectName(QStringLiteral("historyHeader"));
    progress_ = new QLabel(QStringLiteral("Working…"), this);
    progress_->hide();
    configure_ = new QToolButton(this);
    configure_->setText(QStringLiteral("Configure"));
    configure_->setIcon(style()->standardIcon(QStyle::SP_FileDialogDetailedView));
    configure_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    configure_->setToolTip(QStringLiteral("Configure history"));
    connect(configure_, &QToolButton::clicked, this, &HistoryPane::openPopover);
    top->addWidget(title);
    top->addSpacing(12);
    top->addWidget(header_);
    top->addStretch(1);
    top->addWidget(progress_);
    top->addWidget(configure_);
    layout->addLayout(top);

    scroll_ = new QScrollArea(this);
    scroll_->setWidgetResizable(true);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_ = new QWidget(scroll_);
    listLayout_ = new QVBoxLayout(list_);
    listLayout_->setContentsMargins(0, 0, 0, 0);
    listLayout_->setSpacing(6);
    scroll_->setWidget(list_);
    layout->addWidget(scroll_, 1);

    popover_ = new HistorySettingsPopover(history_, settings_, this);
    // Closing the popover is when a shorter retention takes effect.
    connect(popover_, &HistorySettingsPopover::closed, this, [this] {
        maintenance_.historyCleanup();
        refreshSoon();
    });

    history_.onChange = [this] { refreshSoon(); };
    refreshNow();
}

HistoryPane::~HistoryPane() { history_.onChange = nullptr; }

void HistoryPane::openPopover() {
    const QPoint below = configure_->mapToGlobal(QPoint(0, configure_->height()));
    popover_->adjustSize();
    popover_->move(below.x() + configure_->width() - popover_->width(), below.y());
    popover_->show();
}

void HistoryPane::refreshSoon() {
    if (refreshPending_) return;
    refreshPending_ = true;
    QTimer::singleShot(0, this, [this] {
        refreshPending_ = false;
        refreshNow();
    });
}

std::vector<HistoryRowWidget*> HistoryPane::rows() const {
    std::vector<HistoryRowWidget*> result;
    for (int i = 0; i < listLayout_->count(); ++i)
        if (auto* row = qobject_cast<HistoryRowWidget*>(listLayout_->itemAt(i)->widget())) result.push_back(row);
    return result;
}

void HistoryPane::refreshNow() {
    // Rows are rebuilt from the store: entries come and go from elsewhere too (a dictation, the expiry).
    while (QLayoutItem* item = listLayout_->takeAt(0)) {
        if (QWidget* w = item->widget()) w->deleteLater();
        delete item;
    }
    more_ = nullptr;
    const auto entries = history_.logEntries();
    header_->setText(QString::fromStdString(historyHeaderText(entries.size())));
    if (entries.empty()) {
        auto* empty = new QLabel(QString::fromUtf8(kNoHistoryDataText.data(), int(kNoHistoryDataText.size())), list_);
        empty->setObjectName(QStringLiteral("noHistory"));
        empty->setAlignment(Qt::AlignCenter);
        listLayout_->addWidget(empty);
    }
    const std::size_t shown = std::min(entries.size(), static_cast<std::size_t>(shownCount_));
    for (std::size_t i = 0; i < shown; ++i) {
        auto* row = new HistoryRowWidget(history_, history_.row(entries[i]), list_);
        connect(row, &HistoryRowWidget::copied, this, &HistoryPane::showCopied);
        listLayout_->addWidget(row);
    }
    if (entries.size() > shown) {
        more_ = new QPushButton(QStringLiteral("Show %1 older entries").arg(entries.size() - shown), list_);
        connect(more_, &QPushButton::clicked, this, [this] {
            shownCount_ += kPageSize;
            refreshSoon();
        });
        listLayout_->addWidget(more_);
    }
    listLayout_->addStretch(1);

    progress_->setVisible(history_.isRetrying() || history_.showProgressView());
    progress_->setText(history_.isRetrying() ? QStringLiteral("Transcribing again…") : QStringLiteral("Working…"));
    if (history_.shouldScrollToTop() != lastScrollToTop_) {
        lastScrollToTop_ = history_.shouldScrollToTop();
        scrollToTop();
    }
}

void HistoryPane::scrollToTop() { scroll_->verticalScrollBar()->setValue(0); }

void HistoryPane::showCopied() {
    QString text = QString::fromStdString(history_.copiedText());
    if (text.size() > 120) text = text.left(120) + QStringLiteral("…");
    // A tooltip takes no focus and goes by itself.
    QToolTip::showText(QCursor::pos(), QStringLiteral("Copied: ") + text, this, {}, 2000);
}

} // namespace sprelio::platform
