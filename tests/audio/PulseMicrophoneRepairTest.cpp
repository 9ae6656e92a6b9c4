// The microphone's mute and volume repair before a recording, through the real PulseAudio adapter: the session
// runs on the virtual-time test platform with its other neighbours faked, but the microphone choice and the
// device levels are the real ones against a private daemon, observed from outside with pactl.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "PulseDaemon.h"
#include "audio/MicrophoneManagerImpl.h"
#include "core/SessionFakes.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/test/TestPlatform.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::PulseDaemon;
using audio_test::trimmed;

// A dictation session whose only real parts are the sound server's devices and the microphone manager on them.
struct RealDevicesSession {
    explicit RealDevicesSession(PulseDaemon& server) : daemon(server) {}

    PulseDaemon& daemon;
    platform::test::TestPlatform tp;
    platform::PulseAudioConnection connection{"Sprelio tests"};
    platform::PulseAudioDevices devices{connection, tp.loop()};
    platform::Platform platform{tp.loop(), tp.loop(), tp, tp, tp, devices, tp, tp, tp, tp};
    store::MemorySettingsStore settingsStore;
    store::AppConstants constants{tp};
    store::Settings settings{settingsStore, constants};
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    testing::FakeToasts toasts;
    MessageCenter messages{platform, settings, appState, toasts, constants.appName()};
    testing::FakeRecorderFactory recorders;
    std::unique_ptr<MicrophoneManagerImpl> microphones;
    testing::FakeUploader uploader;
    testing::FakeSubstitutions substitutions;
    testing::FakeAccessibility accessibility;
    testing::FakeIntelligence intelligence;
    testing::FakeContinuousSpeech continuousSpeech;
    testing::FakeHistory history;
    testing::FakeResultsWindow resultsWindow;
    testing::FakeOverlay overlay;
    std::unique_ptr<AppDelegate> app;

    // The manager makes its first choice at once; `levelToMaximum` is the user's setting of the same name.
    void start(bool levelToMaximum) {
        ASSERT_TRUE(connection.waitUntilReady(5s));
        settings.setSetMicrophoneLevelToMaximum(levelToMaximum);
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1920, 1080}, 1.0, true}};
        settings.setSaveRecordingsFolder(tp.root() / "recordings");
        microphones = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
            tp.loop(), tp, devices, devices, settings, nullptr,
            [this] { return app ? app->appStatus() : AppActivity::idle; }, {}});
        app = std::make_unique<AppDelegate>(AppDelegateDependencies{
            platform, settings, appState, mirror, messages, recorders, *microphones, uploader, substitutions,
            accessibility, intelligence, continuousSpeech, history, resultsWindow, "com.sprelio.app", [] {}});
        app->setOverlayScreenController(&overlay);
        tp.runUntilIdle();
    }
    ~RealDevicesSession() {
        app.reset();
        microphones.reset();
    }

    // A press of the dictation key, carried through to the point where the recorder has been started or refused.
    void press() {
        tp.advance(1s); // past the refresh throttle, so that the press sees the server's list as it is now
        app->recordingShortcutDispatch(true, ShortcutAction::recordAndTranscribe, std::nullopt,
                                       testing::makeShortcut("recordAndTranscribe"));
        tp.runUntilIdle();
    }

    std::string pactl(const std::string& arguments) { return trimmed(daemon.pactl(arguments).out); }
    bool muted() { return pactl("get-source-mute mic") == "Mute: yes"; }
    // The volume as pactl prints it in per cent, e.g. " 66%".
    bool volumeIs(const std::string& percent) {
        return pactl("get-source-volume mic").find(" " + percent + " ") != std::string::npos;
    }
    std::vector<std::string> toastTexts() const {
        std::vector<std::string> texts;
        for (const auto& shown : toasts.shown) texts.push_back(shown.toast.messageText);
        return texts;
    }
};

class PulseMicrophoneRepairTest : public ::testing::Test {
protected:
    void SetUp() override { daemon.start(); }
    void TearDown() override { daemon.kill(); }

    platform::test::RecordingLogSink logs;
    PulseDaemon daemon;
};

TEST_F(PulseMicrophoneRepairTest, AMutedMicrophoneIsUnmutedAndSetTo66PerCentBeforeTheRecording) {
    RealDevicesSession s(daemon);
    s.start(false);
    ASSERT_EQ(s.daemon.pactl("set-source-volume mic 20%").exitCode, 0);
    ASSERT_EQ(s.daemon.pactl("set-source-mute mic 1").exitCode, 0);
    ASSERT_TRUE(s.muted());

    s.press();

    EXPECT_FALSE(s.muted()) << s.pactl("get-source-mute mic");
    EXPECT_TRUE(s.volumeIs("66%")) << s.pactl("get-source-volume mic");
    const auto id = s.devices.defaultInputDevice();
    ASSERT_TRUE(id);
    EXPECT_NEAR(s.devices.readVolume(*id).value_or(-1), 0.66f, 0.001f);
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone unmuted and volume raised"));
    // 0.66 is above the low-volume threshold: no second repair.
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_TRUE(s.toasts.shown.empty());
    ASSERT_EQ(s.recorders.made.size(), 1u);
    EXPECT_EQ(s.recorders.made[0]->recordCalls, 1);
    EXPECT_EQ(s.app->appStatus(), AppActivity::recording);
}

