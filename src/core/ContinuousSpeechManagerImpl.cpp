#include "core/ContinuousSpeechManagerImpl.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "audio/RecordingAudio.h"
#include "audio/RecordingPathHelper.h"
#include "backend/AudioUploadManager.h"
#include "backend/UploadAnswer.h"
#include "base/Log.h"
#include "core/AppDelegate.h"
#include "diagnostics/HistoryManager.h"
#include "shared/AppState.h"
#include "shared/Errors.h"
#include "shared/InputLanguages.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

constexpr const char* kNoAppDelegate =
    "unwrappedAppDelegate() - AppDelegate.shared is nil. Make sure it's assigned in applicationDidFinishLaunching.";

std::string oneDecimal(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.1f", value);
    return buffer;
}

double secondsBetween(std::chrono::system_clock::time_point from, std::chrono::system_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string dateText(std::chrono::system_clock::time_point date) {
    const auto seconds = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(date));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char buffer[40];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return buffer;
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\n\r\v\f") == std::string::npos;
}

// The pieces' recorders come and go; the meter holds on to this one instead.
class PieceMeter final : public RecordingAudio {
public:
    explicit PieceMeter(const ContinuousSpeechManagerImpl& manager) : manager_(manager) {}
    const std::filesystem::path& url() const override { return url_; }
    void setOnRecordingCompletion(Completion) override {}
    void record(const Uuid&, std::shared_ptr<const Stopwatch>) override {}
    void stop() override {}
    std::optional<float> averagePower() override { return level(&RecordingAudio::averagePower); }
    std::optional<float> peakPower() override { return level(&RecordingAudio::peakPower); }
    bool isRecording() const override { return manager_.isActive(); }

private:
    std::optional<float> level(std::optional<float> (RecordingAudio::*read)()) const {
        if (!manager_.isActive()) return std::nullopt;
        const auto recorder = manager_.activeRecorder();
        const auto value = recorder ? ((*recorder).*read)() : std::nullopt;
        return value.value_or(-160.0f);
    }
    const ContinuousSpeechManagerImpl& manager_;
    const std::filesystem::path url_;
};

} // namespace

std::shared_ptr<RecordingAudio> ContinuousSpeechManagerImpl::meterSource() {
    if (!meterSource_) meterSource_ = std::make_shared<PieceMeter>(*this);
    return meterSource_;
}

ContinuousSpeechManagerImpl::ContinuousSpeechManagerImpl(ContinuousSpeechManagerDependencies dependencies)
    : deps_(std::move(dependencies)) {}

ContinuousSpeechManagerImpl::~ContinuousSpeechManagerImpl() {
    lifetime_.expire();
    deps_.audioEngine.stop();
    deps_.audioEngine.removeTap();
}

float ContinuousSpeechManagerImpl::level(const float* samples, std::size_t frameLength) {
    float sum = 0.0f;
    for (std::size_t i = 0; i < frameLength; ++i) sum += samples[i] * samples[i];
    const float meanSquare = sum / static_cast<float>(frameLength);
    // The logarithm of the power with the factor of an amplitude: the scale runs twice as steep as dBFS.
    return 20.0f * log10f(meanSquare + std::numeric_limits<float>::denorm_min());
}

std::optional<float> ContinuousSpeechManagerImpl::calibratedVoiceTriggerDbThreshold() const {
    const float value = calibratedVoiceTriggerDbThreshold_.load();
    if (std::isnan(value)) return std::nullopt;
    return value;
}

float ContinuousSpeechManagerImpl::currentThreshold() const {
    return calibratedVoiceTriggerDbThreshold().value_or(voiceTriggerDbThreshold);
}

// ---- Monitoring ----

void ContinuousSpeechManagerImpl::startMonitoring() {
    logInfo("ContinuousSpeechManager.startMonitoring() - called");
    stopMonitoring();
    const auto format = deps_.audioEngine.inputFormat();
    if (!format) {
        logError("ContinuousSpeechManager.startMonitoring() - Failed to get input node format");
        return;
    }
    // The tap is removed before the manager goes (its destructor stops the engine first).
    deps_.audioEngine.installTap(tapBufferSize, *format,
                                 [this](const float* channel0, std::size_t frames) { handle(channel0, frames); });
    calibrationStartTime_.store(deps_.clock.now());
    calibrationDbSamples_.clear();
    logInfo("ContinuousSpeechManager.startMonitoring() - Starting calibration phase for " +
            oneDecimal(calibrationDuration) + " seconds");
    std::string error;
    if (!deps_.audioEngine.start(error)) {
        logError("ContinuousSpeechManager.startMonitoring() - Audio engine failed to start: " + error);
        return;
    }
    isActive_.store(true);
    logInfo("ContinuousSpeechManager.startMonitoring() - Audio engine started");
    // The first piece records through the calibration.
    startRecording();
}

