// When an update found in the background is offered: after the dictation, not while the user works in the main
// window, in 6-second steps; an hour after "Not now"; at once when the user asked. On virtual time, with the
// updater reading its feed from a transport on the same time line.
#include <gtest/gtest.h>

#include <chrono>

#include "diagnostics/UpdatePolicy.h"
#include "diagnostics/Updater.h"
#include "diagnostics/UpdateTestSupport.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using platform::test::RecordingLogSink;
using platform::test::TestPlatform;

constexpr const char* kFeed = "https://updates.example/appcast.xml";

struct Offer {
    double at;
    UpdateAlert alert;
};

struct PolicyHarness {
    TestPlatform tp;
    RecordingLogSink logs;
    updatetest::FeedOnVirtualTime http{tp};
    std::optional<AppActivity> status = AppActivity::idle;
    bool keyWindow = false;
    std::vector<Offer> offers;
    std::vector<std::function<void(int)>> answers;
    std::vector<std::pair<std::string, std::string>> toasts;
    std::vector<std::string> failures;
    int relaunches = 0;

    SparkleUpdaterDelegate delegate{SparkleUpdaterDelegate::Dependencies{
        tp.loop(), "Sprelio", "0.1.0", [this] { return status; }, [this] { return keyWindow; },
        [this](UpdateAlert alert, std::function<void(int)> answer) {
            offers.push_back({seconds(), std::move(alert)});
            answers.push_back(std::move(answer));
        },
        [this](std::string title, std::string text) { toasts.emplace_back(std::move(title), std::move(text)); },
        [this] { updater.checkForUpdatesInBackground(); }}};
    SparkleUserDriverDelegate driver;
    SPUUpdater updater{SPUUpdater::Dependencies{tp.loop(), http, [] { return std::string(kFeed); }, "Sprelio", "0.1.0",
                                                "", tp.root() / "updates", {}, [this] { ++relaunches; },
                                                [this](const std::string& message) { failures.push_back(message); }},
                       delegate, driver};

    PolicyHarness() {
        http.serve(kFeed, updatetest::appcastXml({{"0.2.0", "0.2.0", "https://updates.example/sprelio_0.2.0_amd64.deb",
                                                   "1000", "", ""}}));
    }
    double seconds() const { return std::chrono::duration<double>(tp.elapsed()).count(); }
    // The check the user asked for ("Check for Update") or the one in the background, up to its result.
    void check(bool userAsked) {
        if (userAsked) {
            updater.checkForUpdates();
        } else {
            updater.checkForUpdatesInBackground();
        }
        tp.runUntilIdle();
    }
    // Answers the offer on the screen.
    void answer(int response) {
        ASSERT_FALSE(answers.empty());
        auto done = std::move(answers.back());
        answers.pop_back();
        done(response);
        tp.runUntilIdle();
    }
};

// The state of the application over time: busy (or without AppDelegate) until one moment, its main window key
// until another; the first offer must come at the first 6-second step after both have passed.
struct OfferRow {
    const char* name;
    std::optional<AppActivity> busyState; // the state until busyUntil; nothing: no AppDelegate yet
    double busyUntil;
    double keyUntil;
    bool userAsked;
    double expectedOfferAt;
};

class UpdateOfferTiming : public ::testing::TestWithParam<OfferRow> {};

TEST_P(UpdateOfferTiming, TheOfferWaitsForAnIdleApplicationInSixSecondSteps) {
    const OfferRow row = GetParam();
    PolicyHarness h;
    const auto apply = [&] {
        const double t = h.seconds();
        h.status = t < row.busyUntil ? row.busyState : std::optional<AppActivity>(AppActivity::idle);
        h.keyWindow = t < row.keyUntil;
    };
    apply();
    h.check(row.userAsked);
    while (h.offers.empty() && h.seconds() < 120) {
        h.tp.advance(1s);
        apply();
    }
    ASSERT_EQ(h.offers.size(), 1u) << row.name;
    EXPECT_DOUBLE_EQ(h.offers[0].at, row.expectedOfferAt) << row.name;
    EXPECT_EQ(h.logs.count("SparkleDelegate.delayUpdateFor(6.0)"), static_cast<std::size_t>(row.expectedOfferAt / 6))
        << row.name;
    EXPECT_TRUE(h.delegate.showingUpdateAlert());
    EXPECT_EQ(h.http.requested.size(), 1u) << "the delays test again, they do not read the feed again";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UpdateOfferTiming,
    ::testing::Values(OfferRow{"idle, main window not key: offered at once", AppActivity::recording, 0, 0, false, 0},
                      OfferRow{"a dictation records until 7 s", AppActivity::recording, 7, 0, false, 12},
                      OfferRow{"processing until 13 s", AppActivity::processing, 13, 0, false, 18},
                      OfferRow{"continuous speech until 9 s", AppActivity::continuousSpeechActive, 9, 0, false, 12},
                      OfferRow{"no AppDelegate until 2 s", std::nullopt, 2, 0, false, 6},
                      OfferRow{"the main window is key until 20 s", AppActivity::idle, 0, 20, false, 24},
                      OfferRow{"dictation until 4 s, window key until 15 s", AppActivity::recording, 4, 15, false, 18},
                      OfferRow{"Check for Update skips the idle and window tests", AppActivity::recording, 100, 100,
                               true, 0}),
    updatetest::RowName());

