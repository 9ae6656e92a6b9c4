#pragma once
// The model of the machine's audio inputs: the list, the choice of the one to record from (made the system's
// default input, since the recorder always records the default), and its gain. The choice is made again at start,
// before each recording, when devices come and go, when the machine wakes and when someone else changes the
// default input.
//
// Everything here runs on the main loop; the sound server's reports arrive there already.
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/LifetimeGuard.h"
#include "audio/MicrophoneManager.h"
#include "shared/AppActivity.h"
#include "base/Error.h"
#include "platform/AudioDevices.h"
#include "platform/Clock.h"
#include "platform/InputDeviceLevels.h"
#include "platform/MainLoop.h"
#include "platform/SystemEvents.h"

namespace sprelio {

namespace store {
class Settings;
}

// An attached external microphone outranks the user's named choice. Bluetooth is deliberately not external.
bool isExternalMicTransport(MicDeviceTransportType type);

class MicrophoneManagerImpl final : public MicrophoneManager {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        platform::Clock& clock;
        platform::AudioDevices& devices;
        platform::InputDeviceLevels& levels;
        store::Settings& settings;
        platform::SystemEvents* systemEvents = nullptr; // no wake reports without it
        // The session's state; a change of the default input made by others is not followed while recording.
        std::function<AppActivity()> appStatus;
        // Whether the recorder is recording now; arrivals and removals don't disturb a recording. When empty,
        // appStatus() == recording stands in for it.
        std::function<bool()> recorderIsRecording;
    };

    static constexpr std::chrono::milliseconds kMinRefreshInterval{100};

    // Registers the listeners and posts the first selection to the main loop.
    explicit MicrophoneManagerImpl(Dependencies deps);
    ~MicrophoneManagerImpl() override;
    MicrophoneManagerImpl(const MicrophoneManagerImpl&) = delete;
    MicrophoneManagerImpl& operator=(const MicrophoneManagerImpl&) = delete;

    // The session's question, before each recording: the user's choice counts, the refresh is not forced.
    std::optional<MicDevice> selectOptimalInputDevice() override;
    // Returns the id-0 record when no device could be chosen.
    MicDevice selectOptimalInputDevice(bool ignoreUserSelection, bool force);

    // Throws sprelio::Error when the sound server can't list its devices; `mics` then stays as it was.
    void refreshMicDevices(const std::string& caller, bool force);
    // Device name to transport, as the sound server describes its inputs; a later device of a name replaces the
    // earlier. Throws sprelio::Error when the server can't be asked.
    std::map<std::string, MicDeviceTransportType> listOfAVCaptureDevices();
    bool setDefaultInputDevice(platform::AudioDeviceID id, const std::string& name, MicDeviceTransportType transport);
    void maximizeMicrophoneVolume(platform::AudioDeviceID id);
    std::optional<platform::AudioDeviceID> getDefaultInputDeviceID();
    // Nothing when the mute state can't be read.
    std::optional<bool> isMicrophoneMuted(platform::AudioDeviceID id);

    const std::vector<MicDevice>& mics() const { return mics_; }
    const MicDevice& selectedMic() const { return selectedMic_; }
    bool suppressNextInputCallback() const { return suppressNextInputCallback_; }
    bool refreshingMicDevices() const { return refreshingMicDevices_; }
    // Seconds since 1970 of the last refresh that ran unforced; 0 before the first.
    double lastRefreshTime() const;
    // Called after `mics` or `selectedMic` changed, for views that show them.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

private:
    // The name-to-transport table of a device list, logged as the capture-device list.
    static std::map<std::string, MicDeviceTransportType> transportsByName(
        const std::vector<platform::AudioInputDevice>& devices);
    void setSelectedMic(MicDevice mic);
    void publishChange();
    void onDeviceChange(platform::AudioDeviceChange change, platform::AudioDeviceID device);
    // The two watchers.
    void defaultInputDeviceChangeCallback();
    void deviceWasAddedOrRemoved(bool added, platform::AudioDeviceID device);
    void systemDidWake();
    void scheduleSelectionAfterDeviceChange();
    bool recorderIsRecording() const;

    Dependencies deps_;
    std::vector<MicDevice> mics_;
    MicDevice selectedMic_;
    bool suppressNextInputCallback_ = false;
    bool refreshingMicDevices_ = false;
    std::optional<std::chrono::system_clock::time_point> lastRefreshTime_;
    std::function<void()> onChange_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
