#include "platform/qt/MainWindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QCursor>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QListWidget>
#include <QScreen>
#include <QSignalBlocker>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>

#include "base/Log.h"
#include "platform/qt/AIPane.h"
#include "platform/qt/FilesPane.h"
#include "platform/qt/FloatingButtonPane.h"
#include "platform/qt/HistoryPane.h"
#include "platform/qt/MainWindowPanes.h"
#include "platform/qt/ShortcutEditor.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/SendReportPane.h"
#include "platform/qt/SubstitutionsPane.h"
#include "store/AppConstants.h"
#include "text/SubstitutionsViewModel.h"

namespace sprelio::platform {

namespace {

struct TabRow {
    ContentViewTab tab;
    const char* title;
};
// The sidebar's order.
constexpr std::array<TabRow, 9> kTabs = {{{ContentViewTab::main, "Main"},
                                          {ContentViewTab::settings, "Settings"},
                                          {ContentViewTab::floatingButton, "Floating Button"},
                                          {ContentViewTab::files, "Files"},
                                          {ContentViewTab::substitutions, "Substitutions"},
                                          {ContentViewTab::ai, "AI"},
                                          {ContentViewTab::history, "History"},
                                          {ContentViewTab::about, "About"},
                                          {ContentViewTab::sendreport, "Send Report"}}};

int rowOf(ContentViewTab tab) {
    for (std::size_t i = 0; i < kTabs.size(); ++i)
        if (kTabs[i].tab == tab) return static_cast<int>(i);
    return 0;
}

} // namespace

MainWindow::MainWindow(MainWindowDependencies deps, QWidget* parent)
    : QWidget(parent, Qt::Window), deps_(std::move(deps)) {
    setWindowTitle(QString::fromStdString(deps_.titles.contentViewWindowTitle));
    setObjectName(QStringLiteral("mainWindow"));
    resize(900, 620);

    substitutions_ = std::make_unique<SubstitutionsViewModel>(deps_.viewContext, deps_.settings, deps_.clock);
    banner_ = std::make_unique<StatusBannerController>(deps_.loop, deps_.appState);
    banner_->onChange = [this] { showBanner(); };

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSpacing(0);

    bannerBar_ = new QWidget(this);
    bannerBar_->setObjectName(QStringLiteral("statusBanner"));
    bannerBar_->setAutoFillBackground(true);
    QPalette amber = bannerBar_->palette();
    amber.setColor(QPalette::Window, QColor(255, 236, 179));
    amber.setColor(QPalette::WindowText, QColor(60, 45, 0));
    bannerBar_->setPalette(amber);
    auto* bannerLayout = new QHBoxLayout(bannerBar_);
    bannerLayout->setContentsMargins(14, 8, 8, 8);
    bannerText_ = new QLabel(bannerBar_);
    bannerText_->setWordWrap(true);
    auto* dismiss = new QToolButton(bannerBar_);
    dismiss->setText(QStringLiteral("✕"));
    dismiss->setAutoRaise(true);
    dismiss->setToolTip(QStringLiteral("Dismiss"));
    connect(dismiss, &QToolButton::clicked, this, [this] { banner_->clear(); });
    bannerLayout->addWidget(bannerText_, 1);
    bannerLayout->addWidget(dismiss);
    bannerBar_->hide();
    outer->addWidget(bannerBar_);

    auto* body = new QHBoxLayout;
    body->setContentsMargins(0, 0, 0, 0);
    body->setSpacing(0);
    sidebar_ = new QListWidget(this);
    sidebar_->setObjectName(QStringLiteral("sidebar"));
    sidebar_->setFixedWidth(170);
    sidebar_->setFrameShape(QFrame::NoFrame);
    sidebar_->setSpacing(2);
    for (const auto& row : kTabs) sidebar_->addItem(QString::fromLatin1(row.title));
    pages_ = new QStackedWidget(this);
    body->addWidget(sidebar_);
    body->addWidget(pages_, 1);
    outer->addLayout(body, 1);

    for (const auto& row : kTabs) {
        QWidget* page = nullptr;
        switch (row.tab) {
        case ContentViewTab::main:
            page = mainPane_ = new MainPane(deps_.appStatus, deps_.appState, deps_.viewContext, pages_);
            break;
        case ContentViewTab::settings:
            page = settingsPane_ = new SettingsPane(deps_.settings, deps_.sounds, pages_);
            break;
        case ContentViewTab::substitutions:
            page = substitutionsPane_ = new SubstitutionsPane(*substitutions_, &deps_.workspace, pages_);
            break;
        case ContentViewTab::history:
            if (deps_.history && deps_.maintenance) {
                page = historyPane_ = new HistoryPane(*deps_.history, *deps_.maintenance, deps_.settings, pages_);
            } else {
                page = new UnavailablePane(QStringLiteral("History"),
                                           QStringLiteral("The history is not available in this session."), pages_);
            }
            break;
        case ContentViewTab::about:
            page = new AboutPane(deps_.constants, deps_.revealInFileManager, pages_);
            break;
        case ContentViewTab::floatingButton:
            page = floatingButtonPane_ = new FloatingButtonPane(deps_.settings, pages_);
            break;
        case ContentViewTab::files:
            if (deps_.files) {
                page = new FilesPane(*deps_.files, pages_);
            } else {
                page = new UnavailablePane(QStringLiteral("Files"),
                                           QStringLiteral("Files can't be transcribed in this session."), pages_);
            }
            break;
        case ContentViewTab::ai:
            if (deps_.presets) {
                page = aiPane_ = new AIPane(*deps_.presets, deps_.settings, deps_.applyAiService, pages_);
            } else {
                page = new UnavailablePane(QStringLiteral("AI"),
                                           QStringLiteral("The AI presets are not available in this session."), pages_);
            }
            break;
        case ContentViewTab::sendreport:
            if (deps_.report) {
                page = sendReportPane_ = new SendReportPane(*deps_.report, pages_);
            } else {
                page = new UnavailablePane(QStringLiteral("Send Report"),
                                           QStringLiteral("Reports can't be sent in this session."), pages_);
            }
            break;
        }
        pageOf_[static_cast<std::size_t>(row.tab)] = page;
        pages_->addWidget(page);
    }

    connect(sidebar_, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row < 0 || row >= static_cast<int>(kTabs.size())) return;
        const ContentViewTab tab = kTabs[static_cast<std::size_t>(row)].tab;
        if (tab == currentTab_ && pages_->currentWidget() == page(tab)) return;
        // A click in the sidebar is a choice of tab like any other: AppState (and the event path's copy) follow.
        deps_.appState.setSelectedContentViewTab(tab);
        showTab(tab);
    });
    currentTab_ = deps_.appState.selectedContentViewTab();
    pages_->setCurrentWidget(page(currentTab_));
    {
        const QSignalBlocker block(sidebar_);
        sidebar_->setCurrentRow(rowOf(currentTab_));
    }
    banner_->update();
}

