#include "audio/ScreenCaptureKitManager.h"

#include "base/Log.h"

namespace sprelio {

namespace {

constexpr const char* kStart = "ScreenCaptureKitManager.startRecording() - ";

const char* sourceText(platform::SystemAudioSource source) {
    return source == platform::SystemAudioSource::computerSound ? "system" : "microphone";
}

const char* endText(platform::SourceCapture::End why) {
    switch (why) {
    case platform::SourceCapture::End::deviceRemoved: return "deviceRemoved";
    case platform::SourceCapture::End::defaultChanged: return "defaultChanged";
    case platform::SourceCapture::End::serverLost: return "serverLost";
    }
    return "unknown";
}

} // namespace

StreamCaptureAudioOutputWriter::StreamCaptureAudioOutputWriter(std::filesystem::path outputURL)
    : outputURL_(std::move(outputURL)) {
    OpusEncoder::Settings settings;
    settings.sampleRate = 16000;
    settings.channels = 1;
    settings.bitRate = 16000;
    try {
        auto writer = std::make_unique<CafOpusWriter>();
        writer->open(outputURL_, settings);
        writer_ = std::move(writer);
    } catch (const std::exception& e) {
        logError(std::string("StreamCaptureAudioOutputWriter.init() - Failed with error: ") + e.what());
    }
}

StreamCaptureAudioOutputWriter::~StreamCaptureAudioOutputWriter() { finish(); }

void StreamCaptureAudioOutputWriter::append(const float* samples, std::size_t frames) {
    std::lock_guard guard(mutex_);
    if (!writer_ || failed_) {
        // Said once: the stream keeps coming at 50 buffers a second.
        if (!failed_) {
            logError("StreamCaptureAudioOutputWriter.stream(_:didOutputSampleBuffer:of:) - Failed to append sample buffer");
            failed_ = true;
        }
        return;
    }
    try {
        writer_->appendSamples(samples, frames);
    } catch (const std::exception& e) {
        failed_ = true;
        logError("StreamCaptureAudioOutputWriter.stream(_:didOutputSampleBuffer:of:) - Failed to append sample buffer: " +
                 std::string(e.what()));
    }
}

void StreamCaptureAudioOutputWriter::finish() {
    std::lock_guard guard(mutex_);
    if (!writer_ || !writer_->isOpen()) return;
    try {
        writer_->finish();
    } catch (const std::exception& e) {
        // The file stays as it was: every complete packet in it is still readable.
        logError("StreamCaptureAudioOutputWriter.finish() - " + outputURL_.string() + ": " + e.what());
        writer_->abandon();
    }
}

bool StreamCaptureAudioOutputWriter::isOpen() const {
    std::lock_guard guard(mutex_);
    return writer_ && writer_->isOpen();
}

std::int64_t StreamCaptureAudioOutputWriter::framesWritten() const {
    std::lock_guard guard(mutex_);
    return writer_ ? writer_->framesAppended() : 0;
}

ScreenCaptureKitManager::ScreenCaptureKitManager(platform::SystemAudio& systemAudio, platform::MainLoop& loop)
    : systemAudio_(systemAudio), loop_(loop) {
    logInfo("ScreenCaptureKitManager.init()");
}

ScreenCaptureKitManager::~ScreenCaptureKitManager() {
    lifetime_.expire();
    stopStream(sysStream_);
    stopStream(micStream_);
}

std::filesystem::path ScreenCaptureKitManager::microphoneFile(const std::filesystem::path& basePath) {
    auto base = basePath;
    base.replace_extension();
    return base.string() + "_mic.caf";
}

std::filesystem::path ScreenCaptureKitManager::systemFile(const std::filesystem::path& basePath) {
    auto base = basePath;
    base.replace_extension();
    return base.string() + "_sys.caf";
}

bool ScreenCaptureKitManager::startStream(Source source, const std::filesystem::path& file,
                                          std::optional<Stream>& slot) {
    Stream stream;
    stream.capture = systemAudio_.makeCapture(source);
    stream.writer = std::make_shared<StreamCaptureAudioOutputWriter>(file);
    auto writer = stream.writer;
    auto* capture = stream.capture.get();
    // Known once the capture runs; the end handler runs on the capture's thread and may not ask the capture.
    auto device = std::make_shared<std::string>();
    std::string error;
    const bool started = capture->start(
        [writer](const float* samples, std::size_t frames) { writer->append(samples, frames); },
        [this, alive = lifetime_.token(), writer, source, device](End why, const std::string& detail) {
            // On the sound server's thread: the file is finished and the user told on the main loop.
            logWarning(std::string("ScreenCaptureKitManager - the ") + sourceText(source) + " stream ended by itself (" +
                       endText(why) + "): " + detail);
            loop_.post([this, alive, writer, source, why, device = *device] {
                writer->finish();
                logInfo("ScreenCaptureKitManager - kept " + writer->outputURL().string() + " with " +
                        std::to_string(writer->framesWritten()) + " frames");
                if (alive && onSourceEnded) onSourceEnded(source, why, device);
            });
        },
        error);
    if (!started) {
        logError(std::string(kStart) + "failed: " + error);
        // The writer made its file before the capture refused: a file with no audio is no recording.
        writer->finish();
        std::error_code ec;
        if (writer->framesWritten() == 0) std::filesystem::remove(file, ec);
        return false;
    }
    *device = capture->deviceName();
    slot = std::move(stream);
    return true;
}

void ScreenCaptureKitManager::startRecording(const std::filesystem::path& path,
                                             FilesMenuRecordingMode recordingMode) {
    logInfo(std::string(kStart) + "path: " + path.string() +
            " - recordingMode: " + std::string(filesMenuRecordingModeRawValue(recordingMode)));
    if (!systemAudio_.screenCaptureAccess()) {
        logError(std::string(kStart) + "Screen & System Audio Recording permission denied");
        return;
    }
    if (recordingMode == FilesMenuRecordingMode::none) {
        logError(std::string(kStart) + ".none mode is not valid for recording");
        return;
    }
    recordingPath_ = path;
    // The computer's sound starts first and runs by the time the microphone's stream is made; a failure of the
    // microphone leaves it running until stopRecording().
    if (recordsSystem(recordingMode) && !startStream(Source::computerSound, systemFile(path), sysStream_)) return;
    if (recordsMicrophone(recordingMode) && !startStream(Source::microphone, microphoneFile(path), micStream_)) return;
    logInfo(std::string(kStart) + "Started ScreenCaptureKit audio recording to " + path.string());
}

void ScreenCaptureKitManager::stopStream(std::optional<Stream>& slot) {
    if (!slot) return;
    slot->capture->stop();
    slot->writer->finish();
    slot.reset();
}

std::pair<std::optional<std::filesystem::path>, std::optional<std::filesystem::path>>
ScreenCaptureKitManager::stopRecording() {
    stopStream(sysStream_);
    stopStream(micStream_);
    logInfo("ScreenCaptureKitManager.stopRecording() - Recording stopped");
    if (!recordingPath_) {
        logError("ScreencastManager.stopRecording() - Failed to construct output file paths (base path missing)");
        return {std::nullopt, std::nullopt};
    }
    return {microphoneFile(*recordingPath_), systemFile(*recordingPath_)};
}

} // namespace sprelio
