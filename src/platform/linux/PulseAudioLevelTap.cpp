#include "platform/linux/PulseAudioLevelTap.h"

#include <algorithm>

#include "base/Log.h"

namespace sprelio::platform {

namespace {

struct SourceQuery {
    PulseAudioConnection* connection = nullptr;
    bool done = false;
    std::optional<pa_sample_spec> spec;
};

void sourceInfoCallback(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* query = static_cast<SourceQuery*>(userdata);
    if (eol || !info) {
        query->done = true;
        query->connection->notify();
        return;
    }
    query->spec = info->sample_spec;
}

} // namespace

PulseAudioLevelTap::PulseAudioLevelTap(PulseAudioConnection& connection, std::string streamName)
    : connection_(connection), streamName_(std::move(streamName)) {}

PulseAudioLevelTap::~PulseAudioLevelTap() {
    PulseAudioConnection::Lock lock(connection_);
    handler_ = nullptr;
    dropStreamLocked();
}

std::optional<AudioStreamFormat> PulseAudioLevelTap::inputFormat() {
    if (!connection_.waitUntilReady(kTimeout)) return std::nullopt;
    SourceQuery query;
    query.connection = &connection_;
    if (!connection_.runOperation(
            [&](pa_context* c) {
                return pa_context_get_source_info_by_name(c, "@DEFAULT_SOURCE@", sourceInfoCallback, &query);
            },
            [&] { return query.done; }, kTimeout) ||
        !query.spec)
        return std::nullopt;
    return AudioStreamFormat{double(query.spec->rate), query.spec->channels};
}

void PulseAudioLevelTap::installTap(std::size_t bufferSize, const AudioStreamFormat& format, BufferHandler handler) {
    PulseAudioConnection::Lock lock(connection_);
    bufferSize_ = bufferSize;
    format_ = format;
    handler_ = std::move(handler);
    pending_.clear();
}

void PulseAudioLevelTap::removeTap() {
    PulseAudioConnection::Lock lock(connection_);
    handler_ = nullptr;
    pending_.clear();
}

void PulseAudioLevelTap::dropStreamLocked() {
    if (!stream_) return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    const auto state = pa_stream_get_state(stream_);
    if (state == PA_STREAM_READY || state == PA_STREAM_CREATING) pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseAudioLevelTap::streamStateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseAudioLevelTap*>(userdata);
    if (stream != self->stream_) return;
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) {
        pa_context* context = pa_stream_get_context(stream);
        logError(std::string("PulseAudioLevelTap - the level stream ended: ") +
                 (context ? pa_strerror(pa_context_errno(context)) : "stream ended"));
    }
    self->connection_.notify();
}

void PulseAudioLevelTap::streamReadCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseAudioLevelTap*>(userdata);
    const unsigned channels = std::max(1u, self->format_.channels);
    for (;;) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        // A hole in the stream carries no audio: no level can be taken from it.
        if (data && self->handler_ && self->bufferSize_ > 0) {
            const auto* samples = static_cast<const float*>(data);
            const std::size_t frames = bytes / (sizeof(float) * channels);
            for (std::size_t frame = 0; frame < frames; ++frame) {
                self->pending_.push_back(samples[frame * channels]);
                if (self->pending_.size() == self->bufferSize_) {
                    self->handler_(self->pending_.data(), self->pending_.size());
                    self->pending_.clear();
                }
            }
        }
        pa_stream_drop(stream);
    }
}

bool PulseAudioLevelTap::start(std::string& error) {
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    if (!connection_.waitUntilReady(kTimeout)) {
        error = "the sound server is not reachable";
        return false;
    }
    {
        PulseAudioConnection::Lock lock(connection_);
        dropStreamLocked();
        pending_.clear();
        pa_context* context = connection_.readyContext();
        if (!context) {
            error = "the sound server is not reachable";
            return false;
        }
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, std::uint32_t(format_.sampleRate),
                                  std::uint8_t(std::max(1u, format_.channels))};
        if (!pa_sample_spec_valid(&spec)) {
            error = "the input's format can't be captured";
            return false;
        }
        stream_ = pa_stream_new(context, streamName_.c_str(), &spec, nullptr);
        if (!stream_) {
            error = std::string("pa_stream_new: ") + pa_strerror(pa_context_errno(context));
            return false;
        }
        pa_stream_set_state_callback(stream_, &PulseAudioLevelTap::streamStateCallback, this);
        pa_stream_set_read_callback(stream_, &PulseAudioLevelTap::streamReadCallback, this);
        pa_buffer_attr attr{};
        attr.maxlength = std::uint32_t(-1);
        attr.tlength = std::uint32_t(-1);
        attr.prebuf = std::uint32_t(-1);
        attr.minreq = std::uint32_t(-1);
        // Fragments of one buffer: each arrives as soon as it is complete.
        attr.fragsize = std::uint32_t(bufferSize_ * pa_frame_size(&spec));
        // No device named: the stream follows the default source, as the recorders do.
        if (pa_stream_connect_record(stream_, nullptr, &attr, PA_STREAM_ADJUST_LATENCY) < 0) {
            error = std::string("pa_stream_connect_record: ") + pa_strerror(pa_context_errno(context));
            dropStreamLocked();
            return false;
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
    error = settled ? "the level stream could not be opened" : "the level stream did not open in time";
    dropStreamLocked();
    return false;
}

void PulseAudioLevelTap::stop() {
    PulseAudioConnection::Lock lock(connection_);
    dropStreamLocked();
    pending_.clear();
}

} // namespace sprelio::platform