MainWindow::~MainWindow() { banner_->onChange = nullptr; }

ShortcutEditor* MainWindow::installShortcutEditor(ShortcutEditorDependencies editorDeps) {
    shortcutEditor_ = new ShortcutEditor(std::move(editorDeps), settingsPane_);
    settingsPane_->insertSection(shortcutEditor_);
    mainPane_->setOpenShortcutEditor([this] {
        deps_.appState.setSelectedContentViewTab(ContentViewTab::settings);
        showTab(ContentViewTab::settings);
    });
    return shortcutEditor_;
}

QWidget* MainWindow::page(ContentViewTab tab) const { return pageOf_[static_cast<std::size_t>(tab)]; }

bool MainWindow::isMiniaturized() const { return isMinimized(); }

void MainWindow::deminiaturize() { setWindowState(windowState() & ~Qt::WindowMinimized); }

void MainWindow::makeKeyAndOrderFront() {
    if (!isVisible()) show();
    raise();
    activateWindow();
}

bool MainWindow::isKeyWindow() const { return isActiveWindow(); }

void MainWindow::close() { QWidget::close(); }

void MainWindow::showTab(ContentViewTab tab) {
    const bool changed = tab != currentTab_ || pages_->currentWidget() != page(tab);
    currentTab_ = tab;
    {
        const QSignalBlocker block(sidebar_);
        sidebar_->setCurrentRow(rowOf(tab));
    }
    pages_->setCurrentWidget(page(tab));
    // A hidden window's page appears when the window is shown.
    if (changed && isVisible()) pageAppears(tab);
}

