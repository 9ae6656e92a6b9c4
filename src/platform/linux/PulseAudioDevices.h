#pragma once
// Input devices, the default input, mute and volume through PulseAudio. The calls wait for the server's answer,
// bounded by a short time-out, so that a hung server can't hold the main loop for long.
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/AudioDevices.h"
#include "platform/InputDeviceLevels.h"
#include "platform/MainLoop.h"
#include "platform/linux/PulseAudioConnection.h"

namespace sprelio::platform {

class PulseAudioDevices final : public AudioDevices, public InputDeviceLevels {
public:
    static constexpr std::chrono::milliseconds kTimeout{500};

    PulseAudioDevices(PulseAudioConnection& connection, MainLoop& loop);
    ~PulseAudioDevices() override;
    PulseAudioDevices(const PulseAudioDevices&) = delete;
    PulseAudioDevices& operator=(const PulseAudioDevices&) = delete;

    std::optional<std::vector<AudioInputDevice>> inputDevices() override;
    std::optional<AudioDeviceID> defaultInputDevice() override;
    bool setDefaultInputDevice(AudioDeviceID device) override;
    void setChangeHandler(ChangeHandler handler) override;

    std::optional<std::uint32_t> readMute(AudioDeviceID device) override;
    bool writeMute(AudioDeviceID device, std::uint32_t muted) override;
    // A linear factor of the normal volume: 1.0 is 100 %, the average of the channels.
    std::optional<float> readVolume(AudioDeviceID device) override;
    bool writeVolume(AudioDeviceID device, float volume) override;

private:
    struct SourceState;
    std::optional<SourceState> sourceInfo(AudioDeviceID device);
    std::optional<std::string> defaultSourceName();
    void onConnectionState(bool ready);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                                  void* userdata);
    struct Refresh;
    static void refreshServerCallback(pa_context* context, const pa_server_info* info, void* userdata);
    static void refreshSourcesCallback(pa_context* context, const pa_source_info* info, int eol, void* userdata);
    void refreshKnownLocked(bool report);
    void report(AudioDeviceChange change, AudioDeviceID device);
    void track(pa_operation* operation);

    struct HandlerBox {
        std::mutex mutex;
        ChangeHandler handler;
    };

    PulseAudioConnection& connection_;
    MainLoop& loop_;
    int listenerToken_ = 0;

    // On the connection's thread, under its lock: what the reports are computed from.
    std::set<AudioDeviceID> knownInputs_;
    std::string knownDefault_;
    bool haveKnown_ = false;
    std::vector<pa_operation*> pending_; // cancelled when the adapter goes, so no callback finds it gone

    std::shared_ptr<HandlerBox> handlerBox_;
};

} // namespace sprelio::platform
