// The main window on a real X desktop with a window manager, over a real store file and a real settings file:
// opening a tab, Escape, the Substitutions table, the Settings editors and the folder dialog,
// the History tab and the Main tab's state.
// The keys and clicks are real X input (xdotool).
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QFrame>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <QTableView>
#include <QTreeWidget>
#include <QToolButton>

#include <fstream>
#include <memory>

#include "backend/ProblemReportUpload.h"
#include "backend/ScriptedServer.h"
#include "diagnostics/ConfigArchive.h"
#include "diagnostics/ZipArchive.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/qt/SendReportPane.h"
#include "ui/SendReportViewModel.h"
#include "ai/IntelligencePresetsViewModel.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "diagnostics/HistoryTestSupport.h"
#include "ui/HistoryViewModel.h"
#include "diagnostics/MaintenanceManager.h"
#include "platform/linux/SystemClock.h"
#include "platform/qt/AIPane.h"
#include "platform/qt/FileManagerReveal.h"
#include "platform/qt/HistoryPane.h"
#include "platform/qt/MainWindow.h"
#include "platform/qt/MainWindowPanes.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/SubstitutionsPane.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Persistence.h"
#include "store/Settings.h"
#include "ui/AppWindows.h"
#include "ui/Messages.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using desktoptest::Desktop;
using desktoptest::processUntil;
using platform::MainWindow;
using platform::test::RecordingLogSink;

class NoToasts final : public ToastPresenter {
public:
    void showToast(const SPRToastView& toast, const platform::ScreenInfo&, const platform::Rect&,
                   std::function<void()>) override {
        shown.push_back(toast.messageText);
    }
    void closeAllToasts() override {}
    std::vector<std::string> shown;
};

