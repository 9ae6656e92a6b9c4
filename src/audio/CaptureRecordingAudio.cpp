#include "audio/CaptureRecordingAudio.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "audio/CafFormat.h"
#include "base/Log.h"

namespace sprelio {

namespace {

float decibels(double amplitudeSquared) {
    if (!(amplitudeSquared > 0)) return -160.0f;
    return float(std::clamp(10.0 * std::log10(amplitudeSquared), -160.0, 0.0));
}

} // namespace

CaptureRecordingAudio::CaptureRecordingAudio(std::filesystem::path path, platform::AudioCapture& capture,
                                             platform::WorkerPool& workers, ReturnToMainMenu returnToMainMenu)
    : url_(std::move(path)), capture_(capture), workers_(workers), returnToMainMenu_(std::move(returnToMainMenu)) {}

CaptureRecordingAudio::~CaptureRecordingAudio() {
    // An owner that lets go of a running recorder: end the capture, so that no callback finds the instance gone.
    // The file stays as a crash would leave it, which a recovery can read.
    bool running = false;
    {
        std::lock_guard guard(samplesMutex_);
        running = writer_ != nullptr;
    }
    if (running) capture_.stop();
    std::lock_guard guard(samplesMutex_);
    if (writer_) {
        writer_->abandon();
        if (packetSink_) packetSink_->ended(false);
    }
}

void CaptureRecordingAudio::setOnRecordingCompletion(Completion completion) {
    std::lock_guard guard(completionMutex_);
    onRecordingCompletion_ = std::move(completion);
}

void CaptureRecordingAudio::setPacketSink(std::shared_ptr<RecordingPacketSink> sink) {
    std::lock_guard guard(samplesMutex_);
    packetSink_ = std::move(sink);
}

bool CaptureRecordingAudio::isRecording() const {
    std::lock_guard guard(samplesMutex_);
    return writer_ != nullptr;
}

void CaptureRecordingAudio::record(const Uuid& requestID, std::shared_ptr<const Stopwatch> stopwatch) {
    const std::string id = requestID.string();
    logInfo("record() - requestID: " + id);
    std::weak_ptr<CaptureRecordingAudio> weak = weak_from_this();
    workers_.submit([weak, id, stopwatch = std::move(stopwatch)] {
        auto self = weak.lock();
        if (!self) {
            logError("record() - requestID: " + id + " - self is nil, recording not possible, this is an error!");
            return;
        }
        self->recordOnWorker(id, stopwatch);
    });
}

void CaptureRecordingAudio::recordOnWorker(const std::string& id, const std::shared_ptr<const Stopwatch>& stopwatch) {
    std::lock_guard operation(operationMutex_);
    if (state_ != State::constructed) return;
    state_ = State::finished; // unless the start below succeeds
    logInfo("record() - requestID: " + id + " - preparing recording");

    // prepare(): the file and its encoder.
    auto writer = std::make_unique<CafOpusWriter>();
    bool prepared = false;
    try {
        OpusEncoder::Settings settings;
        settings.sampleRate = static_cast<int>(sampleRate);
        settings.channels = channels;
        settings.bitRate = bitRate;
        if (settings.sampleRate != platform::AudioCapture::kSampleRate ||
            settings.channels != platform::AudioCapture::kChannels) {
            Error error;
            error.domain = "RecordingAudio";
            error.code = 1;
            error.localizedDescription = "the capture delivers 16000 Hz mono, not " +
                                         std::to_string(settings.sampleRate) + " Hz with " +
                                         std::to_string(settings.channels) + " channels";
            throw caf::CafError(error);
        }
        writer->open(url_, settings);
        prepared = true;
    } catch (const std::exception& e) {
        logError("record() - requestID: " + id + " - self.prepare() error: " + e.what());
    }

    const double seconds = stopwatch ? stopwatch->secondsUntil(Stopwatch::Clock::now()) : 0.0;
    char secondsText[32];
    std::snprintf(secondsText, sizeof secondsText, "%.3f", seconds);
    logInfo("record() - requestID: " + id + " - preparing finished in " + secondsText +
            "s - ++++ start recording with AVAudioRecorder ++++");

    if (!prepared) {
        logInfo("record() - requestID: " + id + " - result: nil");
        std::lock_guard guard(samplesMutex_);
        if (packetSink_) packetSink_->ended(false);
        return;
    }
    {
        std::lock_guard guard(samplesMutex_);
        if (packetSink_) {
            writer->onPacket = [sink = packetSink_.get()](const std::uint8_t* data, std::size_t size) {
                sink->packet(data, size);
            };
        }
        writer_ = std::move(writer);
    }
    std::string error;
    const bool started = capture_.start([this](const float* samples, std::size_t frames) { onSamples(samples, frames); },
                                        [this](const std::string& message) { onCaptureError(message); }, error);
    logInfo("record() - requestID: " + id + " - result: " + (started ? "true" : "false"));
    if (!started) {
        logError("record() - requestID: " + id + " - capture error: " + error);
        std::lock_guard guard(samplesMutex_);
        writer_->abandon();
        writer_.reset();
        if (packetSink_) packetSink_->ended(false);
        return;
    }
    state_ = State::recording;
    if (stopRequested_) {
        // The owner's stop was carried out before this start; honour it now.
        stopRequested_ = false;
        logInfo("record() - requestID: " + id + " - stop was requested before the start, stopping");
        finishOnWorker(false);
    }
}

void CaptureRecordingAudio::stopAndDiscard() {
    logDebug("RecordingAudio.stopAndDiscard() - called");
    stop();
}

void CaptureRecordingAudio::stop() {
    std::weak_ptr<CaptureRecordingAudio> weak = weak_from_this();
    workers_.submit([weak] {
        if (auto self = weak.lock()) self->stopOnWorker();
    });
}

void CaptureRecordingAudio::stopOnWorker() {
    std::lock_guard operation(operationMutex_);
    logInfo("RecordingAudio.stop() - averagePower: " + powerText(averagePower()) +
            " / peakPower: " + powerText(peakPower()));
    if (state_ == State::constructed) {
        stopRequested_ = true;
        return;
    }
    if (state_ != State::recording) return;
    finishOnWorker(false);
}

void CaptureRecordingAudio::finishOnWorker(bool captureFailed) {
    // Drains: everything captured up to here is handed to onSamples() before stop() returns.
    capture_.stop();
    bool success = true;
    {
        std::lock_guard guard(samplesMutex_);
        if (!writer_) return;
        try {
            writer_->finish();
        } catch (const std::exception& e) {
            logError("RecordingAudio.stop() - the file could not be finished: " + std::string(e.what()));
            success = false;
        }
        writer_.reset();
        success = success && !encodeFailed_ && !captureFailed_ && !captureFailed;
        // Before the completion, so that the stream's end is under way when the upload starts.
        if (packetSink_) packetSink_->ended(success);
    }
    state_ = State::finished;
    logInfo("RecordingAudio.stop() - recording stopped");
    deliverCompletion(success);
}

void CaptureRecordingAudio::deliverCompletion(bool success) {
    if (completed_.exchange(true)) return;
    logInfo(std::string("RecordingAudio.audioRecorderDidFinishRecording() - success: ") + (success ? "true" : "false"));
    const auto currentCompletion = [this] {
        std::lock_guard guard(completionMutex_);
        return onRecordingCompletion_;
    };
    Completion completion = currentCompletion();
    if (!completion) {
        logInfo("RecordingAudio.audioRecorderDidFinishRecording() - onRecordingCompletion == nil, returning to menu");
        if (returnToMainMenu_) returnToMainMenu_();
        // An owner that set its completion in the meantime still hears of the recording.
        completion = currentCompletion();
        if (!completion) return;
    }
    completion(url_, success);
}

void CaptureRecordingAudio::onSamples(const float* samples, std::size_t frames) {
    std::lock_guard guard(samplesMutex_);
    if (!writer_) return;
    for (std::size_t i = 0; i < frames; ++i) {
        const float v = samples[i];
        averageSumSquares_ += double(v) * v;
        peakSinceRead_ = std::max(peakSinceRead_, std::fabs(v));
    }
    averageCount_ += frames;
    peakHasSamples_ = peakHasSamples_ || frames > 0;
    if (encodeFailed_) return;
    try {
        writer_->appendSamples(samples, frames);
    } catch (const std::exception& e) {
        // The recording goes on until the owner stops it; the completion then reports the failure.
        encodeFailed_ = true;
        logError(std::string("RecordingAudio.audioRecorderEncodeErrorDidOccur() - ") + e.what());
    }
}

void CaptureRecordingAudio::onCaptureError(const std::string& message) {
    {
        std::lock_guard guard(samplesMutex_);
        captureFailed_ = true;
    }
    logError("RecordingAudio.captureDidFail() - " + message);
    // On the capture's thread: the capture may not be stopped from here, so the ending runs on the pool.
    std::weak_ptr<CaptureRecordingAudio> weak = weak_from_this();
    workers_.submit([weak] {
        auto self = weak.lock();
        if (!self) return;
        std::lock_guard operation(self->operationMutex_);
        if (self->state_ == State::recording) self->finishOnWorker(true);
    });
}

std::optional<float> CaptureRecordingAudio::averagePower() {
    std::lock_guard guard(samplesMutex_);
    if (!writer_) return std::nullopt;
    if (averageCount_ > 0) {
        lastAverage_ = decibels(averageSumSquares_ / double(averageCount_));
        averageSumSquares_ = 0;
        averageCount_ = 0;
    }
    return lastAverage_;
}

std::optional<float> CaptureRecordingAudio::peakPower() {
    std::lock_guard guard(samplesMutex_);
    if (!writer_) return std::nullopt;
    if (peakHasSamples_) {
        lastPeak_ = decibels(double(peakSinceRead_) * peakSinceRead_);
        peakSinceRead_ = 0;
        peakHasSamples_ = false;
    }
    return lastPeak_;
}

std::string CaptureRecordingAudio::powerText(std::optional<float> value) const {
    if (!value) return "nil";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", double(*value));
    return text;
}

std::shared_ptr<RecordingAudio> CaptureRecordingAudioFactory::makeRecordingAudio(const std::filesystem::path& path) {
    return makeCaptureRecordingAudio(path);
}

std::shared_ptr<CaptureRecordingAudio>
CaptureRecordingAudioFactory::makeCaptureRecordingAudio(const std::filesystem::path& path) {
    return std::make_shared<CaptureRecordingAudio>(path, capture_, workers_, returnToMainMenu_);
}

} // namespace sprelio
