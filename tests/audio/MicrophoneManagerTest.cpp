// The choice of the input device, on the test platform with an in-memory sound server.
#include <gtest/gtest.h>

#include <memory>

#include "FakeAudioDevices.h"
#include "audio/MicrophoneManagerImpl.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using audio_test::FakeAudioDevices;
using audio_test::FakeSystemEvents;
using platform::AudioDeviceChange;
using platform::test::RecordingLogSink;

class MicrophoneManagerTest : public ::testing::Test {
protected:
    // Builds the manager and lets its first selection run, then forgets what that did.
    void create() {
        manager_ = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
            tp_.loop(), tp_, devices_, tp_, settings_, &events_, [this] { return status_; }, {}});
        tp_.runUntilIdle();
        settle();
    }
    // Later selections must not fall within the throttle of the former ones.
    void settle() {
        tp_.advance(1s);
        devices_.setDefaultCalls.clear();
        tp_.clearCalls();
        logs_.clear();
    }
    void addDevice(platform::AudioInputDevice device) {
        tp_.devices[device.id] = {};
        devices_.list.push_back(std::move(device));
    }

    platform::test::TestPlatform tp_;
    RecordingLogSink logs_;
    store::MemorySettingsStore store_;
    store::AppConstants constants_{tp_};
    store::Settings settings_{store_, constants_};
    FakeAudioDevices devices_{tp_.loop()};
    FakeSystemEvents events_{tp_.loop()};
    AppActivity status_ = AppActivity::idle;
    std::unique_ptr<MicrophoneManagerImpl> manager_;
};

// ---- The rules ----

TEST_F(MicrophoneManagerTest, FirstSelectionAtStartIgnoresTheUserChoiceAndSetsTheDefault) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::bluetooth(5, "Headset"));
    settings_.setUserSelectedMicDeviceName("Headset");
    manager_ = std::make_unique<MicrophoneManagerImpl>(MicrophoneManagerImpl::Dependencies{
        tp_.loop(), tp_, devices_, tp_, settings_, &events_, [this] { return status_; }, {}});
    EXPECT_TRUE(logs_.contains("MicrophoneManager.init()"));
    EXPECT_TRUE(devices_.setDefaultCalls.empty()); // the selection is a posted task
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - shared.mics: [] - ignoreUserSelection: true / "
                               "shouldIgnoreUserSelection: true"));
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Built-in Microphone "
                               "(Built-in)"));
    EXPECT_EQ(devices_.setDefaultCalls, std::vector<platform::AudioDeviceID>{3});
    EXPECT_EQ(manager_->selectedMic().id, 3u);
    EXPECT_EQ(settings_.userSelectedMicDeviceName(), "Built-in Microphone");
    EXPECT_EQ(settings_.lastKnownInputDeviceID(), 3);
    EXPECT_TRUE(manager_->suppressNextInputCallback());
}

TEST_F(MicrophoneManagerTest, APressAsksTheSoundServerForItsDevicesOnce) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::usb(8, "USB Mic"));
    create();
    devices_.listCalls = 0;
    // The selection at key down runs before the recorder starts: one list must serve the transports and devices.
    ASSERT_TRUE(manager_->selectOptimalInputDevice());
    EXPECT_EQ(devices_.listCalls, 1);
    EXPECT_TRUE(logs_.containsPrefix("listOfAVCaptureDevices() - avCaptureDevices: "));
}

TEST_F(MicrophoneManagerTest, Rule1UserChoiceWinsWhenNoExternalMicIsKnown) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::bluetooth(5, "Headset"));
    create();
    settings_.setUserSelectedMicDeviceName("Headset");
    const auto chosen = manager_->selectOptimalInputDevice();
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->id, 5u);
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - userSelectedMicDevice: Headset (Bluetooth)"));
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - selected mic: Headset"));
    EXPECT_TRUE(logs_.contains("selectedMic: selectedMic changed to Headset of transportType Bluetooth"));
    EXPECT_EQ(devices_.setDefaultCalls, std::vector<platform::AudioDeviceID>{5});
}

TEST_F(MicrophoneManagerTest, ExternalMicOverrulesTheNamedChoiceEvenWithoutThePreference) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::usb(9, "USB Mic"));
    create(); // knows the USB microphone now
    settings_.setPreferExternalMicrophone(false);
    settings_.setUserSelectedMicDeviceName("Built-in Microphone");
    manager_->selectOptimalInputDevice(false, false);
    // Rule 3, not rule 1: the oldest of all but continuity and virtual devices.
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - shared.mics: [\"Built-in Microphone\", \"USB Mic\"] - "
                               "ignoreUserSelection: false / shouldIgnoreUserSelection: true"));
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Built-in Microphone "
                               "(Built-in)"));
    EXPECT_FALSE(logs_.containsPrefix("selectOptimalInputDevice() - userSelectedMicDevice: "));
}

