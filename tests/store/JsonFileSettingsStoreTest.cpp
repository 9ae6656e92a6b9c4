#include <gtest/gtest.h>

#include "helpers/WithoutRoot.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "StoreTestSupport.h"
#include "store/JsonFileSettingsStore.h"
#include "store/Settings.h"

using namespace sprelio;
using namespace sprelio::store;
using nlohmann::json;
using platform::test::RecordingLogSink;
namespace fs = std::filesystem;

namespace {

fs::path settingsPath(const platform::test::TestPlatform& p) { return p.configHome() / "Sprelio" / "settings.json"; }

std::vector<fs::path> folderEntries(const fs::path& folder) {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(folder)) out.push_back(e.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

using testhelpers::runWithoutRoot;

} // namespace

TEST(JsonFileSettingsStore, AMissingFileIsAnEmptyStoreAndTheFirstWriteCreatesIt) {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = settingsPath(p);
    JsonFileSettingsStore store(path);
    EXPECT_TRUE(store.dictionaryRepresentation().empty());
    EXPECT_FALSE(fs::exists(path));
    store.set("soundEnabled", true);
    ASSERT_TRUE(fs::exists(path));
    EXPECT_TRUE(store.lastWriteSucceeded());
    EXPECT_EQ(json::parse(storetest::readAll(path)), (json{{"soundEnabled", true}}));
    EXPECT_TRUE(sink.lines().empty());
}

TEST(JsonFileSettingsStore, ValuesSurviveAReloadAndRemoveIsPersisted) {
    platform::test::TestPlatform p;
    auto path = settingsPath(p);
    {
        JsonFileSettingsStore store(path);
        store.set("token", "secret");
        store.set("overlaySize", 120);
        store.set("messagesToNeverShowAgain", json::array({"a"}));
        store.set("unicode", "中文 العربية");
        store.remove("overlaySize");
    }
    JsonFileSettingsStore reloaded(path);
    auto all = reloaded.dictionaryRepresentation();
    EXPECT_EQ(all.size(), 3u);
    EXPECT_EQ(reloaded.object("token"), json("secret"));
    EXPECT_FALSE(reloaded.object("overlaySize"));
    EXPECT_EQ(reloaded.object("messagesToNeverShowAgain"), json::array({"a"}));
    EXPECT_EQ(reloaded.object("unicode"), json("中文 العربية"));
}

TEST(JsonFileSettingsStore, TheFileHasMode0600AndNoTempFileIsLeft) {
    platform::test::TestPlatform p;
    auto path = settingsPath(p);
    JsonFileSettingsStore store(path);
    for (int i = 0; i < 20; ++i) store.set("k" + std::to_string(i), i);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(folderEntries(path.parent_path()), std::vector<fs::path>{"settings.json"});
}

TEST(JsonFileSettingsStore, AnExistingFileWithAWiderModeIsNarrowedTo0600) {
    platform::test::TestPlatform p;
    auto path = settingsPath(p);
    storetest::writeAll(path, "{\"a\":1}");
    ::chmod(path.c_str(), 0644);
    JsonFileSettingsStore store(path);
    EXPECT_EQ(store.object("a"), json(1));
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// Nested deeper than any setting is; found by fuzz_settings_file: copying and writing such a tree recursed once per
// level and overflowed the stack, so every command crashed on it.
std::string deeplyNested(int levels) {
    return "{\"soundEnabled\": true, \"a\": " + std::string(levels, '[') + std::string(levels, ']') + "}";
}

TEST(JsonFileSettingsStore, ACorruptFileIsMovedAsideKeptByteForByteAndDefaultsApply) {
    for (std::string corrupt : {std::string("{\"soundEnabled\": tru"), std::string("[1,2,3]"), std::string("\"text\""),
                                std::string("\x00\xff\xfe garbage", 12), std::string(""), deeplyNested(65),
                                deeplyNested(200000)}) {
        platform::test::TestPlatform p;
        RecordingLogSink sink;
        auto path = settingsPath(p);
        storetest::writeAll(path, corrupt);
        AppConstants constants(p, storetest::fixedEnvironment());
        JsonFileSettingsStore store(path);
        Settings settings(store, constants);

        EXPECT_TRUE(store.dictionaryRepresentation().empty());
        EXPECT_FALSE(settings.soundEnabled());
        EXPECT_EQ(settings.minimumRecordingDuration(), 400);
        EXPECT_FALSE(fs::exists(path));
        ASSERT_FALSE(store.movedAsideTo().empty());
        EXPECT_EQ(store.movedAsideTo().parent_path(), path.parent_path());
        EXPECT_EQ(store.movedAsideTo().filename().string().rfind("settings.json.corrupt-", 0), 0u)
            << store.movedAsideTo();
        EXPECT_EQ(storetest::readAll(store.movedAsideTo()), corrupt);
        bool logged = false;
        for (const auto& line : sink.lines())
            if (line.level == LogLevel::error &&
                line.message.rfind("JsonFileSettingsStore.load() - settings file " + path.string() +
                                       " is not a valid JSON object (", 0) == 0 &&
                line.message.find("moved it aside to " + store.movedAsideTo().string()) != std::string::npos)
                logged = true;
        EXPECT_TRUE(logged) << "for content \"" << corrupt.substr(0, 80) << "\"";

        // A new write works and leaves the kept file alone.
        settings.setSoundEnabled(true);
        EXPECT_TRUE(settings.soundEnabled());
        EXPECT_EQ(json::parse(storetest::readAll(path)), (json{{"soundEnabled", true}}));
        EXPECT_EQ(storetest::readAll(store.movedAsideTo()), corrupt);
    }
}

TEST(JsonFileSettingsStore, ASecondCorruptFileInTheSameSecondGetsItsOwnName) {
    platform::test::TestPlatform p;
    auto path = settingsPath(p);
    storetest::writeAll(path, "{bad");
    JsonFileSettingsStore first(path);
    storetest::writeAll(path, "{worse");
    JsonFileSettingsStore second(path);
    ASSERT_FALSE(first.movedAsideTo().empty());
    ASSERT_FALSE(second.movedAsideTo().empty());
    EXPECT_NE(first.movedAsideTo(), second.movedAsideTo());
    EXPECT_EQ(storetest::readAll(first.movedAsideTo()), "{bad");
    EXPECT_EQ(storetest::readAll(second.movedAsideTo()), "{worse");
}

TEST(JsonFileSettingsStore, AFailedWriteLogsAndKeepsTheValueInMemory) {
    // The settings path lies under a regular file, so no folder can be made there, whoever runs the test.
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    storetest::writeAll(p.configHome() / "Sprelio", "I am a file, not a folder");
    auto path = p.configHome() / "Sprelio" / "settings.json";
    JsonFileSettingsStore store(path);
    store.set("token", "abc");
    EXPECT_FALSE(store.lastWriteSucceeded());
    EXPECT_EQ(store.object("token"), json("abc"));
    EXPECT_TRUE(sink.containsPrefix("JsonFileSettingsStore.persist() - failed to write " + path.string() + ": "));
    store.remove("token");
    EXPECT_FALSE(store.object("token"));
}

TEST(JsonFileSettingsStore, AReadOnlyFolderLogsAndKeepsRunning) {
  runWithoutRoot([] {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = settingsPath(p);
    storetest::writeAll(path, "{\"overlaySize\": 120}");
    ::chmod(path.parent_path().c_str(), 0500);
    {
        JsonFileSettingsStore store(path);
        EXPECT_EQ(store.object("overlaySize"), json(120));
        store.set("overlaySize", 130);
        EXPECT_FALSE(store.lastWriteSucceeded());
        EXPECT_EQ(store.object("overlaySize"), json(130));
        EXPECT_TRUE(sink.containsPrefix("JsonFileSettingsStore.persist() - failed to write " + path.string()));
    }
    ::chmod(path.parent_path().c_str(), 0700);
    EXPECT_EQ(json::parse(storetest::readAll(path)), (json{{"overlaySize", 120}}));
    EXPECT_EQ(folderEntries(path.parent_path()), std::vector<fs::path>{"settings.json"});
  });
}

TEST(JsonFileSettingsStore, AnUnreadableFileIsNeverOverwritten) {
  runWithoutRoot([] {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    auto path = settingsPath(p);
    storetest::writeAll(path, "{\"token\": \"keep me\"}");
    ::chmod(path.c_str(), 0000);
    {
        JsonFileSettingsStore store(path);
        store.set("overlaySize", 1);
        EXPECT_FALSE(store.lastWriteSucceeded());
        EXPECT_EQ(store.object("overlaySize"), json(1));
    }
    ::chmod(path.c_str(), 0600);
    EXPECT_EQ(json::parse(storetest::readAll(path)), (json{{"token", "keep me"}}));
    EXPECT_TRUE(sink.containsPrefix("JsonFileSettingsStore.load() - cannot read settings file"));
  });
}