TEST(UpdatePolicy, TheOfferHasTheTextsAndLogOfTheAlert) {
    PolicyHarness h;
    h.updater.checkForUpdatesInBackground();
    h.tp.runUntilIdle();
    ASSERT_EQ(h.offers.size(), 1u);
    EXPECT_EQ(h.offers[0].alert.messageText, "A new version of Sprelio is available!");
    EXPECT_EQ(h.offers[0].alert.informativeText,
              "Sprelio 0.2.0 is now available, you have 0.1.0. Would you like to quit and install it now?");
    EXPECT_EQ(h.offers[0].alert.firstButton, "Quit and Update now");
    EXPECT_EQ(h.offers[0].alert.secondButton, "Not now");
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - (bestValidUpdate)"));
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit)"));
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - all checks passed, proceeding with update!"));
    EXPECT_TRUE(h.logs.contains("standardUserDriverShouldHandleShowingScheduledUpdate: false"));
    EXPECT_TRUE(h.delegate.didFinishLoading());
    ASSERT_TRUE(h.delegate.item());
    EXPECT_EQ(h.delegate.item()->versionString, "0.2.0");
    EXPECT_EQ(h.delegate.updater(), &h.updater);
}

TEST(UpdatePolicy, NotNowBringsTheOfferBackOneHourLater) {
    PolicyHarness h;
    h.updater.checkForUpdatesInBackground();
    h.tp.runUntilIdle();
    ASSERT_EQ(h.offers.size(), 1u);
    h.answer(kAlertSecondButtonReturn);
    EXPECT_FALSE(h.delegate.showingUpdateAlert());
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Not now'"));
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.delayUpdateFor(3600.0)"));
    h.tp.advance(3599s);
    EXPECT_EQ(h.offers.size(), 1u) << "not before the hour is over";
    h.tp.advance(1s);
    ASSERT_EQ(h.offers.size(), 2u);
    EXPECT_DOUBLE_EQ(h.offers[1].at, 3600.0);
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.reloadUpdateDialog()"));
    EXPECT_EQ(h.http.requested.size(), 1u) << "the stored update is offered again without a new check";
}

TEST(UpdatePolicy, NotNowAndThenADictationWhenTheHourIsOverWaitsForItsEnd) {
    PolicyHarness h;
    h.updater.checkForUpdatesInBackground();
    h.tp.runUntilIdle();
    h.answer(kAlertSecondButtonReturn);
    h.tp.advance(3590s);
    h.status = AppActivity::recording;
    h.tp.advance(10s);
    EXPECT_EQ(h.offers.size(), 1u);
    h.tp.advance(4s);
    h.status = AppActivity::idle;
    h.tp.advance(2s);
    ASSERT_EQ(h.offers.size(), 2u);
    EXPECT_DOUBLE_EQ(h.offers[1].at, 3606.0);
}

TEST(UpdatePolicy, AfterTheUsersOwnCheckTheOfferAnHourLaterWaitsForIdleAgain) {
    PolicyHarness h;
    h.status = AppActivity::recording;
    h.check(true);
    ASSERT_EQ(h.offers.size(), 1u) << "the user asked: offered at once";
    h.answer(kAlertSecondButtonReturn);
    EXPECT_FALSE(h.delegate.userDidClickCheckForUpdateButton());
    h.tp.advance(3600s);
    EXPECT_EQ(h.offers.size(), 1u) << "a dictation runs an hour later";
    EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - app not idle, delaying update for 6.0"));
    h.status = AppActivity::idle;
    h.tp.advance(6s);
    EXPECT_EQ(h.offers.size(), 2u);
}