TEST_F(MicrophoneManagerTest, Rule2TheMostRecentlyAttachedExternalMicWins) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::usb(12, "USB Later"));
    addDevice(FakeAudioDevices::usb(8, "USB Earlier"));
    create();
    settings_.setUserSelectedMicDeviceName("USB Earlier");
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 12u);
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - recentestExternalMic: USB Later (USB)"));
}

TEST_F(MicrophoneManagerTest, ExternalMicsAreJudgedOnTheListBeforeTheRefresh) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    addDevice(FakeAudioDevices::usb(9, "USB Mic")); // arrives unreported: this selection doesn't know it yet
    settings_.setUserSelectedMicDeviceName("Built-in Microphone");
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 3u);
    EXPECT_TRUE(logs_.containsPrefix("selectOptimalInputDevice() - userSelectedMicDevice: "));
    settle();
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 9u);
}

TEST_F(MicrophoneManagerTest, BluetoothIsNotExternal) {
    addDevice(FakeAudioDevices::bluetooth(2, "Headset"));
    addDevice(FakeAudioDevices::builtin(4, "Built-in Microphone"));
    create();
    settings_.setUserSelectedMicDeviceName("Built-in Microphone");
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 4u);
    settle();
    // Without a stored name that matches, rule 3 takes the oldest device, the headset here.
    settings_.setUserSelectedMicDeviceName("gone");
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 2u);
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Headset (Bluetooth)"));
}

TEST_F(MicrophoneManagerTest, Rule5OnlyAVirtualDevice) {
    addDevice(FakeAudioDevices::virtualSource(7, "Null Output"));
    addDevice(FakeAudioDevices::virtualSource(6, "Pipe"));
    create();
    settings_.setUserSelectedMicDeviceName("");
    EXPECT_EQ(manager_->selectOptimalInputDevice(true, false).id, 6u);
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - virtualMic: Pipe (Virtual)"));
}

TEST_F(MicrophoneManagerTest, Rule3PrefersAnyNonVirtualDeviceOverVirtualOnes) {
    addDevice(FakeAudioDevices::virtualSource(1, "Pipe"));
    addDevice(FakeAudioDevices::unknown(20, "Odd Device"));
    create();
    EXPECT_EQ(manager_->selectOptimalInputDevice(true, false).id, 20u);
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Odd Device (Unknown)"));
}

TEST_F(MicrophoneManagerTest, ADuplicateNameMatchesTheFirstInTheServersOrder) {
    addDevice(FakeAudioDevices::bluetooth(9, "Twin"));
    addDevice(FakeAudioDevices::builtin(4, "Twin"));
    create();
    settings_.setUserSelectedMicDeviceName("Twin");
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, false).id, 9u);
}

TEST_F(MicrophoneManagerTest, NoDeviceGivesTheEmptyRecordAndSetsNothing) {
    create();
    EXPECT_FALSE(manager_->selectOptimalInputDevice().has_value());
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - UNABLE TO SELECT A MICROPHONE", LogLevel::warning));
    EXPECT_TRUE(logs_.contains("selectedMic: selectedMic changed to  of transportType Unknown"));
    EXPECT_TRUE(devices_.setDefaultCalls.empty());
    EXPECT_EQ(manager_->selectedMic().id, 0u);
    EXPECT_FALSE(tp_.called("readVolume:0"));
}

TEST_F(MicrophoneManagerTest, AFailedListKeepsTheFormerOne) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    devices_.failList = true;
    EXPECT_THROW(manager_->refreshMicDevices("test", true), Error);
    ASSERT_EQ(manager_->mics().size(), 1u);
    // The selection swallows the failure and chooses from the list it has.
    EXPECT_EQ(manager_->selectOptimalInputDevice(false, true).id, 3u);
    EXPECT_FALSE(manager_->refreshingMicDevices());
}

// ---- The throttle ----

