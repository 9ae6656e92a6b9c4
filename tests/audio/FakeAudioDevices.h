#pragma once
// An in-memory sound server for the microphone tests: a device list, a default input, and reports that the test
// sends when it wants them (posted to the main loop, as the real adapter does).
#include <optional>
#include <string>
#include <vector>

#include "platform/AudioDevices.h"
#include "platform/MainLoop.h"
#include "platform/SystemEvents.h"

namespace sprelio::audio_test {

class FakeAudioDevices final : public platform::AudioDevices {
public:
    explicit FakeAudioDevices(platform::MainLoop& loop) : loop_(loop) {}

    std::vector<platform::AudioInputDevice> list;
    std::optional<platform::AudioDeviceID> defaultDevice;
    bool failList = false;
    int listCalls = 0;
    std::vector<platform::AudioDeviceID> setDefaultCalls;

    std::optional<std::vector<platform::AudioInputDevice>> inputDevices() override {
        ++listCalls;
        if (failList) return std::nullopt;
        return list;
    }
    std::optional<platform::AudioDeviceID> defaultInputDevice() override { return defaultDevice; }
    bool setDefaultInputDevice(platform::AudioDeviceID device) override {
        setDefaultCalls.push_back(device);
        defaultDevice = device;
        return true;
    }
    void setChangeHandler(ChangeHandler handler) override { handler_ = std::move(handler); }
    bool hasHandler() const { return bool(handler_); }

    void report(platform::AudioDeviceChange change, platform::AudioDeviceID device) {
        loop_.post([this, change, device] {
            if (handler_) handler_(change, device);
        });
    }

    // Devices as the transport mapping reads them.
    static platform::AudioInputDevice usb(platform::AudioDeviceID id, std::string name) {
        return {id, std::move(name), "alsa_input.usb", "", "usb", {}, true, false};
    }
    static platform::AudioInputDevice builtin(platform::AudioDeviceID id, std::string name) {
        return {id, std::move(name), "alsa_input.pci", "internal", "pci", {}, true, false};
    }
    static platform::AudioInputDevice bluetooth(platform::AudioDeviceID id, std::string name) {
        return {id, std::move(name), "bluez_input", "headset", "bluetooth", {}, true, false};
    }
    static platform::AudioInputDevice virtualSource(platform::AudioDeviceID id, std::string name) {
        return {id, std::move(name), "null", "", "", {}, false, false};
    }
    static platform::AudioInputDevice unknown(platform::AudioDeviceID id, std::string name) {
        return {id, std::move(name), "alsa_input.x", "", "", {}, true, false};
    }

private:
    platform::MainLoop& loop_;
    ChangeHandler handler_;
};

class FakeSystemEvents final : public platform::SystemEvents {
public:
    explicit FakeSystemEvents(platform::MainLoop& loop) : loop_(loop) {}
    void setWakeHandler(WakeHandler handler) override { handler_ = std::move(handler); }
    void wake() {
        loop_.post([this] {
            if (handler_) handler_();
        });
    }

private:
    platform::MainLoop& loop_;
    WakeHandler handler_;
};

} // namespace sprelio::audio_test
