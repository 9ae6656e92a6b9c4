// Names and folders of new recordings.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "audio/RecordingPathHelper.h"
#include "platform/test/TestPlatform.h"

using sprelio::RecordingPathHelper;

namespace {

class RecordingPaths : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        if (tz) savedTz_ = tz;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        if (savedTz_) {
            setenv("TZ", savedTz_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    sprelio::platform::test::TestPlatform tp; // owns a temporary folder and removes it
    std::optional<std::string> savedTz_;
};

TEST_F(RecordingPaths, DatedFolderAndMillisecondStampAreMade) {
    using namespace std::chrono;
    const auto date = system_clock::time_point{seconds{1'767'261'600}} + milliseconds{7}; // 2026-01-01 10:00:00.007
    std::error_code error;
    const auto path = RecordingPathHelper::pathForDate(tp.root() / "recordings", date, error);
    EXPECT_FALSE(error);
    EXPECT_EQ(path.folder, tp.root() / "recordings/2026/01/01");
    EXPECT_EQ(path.file, tp.root() / "recordings/2026/01/01/rec_20260101-100000-007.caf");
    EXPECT_TRUE(std::filesystem::is_directory(path.folder));

    // An existing folder is reused.
    const auto again = RecordingPathHelper::pathForDate(tp.root() / "recordings", date + milliseconds{993}, error);
    EXPECT_FALSE(error);
    EXPECT_EQ(again.file.filename(), "rec_20260101-100001-000.caf");
}

TEST_F(RecordingPaths, UnwritableRootIsReportedAndThePathStillReturned) {
    const auto blocker = tp.root() / "file-not-folder";
    std::ofstream(blocker) << "x";
    std::error_code error;
    const auto path = RecordingPathHelper::pathForDate(blocker, std::chrono::system_clock::now(), error);
    EXPECT_TRUE(error);
    EXPECT_EQ(path.file.extension(), ".caf");
    EXPECT_TRUE(path.file.string().starts_with(blocker.string()));
}

} // namespace
