#include "ui/HistoryViewModel.h"

#include <chrono>
#include <cmath>
#include <ctime>
#include <system_error>

#include "audio/CafReader.h"
#include "backend/UploadAnswer.h"
#include "audio/AudioPlaybackManager.h"
#include "backend/AudioUploadManager.h"
#include "store/DatabaseHelpers.h"
#include "shared/AppState.h"
#include "diagnostics/HistoryManagerImpl.h"
#include "base/Log.h"
#include "diagnostics/MaintenanceManager.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Settings.h"
#include "base/TextCase.h"
#include "ui/Messages.h"

namespace sprelio {

Error makeHistoryError(HistoryErrorCode code) {
    std::string text;
    switch (code) {
    case HistoryErrorCode::playbackFailed:
        text = "Unable to play audio file. The file may be corrupted or in an unsupported format.";
        break;
    case HistoryErrorCode::playbackFileMissing:
    case HistoryErrorCode::showFileMissing:
        text = "Audio file not available. The file may have been moved or deleted.";
        break;
    case HistoryErrorCode::showFailed:
        text = "Unable to show file in File Manager. The file may have been moved or deleted.";
        break;
    case HistoryErrorCode::retryFileMissing: text = "Cannot retry transcription. The audio file is not available."; break;
    }
    return Error{kHistoryErrorDomain, static_cast<long>(code), text, {{"NSLocalizedDescription", text}}};
}

HistoryRowColor historyRowColor(std::int64_t storedLevel) {
    switch (storedLevel) {
    case 0: return HistoryRowColor::primary;
    case 1: return HistoryRowColor::yellow;
    case 2: return HistoryRowColor::red;
    case 3: return HistoryRowColor::blue;
    case 4: return HistoryRowColor::primary;
    default: return HistoryRowColor::secondary;
    }
}

std::string historyRowText(const std::optional<std::string>& message) {
    if (!message) return {};
    // No text of at most 4096 bytes has more than 4096 characters: only longer ones are counted.
    if (message->size() <= kHistoryRowMaxCharacters) return *message;
    const auto characters = text::graphemes(*message);
    if (characters.size() <= kHistoryRowMaxCharacters) return *message;
    std::string cut;
    for (std::size_t i = 0; i < kHistoryRowMaxCharacters; ++i) cut += characters[i];
    return cut + "(…)";
}

std::string historyHeaderText(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " entry" : " entries");
}

std::string daysToKeepLabel(int historyRetentionDays) {
    if (historyRetentionDays == 0) return "Forever";
    return std::to_string(historyRetentionDays) + " day" + (historyRetentionDays > 1 ? "s" : "");
}

std::optional<std::string> historyDateText(double secondsSince1970) {
    if (!std::isfinite(secondsSince1970)) return std::nullopt;
    const auto seconds = static_cast<std::time_t>(std::floor(secondsSince1970));
    std::tm local{};
    if (!localtime_r(&seconds, &local)) return std::nullopt;
    char buffer[64];
    if (std::strftime(buffer, sizeof buffer, "%d/%m/%Y, %H:%M:%S", &local) == 0) return std::nullopt;
    return std::string(buffer);
}

HistoryViewModel::HistoryViewModel(Dependencies deps) : deps_(std::move(deps)) {}

HistoryViewModel::~HistoryViewModel() { lifetime_.expire(); }

void HistoryViewModel::changed() {
    if (onChange) onChange();
}

void HistoryViewModel::post(std::function<void()> task) {
    const auto alive = lifetime_.token();
    deps_.loop.post([alive, task = std::move(task)] {
        if (alive) task();
    });
}

std::vector<std::shared_ptr<store::LogEntry>> HistoryViewModel::logEntries() {
    try {
        return deps_.context.fetchAll<store::LogEntry>({store::SortDescriptor{"timestamp", false}});
    } catch (const store::StoreError& error) {
        logError("HistoryView.logEntries - unable to fetch [LogEntry]: " + error.error().debugDescription());
        return {};
    }
}