class DesktopMainWindow : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        tp_.screenList = screens_.screens();
        settingsStore_ = std::make_unique<store::JsonFileSettingsStore>(settingsFile());
        settings_ = std::make_unique<store::Settings>(*settingsStore_, constants_);
        persistence_ = std::make_unique<store::PersistenceController>(constants_.appSupportFolder());
        auto& context = persistence_->container().viewContext();
        history_ = std::make_unique<HistoryManagerImpl>(context, clock_);
        maintenance_ = std::make_unique<MaintenanceManager>(persistence_->container(), *settings_, clock_, false);
        platform::Platform platform{*loop_, tp_.loop(), tp_, tp_, tp_, tp_, tp_, tp_, tp_, tp_};
        messages_ = std::make_unique<MessageCenter>(platform, *settings_, appState_, toasts_, "Sprelio");
        historyView_ = std::make_unique<HistoryViewModel>(HistoryViewModel::Dependencies{
            *loop_, tp_.loop(), context, *history_, *maintenance_, appState_, *messages_, *settings_, tp_, nullptr,
            nullptr,
            [this](const fs::path& file) {
                revealed_.push_back(file);
                return true;
            },
            [this](const std::string& text, const std::string& caller) { pasteboard_.push_back(caller + ":" + text); }});
        presets_ = std::make_unique<IntelligencePresetsViewModel>(IntelligencePresetsViewModel::Dependencies{
            context, [] { return std::vector<std::string>{"small-1", "large-2"}; }, {}});
        http_ = std::make_unique<platform::CurlHttpClient>(*loop_);
        settings_->setToken(std::string("tok-desk"));
        reportUploader_ = std::make_unique<ProblemReportUploader>(ProblemReportUploader::Dependencies{
            *loop_, *http_, *settings_, [this] { return reportServer_.url(""); }, "No token"});
        report_ = std::make_unique<SendReportViewModel>(SendReportViewModel::Dependencies{
            *loop_, workers_, *settings_, appState_, *reportUploader_,
            [this]() -> std::optional<fs::path> {
                const fs::path logs = tp_.root() / "report-logs";
                fs::create_directories(logs);
                std::ofstream(logs / "app_log.txt") << "a line of the log\n";
                if (!zipFolderContents(logs, tp_.root() / "logs.zip")) return std::nullopt;
                return tp_.root() / "logs.zip";
            },
            [this] {
                fs::create_directories(tp_.root() / "logs");
                return gatherConfigData(settings_->store().dictionaryRepresentation(), tp_.root() / "logs");
            },
            [] { return UploadData{}; }, [] {}});
        windows_ = std::make_unique<AppWindows>(AppWindows::Dependencies{
            *loop_, appState_, *settings_, WindowTitles::make("Sprelio"), [this] { journal_.push_back("capture"); },
            [this] { journal_.push_back("restoreFocus"); }, [] {}, [this] { window_->scrollHistoryToTop(); }});
        window_ = std::make_unique<MainWindow>(platform::MainWindowDependencies{
            *loop_, clock_, tp_, *settings_, constants_, appState_, context, [this] { return status_; },
            windows_->titles(), historyView_.get(), maintenance_.get(), nullptr, presets_.get(),
            [this]() -> std::optional<std::string> {
                ++aiServiceApplied_;
                return aiServiceError_;
            },
            report_.get(), {}});
        windows_->setMainWindow(window_.get());
        appState_.onChange = [this](std::string_view field) { window_->appStateChanged(field); };
        monitor_ = std::make_unique<platform::QtAppEventMonitor>(*windows_, screens_);
    }
    void TearDown() override {
        monitor_.reset();
        report_.reset();
        appState_.onChange = nullptr;
        if (windows_) windows_->setMainWindow(nullptr);
        window_.reset();
        desktoptest::settle();
    }
    fs::path settingsFile() const { return tp_.root() / "settings.json"; }
    nlohmann::json settingsOnDisk() const {
        std::ifstream in(settingsFile());
        if (!in) return nlohmann::json::object();
        return nlohmann::json::parse(in, nullptr, false);
    }
    // The rules as another connection reads them from the file.
    std::vector<std::pair<std::string, std::string>> rulesOnDisk() const {
        store::PersistentContainer other("Persistence",
                                         constants_.appSupportFolder() / store::PersistenceController::kStoreFileName);
        if (other.loadPersistentStores()) return {};
        std::vector<std::pair<std::string, std::string>> rules;
        for (const auto& s : other.viewContext().fetchAll<store::Substitution>())
            if (!s->isBlankNew()) rules.emplace_back(s->input().value_or(""), s->output().value_or(""));
        return rules;
    }
    // The presets as another connection reads them from the file: title, prompt, model.
    std::vector<std::vector<std::string>> presetsOnDisk() const {
        store::PersistentContainer other("Persistence",
                                         constants_.appSupportFolder() / store::PersistenceController::kStoreFileName);
        if (other.loadPersistentStores()) return {};
        std::vector<std::vector<std::string>> presets;
        for (const auto& p : other.viewContext().fetchAll<store::IntelligencePreset>())
            presets.push_back({p->title().value_or(""), p->prompt().value_or(""), p->model().value_or("")});
        return presets;
    }
    bool rulesOnDiskContain(const std::string& input, const std::string& output) const {
        for (const auto& [i, o] : rulesOnDisk())
            if (i == input && o == output) return true;
        return false;
    }
    bool openAndWaitActive(ContentViewTab tab) {
        windows_->openTab(tab);
        return processUntil([&] { return window_->isVisible() && window_->isActiveWindow(); });
    }
    bool run(const std::string& command) { return Desktop::instance().run(command); }
    std::string clickCell(QTableView* table, int row, int column) {
        const QRect cell = table->visualRect(table->model()->index(row, column));
        return desktoptest::clickAt(table->viewport(), cell.center());
    }

    QApplication* app_ = nullptr;
    RecordingLogSink logs_;
    platform::test::TestPlatform tp_;
    platform::SystemClock clock_;
    std::unique_ptr<platform::QtMainLoop> loop_;
    platform::QtScreens screens_;
    store::AppConstants constants_{tp_};
    std::unique_ptr<store::JsonFileSettingsStore> settingsStore_;
    std::unique_ptr<store::Settings> settings_;
    std::unique_ptr<store::PersistenceController> persistence_;
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    AppActivity status_ = AppActivity::idle;
    NoToasts toasts_;
    std::unique_ptr<HistoryManagerImpl> history_;
    std::unique_ptr<MaintenanceManager> maintenance_;
    std::unique_ptr<MessageCenter> messages_;
    std::unique_ptr<HistoryViewModel> historyView_;
    std::unique_ptr<IntelligencePresetsViewModel> presets_;
    int aiServiceApplied_ = 0;
    std::optional<std::string> aiServiceError_;
    platform::ThreadWorkerPool workers_{1};
    backendtest::ScriptedServer reportServer_;
    std::unique_ptr<platform::CurlHttpClient> http_;
    std::unique_ptr<ProblemReportUploader> reportUploader_;
    std::unique_ptr<SendReportViewModel> report_;
    std::unique_ptr<AppWindows> windows_;
    std::unique_ptr<MainWindow> window_;
    std::unique_ptr<platform::QtAppEventMonitor> monitor_;
    std::vector<std::string> journal_;
    std::vector<fs::path> revealed_;
    std::vector<std::string> pasteboard_;
};

