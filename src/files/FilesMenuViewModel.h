#pragma once
// The Files tab: audio and video files, and recordings of the microphone and the computer's sound, turned into text
// through the two calls of the file protocol (upload, then a stream of progress lines that ends with the text).
//
// Each file the user adds is an item of its own, with its own progress, text or error; the items are transcribed
// one at a time in the order they came, and a failure of one never stops the next. Nothing on disk is ever removed
// here: the history keeps a name of its own for a user's file in the recordings folder (a hard link, or a copy
// across file systems), so that removing a history entry later deletes that name and not the user's file.
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/FilesMenuRecordingMode.h"
#include "audio/ScreenCaptureKitManager.h"
#include "base/Error.h"
#include "base/LifetimeGuard.h"
#include "base/Uuid.h"
#include "platform/Clock.h"
#include "platform/MainLoop.h"
#include "platform/Sounds.h"

namespace sprelio {

class AppState;
class ErrorPresenter;
class FileUploadManager;
class HistoryManager;
namespace store {
class Settings;
}

// Which text box a transcription writes to.
enum class TranscriptReceiver { editor, microphone, system };
std::string_view transcriptReceiverLabel(TranscriptReceiver receiver);

bool isSupportedMediaExtension(const std::filesystem::path& file);
// The audio extensions, then the video ones, in lower case, without the point.
std::vector<std::string> supportedMediaExtensions();

struct FileItem {
    enum class State { waiting, uploading, transcribing, done, failed, cancelled };
    int id = 0;
    std::filesystem::path file;
    TranscriptReceiver receiver = TranscriptReceiver::editor;
    State state = State::waiting;
    double uploadProgress = 0;       // 0..1
    std::string text;                // the server's progress text while transcribing, then the transcript
    std::optional<double> duration;  // seconds of audio done, from the progress lines
    std::string error;               // what the user reads when it failed
    Uuid requestID = Uuid::random();

    bool finished() const { return state == State::done || state == State::failed || state == State::cancelled; }
};

class FilesMenuViewModel {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        platform::WorkerPool& workers;
        const platform::Clock& clock;
        store::Settings& settings;
        AppState& appState;
        HistoryManager& history;
        platform::SoundPlayer& sounds;
        ErrorPresenter& messages;
        FileUploadManager& uploads; // the tab's own
        platform::SystemAudio& systemAudio;
        std::function<void(const std::string& text, const std::string& caller)> setClipboard;
        // The session's state follows a recording: filesMenuViewRecording while it runs, idle after it.
        std::function<void()> recordingStarted;
        std::function<void()> recordingEnded;
    };

    static constexpr const char* kUnsupportedText = "Only audio and video files are supported.";

    explicit FilesMenuViewModel(Dependencies deps);
    ~FilesMenuViewModel();
    FilesMenuViewModel(const FilesMenuViewModel&) = delete;
    FilesMenuViewModel& operator=(const FilesMenuViewModel&) = delete;

    // Main loop. Each path becomes an item: a valid one waits for its turn, another one fails at once with its
    // reason. Returns the items' ids in the order of the paths.
    std::vector<int> addFiles(const std::vector<std::filesystem::path>& files);
    // A waiting or running item stops (the upload or the stream is ended); a finished one is left as it is.
    void cancel(int id);
    // A finished item leaves the list; its file stays where it is.
    void remove(int id);
    void copyText(int id);
    // Writes the transcript as UTF-8 text; "" on success, else why not.
    std::string saveTranscript(int id, const std::filesystem::path& file);

    // A new recording of the microphone, the computer's sound, or both. Refused (false) while one runs or with
    // mode none. `started` gets the files it is writing to, empty when nothing could be recorded.
    bool startRecording(FilesMenuRecordingMode mode,
                        std::function<void(std::vector<std::filesystem::path>)> started = {});
    // Ends the recording; its files become items (microphone first). `done` gets the files that were written.
    void stopRecording(std::function<void(std::vector<std::filesystem::path>)> done = {});
    bool isRecording() const { return recording_.has_value(); }
    bool isStartingOrStopping() const { return recording_ && recording_->busy; }
    std::chrono::steady_clock::duration recordingElapsed() const;
    // "Start recording", or "Stop recording • " and the time.
    std::string recordButtonTitle() const;

    FilesMenuRecordingMode recordingMode() const;
    void setRecordingMode(FilesMenuRecordingMode mode);
    bool speakerSeparation() const;
    void setSpeakerSeparation(bool on);
    bool screenCaptureAccess() const;

    const std::vector<FileItem>& items() const { return items_; }
    const FileItem* item(int id) const;
    // What the item's status line says.
    std::string statusLine(const FileItem& item) const;
    // The tab's error line: the last problem the user should see.
    const std::string& errorLine() const { return errorLine_; }
    bool isTranscribing() const { return running_.has_value(); }

    // Any change of the items, the recording or the error line; `id` names the item, 0 for the rest.
    std::function<void(int id)> onChange;
    // For a caller that waits on its items (the command line): every change of an item, on the main loop.
    int addItemObserver(std::function<void(const FileItem&)> observer);
    void removeItemObserver(int token);

private:
    struct Running {
        int id = 0;
        std::uint64_t generation = 0;
        std::filesystem::path kept; // what is uploaded and what the history names
        std::string fileHash;
    };
    struct Recording {
        Uuid requestID;
        std::filesystem::path path;
        FilesMenuRecordingMode mode = FilesMenuRecordingMode::none;
        std::chrono::steady_clock::time_point startedAt;
        std::unique_ptr<ScreenCaptureKitManager> manager;
        int sourcesEnded = 0;
        bool busy = true; // starting or stopping on the worker pool
        bool stopRequested = false;
        std::function<void(std::vector<std::filesystem::path>)> stopped;
    };

    FileItem* find(int id);
    int newItem(const std::filesystem::path& file, TranscriptReceiver receiver);
    void changed(const FileItem& item);
    void changedTab();
    void showError(const std::string& text);
    void pump();
    void processFileFromPath(FileItem& item);
    void upload(std::uint64_t generation);
    void transcribe(std::uint64_t generation, const std::string& fileId);
    void failJob(std::uint64_t generation, const Error& error, std::optional<int> statusCode);
    void endJob();
    void sourceEnded(platform::SystemAudioSource source, platform::SourceCapture::End why, const std::string& device);
    void finishStop();

    Dependencies deps_;
    std::vector<FileItem> items_;
    int nextId_ = 1;
    std::optional<Running> running_;
    std::uint64_t generation_ = 0;
    std::optional<Recording> recording_;
    std::string errorLine_;
    std::map<int, std::function<void(const FileItem&)>> observers_;
    int nextObserver_ = 1;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
