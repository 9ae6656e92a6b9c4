#pragma once
// The machine's audio inputs: the list, the default input, and word of changes.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/InputDeviceLevels.h"

namespace sprelio::platform {

// One input device as the sound server describes it. Monitors of outputs are never listed: they are no microphones.
struct AudioInputDevice {
    AudioDeviceID id = 0;    // grows as devices arrive, so a higher id is a device attached later
    std::string name;        // the name shown to the user and matched against the user's choice
    std::string serverName;  // the sound server's own name of the device
    // What the attachment is told by; the audio side turns these into a transport type.
    std::string formFactor;  // e.g. "internal", "webcam", "headset"
    std::string bus;         // e.g. "usb", "bluetooth", "pci"
    std::vector<std::string> ports; // port names and descriptions, for HDMI and DisplayPort inputs
    bool hardware = false;   // false for devices that software made (null, pipe, remap, loopback, ...)
    bool isDefault = false;
};

enum class AudioDeviceChange { added, removed, defaultChanged };

class AudioDevices {
public:
    // Posted to the main loop. For defaultChanged, `device` is the new default input (0 when unknown).
    using ChangeHandler = std::function<void(AudioDeviceChange change, AudioDeviceID device)>;

    virtual ~AudioDevices() = default;
    // Every input device in the server's order; nothing when the server can't be asked.
    virtual std::optional<std::vector<AudioInputDevice>> inputDevices() = 0;
    virtual std::optional<AudioDeviceID> defaultInputDevice() = 0;
    virtual bool setDefaultInputDevice(AudioDeviceID device) = 0;
    // One handler; a new one replaces the former, an empty one stops the reports.
    virtual void setChangeHandler(ChangeHandler handler) = 0;
};

} // namespace sprelio::platform
