// After a run that was cut short: which recordings get a history entry, and what is done to them first.
#include <gtest/gtest.h>

#include <fstream>

#include "app/RunMarker.h"
#include "audio/AudioTestSupport.h"
#include "audio/CafOpusWriter.h"
#include "audio/CafReader.h"
#include "diagnostics/InterruptedRecordings.h"

namespace sprelio {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A recording of `seconds` as the recorder leaves it: finished, or cut off by a crash in the middle of a packet.
void writeRecording(const fs::path& file, double seconds, bool finished) {
    fs::create_directories(file.parent_path());
    const auto samples = audio_test::speechLike(static_cast<size_t>(seconds * 16000));
    CafOpusWriter writer;
    writer.open(file);
    writer.appendSamples(samples.data(), samples.size());
    if (finished) {
        writer.finish();
        return;
    }
    writer.abandon();
    std::ofstream(file, std::ios::binary | std::ios::app) << "half a packet";
}

void setWritten(const fs::path& file, std::chrono::system_clock::time_point when) {
    fs::last_write_time(file, std::chrono::file_clock::from_sys(when));
}

TEST(InterruptedRecordings, OnlyTheCutRunsRecordingsWithoutAnEntryAreTakenAndMadeWhole) {
    audio_test::TempDir dir;
    const auto root = dir.path() / "Recordings";
    const auto runStart = std::chrono::system_clock::now() - 1h;
    struct Row {
        const char* name;
        double seconds;
        bool finished;
        std::chrono::system_clock::duration writtenAfterStart;
        bool inHistory;
        bool taken;
    };
    const std::vector<Row> rows = {
        {"2026/11/25/rec_20261125-101010-001.caf", 2.0, false, 10min, false, true},  // cut off while speaking
        {"2026/11/25/rec_20261125-101110-002.caf", 2.0, true, 11min, false, true},   // cut off while uploading
        {"2026/11/25/rec_20261125-101210-003.caf", 2.0, true, 12min, true, false},   // transcribed
        {"2026/11/24/rec_20261124-090000-004.caf", 2.0, false, -20h, false, false},  // an earlier run's
        {"2026/11/25/rec_20261125-101310-005.caf", 0.1, false, 13min, false, false}, // shorter than the minimum
        {"2026/11/25/Files_mic.caf", 2.0, false, 14min, false, false},               // not a dictation
    };
    InterruptedRecordingSearch search;
    search.recordingsFolder = root;
    search.since = runStart;
    search.minimumSeconds = 0.4;
    for (const auto& row : rows) {
        const auto file = root / row.name;
        writeRecording(file, row.seconds, row.finished);
        setWritten(file, runStart + row.writtenAfterStart);
        if (row.inHistory) search.inHistory.insert(file);
    }
    // An unreadable one is left alone and does not stop the others.
    const auto garbage = root / "2026/11/25/rec_20261125-101410-006.caf";
    std::ofstream(garbage) << "not a recording";

    const auto found = findInterruptedRecordings(search);
    std::vector<fs::path> expected;
    for (const auto& row : rows)
        if (row.taken) expected.push_back(root / row.name);
    std::vector<fs::path> got;
    for (const auto& recording : found) got.push_back(recording.file);
    EXPECT_EQ(got, expected);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_TRUE(found[0].wasCutOff);
    EXPECT_FALSE(found[1].wasCutOff);
    for (const auto& recording : found) {
        const auto reader = CafReader::open(recording.file);
        EXPECT_TRUE(reader.isComplete()) << recording.file;
        EXPECT_NEAR(recording.durationSeconds, 2.0, 0.05) << recording.file;
    }
    const auto earlier = CafReader::open(root / rows[3].name);
    EXPECT_FALSE(earlier.isComplete()) << "an earlier run's file is not touched";
    const auto left = audio_test::readBytes(garbage);
    EXPECT_EQ(std::string(left.begin(), left.end()), "not a recording");
}

TEST(InterruptedRecordings, AMissingFolderFindsNothing) {
    InterruptedRecordingSearch search;
    search.recordingsFolder = "/nonexistent/sprelio/recordings";
    EXPECT_TRUE(findInterruptedRecordings(search).empty());
}

TEST(RunMarker, TellsOfARunThatDidNotEndInOrder) {
    audio_test::TempDir dir;
    const auto file = dir.path() / "running";
    const auto first = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'123));
    {
        app::RunMarker marker(file);
        EXPECT_FALSE(marker.begin(first).has_value()) << "nothing before the first run";
        // No end(): the run is killed.
    }
    app::RunMarker again(file);
    const auto second = first + 5min;
    EXPECT_EQ(again.begin(second), first);
    again.end();
    EXPECT_FALSE(fs::exists(file));
    app::RunMarker third(file);
    EXPECT_FALSE(third.begin(second + 5min).has_value()) << "the second run ended in order";

    std::ofstream(file, std::ios::trunc) << "garbage";
    app::RunMarker unreadable(file);
    EXPECT_EQ(unreadable.begin(second), second - 24h) << "a cut run of unknown start: the last day";
}

} // namespace
} // namespace sprelio
