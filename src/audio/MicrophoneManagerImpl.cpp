#include "audio/MicrophoneManagerImpl.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "audio/MicDeviceTransport.h"
#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

std::string flagText(bool value) { return value ? "true" : "false"; }

// Floats print the shortest way that reads back, always with a decimal point: 0.5, 1.0.
std::string floatText(float value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
    return text;
}

std::string namesText(const std::vector<MicDevice>& mics) {
    std::string text = "[";
    for (std::size_t i = 0; i < mics.size(); ++i) {
        if (i > 0) text += ", ";
        text += "\"" + mics[i].name + "\"";
    }
    return text + "]";
}

std::string transportText(MicDeviceTransportType type) { return std::string(micDeviceTransportTypeText(type)); }

Error deviceListError() {
    return Error{"NSOSStatusErrorDomain", -1, "CAError: the sound server did not list its input devices", {}};
}

} // namespace

bool isExternalMicTransport(MicDeviceTransportType type) {
    switch (type) {
    case MicDeviceTransportType::displayPort:
    case MicDeviceTransportType::firewire:
    case MicDeviceTransportType::hdmi:
    case MicDeviceTransportType::thunderbolt:
    case MicDeviceTransportType::usb: return true;
    default: return false;
    }
}

MicrophoneManagerImpl::MicrophoneManagerImpl(Dependencies deps) : deps_(std::move(deps)) {
    logInfo("DefaultInputDeviceListener.listenForDefaultInputDeviceChange()");
    const auto alive = lifetime_.token();
    deps_.devices.setChangeHandler([this, alive](platform::AudioDeviceChange change, platform::AudioDeviceID device) {
        if (alive) onDeviceChange(change, device);
    });
    if (deps_.systemEvents) {
        deps_.systemEvents->setWakeHandler([this, alive] {
            if (alive) systemDidWake();
        });
    }
    logInfo("MicrophoneManager.init()");
    deps_.loop.post([this, alive] {
        if (alive) selectOptimalInputDevice(true, false);
    });
}

MicrophoneManagerImpl::~MicrophoneManagerImpl() {
    lifetime_.expire();
    lifetime_.expire();
    deps_.devices.setChangeHandler({});
    if (deps_.systemEvents) deps_.systemEvents->setWakeHandler({});
}

std::optional<MicDevice> MicrophoneManagerImpl::selectOptimalInputDevice() {
    MicDevice chosen = selectOptimalInputDevice(false, false);
    if (chosen.id == 0) return std::nullopt;
    return chosen;
}

MicDevice MicrophoneManagerImpl::selectOptimalInputDevice(bool ignoreUserSelection, bool force) {
    // External microphones are judged on the list as it was before this refresh.
    std::vector<MicDevice> externalMics;
    std::copy_if(mics_.begin(), mics_.end(), std::back_inserter(externalMics),
                 [](const MicDevice& mic) { return isExternalMicTransport(mic.transportType); });
    const bool shouldIgnoreUserSelection = ignoreUserSelection || !externalMics.empty();
    logInfo("selectOptimalInputDevice() - shared.mics: " + namesText(mics_) +
            " - ignoreUserSelection: " + flagText(ignoreUserSelection) +
            " / shouldIgnoreUserSelection: " + flagText(shouldIgnoreUserSelection));

    try {
        refreshMicDevices("Microphone.selectOptimalInputDevice()", force);
    } catch (const Error&) {
        // The former list stands.
    }

    const auto byIdAscending = [](const MicDevice& a, const MicDevice& b) { return a.id < b.id; };
    std::optional<MicDevice> chosen;
    std::string prefix;

    const std::string userSelectedName = deps_.settings.userSelectedMicDeviceName();
    const auto userSelected =
        std::find_if(mics_.begin(), mics_.end(), [&](const MicDevice& mic) { return mic.name == userSelectedName; });
    if (userSelected != mics_.end() && !shouldIgnoreUserSelection) {
        chosen = *userSelected;
        prefix = "selectOptimalInputDevice() - userSelectedMicDevice: ";
    }
    if (!chosen && deps_.settings.preferExternalMicrophone() && !externalMics.empty()) {
        std::sort(externalMics.begin(), externalMics.end(),
                  [](const MicDevice& a, const MicDevice& b) { return a.id > b.id; });
        chosen = externalMics.front();
        prefix = "selectOptimalInputDevice() - recentestExternalMic: ";
    }
    const auto firstById = [&](auto predicate) -> std::optional<MicDevice> {
        std::vector<MicDevice> matching;
        std::copy_if(mics_.begin(), mics_.end(), std::back_inserter(matching), predicate);
        if (matching.empty()) return std::nullopt;
        return *std::min_element(matching.begin(), matching.end(), byIdAscending);
    };
    if (!chosen) {
        chosen = firstById([](const MicDevice& mic) {
            return mic.transportType != MicDeviceTransportType::continuity &&
                   mic.transportType != MicDeviceTransportType::virtualDevice;
        });
        if (chosen) prefix = "selectOptimalInputDevice() - oldestNonContinuityOrVirtualMic: ";
    }
    if (!chosen) {
        chosen =
            firstById([](const MicDevice &mic) { return transportText(mic.transportType) == "Continuity Camera"; });
        if (chosen) prefix = "selectOptimalInputDevice() - continuityMic: ";
    }
    if (!chosen) {
        chosen = firstById([](const MicDevice& mic) { return transportText(mic.transportType) == "Virtual"; });
        if (chosen) prefix = "selectOptimalInputDevice() - virtualMic: ";
    }

    MicDevice result;
    if (chosen) {
        result = *chosen;
        logInfo(prefix + result.name + " (" + transportText(result.transportType) + ")");
        setDefaultInputDevice(result.id, result.name, result.transportType);
    } else {
        logWarning("selectOptimalInputDevice() - UNABLE TO SELECT A MICROPHONE");
    }
    setSelectedMic(result);
    logInfo("selectOptimalInputDevice() - selected mic: " + result.name);
    return result;
}

