// Retention and removal of history entries on a real store: expiry at start-up at the boundary day, an entry
// removed with its recording, entries that share one recording, and a link cleared by another context.
#include "HistoryTestSupport.h"

#include "store/DatabaseHelpers.h"

namespace sprelio::historytest {
namespace {

using Maintenance = HistoryFixture;

double seconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

TEST_F(Maintenance, StartUpExpiresEntriesStrictlyOlderThanTheRetentionPeriod) {
    TimeZone zone("Europe/Berlin");
    settings.setHistoryRetentionDays(30);
    const auto expiry = MaintenanceManager::expiryDate(tp.now(), 30);
    ASSERT_TRUE(expiry);

    const auto oldFile = makeCafRecording(folder.path() / "old.caf", 0.5);
    const auto boundaryFile = makeCafRecording(folder.path() / "boundary.caf", 0.5);
    storeEntry("a second too old", seconds(*expiry) - 1, oldFile);
    storeEntry("exactly as old as the period", seconds(*expiry), boundaryFile);
    storeEntry("without a date", std::nullopt, std::nullopt);
    storeEntry("recent", nowSeconds() - 3600, std::nullopt);
    storeEntry("old, no recording", seconds(*expiry) - 86400 * 400.0, std::nullopt, HistoryManagerLogLevel::error);

    MaintenanceManager maintenance(container, settings, tp); // the start-up

    std::vector<std::string> left;
    for (const auto& entry : storedEntries()) left.push_back(entry->message().value_or(""));
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"exactly as old as the period", "recent", "without a date"}));
    EXPECT_FALSE(fs::exists(oldFile)) << "the recording goes with its entry";
    EXPECT_TRUE(fs::exists(boundaryFile));
    EXPECT_TRUE(logs.contains("historyCleanup() - found 2 entries to remove out of 5 total"));
    EXPECT_TRUE(logs.contains("cdSaveContext() - caller: historyCleanup() - context saved successfully"));
}

TEST_F(Maintenance, ExpiryCountsCalendarDaysAcrossAClockChange) {
    TimeZone zone("Europe/Berlin");
    // 2024-03-31 12:00 CEST; the clocks went forward that night, so one calendar day back is 23 hours.
    const auto now = std::chrono::system_clock::time_point{std::chrono::seconds{1711879200}};
    const auto dayBack = MaintenanceManager::expiryDate(now, 1);
    ASSERT_TRUE(dayBack);
    EXPECT_EQ(now - *dayBack, std::chrono::hours(23));
    const auto yearBack = MaintenanceManager::expiryDate(now + std::chrono::milliseconds(250), 365);
    ASSERT_TRUE(yearBack);
    // 2023-04-01 12:00:00.250 CEST.
    EXPECT_EQ(*yearBack, std::chrono::system_clock::time_point{std::chrono::seconds{1680343200}} +
                             std::chrono::milliseconds(250));
}

TEST_F(Maintenance, KeepForeverTouchesNothing) {
    settings.setHistoryRetentionDays(0);
    const auto file = makeCafRecording(folder.path() / "ancient.caf", 0.5);
    storeEntry("ancient", 1000.0, file);
    MaintenanceManager maintenance(container, settings, tp);
    EXPECT_EQ(storedEntries().size(), 1u);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(logs.contains("historyCleanup() - historyRetentionDays set to 0 (keep forever), skipping",
                              LogLevel::warning));
}

TEST_F(Maintenance, RemovingAnEntryRemovesItsRecordingAndSharedRecordingsAreHandled) {
    MaintenanceManager maintenance(container, settings, tp);
    const auto file = makeCafRecording(folder.path() / "shared.caf", 0.5);
    // A retry's new entry points at the same recording as the first.
    auto first = storeEntry("first", nowSeconds() - 10, file);
    auto retried = storeEntry("transcribed again", nowSeconds(), file);

    maintenance.removeLogEntry(first, false);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(logs.contains("removeFile() - file removed at " + file.string()));
    ASSERT_EQ(storedEntries().size(), 1u);

    maintenance.removeLogEntry(retried, false);
    EXPECT_TRUE(logs.contains("removeFile() - file does not exist, skipping: " + file.string(), LogLevel::warning));
    EXPECT_TRUE(storedEntries().empty());

    // Removing what is gone already does nothing.
    logs.clear();
    maintenance.removeLogEntry(retried, false);
    EXPECT_TRUE(logs.contains("removeLogEntry() - LogEntry has no managedObjectContext, cannot delete",
                              LogLevel::error));
}

TEST_F(Maintenance, ADeletedButUnsavedEntryIsSkipped) {
    MaintenanceManager maintenance(container, settings, tp);
    auto entry = storeEntry("one", nowSeconds(), std::nullopt);
    maintenance.removeLogEntry(entry, true);
    EXPECT_TRUE(entry->isDeleted());
    maintenance.removeLogEntry(entry, true);
    EXPECT_TRUE(logs.contains("removeLogEntry() - LogEntry is already deleted, skipping", LogLevel::warning));
    ASSERT_TRUE(cdSaveContext(&viewContext(), "test"));
    EXPECT_TRUE(storedEntries().empty());
}

TEST_F(Maintenance, ALinkClearedByAnotherContextIsSeenBeforeRemoving) {
    MaintenanceManager maintenance(container, settings, tp);
    // The file now belongs to another entry; this entry's link was cleared elsewhere after it was read here.
    const auto file = makeCafRecording(folder.path() / "kept.caf", 0.5);
    auto entry = storeEntry("stale link", nowSeconds(), file);
    {
        auto other = container.newBackgroundContext();
        auto sameRow = std::static_pointer_cast<store::LogEntry>(other->existingObject(entry->objectIDString()));
        ASSERT_NE(sameRow, nullptr);
        sameRow->setFileURL(std::nullopt);
        other->save();
    }
    ASSERT_TRUE(entry->fileURL()) << "the view context still holds the old link";
    const std::string id = entry->objectIDString();

    maintenance.removeLogEntry(entry, false);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(logs.contains("removeLogEntry() - no file URL for LogEntry: " + id));
    EXPECT_TRUE(storedEntries().empty());
}

} // namespace
} // namespace sprelio::historytest
