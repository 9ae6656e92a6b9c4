// Every key of the settings catalogue read from an empty store. The expected values are copied from the catalogue's
// table (and, for computed defaults, from the choices documented in store/Settings.h), not from the code.
#include <gtest/gtest.h>

#include <set>

#include "StoreTestSupport.h"
#include "store/Settings.h"

using namespace sprelio;
using namespace sprelio::store;
using nlohmann::json;

using Fixture = storetest::SettingsFixture;

TEST(SettingsDefaults, EveryKeyOfTheCatalogueReadsItsDocumentedDefaultFromAnEmptyStore) {
    Fixture f;
    const json english = {{"code", "en"}, {"fallbackName", "English"}, {"localized", "English"}, {"endonym", "English"}};
    // key -> expected default, from the catalogue's table (null: "none"/"nil", an optional value).
    const std::vector<std::pair<std::string, json>> expected = {
        {"soundEnabled", false},
        {"playSoundOnRecordingStart", false},
        {"recordingStartSoundName", "Pop"},
        {"playSoundOnRecordingStop", false},
        {"recordingStopSoundName", "Blow"},
        {"preferExternalMicrophone", true},
        {"userSelectedMicDeviceName", ""},
        {"lastKnownInputDeviceID", -1},
        {"setMicrophoneLevelToMaximum", true},
        {"minimumRecordingDuration", 400},
        {"tapAndRecordTimeoutMinutes", 10},
        {"cttsSilenceTresholdMs", 1500},
        {"saveRecordingsFolder", (f.platform.dataHome() / "Sprelio/recordings").string()},
        {"copyTranscript", false},
        {"pasteCtrlVForRemoteDesktop", true},
        {"isLoginItem", true},
        {"appShowDockIcon", true},
        {"isFirstLaunch", true},
        {"lastKnownBuild", 0},
        {"overlaySize", 112},
        {"floatingButtonActivation", true},
        {"floatingRecordButtonSize", 48},
        {"floatingRecordButtonTransparency", 0},
        {"floatingRecordShowAITools", false},
        {"floatingRecord.selectedItemIDs.json", "[]"},
        {"showRecordingTimer", true},
        {"overlayPositionPerScreen", json::object()},
        {"draggedOverlayPositionPerScreen", json::object()},
        {"buttonPrefersDisplayUniqueID", ""},
        {"tutorialViewFrame", nullptr},
        {"intelligenceResultsViewFrame", nullptr},
        {"intelligenceResultsView_selectedItemId", ""},
        {"showAIResultsViewAtCursorPosition", false},
        {"messagesToNeverShowAgain", json::array()},
        {"lastDetectedLanguageCode", "en"},
        {"localizedTranslationLanguages", json::array({english})},
        {"aiLocalizedTranslationLanguages", json::array({english})},
        {"filesMenuRecordingMode", "microphoneOnly"},
        {"filesMenuViewSpeakerSeparation", false},
        {"historyRetentionDays", 365},
        {"subSortInput", true},
        {"subSortOrder", "ascend"},
        {"balancers", json::array()},
        {"lastKnownLoginState", "logout"},
        {"token", nullptr},
        {"userEmail", nullptr},
        {"userDetailsResponse", nullptr},
        {"sendReportViewPhone", ""},
        {"sendReportViewMessage", ""},
        {"SelectedFolderBookmark", nullptr},
        {"AppleLanguages", json::array({"en"})},
        {"apiBaseURL", "embedded"},
        {"aiServiceURL", ""},
        {"aiServiceModel", ""},
        {"updateFeedURL", "https://updates.sprelio.com/linux/appcast.xml"},
    };
    std::set<std::string> listed;
    for (const auto& [key, value] : expected) {
        listed.insert(key);
        EXPECT_NE(Settings::describe(key), nullptr) << key << " is missing from the catalogue";
        EXPECT_EQ(f.settings.value(key), value) << key;
        EXPECT_EQ(f.settings.defaultValue(key), value) << key;
    }
    for (const auto& description : Settings::catalogue())
        EXPECT_TRUE(listed.count(description.key)) << description.key << " has no expected default in this test";
    EXPECT_TRUE(f.store.dictionaryRepresentation().empty()) << "reading must not write";
}