TEST_F(DesktopMainWindow, OpeningATabShowsTheWindowOnItAndTheSidebarChoosesTabsToo) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::history));
    EXPECT_EQ(window_->windowTitle().toStdString(), "Sprelio Settings");
    EXPECT_EQ(window_->currentTab(), ContentViewTab::history);
    EXPECT_TRUE(window_->page(ContentViewTab::history)->isVisible());
    EXPECT_EQ(window_->sidebar()->currentItem()->text().toStdString(), "History");
    EXPECT_EQ(mirror_.selectedContentViewTab(), ContentViewTab::history);

    windows_->openTab(ContentViewTab::ai);
    ASSERT_TRUE(processUntil([&] { return window_->page(ContentViewTab::ai)->isVisible(); }));
    EXPECT_FALSE(window_->page(ContentViewTab::history)->isVisible());
    EXPECT_EQ(window_->page(ContentViewTab::ai), window_->aiPane());

    // A click in the sidebar selects the tab for everyone.
    QListWidget* sidebar = window_->sidebar();
    const QRect about = sidebar->visualItemRect(sidebar->item(7));
    ASSERT_TRUE(run(desktoptest::clickAt(sidebar->viewport(), about.center())));
    ASSERT_TRUE(processUntil([&] { return appState_.selectedContentViewTab() == ContentViewTab::about; }));
    EXPECT_EQ(mirror_.selectedContentViewTab(), ContentViewTab::about);
    EXPECT_TRUE(window_->page(ContentViewTab::about)->isVisible());

    // The event path knows whether the pointer is over our window.
    EXPECT_TRUE(processUntil([&] { return mirror_.userIsHoveringContentView(); }));
    ASSERT_TRUE(run("xdotool mousemove 2 2"));
    EXPECT_TRUE(processUntil([&] { return !mirror_.userIsHoveringContentView(); }));
}

TEST_F(DesktopMainWindow, EscapeClosesTheWindowButNotWhileAPopupIsOpen) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::settings));
    // A combo box's open list takes the first Escape for itself.
    auto* combo = qobject_cast<QComboBox*>(window_->settingsPane()->editor("recordingStartSoundName"));
    ASSERT_NE(combo, nullptr);
    combo->showPopup();
    ASSERT_TRUE(processUntil([&] { return QApplication::activePopupWidget() != nullptr; }));

    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(processUntil([&] { return QApplication::activePopupWidget() == nullptr; }));
    desktoptest::settle();
    EXPECT_TRUE(window_->isVisible());

    logs_.clear();
    ASSERT_TRUE(processUntil([&] { return window_->isActiveWindow(); }));
    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(processUntil([&] { return !window_->isVisible(); })) << "Escape did not close the window";
    EXPECT_TRUE(logs_.contains("AppDelegate.keyDown() - escape pressed"));
    EXPECT_TRUE(logs_.contains("AppDelegate.keyDown() - closing mainWindow"));
    EXPECT_EQ(logs_.count("AppDelegate.keyDown() - escape pressed"), 1u) << "one key, one judgement";
    EXPECT_TRUE(logs_.contains("handleWindowClose() - unknown window title Sprelio Settings, frame not saved (this "
                               "is not an error and only indicates we are not persisting window frames for this "
                               "window type)"));
    ASSERT_TRUE(processUntil([&] { return !journal_.empty() && journal_.back() == "restoreFocus"; }));

    // Opened again, it comes back on the tab it had.
    ASSERT_TRUE(openAndWaitActive(appState_.selectedContentViewTab()));
    EXPECT_EQ(window_->currentTab(), ContentViewTab::settings);
}

