#include "files/FilesMenuViewModel.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "audio/RecordingPathHelper.h"
#include "backend/FileUploadManager.h"
#include "base/Log.h"
#include "diagnostics/HistoryManager.h"
#include "files/HistoryCopy.h"
#include "shared/AppState.h"
#include "shared/Errors.h"
#include "store/AtomicFile.h"
#include "store/Settings.h"

namespace sprelio {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 27> kAudioExtensions = {
    "wav", "oga", "ogg", "caf", "mp3", "opus", "aac", "flac", "m4a", "wma", "aiff", "aif", "pcm", "amr",
    "alac", "ape", "mid", "midi", "ra", "mka", "au", "ac3", "dts", "voc", "tta", "mp2", "aifc"};
constexpr std::array<std::string_view, 35> kVideoExtensions = {
    "mp4", "mov", "avi", "mkv", "wmv", "flv", "m4v", "webm", "3gp", "mpeg", "mpg", "ogv",
    "mts", "m2ts", "vob", "rm", "rmvb", "asf", "swf", "f4v", "divx", "xvid", "mxf", "ts",
    "dat", "drc", "mng", "qt", "yuv", "ogm", "svi", "mp2", "mpv", "mpe", "mpg4"};

std::string lowerExtension(const fs::path& file) {
    std::string extension = file.extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

std::string statusText(std::optional<int> status) {
    return status ? std::to_string(*status) : std::string("nil");
}

std::string clockText(std::chrono::steady_clock::duration elapsed) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
    char text[32];
    if (seconds >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                      static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
    } else {
        std::snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                      static_cast<long long>(seconds % 60));
    }
    return text;
}

Error userError(const std::string& text) { return SPRStringError::errorMessageError(std::nullopt, text).toError(); }

} // namespace

std::string_view transcriptReceiverLabel(TranscriptReceiver receiver) {
    switch (receiver) {
    case TranscriptReceiver::editor: return "File Transcript";
    case TranscriptReceiver::microphone: return "Microphone Transcript";
    case TranscriptReceiver::system: return "Computer Speakers Transcript";
    }
    return "File Transcript";
}

bool isSupportedMediaExtension(const fs::path& file) {
    const std::string extension = lowerExtension(file);
    const auto known = [&](const auto& list) { return std::find(list.begin(), list.end(), extension) != list.end(); };
    return known(kAudioExtensions) || known(kVideoExtensions);
}

std::vector<std::string> supportedMediaExtensions() {
    std::vector<std::string> all(kAudioExtensions.begin(), kAudioExtensions.end());
    for (auto extension : kVideoExtensions) {
        if (std::find(all.begin(), all.end(), extension) == all.end()) all.emplace_back(extension);
    }
    return all;
}

FilesMenuViewModel::FilesMenuViewModel(Dependencies deps) : deps_(std::move(deps)) {
    deps_.uploads.onUploadProgressChanged = [this](double progress) {
        if (!running_) return;
        if (FileItem* item = find(running_->id); item && item->state == FileItem::State::uploading) {
            item->uploadProgress = progress;
            changed(*item);
        }
    };
    logInfo("FilesMenuView{} - Screen & System Audio Recording access: " +
            std::string(deps_.systemAudio.screenCaptureAccess() ? "true" : "false"));
}

FilesMenuViewModel::~FilesMenuViewModel() {
    lifetime_.expire();
    deps_.uploads.onUploadProgressChanged = nullptr;
    if (running_) deps_.uploads.cancelUpload();
    // A recording still running ends with the application; its files stay where they are.
    if (recording_ && recording_->manager) recording_->manager->stopRecording();
}

FileItem* FilesMenuViewModel::find(int id) {
    for (auto& item : items_)
        if (item.id == id) return &item;
    return nullptr;
}

const FileItem* FilesMenuViewModel::item(int id) const {
    for (const auto& item : items_)
        if (item.id == id) return &item;
    return nullptr;
}

void FilesMenuViewModel::changed(const FileItem& item) {
    const FileItem copy = item; // an observer may add or remove items
    if (onChange) onChange(copy.id);
    auto observers = observers_;
    for (auto& [token, observer] : observers) observer(copy);
}

void FilesMenuViewModel::changedTab() {
    if (onChange) onChange(0);
}

void FilesMenuViewModel::showError(const std::string& text) {
    errorLine_ = text;
    changedTab();
}

int FilesMenuViewModel::addItemObserver(std::function<void(const FileItem&)> observer) {
    observers_[nextObserver_] = std::move(observer);
    return nextObserver_++;
}

