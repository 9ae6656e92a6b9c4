#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "StoreTestSupport.h"
#include "base/BuildInfo.h"

using namespace sprelio;
using namespace sprelio::store;
using platform::test::RecordingLogSink;

TEST(AppConstants, LinuxIdentityAndFolders) {
    platform::test::TestPlatform p;
    AppConstants c(p, storetest::fixedEnvironment());
    EXPECT_EQ(c.appName(), "Sprelio");
    EXPECT_EQ(c.bundleIdentifier(), "com.sprelio.app");
    EXPECT_EQ(c.osName(), "Linux Test Linux 1.0 6.1.0-test");
    EXPECT_EQ(c.appVersion(), std::string(build::kVersion).empty() ? "0.0.0" : build::kVersion);
    EXPECT_EQ(c.clientVersion(), "linux-" + c.appVersion());
    EXPECT_EQ(c.appVersionLong(), "Sprelio v" + c.appVersion());
    EXPECT_EQ(c.appLanguageCode(), "en");
    EXPECT_FALSE(c.isBelowMacOS15());
    EXPECT_EQ(c.appSupportFolder(), p.dataHome() / "Sprelio");
    EXPECT_TRUE(std::filesystem::is_directory(c.appSupportFolder()));
    EXPECT_EQ(c.recordingsFolder(), p.dataHome() / "Sprelio/recordings");
    EXPECT_EQ(c.logsFolder(), p.dataHome() / "Sprelio/logs");
    EXPECT_EQ(c.aiServerItemsFile(), p.dataHome() / "Sprelio/AIServerItems");
    EXPECT_EQ(c.aiModelItemsFile(), p.dataHome() / "Sprelio/AIModelItems");
    EXPECT_EQ(c.settingsFile(), p.configHome() / "Sprelio/settings.json");
    EXPECT_EQ(c.languages().size(), 101u);
}

TEST(AppConstants, OsNameLeavesOutUnknownParts) {
    platform::test::TestPlatform p;
    EXPECT_EQ(AppConstants(p, storetest::fixedEnvironment({}, "", "6.2")).osName(), "Linux 6.2");
    EXPECT_EQ(AppConstants(p, storetest::fixedEnvironment({}, "", "")).osName(), "Linux");
}

TEST(AppConstants, OsNameOfTheRealMachineStartsWithLinux) {
    platform::test::TestPlatform p;
    AppConstants c(p);
    EXPECT_EQ(c.osName().rfind("Linux", 0), 0u);
}

TEST(AppConstants, SystemLanguageFollowsPosixPrecedence) {
    platform::test::TestPlatform p;
    auto code = [&](std::map<std::string, std::string> vars) {
        return AppConstants(p, storetest::fixedEnvironment(std::move(vars))).systemLanguageCode();
    };
    EXPECT_EQ(code({{"LANG", "de_DE.UTF-8"}}), "de");
    EXPECT_EQ(code({{"LANG", "pt-BR"}}), "pt");
    EXPECT_EQ(code({{"LANG", "sr@latin"}}), "sr");
    EXPECT_EQ(code({{"LANG", "fr"}}), "fr");
    EXPECT_EQ(code({{"LANG", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR.UTF-8"}}), "fr");
    EXPECT_EQ(code({{"LANG", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR"}, {"LC_ALL", "it_IT"}}), "it");
    EXPECT_EQ(code({{"LANG", "de_DE.UTF-8"}, {"LC_ALL", ""}}), "de"); // empty counts as unset
    EXPECT_EQ(code({}), "??");
    EXPECT_EQ(code({{"LANG", "C"}}), "??");
    EXPECT_EQ(code({{"LANG", "C.UTF-8"}}), "??");
    EXPECT_EQ(code({{"LANG", "POSIX"}}), "??");
    EXPECT_EQ(code({{"LANG", "de_DE.UTF-8"}, {"LC_ALL", "C"}}), "??"); // LC_ALL=C wins: no language
}

TEST(AppConstants, PreferredLanguagesComeFromLanguageUnlessTheLocaleIsC) {
    platform::test::TestPlatform p;
    auto preferred = [&](std::map<std::string, std::string> vars) {
        return AppConstants(p, storetest::fixedEnvironment(std::move(vars))).preferredLanguages();
    };
    EXPECT_EQ(preferred({{"LANG", "de_DE.UTF-8"}, {"LANGUAGE", "de_DE:en_GB:en"}}),
              (std::vector<std::string>{"de", "en"}));
    EXPECT_EQ(preferred({{"LANG", "de_DE.UTF-8"}}), (std::vector<std::string>{"de"}));
    EXPECT_TRUE(preferred({{"LANG", "C"}, {"LANGUAGE", "de"}}).empty());
}

TEST(AppConstants, TerminalsPreferPasteAndMatchStyle) {
    platform::test::TestPlatform p;
    AppConstants c(p, storetest::fixedEnvironment());
    for (const char* name : {"xterm", "urxvt", "gnome-terminal", "konsole", "kitty", "alacritty", "wezterm", "foot",
                             "terminator", "tilix", "xfce4-terminal", "mate-terminal", "lxterminal", "qterminal", "st",
                             "termite", "ghostty", "uxterm", "mlterm", "st-256color", "sakura", "kgx"})
        EXPECT_TRUE(c.appsThatPreferPasteAndMatchStyle().count(name)) << name;
    EXPECT_EQ(c.appsThatPreferPasteAndMatchStyle().size(), 22u);
    EXPECT_TRUE(c.prefersPasteAndMatchStyle("Konsole"));
    EXPECT_TRUE(c.prefersPasteAndMatchStyle("XTerm"));
    EXPECT_FALSE(c.prefersPasteAndMatchStyle("firefox"));
}

TEST(AppConstants, ShortDateIsNotEmpty) {
    platform::test::TestPlatform p;
    AppConstants c(p, storetest::fixedEnvironment());
    EXPECT_FALSE(c.formatShortDate(p.now()).empty());
}

TEST(AppConstants, AFailureToCreateTheSupportFolderIsLogged) {
    platform::test::TestPlatform p;
    RecordingLogSink sink;
    storetest::writeAll(p.dataHome(), "a file where the data folder should be");
    AppConstants c(p, storetest::fixedEnvironment());
    EXPECT_TRUE(sink.containsPrefix("Failed to create Application Support directory: "));
    EXPECT_EQ(c.appSupportFolder(), p.dataHome() / "Sprelio");
}

TEST(AppConstants, FileUrls) {
    EXPECT_EQ(AppConstants::fileURL("/a/b c/ü", false), "file:///a/b%20c/%C3%BC");
    EXPECT_EQ(AppConstants::fileURL("/a/b", true), "file:///a/b/");
    EXPECT_EQ(AppConstants::pathFromFileURLOrPath("file:///a/b%20c/%C3%BC"), std::filesystem::path("/a/b c/ü"));
    EXPECT_EQ(AppConstants::pathFromFileURLOrPath("file://localhost/x"), std::filesystem::path("/x"));
    EXPECT_EQ(AppConstants::pathFromFileURLOrPath("/plain/path"), std::filesystem::path("/plain/path"));
    EXPECT_EQ(AppConstants::languageCodeFromLocale("en_US.UTF-8"), "en");
    EXPECT_EQ(AppConstants::languageCodeFromLocale("C"), "");
}