TEST_F(DesktopMainWindow, SubstitutionEditsTypedInTheTableReachTheStoreFile) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::substitutions));
    auto* pane = window_->substitutionsPane();
    QTableView* table = pane->table();
    auto* model = pane->model();
    // First appearance: the two seed rules and the blank row, which is last.
    ASSERT_EQ(model->rowCount(), 3);
    EXPECT_TRUE(model->isBlankRow(2));
    EXPECT_TRUE(rulesOnDiskContain("...", ""));
    EXPECT_TRUE(rulesOnDiskContain("Some text wrong detected", "Needed text"));

    // Typing into the blank row makes it a rule, saved at each key, and a new blank row opens under it.
    ASSERT_TRUE(run(clickCell(table, 2, 0)));
    ASSERT_TRUE(processUntil([&] { return table->findChild<QLineEdit*>() && table->findChild<QLineEdit*>()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 30 teh"));
    ASSERT_TRUE(processUntil([&] { return rulesOnDiskContain("teh", ""); })) << "the typed rule is not in the file";
    EXPECT_EQ(model->rowCount(), 4);
    EXPECT_TRUE(model->isBlankRow(3));
    EXPECT_FALSE(model->isBlankRow(2));

    ASSERT_TRUE(run(clickCell(table, 2, 1)));
    ASSERT_TRUE(processUntil([&] {
        auto* editor = table->findChild<QLineEdit*>();
        return editor && editor->hasFocus() && table->currentIndex().column() == 1;
    }));
    ASSERT_TRUE(run("xdotool type --delay 30 the"));
    ASSERT_TRUE(processUntil([&] { return rulesOnDiskContain("teh", "the"); }));

    // The test box applies the stored rules.
    ASSERT_TRUE(run(desktoptest::clickAt(pane->testInput())));
    ASSERT_TRUE(processUntil([&] { return pane->testInput()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 20 'Teh cat waits...'"));
    ASSERT_TRUE(processUntil([&] { return pane->testOutput()->text() == QStringLiteral("The cat waits"); }))
        << pane->testOutput()->text().toStdString();
    desktoptest::saveScreenshot("main-window-substitutions");

    // Header clicks: right after editing, a click on the active column only puts the rows back in its order; the
    // next one turns the order around. The choice is a setting.
    EXPECT_EQ(model->headerData(0, Qt::Horizontal, Qt::DisplayRole).toString().toStdString(), "Search  ▲");
    const QHeaderView* header = table->horizontalHeader();
    const QPoint searchHeader(header->sectionViewportPosition(0) + header->sectionSize(0) / 2, header->height() / 2);
    logs_.clear();
    ASSERT_TRUE(run(desktoptest::clickAt(header->viewport(), searchHeader)));
    ASSERT_TRUE(processUntil([&] { return logs_.containsPrefix("sort() - sorting "); }));
    EXPECT_EQ(settings_->subSortOrder(), "ascend");
    logs_.clear();
    // A second click within the double-click time would be a double click, which no header takes as a click.
    QElapsedTimer sinceClick;
    sinceClick.start();
    processUntil([&] { return sinceClick.elapsed() > QApplication::doubleClickInterval(); });
    ASSERT_TRUE(run(desktoptest::clickAt(header->viewport(), searchHeader)));
    ASSERT_TRUE(processUntil([&] { return settings_->subSortOrder() == "descend"; }));
    EXPECT_EQ(model->headerData(0, Qt::Horizontal, Qt::DisplayRole).toString().toStdString(), "Search  ▼");
    EXPECT_EQ(settingsOnDisk().value("subSortOrder", ""), "descend");
    ASSERT_EQ(model->rowCount(), 4);
    EXPECT_EQ(model->rowAt(0)->input(), "teh");
    EXPECT_EQ(model->rowAt(2)->input(), "...");
    EXPECT_TRUE(model->isBlankRow(3)) << "the blank row stays last in every order";

    // The row's delete button removes the rule from the file.
    ASSERT_TRUE(run(clickCell(table, 0, platform::SubstitutionsTableModel::deleteColumn)));
    ASSERT_TRUE(processUntil([&] { return !rulesOnDiskContain("teh", "the"); }));
    EXPECT_EQ(model->rowCount(), 3);
    EXPECT_TRUE(processUntil([&] { return pane->testOutput()->text() == QStringLiteral("Teh cat waits"); }));
}

TEST_F(DesktopMainWindow, AIPresetsTypedInTheAITabReachTheStoreFile) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::ai));
    auto* pane = window_->aiPane();
    ASSERT_NE(pane, nullptr);
    EXPECT_EQ(pane->presetList()->count(), 0);
    EXPECT_FALSE(pane->titleEdit()->isEnabled()) << "nothing to edit without a preset";

    ASSERT_TRUE(run(desktoptest::clickAt(pane->addButton())));
    ASSERT_TRUE(processUntil([&] { return presetsOnDisk().size() == 1; }));
    EXPECT_EQ(presetsOnDisk()[0], (std::vector<std::string>{"New Preset", "", "small-1"}));
    ASSERT_EQ(pane->presetList()->count(), 1);

    ASSERT_TRUE(run(desktoptest::clickAt(pane->titleEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->titleEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool key ctrl+a && xdotool type --delay 20 'Friendly mail'"));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->promptEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->promptEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 20 'Rewrite as a friendly mail.'"));
    pane->modelBox()->setCurrentIndex(1);
    ASSERT_TRUE(processUntil([&] {
        const auto presets = presetsOnDisk();
        return presets.size() == 1 &&
               presets[0] == std::vector<std::string>{"Friendly mail", "Rewrite as a friendly mail.", "large-2"};
    })) << "the typed preset is not in the file";
    EXPECT_EQ(pane->presetList()->item(0)->text().toStdString(), "Friendly mail");
    desktoptest::saveScreenshot("main-window-ai");

    ASSERT_TRUE(run(desktoptest::clickAt(pane->removeButton())));
    ASSERT_TRUE(processUntil([&] { return presetsOnDisk().empty(); }));
    EXPECT_EQ(pane->presetList()->count(), 0);

    // The catalogue's actions with the keys that run them; one without a key says so.
    pane->setActionsSource([] {
        return std::vector<AIActionRow>{{"BuiltIn", "Fix Grammar", {"Right Alt", "Alt+G"}}, {"Tone", "Formal", {}}};
    });
    ASSERT_EQ(pane->actionsList()->topLevelItemCount(), 2);
    EXPECT_EQ(pane->actionsList()->topLevelItem(0)->text(2).toStdString(), "Right Alt, Alt+G");
    EXPECT_EQ(pane->actionsList()->topLevelItem(1)->text(2).toStdString(), "—");

    // The AI service: address, model and key go to the settings (the key to its own file, never shown again),
    // and the server takes them at once.
    ASSERT_TRUE(run(desktoptest::clickAt(pane->serviceURLEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->serviceURLEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 10 'https://ai.example.org/v1'"));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->serviceModelEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->serviceModelEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 10 'small-1'"));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->serviceKeyEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->serviceKeyEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 10 'sk-secret-123'"));
    ASSERT_TRUE(processUntil([&] { return pane->serviceKeyEdit()->text() == QStringLiteral("sk-secret-123"); }));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->applyServiceButton())));
    ASSERT_TRUE(processUntil([&] { return aiServiceApplied_ == 1; }));
    EXPECT_EQ(settings_->aiServiceURL(), "https://ai.example.org/v1");
    EXPECT_EQ(settings_->aiServiceModel(), "small-1");
    EXPECT_EQ(settings_->aiServiceKey(), std::optional<std::string>("sk-secret-123"));
    EXPECT_TRUE(pane->serviceKeyEdit()->text().isEmpty()) << "the key is not shown again";
    EXPECT_EQ(pane->serviceStatus()->text().toStdString(), "The AI actions use this service from now on.");
    EXPECT_EQ(settingsOnDisk().dump().find("sk-secret-123"), std::string::npos) << "the key is no setting";
    desktoptest::settle();
    desktoptest::saveScreenshot("main-window-ai-service");

    aiServiceError_ = "the key file can't be read";
    ASSERT_TRUE(run(desktoptest::clickAt(pane->applyServiceButton())));
    ASSERT_TRUE(processUntil([&] { return aiServiceApplied_ == 2; }));
    EXPECT_EQ(pane->serviceStatus()->text().toStdString(),
              "This service can't be used: the key file can't be read");
}

TEST_F(DesktopMainWindow, AReportTypedInTheSendReportTabIsSentAndSaysSo) {
    reportServer_.script("/users/report", backendtest::Script{});
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::sendreport));
    auto* pane = window_->sendReportPane();
    ASSERT_NE(pane, nullptr);
    ASSERT_TRUE(processUntil([&] { return report_->logsZipURL() && report_->configZipURL(); }));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->messageEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->messageEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 20 'The overlay stays after a dictation.'"));
    ASSERT_TRUE(run(desktoptest::clickAt(pane->phoneEdit())));
    ASSERT_TRUE(processUntil([&] { return pane->phoneEdit()->hasFocus(); }));
    ASSERT_TRUE(run("xdotool type --delay 20 '+49 170 1234567'"));
    ASSERT_TRUE(processUntil([&] { return settings_->sendReportViewPhone() == "+49 170 1234567"; }));
    EXPECT_EQ(settings_->sendReportViewMessage(), "The overlay stays after a dictation.");

    ASSERT_TRUE(run(desktoptest::clickAt(pane->sendButton())));
    ASSERT_TRUE(processUntil([&] { return pane->resultSheet()->isVisible(); }));
    EXPECT_EQ(pane->resultLabel()->text().toStdString(), "The report was sent!");
    EXPECT_TRUE(pane->messageEdit()->toPlainText().isEmpty()) << "a sent message is gone";
    EXPECT_EQ(pane->phoneEdit()->text().toStdString(), "+49 170 1234567");
    ASSERT_EQ(reportServer_.requests().size(), 1u);
    EXPECT_NE(reportServer_.requests()[0].body.find("The overlay stays after a dictation."), std::string::npos);
    desktoptest::settle();
    desktoptest::saveScreenshot("main-window-send-report");
}