std::string HistoryViewModel::dateLine(const std::shared_ptr<store::LogEntry>& entry) {
    const auto timestamp = entry->timestamp();
    if (!timestamp) return "/";
    const auto date = historyDateText(*timestamp);
    if (!date) return "/";

    std::string duration;
    if (auto cached = entry->fileDurationString()) {
        duration = *cached;
    } else {
        // Entries of older versions have no cached duration: it is worked out once and kept.
        duration = historyFileDurationString(entry->recordingPath());
        entry->setFileDurationString(duration);
        logInfo("getAndStoreFormattedDuration() - called for logEntry: " + entry->description() +
                " with duration: " + duration);
        std::weak_ptr<store::LogEntry> weak = entry;
        post([weak] {
            // Showing the row never waits for this save.
            if (auto held = weak.lock()) cdSaveContext(held->managedObjectContext(), "getAndStoreFormattedDuration(for:)");
        });
    }
    return *date + ", " + duration;
}

HistoryRow HistoryViewModel::row(const std::shared_ptr<store::LogEntry>& entry) {
    HistoryRow row;
    row.entry = entry;
    row.text = historyRowText(entry->message());
    row.dateLine = dateLine(entry);
    row.color = historyRowColor(entry->level());
    row.fileActionsEnabled = entry->fileURL().has_value();
    row.retryHelp = row.fileActionsEnabled ? "Transcribe again" : std::string(kFileNotAvailableHelp);
    row.playHelp = row.fileActionsEnabled ? "Play recording" : std::string(kFileNotAvailableHelp);
    row.showHelp = row.fileActionsEnabled ? "Show in File Manager" : std::string(kFileNotAvailableHelp);
    row.playing = isPlaying(entry);
    return row;
}

void HistoryViewModel::invalidateURL(const std::shared_ptr<store::LogEntry>& entry) {
    showProgressView_ = true;
    changed();
    entry->setFileURL(std::nullopt);
    cdSaveContext(entry->managedObjectContext(), "invalidateURL()");
    showProgressView_ = false;
    changed();
}

void HistoryViewModel::retry(const std::shared_ptr<store::LogEntry>& entry, std::function<void(RetryResult)> done) {
    const auto file = entry->recordingPath();
    const auto requestID = entry->requestID();
    if (!file || !requestID) {
        // Also with the file there and only the id missing: the link is given up all the same.
        const Error error = makeHistoryError(HistoryErrorCode::retryFileMissing);
        deps_.messages.showAlertForError(error);
        invalidateURL(entry);
        if (done) done(RetryResult{false, std::nullopt, error, nullptr});
        return;
    }
    if (!deps_.uploadManager) {
        logError("HistoryView.retry() - no upload client, not retrying");
        if (done) done(RetryResult{false, std::nullopt, std::nullopt, nullptr});
        return;
    }
    if (!deps_.appState.internetAvailable()) {
        const Error error = makeError(SPRLocalizedError::networkError, deps_.messages.appName());
        logError("Error: " + error.debugDescription());
        deps_.messages.showAlertForError(SPRLocalizedError::networkError);
        if (done) done(RetryResult{false, std::nullopt, error, nullptr});
        return;
    }
    isRetrying_ = true;
    changed();

    std::vector<std::string> languages;
    for (const auto& language : deps_.settings.localizedTranslationLanguages()) {
        if (!language.code.empty()) languages.push_back(language.code);
    }
    std::string list;
    for (const auto& code : languages) list += (list.empty() ? "" : ",") + code;

    const std::filesystem::path path = *file;
    const Uuid id = *requestID;
    const auto alive = lifetime_.token();
    auto* loop = &deps_.loop;
    // The start goes through the worker pool and straight back, as every upload start does.
    deps_.workers.submit([this, alive, loop, path, id, languages, list, done] {
        // A recording cut off by a crash is made a finished file first, so that every backend reads all of it.
        if (path.extension() == ".caf") {
            try {
                if (!CafReader::recover(path).wasComplete) logInfo("HistoryView.retry() - recovered " + path.string());
            } catch (const std::exception& e) {
                logError("HistoryView.retry() - " + path.string() + " can't be recovered, sent as it is: " + e.what());
            }
        }
        logInfo("AudioUploadManager.uploadRecording() - requestID: " + id.string() + ", inputLanguageCode: nil");
        logInfo("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=" + list);
        loop->post([this, alive, path, id, languages, done] {
            if (!alive) return;
            deps_.uploadManager->uploadRecording(
                path, id, languages, std::nullopt, false, std::nullopt,
                [this, alive, path, done](std::optional<nlohmann::json> result, std::optional<Error> error) {
                    auto finish = [this, path, done, result = std::move(result), error = std::move(error)] {
                        isRetrying_ = false;
                        shouldScrollToTop_ = !shouldScrollToTop_;
                        RetryResult outcome{true, std::nullopt, std::nullopt, nullptr};
                        const UploadAnswer answer = readUploadAnswer(result, error);
                        if (answer.anyText) {
                            outcome.text = *answer.anyText;
                            outcome.newEntry = deps_.history.log(HistoryManagerLogLevel::success, *outcome.text, path,
                                                                 Uuid::random(), &deps_.context, false);
                        } else if (error) {
                            outcome.error = error;
                            outcome.newEntry = deps_.history.log(HistoryManagerLogLevel::error,
                                                                 error->localizedDescription, path, Uuid::random(),
                                                                 &deps_.context, false);
                            deps_.messages.showAlertForError(*error);
                        }
                        changed();
                        if (done) done(std::move(outcome));
                    };
                    if (!alive) return;
                    if (deps_.loop.isMainThread()) {
                        finish();
                    } else {
                        post(std::move(finish));
                    }
                });
        });
    });
}

