// The recordings-folder chooser's rules on real folders: the write check, the stored folder and bookmark, and the
// fall-back to the default folder with its message.
#include <gtest/gtest.h>

#include "helpers/WithoutRoot.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "AudioTestSupport.h"
#include "audio/RecordingsFolderChooser.h"
#include "platform/test/TestPlatform.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace sprelio {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Chooser = RecordingsFolderChooser;

std::vector<std::string> entries(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    return names;
}

using testhelpers::runWithoutRoot;

class RecordingsFolderChooserTest : public ::testing::Test {
protected:
    Chooser chooser() {
        return Chooser(settings, [this](const std::string& message) { messages.push_back(message); });
    }
    // A folder chosen earlier, so that a fall-back visibly replaces it.
    void chooseEarlierFolder() {
        settings.setSaveRecordingsFolder("/srv/earlier");
        settings.setSelectedFolderBookmark("/srv/earlier");
    }
    fs::path defaultFolder() const { return constants.recordingsFolder(); }

    platform::test::RecordingLogSink logs;
    audio_test::TempDir dir;
    platform::test::TestPlatform tp;
    store::MemorySettingsStore store;
    store::AppConstants constants{tp};
    store::Settings settings{store, constants};
    std::vector<std::string> messages;
};

TEST_F(RecordingsFolderChooserTest, AWritableFolderIsStoredWithItsBookmarkAndLeftAsItWas) {
    const fs::path folder = dir / "My Recordings";
    fs::create_directories(folder);
    std::ofstream(folder / "keep.txt") << "the user's own file";
    // The dialog may hand over a path through a link: the bookmark names the folder itself.
    const fs::path link = dir / "link to recordings";
    fs::create_directory_symlink(folder, link);
    chooseEarlierFolder();

    const auto outcome = chooser().selectFolder(link);

    EXPECT_EQ(outcome.result, Chooser::Result::chosen);
    EXPECT_EQ(outcome.folder, link);
    EXPECT_EQ(settings.saveRecordingsFolder(), link);
    EXPECT_EQ(store.object("saveRecordingsFolder"), json(link.string()));
    EXPECT_EQ(settings.SelectedFolderBookmark(), fs::canonical(folder).string());
    EXPECT_TRUE(messages.empty());
    EXPECT_TRUE(logs.contains("selectFolder() - selected path: " + link.string()));
    // The test file and its temporary are gone; the user's file is untouched.
    EXPECT_EQ(entries(folder), std::vector<std::string>{"keep.txt"});
    EXPECT_EQ(audio_test::readBytes(folder / "keep.txt").size(), std::string("the user's own file").size());
}

TEST_F(RecordingsFolderChooserTest, CancellingChangesNothing) {
    chooseEarlierFolder();
    auto c = chooser();
    EXPECT_EQ(c.selectFolder(std::nullopt).result, Chooser::Result::cancelled);
    EXPECT_EQ(c.selectFolder(fs::path()).result, Chooser::Result::cancelled);
    EXPECT_EQ(logs.count("selectFolder() - user cancelled or error occurred"), 2u);
    EXPECT_EQ(settings.saveRecordingsFolder(), fs::path("/srv/earlier"));
    EXPECT_EQ(settings.SelectedFolderBookmark(), "/srv/earlier");
    EXPECT_TRUE(messages.empty());
}

TEST_F(RecordingsFolderChooserTest, AFolderThatIsGoneFallsBackToTheDefault) {
    chooseEarlierFolder();
    const fs::path gone = dir / "unplugged disk";

    const auto outcome = chooser().selectFolder(gone);

    EXPECT_EQ(outcome.result, Chooser::Result::fellBack);
    EXPECT_EQ(outcome.folder, defaultFolder());
    EXPECT_EQ(settings.saveRecordingsFolder(), defaultFolder());
    EXPECT_EQ(store.object("saveRecordingsFolder"), json(defaultFolder().string()));
    EXPECT_FALSE(store.object("SelectedFolderBookmark")) << "the bookmark key is removed";
    EXPECT_EQ(messages, std::vector<std::string>{
                            "We couldn’t write to your selected folder. Falling back to the default location."});
    EXPECT_TRUE(logs.contains("selectFolder() - write check failed: can't create a file in " + gone.string() +
                                  ": No such file or directory, falling back to default",
                              LogLevel::error));
    EXPECT_FALSE(fs::exists(gone));
}

TEST_F(RecordingsFolderChooserTest, AFileInsteadOfAFolderFallsBack) {
    const fs::path file = dir / "notes.txt";
    std::ofstream(file) << "not a folder";
    const auto outcome = chooser().selectFolder(file);
    EXPECT_EQ(outcome.result, Chooser::Result::fellBack);
    EXPECT_EQ(settings.saveRecordingsFolder(), defaultFolder());
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_TRUE(logs.contains("selectFolder() - write check failed: can't create a file in " + file.string() +
                              ": Not a directory, falling back to default"));
}

TEST_F(RecordingsFolderChooserTest, AFolderWithoutWritePermissionFallsBack) {
    // The child that drops root must be able to reach the folder, only not write into it.
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    const fs::path readOnly = dir / "read-only";
    fs::create_directories(readOnly);
    std::ofstream(readOnly / "old.caf") << "an earlier recording";
    ASSERT_EQ(::chmod(readOnly.c_str(), 0555), 0);
    chooseEarlierFolder();

    runWithoutRoot([&] {
        const auto outcome = chooser().selectFolder(readOnly);
        EXPECT_EQ(outcome.result, Chooser::Result::fellBack);
        EXPECT_EQ(settings.saveRecordingsFolder(), defaultFolder());
        EXPECT_FALSE(settings.SelectedFolderBookmark());
        EXPECT_EQ(messages, std::vector<std::string>{std::string(Chooser::kFallBackMessage)});
        EXPECT_TRUE(logs.contains("selectFolder() - write check failed: can't create a file in " + readOnly.string() +
                                      ": Permission denied, falling back to default",
                                  LogLevel::error));
    });

    ASSERT_EQ(::chmod(readOnly.c_str(), 0755), 0);
    EXPECT_EQ(entries(readOnly), std::vector<std::string>{"old.caf"}) << "nothing is left behind, nothing is lost";
    if (::geteuid() == 0) {
        // What the child did stays in the child; here, as root, the same folder passes the check.
        EXPECT_FALSE(Chooser::writeCheck(readOnly).has_value());
    }
}

TEST_F(RecordingsFolderChooserTest, TheWriteCheckLeavesNothingBehind) {
    const fs::path folder = dir / "check";
    fs::create_directories(folder);
    EXPECT_FALSE(Chooser::writeCheck(folder).has_value());
    EXPECT_TRUE(entries(folder).empty());
    // A test file left by a crash is replaced and removed like any other.
    std::ofstream(folder / ".spr_write_test") << "left over";
    EXPECT_FALSE(Chooser::writeCheck(folder).has_value());
    EXPECT_TRUE(entries(folder).empty());
}

} // namespace
} // namespace sprelio
