// The results dialog as a real window on a private X desktop with a window manager: the keys are real X input
// (xdotool) to the active window, the clicks real clicks on its item buttons. What the dialog delivers is what the
// session's paste would be handed.
#include <gtest/gtest.h>

#include <QLabel>
#include <QPlainTextEdit>

#include <algorithm>
#include <memory>

#include "ai/IntelligenceResultsView.h"
#include "ai/IntelligenceViewModelImpl.h"
#include "base/Digest.h"
#include "platform/qt/MainWindow.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtOverlayPanels.h"
#include "platform/qt/QtResultsWindow.h"
#include "platform/qt/QtScreens.h"
#include "platform/test/TestPlatform.h"
#include "shared/AppState.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/AppWindows.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;
using platform::QtResultsWindow;
using platform::test::RecordingLogSink;

TEST(ResultsDialogKeys, QtKeysReadAsTheDialogsKeyCodesAndFlags) {
    using View = IntelligenceResultsView;
    const auto key = [](int qtKey, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        const auto translated = platform::dialogKey(qtKey, modifiers);
        return translated ? std::make_pair(static_cast<int>(translated->keyCode), translated->flags)
                          : std::make_pair(-1, std::uint64_t{0});
    };
    EXPECT_EQ(key(Qt::Key_Return), std::make_pair(36, std::uint64_t{0}));
    EXPECT_EQ(key(Qt::Key_Return, Qt::ControlModifier), std::make_pair(36, View::kCommandFlag));
    EXPECT_EQ(key(Qt::Key_Return, Qt::MetaModifier), std::make_pair(36, View::kCommandFlag));
    EXPECT_EQ(key(Qt::Key_Tab), std::make_pair(48, std::uint64_t{0}));
    EXPECT_EQ(key(Qt::Key_Escape), std::make_pair(53, std::uint64_t{0}));
    EXPECT_EQ(key(Qt::Key_Z, Qt::ControlModifier), std::make_pair(6, View::kCommandFlag));
    EXPECT_EQ(key(Qt::Key_Left, Qt::KeypadModifier), std::make_pair(123, std::uint64_t{0xA00000}));
    EXPECT_EQ(key(Qt::Key_Right, Qt::ShiftModifier), std::make_pair(124, std::uint64_t{0xA20000}));
    EXPECT_EQ(key(Qt::Key_Down), std::make_pair(125, std::uint64_t{0xA00000}));
    EXPECT_EQ(key(Qt::Key_Up), std::make_pair(126, std::uint64_t{0xA00000}));
    EXPECT_EQ(key(Qt::Key_PageUp), std::make_pair(116, std::uint64_t{0x800000}));
    EXPECT_EQ(key(Qt::Key_PageDown), std::make_pair(121, std::uint64_t{0x800000}));
    EXPECT_EQ(key(Qt::Key_A).first, -1) << "a letter is the editor's";
    EXPECT_EQ(QtResultsWindow::hints(),
              (std::vector<QString>{"ESC -> Cancel", "Ctrl+Enter -> Use as is", "Ctrl+Z -> Undo the last Al operation",
                                    "Right mouse button -> Use Al without closing"}));
}