TEST_F(DesktopMainWindow, SettingsEditorsWriteTheSettingsFile) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::settings));
    auto* pane = window_->settingsPane();
    auto* sound = qobject_cast<QCheckBox*>(pane->editor("soundEnabled"));
    ASSERT_NE(sound, nullptr);
    EXPECT_FALSE(sound->isChecked());
    ASSERT_TRUE(run(desktoptest::clickAt(sound, QPoint(8, sound->height() / 2))));
    ASSERT_TRUE(processUntil([&] { return settingsOnDisk().value("soundEnabled", false); }))
        << "the click did not reach the file";
    EXPECT_TRUE(settings_->soundEnabled());

    auto* minimum = qobject_cast<QSpinBox*>(pane->editor("minimumRecordingDuration"));
    ASSERT_NE(minimum, nullptr);
    EXPECT_EQ(minimum->value(), 400);
    ASSERT_TRUE(run(desktoptest::clickAt(minimum)));
    ASSERT_TRUE(processUntil([&] { return minimum->hasFocus(); }));
    ASSERT_TRUE(run("xdotool key ctrl+a type 650"));
    ASSERT_TRUE(processUntil([&] { return settingsOnDisk().value("minimumRecordingDuration", 0) == 650; }));

    auto* startSound = qobject_cast<QComboBox*>(pane->editor("recordingStartSoundName"));
    ASSERT_NE(startSound, nullptr);
    EXPECT_EQ(startSound->currentText().toStdString(), "Pop");
    startSound->setCurrentText(QStringLiteral("Glass"));
    EXPECT_EQ(settingsOnDisk().value("recordingStartSoundName", ""), "Glass");

    // A server address that can't be one is refused with a message, and the file keeps what it had.
    auto* server = qobject_cast<QLineEdit*>(pane->editor("apiBaseURL"));
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->text().toStdString(), "embedded");
    ASSERT_TRUE(run(desktoptest::clickAt(server)));
    ASSERT_TRUE(processUntil([&] { return server->hasFocus(); }));
    ASSERT_TRUE(run("xdotool key ctrl+a type --delay 10 'api example'"));
    ASSERT_TRUE(run("xdotool key Return"));
    ASSERT_TRUE(processUntil([&] { return !pane->problem("apiBaseURL").isEmpty(); }));
    EXPECT_FALSE(settingsOnDisk().contains("apiBaseURL"));
    desktoptest::saveScreenshot("main-window-settings");
    ASSERT_TRUE(run("xdotool key ctrl+a type --delay 10 'https://api.example.org'"));
    ASSERT_TRUE(run("xdotool key Return"));
    ASSERT_TRUE(processUntil([&] { return settingsOnDisk().value("apiBaseURL", "") == "https://api.example.org"; }));
    EXPECT_TRUE(pane->problem("apiBaseURL").isEmpty());

    // Values changed elsewhere show when the tab comes back.
    settings_->setTapAndRecordTimeoutMinutes(25);
    windows_->openTab(ContentViewTab::main);
    windows_->openTab(ContentViewTab::settings);
    EXPECT_EQ(qobject_cast<QSpinBox*>(pane->editor("tapAndRecordTimeoutMinutes"))->value(), 25);
}