void FilesMenuViewModel::removeItemObserver(int token) { observers_.erase(token); }

int FilesMenuViewModel::newItem(const fs::path& file, TranscriptReceiver receiver) {
    FileItem item;
    item.id = nextId_++;
    item.file = file;
    item.receiver = receiver;
    items_.push_back(std::move(item));
    return items_.back().id;
}

std::vector<int> FilesMenuViewModel::addFiles(const std::vector<fs::path>& files) {
    std::vector<int> ids;
    for (const auto& given : files) {
        std::error_code ec;
        const fs::path file = given.is_absolute() ? given : fs::absolute(given, ec);
        const int id = newItem(file, TranscriptReceiver::editor);
        ids.push_back(id);
        FileItem& item = *find(id);
        // isFileValidForTranscription
        if (!fs::is_regular_file(file, ec)) {
            logInfo("isFileValidForTranscription - file does not exist: " + file.string());
            item.state = FileItem::State::failed;
            item.error = fs::is_directory(file, ec) ? "This is a folder, not an audio or video file."
                                                     : "The file does not exist.";
        } else if (fs::file_size(file, ec) == 0 && !ec) {
            // A server would refuse it with a reason that has nothing to do with the file.
            logInfo("isFileValidForTranscription - empty file: " + file.string());
            item.state = FileItem::State::failed;
            item.error = "The file is empty.";
        } else if (!isSupportedMediaExtension(file)) {
            logInfo("isFileValidForTranscription - unsupported extension: " + lowerExtension(file));
            item.state = FileItem::State::failed;
            item.error = kUnsupportedText;
        }
        if (item.state == FileItem::State::failed) {
            deps_.sounds.play("Basso");
            errorLine_ = file.filename().string() + ": " + item.error;
        }
        changed(*find(id));
    }
    changedTab();
    pump();
    return ids;
}

void FilesMenuViewModel::pump() {
    if (running_) return;
    for (auto& item : items_) {
        if (item.state != FileItem::State::waiting) continue;
        processFileFromPath(item);
        return;
    }
}

void FilesMenuViewModel::processFileFromPath(FileItem& item) {
    if (!deps_.appState.internetAvailable()) {
        deps_.sounds.play("Basso");
        const Error error = makeError(SPRLocalizedError::networkError, deps_.messages.appName());
        logError("processFileFromPath{} - error: " + error.debugDescription());
        item.state = FileItem::State::failed;
        item.error = error.localizedDescription;
        showError(error.localizedDescription);
        changed(item);
        // The next file meets the same network: each says so, and none waits for ever.
        deps_.loop.post(lifetime_.guard([this] { pump(); }));
        return;
    }
    item.text.clear();
    item.error.clear();
    item.uploadProgress = 0;
    item.duration.reset();
    item.requestID = Uuid::random();
    item.state = FileItem::State::uploading;
    running_ = Running{item.id, ++generation_, item.file, {}};
    deps_.appState.setFilesMenuIsProcessing(true);
    changed(item);

    // The digest and the history's own name for a user's file read the whole file: off the main loop.
    const std::uint64_t generation = generation_;
    const fs::path file = item.file;
    const bool usersFile = item.receiver == TranscriptReceiver::editor;
    const fs::path recordings = deps_.settings.saveRecordingsFolder();
    const auto now = deps_.clock.now();
    deps_.workers.submit([this, alive = lifetime_.token(), generation, file, usersFile, recordings, now] {
        std::string problem;
        std::optional<fs::path> kept = file;
        if (usersFile) kept = keepCopyForHistory(recordings, now, file, problem);
        std::optional<std::string> hash;
        if (kept) {
            hash = sha256Hash(*kept);
            if (!hash) problem = "The file could not be read.";
        }
        deps_.loop.post([this, alive, generation, kept, hash, problem] {
            if (!alive || !running_ || running_->generation != generation) return;
            if (!kept || !hash) {
                failJob(generation, userError(problem), std::nullopt);
                return;
            }
            running_->kept = *kept;
            running_->fileHash = *hash;
            upload(generation);
        });
    });
}

