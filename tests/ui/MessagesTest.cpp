// The message path: which errors reach the user, how often, with which sound and on which screens.
#include <gtest/gtest.h>

#include <thread>

#include "shared/AppState.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"
#include "ui/Messages.h"

using sprelio::Error;
using sprelio::LogLevel;
using sprelio::MessageCenter;
using sprelio::SPRLocalizedError;
using sprelio::SPRStringError;
using sprelio::platform::Rect;
using sprelio::platform::ScreenInfo;

namespace {

class RecordingToasts final : public sprelio::ToastPresenter {
public:
    struct Shown {
        sprelio::SPRToastView toast;
        std::string screen;
        Rect frame;
        std::function<void()> onNeverShowAgain;
    };
    void showToast(const sprelio::SPRToastView& toast, const ScreenInfo& screen, const Rect& frame,
                   std::function<void()> onNeverShowAgain) override {
        shown.push_back({toast, screen.name, frame, std::move(onNeverShowAgain)});
    }
    void closeAllToasts() override { ++closeCalls; }
    std::vector<Shown> shown;
    int closeCalls = 0;
};

class Messages : public ::testing::Test {
protected:
    sprelio::platform::test::RecordingLogSink logs;
    sprelio::platform::test::TestPlatform tp;
    sprelio::store::MemorySettingsStore store;
    sprelio::store::AppConstants constants{tp};
    sprelio::store::Settings settings{store, constants};
    sprelio::AppStateRealtimeMirror mirror;
    sprelio::AppState appState{mirror};
    RecordingToasts toasts;
    MessageCenter messages{tp.platform(), settings, appState, toasts, "Sprelio"};

    Messages() {
        tp.screenList = {ScreenInfo{"Left", std::string("1"), {0, 0, 1920, 1080}, 1.0, true},
                         ScreenInfo{"Right", std::string("2"), {1920, -200, 1280, 1024}, 2.0, false}};
        settings.setSoundEnabled(true);
    }
    static Error failure(std::string text) { return Error{"TestDomain", 7, std::move(text), {}}; }
};

TEST_F(Messages, OfflineErrorNeverShows) {
    messages.showAlertForError(Error{"NSURLErrorDomain", -1009, "The Internet connection appears to be offline.", {}});
    tp.runUntilIdle();
    EXPECT_TRUE(logs.contains("showAlertForError() - alerts disabled for NSError with code -1009, skipping error with "
                              "description: \"The Internet connection appears to be offline.\"",
                              LogLevel::warning));
    EXPECT_TRUE(toasts.shown.empty());
    EXPECT_TRUE(tp.calls().empty()); // no activation, no sound
    EXPECT_FALSE(appState.lastKnownErrorLocalizedDescription().has_value());
}

TEST_F(Messages, MissingErrorIsIgnored) {
    messages.showAlertForError(std::optional<Error>{});
    tp.runUntilIdle();
    EXPECT_TRUE(logs.contains("showErrorDialog() - called without supplying error, ignoring.", LogLevel::warning));
    EXPECT_TRUE(toasts.shown.empty());
}

TEST_F(Messages, ErrorActivatesPlaysGlassAndShowsOneToastPerScreen) {
    const Error error = failure("Upload failed.");
    messages.showAlertForError(error, 503);
    EXPECT_TRUE(toasts.shown.empty()); // nothing before the loop runs
    tp.runUntilIdle();
    const auto calls = tp.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0], "activateSelf");
    EXPECT_EQ(calls[1], "sound:Glass");
    EXPECT_TRUE(logs.contains("showAlertForError() - error.debugDescription: " + error.debugDescription()));
    ASSERT_EQ(toasts.shown.size(), 2u);
    EXPECT_EQ(toasts.shown[0].screen, "Left");
    EXPECT_EQ(toasts.shown[0].frame, (Rect{800, 420, 320, 240}));
    EXPECT_EQ(toasts.shown[1].screen, "Right");
    EXPECT_EQ(toasts.shown[1].frame, (Rect{1920 + 480, -200 + 392, 320, 240}));
    for (const auto& shown : toasts.shown) {
        EXPECT_EQ(shown.toast.messageText, "Upload failed.");
        EXPECT_EQ(shown.toast.statusCode, 503);
        EXPECT_FALSE(shown.toast.showNeverShowAgain);
        EXPECT_EQ(shown.toast.warningLevel, sprelio::SPRToastViewWarningLevel::error);
    }
    EXPECT_EQ(messages.toastCount(), 2u);
    EXPECT_EQ(appState.lastKnownErrorLocalizedDescription(), std::optional<std::string>("Upload failed."));
}

