#include "platform/linux/PulseAudioDevices.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

std::string property(const pa_proplist* props, const char* key) {
    const char* value = props ? pa_proplist_gets(props, key) : nullptr;
    return value ? value : "";
}

bool isMonitor(const pa_source_info* info) { return info->monitor_of_sink != PA_INVALID_INDEX; }

AudioInputDevice deviceFrom(const pa_source_info* info) {
    AudioInputDevice device;
    device.id = info->index;
    device.serverName = info->name ? info->name : "";
    device.name = info->description ? info->description : device.serverName;
    device.formFactor = property(info->proplist, PA_PROP_DEVICE_FORM_FACTOR);
    device.bus = property(info->proplist, PA_PROP_DEVICE_BUS);
    if (info->active_port) {
        if (info->active_port->name) device.ports.emplace_back(info->active_port->name);
        if (info->active_port->description) device.ports.emplace_back(info->active_port->description);
    }
    device.hardware = (info->flags & PA_SOURCE_HARDWARE) != 0;
    return device;
}

// What one query of the server collects; owned by the waiting caller, or by the pending operation for the
// asynchronous refreshes.
struct ListQuery {
    PulseAudioConnection* connection = nullptr;
    std::vector<AudioInputDevice> devices;
    std::vector<pa_cvolume> volumes;
    std::vector<int> mutes;
    std::string defaultName;
    bool done = false;
    bool ok = true;
};

void sourceListCallback(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* query = static_cast<ListQuery*>(userdata);
    if (eol) {
        if (eol < 0) query->ok = false;
        query->done = true;
        query->connection->notify();
        return;
    }
    if (isMonitor(info)) return;
    query->devices.push_back(deviceFrom(info));
    query->volumes.push_back(info->volume);
    query->mutes.push_back(info->mute);
}

void serverInfoCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* query = static_cast<ListQuery*>(userdata);
    if (info && info->default_source_name) query->defaultName = info->default_source_name;
    if (!info) query->ok = false;
    query->done = true;
    query->connection->notify();
}

struct SuccessQuery {
    PulseAudioConnection* connection = nullptr;
    bool done = false;
    bool success = false;
};

void successCallback(pa_context*, int success, void* userdata) {
    auto* query = static_cast<SuccessQuery*>(userdata);
    query->success = success != 0;
    query->done = true;
    query->connection->notify();
}

} // namespace

struct PulseAudioDevices::SourceState {
    AudioInputDevice device;
    pa_cvolume volume{};
    bool mute = false;
};

PulseAudioDevices::PulseAudioDevices(PulseAudioConnection& connection, MainLoop& loop)
    : connection_(connection), loop_(loop), handlerBox_(std::make_shared<HandlerBox>()) {
    listenerToken_ = connection_.addStateListener([this](bool ready) { onConnectionState(ready); });
    PulseAudioConnection::Lock lock(connection_);
    if (connection_.readyContext()) onConnectionState(true);
}

PulseAudioDevices::~PulseAudioDevices() {
    connection_.removeStateListener(listenerToken_);
    PulseAudioConnection::Lock lock(connection_);
    if (pa_context* context = connection_.readyContext()) pa_context_set_subscribe_callback(context, nullptr, nullptr);
    for (auto* operation : pending_) {
        pa_operation_cancel(operation);
        pa_operation_unref(operation);
    }
    pending_.clear();
}

std::optional<std::vector<AudioInputDevice>> PulseAudioDevices::inputDevices() {
    ListQuery server;
    server.connection = &connection_;
    if (!connection_.runOperation(
            [&](pa_context* c) { return pa_context_get_server_info(c, serverInfoCallback, &server); },
            [&] { return server.done; }, kTimeout) ||
        !server.ok) {
        logWarning("PulseAudioDevices.inputDevices() - the sound server did not answer");
        return std::nullopt;
    }
    ListQuery list;
    list.connection = &connection_;
    if (!connection_.runOperation(
            [&](pa_context* c) { return pa_context_get_source_info_list(c, sourceListCallback, &list); },
            [&] { return list.done; }, kTimeout) ||
        !list.ok) {
        logWarning("PulseAudioDevices.inputDevices() - the sound server did not list its sources");
        return std::nullopt;
    }
    for (auto& device : list.devices) device.isDefault = device.serverName == server.defaultName;
    return std::move(list.devices);
}