void FilesMenuViewModel::upload(std::uint64_t generation) {
    const std::string fileUUID = Uuid::random().string();
    logInfo("processFileFromPath{} - Starting upload for file: " + running_->kept.filename().string());
    deps_.uploads.uploadFile(
        running_->kept, running_->fileHash, fileUUID, deps_.settings.filesMenuViewSpeakerSeparation(),
        [this, alive = lifetime_.token(), generation](std::optional<std::string> fileId, std::optional<int> statusCode,
                                                      std::optional<Error> error) {
            if (!alive || !running_ || running_->generation != generation) return;
            logInfo("processFileFromPath() - statusCode: " + statusText(statusCode));
            if (error || !fileId) {
                failJob(generation,
                        error.value_or(makeError(SPRLocalizedError::uploadFailedError, deps_.messages.appName())),
                        statusCode);
                return;
            }
            logInfo("processFileFromPath{} - uuid: " + *fileId);
            logInfo("processFileFromPath{} - File uploaded successfully with UUID: " + *fileId);
            transcribe(generation, *fileId);
        });
}

void FilesMenuViewModel::transcribe(std::uint64_t generation, const std::string& fileId) {
    if (FileItem* item = find(running_->id)) {
        item->state = FileItem::State::transcribing;
        item->uploadProgress = 1;
        changed(*item);
    }
    const auto alive = lifetime_.token();
    auto current = [this, alive, generation] { return alive && running_ && running_->generation == generation; };
    deps_.uploads.transcribeFile(
        fileId, running_->fileHash, deps_.settings.filesMenuViewSpeakerSeparation(),
        [this, current](const std::string& text, std::optional<double> duration) {
            if (!current()) return;
            if (FileItem* item = find(running_->id)) {
                item->text = text;
                if (duration) item->duration = duration;
                changed(*item);
            }
        },
        [this, current, generation](const std::string& text, std::optional<double> duration) {
            if (!current()) return;
            logInfo("onCompletion() - Transcription complete - text: " + std::string(kPrivatized) + " - error: nil");
            FileItem* item = find(running_->id);
            if (item) {
                item->text = text;
                if (duration) item->duration = duration;
                item->state = FileItem::State::done;
                logInfo("Transcription completed: " + std::to_string(text.size()));
                deps_.history.log(HistoryManagerLogLevel::success, text, running_->kept, item->requestID, false);
                changed(*item);
            }
            (void)generation;
            endJob();
        },
        [this, current, generation](const Error& error) {
            if (!current()) return;
            logInfo("onCompletion() - Transcription complete - text: " + std::string(kPrivatized) +
                    " - error: " + error.debugDescription());
            failJob(generation, error, std::nullopt);
        });
}

void FilesMenuViewModel::failJob(std::uint64_t generation, const Error& error, std::optional<int> statusCode) {
    if (!running_ || running_->generation != generation) return;
    deps_.sounds.play("Basso");
    logError("processFileFromPath{} - error: " + error.debugDescription() + ", statusCode: " + statusText(statusCode));
    FileItem* item = find(running_->id);
    if (item) {
        const bool cancelled = error.domain == "Cancelled";
        item->state = cancelled ? FileItem::State::cancelled : FileItem::State::failed;
        item->error = error.localizedDescription;
        // The history names the file as it was uploaded; before it was kept there is nothing of ours to name.
        std::optional<fs::path> fileURL;
        if (!running_->kept.empty() && running_->kept != item->file) fileURL = running_->kept;
        if (item->receiver != TranscriptReceiver::editor) fileURL = item->file;
        deps_.history.log(HistoryManagerLogLevel::error, error.localizedDescription, fileURL, item->requestID, false);
        errorLine_ = item->file.filename().string() + ": " + error.localizedDescription;
        changed(*item);
    }
    endJob();
}

void FilesMenuViewModel::endJob() {
    running_.reset();
    deps_.appState.setFilesMenuIsProcessing(false);
    changedTab();
    // The next item starts from the loop, after every observer of this one's end has run.
    deps_.loop.post(lifetime_.guard([this] { pump(); }));
}

void FilesMenuViewModel::cancel(int id) {
    FileItem* item = find(id);
    if (!item || item->finished()) return;
    if (running_ && running_->id == id) {
        logInfo("processFileFromPath() - Transcription task was cancelled during progress");
        deps_.uploads.cancelUpload();
        failJob(running_->generation, Error{"Cancelled", 0, "Transcription was cancelled", {}}, std::nullopt);
        return;
    }
    item->state = FileItem::State::cancelled;
    item->error = "Transcription was cancelled";
    changed(*item);
}

void FilesMenuViewModel::remove(int id) {
    auto it = std::find_if(items_.begin(), items_.end(), [id](const FileItem& item) { return item.id == id; });
    if (it == items_.end() || !it->finished()) return;
    items_.erase(it);
    changedTab();
}