void ContinuousSpeechManagerImpl::stopMonitoring() {
    logInfo("ContinuousSpeechManager.stopMonitoring() - called");
    deps_.audioEngine.stop();
    deps_.audioEngine.removeTap();
    isActive_.store(false);
    voiceActivityDetected_.store(false);
    lastLoudSampleTime_.store(std::nullopt);
    calibratedVoiceTriggerDbThreshold_.store(std::numeric_limits<float>::quiet_NaN());
    // A piece in progress ends like any other: its text may arrive after monitoring has stopped.
    stopRecording();
}

// ---- The tap ----

void ContinuousSpeechManagerImpl::handle(const float* channel0, std::size_t frameLength) {
    if (!channel0 || frameLength == 0) return;
    const float db = level(channel0, frameLength);
    const auto now = deps_.clock.now();

    if (const auto calibrationStart = calibrationStartTime_.load()) {
        calibrationDbSamples_.push_back(db);
        if (secondsBetween(*calibrationStart, now) < calibrationDuration) return;
        float sum = 0.0f;
        for (float sample : calibrationDbSamples_) sum += sample;
        const float avgDb = sum / static_cast<float>(calibrationDbSamples_.size());
        const float threshold = std::max(avgDb + calibrationOffset, calibrationFloor);
        calibratedVoiceTriggerDbThreshold_.store(threshold);
        logInfo("ContinuousSpeechManager.handle() - Calibration complete: avgDb=" + oneDecimal(avgDb) +
                ", threshold=" + oneDecimal(threshold));
        calibrationStartTime_.store(std::nullopt);
        return;
    }

    if (db > currentThreshold()) {
        lastLoudSampleTime_.store(now);
        voiceActivityDetected_.store(true);
        return;
    }
    auto lastLoud = lastLoudSampleTime_.load();
    if (!lastLoud) {
        lastLoud = now;
        lastLoudSampleTime_.store(now);
    }
    const double silence = secondsBetween(*lastLoud, now);
    if (silence > deps_.settings.cttsSilenceTresholdMs() / 1000.0) {
        // lastLoudSampleTime stays: every further quiet buffer comes here again. While the silence lasts, recorders
        // are started and stopped in turn and their pieces fall below the minimum; the one running when speech
        // begins carries on.
        if (voiceActivityDetected_.load()) {
            voiceActivityDetected_.store(false);
            stopRecording();
        } else {
            discardAndRestartRecording();
        }
    }
}

// ---- Recorders ----

void ContinuousSpeechManagerImpl::startRecording() {
    // The tap's thread and a completion's restart may both get here: the one that turns isRecording on starts.
    bool recording = false;
    if (!isRecording_.compare_exchange_strong(recording, true)) return;
    if (const auto lastStop = lastStopTimestamp_.load()) {
        logInfo("ContinuousSpeechManager.startRecording() - starting new recorder " +
                oneDecimal(secondsBetween(*lastStop, deps_.clock.now()) * 1000.0) +
                " ms after stopping previous one");
    }
    const auto now = deps_.clock.now();
    std::error_code folderError;
    const auto path = RecordingPathHelper::pathForDate(deps_.settings.saveRecordingsFolder(), now, folderError).file;
    if (folderError) {
        logError("ContinuousSpeechManager.startRecording() - error: " + folderError.message());
    }
    const Uuid requestID = Uuid::random();
    auto stopwatch = std::make_shared<const Stopwatch>("startCTTSRecording()", deps_.clock.steadyNow());
    auto recorder = deps_.recorders.makeRecordingAudio(path);
    if (!recorder) {
        logError("ContinuousSpeechManager.startRecording() - error: recorder is nil");
        isRecording_.store(false);
        return;
    }
    activeRecorder_.store(recorder);
    recordingStartTime_.store(now);
    requestID_ = requestID;
    const auto alive = lifetime_.token();
    std::weak_ptr<RecordingAudio> weakRecorder = recorder;
    recorder->setOnRecordingCompletion(
        [this, alive, now, requestID, weakRecorder](const std::filesystem::path& url, bool success) {
            if (!alive) return;
            onRecordingCompletion(url, success, now, requestID, weakRecorder.lock());
        });
    recorder->record(requestID, std::move(stopwatch));
}

