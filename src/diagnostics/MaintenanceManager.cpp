#include "diagnostics/MaintenanceManager.h"

#include <ctime>
#include <system_error>
#include <vector>

#include "store/DatabaseHelpers.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"
#include "store/Persistence.h"
#include "store/Settings.h"

namespace sprelio {

MaintenanceManager::MaintenanceManager(store::PersistentContainer& container, const store::Settings& settings,
                                       const platform::Clock& clock, bool cleanupNow)
    : container_(container), settings_(settings), clock_(clock) {
    if (cleanupNow) historyCleanup();
}

std::optional<std::chrono::system_clock::time_point>
MaintenanceManager::expiryDate(std::chrono::system_clock::time_point now, int days) {
    using namespace std::chrono;
    const auto whole = floor<seconds>(now);
    const std::time_t seconds = system_clock::to_time_t(whole);
    std::tm local{};
    if (!localtime_r(&seconds, &local)) return std::nullopt;
    local.tm_mday -= days;
    local.tm_isdst = -1; // the offset of the target day, not today's: a day across a clock change is still a day
    const std::time_t moved = std::mktime(&local);
    if (moved == static_cast<std::time_t>(-1)) return std::nullopt;
    return system_clock::from_time_t(moved) + (now - whole);
}

void MaintenanceManager::historyCleanup() {
    const int retentionDays = settings_.historyRetentionDays();
    if (retentionDays < 1) {
        logWarning("historyCleanup() - historyRetentionDays set to 0 (keep forever), skipping");
        return;
    }

    std::unique_ptr<store::ManagedObjectContext> context;
    std::vector<std::shared_ptr<store::LogEntry>> all;
    try {
        context = container_.newBackgroundContext();
        all = context->fetchAll<store::LogEntry>();
    } catch (const store::StoreError& error) {
        logError("historyCleanup() - could not fetch [LogEntry] - failed with error: " + error.error().debugDescription());
        return;
    } catch (const std::exception& error) {
        logError(std::string("historyCleanup() - could not fetch [LogEntry] - failed with error: ") + error.what());
        return;
    }

    const auto expiry = expiryDate(clock_.now(), retentionDays);
    if (!expiry) {
        logWarning("historyCleanup() - could not create expiry date, skipping");
        return;
    }
    const double expirySeconds = std::chrono::duration<double>(expiry->time_since_epoch()).count();

    std::vector<std::shared_ptr<store::LogEntry>> expired;
    for (const auto& entry : all) {
        // An entry without a date counts as made just now.
        const auto timestamp = entry->timestamp();
        if (timestamp && *timestamp < expirySeconds) expired.push_back(entry);
    }
    logInfo("historyCleanup() - found " + std::to_string(expired.size()) + " entries to remove out of " +
            std::to_string(all.size()) + " total");
    if (expired.empty()) return;

    context->performBlockAndWait([&] {
        for (const auto& entry : expired) {
            if (auto file = entry->recordingPath()) removeFileIfExists(*file);
        }
        for (const auto& entry : expired) context->deleteObject(entry);
    });
    cdSaveContext(context.get(), "historyCleanup()");
}

void MaintenanceManager::removeFileIfExists(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        logDebug("removeFileIfExists() - file does not exist: " + file.string());
        return;
    }
    if (std::filesystem::remove(file, error) && !error) {
        logDebug("removeFileIfExists() - file removed: " + file.string());
    } else {
        logWarning("removeFileIfExists() - failed to remove file " + file.string() + ": " +
                   (error ? error.message() : std::string("not removed")));
    }
}

void MaintenanceManager::removeFile(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        logWarning("removeFile() - file does not exist, skipping: " + file.string());
        return;
    }
    if (std::filesystem::remove(file, error) && !error) {
        logInfo("removeFile() - file removed at " + file.string());
    } else {
        logError("removeFile() - file " + file.string() + " not removed, failed with error: " +
                 (error ? error.message() : std::string("not removed")));
    }
}

void MaintenanceManager::removeLogEntry(const std::shared_ptr<store::LogEntry>& entry, bool skipSave) {
    store::ManagedObjectContext* context = entry ? entry->managedObjectContext() : nullptr;
    if (!context) {
        logError("removeLogEntry() - LogEntry has no managedObjectContext, cannot delete");
        return;
    }
    logDebug("removeLogEntry() - removing LogEntry with ID: " + entry->objectIDString() + ", message: " +
             (entry->message() ? std::string(kPrivatized) : std::string("nil")));

    context->performBlockAndWait([&] {
        if (entry->isDeleted()) {
            logWarning("removeLogEntry() - LogEntry is already deleted, skipping");
            return;
        }
        // A link cleared by another context since this one read the entry must be seen here.
        context->refreshObject(entry, false);
        if (entry->managedObjectContext() != context) {
            // Its row went away meanwhile: nothing is left to delete, and its file is not this entry's to judge.
            logWarning("removeLogEntry() - LogEntry is already deleted, skipping");
            return;
        }
        if (auto file = entry->recordingPath()) {
            removeFile(*file);
        } else {
            logDebug("removeLogEntry() - no file URL for LogEntry: " + entry->objectIDString());
        }
        context->deleteObject(entry);
        logDebug("removeLogEntry() - LogEntry deleted from context");
        if (!skipSave) cdSaveContext(context, "removeLogEntry(_:skipSave:)");
    });
}

} // namespace sprelio