void FilesMenuViewModel::copyText(int id) {
    const FileItem* item = this->item(id);
    if (!item || item->text.empty() || !deps_.setClipboard) return;
    deps_.setClipboard(item->text, "Copy to Clipboard");
    if (deps_.settings.soundEnabled()) deps_.sounds.play("Purr");
}

std::string FilesMenuViewModel::saveTranscript(int id, const fs::path& file) {
    const FileItem* item = this->item(id);
    if (!item || item->state != FileItem::State::done) return "There is no transcript to save.";
    const std::string failure = store::writeFileAtomically(file, item->text + "\n", 0644);
    if (!failure.empty()) {
        logError("FilesMenuView.saveTranscript() - " + file.string() + ": " + failure);
        return "The transcript could not be saved: " + failure;
    }
    logInfo("FilesMenuView.saveTranscript() - saved to " + file.string());
    return "";
}

FilesMenuRecordingMode FilesMenuViewModel::recordingMode() const {
    const std::string raw = deps_.settings.filesMenuRecordingMode();
    if (auto mode = filesMenuRecordingModeFromRawValue(raw)) return *mode;
    logError("FilesMenuView{} - unknown filesMenuRecordingMode: " + raw);
    return FilesMenuRecordingMode::microphoneOnly;
}

void FilesMenuViewModel::setRecordingMode(FilesMenuRecordingMode mode) {
    deps_.settings.setFilesMenuRecordingMode(std::string(filesMenuRecordingModeRawValue(mode)));
    changedTab();
}

bool FilesMenuViewModel::speakerSeparation() const { return deps_.settings.filesMenuViewSpeakerSeparation(); }

void FilesMenuViewModel::setSpeakerSeparation(bool on) { deps_.settings.setFilesMenuViewSpeakerSeparation(on); }

bool FilesMenuViewModel::screenCaptureAccess() const { return deps_.systemAudio.screenCaptureAccess(); }

std::chrono::steady_clock::duration FilesMenuViewModel::recordingElapsed() const {
    if (!recording_) return {};
    return deps_.clock.steadyNow() - recording_->startedAt;
}

std::string FilesMenuViewModel::recordButtonTitle() const {
    if (!recording_) return "Start recording";
    return "Stop recording \u2022 " + clockText(recordingElapsed());
}

std::string FilesMenuViewModel::statusLine(const FileItem& item) const {
    switch (item.state) {
    case FileItem::State::waiting: return "Waiting…";
    case FileItem::State::uploading:
        return "Uploading file... (" + std::to_string(static_cast<int>(item.uploadProgress * 100)) + "%)";
    case FileItem::State::transcribing: {
        if (!item.duration) return "Transcribing file...";
        return "Transcribing file... (" + clockText(std::chrono::seconds(static_cast<long long>(*item.duration))) +
               " done)";
    }
    case FileItem::State::done: return "Done";
    case FileItem::State::failed: return item.error;
    case FileItem::State::cancelled: return "Cancelled";
    }
    return "";
}

bool FilesMenuViewModel::startRecording(FilesMenuRecordingMode mode,
                                        std::function<void(std::vector<fs::path>)> started) {
    if (recording_) return false;
    if (mode == FilesMenuRecordingMode::none) {
        logError("FilesMenuView{} - Recording mode is set to .none, can not start recording.");
        return false;
    }
    std::error_code error;
    const auto target = RecordingPathHelper::pathForDate(deps_.settings.saveRecordingsFolder(), deps_.clock.now(), error);
    Recording recording;
    recording.requestID = Uuid::random();
    recording.path = target.file;
    recording.mode = mode;
    recording.startedAt = deps_.clock.steadyNow();
    recording.manager = std::make_unique<ScreenCaptureKitManager>(deps_.systemAudio, deps_.loop);
    recording.manager->onSourceEnded = [this](platform::SystemAudioSource source, platform::SourceCapture::End why,
                                              const std::string& device) { sourceEnded(source, why, device); };
    logInfo("recordNewAudioFile() - requestID " + recording.requestID.string() + " - starting recording to " +
            target.file.string());
    recording_ = std::move(recording);
    errorLine_.clear();
    if (deps_.recordingStarted) deps_.recordingStarted();
    changedTab();

    auto* manager = recording_->manager.get();
    const fs::path path = recording_->path;
    deps_.workers.submit([this, alive = lifetime_.token(), manager, path, mode, started = std::move(started)] {
        manager->startRecording(path, mode);
        std::vector<fs::path> files;
        std::error_code ec;
        if (recordsMicrophone(mode) && fs::exists(ScreenCaptureKitManager::microphoneFile(path), ec))
            files.push_back(ScreenCaptureKitManager::microphoneFile(path));
        if (recordsSystem(mode) && fs::exists(ScreenCaptureKitManager::systemFile(path), ec))
            files.push_back(ScreenCaptureKitManager::systemFile(path));
        deps_.loop.post([this, alive, manager, files, started] {
            if (!alive || !recording_) return;
            recording_->busy = false;
            if (files.empty()) {
                // Nothing could be recorded (no device, no sound server): the recording ends here.
                deps_.sounds.play("Basso");
                showError("The recording could not start: no sound device could be recorded. See the log for details.");
                recording_->stopRequested = true;
                recording_->busy = true;
                deps_.workers.submit([this, alive, manager] {
                    manager->stopRecording();
                    deps_.loop.post([this, alive] {
                        if (!alive) return;
                        recording_.reset();
                        if (deps_.recordingEnded) deps_.recordingEnded();
                        changedTab();
                    });
                });
            } else if (recording_->stopRequested) {
                finishStop();
            }
            changedTab();
            if (started) started(files);
        });
    });
    return true;
}