std::optional<std::string> PulseAudioDevices::defaultSourceName() {
    ListQuery server;
    server.connection = &connection_;
    if (!connection_.runOperation(
            [&](pa_context* c) { return pa_context_get_server_info(c, serverInfoCallback, &server); },
            [&] { return server.done; }, kTimeout) ||
        !server.ok)
        return std::nullopt;
    return server.defaultName;
}

std::optional<AudioDeviceID> PulseAudioDevices::defaultInputDevice() {
    auto name = defaultSourceName();
    if (!name) return std::nullopt;
    struct ByName {
        PulseAudioConnection* connection;
        std::optional<AudioDeviceID> id;
        bool done = false;
    } query{&connection_, std::nullopt};
    auto callback = [](pa_context*, const pa_source_info* info, int eol, void* userdata) {
        auto* q = static_cast<ByName*>(userdata);
        if (eol) {
            q->done = true;
            q->connection->notify();
            return;
        }
        q->id = info->index;
    };
    if (!connection_.runOperation(
            [&](pa_context* c) { return pa_context_get_source_info_by_name(c, name->c_str(), callback, &query); },
            [&] { return query.done; }, kTimeout))
        return std::nullopt;
    return query.id;
}

std::optional<PulseAudioDevices::SourceState> PulseAudioDevices::sourceInfo(AudioDeviceID device) {
    ListQuery query;
    query.connection = &connection_;
    if (!connection_.runOperation(
            [&](pa_context* c) { return pa_context_get_source_info_by_index(c, device, sourceListCallback, &query); },
            [&] { return query.done; }, kTimeout) ||
        query.devices.empty())
        return std::nullopt;
    return SourceState{query.devices.front(), query.volumes.front(), query.mutes.front() != 0};
}

bool PulseAudioDevices::setDefaultInputDevice(AudioDeviceID device) {
    auto info = sourceInfo(device);
    if (!info) {
        logWarning("PulseAudioDevices.setDefaultInputDevice() - no input device " + std::to_string(device));
        return false;
    }
    SuccessQuery query{&connection_};
    const std::string name = info->device.serverName;
    return connection_.runOperation(
               [&](pa_context* c) { return pa_context_set_default_source(c, name.c_str(), successCallback, &query); },
               [&] { return query.done; }, kTimeout) &&
           query.success;
}

std::optional<std::uint32_t> PulseAudioDevices::readMute(AudioDeviceID device) {
    auto info = sourceInfo(device);
    if (!info) return std::nullopt;
    return info->mute ? 1u : 0u;
}

bool PulseAudioDevices::writeMute(AudioDeviceID device, std::uint32_t muted) {
    SuccessQuery query{&connection_};
    return connection_.runOperation(
               [&](pa_context* c) {
                   return pa_context_set_source_mute_by_index(c, device, muted != 0, successCallback, &query);
               },
               [&] { return query.done; }, kTimeout) &&
           query.success;
}

std::optional<float> PulseAudioDevices::readVolume(AudioDeviceID device) {
    auto info = sourceInfo(device);
    if (!info || !pa_cvolume_valid(&info->volume)) return std::nullopt;
    return float(double(pa_cvolume_avg(&info->volume)) / double(PA_VOLUME_NORM));
}

bool PulseAudioDevices::writeVolume(AudioDeviceID device, float volume) {
    if (!std::isfinite(volume) || volume < 0) return false;
    auto info = sourceInfo(device);
    if (!info) return false;
    pa_cvolume target = info->volume;
    const double raw = std::min(double(volume) * double(PA_VOLUME_NORM), double(PA_VOLUME_MAX));
    pa_cvolume_set(&target, std::max<std::uint8_t>(info->volume.channels, 1), pa_volume_t(std::lround(raw)));
    SuccessQuery query{&connection_};
    return connection_.runOperation(
               [&](pa_context* c) {
                   return pa_context_set_source_volume_by_index(c, device, &target, successCallback, &query);
               },
               [&] { return query.done; }, kTimeout) &&
           query.success;
}