void MainWindow::pageAppears(ContentViewTab tab) {
    switch (tab) {
    case ContentViewTab::main: mainPane_->refresh(); break;
    case ContentViewTab::settings: settingsPane_->reload(); break;
    case ContentViewTab::floatingButton: floatingButtonPane_->reload(); break;
    case ContentViewTab::substitutions: substitutionsPane_->appear(); break;
    case ContentViewTab::ai:
        if (aiPane_) aiPane_->appear();
        break;
    case ContentViewTab::sendreport:
        if (sendReportPane_) sendReportPane_->appear();
        break;
    case ContentViewTab::history:
        if (historyPane_) historyPane_->refreshSoon();
        break;
    default: break;
    }
}

void MainWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    pageAppears(currentTab_);
}

void MainWindow::enterEvent(QEnterEvent* event) {
    QWidget::enterEvent(event);
    deps_.appState.setUserIsHoveringContentView(true);
}

void MainWindow::leaveEvent(QEvent* event) {
    QWidget::leaveEvent(event);
    deps_.appState.setUserIsHoveringContentView(false);
}

void MainWindow::appStateChanged(std::string_view field) {
    if (field == "statusBannerViewMessage" || field == "statusBannerViewTimeoutSeconds" || field == "isShowingBanner") {
        banner_->update();
    } else if (field == "internetAvailable") {
        mainPane_->refresh();
    } else if (field == "selectedContentViewTab") {
        if (deps_.appState.selectedContentViewTab() != currentTab_) showTab(deps_.appState.selectedContentViewTab());
    }
}

void MainWindow::refreshState() { mainPane_->refresh(); }

void MainWindow::historyChanged() {
    if (historyPane_) historyPane_->refreshSoon();
}

void MainWindow::setUsabilityWarnings(const std::vector<std::string>& texts) {
    mainPane_->setUsabilityWarnings(texts);
}

void MainWindow::scrollHistoryToTop() {
    if (historyPane_) historyPane_->scrollToTop();
}

void MainWindow::showBanner() {
    const auto& message = banner_->shownMessage();
    bannerText_->setText(message ? QString::fromStdString(*message) : QString());
    bannerBar_->setVisible(message.has_value());
}

// ---- Application-wide events ----

QtAppEventMonitor::QtAppEventMonitor(AppWindows& windows, const QtScreens& screens, QObject* parent)
    : QObject(parent), windows_(windows), screens_(screens) {
    if (auto* app = QCoreApplication::instance()) app->installEventFilter(this);
}

QtAppEventMonitor::~QtAppEventMonitor() {
    if (auto* app = QCoreApplication::instance()) app->removeEventFilter(this);
}

namespace {
bool isPopup(const QObject* target) {
    if (const auto* window = qobject_cast<const QWindow*>(target)) return window->type() == Qt::Popup;
    if (const auto* widget = qobject_cast<const QWidget*>(target)) return widget->window()->windowType() == Qt::Popup;
    return false;
}
} // namespace

bool QtAppEventMonitor::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() != Qt::Key_Escape || key->isAutoRepeat()) return false;
        if (event == lastKey_ && key->timestamp() == lastKeyTimestamp_) return false;
        lastKey_ = event;
        lastKeyTimestamp_ = key->timestamp();
        // An open popup (a menu, a combo box's list) takes its own Escape. A combo box closes its list as soon as
        // the key is announced, before the press itself arrives; the press is then still addressed to the popup's
        // window, which is how it is recognised.
        if (QApplication::activePopupWidget() || isPopup(watched)) return false;
        return windows_.keyDown(AppWindows::kEscapeKeyCode);
    }
    if (event->type() == QEvent::Close) {
        auto* widget = qobject_cast<QWidget*>(watched);
        if (!widget || !widget->isWindow()) return false;
        const Qt::WindowType type = widget->windowType();
        if (type != Qt::Window && type != Qt::Dialog) return false;
        ClosingWindow closing;
        closing.title = widget->windowTitle().toStdString();
        closing.frame = screens_.coordinates().fromQt(widget->frameGeometry());
        closing.screenWithMouse = QGuiApplication::screenAt(QCursor::pos()) != nullptr;
        windows_.handleWindowClose(closing);
    }
    return false;
}

} // namespace sprelio::platform