class DesktopResultsDialog : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_NE(desktoptest::application(&why), nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        pointer_ = std::make_unique<platform::QtPointerLocation>(screens_);
        tp_.frontmost = platform::RunningApplication{4242, "org.example.Editor", std::string("Editor")};
        catalogue_ = std::make_unique<IntelligenceViewModelImpl>(IntelligenceViewModelImpl::Dependencies{
            settings_, constants_, appState_, tp_, {},
            [this](const std::string& text) { delivered_.push_back("session:" + text); },
            [this](const std::string& text) { view_->showCompletion(text); }, {}, {}, nullptr,
            [this](const std::string& text) { view_->pasteToPreviousWindowThenClose(text); }});
        view_ = std::make_unique<IntelligenceResultsView>(IntelligenceResultsView::Dependencies{
            *loop_, settings_, tp_, screens_, *pointer_, *catalogue_, titles_.intelligenceResultsControllerWindowTitle,
            "com.sprelio.app", [this] { ++idleReturns_; },
            [this](const std::string& text) { delivered_.push_back(text); }});
        window_ = std::make_unique<QtResultsWindow>(*view_, screens_);
        view_->setWindow(window_.get());
        // The application's watch on its windows: Escape first, and the frame of every closing window.
        windows_ = std::make_unique<AppWindows>(AppWindows::Dependencies{
            *loop_, appState_, settings_, titles_, [] {}, [] {}, [] {}, [] {}});
        monitor_ = std::make_unique<platform::QtAppEventMonitor>(*windows_, screens_);
    }
    void TearDown() override {
        monitor_.reset();
        if (view_) view_->setWindow(nullptr);
        window_.reset();
        desktoptest::settle();
    }

    bool run(const std::string& command) const { return Desktop::instance().run(command); }
    // Opens the dialog and waits until it is the active window, with the keyboard in its editor.
    bool openWith(const std::string& text) {
        view_->showCompletion(text);
        return processUntil([&] {
            return window_->isVisible() && window_->isActiveWindow() && window_->windowHandle()->isExposed() &&
                   window_->editor()->hasFocus();
        });
    }
    bool closed() { return processUntil([&] { return !window_->isVisible() && !view_->isOpen(); }); }

    RecordingLogSink logs_;
    platform::test::TestPlatform tp_; // the application in front and its activation; screens and time are real
    std::unique_ptr<platform::QtMainLoop> loop_;
    platform::QtScreens screens_;
    std::unique_ptr<platform::QtPointerLocation> pointer_;
    store::MemorySettingsStore defaults_;
    store::AppConstants constants_{tp_};
    store::Settings settings_{defaults_, constants_};
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    WindowTitles titles_ = WindowTitles::make("Sprelio");
    std::unique_ptr<IntelligenceViewModelImpl> catalogue_;
    std::unique_ptr<IntelligenceResultsView> view_;
    std::unique_ptr<QtResultsWindow> window_;
    std::unique_ptr<AppWindows> windows_;
    std::unique_ptr<platform::QtAppEventMonitor> monitor_;
    std::vector<std::string> delivered_;
    int idleReturns_ = 0;
};

TEST_F(DesktopResultsDialog, ArrowsChooseAnItemTypingEditsTheTextAndReturnDeliversTheResult) {
    settings_.setAiLocalizedTranslationLanguages({languageTable().front()});
    ASSERT_TRUE(openWith("hello world")) << "the dialog did not become the active window";
    EXPECT_EQ(window_->windowTitle(), QStringLiteral("Sprelio AI Results"));
    EXPECT_EQ(window_->text(), QStringLiteral("hello world"));
    EXPECT_GE(idleReturns_, 1) << "opening returns the session to idle";
    for (const auto& hint : QtResultsWindow::hints()) {
        const auto labels = window_->findChildren<QLabel*>();
        EXPECT_TRUE(std::any_of(labels.begin(), labels.end(),
                                [&](const QLabel* label) { return label->isVisible() && label->text() == hint; }))
            << hint.toStdString();
    }
    for (const auto& item : view_->items()) {
        auto* button = window_->buttonFor(item.id);
        ASSERT_NE(button, nullptr) << item.title;
        EXPECT_TRUE(button->text().contains(QString::fromStdString(item.title)));
    }

    // Nothing chosen yet: Right takes the first item, then Down goes row by row.
    ASSERT_TRUE(run("xdotool key Right"));
    ASSERT_TRUE(processUntil([&] { return view_->selectedItemId() == md5Hex("editor"); }));
    ASSERT_TRUE(run("xdotool key Down Down Right Right Left"));
    ASSERT_TRUE(processUntil([&] { return view_->selectedItemId() == md5Hex("lowercaseAll"); }))
        << "selected: " << view_->selectedItemId();
    EXPECT_EQ(settings_.intelligenceResultsView_selectedItemId(), md5Hex("lowercaseAll"));
    ASSERT_TRUE(run("xdotool key Up"));
    ASSERT_TRUE(processUntil([&] { return view_->selectedItemId() == md5Hex("addEmoji"); }));
    ASSERT_TRUE(run("xdotool key Down Left"));
    ASSERT_TRUE(processUntil([&] { return view_->selectedItemId() == md5Hex("uppercaseAll"); }));

    // Letters and the space go to the editor.
    ASSERT_TRUE(run("xdotool type --delay 20 ' again'"));
    ASSERT_TRUE(processUntil([&] { return view_->generatedText() == "hello world again"; }))
        << "text: " << window_->text().toStdString();
    EXPECT_TRUE(window_->buttonFor(md5Hex("uppercaseAll"))->property("selected").toBool());
    desktoptest::saveScreenshot("results-dialog");

    ASSERT_TRUE(run("xdotool key Return"));
    ASSERT_TRUE(closed()) << "Return did not close the dialog";
    ASSERT_TRUE(processUntil([&] { return !delivered_.empty(); }));
    EXPECT_EQ(delivered_, std::vector<std::string>{"HELLO WORLD AGAIN"});
    EXPECT_TRUE(tp_.called("activate:4242:2")) << "the application that was in front is asked back";
    EXPECT_TRUE(logs_.contains(
        "intelligenceResultViewControllerWillClose() - window Sprelio AI Results will close, performing cleanup"));
    EXPECT_TRUE(logs_.containsPrefix("handleWindowClose() - saving IntelligenceResults window frame as "));
    EXPECT_TRUE(settings_.intelligenceResultsViewFrame().has_value()) << "the frame is kept for the next opening";
}

