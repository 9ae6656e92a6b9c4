// The `sprelio` binary as a user runs it: a fresh home in a temporary folder, real settings and log files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <vector>


#include "CliTestSupport.h"

namespace fs = std::filesystem;
using clitest::readFile;
using SprelioCli = clitest::CliFixture;

TEST_F(SprelioCli, VersionAndHelpSucceedAndABareStartNeedsADisplay) {
    auto v = run({"--version"});
    EXPECT_EQ(v.status, 0);
    EXPECT_EQ(v.out.rfind("Sprelio ", 0), 0u) << v.out;

    auto h = run({"--help"});
    EXPECT_EQ(h.status, 0);
    EXPECT_NE(h.out.find("settings set KEY VALUE"), std::string::npos);

    // Without a command it is the desktop application, which needs a display: without one it says so.
    auto bare = run({});
    EXPECT_NE(bare.status, 0);
    EXPECT_NE(bare.err.find("no X11 display"), std::string::npos) << bare.err;
}

TEST_F(SprelioCli, SettingsRoundTripThroughTheFile) {
    auto before = run({"settings", "get", "minimumRecordingDuration"});
    ASSERT_EQ(before.status, 0) << before.err;
    EXPECT_EQ(before.out, "400\n");

    ASSERT_EQ(run({"settings", "set", "soundEnabled", "true"}).status, 0);
    ASSERT_EQ(run({"settings", "set", "recordingStartSoundName", "Glass"}).status, 0);
    EXPECT_EQ(run({"settings", "get", "soundEnabled"}).out, "true\n");
    EXPECT_EQ(run({"settings", "get", "recordingStartSoundName"}).out, "Glass\n");

    auto list = run({"settings", "list"});
    ASSERT_EQ(list.status, 0);
    EXPECT_NE(list.out.find("soundEnabled = true\n"), std::string::npos);
    EXPECT_NE(list.out.find("tapAndRecordTimeoutMinutes = 10 (default)\n"), std::string::npos);

    struct stat st {};
    ASSERT_EQ(stat(settingsFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    ASSERT_EQ(run({"settings", "remove", "soundEnabled"}).status, 0);
    EXPECT_EQ(run({"settings", "get", "soundEnabled"}).out, "false\n");
    // The first start made the data folder and its log.
    EXPECT_TRUE(fs::exists(logFile()));
}

TEST_F(SprelioCli, BadInputGivesOneLineErrorAndNonZeroStatus) {
    auto wrongType = run({"settings", "set", "minimumRecordingDuration", "soon"});
    EXPECT_NE(wrongType.status, 0);
    EXPECT_EQ(std::count(wrongType.err.begin(), wrongType.err.end(), '\n'), 1) << wrongType.err;
    EXPECT_FALSE(fs::exists(settingsFile())) << "a refused value must not be written";

    auto unknown = run({"settings", "set", "noSuchKey", "1"});
    EXPECT_NE(unknown.status, 0);
    EXPECT_NE(unknown.err.find("unknown setting"), std::string::npos);

    auto missingArg = run({"settings", "set", "soundEnabled"});
    EXPECT_NE(missingArg.status, 0);

    auto command = run({"frobnicate"});
    EXPECT_NE(command.status, 0);
    EXPECT_EQ(std::count(command.err.begin(), command.err.end(), '\n'), 1);
}

TEST_F(SprelioCli, CorruptSettingsFileIsKeptAsideAndDefaultsApply) {
    fs::create_directories(settingsFile().parent_path());
    const std::string garbage = "{\"soundEnabled\": tru";
    std::ofstream(settingsFile()) << garbage;

    auto r = run({"settings", "get", "soundEnabled"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "false\n");

    bool keptAside = false;
    for (const auto& entry : fs::directory_iterator(settingsFile().parent_path())) {
        if (entry.path().filename().string().starts_with("settings.json.corrupt-")) {
            keptAside = true;
            EXPECT_EQ(readFile(entry.path()), garbage);
        }
    }
    EXPECT_TRUE(keptAside);
    EXPECT_NE(readFile(logFile()).find("[ERROR]: JsonFileSettingsStore.load()"), std::string::npos);

    // Writing afterwards makes a fresh, valid file.
    ASSERT_EQ(run({"settings", "set", "soundEnabled", "true"}).status, 0);
    EXPECT_EQ(run({"settings", "get", "soundEnabled"}).out, "true\n");
}

// A damaged store used to stop every command for good. Now the command runs on a fresh store, says so once on
// stderr, and the damaged file stays next to it for whoever looks into it.
TEST_F(SprelioCli, DamagedStoreIsKeptAsideAndTheCommandRunsOnAFreshOne) {
    ASSERT_EQ(run({"substitutions", "add", "teh", "the"}).status, 0);
    {
        std::fstream io(storeFile(), std::ios::binary | std::ios::in | std::ios::out);
        io.seekp(100);
        const std::string junk(4000, 'Z');
        io.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    const std::string damaged = readFile(storeFile());

    auto r = run({"history", "list"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "No history data available.\n");
    EXPECT_NE(r.err.find("was damaged"), std::string::npos) << r.err;
    std::vector<fs::path> aside;
    for (const auto& entry : fs::directory_iterator(storeFile().parent_path()))
        if (entry.path().filename().string().starts_with("Persistence.sqlite.corrupt-")) aside.push_back(entry.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(readFile(aside[0]), damaged);
    EXPECT_NE(r.err.find(aside[0].string()), std::string::npos) << "the message says where it is: " << r.err;

    // The fresh store is in use from then on, without a word.
    ASSERT_EQ(run({"substitutions", "add", "adn", "and"}).status, 0);
    auto again = run({"history", "list"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.err, "");
}