// The real folder dialog, answered the way a user would: a folder we can write to is taken, one we cannot is refused
// with the message and the default comes back, and a cancelled dialog changes nothing.
TEST_F(DesktopMainWindow, RecordingsFolderIsPickedInTheFolderDialog) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::settings));
    auto* path = qobject_cast<QLineEdit*>(window_->settingsPane()->editor("saveRecordingsFolder"));
    ASSERT_NE(path, nullptr);
    auto* choose = path->parentWidget()->findChild<QPushButton*>();
    ASSERT_NE(choose, nullptr);
    const std::string defaultFolder = constants_.recordingsFolder().string();
    EXPECT_EQ(path->text().toStdString(), defaultFolder);

    // The dialog and the message box run their own event loops inside the click: whatever is modal is answered from
    // a timer, once each, by `answer`.
    std::vector<std::string> seen;
    const auto clickAndAnswer = [&](const std::function<void(QWidget*)>& answer) {
        QTimer poll;
        QPointer<QWidget> answering;
        QElapsedTimer waited;
        waited.start();
        QObject::connect(&poll, &QTimer::timeout, [&] {
            QWidget* modal = QApplication::activeModalWidget();
            if (!modal || !modal->isVisible()) return;
            // A dialog we don't know, or one that keeps coming back, must not hold the test for ever.
            if (waited.elapsed() > 20000) {
                modal->close();
                return;
            }
            // Answered from a queued call, not from here: an answer that opens another modal loop would otherwise
            // keep this timer from firing again.
            if (modal != answering) {
                answering = modal;
                QMetaObject::invokeMethod(
                    modal, [&answer, modal] { answer(modal); }, Qt::QueuedConnection);
            }
        });
        poll.start(20);
        choose->click();
        poll.stop();
    };
    const auto pickInDialog = [&](const fs::path& folder) {
        return [&seen, folder](QWidget* modal) {
            if (auto* dialog = qobject_cast<QFileDialog*>(modal)) {
                seen.push_back("dialog: " + dialog->windowTitle().toStdString());
                if (folder.empty()) {
                    dialog->reject();
                } else {
                    // As a user types a path into the name field and presses Choose.
                    auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
                    if (!name) return; // left to the time limit, and the expectations below fail
                    name->setText(QString::fromStdString(folder.string()));
                    static_cast<QDialog*>(dialog)->accept(); // the file dialog's own checks run, as for OK
                }
            } else if (auto* box = qobject_cast<QMessageBox*>(modal)) {
                seen.push_back("message: " + box->text().toStdString());
                box->accept();
            }
        };
    };

    const fs::path writable = tp_.root() / "My Recordings";
    fs::create_directories(writable);
    clickAndAnswer(pickInDialog(writable));
    EXPECT_EQ(seen, (std::vector<std::string>{"dialog: Recordings folder"}));
    EXPECT_EQ(path->text().toStdString(), writable.string());
    EXPECT_EQ(settingsOnDisk().value("saveRecordingsFolder", ""), writable.string());
    EXPECT_FALSE(fs::exists(writable / ".spr_write_test")) << "the write check cleans up after itself";

    // Nobody may write into /proc, root included.
    seen.clear();
    clickAndAnswer(pickInDialog("/proc"));
    EXPECT_EQ(seen, (std::vector<std::string>{"dialog: Recordings folder",
                                              "message: We couldn’t write to your selected folder. Falling back to "
                                              "the default location."}));
    EXPECT_EQ(path->text().toStdString(), defaultFolder);
    EXPECT_EQ(settingsOnDisk().value("saveRecordingsFolder", ""), defaultFolder);

    clickAndAnswer(pickInDialog(writable));
    ASSERT_EQ(settingsOnDisk().value("saveRecordingsFolder", ""), writable.string());
    seen.clear();
    clickAndAnswer(pickInDialog({}));
    EXPECT_EQ(seen, (std::vector<std::string>{"dialog: Recordings folder"}));
    EXPECT_EQ(path->text().toStdString(), writable.string()) << "a cancelled dialog keeps the folder";
    EXPECT_EQ(settingsOnDisk().value("saveRecordingsFolder", ""), writable.string());
}

