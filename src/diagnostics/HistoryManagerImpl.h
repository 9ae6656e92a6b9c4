#pragma once
// The single writer of history entries: one LogEntry per request into the store, with the recording's link and
// its duration worked out once, when the entry is made.
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "diagnostics/HistoryManager.h"
#include "platform/Clock.h"

namespace sprelio {

namespace store {
class LogEntry;
class ManagedObjectContext;
} // namespace store

// "m:ss" below an hour, "h:mm:ss" from an hour on; the seconds are truncated. Anything that is not a finite,
// positive length counts as 0 ("0:00").
std::string historyDurationText(double seconds);
// The duration text of a recording; a missing link or a file that can't be read gives "0:00".
std::string historyFileDurationString(const std::optional<std::filesystem::path>& fileURL);

class HistoryManagerImpl final : public HistoryManager {
public:
    // `defaultContext` is the view context of the store; it gets the property-object-trump merge policy.
    HistoryManagerImpl(store::ManagedObjectContext& defaultContext, const platform::Clock& clock);

    // Into the default context. Main loop only.
    void log(HistoryManagerLogLevel level, std::string message, std::optional<std::filesystem::path> fileURL,
             Uuid requestID, bool skipSave) override;
    // `viewContext` nullptr means the default context. Returns the new entry; one that fails validation is logged
    // and left out of the context, unsaved, so that it can't block the saves of later entries.
    std::shared_ptr<store::LogEntry> log(HistoryManagerLogLevel level, const std::string& message,
                                         const std::optional<std::filesystem::path>& fileURL, const Uuid& requestID,
                                         store::ManagedObjectContext* viewContext, bool skipSave);

    store::ManagedObjectContext& defaultContext() { return defaultContext_; }

private:
    store::ManagedObjectContext& defaultContext_;
    const platform::Clock& clock_;
};

} // namespace sprelio
