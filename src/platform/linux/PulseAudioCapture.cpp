#include "platform/linux/PulseAudioCapture.h"

#include <algorithm>
#include <cstring>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

constexpr pa_sample_spec kSpec{PA_SAMPLE_FLOAT32LE, AudioCapture::kSampleRate, AudioCapture::kChannels};
constexpr pa_usec_t kFragmentMicroseconds = 10 * 1000;

struct CorkQuery {
    PulseAudioConnection* connection = nullptr;
    bool done = false;
    bool success = false;
};

void corkCallback(pa_stream*, int success, void* userdata) {
    auto* query = static_cast<CorkQuery*>(userdata);
    query->success = success != 0;
    query->done = true;
    query->connection->notify();
}

} // namespace

PulseAudioCapture::PulseAudioCapture(PulseAudioConnection& connection, std::string streamName)
    : connection_(connection), streamName_(std::move(streamName)) {}

PulseAudioCapture::~PulseAudioCapture() {
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    onSamples_ = nullptr;
    onError_ = nullptr;
    dropStreamLocked();
}

void PulseAudioCapture::dropStreamLocked() {
    if (!stream_) return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    if (pa_stream_get_state(stream_) == PA_STREAM_READY || pa_stream_get_state(stream_) == PA_STREAM_CREATING)
        pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseAudioCapture::failLocked(const std::string& message) {
    const bool wasActive = active_;
    active_ = false;
    stopping_ = false;
    auto onError = std::move(onError_);
    onSamples_ = nullptr;
    onError_ = nullptr;
    if (wasActive && onError) onError(message);
    connection_.notify();
}

void PulseAudioCapture::streamStateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseAudioCapture*>(userdata);
    if (stream != self->stream_) return;
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED: {
        pa_context* context = pa_stream_get_context(stream);
        std::string reason = context ? pa_strerror(pa_context_errno(context)) : "stream ended";
        self->failLocked("the capture stream ended: " + reason);
        break;
    }
    default:
        self->connection_.notify();
        break;
    }
}

void PulseAudioCapture::streamReadCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseAudioCapture*>(userdata);
    for (;;) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        // Buffers that arrive while corked (the tail of the last stop) belong to no recording.
        if (self->active_ && self->onSamples_) {
            const size_t frames = bytes / sizeof(float);
            self->scratch_.resize(frames);
            // A hole in the stream is audio that never came: silence keeps the timing right.
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

bool PulseAudioCapture::ensureStream(std::string& error) {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    if (!connection_.waitUntilReady(kStartTimeout)) {
        error = "the sound server is not reachable";
        return false;
    }
    {
        PulseAudioConnection::Lock lock(connection_);
        // A stream of an earlier connection, or one that failed, is of no use.
        if (stream_ && (streamGeneration_ != connection_.generation() ||
                        pa_stream_get_state(stream_) == PA_STREAM_FAILED ||
                        pa_stream_get_state(stream_) == PA_STREAM_TERMINATED))
            dropStreamLocked();
        if (!stream_) {
            pa_context* context = connection_.readyContext();
            if (!context) {
                error = "the sound server is not reachable";
                return false;
            }
            stream_ = pa_stream_new(context, streamName_.c_str(), &kSpec, nullptr);
            if (!stream_) {
                error = std::string("pa_stream_new: ") + pa_strerror(pa_context_errno(context));
                return false;
            }
            streamGeneration_ = connection_.generation();
            pa_stream_set_state_callback(stream_, &PulseAudioCapture::streamStateCallback, this);
            pa_stream_set_read_callback(stream_, &PulseAudioCapture::streamReadCallback, this);
            pa_buffer_attr attr{};
            attr.maxlength = std::uint32_t(-1);
            attr.tlength = std::uint32_t(-1);
            attr.prebuf = std::uint32_t(-1);
            attr.minreq = std::uint32_t(-1);
            attr.fragsize = std::uint32_t(pa_usec_to_bytes(kFragmentMicroseconds, &kSpec));
            const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED |
                                                 PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
            // No device named: the stream records from the default source and follows it when it changes.
            if (pa_stream_connect_record(stream_, nullptr, &attr, flags) < 0) {
                error = std::string("pa_stream_connect_record: ") + pa_strerror(pa_context_errno(context));
                dropStreamLocked();
                return false;
            }
        }
    }
    const bool settled = connection_.waitUntil(
        [&] {
            if (!stream_) return true;
            const auto state = pa_stream_get_state(stream_);
            return state == PA_STREAM_READY || state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED;
        },
        deadline);
    PulseAudioConnection::Lock lock(connection_);
    if (settled && stream_ && pa_stream_get_state(stream_) == PA_STREAM_READY) return true;
    error = settled ? "the capture stream could not be opened" : "the capture stream did not open in time";
    dropStreamLocked();
    return false;
}

bool PulseAudioCapture::prepare(std::string& error) { return ensureStream(error); }

bool PulseAudioCapture::start(SamplesHandler onSamples, ErrorHandler onError, std::string& error) {
    {
        PulseAudioConnection::Lock lock(connection_);
        if (active_) {
            error = "the capture is already running";
            return false;
        }
    }
    if (!ensureStream(error)) return false;
    CorkQuery query{&connection_};
    pa_operation* operation = nullptr;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (!stream_) {
            error = "the capture stream went away";
            return false;
        }
        onSamples_ = std::move(onSamples);
        onError_ = std::move(onError);
        stopping_ = false;
        active_ = true;
        operation = pa_stream_cork(stream_, 0, corkCallback, &query);
        if (!operation) {
            active_ = false;
            onSamples_ = nullptr;
            onError_ = nullptr;
            error = "the capture stream could not be started";
            return false;
        }
    }
    const bool answered =
        connection_.waitUntil([&] { return query.done || !active_; }, std::chrono::steady_clock::now() + kStartTimeout);
    PulseAudioConnection::Lock lock(connection_);
    if (!query.done) pa_operation_cancel(operation);
    pa_operation_unref(operation);
    if (answered && query.done && query.success && active_) return true;
    error = !answered ? "the capture stream did not start in time" : "the capture stream could not be started";
    active_ = false;
    onSamples_ = nullptr;
    onError_ = nullptr;
    dropStreamLocked();
    return false;
}

void PulseAudioCapture::stop() {
    std::chrono::steady_clock::time_point deadline;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (!active_ || !stream_) {
            active_ = false;
            onSamples_ = nullptr;
            onError_ = nullptr;
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
        deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(latency) + kDrainSlack;
    }
    connection_.waitUntil([&] { return !active_ || framesSinceStop_ >= stopTarget_; }, deadline);
    PulseAudioConnection::Lock lock(connection_);
    const bool drained = !active_ || framesSinceStop_ >= stopTarget_;
    if (!drained) {
        logWarning("PulseAudioCapture.stop() - " + std::to_string(stopTarget_ - framesSinceStop_) +
                   " frames in flight did not arrive in time");
    }
    active_ = false;
    stopping_ = false;
    onSamples_ = nullptr;
    onError_ = nullptr;
    if (stream_ && pa_stream_get_state(stream_) == PA_STREAM_READY) {
        if (pa_operation* operation = pa_stream_cork(stream_, 1, nullptr, nullptr)) pa_operation_unref(operation);
    }
}

} // namespace sprelio::platform