TEST_F(DesktopMainWindow, HistoryRowsOfferTheirActionsAndThePopoverKeepsTheDays) {
    const fs::path recording = historytest::makeWav(tp_.root() / "rec.wav", 62);
    const fs::path gone = tp_.root() / "gone.wav";
    auto& context = persistence_->container().viewContext();
    const double now = std::chrono::duration<double>(clock_.now().time_since_epoch()).count();
    const auto add = [&](HistoryManagerLogLevel level, const std::string& text, std::optional<fs::path> file,
                         double age) {
        auto entry = history_->log(level, text, file, Uuid::random(), nullptr, false);
        ASSERT_NE(entry, nullptr);
        entry->setTimestamp(now - age); // distinct times, whatever the clock's resolution
        context.save();
    };
    add(HistoryManagerLogLevel::success, "Hello from the first dictation", recording, 30);
    add(HistoryManagerLogLevel::error, "Upload failed.", std::nullopt, 20);
    add(HistoryManagerLogLevel::success, std::string(5000, 'x'), gone, 10);
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::history));
    auto* pane = window_->historyPane();
    ASSERT_NE(pane, nullptr);
    ASSERT_TRUE(processUntil([&] { return pane->rows().size() == 3; }));
    EXPECT_EQ(pane->headerLabel()->text().toStdString(), "3 entries");
    auto rows = pane->rows();
    // Newest first: the long text is cut.
    EXPECT_EQ(rows[0]->textLabel()->text().toStdString(), std::string(4096, 'x') + "(…)");
    EXPECT_EQ(rows[1]->textLabel()->text().toStdString(), "Upload failed.");
    EXPECT_FALSE(rows[1]->retryButton()->isEnabled());
    EXPECT_FALSE(rows[1]->playButton()->isEnabled());
    EXPECT_EQ(rows[1]->showButton()->toolTip().toStdString(), "File not available");
    EXPECT_TRUE(rows[1]->removeButton()->isEnabled());
    EXPECT_TRUE(rows[2]->showButton()->isEnabled());
    EXPECT_EQ(rows[2]->showButton()->toolTip().toStdString(), "Show in File Manager");
    desktoptest::saveScreenshot("main-window-history");

    // A click on the text copies it. The copy redraws the list: the rows are new widgets afterwards.
    const QPointer<QWidget> copiedRow = rows[2];
    ASSERT_TRUE(run(desktoptest::clickAt(rows[2]->textLabel())));
    ASSERT_TRUE(processUntil([&] { return !pasteboard_.empty(); }));
    EXPECT_EQ(pasteboard_.back(), "clipText(_:):Hello from the first dictation");
    ASSERT_TRUE(processUntil([&] { return copiedRow.isNull() && pane->rows().size() == 3; }));
    rows = pane->rows();

    ASSERT_TRUE(run(desktoptest::clickAt(rows[2]->showButton())));
    ASSERT_TRUE(processUntil([&] { return !revealed_.empty(); }));
    EXPECT_EQ(revealed_.back(), recording);

    // Showing a recording that is gone says so and turns the row's file buttons off for good.
    ASSERT_TRUE(run(desktoptest::clickAt(rows[0]->showButton())));
    ASSERT_TRUE(processUntil([&] {
        return !pane->rows().empty() && !pane->rows()[0]->showButton()->isEnabled();
    }));
    ASSERT_TRUE(processUntil([&] { return !toasts_.shown.empty(); }));
    EXPECT_EQ(toasts_.shown.back(), "Unable to show file in File Manager. The file may have been moved or deleted.");

    // Remove: the entry and its recording go.
    rows = pane->rows();
    ASSERT_TRUE(run(desktoptest::clickAt(rows[2]->removeButton())));
    ASSERT_TRUE(processUntil([&] { return pane->rows().size() == 2; }));
    EXPECT_FALSE(fs::exists(recording));
    EXPECT_EQ(pane->headerLabel()->text().toStdString(), "2 entries");

    // The popover: "Days to keep" edits the setting, and closing it expires with the new period.
    ASSERT_TRUE(run(desktoptest::clickAt(pane->configureButton())));
    ASSERT_TRUE(processUntil([&] { return pane->popover()->isVisible(); }));
    EXPECT_EQ(pane->popover()->daysToKeepButton()->text().toStdString(), "365 days");
    ASSERT_TRUE(run(desktoptest::clickAt(pane->popover()->daysToKeepButton())));
    ASSERT_TRUE(processUntil([&] { return pane->popover()->daysEditor()->isVisible(); }));
    pane->popover()->daysEditor()->setValue(0);
    EXPECT_EQ(pane->popover()->daysToKeepButton()->text().toStdString(), "Forever");
    EXPECT_EQ(settingsOnDisk().value("historyRetentionDays", -1), 0);
    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(processUntil([&] { return !pane->popover()->isVisible(); }));
    EXPECT_TRUE(window_->isVisible()) << "Escape closed the popover, not the window";
    EXPECT_TRUE(logs_.contains("historyCleanup() - historyRetentionDays set to 0 (keep forever), skipping"));
}