void MicrophoneManagerImpl::refreshMicDevices(const std::string& caller, bool force) {
    if (refreshingMicDevices_) {
        logWarning("refreshMicDevices(caller: " + caller + ") - already refreshing, skipping method call");
        return;
    }
    if (!force) {
        const auto now = deps_.clock.now();
        const auto interval = std::chrono::duration_cast<std::chrono::system_clock::duration>(kMinRefreshInterval);
        if (lastRefreshTime_ && now - *lastRefreshTime_ <= interval) {
            logInfo("refreshMicDevices(caller: " + caller + ") - skipped (too frequent)");
            return;
        }
        lastRefreshTime_ = now;
    }
    refreshingMicDevices_ = true;
    struct Guard {
        bool& flag;
        ~Guard() { flag = false; }
    } guard{refreshingMicDevices_};

    // One list serves both the transport table and the devices: on this platform they are the same source, and
    // this runs before every recording, in the path of the first spoken word.
    const auto devices = deps_.devices.inputDevices();
    if (!devices) throw deviceListError();
    const auto transports = transportsByName(*devices);

    std::vector<MicDevice> fresh;
    fresh.reserve(devices->size());
    for (const auto& device : *devices) {
        const auto known = transports.find(device.name);
        fresh.push_back(MicDevice{device.id, device.name,
                                  known != transports.end() ? known->second : MicDeviceTransportType::unknown});
    }
    mics_ = std::move(fresh);
    std::string text = "refreshMicDevices(caller: " + caller + ") - freshMics (" + std::to_string(mics_.size()) + "):";
    for (const auto& mic : mics_) text += "\n• " + mic.name + " (" + transportText(mic.transportType) + ")";
    logInfo(std::move(text));
    publishChange();
}

std::map<std::string, MicDeviceTransportType> MicrophoneManagerImpl::listOfAVCaptureDevices() {
    const auto devices = deps_.devices.inputDevices();
    if (!devices) throw deviceListError();
    return transportsByName(*devices);
}

std::map<std::string, MicDeviceTransportType>
MicrophoneManagerImpl::transportsByName(const std::vector<platform::AudioInputDevice>& devices) {
    std::map<std::string, MicDeviceTransportType> result;
    for (const auto& device : devices) result[device.name] = micDeviceTransportType(device);
    std::string text = "[";
    bool first = true;
    for (const auto& [name, transport] : result) {
        if (!first) text += ", ";
        first = false;
        text += "\"" + name + "\": " + transportText(transport);
    }
    logInfo("listOfAVCaptureDevices() - avCaptureDevices: " + text + "]");
    return result;
}

bool MicrophoneManagerImpl::setDefaultInputDevice(platform::AudioDeviceID id, const std::string& name,
                                                  MicDeviceTransportType /*transport*/) {
    suppressNextInputCallback_ = true;
    // A failure goes unnoticed here: the recorder then records from the former default.
    (void)deps_.devices.setDefaultInputDevice(id);
    deps_.settings.setLastKnownInputDeviceID(int(id));
    deps_.settings.setUserSelectedMicDeviceName(name);
    return true;
}

void MicrophoneManagerImpl::maximizeMicrophoneVolume(platform::AudioDeviceID id) {
    const std::string idText = std::to_string(id);
    const auto muted = deps_.levels.readMute(id);
    if (muted && *muted != 0 && deps_.levels.writeMute(id, 0))
        logInfo("maximizeMicrophoneVolume() - Unmuted microphone: " + idText);
    const auto volume = deps_.levels.readVolume(id);
    if (!volume) {
        logWarning("maximizeMicrophoneVolume() - Could not get current volume for device: " + idText);
        return;
    }
    logInfo("maximizeMicrophoneVolume() - Current volume for device " + idText + ": " + floatText(*volume));
    if (*volume >= 1.0f) {
        logInfo("maximizeMicrophoneVolume() - Microphone volume already at maximum for device: " + idText);
        return;
    }
    if (deps_.levels.writeVolume(id, 1.0f))
        logInfo("maximizeMicrophoneVolume() - Successfully set microphone volume to maximum for device: " + idText);
    else
        logWarning("maximizeMicrophoneVolume() - Failed to set microphone volume to maximum for device: " + idText);
}

