#include "platform/linux/PulseSystemAudio.h"

#include "base/Log.h"

namespace sprelio::platform {

namespace {

constexpr int kSampleRate = 16000;
constexpr pa_sample_spec kSpec{PA_SAMPLE_FLOAT32LE, kSampleRate, 1};
constexpr pa_usec_t kFragmentMicroseconds = 20 * 1000;

struct ServerQuery {
    PulseAudioConnection* connection = nullptr;
    bool done = false;
    std::string defaultSink;
    std::string defaultSource;
};

void serverCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* query = static_cast<ServerQuery*>(userdata);
    if (info) {
        query->defaultSink = info->default_sink_name ? info->default_sink_name : "";
        query->defaultSource = info->default_source_name ? info->default_source_name : "";
    }
    query->done = true;
    query->connection->notify();
}

struct DeviceQuery {
    PulseAudioConnection* connection = nullptr;
    bool done = false;
    bool found = false;
    std::string monitor;
    std::string description;
};

void sinkCallback(pa_context*, const pa_sink_info* info, int eol, void* userdata) {
    auto* query = static_cast<DeviceQuery*>(userdata);
    if (info && !eol) {
        query->found = true;
        query->monitor = info->monitor_source_name ? info->monitor_source_name : "";
        query->description = info->description ? info->description : "";
        return;
    }
    query->done = true;
    query->connection->notify();
}

void sourceCallback(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* query = static_cast<DeviceQuery*>(userdata);
    if (info && !eol) {
        query->found = true;
        query->description = info->description ? info->description : "";
        return;
    }
    query->done = true;
    query->connection->notify();
}

const char* roleText(SystemAudioSource source) {
    return source == SystemAudioSource::computerSound ? "computer sound" : "microphone";
}

} // namespace

PulseSourceCapture::PulseSourceCapture(SystemAudioSource source)
    : source_(source),
      connection_(source == SystemAudioSource::computerSound ? "Sprelio computer sound" : "Sprelio microphone"),
      stream_(
          connection_,
          [this](const float* samples, std::size_t frames) {
              if (!active_ || !onSamples_) return false;
              onSamples_(samples, frames);
              return true;
          },
          [this](pa_context* context) {
              const int code = context ? pa_context_errno(context) : PA_ERR_UNKNOWN;
              const bool serverGone = !context || !PA_CONTEXT_IS_GOOD(pa_context_get_state(context));
              // A stream tied to its device is killed when the device is removed.
              endLocked(serverGone ? End::serverLost : End::deviceRemoved,
                        std::string("the stream of ") + sourceName_ + " ended: " + pa_strerror(code));
          }) {}

PulseSourceCapture::~PulseSourceCapture() {
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    if (pa_context* context = connection_.readyContext()) pa_context_set_subscribe_callback(context, nullptr, nullptr);
    stream_.closeLocked();
}

std::string PulseSourceCapture::deviceName() const {
    PulseAudioConnection::Lock lock(const_cast<PulseAudioConnection&>(connection_));
    return description_;
}

void PulseSourceCapture::endLocked(End why, const std::string& detail) {
    const bool wasActive = active_;
    active_ = false;
    auto onEnded = std::move(onEnded_);
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    if (wasActive && onEnded) onEnded(why, detail);
    connection_.notify();
}

bool PulseSourceCapture::resolveDevice(std::string& error) {
    ServerQuery server;
    server.connection = &connection_;
    if (!connection_.runOperation([&](pa_context* c) { return pa_context_get_server_info(c, serverCallback, &server); },
                                  [&] { return server.done; }, kStartTimeout)) {
        error = "the sound server did not answer";
        return false;
    }
    DeviceQuery device;
    device.connection = &connection_;
    if (source_ == SystemAudioSource::computerSound) {
        if (server.defaultSink.empty()) {
            error = "there is no default output device";
            return false;
        }
        if (!connection_.runOperation(
                [&](pa_context* c) { return pa_context_get_sink_info_by_name(c, server.defaultSink.c_str(), sinkCallback, &device); },
                [&] { return device.done; }, kStartTimeout) ||
            !device.found || device.monitor.empty()) {
            error = "the default output device " + server.defaultSink + " has no monitor to record";
            return false;
        }
    } else {
        if (server.defaultSource.empty()) {
            error = "there is no default input device";
            return false;
        }
        if (!connection_.runOperation(
                [&](pa_context* c) {
                    return pa_context_get_source_info_by_name(c, server.defaultSource.c_str(), sourceCallback, &device);
                },
                [&] { return device.done; }, kStartTimeout) ||
            !device.found) {
            error = "the default input device " + server.defaultSource + " could not be found";
            return false;
        }
    }
    PulseAudioConnection::Lock lock(connection_);
    if (source_ == SystemAudioSource::computerSound) {
        roleDevice_ = server.defaultSink;
        sourceName_ = device.monitor;
    } else {
        roleDevice_ = server.defaultSource;
        sourceName_ = server.defaultSource;
    }
    description_ = device.description.empty() ? roleDevice_ : device.description;
    return true;
}

