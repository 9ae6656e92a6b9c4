#include "audio/MicDeviceTransport.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace sprelio {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

} // namespace

MicDeviceTransportType micDeviceTransportType(const platform::AudioInputDevice& device) {
    if (lower(device.formFactor) == "internal") return MicDeviceTransportType::builtin;
    const std::string bus = lower(device.bus);
    if (bus == "usb") return MicDeviceTransportType::usb;
    if (bus == "bluetooth") return MicDeviceTransportType::bluetooth;
    if (bus == "pci") return MicDeviceTransportType::pci;
    if (bus == "firewire") return MicDeviceTransportType::firewire;
    if (bus == "thunderbolt") return MicDeviceTransportType::thunderbolt;
    for (const auto& port : device.ports) {
        const std::string p = lower(port);
        if (p.find("hdmi") != std::string::npos) return MicDeviceTransportType::hdmi;
        if (p.find("displayport") != std::string::npos || p.find("display port") != std::string::npos)
            return MicDeviceTransportType::displayPort;
    }
    if (!device.hardware) return MicDeviceTransportType::virtualDevice;
    return MicDeviceTransportType::unknown;
}

MicDevice micDevice(const platform::AudioInputDevice& device) {
    return MicDevice{device.id, device.name, micDeviceTransportType(device)};
}

} // namespace sprelio
