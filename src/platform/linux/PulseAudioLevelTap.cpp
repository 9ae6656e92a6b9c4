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
    : connection_(connection), streamName_(std::move(streamName)),
      stream_(
          connection, [this](const float* samples, std::size_t frames) { return takeFramesLocked(samples, frames); },
          [](pa_context* context) {
              logError(std::string("PulseAudioLevelTap - the level stream ended: ") +
                       (context ? pa_strerror(pa_context_errno(context)) : "stream ended"));
          }) {}

PulseAudioLevelTap::~PulseAudioLevelTap() {
    PulseAudioConnection::Lock lock(connection_);
    handler_ = nullptr;
    stream_.closeLocked();
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

bool PulseAudioLevelTap::takeFramesLocked(const float* samples, std::size_t frames) {
    if (!handler_ || bufferSize_ == 0) return false;
    for (std::size_t frame = 0; frame < frames; ++frame) {
        pending_.push_back(samples[frame * channels_]);
        if (pending_.size() == bufferSize_) {
            handler_(pending_.data(), pending_.size());
            pending_.clear();
        }
    }
    return true;
}

bool PulseAudioLevelTap::start(std::string& error) {
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    if (!connection_.waitUntilReady(kTimeout)) {
        error = "the sound server is not reachable";
        return false;
    }
    {
        PulseAudioConnection::Lock lock(connection_);
        stream_.closeLocked();
        pending_.clear();
        pa_context* context = connection_.readyContext();
        if (!context) {
            error = "the sound server is not reachable";
            return false;
        }
        PulseRecordStream::Options options;
        options.name = streamName_;
        options.spec = pa_sample_spec{PA_SAMPLE_FLOAT32LE, std::uint32_t(format_.sampleRate),
                                      std::uint8_t(std::max(1u, format_.channels))};
        if (!pa_sample_spec_valid(&options.spec)) {
            error = "the input's format can't be captured";
            return false;
        }
        // Fragments of one buffer: each arrives as soon as it is complete.
        options.fragmentBytes = std::uint32_t(bufferSize_ * pa_frame_size(&options.spec));
        // No device named: the stream follows the default source, as the recorders do.
        options.flags = PA_STREAM_ADJUST_LATENCY;
        // A hole in the stream carries no audio: no level can be taken from it.
        options.holes = PulseRecordStream::Holes::skip;
        channels_ = options.spec.channels;
        if (!stream_.openLocked(context, options, error)) return false;
    }
    const bool settled = stream_.waitSettled(deadline);
    PulseAudioConnection::Lock lock(connection_);
    return stream_.keepIfReadyLocked(settled, "the level stream", error);
}

void PulseAudioLevelTap::stop() {
    PulseAudioConnection::Lock lock(connection_);
    stream_.closeLocked();
    pending_.clear();
}

} // namespace sprelio::platform