TEST(UpdatePolicy, QuitAndUpdateNowRunsTheImmediateInstallHandlerOnce) {
    PolicyHarness h;
    int installs = 0;
    SUAppcastItem item;
    item.versionString = item.displayVersionString = "0.3.0";
    item.fileURL = "https://updates.example/sprelio_0.3.0_amd64.deb";
    EXPECT_TRUE(h.delegate.willInstallUpdateOnQuit(h.updater, item, [&] { ++installs; }));
    ASSERT_EQ(h.offers.size(), 1u);
    EXPECT_EQ(installs, 0) << "nothing is installed before the user answers";
    h.answer(kAlertFirstButtonReturn);
    EXPECT_EQ(installs, 1);
    EXPECT_TRUE(
        h.logs.contains("SparkleDelegate.updater() - (willInstallUpdateOnQuit) - user clicked 'Quit and Update now'"));
    h.tp.advance(2h);
    EXPECT_EQ(h.offers.size(), 1u) << "no delay follows the installation";
}

TEST(UpdatePolicy, ADelayFiringWhileTheAlertIsUpDoesNothing) {
    PolicyHarness h;
    h.updater.checkForUpdatesInBackground();
    h.tp.runUntilIdle();
    ASSERT_EQ(h.offers.size(), 1u);
    // Two delays pending from earlier busy moments fire while the user has not answered yet.
    h.delegate.delayUpdateFor(SparkleUpdaterDelegate::kBusyDelay);
    h.delegate.delayUpdateFor(SparkleUpdaterDelegate::kBusyDelay);
    h.tp.advance(7s);
    EXPECT_EQ(h.logs.count("SparkleDelegate.reloadUpdateDialog()"), 2u);
    EXPECT_EQ(h.offers.size(), 1u) << "one alert at a time";
    EXPECT_TRUE(h.delegate.showingUpdateAlert());
    h.answer(kAlertSecondButtonReturn);
    EXPECT_FALSE(h.delegate.showingUpdateAlert());
}

// reloadUpdateDialog without a stored update checks again, unless the user's own check is the one under way.
struct ReloadRow {
    const char* name;
    bool userAsked;
    std::size_t expectedChecks;
};

class UpdateReloadWithoutUpdate : public ::testing::TestWithParam<ReloadRow> {};

TEST_P(UpdateReloadWithoutUpdate, ChecksInTheBackgroundUnlessTheUserAsked) {
    const ReloadRow row = GetParam();
    PolicyHarness h;
    h.delegate.setUserDidClickCheckForUpdateButton(row.userAsked);
    h.delegate.delayUpdateFor(SparkleUpdaterDelegate::kBusyDelay);
    h.tp.advance(6s);
    EXPECT_TRUE(h.logs.contains(
        "SparkleDelegate.reloadUpdateDialog() - updater: nil - running checkForUpdatesInBackground() instead"))
        << row.name;
    EXPECT_EQ(h.http.requested.size(), row.expectedChecks) << row.name;
}

INSTANTIATE_TEST_SUITE_P(Rows, UpdateReloadWithoutUpdate,
                         ::testing::Values(ReloadRow{"background", false, 1}, ReloadRow{"the user asked", true, 0}),
                         updatetest::RowName());

// No update in the feed: a toast when the user asked (and the flag is cleared), a warning in the log otherwise.
struct NoUpdateRow {
    const char* name;
    bool userAsked;
    bool toast;
};

class UpdateNotFound : public ::testing::TestWithParam<NoUpdateRow> {};

TEST_P(UpdateNotFound, IsShownOnlyWhenTheUserAsked) {
    const NoUpdateRow row = GetParam();
    PolicyHarness h;
    h.http.serve(kFeed, updatetest::appcastXml({{"0.1.0", "0.1.0", "https://updates.example/sprelio_0.1.0.deb",
                                                 "1000", "", ""}}));
    h.check(row.userAsked);
    EXPECT_TRUE(h.offers.empty()) << row.name;
    EXPECT_TRUE(h.logs.containsPrefix("SparkleDelegate.updater() - (updaterDidNotFindUpdate) - error: ")) << row.name;
    if (row.toast) {
        ASSERT_EQ(h.toasts.size(), 1u) << row.name;
        EXPECT_EQ(h.toasts[0].first, "No updates found!");
        EXPECT_EQ(h.toasts[0].second, "You are currently running the latest version of Sprelio");
    } else {
        EXPECT_TRUE(h.toasts.empty()) << row.name;
        EXPECT_TRUE(h.logs.contains("SparkleDelegate.updater() - (updaterDidNotFindUpdate) - "
                                    "userDidClickCheckForUpdateButton == false, handling silently",
                                    LogLevel::warning))
            << row.name;
    }
    EXPECT_FALSE(h.delegate.userDidClickCheckForUpdateButton()) << row.name;
}

