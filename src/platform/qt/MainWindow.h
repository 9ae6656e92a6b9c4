#pragma once
// The main window: a sidebar of tabs and the tab's page, with the status banner above. It is the content window
// that AppWindows opens on a tab; the tab shown always follows AppState.selectedContentViewTab.
#include <QObject>
#include <QWidget>
#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "platform/Clock.h"
#include "platform/FrontmostApp.h"
#include "platform/MainLoop.h"
#include "ui/AppWindows.h"

class QLabel;
class QListWidget;
class QStackedWidget;
class QToolButton;

namespace sprelio {
class FilesMenuViewModel;
class HistoryViewModel;
class IntelligencePresetsViewModel;
class SendReportViewModel;
class MaintenanceManager;
class SubstitutionsViewModel;
namespace store {
class AppConstants;
class ManagedObjectContext;
class Settings;
} // namespace store
} // namespace sprelio

namespace sprelio::platform {

class AIPane;
class FloatingButtonPane;
class SendReportPane;
class HistoryPane;
class MainPane;
class ShortcutEditor;
struct ShortcutEditorDependencies;
class QtScreens;
class SettingsPane;
class SoundPlayer;
class SubstitutionsPane;

struct MainWindowDependencies {
    MainLoop& loop;
    const Clock& clock;
    Workspace& workspace;
    store::Settings& settings;
    const store::AppConstants& constants;
    AppState& appState;
    store::ManagedObjectContext& viewContext; // the substitution rules and the shortcuts live here
    std::function<AppActivity()> appStatus;
    WindowTitles titles;
    // The History tab draws these; without them it says that the history is not available.
    HistoryViewModel* history = nullptr;
    MaintenanceManager* maintenance = nullptr;
    // Lets the Settings tab play the sound it offers; none: no play buttons.
    SoundPlayer* sounds = nullptr;
    // The AI tab edits these; without them it says that the presets are not available.
    IntelligencePresetsViewModel* presets = nullptr;
    // Puts the AI service of the settings to use at once; an error text when it can't.
    std::function<std::optional<std::string>()> applyAiService;
    // The Send Report tab sends through this; without it the tab says that reports can't be sent.
    SendReportViewModel* report = nullptr;
    // "Show in File Manager" of the About tab's folders; none: no such buttons.
    std::function<bool(const std::filesystem::path&)> revealInFileManager;
    // The Files tab draws this; without it the tab says that files can't be transcribed.
    FilesMenuViewModel* files = nullptr;
};

class MainWindow final : public QWidget, public ContentWindow {
    Q_OBJECT
public:
    explicit MainWindow(MainWindowDependencies deps, QWidget* parent = nullptr);
    ~MainWindow() override;

    // ContentWindow
    bool isMiniaturized() const override;
    void deminiaturize() override;
    void makeKeyAndOrderFront() override;
    bool isKeyWindow() const override;
    void close() override;
    void showTab(ContentViewTab tab) override;

    // Forwarded from AppState.onChange: the banner, the network line and the selected tab follow.
    void appStateChanged(std::string_view field);
    // The session's state changed (the status image changes with it).
    void refreshState();
    // Entries changed outside the tab (a dictation was logged, playback ended).
    void historyChanged();
    // "SPRScrollHistoryToTop".
    void scrollHistoryToTop();
    // The usability checks' texts, shown on the Main tab.
    void setUsabilityWarnings(const std::vector<std::string>& texts);

    ContentViewTab currentTab() const { return currentTab_; }
    QListWidget* sidebar() const { return sidebar_; }
    QWidget* page(ContentViewTab tab) const;
    MainPane* mainPane() const { return mainPane_; }
    // The hotkey editor, at the top of the Settings tab; "Change Shortcuts…" on the Main tab leads there.
    ShortcutEditor* installShortcutEditor(ShortcutEditorDependencies deps);
    ShortcutEditor* shortcutEditor() const { return shortcutEditor_; }
    SettingsPane* settingsPane() const { return settingsPane_; }
    SubstitutionsPane* substitutionsPane() const { return substitutionsPane_; }
    HistoryPane* historyPane() const { return historyPane_; }
    AIPane* aiPane() const { return aiPane_; }
    FloatingButtonPane* floatingButtonPane() const { return floatingButtonPane_; }
    SendReportPane* sendReportPane() const { return sendReportPane_; }
    QLabel* bannerLabel() const { return bannerText_; }
    StatusBannerController& banner() { return *banner_; }

protected:
    void showEvent(QShowEvent* event) override;
    // Whether the pointer is over the window decides, with the tab shown, whether hotkeys act while Sprelio is in
    // front (a tab that takes dictated text still wants them).
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    void pageAppears(ContentViewTab tab);
    void showBanner();

    MainWindowDependencies deps_;
    std::unique_ptr<SubstitutionsViewModel> substitutions_;
    std::unique_ptr<StatusBannerController> banner_;
    ContentViewTab currentTab_ = ContentViewTab::main;
    QListWidget* sidebar_ = nullptr;
    QStackedWidget* pages_ = nullptr;
    QWidget* bannerBar_ = nullptr;
    QLabel* bannerText_ = nullptr;
    MainPane* mainPane_ = nullptr;
    ShortcutEditor* shortcutEditor_ = nullptr;
    SettingsPane* settingsPane_ = nullptr;
    SubstitutionsPane* substitutionsPane_ = nullptr;
    HistoryPane* historyPane_ = nullptr;
    AIPane* aiPane_ = nullptr;
    FloatingButtonPane* floatingButtonPane_ = nullptr;
    SendReportPane* sendReportPane_ = nullptr;
    std::array<QWidget*, 9> pageOf_{};
};

// The application-wide watch on its own windows: Escape goes to AppWindows::keyDown before any widget sees it
// (the key is kept only when a window closed), and every closing window is reported to handleWindowClose with its
// frame in the logic's coordinates.
class QtAppEventMonitor final : public QObject {
    Q_OBJECT
public:
    QtAppEventMonitor(AppWindows& windows, const QtScreens& screens, QObject* parent = nullptr);
    ~QtAppEventMonitor() override;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    AppWindows& windows_;
    const QtScreens& screens_;
    // A key event travels up the widget tree as one object; it is judged once.
    const QEvent* lastKey_ = nullptr;
    quint64 lastKeyTimestamp_ = 0;
};

} // namespace sprelio::platform
