// The activation tracker: its two records, and the special case of the system's settings application.
#include <gtest/gtest.h>

#include "platform/test/TestPlatform.h"
#include "text/FrontmostAppTracker.h"
#include "text/TextDeliveryTestSupport.h"

using namespace sprelio;
using sprelio::texttest::application;

namespace {

struct Tracker {
    platform::test::RecordingLogSink log;
    platform::test::TestPlatform tp;
    std::vector<std::string> calls;
    bool granted = true;
    FrontmostAppTracker tracker{FrontmostAppTrackerDependencies{
        tp.loop(), tp, [this] { calls.push_back("deregisterEventTap"); },
        [this](bool userTriggered) { calls.push_back(std::string("registerEventTap:") + (userTriggered ? "true" : "false")); },
        [this] { return granted; }, [this] { calls.push_back("checkUsability"); },
        [this] { calls.push_back("activateSelf"); }}};
};

TEST(FrontmostAppTracker, ActivationsMoveCurrentToPreviousOncePerProcess) {
    Tracker t;
    EXPECT_EQ(t.tracker.currentApp(), std::nullopt); // nothing read at start
    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("gnome-text-editor"), 10));
    t.tp.runUntilIdle();
    ASSERT_TRUE(t.tracker.currentApp());
    EXPECT_EQ(*t.tracker.currentApp(), (FrontmostAppTracker::App{"gnome-text-editor", "org.gnome.TextEditor", 10}));
    EXPECT_EQ(t.tracker.previousApp(), std::nullopt);
    EXPECT_TRUE(t.log.contains("FrontmostAppTracker.updateApps() - currentApp: gnome-text-editor "
                               "(org.gnome.TextEditor) | previousApp: None"));

    // The same process again changes nothing; the same application relaunched (new pid) does.
    t.log.clear();
    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("gnome-text-editor"), 10));
    t.tp.runUntilIdle();
    EXPECT_TRUE(t.log.lines().empty());
    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("gnome-text-editor"), 11));
    t.tp.runUntilIdle();
    EXPECT_EQ(t.tracker.currentApp()->pid, 11);
    EXPECT_EQ(t.tracker.previousApp()->pid, 10);

    // No application, or one without a name: ignored. Without an identifier: "unknown.bundle.id".
    t.tp.activateApplication(std::nullopt);
    t.tp.activateApplication(application("nameless", std::nullopt, 12));
    t.tp.runUntilIdle();
    EXPECT_EQ(t.tracker.currentApp()->pid, 11);
    t.tp.activateApplication(application("", std::string("st"), 13));
    t.tp.runUntilIdle();
    EXPECT_EQ(t.tracker.currentApp()->bundleId, "unknown.bundle.id");
    EXPECT_TRUE(t.calls.empty());
}

TEST(FrontmostAppTracker, SettingsInFrontTakeTheTapDownAndLeavingThemBringsItBackWhenGranted) {
    Tracker t;
    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("Editor"), 10));
    t.tp.activateApplication(application("com.apple.systempreferences", std::string("System Settings"), 20));
    t.tp.runUntilIdle();
    EXPECT_TRUE(t.log.contains("FrontmostAppTracker.handleSystemSettingsFrontmost() - System Settings is frontmost, "
                               "applying special handling",
                               LogLevel::warning));
    EXPECT_EQ(t.calls, std::vector<std::string>{"deregisterEventTap"});

    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("Editor"), 10));
    t.tp.runUntilIdle();
    EXPECT_TRUE(t.log.contains("FrontmostAppTracker.handleSystemSettingsNoLongerFrontmost() - System Settings was "
                               "frontmost, now replaced by Editor (org.gnome.TextEditor)",
                               LogLevel::warning));
    EXPECT_TRUE(t.log.contains("FrontmostAppTracker.handleSystemSettingsNoLongerFrontmost() - isAXGranted: true"));
    EXPECT_EQ(t.calls, (std::vector<std::string>{"deregisterEventTap", "checkUsability", "registerEventTap:false"}));

    // Not granted: Sprelio comes to the front instead.
    t.calls.clear();
    t.granted = false;
    t.tp.activateApplication(application("com.apple.settings", std::string("Settings"), 21));
    t.tp.activateApplication(application("org.gnome.TextEditor", std::string("Editor"), 10));
    t.tp.runUntilIdle();
    EXPECT_TRUE(t.log.contains("FrontmostAppTracker.handleSystemSettingsNoLongerFrontmost() - isAXGranted: false"));
    EXPECT_EQ(t.calls, (std::vector<std::string>{"deregisterEventTap", "checkUsability", "activateSelf"}));
}

TEST(FrontmostAppTracker, GoneTrackerHearsNothingMore) {
    platform::test::TestPlatform tp;
    std::vector<std::string> calls;
    {
        FrontmostAppTracker tracker{FrontmostAppTrackerDependencies{
            tp.loop(), tp, [&] { calls.push_back("deregister"); }, {}, {}, {}, {}}};
        tp.activateApplication(application("com.apple.settings", std::string("Settings"), 21));
    }
    tp.runUntilIdle();
    EXPECT_TRUE(calls.empty());
}

} // namespace