TEST(SettingsDefaults, TypedGettersReturnTheDocumentedDefaults) {
    Fixture f;
    const Settings& s = f.settings;
    EXPECT_FALSE(s.soundEnabled());
    EXPECT_FALSE(s.playSoundOnRecordingStart());
    EXPECT_EQ(s.recordingStartSoundName(), "Pop");
    EXPECT_FALSE(s.playSoundOnRecordingStop());
    EXPECT_EQ(s.recordingStopSoundName(), "Blow");
    EXPECT_TRUE(s.preferExternalMicrophone());
    EXPECT_EQ(s.userSelectedMicDeviceName(), "");
    EXPECT_EQ(s.lastKnownInputDeviceID(), -1);
    EXPECT_TRUE(s.setMicrophoneLevelToMaximum());
    EXPECT_EQ(s.minimumRecordingDuration(), 400);
    EXPECT_EQ(s.tapAndRecordTimeoutMinutes(), 10);
    EXPECT_EQ(s.cttsSilenceTresholdMs(), 1500);
    EXPECT_EQ(s.saveRecordingsFolder(), f.platform.dataHome() / "Sprelio/recordings");
    EXPECT_FALSE(s.copyTranscript());
    EXPECT_TRUE(s.pasteCtrlVForRemoteDesktop());
    EXPECT_TRUE(s.isLoginItem());
    EXPECT_TRUE(s.appShowDockIcon());
    EXPECT_TRUE(s.isFirstLaunch());
    EXPECT_EQ(s.lastKnownBuild(), 0);
    EXPECT_EQ(s.overlaySize(), 112);
    EXPECT_TRUE(s.floatingButtonActivation());
    EXPECT_EQ(s.floatingRecordButtonSize(), 48);
    EXPECT_EQ(s.floatingRecordButtonTransparency(), 0);
    EXPECT_FALSE(s.floatingRecordShowAITools());
    EXPECT_EQ(s.floatingRecordSelectedItemIDsJson(), "[]");
    EXPECT_TRUE(s.showRecordingTimer());
    EXPECT_TRUE(s.overlayPositionPerScreen().empty());
    EXPECT_TRUE(s.draggedOverlayPositionPerScreen().empty());
    EXPECT_EQ(s.buttonPrefersDisplayUniqueID(), "");
    EXPECT_FALSE(s.tutorialViewFrame());
    EXPECT_FALSE(s.intelligenceResultsViewFrame());
    EXPECT_EQ(s.intelligenceResultsView_selectedItemId(), "");
    EXPECT_FALSE(s.showAIResultsViewAtCursorPosition());
    EXPECT_TRUE(s.messagesToNeverShowAgain().empty());
    EXPECT_EQ(s.lastDetectedLanguageCode(), "en");
    ASSERT_EQ(s.localizedTranslationLanguages().size(), 1u);
    EXPECT_EQ(s.localizedTranslationLanguages()[0].code, "en");
    ASSERT_EQ(s.aiLocalizedTranslationLanguages().size(), 1u);
    EXPECT_EQ(s.aiLocalizedTranslationLanguages()[0].endonym, "English");
    EXPECT_EQ(s.filesMenuRecordingMode(), "microphoneOnly");
    EXPECT_FALSE(s.filesMenuViewSpeakerSeparation());
    EXPECT_EQ(s.historyRetentionDays(), 365);
    EXPECT_TRUE(s.subSortInput());
    EXPECT_EQ(s.subSortOrder(), "ascend");
    EXPECT_EQ(s.balancers(), json::array());
    EXPECT_EQ(s.lastKnownLoginState(), "logout");
    EXPECT_FALSE(s.token());
    EXPECT_FALSE(s.userEmail());
    EXPECT_FALSE(s.userDetailsResponse());
    EXPECT_EQ(s.sendReportViewPhone(), "");
    EXPECT_EQ(s.sendReportViewMessage(), "");
    EXPECT_FALSE(s.SelectedFolderBookmark());
    EXPECT_EQ(s.AppleLanguages(), std::vector<std::string>{"en"});
    EXPECT_EQ(s.apiBaseURL(), "embedded");
    EXPECT_EQ(s.aiServiceURL(), "");
    EXPECT_EQ(s.aiServiceModel(), "");
    EXPECT_EQ(s.updateFeedURL(), "https://updates.sprelio.com/linux/appcast.xml");
    EXPECT_FALSE(s.aiServiceKey());
}

TEST(SettingsDefaults, TranslationLanguagesStartWithTheSystemLanguageThenEnglish) {
    platform::test::TestPlatform platform;
    AppConstants constants(platform, storetest::fixedEnvironment({{"LANG", "de_DE.UTF-8"}}));
    MemorySettingsStore store;
    Settings settings(store, constants);
    auto languages = settings.localizedTranslationLanguages();
    ASSERT_EQ(languages.size(), 2u);
    EXPECT_EQ(languages[0].code, "de");
    EXPECT_EQ(languages[0].endonym, "Deutsch");
    EXPECT_EQ(languages[1].code, "en");
    // lastDetectedLanguageCode follows the app's language (only English ships), not the system's.
    EXPECT_EQ(settings.lastDetectedLanguageCode(), "en");
    EXPECT_EQ(settings.AppleLanguages(), std::vector<std::string>{"de"});
}

TEST(SettingsDefaults, AbsentPasteCtrlVForRemoteDesktopIsTrueButAStoredFalseIsFalse) {
    Fixture f;
    EXPECT_TRUE(f.settings.pasteCtrlVForRemoteDesktop());
    f.settings.setPasteCtrlVForRemoteDesktop(false);
    EXPECT_FALSE(f.settings.pasteCtrlVForRemoteDesktop());
    f.store.remove("pasteCtrlVForRemoteDesktop");
    EXPECT_TRUE(f.settings.pasteCtrlVForRemoteDesktop());
}