void FilesMenuViewModel::stopRecording(std::function<void(std::vector<fs::path>)> done) {
    if (!recording_) {
        if (done) done({});
        return;
    }
    if (done) {
        auto previous = std::move(recording_->stopped);
        recording_->stopped = [previous = std::move(previous), done = std::move(done)](std::vector<fs::path> files) {
            if (previous) previous(files);
            done(files);
        };
    }
    if (recording_->stopRequested && !recording_->busy) return;
    const bool wasStarting = recording_->busy && !recording_->stopRequested;
    recording_->stopRequested = true;
    // A stop during the start runs when the start is done.
    if (wasStarting) return;
    finishStop();
}

void FilesMenuViewModel::finishStop() {
    recording_->busy = true;
    changedTab();
    auto* manager = recording_->manager.get();
    deps_.workers.submit([this, alive = lifetime_.token(), manager] {
        auto [mic, sys] = manager->stopRecording();
        deps_.loop.post([this, alive, mic, sys] {
            if (!alive || !recording_) return;
            Recording recording = std::move(*recording_);
            recording_.reset();
            logInfo("recordNewAudioFile() - requestID " + recording.requestID.string() +
                    " - recording completed with status true - url: " + recording.path.string());
            if (deps_.recordingEnded) deps_.recordingEnded();
            if (recording.mode == FilesMenuRecordingMode::none) {
                logError("FilesMenuView{} - Recording mode is set to .none, can not succesfully stop recording.");
                return;
            }
            std::vector<fs::path> written;
            std::error_code ec;
            for (const auto& [file, receiver] : {std::pair{mic, TranscriptReceiver::microphone},
                                                 std::pair{sys, TranscriptReceiver::system}}) {
                if (!file || !fs::is_regular_file(*file, ec)) continue;
                written.push_back(*file);
                changed(*find(newItem(*file, receiver)));
            }
            changedTab();
            pump();
            if (recording.stopped) recording.stopped(written);
        });
    });
}

void FilesMenuViewModel::sourceEnded(platform::SystemAudioSource source, platform::SourceCapture::End why,
                                     const std::string& device) {
    if (!recording_) return;
    const bool computer = source == platform::SystemAudioSource::computerSound;
    const std::string what = computer ? "the computer's sound" : "the microphone";
    std::string cause;
    switch (why) {
    case platform::SourceCapture::End::deviceRemoved: cause = "\"" + device + "\" went away"; break;
    case platform::SourceCapture::End::defaultChanged:
        cause = std::string("another ") + (computer ? "output" : "input") + " device became the default";
        break;
    case platform::SourceCapture::End::serverLost: cause = "the sound server stopped"; break;
    }
    const std::string text = "The recording of " + what + " stopped because " + cause +
                             ". What was recorded up to then is kept and will be transcribed.";
    logWarning("FilesMenuView{} - " + text);
    deps_.sounds.play("Basso");
    showError(text);
    deps_.messages.showAlertForError(userError(text));
    // With nothing left to record, the recording ends as if the user had stopped it.
    const int sources = recording_->mode == FilesMenuRecordingMode::both ? 2 : 1;
    if (++recording_->sourcesEnded >= sources) stopRecording();
}

} // namespace sprelio