void ContinuousSpeechManagerImpl::stopRecording() {
    if (!isRecording_.load()) return;
    const auto started = deps_.clock.steadyNow();
    lastStopTimestamp_.store(deps_.clock.now());
    // The recorder stops on a worker; isRecording stays true until its completion.
    if (auto recorder = activeRecorder_.load()) recorder->stop();
    recordingStartTime_.store(std::nullopt);
    logInfo("ContinuousSpeechManager.stopRecording() - stopping recorder took " +
            oneDecimal(std::chrono::duration<double, std::milli>(deps_.clock.steadyNow() - started).count()) + " ms");
}

void ContinuousSpeechManagerImpl::discardAndRestartRecording() {
    logInfo("ContinuousSpeechManager.discardAndRestartRecording() - no voice detected, restarting recording.");
    if (auto recorder = activeRecorder_.load()) {
        // Nothing is deleted here: the piece goes through the completion like any other.
        logDebug("RecordingAudio.stopAndDiscard() - called");
        recorder->stop();
    }
    recordingStartTime_.store(std::nullopt);
    voiceActivityDetected_.store(false);
    startRecording();
}

void ContinuousSpeechManagerImpl::onRecordingCompletion(const std::filesystem::path& fileURL, bool success,
                                                        std::chrono::system_clock::time_point startDate,
                                                        const Uuid& requestID,
                                                        const std::shared_ptr<RecordingAudio>& recorder) {
    isRecording_.store(false);
    const auto now = deps_.clock.now();
    logInfo("ContinuousSpeechManager.onRecordingCompletion() - file: " + fileURL.filename().string() +
            ", status: " + (success ? "true" : "false") + ", recording started at: " + dateText(startDate));
    if (const auto lastLoud = lastLoudSampleTime_.load()) {
        logInfo("ContinuousSpeechManager.onRecordingCompletion() - last loud sample was " +
                oneDecimal(secondsBetween(*lastLoud, now)) + " seconds ago");
    } else {
        logInfo("ContinuousSpeechManager.onRecordingCompletion() - no loud samples detected during recording");
    }
    logInfo("ContinuousSpeechManager.onRecordingCompletion() - threshold used: " + oneDecimal(currentThreshold()) +
            " dB — adaptive: true");
    // The tap may have started the next recorder since isRecording went false: only this one is let go.
    auto expected = recorder;
    activeRecorder_.compare_exchange_strong(expected, nullptr);
    // While listening the next recorder starts here rather than at the next quiet buffer: speech that begins
    // while this one was stopping, or before that buffer, would otherwise find no recorder, and loud buffers start
    // none, so the whole utterance would be lost. Long silence still cycles recorders and drops their pieces.
    if (isActive_.load()) startRecording();

    // The decision rests on the time alone, whatever the success flag and whether voice was heard.
    const auto durationMs = static_cast<long long>(std::trunc(secondsBetween(startDate, now) * 1000.0));
    if (durationMs < deps_.settings.minimumRecordingDuration()) return;
    deps_.loop.post(lifetime_.guard([this, fileURL, requestID] { uploadWithinRateLimit(fileURL, requestID); }));
}

// ---- Uploads ----

void ContinuousSpeechManagerImpl::uploadWithinRateLimit(const std::filesystem::path& fileURL, const Uuid& requestID) {
    const auto now = deps_.clock.now();
    const double elapsed = lastUploadTimestamp_ ? secondsBetween(*lastUploadTimestamp_, now)
                                                : std::numeric_limits<double>::infinity();
    const double limit = (deps_.settings.cttsSilenceTresholdMs() / 1000.0 +
                          deps_.settings.minimumRecordingDuration() / 1000.0) *
                         uploadRateFactor;
    if (limit > elapsed) {
        // The piece is lost; its file stays on disk.
        logWarning("ContinuousSpeechManager.onRecordingCompletion() - upload skipped (rate limit: " +
                   oneDecimal(elapsed) + "s)");
        return;
    }
    lastUploadTimestamp_ = now;
    uploadAndProcessAudio(fileURL, requestID);
}

