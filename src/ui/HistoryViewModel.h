#pragma once
// The History tab without its widgets: the list (newest first), what each row shows, and the row's actions on its
// recording (transcribe again, play, show in the file manager, remove), plus "Wipe all". The desktop shell draws
// what this gives and calls these operations; the command line uses the same operations.
//
// Consistency between the store and the disk is lazy and one-sided: a row's link to its recording is trusted until
// an action on it fails; then the failure is shown and the link is cleared for good.
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/LifetimeGuard.h"
#include "base/Error.h"
#include "diagnostics/HistoryManager.h"
#include "platform/MainLoop.h"
#include "platform/Sounds.h"

namespace sprelio {

class AppState;
class AudioPlaybackManager;
class AudioUploadManager;
class HistoryManagerImpl;
class MaintenanceManager;
class MessageCenter;
namespace store {
class LogEntry;
class ManagedObjectContext;
class Settings;
} // namespace store

inline constexpr const char* kHistoryErrorDomain = "SprelioError";
inline constexpr std::size_t kHistoryRowMaxCharacters = 4096;
inline constexpr std::string_view kNoHistoryDataText = "No history data available.";
inline constexpr std::string_view kFileNotAvailableHelp = "File not available";

enum class HistoryErrorCode : long {
    playbackFailed = 1001,
    playbackFileMissing = 1002,
    showFailed = 1003,
    showFileMissing = 1004,
    retryFileMissing = 1005,
};
Error makeHistoryError(HistoryErrorCode code);

enum class HistoryRowColor { primary, yellow, red, blue, secondary };
HistoryRowColor historyRowColor(std::int64_t storedLevel);
// The text of a row: the message, cut after 4096 user-perceived characters with "(…)" behind; nil shows empty.
std::string historyRowText(const std::optional<std::string>& message);
// "1 entry", "0 entries", "12 entries".
std::string historyHeaderText(std::size_t count);
// The "Days to keep" button's label: "Forever" for 0, else "1 day", "30 days".
std::string daysToKeepLabel(int historyRetentionDays);
// "dd/MM/yyyy, HH:mm:ss" in local time; nothing when the date can't be formatted.
std::optional<std::string> historyDateText(double secondsSince1970);

// Everything one row shows.
struct HistoryRow {
    std::shared_ptr<store::LogEntry> entry;
    std::string text;
    std::string dateLine;
    HistoryRowColor color = HistoryRowColor::primary;
    // Retry, play and show need the recording; remove is always there.
    bool fileActionsEnabled = false;
    std::string retryHelp;
    std::string playHelp;
    std::string showHelp;
    std::string removeHelp = "Remove this entry";
    bool playing = false;
};

class HistoryViewModel {
public:
    struct Dependencies {
        platform::MainLoop& loop;
        platform::WorkerPool& workers;
        store::ManagedObjectContext& context; // the view context
        HistoryManagerImpl& history;
        MaintenanceManager& maintenance;
        AppState& appState;
        MessageCenter& messages;
        const store::Settings& settings;
        platform::SoundPlayer& sounds;
        // The tab's own upload client; none where nothing is transcribed again (listing and removing entries).
        AudioUploadManager* uploadManager = nullptr;
        // The process-wide player; none where nothing can play (a command line without sound).
        AudioPlaybackManager* playback = nullptr;
        // Selects the file in the file manager; false when that failed.
        std::function<bool(const std::filesystem::path&)> revealInFileManager;
        // Puts a text on the clipboard; the second argument is the caller's label.
        std::function<void(const std::string& text, const std::string& caller)> setPasteboard;
    };

    explicit HistoryViewModel(Dependencies deps);
    ~HistoryViewModel();
    HistoryViewModel(const HistoryViewModel&) = delete;
    HistoryViewModel& operator=(const HistoryViewModel&) = delete;

    // Every entry, newest first, whatever its level. Empty (and logged) when the store can't be read.
    std::vector<std::shared_ptr<store::LogEntry>> logEntries();
    // The date line; an entry of an older version without a cached duration gets one, saved in a later task.
    std::string dateLine(const std::shared_ptr<store::LogEntry>& entry);
    HistoryRow row(const std::shared_ptr<store::LogEntry>& entry);

    // What a finished retry gives its caller: the new entry's text or the error that came back, or neither (the
    // upload ended without an answer, or the retry could not start).
    struct RetryResult {
        bool started = false;
        std::optional<std::string> text;
        std::optional<Error> error;
        std::shared_ptr<store::LogEntry> newEntry;
    };
    // "Transcribe again". The first entry is never changed; a success adds a new entry on the same recording.
    void retry(const std::shared_ptr<store::LogEntry>& entry, std::function<void(RetryResult)> done = {});
    bool isPlaying(const std::shared_ptr<store::LogEntry>& entry) const;
    void playOrStop(const std::shared_ptr<store::LogEntry>& entry);
    void showInFileManager(const std::shared_ptr<store::LogEntry>& entry);
    void remove(const std::shared_ptr<store::LogEntry>& entry);
    // Every entry and every recording they name, at once, with one save.
    void wipeAll();
    // Copies the row's text; the popover shows `copiedText`.
    void clipText(const std::shared_ptr<store::LogEntry>& entry);
    // Clears the entry's link to its recording for good.
    void invalidateURL(const std::shared_ptr<store::LogEntry>& entry);

    // State shared by all rows.
    bool isRetrying() const { return isRetrying_; }
    bool showProgressView() const { return showProgressView_; }
    bool shouldScrollToTop() const { return shouldScrollToTop_; }
    bool showCopiedPopover() const { return showCopiedPopover_; }
    const std::string& copiedText() const { return copiedText_; }
    // Called after any of the above or the list changed.
    std::function<void()> onChange;

private:
    void changed();
    void post(std::function<void()> task);

    Dependencies deps_;
    bool isRetrying_ = false;
    bool showProgressView_ = false;
    bool shouldScrollToTop_ = false;
    bool showCopiedPopover_ = false;
    std::string copiedText_;
    // The row that started the current playback.
    std::shared_ptr<store::LogEntry> playClicked_;
    LifetimeGuard lifetime_;
};

} // namespace sprelio
