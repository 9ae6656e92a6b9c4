// The AI service's settings and its key: the URL and model are settings like any other, the key a file of its own
// beside the settings file, private to the user, written whole or not at all, and never in the settings or the log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "StoreTestSupport.h"
#include "store/Settings.h"

using namespace sprelio;
using namespace sprelio::store;

using Fixture = storetest::SettingsFixture;

namespace {

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return 0;
    return info.st_mode & 0777;
}

TEST(AiServiceSettings, UrlAndModelAreSettingsOfTheCatalogue) {
    Fixture f;
    ASSERT_NE(Settings::describe("aiServiceURL"), nullptr);
    ASSERT_NE(Settings::describe("aiServiceModel"), nullptr);
    EXPECT_EQ(Settings::describe("aiServiceURL")->type, SettingType::string);
    f.settings.setAiServiceURL("http://127.0.0.1:8080/v1");
    f.settings.setAiServiceModel("llama3.2");
    EXPECT_EQ(f.settings.aiServiceURL(), "http://127.0.0.1:8080/v1");
    EXPECT_EQ(f.settings.aiServiceModel(), "llama3.2");
    EXPECT_EQ(f.store.dictionaryRepresentation().at("aiServiceURL"), "http://127.0.0.1:8080/v1");
    // The key is no setting: nothing that lists or copies the settings can show it.
    EXPECT_EQ(Settings::describe("aiServiceKey"), nullptr);
}

TEST(AiServiceSettings, TheKeyIsAPrivateFileBesideTheSettingsAndNeverLogged) {
    platform::test::RecordingLogSink logs;
    Fixture f;
    const std::string key = "sk-test-0123456789abcdef";
    const auto file = f.settings.aiServiceKeyFile();
    EXPECT_EQ(file, f.platform.configHome() / "Sprelio" / "ai-service-key");
    EXPECT_EQ(file.parent_path(), f.constants.settingsFile().parent_path());
    EXPECT_FALSE(f.settings.aiServiceKey());

    ASSERT_EQ(f.settings.setAiServiceKey("  " + key + "\n"), "");
    EXPECT_EQ(f.settings.aiServiceKey(), key);
    EXPECT_EQ(storetest::readAll(file), key + "\n");
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_TRUE(f.store.dictionaryRepresentation().empty()) << "the key is not in the settings";

    // A key written over a file that others could read leaves a private one behind: the file is replaced whole.
    std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                                           std::filesystem::perms::group_read | std::filesystem::perms::others_read);
    ASSERT_EQ(f.settings.setAiServiceKey("sk-second"), "");
    EXPECT_EQ(f.settings.aiServiceKey(), "sk-second");
    EXPECT_EQ(modeOf(file), 0600u);
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path()))
        EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();

    // Nothing that is not one line of printable text is stored.
    EXPECT_NE(f.settings.setAiServiceKey(""), "");
    EXPECT_NE(f.settings.setAiServiceKey("sk-one\nAuthorization: other"), "");
    EXPECT_NE(f.settings.setAiServiceKey(std::string("sk-\x01")), "");
    EXPECT_EQ(f.settings.aiServiceKey(), "sk-second");

    ASSERT_EQ(f.settings.clearAiServiceKey(), "");
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_FALSE(f.settings.aiServiceKey());
    EXPECT_EQ(f.settings.clearAiServiceKey(), "") << "clearing what is not there is no failure";

    ASSERT_FALSE(logs.lines().empty());
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.message.find(key), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find("sk-second"), std::string::npos) << line.message;
    }
}

} // namespace
