#pragma once
#include <cstdint>
#include <optional>

namespace sprelio::platform {

using AudioDeviceID = std::uint32_t;

// Mute and volume of an input device. Volume is a linear factor of the device's normal volume (1.0 = 100 %).
class InputDeviceLevels {
public:
    virtual ~InputDeviceLevels() = default;
    virtual std::optional<std::uint32_t> readMute(AudioDeviceID device) = 0;
    virtual bool writeMute(AudioDeviceID device, std::uint32_t muted) = 0;
    virtual std::optional<float> readVolume(AudioDeviceID device) = 0;
    virtual bool writeVolume(AudioDeviceID device, float volume) = 0;
};

} // namespace sprelio::platform
