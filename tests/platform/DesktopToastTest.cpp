// Toasts on a real X desktop with a window manager: where they stand, one message at a time, the check box and the
// button driven by the mouse, and the application the user types in keeping the keyboard throughout.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QPushButton>

#include <memory>

#include "shared/AppState.h"
#include "platform/qt/QtMainLoop.h"
#include "platform/qt/QtScreens.h"
#include "platform/qt/QtToastPresenter.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

#include "DesktopTestSupport.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using desktoptest::Desktop;
using desktoptest::processUntil;
using platform::QtToastPresenter;
using platform::ToastWindow;

class DesktopToast : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        app_ = desktoptest::application(&why);
        ASSERT_NE(app_, nullptr) << why;
        loop_ = std::make_unique<platform::QtMainLoop>();
        presenter_ = std::make_unique<QtToastPresenter>(screens_);
        platform::Platform platform{*loop_, tp_.loop(), tp_, tp_, tp_, tp_, tp_, tp_, tp_, screens_};
        messages_ = std::make_unique<MessageCenter>(platform, settings_, appState_, *presenter_, "Sprelio");
    }
    void TearDown() override {
        if (presenter_) presenter_->closeAllToasts();
        desktoptest::settle();
        messages_.reset();
        presenter_.reset();
    }
    // The toasts on screen, once Qt has mapped them.
    std::vector<ToastWindow*> shownToasts() {
        desktoptest::settle();
        std::vector<ToastWindow*> shown;
        for (auto* w : presenter_->toastWindows())
            if (w->isVisible()) shown.push_back(w);
        return shown;
    }
    // Top-level widgets of this process that are toasts, deleted ones excluded.
    static int liveToastWidgets() {
        int count = 0;
        for (QWidget* w : QApplication::topLevelWidgets())
            if (qobject_cast<ToastWindow*>(w)) ++count;
        return count;
    }

    QApplication* app_ = nullptr;
    platform::test::TestPlatform tp_; // stands in for what toasts don't use: sounds, clock, folders
    std::unique_ptr<platform::QtMainLoop> loop_;
    platform::QtScreens screens_;
    store::MemorySettingsStore defaults_;
    store::AppConstants constants_{tp_};
    store::Settings settings_{defaults_, constants_};
    AppStateRealtimeMirror mirror_;
    AppState appState_{mirror_};
    std::unique_ptr<QtToastPresenter> presenter_;
    std::unique_ptr<MessageCenter> messages_;
};

TEST_F(DesktopToast, ToastStandsCentredOnTheScreenAndShowsItsParts) {
    SPRToastView toast;
    toast.messageTitle = "Upload";
    toast.messageText = "Upload failed.";
    toast.statusCode = 502;
    toast.showNeverShowAgain = true;
    toast.warningLevel = SPRToastViewWarningLevel::error;
    messages_->showSPRToast(toast);
    ASSERT_TRUE(processUntil([&] { return shownToasts().size() == 1; }));
    ToastWindow* window = shownToasts()[0];
    // 1280x800: the 320x240 toast at ((1280-320)/2, (800-240)/2), the same from either corner.
    ASSERT_TRUE(processUntil([&] { return window->frameGeometry() == QRect(480, 280, 320, 240); }))
        << window->frameGeometry().x() << "," << window->frameGeometry().y();
    EXPECT_EQ(window->shownText().toStdString(), "Error: Upload failed.");
    ASSERT_NE(window->neverShowAgainBox(), nullptr);
    EXPECT_EQ(window->neverShowAgainBox()->text().toStdString(), "Never show this again.");
    EXPECT_EQ(window->tapButton()->text().toStdString(), "Click here to dismiss");
    EXPECT_TRUE(window->windowFlags() & Qt::FramelessWindowHint);
    EXPECT_TRUE(window->windowFlags() & Qt::WindowStaysOnTopHint);
    desktoptest::saveScreenshot("toast");
}