TEST_F(PulseMicrophoneRepairTest, AVeryLowVolumeIsRaisedTo66PerCentAndAUsableOneIsLeftAlone) {
    RealDevicesSession s(daemon);
    s.start(false);
    ASSERT_EQ(s.daemon.pactl("set-source-volume mic 20%").exitCode, 0);

    s.press();

    EXPECT_TRUE(s.volumeIs("66%")) << s.pactl("get-source-volume mic");
    EXPECT_FALSE(s.muted());
    EXPECT_TRUE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone unmuted and volume raised"));
    EXPECT_EQ(s.app->appStatus(), AppActivity::recording);

    // The next dictation, with a volume the user chose above the threshold: nothing is touched.
    s.app->setupMenuWithMainMenu();
    s.tp.runUntilIdle();
    ASSERT_EQ(s.app->appStatus(), AppActivity::idle);
    ASSERT_EQ(s.daemon.pactl("set-source-volume mic 40%").exitCode, 0);
    logs.clear();
    s.press();
    EXPECT_TRUE(s.volumeIs("40%")) << s.pactl("get-source-volume mic");
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_EQ(s.recorders.made.size(), 2u);
}

TEST_F(PulseMicrophoneRepairTest, WithLevelToMaximumTheChoiceAlreadyUnmutesAndRaisesToFull) {
    RealDevicesSession s(daemon);
    s.start(true);
    ASSERT_EQ(s.daemon.pactl("set-source-volume mic 20%").exitCode, 0);
    ASSERT_EQ(s.daemon.pactl("set-source-mute mic 1").exitCode, 0);
    logs.clear();

    s.press();

    const auto id = s.devices.defaultInputDevice();
    ASSERT_TRUE(id);
    const std::string idText = std::to_string(*id);
    EXPECT_FALSE(s.muted());
    EXPECT_TRUE(s.volumeIs("100%")) << s.pactl("get-source-volume mic");
    EXPECT_TRUE(logs.contains("maximizeMicrophoneVolume() - Unmuted microphone: " + idText));
    // 20 % is 13107 of 65536 on the server: a hair under 0.2.
    EXPECT_TRUE(logs.containsPrefix("maximizeMicrophoneVolume() - Current volume for device " + idText + ": 0.19"));
    EXPECT_TRUE(
        logs.contains("maximizeMicrophoneVolume() - Successfully set microphone volume to maximum for device: " + idText));
    // The session's own repair then finds a microphone that needs none.
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone unmuted and volume raised"));
    EXPECT_FALSE(logs.contains("recordingShortcutKeyDown() - Microphone volume raised"));
    EXPECT_EQ(s.app->appStatus(), AppActivity::recording);

    // At full volume already: said so, and left.
    logs.clear();
    EXPECT_EQ(s.microphones->isMicrophoneMuted(*id), false);
    s.microphones->maximizeMicrophoneVolume(*id);
    EXPECT_TRUE(logs.contains("maximizeMicrophoneVolume() - Microphone volume already at maximum for device: " + idText));
    // A device the server doesn't know: its volume can't be read.
    EXPECT_EQ(s.microphones->isMicrophoneMuted(4242), std::nullopt);
    s.microphones->maximizeMicrophoneVolume(4242);
    EXPECT_TRUE(logs.contains("maximizeMicrophoneVolume() - Could not get current volume for device: 4242",
                              LogLevel::warning));
}

TEST_F(PulseMicrophoneRepairTest, WithoutAnyMicrophoneThePressIsRefusedWithItsMessage) {
    // The daemon's only microphone is the pipe source; what remains is the null sink's monitor, which is none.
    const std::string modules = daemon.pactl("list short modules").out;
    std::string pipeModule;
    std::istringstream lines(modules);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("module-pipe-source") != std::string::npos) pipeModule = line.substr(0, line.find('\t'));
    }
    ASSERT_FALSE(pipeModule.empty()) << modules;
    ASSERT_EQ(daemon.pactl("unload-module " + pipeModule).exitCode, 0);

    RealDevicesSession s(daemon);
    s.start(true);
    s.press();

    EXPECT_TRUE(logs.contains("selectOptimalInputDevice() - UNABLE TO SELECT A MICROPHONE", LogLevel::warning));
    EXPECT_EQ(s.toastTexts(), std::vector<std::string>{
                                  "Your computer has no microphones that are accessible by Sprelio. Please connect a "
                                  "microphone to your computer first, then press the button below to relaunch the "
                                  "application."});
    EXPECT_TRUE(s.recorders.made.empty());
    EXPECT_EQ(s.app->appStatus(), AppActivity::idle);
}

} // namespace
} // namespace sprelio
