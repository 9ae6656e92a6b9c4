// Data as older builds left it, converted once at the next start; a newer build's store used as it is.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ObjectStoreTestSupport.h"
#include "StoreTestSupport.h"
#include "store/JsonFileSettingsStore.h"
#include "store/MigrationHelper.h"

namespace sprelio::store {
namespace {

using testing::ObjectStoreTest;
using testing::RawDatabase;

class MigrationHelperTest : public ObjectStoreTest {
protected:
    std::filesystem::path settingsFile() const { return folder.path() / "settings.json"; }

    // Three shortcuts as a build without item categories stored them: a translation, an AI action, and a plain
    // dictation whose item is empty.
    void writeOldShortcuts() {
        { PersistenceController create(folder.path()); }
        RawDatabase raw(storeFile());
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\", shortcutActionRawValue, intelligenceActionItemIdString) "
                 "VALUES ('" + Uuid::random().string() + "', 1, 'transcribeAndAI', 'es')");
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\", shortcutActionRawValue, intelligenceActionItemIdString) "
                 "VALUES ('" + Uuid::random().string() + "', 2, 'transcribeAndAI', 'summarize')");
        raw.exec("INSERT INTO UserShortcut (uuid, \"order\", shortcutActionRawValue) VALUES (NULL, 3, NULL)");
    }

    std::vector<std::string> categories() {
        RawDatabase raw(storeFile());
        std::vector<std::string> out;
        for (const auto& row : raw.query("SELECT intelligenceActionCategoryRawValue FROM UserShortcut ORDER BY "
                                         "\"order\""))
            out.push_back(row[0]);
        return out;
    }

    platform::test::TestPlatform platform;
    AppConstants constants{platform, storetest::fixedEnvironment()};
};

TEST_F(MigrationHelperTest, TheStoredBuildDecidesWhetherShortcutItemsAreConverted) {
    struct Row {
        const char* settingsText; // the settings file as the older build left it; "" for none
        bool converts;
    };
    const Row rows[] = {
        {"", true},                                     // a fresh installation, or one from before the setting
        {R"({"lastKnownBuild": 0})", true},
        {R"({"lastKnownBuild": 215})", true},
        {R"({"lastKnownBuild": 216})", false},
        {R"({"lastKnownBuild": 5000})", false},         // a newer build ran last: nothing is converted back
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.settingsText);
        std::filesystem::remove_all(folder.path());
        std::filesystem::create_directories(folder.path());
        writeOldShortcuts();
        if (*row.settingsText) storetest::writeAll(settingsFile(), row.settingsText);
        {
            PersistenceController controller(folder.path());
            JsonFileSettingsStore file(settingsFile());
            Settings settings(file, constants);
            EXPECT_TRUE(MigrationHelper(controller.container().viewContext(), settings, constants).checkAndMigrate());
        }
        if (row.converts) {
            EXPECT_EQ(categories(), (std::vector<std::string>{"translation", "action", "translation"}));
        } else {
            EXPECT_EQ(categories(), (std::vector<std::string>{"NULL", "NULL", "NULL"}));
        }
        // The current build is stored, on disk, so the next start does not convert again.
        const auto written = nlohmann::json::parse(storetest::readAll(settingsFile()));
        EXPECT_EQ(written.value("lastKnownBuild", -1), MigrationHelper::buildNumber(constants.appBuild()));
    }
}

TEST_F(MigrationHelperTest, TheSecondStartOfTheSameBuildLeavesTheUsersLaterChoicesAlone) {
    writeOldShortcuts();
    const auto start = [&] {
        PersistenceController controller(folder.path());
        JsonFileSettingsStore file(settingsFile());
        Settings settings(file, constants);
        MigrationHelper(controller.container().viewContext(), settings, constants).checkAndMigrate();
    };
    start();
    // The user turns the third shortcut into an AI action afterwards; a later start must keep that.
    RawDatabase(storeFile()).exec("UPDATE UserShortcut SET intelligenceActionCategoryRawValue = 'action', "
                                  "intelligenceActionItemIdString = 'summarize' WHERE \"order\" = 3");
    log.clear();
    start();
    EXPECT_EQ(categories(), (std::vector<std::string>{"translation", "action", "action"}));
    EXPECT_TRUE(log.contains("checkAndMigrate() - no migration needed this time"));
}

TEST(MigrationHelper, BuildNumbersAreDecimalIntegersOrZero) {
    const std::pair<const char*, int> rows[] = {
        {"301", 301}, {"0", 0}, {"", 0}, {"216b", 0}, {"2.1", 0}, {"-5", -5}, {"99999999999999", 0}};
    for (const auto& [text, number] : rows) EXPECT_EQ(MigrationHelper::buildNumber(text), number) << text;
}

TEST_F(ObjectStoreTest, AStoreOfANewerBuildIsOpenedAsItIsAndSaysSo) {
    { PersistenceController create(folder.path()); }
    {
        PersistenceController same(folder.path());
        EXPECT_FALSE(same.container().store()->writtenByNewerBuild());
    }
    const int newer = SqliteStore::kSchemaVersion + 1;
    RawDatabase(storeFile()).exec("PRAGMA user_version = " + std::to_string(newer));
    PersistenceController controller(folder.path());
    EXPECT_TRUE(controller.container().store()->writtenByNewerBuild());
    EXPECT_EQ(RawDatabase(storeFile()).scalar("PRAGMA user_version"), std::to_string(newer))
        << "the newer build's schema version must survive";
}

} // namespace
} // namespace sprelio::store
