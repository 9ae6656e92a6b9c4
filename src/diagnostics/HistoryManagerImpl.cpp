#include "diagnostics/HistoryManagerImpl.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "audio/AudioFileDuration.h"
#include "store/DatabaseHelpers.h"
#include "base/Log.h"
#include "store/AppConstants.h"
#include "store/Entities.h"
#include "store/ManagedObjectContext.h"

namespace sprelio {

std::string historyDurationText(double seconds) {
    long long whole = 0;
    if (std::isfinite(seconds) && seconds > 0) whole = static_cast<long long>(seconds); // truncation
    char buffer[48];
    if (whole < 3600) {
        std::snprintf(buffer, sizeof buffer, "%d:%02d", static_cast<int>(whole / 60), static_cast<int>(whole % 60));
    } else {
        std::snprintf(buffer, sizeof buffer, "%lld:%02d:%02d", whole / 3600, static_cast<int>(whole % 3600 / 60),
                      static_cast<int>(whole % 60));
    }
    return buffer;
}

std::string historyFileDurationString(const std::optional<std::filesystem::path>& fileURL) {
    if (!fileURL) return historyDurationText(0);
    return historyDurationText(audioFileDurationSeconds(*fileURL).value_or(0));
}

HistoryManagerImpl::HistoryManagerImpl(store::ManagedObjectContext& defaultContext, const platform::Clock& clock)
    : defaultContext_(defaultContext), clock_(clock) {
    defaultContext_.mergePolicy = store::MergePolicy::mergeByPropertyObjectTrump;
}

void HistoryManagerImpl::log(HistoryManagerLogLevel level, std::string message,
                             std::optional<std::filesystem::path> fileURL, Uuid requestID, bool skipSave) {
    log(level, message, fileURL, requestID, nullptr, skipSave);
}

std::shared_ptr<store::LogEntry> HistoryManagerImpl::log(HistoryManagerLogLevel level, const std::string& message,
                                                         const std::optional<std::filesystem::path>& fileURL,
                                                         const Uuid& requestID,
                                                         store::ManagedObjectContext* viewContext, bool skipSave) {
    store::ManagedObjectContext& context = viewContext ? *viewContext : defaultContext_;
    // The entry's text is the user's dictation: it never reaches the log.
    logInfo("log() - creating LogEntry with level: " + std::to_string(static_cast<int>(level)) +
            ", message: " + std::string(kPrivatized) + ", requestID: " + requestID.string());

    std::shared_ptr<store::LogEntry> entry;
    context.performBlockAndWait([&] {
        entry = context.insertNew<store::LogEntry>();
        entry->setMessage(message);
        entry->setLevel(static_cast<std::int64_t>(level));
        entry->setFileURL(fileURL ? std::optional<std::string>(store::AppConstants::fileURL(*fileURL, false))
                                  : std::nullopt);
        entry->setRequestID(requestID);
        const auto now = std::chrono::duration<double>(clock_.now().time_since_epoch()).count();
        entry->setTimestamp(now);
        entry->setFileDurationString(historyFileDurationString(fileURL));

        logDebug("log() - logEntry.fileDurationString: " + entry->fileDurationString().value_or("nil"));

        if (auto error = entry->validateForUpdate()) {
            logError("log() - validation failed for LogEntry with error: " + error->debugDescription());
            // Left in the context, an invalid object would fail every later save of it (a save validates all
            // registered objects), and with it every later entry: it goes, unsaved.
            context.deleteObject(entry);
            return;
        }
        if (!skipSave) cdSaveContext(&context, "log(level:message:fileURL:requestID:viewContext:skipSave:)");
    });
    return entry;
}

} // namespace sprelio