void PulseSourceCapture::subscribeCallback(pa_context* context, pa_subscription_event_type_t type, std::uint32_t,
                                           void* userdata) {
    auto* self = static_cast<PulseSourceCapture*>(userdata);
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER) return;
    self->checkDefaultLocked(context);
}

void PulseSourceCapture::checkDefaultLocked(pa_context* context) {
    if (!active_) return;
    // The answer arrives later on this thread, under the lock; the capture may have ended by then.
    pa_operation* operation = pa_context_get_server_info(
        context,
        [](pa_context*, const pa_server_info* info, void* userdata) {
            auto* self = static_cast<PulseSourceCapture*>(userdata);
            if (!info || !self->active_) return;
            const char* now = self->source_ == SystemAudioSource::computerSound ? info->default_sink_name
                                                                                : info->default_source_name;
            const std::string current = now ? now : "";
            if (current == self->roleDevice_) return;
            self->endLocked(End::defaultChanged, std::string("the default ") +
                                                     (self->source_ == SystemAudioSource::computerSound ? "output"
                                                                                                        : "input") +
                                                     " changed from " + self->roleDevice_ + " to " + current);
        },
        this);
    if (operation) pa_operation_unref(operation);
}

bool PulseSourceCapture::start(SamplesHandler onSamples, EndedHandler onEnded, std::string& error) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (active_ || stream_.isOpenLocked()) {
            error = "the capture has already run";
            return false;
        }
    }
    if (!connection_.waitUntilReady(kStartTimeout)) {
        error = "the sound server is not reachable";
        return false;
    }
    if (!resolveDevice(error)) return false;
    {
        PulseAudioConnection::Lock lock(connection_);
        pa_context* context = connection_.readyContext();
        if (!context) {
            error = "the sound server is not reachable";
            return false;
        }
        pa_context_set_subscribe_callback(context, &PulseSourceCapture::subscribeCallback, this);
        if (pa_operation* o = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
            pa_operation_unref(o);
        PulseRecordStream::Options options;
        options.name = source_ == SystemAudioSource::computerSound ? "Computer sound" : "Microphone";
        options.spec = kSpec;
        options.fragmentBytes = std::uint32_t(pa_usec_to_bytes(kFragmentMicroseconds, &kSpec));
        options.device = sourceName_;
        options.flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE |
                                          PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        onSamples_ = std::move(onSamples);
        onEnded_ = std::move(onEnded);
        active_ = true;
        if (!stream_.openLocked(context, options, error)) {
            active_ = false;
            onSamples_ = nullptr;
            onEnded_ = nullptr;
            return false;
        }
    }
    const bool settled = stream_.waitSettled(deadline, [&] { return !active_; });
    PulseAudioConnection::Lock lock(connection_);
    // Ended while it opened (the device went away or stopped being the default): it never started.
    if (!active_) stream_.closeLocked();
    if (stream_.keepIfReadyLocked(settled, "the capture stream of " + sourceName_, error)) {
        logInfo(std::string("PulseSourceCapture.start() - recording the ") + roleText(source_) + " from " +
                sourceName_ + " (" + description_ + ")");
        return true;
    }
    active_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    return false;
}

void PulseSourceCapture::stop() {
    std::chrono::steady_clock::time_point deadline;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (!active_ || !stream_.isOpenLocked()) {
            active_ = false;
            onSamples_ = nullptr;
            onEnded_ = nullptr;
            stream_.closeLocked();
            return;
        }
        deadline = stream_.beginDrainLocked(kMaxDrain, kMaxDrain);
    }
    stream_.waitDrained(deadline, [&] { return !active_; });
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    stream_.closeLocked();
}

} // namespace sprelio::platform