TEST_F(Messages, SameErrorTwiceShowsOnceUnlessRepeatsAreAsked) {
    messages.showAlertForError(failure("Upload failed."));
    messages.showAlertForError(failure("Upload failed."));
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.size(), 2u); // one error, two screens
    messages.showAlertForError(failure("Upload failed."), std::nullopt, true);
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.size(), 4u);
    // A new dictation clears the memory, so the same error shows again.
    appState.setLastKnownErrorLocalizedDescription(std::nullopt);
    messages.showAlertForError(failure("Upload failed."));
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.size(), 6u);
}

TEST_F(Messages, NewToastReplacesTheOldOnes) {
    messages.showAlertForError(failure("first"));
    messages.showAlertForError(failure("second"));
    tp.runUntilIdle();
    EXPECT_EQ(toasts.closeCalls, 2);
    EXPECT_EQ(messages.toastCount(), 2u);
    EXPECT_EQ(logs.count("removeSPRToast() - removing all SPRToastView instances"), 2u);
}

TEST_F(Messages, NeverShowAgainStillPlaysGlass) {
    const std::string text = sprelio::errorDescription(SPRLocalizedError::microphoneLowVolumeError, "Sprelio");
    messages.showAlertForError(SPRLocalizedError::microphoneLowVolumeError, std::nullopt, false, true);
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 2u);
    EXPECT_TRUE(toasts.shown[0].toast.showNeverShowAgain);

    // The user ticks the box.
    toasts.shown[0].onNeverShowAgain();
    EXPECT_EQ(settings.messagesToNeverShowAgain(), std::vector<std::string>{text});
    toasts.shown[1].onNeverShowAgain(); // the same text is kept once
    EXPECT_EQ(settings.messagesToNeverShowAgain().size(), 1u);

    tp.clearCalls();
    toasts.shown.clear();
    messages.showAlertForError(SPRLocalizedError::microphoneLowVolumeError, std::nullopt, true, true);
    tp.runUntilIdle();
    EXPECT_TRUE(tp.called("sound:Glass"));
    EXPECT_TRUE(toasts.shown.empty());
    EXPECT_TRUE(logs.contains("showSPRToast() - messageText is in messagesToNeverShowAgain - aborting showSPRToast. "
                              "(message: " + text + ")"));
}

TEST_F(Messages, NoSoundWhenSoundsAreOff) {
    settings.setSoundEnabled(false);
    messages.showAlertForError(failure("quiet"));
    tp.runUntilIdle();
    EXPECT_FALSE(tp.called("sound:Glass"));
    EXPECT_EQ(toasts.shown.size(), 2u);
}

TEST_F(Messages, UnauthorizedOffersLogOut) {
    int logouts = 0;
    messages.logout = [&]() { ++logouts; };
    messages.showAlertForError(failure("401 Unauthorized"));
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 2u);
    EXPECT_EQ(toasts.shown[0].toast.tapActionText, std::optional<std::string>("Log Out"));
    toasts.shown[0].toast.tapAction();
    EXPECT_EQ(logouts, 1);

    messages.showAlertForError(failure("Other"));
    tp.runUntilIdle();
    EXPECT_FALSE(toasts.shown.back().toast.tapActionText.has_value());
    toasts.shown.back().toast.tapAction();
    EXPECT_EQ(logouts, 1);
}

TEST_F(Messages, EmptyScreenListShowsNothing) {
    tp.screenList.clear();
    messages.showAlertForError(failure("nowhere"));
    tp.runUntilIdle();
    EXPECT_TRUE(toasts.shown.empty());
    EXPECT_EQ(messages.toastCount(), 0u);
    EXPECT_TRUE(tp.called("sound:Glass"));
}

TEST_F(Messages, CallableFromAnyThread) {
    std::thread worker([this]() { messages.showAlertForError(failure("from a worker")); });
    worker.join();
    EXPECT_TRUE(toasts.shown.empty());
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 2u);
    EXPECT_EQ(toasts.shown[0].toast.messageText, "from a worker");
}

