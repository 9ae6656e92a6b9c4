#include "platform/linux/PulseAudioCapture.h"

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
    : connection_(connection), streamName_(std::move(streamName)),
      stream_(
          connection,
          [this](const float* samples, std::size_t frames) {
              // Buffers that arrive while corked (the tail of the last stop) belong to no recording.
              if (!active_ || !onSamples_) return false;
              onSamples_(samples, frames);
              return true;
          },
          [this](pa_context* context) {
              std::string reason = context ? pa_strerror(pa_context_errno(context)) : "stream ended";
              failLocked("the capture stream ended: " + reason);
          }) {}

PulseAudioCapture::~PulseAudioCapture() {
    PulseAudioConnection::Lock lock(connection_);
    active_ = false;
    onSamples_ = nullptr;
    onError_ = nullptr;
    stream_.closeLocked();
}

void PulseAudioCapture::failLocked(const std::string& message) {
    const bool wasActive = active_;
    active_ = false;
    auto onError = std::move(onError_);
    onSamples_ = nullptr;
    onError_ = nullptr;
    if (wasActive && onError) onError(message);
    connection_.notify();
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
        if (stream_.staleLocked()) stream_.closeLocked();
        if (!stream_.isOpenLocked()) {
            pa_context* context = connection_.readyContext();
            if (!context) {
                error = "the sound server is not reachable";
                return false;
            }
            PulseRecordStream::Options options;
            options.name = streamName_;
            options.spec = kSpec;
            options.fragmentBytes = std::uint32_t(pa_usec_to_bytes(kFragmentMicroseconds, &kSpec));
            // No device named: the stream records from the default source and follows it when it changes.
            options.flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED |
                                              PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
            if (!stream_.openLocked(context, options, error)) return false;
        }
    }
    const bool settled = stream_.waitSettled(deadline);
    PulseAudioConnection::Lock lock(connection_);
    return stream_.keepIfReadyLocked(settled, "the capture stream", error);
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
        if (!stream_.isOpenLocked()) {
            error = "the capture stream went away";
            return false;
        }
        onSamples_ = std::move(onSamples);
        onError_ = std::move(onError);
        active_ = true;
        operation = pa_stream_cork(stream_.handleLocked(), 0, corkCallback, &query);
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
    stream_.closeLocked();
    return false;
}

void PulseAudioCapture::stop() {
    std::chrono::steady_clock::time_point deadline;
    {
        PulseAudioConnection::Lock lock(connection_);
        if (!active_ || !stream_.isOpenLocked()) {
            active_ = false;
            onSamples_ = nullptr;
            onError_ = nullptr;
            return;
        }
        deadline = stream_.beginDrainLocked(kMaxDrain, kDrainSlack);
    }
    stream_.waitDrained(deadline, [&] { return !active_; });
    PulseAudioConnection::Lock lock(connection_);
    const std::uint64_t missing = stream_.endDrainLocked();
    if (active_ && missing > 0) {
        logWarning("PulseAudioCapture.stop() - " + std::to_string(missing) +
                   " frames in flight did not arrive in time");
    }
    active_ = false;
    onSamples_ = nullptr;
    onError_ = nullptr;
    if (stream_.readyLocked()) {
        if (pa_operation* operation = pa_stream_cork(stream_.handleLocked(), 1, nullptr, nullptr))
            pa_operation_unref(operation);
    }
}

} // namespace sprelio::platform