void PulseAudioDevices::setChangeHandler(ChangeHandler handler) {
    std::lock_guard guard(handlerBox_->mutex);
    handlerBox_->handler = std::move(handler);
}

void PulseAudioDevices::report(AudioDeviceChange change, AudioDeviceID device) {
    // Hold the box, not this: a task still queued when the adapter goes finds an empty handler at worst.
    loop_.post([box = handlerBox_, change, device] {
        ChangeHandler handler;
        {
            std::lock_guard guard(box->mutex);
            handler = box->handler;
        }
        if (handler) handler(change, device);
    });
}

void PulseAudioDevices::track(pa_operation* operation) {
    std::erase_if(pending_, [](pa_operation* o) {
        if (pa_operation_get_state(o) == PA_OPERATION_RUNNING) return false;
        pa_operation_unref(o);
        return true;
    });
    if (operation) pending_.push_back(operation);
}

void PulseAudioDevices::onConnectionState(bool ready) {
    if (!ready) return;
    pa_context* context = connection_.readyContext();
    if (!context) return;
    pa_context_set_subscribe_callback(context, &PulseAudioDevices::subscribeCallback, this);
    track(pa_context_subscribe(
        context, pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER), nullptr, nullptr));
    // After a reconnection the server may have other devices than before: report the difference.
    refreshKnownLocked(haveKnown_);
}

struct PulseAudioDevices::Refresh {
    PulseAudioDevices* self;
    bool report;
    std::set<AudioDeviceID> inputs;
    std::string defaultName;
    std::optional<AudioDeviceID> defaultId;
};

void PulseAudioDevices::refreshKnownLocked(bool reportChanges) {
    pa_context* context = connection_.readyContext();
    if (!context) return;
    auto* refresh = new Refresh{this, reportChanges, {}, {}, std::nullopt};
    pa_operation* first = pa_context_get_server_info(context, &PulseAudioDevices::refreshServerCallback, refresh);
    if (!first) {
        delete refresh;
        return;
    }
    track(first);
}

void PulseAudioDevices::refreshServerCallback(pa_context* context, const pa_server_info* info, void* userdata) {
    auto* refresh = static_cast<Refresh*>(userdata);
    if (!info) {
        delete refresh;
        return;
    }
    refresh->defaultName = info->default_source_name ? info->default_source_name : "";
    pa_operation* next =
        pa_context_get_source_info_list(context, &PulseAudioDevices::refreshSourcesCallback, refresh);
    if (!next) {
        delete refresh;
        return;
    }
    refresh->self->track(next);
}

void PulseAudioDevices::refreshSourcesCallback(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* refresh = static_cast<Refresh*>(userdata);
    if (!eol) {
        if (!isMonitor(info)) refresh->inputs.insert(info->index);
        if (info->name && refresh->defaultName == info->name) refresh->defaultId = info->index;
        return;
    }
    std::unique_ptr<Refresh> owned(refresh);
    if (eol < 0) return;
    auto* self = refresh->self;
    if (refresh->report) {
        for (auto id : refresh->inputs)
            if (!self->knownInputs_.contains(id)) self->report(AudioDeviceChange::added, id);
        for (auto id : self->knownInputs_)
            if (!refresh->inputs.contains(id)) self->report(AudioDeviceChange::removed, id);
        if (refresh->defaultName != self->knownDefault_)
            self->report(AudioDeviceChange::defaultChanged, refresh->defaultId.value_or(0));
    }
    self->knownInputs_ = std::move(refresh->inputs);
    self->knownDefault_ = refresh->defaultName;
    self->haveKnown_ = true;
}

void PulseAudioDevices::subscribeCallback(pa_context*, pa_subscription_event_type_t type, std::uint32_t,
                                          void* userdata) {
    auto* self = static_cast<PulseAudioDevices*>(userdata);
    const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    // A source's own changes (volume, mute, port) don't change the list; new and removed sources and server
    // changes (the default) do.
    if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && kind == PA_SUBSCRIPTION_EVENT_CHANGE) return;
    self->refreshKnownLocked(true);
}

} // namespace sprelio::platform