void ContinuousSpeechManagerImpl::uploadAndProcessAudio(const std::filesystem::path& fileURL, const Uuid& requestID) {
    logInfo("AudioUploadManager.uploadRecording() - requestID: " + requestID.string() + ", inputLanguageCode: nil");
    const InputLanguages languages = chooseInputLanguages(std::nullopt, deps_.settings);
    deps_.loop.post(lifetime_.guard([this, fileURL, requestID, codes = languages.codes] {
        const auto alive = lifetime_.token();
        const std::uint64_t sequence = nextUploadSequence_++;
        pendingAnswers_.push_back(PendingAnswer{sequence, {}});
        deps_.uploadManager.uploadRecording(
            fileURL, requestID, codes, std::nullopt, false, std::nullopt,
            [this, alive, sequence, fileURL, requestID](std::optional<nlohmann::json> result,
                                                        std::optional<Error> error) {
                if (!alive) return;
                answerArrived(sequence, [this, result = std::move(result), error = std::move(error), fileURL,
                                         requestID] { processUploadResult(result, error, fileURL, requestID); });
            });
    }));
}

void ContinuousSpeechManagerImpl::answerArrived(std::uint64_t sequence, std::function<void()> handle) {
    const auto waiting = std::find_if(pendingAnswers_.begin(), pendingAnswers_.end(),
                                      [sequence](const PendingAnswer& pending) { return pending.sequence == sequence; });
    // A further call for an answer already handled (a stream's later line) waits for nothing.
    if (waiting == pendingAnswers_.end() || waiting->handle) {
        handle();
        return;
    }
    waiting->handle = std::move(handle);
    while (!pendingAnswers_.empty() && pendingAnswers_.front().handle) {
        auto next = std::move(pendingAnswers_.front().handle);
        pendingAnswers_.pop_front();
        next();
    }
}

void ContinuousSpeechManagerImpl::processUploadResult(const std::optional<nlohmann::json>& result,
                                                      const std::optional<Error>& error,
                                                      const std::filesystem::path& fileURL, const Uuid& requestID) {
    const UploadAnswer answer = readUploadAnswer(result, error);
    if (answer.kind == UploadAnswer::Kind::transcript) {
        if (isBlank(answer.text)) {
            // Nothing was said: the one case in which a recording is removed here.
            std::error_code removeError;
            std::filesystem::remove(fileURL, removeError);
            if (removeError) {
                logError("ContinuousSpeechManager.uploadAndProcessAudio() - failed to delete file at: " +
                         fileURL.string() + ", error: " + removeError.message());
            }
            return;
        }
        deps_.settings.setLastDetectedLanguageCode(*answer.language);
        deps_.historyManager.log(HistoryManagerLogLevel::success, answer.text, fileURL, requestID, false);
        AppDelegate* delegate = deps_.appDelegate ? deps_.appDelegate() : nullptr;
        if (!delegate) {
            logError(kNoAppDelegate);
            return;
        }
        delegate->performPasting(answer.text);
        return;
    }
    if (error) {
        logError("ContinuousSpeechManager.uploadAndProcessAudio() - error: " + error->debugDescription());
        deps_.historyManager.log(HistoryManagerLogLevel::error, error->localizedDescription, fileURL, requestID, false);
        deps_.messages.showAlertForError(*error);
        return;
    }
    logWarning("ContinuousSpeechManager.uploadAndProcessAudio() - unknown result: " + std::string(kPrivatized));
    deps_.loop.post(lifetime_.guard([this, fileURL, requestID] {
        const auto kind = deps_.appState.internetAvailable() ? SPRLocalizedError::unknownError
                                                             : SPRLocalizedError::networkError;
        const Error unknown = makeError(kind, deps_.messages.appName());
        deps_.historyManager.log(HistoryManagerLogLevel::error, unknown.localizedDescription, fileURL, requestID,
                                 false);
        deps_.messages.showAlertForError(unknown);
    }));
}

} // namespace sprelio