TEST_F(DesktopToast, OnlyTheNewestMessageStaysOnScreen) {
    SPRToastView first;
    first.messageText = "First message";
    messages_->showSPRToast(first);
    ASSERT_TRUE(processUntil([&] { return shownToasts().size() == 1; }));
    SPRToastView second;
    second.messageText = "Second message";
    messages_->showSPRToast(second);
    ASSERT_TRUE(processUntil([&] { return liveToastWidgets() == 1; })) << "the first toast's window is still there";
    const auto shown = shownToasts();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0]->shownText().toStdString(), "Second message");
    EXPECT_EQ(messages_->toastCount(), 1u);
}

TEST_F(DesktopToast, ClicksWorkAndTheFocusedApplicationKeepsTheKeyboard) {
    desktoptest::ForeignWindow other;
    ASSERT_TRUE(processUntil([&] { return other.mapped(); }));
    other.focus();
    ASSERT_TRUE(processUntil([&] { return Desktop::instance().inputFocus() == other.window(); }));
    // The window manager marks the focused window as the active one a moment later.
    ASSERT_TRUE(processUntil([&] { return Desktop::instance().activeWindow() == other.window(); }));
    const Window activeBefore = Desktop::instance().activeWindow();

    // The message path's own toast: the check box and the dismissing button.
    messages_->showAlertForError(SPRLocalizedError::microphoneLowVolumeError, std::nullopt, false, true);
    ASSERT_TRUE(processUntil([&] { return shownToasts().size() == 1; }));
    ToastWindow* window = shownToasts()[0];
    ASSERT_TRUE(processUntil([&] { return window->frameGeometry() == QRect(480, 280, 320, 240); }));
    EXPECT_EQ(Desktop::instance().inputFocus(), other.window()) << "showing took the keyboard";

    ASSERT_TRUE(Desktop::instance().run(desktoptest::clickAt(window->neverShowAgainBox())));
    const std::string text = errorDescription(SPRLocalizedError::microphoneLowVolumeError, "Sprelio");
    ASSERT_TRUE(processUntil([&] { return !settings_.messagesToNeverShowAgain().empty(); }));
    EXPECT_EQ(settings_.messagesToNeverShowAgain(), (std::vector<std::string>{text}));
    EXPECT_EQ(Desktop::instance().inputFocus(), other.window()) << "the click took the keyboard";

    ASSERT_TRUE(Desktop::instance().run(desktoptest::clickAt(window->tapButton())));
    EXPECT_TRUE(processUntil([&] { return liveToastWidgets() == 0; })) << "the button did not dismiss the toast";
    EXPECT_EQ(Desktop::instance().inputFocus(), other.window());
    EXPECT_EQ(Desktop::instance().activeWindow(), activeBefore);

    // Ticked once, the text never shows again.
    SPRToastView again;
    again.messageText = text;
    messages_->showSPRToast(again);
    desktoptest::settle();
    EXPECT_EQ(liveToastWidgets(), 0);
}

TEST_F(DesktopToast, ButtonRunsTheCallersActionUnderItsOwnLabel) {
    int taps = 0;
    SPRToastView toast;
    toast.messageText = "Your session ended.";
    toast.tapActionText = "Log Out";
    toast.tapAction = [&] {
        ++taps;
        messages_->removeSPRToast();
    };
    messages_->showSPRToast(toast);
    ASSERT_TRUE(processUntil([&] { return shownToasts().size() == 1; }));
    ToastWindow* window = shownToasts()[0];
    EXPECT_EQ(window->tapButton()->text().toStdString(), "Log Out");
    EXPECT_EQ(window->neverShowAgainBox(), nullptr);
    ASSERT_TRUE(processUntil([&] { return window->frameGeometry() == QRect(480, 280, 320, 240); }));
    ASSERT_TRUE(Desktop::instance().run(desktoptest::clickAt(window->tapButton())));
    ASSERT_TRUE(processUntil([&] { return taps == 1; }));
    EXPECT_TRUE(processUntil([&] { return liveToastWidgets() == 0; }));
}

} // namespace
} // namespace sprelio
