// The application's windows as the session drives them: opening a tab, the Escape key, the frames kept when a
// window closes, and the status banner's timeout, on virtual time.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shared/AppState.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/AppWindows.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using platform::test::RecordingLogSink;

// A window that writes what is done to it into the shared journal.
class JournalWindow final : public ContentWindow {
public:
    JournalWindow(std::string name, std::vector<std::string>& journal) : name_(std::move(name)), journal_(journal) {}
    bool miniaturized = false;
    bool key = false;
    bool isMiniaturized() const override { return miniaturized; }
    void deminiaturize() override {
        miniaturized = false;
        journal_.push_back(name_ + ".deminiaturize");
    }
    void makeKeyAndOrderFront() override {
        key = true;
        journal_.push_back(name_ + ".makeKeyAndOrderFront");
    }
    bool isKeyWindow() const override { return key; }
    void close() override {
        key = false;
        journal_.push_back(name_ + ".close");
    }
    void showTab(ContentViewTab tab) override { journal_.push_back(name_ + ".showTab:" + std::string(contentViewTabName(tab))); }

private:
    std::string name_;
    std::vector<std::string>& journal_;
};

class AppWindowsTest : public ::testing::Test {
protected:
    AppWindowsTest() {
        windows.setMainWindow(&mainWindow);
        windows.setTutorialWindow(&tutorial);
    }