TEST_F(DesktopMainWindow, MainTabShowsTheSessionAndTheBanner) {
    ASSERT_TRUE(openAndWaitActive(ContentViewTab::main));
    EXPECT_EQ(window_->mainPane()->statusText(), platform::appActivityDescription(AppActivity::idle));
    status_ = AppActivity::recording;
    window_->refreshState();
    EXPECT_EQ(window_->mainPane()->statusText().toStdString(), "Recording…");

    appState_.setStatusBannerViewTimeoutSeconds(1.5);
    appState_.setStatusBannerViewMessage("Your microphone is muted.");
    ASSERT_TRUE(processUntil([&] { return window_->bannerLabel()->isVisible(); }));
    EXPECT_EQ(window_->bannerLabel()->text().toStdString(), "Your microphone is muted.");
    EXPECT_TRUE(appState_.isShowingBanner());
    appState_.setInternetAvailable(false);
    const auto* network = window_->mainPane()->findChild<QLabel*>(QStringLiteral("network"));
    ASSERT_NE(network, nullptr);
    EXPECT_TRUE(network->isVisible());
    desktoptest::saveScreenshot("main-window-main");
    // The timeout runs on the application's loop.
    ASSERT_TRUE(processUntil([&] { return !window_->bannerLabel()->isVisible(); }, 5s));
    EXPECT_FALSE(appState_.statusBannerViewMessage().has_value());
    EXPECT_FALSE(appState_.isShowingBanner());
}

// A file manager on the private session bus that notes what it is asked to show.
class FakeFileManager final : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.member() != QStringLiteral("ShowItems")) return false;
        const auto args = message.arguments();
        if (args.size() == 2) {
            uris = args[0].toStringList();
            startupId = args[1].toString();
        }
        connection.send(message.createReply());
        return true;
    }
    QStringList uris;
    QString startupId = QStringLiteral("unset");
};

TEST(DesktopFileManagerReveal, AsksTheFileManagerOnTheBusAndOpensTheFolderWhereNoneAnswers) {
    std::string why;
    ASSERT_NE(desktoptest::application(&why), nullptr) << why;
    platform::test::TestPlatform tp;
    const fs::path file = tp.root() / "a folder" / "rec 1.caf";
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";

    std::vector<QString> opened;
    const auto opener = [&](const QString& folder) {
        opened.push_back(folder);
        return true;
    };
    // Nobody on the bus yet: the folder is opened instead, once the bus has said so.
    platform::FileManagerReveal reveal(QDBusConnection::sessionBus(), opener);
    EXPECT_TRUE(reveal.showItem(file));
    ASSERT_TRUE(processUntil([&] { return !opened.empty(); }));
    EXPECT_EQ(opened[0].toStdString(), file.parent_path().string());

    QDBusConnection manager = QDBusConnection::connectToBus(QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS")),
                                                            QStringLiteral("fake-file-manager"));
    FakeFileManager fake;
    ASSERT_TRUE(manager.registerVirtualObject(QStringLiteral("/org/freedesktop/FileManager1"), &fake));
    ASSERT_TRUE(manager.registerService(QStringLiteral("org.freedesktop.FileManager1")));
    EXPECT_TRUE(reveal.showItem(file));
    ASSERT_TRUE(processUntil([&] { return !fake.uris.isEmpty(); }));
    EXPECT_EQ(fake.uris, QStringList{QStringLiteral("file://") + QString::fromStdString(tp.root().string()) +
                                     QStringLiteral("/a%20folder/rec%201.caf")});
    EXPECT_EQ(fake.startupId, QString());
    desktoptest::settle();
    EXPECT_EQ(opened.size(), 1u) << "the folder was opened although the file manager answered";

    EXPECT_FALSE(reveal.showItem(tp.root() / "missing.caf"));
    manager.unregisterObject(QStringLiteral("/org/freedesktop/FileManager1"));
    manager.unregisterService(QStringLiteral("org.freedesktop.FileManager1"));
    QDBusConnection::disconnectFromBus(QStringLiteral("fake-file-manager"));
}

} // namespace
} // namespace sprelio