TEST_F(Messages, AnErrorThatSaysWhatToSetUpIsShownOncePerRun) {
    const std::string advice = "No AI service is set up: name an OpenAI-compatible service in Sprelio's AI settings "
                               "(URL, model, key), or start a local one on 127.0.0.1:11434.";
    const Error notSetUp = SPRStringError::errorMessageError(std::string("AINotConfigured"), advice).toError();
    messages.showAlertForError(notSetUp, 501);
    tp.runUntilIdle();
    ASSERT_EQ(toasts.shown.size(), 2u); // two screens
    EXPECT_EQ(toasts.shown[0].toast.messageText, advice);

    // Every later dictation with an AI action gets the same answer: no toast, no sound, even when repeats are asked.
    for (bool showRepeated : {false, true}) {
        appState.setLastKnownErrorLocalizedDescription(std::nullopt); // what a new dictation does
        tp.clearCalls();
        messages.showAlertForError(notSetUp, 501, showRepeated);
        tp.runUntilIdle();
        EXPECT_FALSE(tp.called("sound:Glass"));
    }
    // The same name as the domain of an error built from the server's answer.
    appState.setLastKnownErrorLocalizedDescription(std::nullopt);
    messages.showAlertForError(Error{"AINotConfigured", 501, advice, {}});
    tp.runUntilIdle();
    EXPECT_EQ(toasts.shown.size(), 2u);
    EXPECT_EQ(logs.count("showAlertForError() - AINotConfigured was shown in this run already, not again"), 3u);

    // Any other error still shows at every dictation.
    for (int dictation = 0; dictation < 2; ++dictation) {
        appState.setLastKnownErrorLocalizedDescription(std::nullopt);
        messages.showAlertForError(failure("Upload failed."));
        tp.runUntilIdle();
    }
    EXPECT_EQ(toasts.shown.size(), 6u);

    // The next run of the application shows it again, once.
    RecordingToasts nextToasts;
    MessageCenter nextRun{tp.platform(), settings, appState, nextToasts, "Sprelio"};
    appState.setLastKnownErrorLocalizedDescription(std::nullopt);
    nextRun.showAlertForError(notSetUp);
    nextRun.showAlertForError(notSetUp, std::nullopt, true);
    tp.runUntilIdle();
    EXPECT_EQ(nextToasts.shown.size(), 2u);
}

TEST(LocalizedErrors, TextsRawValuesAndConversion) {
    EXPECT_EQ(sprelio::errorDescription(SPRLocalizedError::unknownError, "Sprelio"), "Unknown Error");
    EXPECT_EQ(sprelio::errorDescription(SPRLocalizedError::userCancelledRecordingError, "Sprelio"),
              "Cancelled recording.");
    EXPECT_EQ(sprelio::errorDescription(SPRLocalizedError::noVoiceDetectedWillRelaunchError, "Sprelio"),
              "We are unable to hear you!\n\nWe will now relaunch Sprelio in order to restore microphone access. "
              "Please allow microphone access when asked.\n\nIf the problem persists, check your microphone settings "
              "or select another one.");
    for (int raw = 0; raw <= 12; ++raw) {
        const auto kind = sprelio::sprLocalizedErrorFromRawValue(raw);
        ASSERT_TRUE(kind.has_value());
        const Error error = sprelio::makeError(*kind, "Sprelio");
        EXPECT_EQ(error.domain, "SPRLocalizedError");
        EXPECT_EQ(error.code, raw);
        EXPECT_FALSE(error.localizedDescription.empty());
        EXPECT_EQ(error.localizedDescription.find("<appName>"), std::string::npos);
    }
    EXPECT_FALSE(sprelio::sprLocalizedErrorFromRawValue(13).has_value());
    EXPECT_FALSE(sprelio::sprLocalizedErrorFromRawValue(-1).has_value());
    EXPECT_EQ(sprelio::sprLocalizedErrorName(SPRLocalizedError::microphoneMutedError), "microphoneMutedError");
}

TEST(StringErrors, DescriptionFallsBackFromMessageToTitleToUnknown) {
    EXPECT_EQ(SPRStringError::errorMessageError("Title", "Message").errorDescription(), "Message");
    EXPECT_EQ(SPRStringError::errorMessageError("Title", "").errorDescription(), "Title");
    EXPECT_EQ(SPRStringError::errorMessageError(std::nullopt, "").errorDescription(), "Unknown Error");
    const Error error = SPRStringError::errorMessageError(std::nullopt, "Quota exceeded").toError();
    EXPECT_EQ(error.domain, "SPRStringError");
    EXPECT_EQ(error.localizedDescription, "Quota exceeded");
}

} // namespace