TEST_F(DesktopResultsDialog, ARightClickKeepsTheDialogWithTheResultAndCtrlZTakesItBack) {
    ASSERT_TRUE(openWith("Quiet Words"));
    auto* lower = window_->buttonFor(md5Hex("lowercaseAll"));
    ASSERT_NE(lower, nullptr);
    desktoptest::bringIntoView(lower);
    const QPoint at = lower->mapToGlobal(lower->rect().center());
    ASSERT_TRUE(run("xdotool mousemove " + std::to_string(at.x()) + " " + std::to_string(at.y()) + " click 3"));
    ASSERT_TRUE(processUntil([&] { return window_->text() == QStringLiteral("quiet words"); }))
        << "text: " << window_->text().toStdString();
    EXPECT_TRUE(window_->isVisible()) << "a right click keeps the dialog";
    EXPECT_EQ(view_->selectedItemId(), md5Hex("lowercaseAll"));
    EXPECT_TRUE(delivered_.empty());

    ASSERT_TRUE(processUntil([&] { return window_->isActiveWindow(); }));
    ASSERT_TRUE(run("xdotool key ctrl+z"));
    ASSERT_TRUE(processUntil([&] { return window_->text() == QStringLiteral("Quiet Words"); }));
    EXPECT_EQ(view_->undoDepth(), 0u);

    // A click into the editor gives it Tab's first press; the second selects the next item.
    ASSERT_TRUE(run(desktoptest::clickAt(window_->editor()->viewport())));
    ASSERT_TRUE(processUntil([&] { return view_->isEditorEnabledByTapGesture(); }));
    ASSERT_TRUE(run("xdotool key Tab"));
    ASSERT_TRUE(processUntil([&] { return !view_->isEditorEnabledByTapGesture(); }));
    EXPECT_EQ(view_->selectedItemId(), md5Hex("lowercaseAll"));
    EXPECT_EQ(window_->text(), QStringLiteral("Quiet Words")) << "Tab is no character in the text";
    ASSERT_TRUE(run("xdotool key Tab"));
    ASSERT_TRUE(processUntil([&] { return view_->selectedItemId() == md5Hex("lowercaseFirstChar"); }));

    ASSERT_TRUE(run("xdotool key Escape"));
    ASSERT_TRUE(closed()) << "Escape did not close the dialog";
    desktoptest::settle();
    EXPECT_TRUE(delivered_.empty()) << "Escape pastes nothing";
}

TEST_F(DesktopResultsDialog, ALeftClickRunsTheItemAndCtrlReturnUsesTheTextAsItIs) {
    ASSERT_TRUE(openWith("make me loud"));
    auto* upper = window_->buttonFor(md5Hex("uppercaseAll"));
    ASSERT_NE(upper, nullptr);
    ASSERT_TRUE(run(desktoptest::clickAt(upper)));
    ASSERT_TRUE(closed()) << "a left click closes the dialog";
    ASSERT_TRUE(processUntil([&] { return !delivered_.empty(); }));
    EXPECT_EQ(delivered_, std::vector<std::string>{"MAKE ME LOUD"});

    delivered_.clear();
    ASSERT_TRUE(openWith("as it stands"));
    ASSERT_TRUE(run("xdotool key ctrl+Return"));
    ASSERT_TRUE(closed()) << "Ctrl+Return did not close the dialog";
    ASSERT_TRUE(processUntil([&] { return !delivered_.empty(); }));
    EXPECT_EQ(delivered_, std::vector<std::string>{"as it stands"});
    EXPECT_TRUE(logs_.contains("pasteToPreviousWindowThenClose() - success: true with pasting <privatized>"));
}

} // namespace
} // namespace sprelio
