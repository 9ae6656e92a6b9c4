// Writing history entries into a real store: what an entry holds, unsaved entries, the duration of its recording.
#include "HistoryTestSupport.h"

#include "store/DatabaseHelpers.h"

namespace sprelio::historytest {
namespace {

using HistoryLog = HistoryFixture;

TEST_F(HistoryLog, EntryHoldsTextLevelRecordingRequestAndDuration) {
    HistoryManagerImpl history(viewContext(), tp);
    EXPECT_EQ(viewContext().mergePolicy, store::MergePolicy::mergeByPropertyObjectTrump);
    const auto recording = makeCafRecording(folder.path() / "rec.caf", 2.5);
    const Uuid requestID = Uuid::random();

    history.log(HistoryManagerLogLevel::success, "hello world", recording, requestID, false);

    const auto entries = storedEntries();
    ASSERT_EQ(entries.size(), 1u);
    const auto& entry = *entries[0];
    EXPECT_EQ(entry.message(), "hello world");
    EXPECT_EQ(entry.level(), 4);
    EXPECT_EQ(entry.fileURL(), store::AppConstants::fileURL(recording, false));
    EXPECT_EQ(entry.requestID(), requestID);
    ASSERT_TRUE(entry.timestamp());
    EXPECT_DOUBLE_EQ(*entry.timestamp(), nowSeconds());
    EXPECT_EQ(entry.fileDurationString(), "0:02");
    // The dictated text never reaches the log.
    EXPECT_TRUE(logs.contains("log() - creating LogEntry with level: 4, message: <privatized>, requestID: " +
                              requestID.string()));
    for (const auto& line : logs.lines()) EXPECT_EQ(line.message.find("hello world"), std::string::npos);
}

TEST_F(HistoryLog, SkipSaveLeavesTheEntryUnsavedInTheGivenContext) {
    HistoryManagerImpl history(viewContext(), tp);
    auto other = container.newBackgroundContext();

    auto entry = history.log(HistoryManagerLogLevel::error, "No balancers available. Try again later.", std::nullopt,
                             Uuid::random(), other.get(), true);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->managedObjectContext(), other.get());
    EXPECT_TRUE(entry->isInserted());
    EXPECT_FALSE(viewContext().hasChanges()) << "the entry went into the context it was given";
    EXPECT_TRUE(storedEntries().empty());

    ASSERT_TRUE(cdSaveContext(other.get(), "test"));
    const auto entries = storedEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]->level(), 2);
    EXPECT_EQ(entries[0]->fileURL(), std::nullopt);
    EXPECT_EQ(entries[0]->fileDurationString(), "0:00");
}

TEST_F(HistoryLog, InvalidTextIsLoggedAndDoesNotBlockLaterEntries) {
    HistoryManagerImpl history(viewContext(), tp);
    auto entry = history.log(HistoryManagerLogLevel::success, std::string("bad \xff\xfe bytes"), std::nullopt,
                             Uuid::random(), nullptr, false);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->managedObjectContext(), nullptr);
    EXPECT_FALSE(viewContext().hasChanges());
    EXPECT_TRUE(storedEntries().empty());
    EXPECT_TRUE(logs.containsPrefix("log() - validation failed for LogEntry with error: "));

    history.log(HistoryManagerLogLevel::success, "fine", std::nullopt, Uuid::random(), nullptr, false);
    const auto entries = storedEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]->message(), "fine");
}

TEST(HistoryDuration, FormatBoundaries) {
    EXPECT_EQ(historyDurationText(0), "0:00");
    EXPECT_EQ(historyDurationText(0.999), "0:00");
    EXPECT_EQ(historyDurationText(59.9), "0:59");
    EXPECT_EQ(historyDurationText(60), "1:00");
    EXPECT_EQ(historyDurationText(3599), "59:59");
    EXPECT_EQ(historyDurationText(3599.99), "59:59");
    EXPECT_EQ(historyDurationText(3600), "1:00:00");
    EXPECT_EQ(historyDurationText(3661.5), "1:01:01");
    EXPECT_EQ(historyDurationText(36000), "10:00:00");
    EXPECT_EQ(historyDurationText(-3), "0:00");
    EXPECT_EQ(historyDurationText(std::nan("")), "0:00");
    EXPECT_EQ(historyDurationText(INFINITY), "0:00");
}

TEST_F(HistoryLog, DurationComesFromTheFileItself) {
    EXPECT_EQ(historyFileDurationString(makeWav(folder.path() / "a.wav", 59.9)), "0:59");
    EXPECT_EQ(historyFileDurationString(makeWav(folder.path() / "b.wav", 3599)), "59:59");
    EXPECT_EQ(historyFileDurationString(makeWav(folder.path() / "c.wav", 3600)), "1:00:00");
    EXPECT_EQ(historyFileDurationString(makeCafRecording(folder.path() / "d.caf", 61.2)), "1:01");
    // Missing, unreadable and unknown files count as no length.
    EXPECT_EQ(historyFileDurationString(std::nullopt), "0:00");
    EXPECT_EQ(historyFileDurationString(folder.path() / "missing.caf"), "0:00");
    std::ofstream(folder.path() / "notes.txt") << "not audio at all";
    EXPECT_EQ(historyFileDurationString(folder.path() / "notes.txt"), "0:00");
    std::ofstream(folder.path() / "broken.caf", std::ios::binary) << std::string("caff\0\1\0\0garbage", 15);
    EXPECT_EQ(historyFileDurationString(folder.path() / "broken.caf"), "0:00");
}

} // namespace
} // namespace sprelio::historytest
