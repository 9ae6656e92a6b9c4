// What keeps Sprelio from working, for the banner: the checks and their debounce, the session's notes, and AltGr
// on the dictation key.
#include <gtest/gtest.h>

#include "shared/AppState.h"
#include "diagnostics/UsabilityManager.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;

struct UsabilityHarness {
    platform::test::TestPlatform tp;
    platform::test::RecordingLogSink logs;
    bool microphone = true, access = true;
    int checks = 0, changes = 0;
    UsabilityManager usability{UsabilityManager::Dependencies{tp,
                                                              [this] {
                                                                  ++checks;
                                                                  return microphone;
                                                              },
                                                              [this] { return access; }, [] { return true; }, {}}};
    UsabilityHarness() {
        usability.onChange = [this] { ++changes; };
    }
};

TEST(UsabilityManager, ChecksWithinAThirdOfASecondAreSkipped) {
    UsabilityHarness h;
    h.usability.checkUsability("first");
    EXPECT_EQ(h.checks, 1);
    h.tp.advance(200ms);
    h.usability.checkUsability("burst");
    EXPECT_EQ(h.checks, 1);
    EXPECT_TRUE(h.logs.containsPrefix("checkUsability() - skipped, already checked within the last 0.33 seconds"));
    h.tp.advance(200ms);
    h.usability.checkUsability("later");
    EXPECT_EQ(h.checks, 2) << "0.4 s after the first check";
}

// The start's check runs before the sound server has listed its devices; the list arrives 50 ms later, inside the
// burst. The skipped check is run once the burst is over, so the banner ends up saying how the machine is.
TEST(UsabilityManager, ACheckSkippedInABurstRunsWhenTheBurstIsOver) {
    UsabilityHarness h;
    UsabilityManager usability{UsabilityManager::Dependencies{h.tp,
                                                              [&h] {
                                                                  ++h.checks;
                                                                  return h.microphone;
                                                              },
                                                              [] { return true; }, [] { return true; }, {}, &h.tp.loop()}};
    std::vector<UsabilityWarning> raised;
    usability.onWarningRaised = [&](UsabilityWarning w) { raised.push_back(w); };
    h.microphone = false;
    usability.checkUsability("verifyUsability");
    EXPECT_TRUE(usability.hasWarning(UsabilityWarning::microphone));
    h.tp.advance(50ms);
    h.microphone = true; // the first device list
    usability.checkUsability("MicrophoneManager.onChange");
    usability.checkUsability("MicrophoneManager.onChange"); // one re-run for the whole burst
    EXPECT_EQ(h.checks, 1);
    h.tp.advance(300ms);
    EXPECT_EQ(h.checks, 2);
    EXPECT_FALSE(usability.hasWarning(UsabilityWarning::microphone));
    h.tp.advance(2s);
    EXPECT_EQ(h.checks, 2) << "nothing further without a new request";
    EXPECT_EQ(raised, std::vector<UsabilityWarning>{UsabilityWarning::microphone});

    // Raised again when it comes back after having gone.
    h.microphone = false;
    usability.checkUsability("device removed");
    EXPECT_EQ(h.checks, 3);
    EXPECT_EQ(raised, (std::vector<UsabilityWarning>{UsabilityWarning::microphone, UsabilityWarning::microphone}));
}

TEST(UsabilityManager, WarningsComeAndGoWithWhatIsMissing) {
    UsabilityHarness h;
    h.microphone = false;
    h.usability.checkUsability("start");
    EXPECT_TRUE(h.usability.hasWarning(UsabilityWarning::microphone));
    EXPECT_FALSE(h.usability.hasWarning(UsabilityWarning::accessibility));
    EXPECT_TRUE(h.logs.contains("checkUsability() - added warning: Microphone Warning"));
    EXPECT_EQ(h.changes, 1);
    ASSERT_EQ(h.usability.bannerTexts().size(), 1u);

    h.tp.advance(1s);
    h.microphone = true;
    h.access = false;
    h.usability.checkUsability("device change");
    EXPECT_EQ(h.usability.activeWarnings(), std::set<UsabilityWarning>{UsabilityWarning::accessibility});
    EXPECT_TRUE(h.logs.contains("checkUsability() - checks finished, active warnings: [Accessibility Warning]"));
    EXPECT_EQ(h.changes, 2);

    h.tp.advance(1s);
    h.usability.checkUsability("unchanged");
    EXPECT_EQ(h.changes, 2) << "the banner is told only of changes";

    // The session's notes and a hotkey collision stand with the warnings, warnings first.
    h.usability.addSessionNote("Wayland");
    h.usability.setHotkeyCollision(std::string("AltGr"));
    EXPECT_EQ(h.usability.bannerTexts(),
              (std::vector<std::string>{usabilityWarningText(UsabilityWarning::accessibility), "Wayland", "AltGr"}));
    h.usability.setHotkeyCollision(std::nullopt);
    EXPECT_EQ(h.usability.bannerTexts().size(), 2u);
}

TEST(UsabilityManager, AltGrOnTheDictationKeyIsToldOnlyWhenTheKeyIsBound) {
    platform::test::TestPlatform tp;
    platform::test::RecordingLogSink logs;
    store::AppConstants constants{tp};
    store::MemorySettingsStore store;
    store::Settings settings{store, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    struct Toasts final : ToastPresenter {
        void showToast(const SPRToastView& toast, const platform::ScreenInfo&, const platform::Rect&,
                       std::function<void()>) override {
            shown.push_back(toast.messageText);
        }
        void closeAllToasts() override {}
        std::vector<std::string> shown;
    } toasts;
    tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
    MessageCenter messages{tp.platform(), settings, appState, toasts, "Sprelio"};

    EXPECT_EQ(checkForIncompatibilities(std::set<std::uint16_t>{61, 58}, false, "English (US)", &messages), std::nullopt);
    EXPECT_EQ(checkForIncompatibilities(std::set<std::uint16_t>{58}, true, "German", &messages), std::nullopt)
        << "AltGr is only in the way when the right Alt key dictates";
    EXPECT_EQ(checkForIncompatibilities(std::nullopt, true, "German", &messages), std::nullopt);
    const auto text = checkForIncompatibilities(std::set<std::uint16_t>{61}, true, "German", &messages);
    ASSERT_TRUE(text.has_value());
    EXPECT_NE(text->find("'German'"), std::string::npos);
    EXPECT_TRUE(logs.contains("checkForIncompatibilities() - hit: AltGr of German is using hotkey 61 too!"));
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 1u);
    EXPECT_EQ(toasts.shown[0], *text);
}

} // namespace
} // namespace sprelio
