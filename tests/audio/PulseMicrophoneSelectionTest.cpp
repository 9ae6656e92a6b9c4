// The choice of the input device against a private PulseAudio daemon: pipe sources loaded and unloaded with pactl,
// the default changed behind our back.
#include <gtest/gtest.h>

#include <memory>

#include "PulseDaemon.h"
#include "audio/MicrophoneManagerImpl.h"
#include "platform/linux/PulseAudioConnection.h"
#include "platform/linux/PulseAudioDevices.h"
#include "platform/linux/SystemClock.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::PulseDaemon;
using audio_test::trimmed;

TEST(PulseMicrophoneSelection, TheRightSourceBecomesTheDefaultAsSourcesComeAndGo) {
    platform::test::RecordingLogSink logs;
    audio_test::TempDir fifos; // the pipe sources make their FIFOs here
    PulseDaemon daemon;
    daemon.start();
    const auto load = [&](const std::string& arguments) {
        const auto result = daemon.pactl("load-module " + arguments);
        EXPECT_EQ(result.exitCode, 0) << result.out;
        return trimmed(result.out);
    };
    const auto defaultSource = [&] { return trimmed(daemon.pactl("get-default-source").out); };
    load("module-pipe-source source_name=builtin file=" + (fifos / "builtin").string() + " "
         "\"source_properties=\\\"device.description='Built-in Mic' device.form_factor=internal\\\"\"");

    platform::PulseAudioConnection connection("Sprelio tests");
    ASSERT_TRUE(connection.waitUntilReady(5s));
    platform::RealTimeLoop loop;
    platform::PulseAudioDevices devices(connection, loop);
    platform::test::TestPlatform tp; // folders for the settings only
    store::MemorySettingsStore store;
    store::AppConstants constants{tp};
    store::Settings settings{store, constants};
    platform::SystemClock clock;
    AppActivity status = AppActivity::idle;
    MicrophoneManagerImpl manager({loop, clock, devices, devices, settings, nullptr, [&] { return status; }, {}});

    // At start: the pipe source is virtual, so the built-in one is taken and made the default.
    ASSERT_TRUE(loop.runUntil([&] { return manager.selectedMic().name == "Built-in Mic"; }, 5s));
    ASSERT_TRUE(loop.runUntil([&] { return defaultSource() == "builtin"; }, 5s));
    EXPECT_TRUE(logs.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Built-in Mic (Built-in)"));
    EXPECT_EQ(settings.userSelectedMicDeviceName(), "Built-in Mic");

    // A USB microphone arrives. The forced selection doesn't know it yet as external, the next press does.
    const auto usbModule = load("module-pipe-source source_name=usbmic file=" + (fifos / "usb").string() + " "
                                "\"source_properties=\\\"device.description='USB Mic' device.bus=usb\\\"\"");
    ASSERT_TRUE(loop.runUntil(
        [&] {
            return logs.contains("InputDeviceListener.deviceWasAdded() - audio device was added: USB Mic") &&
                   manager.mics().size() == 3;
        },
        5s));
    loop.runUntil([] { return false; }, 200ms); // let the forced selection run and the throttle pass
    ASSERT_TRUE(manager.selectOptimalInputDevice());
    EXPECT_EQ(manager.selectedMic().name, "USB Mic");
    ASSERT_TRUE(loop.runUntil([&] { return defaultSource() == "usbmic"; }, 5s));

    // Someone else picks the pipe source: the change is followed, and the external microphone wins again.
    logs.clear();
    ASSERT_EQ(daemon.pactl("set-default-source mic").exitCode, 0);
    ASSERT_TRUE(loop.runUntil(
        [&] {
            return logs.contains("DefaultInputDeviceListener.defaultInputDeviceChangeCallback()") &&
                   manager.selectedMic().name == "USB Mic" && defaultSource() == "usbmic";
        },
        5s));

    // While recording, a foreign change is left alone.
    status = AppActivity::recording;
    logs.clear();
    ASSERT_EQ(daemon.pactl("set-default-source mic").exitCode, 0);
    ASSERT_TRUE(loop.runUntil(
        [&] {
            return logs.contains("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - app is "
                                 ".recording, will not refresh!!");
        },
        5s));
    EXPECT_EQ(defaultSource(), "mic");
    status = AppActivity::idle;

    // The USB microphone goes; the next press falls back to the built-in one.
    ASSERT_EQ(daemon.pactl("unload-module " + usbModule).exitCode, 0);
    ASSERT_TRUE(loop.runUntil(
        [&] { return logs.contains("InputDeviceListener.deviceWasRemoved() - audio device was removed: USB Mic"); },
        5s));
    loop.runUntil([] { return false; }, 200ms);
    ASSERT_TRUE(manager.selectOptimalInputDevice());
    EXPECT_EQ(manager.selectedMic().name, "Built-in Mic");
    ASSERT_TRUE(loop.runUntil([&] { return defaultSource() == "builtin"; }, 5s));
}

} // namespace
} // namespace sprelio
