#include "platform/linux/PulseSystemAudio.h"

#include <algorithm>
#include <cstring>

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
    : source_(source), connection_(source == SystemAudioSource::computerSound ? "Sprelio computer sound"
                                                                              : "Sprelio microphone") {}

PulseSourceCapture::~PulseSourceCapture() {
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    if (pa_context* context = connection_.readyContext()) pa_context_set_subscribe_callback(context, nullptr, nullptr);
    dropStreamLocked();
}

std::string PulseSourceCapture::deviceName() const {
    PulseAudioConnection::Lock lock(const_cast<PulseAudioConnection&>(connection_));
    return description_;
}

void PulseSourceCapture::dropStreamLocked() {
    if (!stream_) return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    const auto state = pa_stream_get_state(stream_);
    if (state == PA_STREAM_READY || state == PA_STREAM_CREATING) pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseSourceCapture::endLocked(End why, const std::string& detail) {
    const bool wasActive = active_;
    active_ = false;
    stopping_ = false;
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

void PulseSourceCapture::stateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseSourceCapture*>(userdata);
    if (stream != self->stream_) return;
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) {
        pa_context* context = pa_stream_get_context(stream);
        const int code = context ? pa_context_errno(context) : PA_ERR_UNKNOWN;
        const bool serverGone = !context || !PA_CONTEXT_IS_GOOD(pa_context_get_state(context));
        // A stream tied to its device is killed when the device is removed.
        self->endLocked(serverGone ? End::serverLost : End::deviceRemoved,
                        std::string("the stream of ") + self->sourceName_ + " ended: " + pa_strerror(code));
        return;
    }
    self->connection_.notify();
}

void PulseSourceCapture::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseSourceCapture*>(userdata);
    for (;;) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        if (self->active_ && self->onSamples_) {
            const size_t frames = bytes / sizeof(float);
            self->scratch_.resize(frames);
            // A hole is audio that never came: silence keeps the timing right.
            if (data) {
                std::memcpy(self->scratch_.data(), data, frames * sizeof(float));
            } else {
                std::fill(self->scratch_.begin(), self->scratch_.end(), 0.0f);
            }
            self->onSamples_(self->scratch_.data(), frames);
            if (self->stopping_) {
                self->framesSinceStop_ += frames;
                if (self->framesSinceStop_ >= self->stopTarget_) self->connection_.notify();
            }
        }
        pa_stream_drop(stream);
    }
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
        if (active_ || stream_) {
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
        stream_ = pa_stream_new(context, source_ == SystemAudioSource::computerSound ? "Computer sound" : "Microphone",
                                &kSpec, nullptr);
        if (!stream_) {
            error = std::string("pa_stream_new: ") + pa_strerror(pa_context_errno(context));
            return false;
        }
        pa_stream_set_state_callback(stream_, &PulseSourceCapture::stateCallback, this);
        pa_stream_set_read_callback(stream_, &PulseSourceCapture::readCallback, this);
        pa_buffer_attr attr{};
        attr.maxlength = std::uint32_t(-1);
        attr.tlength = std::uint32_t(-1);
        attr.prebuf = std::uint32_t(-1);
        attr.minreq = std::uint32_t(-1);
        attr.fragsize = std::uint32_t(pa_usec_to_bytes(kFragmentMicroseconds, &kSpec));
        onSamples_ = std::move(onSamples);
        onEnded_ = std::move(onEnded);
        active_ = true;
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE |
                                             PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        if (pa_stream_connect_record(stream_, sourceName_.c_str(), &attr, flags) < 0) {
            error = std::string("pa_stream_connect_record: ") + pa_strerror(pa_context_errno(context));
            active_ = false;
            onSamples_ = nullptr;
            onEnded_ = nullptr;
            dropStreamLocked();
            return false;
        }
    }
    const bool settled = connection_.waitUntil(
        [&] { return !stream_ || !active_ || pa_stream_get_state(stream_) != PA_STREAM_CREATING; }, deadline);
    PulseAudioConnection::Lock lock(connection_);
    if (settled && stream_ && active_ && pa_stream_get_state(stream_) == PA_STREAM_READY) {
        logInfo(std::string("PulseSourceCapture.start() - recording the ") + roleText(source_) + " from " +
                sourceName_ + " (" + description_ + ")");
        return true;
    }
    error = settled ? "the capture stream of " + sourceName_ + " could not be opened"
                    : "the capture stream of " + sourceName_ + " did not open in time";
    active_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    dropStreamLocked();
    return false;
}

void PulseSourceCapture::stop() {
    std::chrono::steady_clock::time_point deadline;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (!active_ || !stream_) {
            active_ = false;
            onSamples_ = nullptr;
            onEnded_ = nullptr;
            dropStreamLocked();
            return;
        }
        // What was captured before this moment but hasn't reached us yet is the stream's latency.
        pa_usec_t latency = 0;
        int negative = 0;
        if (pa_stream_get_latency(stream_, &latency, &negative) < 0 || negative) latency = 2 * kFragmentMicroseconds;
        latency = std::min<pa_usec_t>(latency, pa_usec_t(kMaxDrain.count()) * 1000);
        stopTarget_ = std::uint64_t(latency) * kSampleRate / 1000000;
        framesSinceStop_ = 0;
        stopping_ = true;
        deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(latency) + kMaxDrain;
    }
    connection_.waitUntil([&] { return !active_ || framesSinceStop_ >= stopTarget_; }, deadline);
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    stopping_ = false;
    onSamples_ = nullptr;
    onEnded_ = nullptr;
    dropStreamLocked();
}

} // namespace sprelio::platform
