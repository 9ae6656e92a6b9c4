#include "platform/linux/PulseAudioOutput.h"

#include <algorithm>
#include <cstring>

namespace sprelio::platform {

struct PulseAudioOutput::Playback {
    PulseAudioOutput* owner = nullptr;
    pa_stream* stream = nullptr;
    pa_operation* drain = nullptr;
    std::vector<float> samples;
    std::size_t writtenBytes = 0;
    FinishedHandler onFinished;
    bool finished = false;
};

PulseAudioOutput::PulseAudioOutput(PulseAudioConnection& connection, MainLoop& loop)
    : connection_(connection), loop_(loop) {}

PulseAudioOutput::~PulseAudioOutput() {
    PulseAudioConnection::Lock lock(connection_);
    stopLocked();
}

bool PulseAudioOutput::play(std::vector<float> samples, int sampleRate, int channels, float volume,
                            FinishedHandler onFinished, std::string& error) {
    if (sampleRate < 1000 || sampleRate > 384000 || channels < 1 || channels > int(PA_CHANNELS_MAX)) {
        error = "unsupported format: " + std::to_string(sampleRate) + " Hz, " + std::to_string(channels) + " channels";
        return false;
    }
    {
        PulseAudioConnection::Lock lock(connection_);
        stopLocked();
    }
    if (!connection_.waitUntilReady(kConnectTimeout)) {
        error = "no connection to the sound server";
        return false;
    }
    PulseAudioConnection::Lock lock(connection_);
    pa_context* context = connection_.readyContext();
    if (!context) {
        error = "no connection to the sound server";
        return false;
    }
    const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, std::uint32_t(sampleRate), std::uint8_t(channels)};
    pa_stream* stream = pa_stream_new(context, "Sprelio playback", &format, nullptr);
    if (!stream) {
        error = pa_strerror(pa_context_errno(context));
        return false;
    }
    auto playback = std::make_unique<Playback>();
    playback->owner = this;
    playback->stream = stream;
    playback->samples = std::move(samples);
    playback->onFinished = std::move(onFinished);
    pa_stream_set_state_callback(stream, &PulseAudioOutput::stateCallback, playback.get());
    pa_stream_set_write_callback(stream, &PulseAudioOutput::writeCallback, playback.get());
    pa_cvolume cv;
    pa_cvolume_set(&cv, std::uint8_t(channels), pa_sw_volume_from_linear(double(std::max(0.0f, volume))));
    if (pa_stream_connect_playback(stream, nullptr, nullptr, PA_STREAM_NOFLAGS, &cv, nullptr) < 0) {
        error = pa_strerror(pa_context_errno(context));
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        return false;
    }
    current_ = std::move(playback);
    return true;
}

void PulseAudioOutput::stop() {
    PulseAudioConnection::Lock lock(connection_);
    stopLocked();
}

void PulseAudioOutput::stopLocked() {
    if (!current_) return;
    Playback& playback = *current_;
    if (playback.drain) {
        pa_operation_cancel(playback.drain);
        pa_operation_unref(playback.drain);
    }
    pa_stream_set_state_callback(playback.stream, nullptr, nullptr);
    pa_stream_set_write_callback(playback.stream, nullptr, nullptr);
    pa_stream_disconnect(playback.stream);
    pa_stream_unref(playback.stream);
    current_.reset();
}

void PulseAudioOutput::finishLocked(Playback& playback) {
    if (playback.finished) return;
    playback.finished = true;
    if (playback.onFinished) loop_.post(std::move(playback.onFinished));
}

void PulseAudioOutput::stateCallback(pa_stream* stream, void* userdata) {
    auto& playback = *static_cast<Playback*>(userdata);
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) playback.owner->finishLocked(playback);
}

void PulseAudioOutput::writeCallback(pa_stream* stream, std::size_t bytes, void* userdata) {
    auto& playback = *static_cast<Playback*>(userdata);
    const std::size_t total = playback.samples.size() * sizeof(float);
    const std::size_t frameBytes = pa_frame_size(pa_stream_get_sample_spec(stream));
    std::size_t chunk = std::min(bytes, total - playback.writtenBytes) / frameBytes * frameBytes;
    if (chunk > 0) {
        pa_stream_write(stream, reinterpret_cast<const std::uint8_t*>(playback.samples.data()) + playback.writtenBytes,
                        chunk, nullptr, 0, PA_SEEK_RELATIVE);
        playback.writtenBytes += chunk;
    }
    if (playback.writtenBytes + frameBytes > total && !playback.drain) {
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        playback.drain = pa_stream_drain(stream, &PulseAudioOutput::drainCallback, &playback);
        if (!playback.drain) playback.owner->finishLocked(playback);
    }
}

void PulseAudioOutput::drainCallback(pa_stream* /*stream*/, int /*success*/, void* userdata) {
    auto& playback = *static_cast<Playback*>(userdata);
    if (playback.drain) {
        pa_operation_unref(playback.drain);
        playback.drain = nullptr;
    }
    playback.owner->finishLocked(playback);
}

} // namespace sprelio::platform
