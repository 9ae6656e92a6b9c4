#pragma once
// Choice of the input device. The real manager lives on the audio side; the session only asks for the best device.
#include <optional>
#include <string>
#include <string_view>

#include "platform/InputDeviceLevels.h"

namespace sprelio {

// How a device is attached, in this order; the text is what logs print and comparisons use.
enum class MicDeviceTransportType {
    avb,
    bluetooth,
    builtin,
    displayPort,
    firewire,
    hdmi,
    pci,
    thunderbolt,
    usb,
    virtualDevice,
    continuity,
    unknown,
};

inline std::string_view micDeviceTransportTypeText(MicDeviceTransportType type) {
    switch (type) {
    case MicDeviceTransportType::avb: return "AVB";
    case MicDeviceTransportType::bluetooth: return "Bluetooth";
    case MicDeviceTransportType::builtin: return "Built-in";
    case MicDeviceTransportType::displayPort: return "DisplayPort";
    case MicDeviceTransportType::firewire: return "Firewire";
    case MicDeviceTransportType::hdmi: return "HDMI";
    case MicDeviceTransportType::pci: return "PCI";
    case MicDeviceTransportType::thunderbolt: return "Thunderbolt";
    case MicDeviceTransportType::usb: return "USB";
    case MicDeviceTransportType::virtualDevice: return "Virtual";
    case MicDeviceTransportType::continuity: return "Continuity Camera";
    case MicDeviceTransportType::unknown: return "Unknown";
    }
    return "Unknown";
}

struct MicDevice {
    platform::AudioDeviceID id = 0; // 0 means no device
    std::string name;
    MicDeviceTransportType transportType = MicDeviceTransportType::unknown;
};

class MicrophoneManager {
public:
    virtual ~MicrophoneManager() = default;
    // Activates the best input device and returns it; nothing when the machine has no input device.
    virtual std::optional<MicDevice> selectOptimalInputDevice() = 0;
};

} // namespace sprelio