TEST_F(MicrophoneManagerTest, UnforcedRefreshesAreThrottledToOneEveryTenthOfASecond) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    manager_->refreshMicDevices("A", false);
    const double first = manager_->lastRefreshTime();
    EXPECT_DOUBLE_EQ(first, std::chrono::duration<double>(tp_.now().time_since_epoch()).count());
    const int calls = devices_.listCalls;

    tp_.advance(50ms);
    manager_->refreshMicDevices("B", false);
    EXPECT_TRUE(logs_.contains("refreshMicDevices(caller: B) - skipped (too frequent)"));
    tp_.advance(50ms); // exactly 0.1 s after the last: still skipped
    manager_->refreshMicDevices("C", false);
    EXPECT_TRUE(logs_.contains("refreshMicDevices(caller: C) - skipped (too frequent)"));
    EXPECT_EQ(devices_.listCalls, calls);
    EXPECT_EQ(manager_->lastRefreshTime(), first);

    // A forced one runs and doesn't move the mark.
    manager_->refreshMicDevices("F", true);
    EXPECT_GT(devices_.listCalls, calls);
    EXPECT_EQ(manager_->lastRefreshTime(), first);
    EXPECT_TRUE(logs_.contains("refreshMicDevices(caller: F) - freshMics (1):\n• Built-in Microphone (Built-in)"));

    tp_.advance(1ms);
    manager_->refreshMicDevices("D", false);
    EXPECT_FALSE(logs_.containsPrefix("refreshMicDevices(caller: D) - skipped"));
    EXPECT_GT(manager_->lastRefreshTime(), first);
}

TEST_F(MicrophoneManagerTest, ARefreshFromInsideARefreshIsSkipped) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    manager_->setOnChange([this] { manager_->refreshMicDevices("nested", true); });
    manager_->refreshMicDevices("outer", true);
    EXPECT_TRUE(logs_.contains("refreshMicDevices(caller: nested) - already refreshing, skipping method call",
                               LogLevel::warning));
}

// ---- Volume ----

TEST_F(MicrophoneManagerTest, ASelectionUnmutesAndRaisesTheVolume) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    tp_.devices[3] = {1, 0.5f, true, true};
    manager_->selectOptimalInputDevice(false, false);
    EXPECT_TRUE(tp_.called("writeMute:3:0"));
    EXPECT_EQ(tp_.devices[3].volume, 1.0f);
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Unmuted microphone: 3"));
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Current volume for device 3: 0.5"));
    EXPECT_TRUE(
        logs_.contains("maximizeMicrophoneVolume() - Successfully set microphone volume to maximum for device: 3"));
}

TEST_F(MicrophoneManagerTest, VolumeAlreadyFullOrUnreadableOrUnwritable) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    manager_->maximizeMicrophoneVolume(3);
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Current volume for device 3: 1.0"));
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Microphone volume already at maximum for device: 3"));
    EXPECT_FALSE(tp_.called("writeMute:3:0"));

    tp_.devices[3].volume.reset();
    manager_->maximizeMicrophoneVolume(3);
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Could not get current volume for device: 3",
                               LogLevel::warning));

    tp_.devices[3] = {0, 0.25f, true, false};
    manager_->maximizeMicrophoneVolume(3);
    EXPECT_TRUE(logs_.contains("maximizeMicrophoneVolume() - Failed to set microphone volume to maximum for device: 3",
                               LogLevel::warning));
}

TEST_F(MicrophoneManagerTest, NoVolumeChangeWhenTheSettingIsOff) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    settings_.setSetMicrophoneLevelToMaximum(false);
    tp_.devices[3] = {1, 0.5f, true, true};
    manager_->selectOptimalInputDevice(false, false);
    EXPECT_EQ(tp_.devices[3].volume, 0.5f);
    EXPECT_FALSE(tp_.called("writeMute:3:0"));
    EXPECT_EQ(manager_->isMicrophoneMuted(3), std::optional<bool>(true));
    tp_.devices[3].mute.reset();
    EXPECT_EQ(manager_->isMicrophoneMuted(3), std::nullopt);
}

// ---- The listeners ----

TEST_F(MicrophoneManagerTest, OurOwnDefaultChangeIsSwallowedOnceThenForeignChangesAreFollowed) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::bluetooth(5, "Headset"));
    create();
    ASSERT_TRUE(manager_->suppressNextInputCallback());
    devices_.report(AudioDeviceChange::defaultChanged, 3);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - Input change callback "
                               "suppressed (manual override in progress)"));
    EXPECT_FALSE(manager_->suppressNextInputCallback());
    EXPECT_TRUE(devices_.setDefaultCalls.empty());

    // Someone else picks the headset: a forced selection that honours the (unchanged) stored name.
    devices_.defaultDevice = 5;
    devices_.report(AudioDeviceChange::defaultChanged, 5);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("DefaultInputDeviceListener.defaultInputDeviceChangeCallback()"));
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - shared.mics: [\"Built-in Microphone\", \"Headset\"] - "
                               "ignoreUserSelection: false / shouldIgnoreUserSelection: false"));
    EXPECT_EQ(devices_.setDefaultCalls, std::vector<platform::AudioDeviceID>{3});
}

