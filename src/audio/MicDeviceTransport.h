#pragma once
// How an input device is attached, from what the sound server tells of it.
#include "audio/MicrophoneManager.h"
#include "platform/AudioDevices.h"

namespace sprelio {

// The form factor "internal" is built in; then the bus; then HDMI and DisplayPort ports; devices that software made
// (null, pipe, remap and other module-made sources) are virtual; all else is unknown.
MicDeviceTransportType micDeviceTransportType(const platform::AudioInputDevice& device);

MicDevice micDevice(const platform::AudioInputDevice& device);

} // namespace sprelio
