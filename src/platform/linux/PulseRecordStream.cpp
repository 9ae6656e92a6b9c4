#include "platform/linux/PulseRecordStream.h"

#include <algorithm>
#include <cstring>

namespace sprelio::platform {

PulseRecordStream::PulseRecordStream(PulseAudioConnection& connection, FramesHandler onFrames, EndedHandler onEnded)
    : connection_(connection), onFrames_(std::move(onFrames)), onEnded_(std::move(onEnded)) {}

PulseRecordStream::~PulseRecordStream() {
    PulseAudioConnection::Lock lock(connection_);
    closeLocked();
}

bool PulseRecordStream::openLocked(pa_context* context, const Options& options, std::string& error) {
    closeLocked();
    spec_ = options.spec;
    fragmentBytes_ = options.fragmentBytes;
    holes_ = options.holes;
    stream_ = pa_stream_new(context, options.name.c_str(), &spec_, nullptr);
    if (!stream_) {
        error = std::string("pa_stream_new: ") + pa_strerror(pa_context_errno(context));
        return false;
    }
    generation_ = connection_.generation();
    pa_stream_set_state_callback(stream_, &PulseRecordStream::stateCallback, this);
    pa_stream_set_read_callback(stream_, &PulseRecordStream::readCallback, this);
    pa_buffer_attr attr{};
    attr.maxlength = std::uint32_t(-1);
    attr.tlength = std::uint32_t(-1);
    attr.prebuf = std::uint32_t(-1);
    attr.minreq = std::uint32_t(-1);
    attr.fragsize = fragmentBytes_;
    if (pa_stream_connect_record(stream_, options.device.empty() ? nullptr : options.device.c_str(), &attr,
                                 options.flags) < 0) {
        error = std::string("pa_stream_connect_record: ") + pa_strerror(pa_context_errno(context));
        closeLocked();
        return false;
    }
    return true;
}

bool PulseRecordStream::waitSettled(std::chrono::steady_clock::time_point deadline,
                                    const std::function<bool()>& ended) {
    return connection_.waitUntil([&] { return settledLocked() || (ended && ended()); }, deadline);
}

bool PulseRecordStream::keepIfReadyLocked(bool settled, const std::string& what, std::string& error) {
    if (settled && readyLocked()) return true;
    error = what + (settled ? " could not be opened" : " did not open in time");
    closeLocked();
    return false;
}

void PulseRecordStream::closeLocked() {
    stopping_ = false;
    if (!stream_) return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    const auto state = pa_stream_get_state(stream_);
    if (state == PA_STREAM_READY || state == PA_STREAM_CREATING) pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

bool PulseRecordStream::settledLocked() const {
    if (!stream_) return true;
    const auto state = pa_stream_get_state(stream_);
    return state == PA_STREAM_READY || state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED;
}

bool PulseRecordStream::readyLocked() const { return stream_ && pa_stream_get_state(stream_) == PA_STREAM_READY; }

bool PulseRecordStream::staleLocked() const {
    if (!stream_) return false;
    const auto state = pa_stream_get_state(stream_);
    return generation_ != connection_.generation() || state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED;
}

void PulseRecordStream::stateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseRecordStream*>(userdata);
    if (stream != self->stream_) return;
    const auto state = pa_stream_get_state(stream);
    if ((state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) && self->onEnded_)
        self->onEnded_(pa_stream_get_context(stream));
    self->connection_.notify();
}

void PulseRecordStream::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<PulseRecordStream*>(userdata);
    const std::size_t frameBytes = pa_frame_size(&self->spec_);
    for (;;) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
        if (self->onFrames_ && (data || self->holes_ == Holes::silence)) {
            const std::size_t frames = bytes / frameBytes;
            self->scratch_.resize(frames * self->spec_.channels);
            if (data) {
                std::memcpy(self->scratch_.data(), data, self->scratch_.size() * sizeof(float));
            } else {
                std::fill(self->scratch_.begin(), self->scratch_.end(), 0.0f);
            }
            if (self->onFrames_(self->scratch_.data(), frames) && self->stopping_) {
                self->framesSinceStop_ += frames;
                if (self->drainedLocked()) self->connection_.notify();
            }
        }
        pa_stream_drop(stream);
    }
}

std::chrono::steady_clock::time_point PulseRecordStream::beginDrainLocked(std::chrono::milliseconds maxDrain,
                                                                          std::chrono::milliseconds slack) {
    // What was captured before this moment but hasn't reached us yet is the stream's latency.
    pa_usec_t latency = 0;
    int negative = 0;
    if (!stream_ || pa_stream_get_latency(stream_, &latency, &negative) < 0 || negative)
        latency = 2 * pa_bytes_to_usec(fragmentBytes_, &spec_);
    latency = std::min<pa_usec_t>(latency, pa_usec_t(maxDrain.count()) * 1000);
    stopTarget_ = std::uint64_t(latency) * spec_.rate / 1000000;
    framesSinceStop_ = 0;
    stopping_ = true;
    return std::chrono::steady_clock::now() + std::chrono::microseconds(latency) + slack;
}

void PulseRecordStream::waitDrained(std::chrono::steady_clock::time_point deadline,
                                    const std::function<bool()>& ended) {
    connection_.waitUntil([&] { return ended() || drainedLocked(); }, deadline);
}

std::uint64_t PulseRecordStream::endDrainLocked() {
    const std::uint64_t missing = drainedLocked() ? 0 : stopTarget_ - framesSinceStop_;
    stopping_ = false;
    return missing;
}

} // namespace sprelio::platform