INSTANTIATE_TEST_SUITE_P(Rows, UpdateNotFound,
                         ::testing::Values(NoUpdateRow{"background", false, false},
                                           NoUpdateRow{"the user asked", true, true}),
                         updatetest::RowName());

// A feed that can't be read: logged only in the background; the user who asked is told.
struct FailedCheckRow {
    const char* name;
    bool userAsked;
    std::size_t messages;
};

class UpdateCheckFailure : public ::testing::TestWithParam<FailedCheckRow> {};

TEST_P(UpdateCheckFailure, IsOnlyLoggedUnlessTheUserAsked) {
    const FailedCheckRow row = GetParam();
    PolicyHarness h;
    h.http.serve(kFeed, "<html><body>Not a feed</html>");
    h.check(row.userAsked);
    EXPECT_EQ(h.failures.size(), row.messages) << row.name;
    EXPECT_EQ(h.logs.containsPrefix("checkForUpdate() - error: "), row.userAsked) << row.name;
    EXPECT_TRUE(h.offers.empty() && h.toasts.empty()) << row.name;
    EXPECT_FALSE(h.delegate.userDidClickCheckForUpdateButton()) << row.name;
}

INSTANTIATE_TEST_SUITE_P(Rows, UpdateCheckFailure,
                         ::testing::Values(FailedCheckRow{"background", false, 0},
                                           FailedCheckRow{"the user asked", true, 1}),
                         updatetest::RowName());

// After the installation the relaunch waits while the application is busy, by the same test as the offer.
struct RelaunchRow {
    const char* name;
    std::optional<AppActivity> status;
    bool postpone;
};

class UpdateRelaunch : public ::testing::TestWithParam<RelaunchRow> {};

TEST_P(UpdateRelaunch, IsPostponedWhileTheApplicationIsBusy) {
    const RelaunchRow row = GetParam();
    PolicyHarness h;
    h.status = row.status;
    EXPECT_EQ(h.delegate.shouldPostponeRelaunchForUpdate(h.updater, SUAppcastItem{}), row.postpone) << row.name;
    EXPECT_TRUE(h.logs.contains("SparkleUpdaterDelegate.updater(shouldPostponeRelaunchForUpdate)"));
}

INSTANTIATE_TEST_SUITE_P(Rows, UpdateRelaunch,
                         ::testing::Values(RelaunchRow{"idle", AppActivity::idle, false},
                                           RelaunchRow{"recording", AppActivity::recording, true},
                                           RelaunchRow{"processing", AppActivity::processing, true},
                                           RelaunchRow{"no AppDelegate", std::nullopt, true}),
                         updatetest::RowName());

TEST(UpdatePolicy, TheUpdaterNeverAsksForPermissionAndChecksEveryDay) {
    PolicyHarness h;
    h.http.serve(kFeed, updatetest::appcastXml({}));
    h.updater.startUpdater();
    EXPECT_TRUE(h.logs.contains("SparkleUpdaterDelegate.updaterShouldPromptForPermissionToCheck(forUpdates)"));
    EXPECT_TRUE(h.http.requested.empty());
    h.tp.advance(24h - 1s);
    EXPECT_TRUE(h.http.requested.empty());
    h.tp.advance(1s);
    EXPECT_EQ(h.http.requested.size(), 1u);
    h.tp.advance(24h);
    EXPECT_EQ(h.http.requested.size(), 2u);
}

TEST(UpdatePolicy, SecondsAreWrittenAsTheLogWritesThem) {
    EXPECT_EQ(secondsText(6.0), "6.0");
    EXPECT_EQ(secondsText(3600.0), "3600.0");
    EXPECT_EQ(secondsText(0.5), "0.5");
}

} // namespace
} // namespace sprelio
