#pragma once
// The recording of the Files tab: the computer's sound, the microphone, or both, each into an Opus/CAF file of its
// own next to a base path P: P_mic.caf and P_sys.caf (the file P itself is never written).
//
// Contract for the owner:
// - startRecording() and stopRecording() block for a bounded time (the sound server's answers): call them off the
//   main loop, one after the other.
// - A source that ends by itself during the recording (its device removed, another device made the default, the
//   sound server gone) has its file finished with everything recorded up to then; the other source goes on.
//   onSourceEnded then runs on the main loop so that the user hears of it.
// - stopRecording() returns both file paths made from the base path, whether the mode used them or not: the caller
//   tests which exist.
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "audio/CafOpusWriter.h"
#include "audio/FilesMenuRecordingMode.h"
#include "base/LifetimeGuard.h"
#include "platform/MainLoop.h"
#include "platform/SystemAudio.h"

namespace sprelio {

// Writes the samples of one stream, as they come, to one file.
class StreamCaptureAudioOutputWriter {
public:
    explicit StreamCaptureAudioOutputWriter(std::filesystem::path outputURL);
    ~StreamCaptureAudioOutputWriter();
    StreamCaptureAudioOutputWriter(const StreamCaptureAudioOutputWriter&) = delete;
    StreamCaptureAudioOutputWriter& operator=(const StreamCaptureAudioOutputWriter&) = delete;

    // Any thread.
    void append(const float* samples, std::size_t frames);
    // Ends the file; what was appended stays. Harmless twice.
    void finish();
    bool isOpen() const;
    std::int64_t framesWritten() const;
    const std::filesystem::path& outputURL() const { return outputURL_; }

private:
    const std::filesystem::path outputURL_;
    mutable std::mutex mutex_;
    std::unique_ptr<CafOpusWriter> writer_;
    bool failed_ = false;
};

class ScreenCaptureKitManager {
public:
    using Source = platform::SystemAudioSource;
    using End = platform::SourceCapture::End;
    // On the main loop: which source ended by itself, why, and the device it was recording.
    using SourceEndedHandler = std::function<void(Source source, End why, const std::string& device)>;

    ScreenCaptureKitManager(platform::SystemAudio& systemAudio, platform::MainLoop& loop);
    ~ScreenCaptureKitManager();
    ScreenCaptureKitManager(const ScreenCaptureKitManager&) = delete;
    ScreenCaptureKitManager& operator=(const ScreenCaptureKitManager&) = delete;

    // Reports only by the log; the caller learns of a failure when no file is there.
    void startRecording(const std::filesystem::path& path, FilesMenuRecordingMode recordingMode);
    // (microphone, system).
    std::pair<std::optional<std::filesystem::path>, std::optional<std::filesystem::path>> stopRecording();

    SourceEndedHandler onSourceEnded;

    static std::filesystem::path microphoneFile(const std::filesystem::path& basePath);
    static std::filesystem::path systemFile(const std::filesystem::path& basePath);

private:
    struct Stream {
        std::unique_ptr<platform::SourceCapture> capture;
        std::shared_ptr<StreamCaptureAudioOutputWriter> writer;
    };
    bool startStream(Source source, const std::filesystem::path& file, std::optional<Stream>& slot);
    void stopStream(std::optional<Stream>& slot);

    platform::SystemAudio& systemAudio_;
    platform::MainLoop& loop_;
    std::optional<Stream> sysStream_;
    std::optional<Stream> micStream_;
    std::optional<std::filesystem::path> recordingPath_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