std::optional<platform::AudioDeviceID> MicrophoneManagerImpl::getDefaultInputDeviceID() {
    const auto id = deps_.devices.defaultInputDevice();
    if (!id) {
        logError("getDefaultInputDeviceID() - error getting default input device ID: the sound server did not answer");
        return std::nullopt;
    }
    return id;
}

std::optional<bool> MicrophoneManagerImpl::isMicrophoneMuted(platform::AudioDeviceID id) {
    const auto muted = deps_.levels.readMute(id);
    if (!muted) return std::nullopt;
    return *muted != 0;
}

double MicrophoneManagerImpl::lastRefreshTime() const {
    if (!lastRefreshTime_) return 0;
    return std::chrono::duration<double>(lastRefreshTime_->time_since_epoch()).count();
}

void MicrophoneManagerImpl::setSelectedMic(MicDevice mic) {
    selectedMic_ = std::move(mic);
    logInfo("selectedMic: selectedMic changed to " + selectedMic_.name + " of transportType " +
            transportText(selectedMic_.transportType));
    if (deps_.settings.setMicrophoneLevelToMaximum() && selectedMic_.id != 0) maximizeMicrophoneVolume(selectedMic_.id);
    publishChange();
}

void MicrophoneManagerImpl::publishChange() {
    if (onChange_) onChange_();
}

void MicrophoneManagerImpl::onDeviceChange(platform::AudioDeviceChange change, platform::AudioDeviceID device) {
    switch (change) {
    case platform::AudioDeviceChange::defaultChanged: defaultInputDeviceChangeCallback(); return;
    case platform::AudioDeviceChange::added: deviceWasAddedOrRemoved(true, device); return;
    case platform::AudioDeviceChange::removed: deviceWasAddedOrRemoved(false, device); return;
    }
}

void MicrophoneManagerImpl::defaultInputDeviceChangeCallback() {
    logInfo("DefaultInputDeviceListener.defaultInputDeviceChangeCallback()");
    if (!getDefaultInputDeviceID()) return;
    if (!deps_.appStatus) {
        logError("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - no AppDelegate");
    } else if (deps_.appStatus() == AppActivity::recording) {
        logWarning("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - app is .recording, will not "
                   "refresh!!");
        return;
    }
    if (suppressNextInputCallback_) {
        suppressNextInputCallback_ = false;
        logInfo("DefaultInputDeviceListener.defaultInputDeviceChangeCallback() - Input change callback suppressed "
                "(manual override in progress)");
        return;
    }
    selectOptimalInputDevice(false, true);
}

void MicrophoneManagerImpl::deviceWasAddedOrRemoved(bool added, platform::AudioDeviceID device) {
    const std::string method =
        added ? "InputDeviceListener.deviceWasAdded()" : "InputDeviceListener.deviceWasRemoved()";
    logInfo(method + " - notification: " + (added ? "input device added: " : "input device removed: ") +
            std::to_string(device));
    // The name of an arrival comes from the server; that of a removal from the list as we knew it.
    std::optional<std::string> name;
    if (added) {
        if (const auto devices = deps_.devices.inputDevices()) {
            for (const auto& d : *devices)
                if (d.id == device) name = d.name;
        }
    } else {
        for (const auto& mic : mics_)
            if (mic.id == device) name = mic.name;
    }
    // Only input devices the server describes count; one that has already gone again is no audio device to us.
    if (added && !name) return;
    if (added)
        logInfo("InputDeviceListener.deviceWasAdded() - audio device was added: " + *name);
    else
        logInfo("InputDeviceListener.deviceWasRemoved() - audio device was removed: " + name.value_or(""));
    if (recorderIsRecording()) return;
    scheduleSelectionAfterDeviceChange();
}

void MicrophoneManagerImpl::systemDidWake() {
    logInfo("InputDeviceListener.systemDidWake()");
    scheduleSelectionAfterDeviceChange();
}

void MicrophoneManagerImpl::scheduleSelectionAfterDeviceChange() {
    const auto alive = lifetime_.token();
    deps_.loop.post([this, alive] {
        if (alive) selectOptimalInputDevice(true, true);
    });
}

bool MicrophoneManagerImpl::recorderIsRecording() const {
    if (deps_.recorderIsRecording) return deps_.recorderIsRecording();
    return deps_.appStatus && deps_.appStatus() == AppActivity::recording;
}

} // namespace sprelio