TEST_F(MicrophoneManagerTest, DefaultChangeDuringARecordingIsNotFollowed) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    status_ = AppActivity::recording;
    devices_.report(AudioDeviceChange::defaultChanged, 3);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - app is .recording, "
                               "will not refresh!!",
                               LogLevel::warning));
    EXPECT_TRUE(manager_->suppressNextInputCallback()); // still waiting for our own change
    EXPECT_TRUE(devices_.setDefaultCalls.empty());

    // No default to be read: nothing is done at all.
    status_ = AppActivity::idle;
    devices_.defaultDevice.reset();
    devices_.report(AudioDeviceChange::defaultChanged, 0);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.containsPrefix("getDefaultInputDeviceID() - error getting default input device ID: "));
    EXPECT_TRUE(manager_->suppressNextInputCallback());
}

TEST_F(MicrophoneManagerTest, ArrivalRemovalAndWakeForceASelectionIgnoringTheUserChoice) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    addDevice(FakeAudioDevices::bluetooth(5, "Headset"));
    create();
    settings_.setUserSelectedMicDeviceName("Headset");
    settings_.setPreferExternalMicrophone(true);

    addDevice(FakeAudioDevices::usb(11, "USB Mic"));
    devices_.report(AudioDeviceChange::added, 11);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("InputDeviceListener.deviceWasAdded() - audio device was added: USB Mic"));
    // Forced although the last refresh was a moment ago; the USB microphone wasn't known before it, so rule 3.
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: Built-in Microphone "
                               "(Built-in)"));
    EXPECT_EQ(manager_->mics().size(), 3u);
    settle();

    devices_.list.erase(devices_.list.begin()); // the built-in one goes
    devices_.report(AudioDeviceChange::removed, 3);
    tp_.runUntilIdle();
    EXPECT_TRUE(
        logs_.contains("InputDeviceListener.deviceWasRemoved() - audio device was removed: Built-in Microphone"));
    EXPECT_TRUE(logs_.contains("selectOptimalInputDevice() - recentestExternalMic: USB Mic (USB)"));
    EXPECT_EQ(devices_.setDefaultCalls, std::vector<platform::AudioDeviceID>{11});
    settle();

    settings_.setUserSelectedMicDeviceName("Headset");
    events_.wake();
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("InputDeviceListener.systemDidWake()"));
    EXPECT_EQ(devices_.setDefaultCalls, std::vector<platform::AudioDeviceID>{11});
}

TEST_F(MicrophoneManagerTest, DeviceArrivingDuringARecordingWaitsForTheNextHotkey) {
    addDevice(FakeAudioDevices::builtin(3, "Built-in Microphone"));
    create();
    status_ = AppActivity::recording;
    addDevice(FakeAudioDevices::usb(11, "USB Mic"));
    devices_.report(AudioDeviceChange::added, 11);
    tp_.runUntilIdle();
    EXPECT_TRUE(logs_.contains("InputDeviceListener.deviceWasAdded() - audio device was added: USB Mic"));
    EXPECT_TRUE(devices_.setDefaultCalls.empty());
    EXPECT_EQ(manager_->mics().size(), 1u);

    // An arrival that is gone again before we look isn't an input device to us.
    status_ = AppActivity::idle;
    devices_.report(AudioDeviceChange::added, 99);
    tp_.runUntilIdle();
    EXPECT_FALSE(logs_.containsPrefix("InputDeviceListener.deviceWasAdded() - audio device was added: \n"));
    EXPECT_TRUE(devices_.setDefaultCalls.empty());

    // The next press chooses it.
    EXPECT_EQ(manager_->selectOptimalInputDevice()->id, 3u);
    settle();
    EXPECT_EQ(manager_->selectOptimalInputDevice()->id, 11u);
}

TEST_F(MicrophoneManagerTest, TheManagerLetsGoOfItsListeners) {
    create();
    ASSERT_TRUE(devices_.hasHandler());
    devices_.report(AudioDeviceChange::added, 1);
    manager_.reset();
    EXPECT_FALSE(devices_.hasHandler());
    tp_.runUntilIdle(); // the report queued before must find nobody
}

} // namespace
} // namespace sprelio
