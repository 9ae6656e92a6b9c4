#pragma once
// Retention of the history and the one place that removes entries: an entry never leaves its recording behind.
// Removing one entry, wiping all and the expiry share one rule: the file goes first, the record after it.
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/Clock.h"

namespace sprelio {

namespace store {
class LogEntry;
class PersistentContainer;
class Settings;
} // namespace store

class MaintenanceManager {
public:
    // Creating the manager is the application's start-up: it expires old entries at once (historyCleanup()).
    MaintenanceManager(store::PersistentContainer& container, const store::Settings& settings,
                       const platform::Clock& clock, bool cleanupNow = true);

    // Deletes the entries older than "Days to keep" (historyRetentionDays; below 1 keeps everything), with their
    // recordings, in a background context of its own.
    void historyCleanup();
    // Deletes one entry and its recording in the entry's own context; `skipSave` leaves the save to the caller.
    void removeLogEntry(const std::shared_ptr<store::LogEntry>& entry, bool skipSave);

    // Both report by log lines only; they differ in their words and levels.
    static void removeFileIfExists(const std::filesystem::path& file);
    static void removeFile(const std::filesystem::path& file);

    // `now` moved back by `days` calendar days in local time, the time of day kept; nothing when the calendar
    // can't give that date.
    static std::optional<std::chrono::system_clock::time_point> expiryDate(std::chrono::system_clock::time_point now,
                                                                          int days);

private:
    store::PersistentContainer& container_;
    const store::Settings& settings_;
    const platform::Clock& clock_;
};

} // namespace sprelio