bool HistoryViewModel::isPlaying(const std::shared_ptr<store::LogEntry>& entry) const {
    if (!deps_.playback || playClicked_ != entry) return false;
    return deps_.playback->currentURL() == entry->recordingPath();
}

void HistoryViewModel::playOrStop(const std::shared_ptr<store::LogEntry>& entry) {
    if (isPlaying(entry)) {
        deps_.playback->stop();
        playClicked_.reset();
        changed();
        return;
    }
    const auto file = entry->recordingPath();
    if (!file) {
        deps_.messages.showAlertForError(makeHistoryError(HistoryErrorCode::playbackFileMissing));
        invalidateURL(entry);
        return;
    }
    if (deps_.playback && deps_.playback->playAudio(*file)) {
        playClicked_ = entry;
        changed();
        return;
    }
    deps_.messages.showAlertForError(makeHistoryError(HistoryErrorCode::playbackFailed));
    invalidateURL(entry);
    playClicked_.reset();
    changed();
}

void HistoryViewModel::showInFileManager(const std::shared_ptr<store::LogEntry>& entry) {
    const auto file = entry->recordingPath();
    if (!file) {
        deps_.messages.showAlertForError(makeHistoryError(HistoryErrorCode::showFileMissing));
        invalidateURL(entry);
        return;
    }
    bool shown = false;
    std::error_code error;
    if (!std::filesystem::exists(*file, error)) {
        logError("openAndSelectFile() - no sucb file: " + file->string() + ", abording!");
    } else {
        shown = deps_.revealInFileManager && deps_.revealInFileManager(*file);
    }
    if (!shown) {
        deps_.messages.showAlertForError(makeHistoryError(HistoryErrorCode::showFailed));
        invalidateURL(entry);
    }
}

void HistoryViewModel::remove(const std::shared_ptr<store::LogEntry>& entry) {
    if (playClicked_ == entry) playClicked_.reset();
    deps_.maintenance.removeLogEntry(entry, false);
    changed();
}

void HistoryViewModel::wipeAll() {
    // At once, with no confirmation: the button says what it does.
    playClicked_.reset();
    for (const auto& entry : logEntries()) deps_.maintenance.removeLogEntry(entry, true);
    cdSaveContext(&deps_.context, "HistoryPopoverView.wipeAll");
    changed();
}

void HistoryViewModel::clipText(const std::shared_ptr<store::LogEntry>& entry) {
    copiedText_ = entry->message().value_or("");
    showCopiedPopover_ = true;
    changed();
    if (deps_.settings.soundEnabled()) deps_.sounds.play("Purr");
    if (deps_.setPasteboard) deps_.setPasteboard(copiedText_, "clipText(_:)");
}

} // namespace sprelio