    RecordingLogSink logs;
    platform::test::TestPlatform tp;
    store::MemorySettingsStore defaults;
    store::AppConstants constants{tp};
    store::Settings settings{defaults, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    std::vector<std::string> journal;
    JournalWindow mainWindow{"main", journal};
    JournalWindow tutorial{"tutorial", journal};
    AppWindows windows{AppWindows::Dependencies{
        tp.loop(), appState, settings, WindowTitles::make("Sprelio"),
        [this] { journal.push_back("capturePreviouslyActiveAppIfNeeded"); },
        [this] { journal.push_back("restoreFocusToPreviouslyActiveApp"); },
        [this] { journal.push_back("activateSelf"); }, [this] { journal.push_back("scrollHistoryToTop"); }}};
};

TEST_F(AppWindowsTest, OpeningATabSelectsItEverywhereAndBringsTheWindowForward) {
    windows.openTab(ContentViewTab::substitutions);
    EXPECT_EQ(appState.selectedContentViewTab(), ContentViewTab::substitutions);
    EXPECT_EQ(mirror.selectedContentViewTab(), ContentViewTab::substitutions) << "the event path's copy follows";
    EXPECT_EQ(journal, (std::vector<std::string>{"main.showTab:substitutions", "capturePreviouslyActiveAppIfNeeded",
                                                 "activateSelf", "main.makeKeyAndOrderFront"}));

    journal.clear();
    windows.openTab(ContentViewTab::history);
    EXPECT_EQ(journal, (std::vector<std::string>{"main.showTab:history", "scrollHistoryToTop",
                                                 "capturePreviouslyActiveAppIfNeeded", "activateSelf",
                                                 "main.makeKeyAndOrderFront"}));
}

TEST_F(AppWindowsTest, MiniaturisedWindowComesBackAndIsBroughtForwardATenthOfASecondLater) {
    mainWindow.miniaturized = true;
    windows.openTab(ContentViewTab::settings);
    EXPECT_EQ(journal, (std::vector<std::string>{"main.showTab:settings", "main.deminiaturize"}));
    tp.runUntilIdle();
    tp.advance(99ms);
    EXPECT_EQ(journal.size(), 2u);
    tp.advance(1ms);
    EXPECT_EQ(journal, (std::vector<std::string>{"main.showTab:settings", "main.deminiaturize",
                                                 "capturePreviouslyActiveAppIfNeeded", "activateSelf",
                                                 "main.makeKeyAndOrderFront"}));
}

TEST_F(AppWindowsTest, WithoutMainWindowTheTabIsStillSelectedAndTheMissingWindowLogged) {
    windows.setMainWindow(nullptr);
    windows.openTab(ContentViewTab::about);
    EXPECT_EQ(appState.selectedContentViewTab(), ContentViewTab::about);
    EXPECT_TRUE(journal.empty());
    EXPECT_TRUE(logs.contains("restoreAndShowWindow() - window is nil", LogLevel::warning));
}

TEST_F(AppWindowsTest, EscapeClosesTheKeyWindowOnlyAndHandsFocusOnAfterwards) {
    // Any other key passes untouched.
    EXPECT_FALSE(windows.keyDown(36));
    EXPECT_TRUE(logs.lines().empty());
    tp.runUntilIdle();
    EXPECT_TRUE(journal.empty());

    mainWindow.key = true;
    EXPECT_TRUE(windows.keyDown(53));
    EXPECT_EQ(journal, (std::vector<std::string>{"main.close"}));
    EXPECT_TRUE(logs.contains("AppDelegate.keyDown() - escape pressed"));
    tp.runUntilIdle();
    EXPECT_EQ(journal, (std::vector<std::string>{"main.close", "restoreFocusToPreviouslyActiveApp"}));

    journal.clear();
    tutorial.key = true;
    EXPECT_TRUE(windows.keyDown(53));
    EXPECT_TRUE(logs.contains("AppDelegate.keyDown() - closing tutorialViewController window"));
    tp.runUntilIdle();
    EXPECT_EQ(journal, (std::vector<std::string>{"tutorial.close", "restoreFocusToPreviouslyActiveApp"}));

    // No window of ours in front: nothing closes and the key passes on, focus is still handed on.
    journal.clear();
    EXPECT_FALSE(windows.keyDown(53));
    EXPECT_TRUE(logs.contains("AppDelegate.keyDown() - no window to close"));
    tp.runUntilIdle();
    EXPECT_EQ(journal, (std::vector<std::string>{"restoreFocusToPreviouslyActiveApp"}));
}

TEST_F(AppWindowsTest, FramesAreKeptForTheTutorialAndTheResultsWindowOnly) {
    const WindowTitles& titles = windows.titles();
    EXPECT_EQ(titles.contentViewWindowTitle.rfind("Sprelio ", 0), 0u);

    windows.handleWindowClose(ClosingWindow{titles.tutorialControllerWindowTitle, {100, 200, 640, 480}, true});
    windows.handleWindowClose(
        ClosingWindow{titles.intelligenceResultsControllerWindowTitle, {-300, 50.5, 500, 400}, true});
    EXPECT_EQ(settings.tutorialViewFrame(), (platform::Rect{100, 200, 640, 480}));
    EXPECT_EQ(settings.intelligenceResultsViewFrame(), (platform::Rect{-300, 50.5, 500, 400}));
    EXPECT_TRUE(logs.contains("handleWindowClose() - saving Tutorial window frame as 100,200,640,480"));

    logs.clear();
    windows.handleWindowClose(ClosingWindow{titles.contentViewWindowTitle, {1, 2, 3, 4}, true});
    EXPECT_TRUE(logs.contains("handleWindowClose() - unknown window title " + titles.contentViewWindowTitle +
                              ", frame not saved (this is not an error and only indicates we are not persisting "
                              "window frames for this window type)"));

    // Without a screen under the mouse nothing is saved, whichever window it is.
    windows.handleWindowClose(ClosingWindow{titles.tutorialControllerWindowTitle, {9, 9, 9, 9}, false});
    EXPECT_EQ(settings.tutorialViewFrame(), (platform::Rect{100, 200, 640, 480}));
    EXPECT_TRUE(logs.contains(
        "handleWindowClose() - unable to get screen with mouse or window information, frame not saved",
        LogLevel::warning));
}

TEST_F(AppWindowsTest, ReopenShowsTheSelectedTabAndAsksForAWindowOnlyWhenThereIsNone) {
    appState.setSelectedContentViewTab(ContentViewTab::history);
    EXPECT_FALSE(windows.applicationShouldHandleReopen(false));
    EXPECT_TRUE(journal.empty()) << "the tab is shown in a task of its own";
    tp.runUntilIdle();
    EXPECT_EQ(journal.front(), "main.showTab:history");
    EXPECT_EQ(journal.back(), "main.makeKeyAndOrderFront");

    windows.setMainWindow(nullptr);
    EXPECT_TRUE(windows.applicationShouldHandleReopen(true));
    EXPECT_TRUE(logs.contains("applicationShouldHandleReopen() - hasVisibleWindows: true"));
}

class StatusBannerTest : public ::testing::Test {
protected:
    StatusBannerTest() {
        appState.onChange = [this](std::string_view) { banner.update(); };
        banner.onChange = [this] { ++changes; };
    }
    platform::test::TestPlatform tp;
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    StatusBannerController banner{tp.loop(), appState};
    int changes = 0;
};

TEST_F(StatusBannerTest, MessageWithTimeoutGoesAwayOnItsOwnAndClearsAllThreeFields) {
    appState.setStatusBannerViewTimeoutSeconds(3.0);
    appState.setStatusBannerViewMessage("Microphone is muted");
    EXPECT_EQ(banner.shownMessage(), "Microphone is muted");
    EXPECT_TRUE(appState.isShowingBanner());

    tp.advance(2999ms);
    EXPECT_TRUE(appState.isShowingBanner());
    tp.advance(1ms);
    EXPECT_FALSE(banner.shownMessage().has_value());
    EXPECT_FALSE(appState.isShowingBanner());
    EXPECT_FALSE(appState.statusBannerViewMessage().has_value());
    EXPECT_FALSE(appState.statusBannerViewTimeoutSeconds().has_value());
    EXPECT_EQ(changes, 2);
}

TEST_F(StatusBannerTest, NewMessageStartsTheTimeoutOverAndOneWithoutTimeoutStays) {
    appState.setStatusBannerViewMessage("first");
    appState.setStatusBannerViewTimeoutSeconds(2.0);
    tp.advance(1500ms);
    appState.setStatusBannerViewMessage("second");
    tp.advance(1500ms);
    EXPECT_EQ(banner.shownMessage(), "second") << "the first message's timer must not take the second away";
    tp.advance(500ms);
    EXPECT_FALSE(banner.shownMessage().has_value());

    appState.setStatusBannerViewMessage("stays");
    tp.advance(24h);
    EXPECT_EQ(banner.shownMessage(), "stays");
    EXPECT_TRUE(appState.isShowingBanner());
    banner.clear(); // the user dismisses it
    EXPECT_FALSE(appState.isShowingBanner());
    EXPECT_FALSE(appState.statusBannerViewMessage().has_value());
    EXPECT_EQ(tp.loop().pendingTimers(), 0u);
}

} // namespace
} // namespace sprelio
