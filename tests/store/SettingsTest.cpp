#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "StoreTestSupport.h"
#include "store/PointText.h"
#include "store/Settings.h"

using namespace sprelio;
using namespace sprelio::store;
using nlohmann::json;
using platform::test::RecordingLogSink;

using Fixture = storetest::SettingsFixture;

TEST(Settings, ValuesRoundTripThroughTheStoreWithTheirJsonTypes) {
    Fixture f;
    Settings& s = f.settings;
    s.setSoundEnabled(true);
    s.setMinimumRecordingDuration(250);
    s.setRecordingStartSoundName("Tink");
    s.setMessagesToNeverShowAgain({"a", "b"});
    s.setLastDetectedLanguageCode("de");
    s.setFloatingRecordSelectedItemIDsJson("[\"x\"]");
    s.setIntelligenceResultsView_selectedItemId("id-1");
    s.setOverlayPositionPerScreen({{"screen-1", "topRight"}});
    s.setDraggedOverlayPositionPerScreen({{"screen-1", Point{10.5, -3}}});
    s.setTutorialViewFrame(Rect{1, 2, 300, 400});
    s.setSaveRecordingsFolder("/tmp/my recordings");
    s.setLocalizedTranslationLanguages({languageTable()[3], languageTable()[0]});
    s.setBalancers(json::array({{{"name", "b1"}}}));
    s.setUserDetailsResponse(json{{"email", "a@b.c"}});
    s.setToken("tok");
    s.setUserEmail("a@b.c");

    EXPECT_TRUE(s.soundEnabled());
    EXPECT_EQ(s.minimumRecordingDuration(), 250);
    EXPECT_EQ(s.recordingStartSoundName(), "Tink");
    EXPECT_EQ(s.messagesToNeverShowAgain(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(s.lastDetectedLanguageCode(), "de");
    EXPECT_EQ(s.floatingRecordSelectedItemIDsJson(), "[\"x\"]");
    EXPECT_EQ(s.intelligenceResultsView_selectedItemId(), "id-1");
    EXPECT_EQ(s.overlayPositionPerScreen().at("screen-1"), "topRight");
    EXPECT_EQ(s.draggedOverlayPositionPerScreen().at("screen-1"), (Point{10.5, -3}));
    EXPECT_EQ(s.tutorialViewFrame(), (Rect{1, 2, 300, 400}));
    EXPECT_EQ(s.saveRecordingsFolder(), std::filesystem::path("/tmp/my recordings"));
    ASSERT_EQ(s.localizedTranslationLanguages().size(), 2u);
    EXPECT_EQ(s.localizedTranslationLanguages()[0].endonym, "العربية");
    EXPECT_EQ(s.balancers()[0]["name"], "b1");
    EXPECT_EQ((*s.userDetailsResponse())["email"], "a@b.c");
    EXPECT_EQ(s.token(), "tok");
    EXPECT_EQ(s.userEmail(), "a@b.c");

    // Stored forms.
    EXPECT_EQ(*f.store.object("soundEnabled"), json(true));
    EXPECT_EQ(*f.store.object("minimumRecordingDuration"), json(250));
    EXPECT_EQ(*f.store.object("floatingRecord.selectedItemIDs.json"), json("[\"x\"]"));
    EXPECT_EQ(*f.store.object("draggedOverlayPositionPerScreen"), (json{{"screen-1", "10.5,-3"}}));
    EXPECT_EQ(*f.store.object("tutorialViewFrame"), json("1,2,300,400"));
    EXPECT_EQ(*f.store.object("saveRecordingsFolder"), json("/tmp/my recordings"));

    // Optional values: nullopt removes the key.
    s.setTutorialViewFrame(std::nullopt);
    s.setToken(std::nullopt);
    s.setUserDetailsResponse(std::nullopt);
    EXPECT_FALSE(f.store.object("tutorialViewFrame"));
    EXPECT_FALSE(s.token());
    EXPECT_FALSE(s.userDetailsResponse());
}

TEST(Settings, AStoredValueOfTheWrongTypeReadsAsTheDefaultAndIsLoggedOnce) {
    Fixture f;
    RecordingLogSink sink;
    f.store.set("soundEnabled", "yes");
    f.store.set("minimumRecordingDuration", "400ms");
    f.store.set("recordingStartSoundName", 5);
    f.store.set("messagesToNeverShowAgain", json::array({1, 2}));
    f.store.set("overlayPositionPerScreen", json{{"a", 1}});
    f.store.set("localizedTranslationLanguages", json{{"code", "en"}});
    f.store.set("userDetailsResponse", json::array());
    f.store.set("tutorialViewFrame", 12);
    f.store.set("lastKnownInputDeviceID", 1e12);

    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(f.settings.soundEnabled());
        EXPECT_EQ(f.settings.minimumRecordingDuration(), 400);
        EXPECT_EQ(f.settings.recordingStartSoundName(), "Pop");
        EXPECT_TRUE(f.settings.messagesToNeverShowAgain().empty());
        EXPECT_TRUE(f.settings.overlayPositionPerScreen().empty());
        EXPECT_EQ(f.settings.localizedTranslationLanguages().size(), 1u);
        EXPECT_FALSE(f.settings.userDetailsResponse());
        EXPECT_FALSE(f.settings.tutorialViewFrame());
        EXPECT_EQ(f.settings.lastKnownInputDeviceID(), -1);
    }
    EXPECT_EQ(sink.count("Settings.read() - stored value of \"soundEnabled\" is not a boolean, using the default"), 1u);
    EXPECT_EQ(sink.count("Settings.read() - stored value of \"minimumRecordingDuration\" is not a integer, using the default"), 1u);
    EXPECT_TRUE(sink.contains("Settings.read() - stored value of \"localizedTranslationLanguages\" is not a languages, using the default",
                              sprelio::LogLevel::error));
    std::size_t errors = 0;
    for (const auto& line : sink.lines())
        if (line.level == sprelio::LogLevel::error) ++errors;
    EXPECT_EQ(errors, 9u);
    // The bad value stays in the store until it is overwritten.
    EXPECT_EQ(*f.store.object("soundEnabled"), json("yes"));
    f.settings.setSoundEnabled(true);
    EXPECT_TRUE(f.settings.soundEnabled());
}

TEST(Settings, IntegersWrittenAsWholeFloatsAreAccepted) {
    Fixture f;
    f.store.set("overlaySize", 120.0);
    EXPECT_EQ(f.settings.overlaySize(), 120);
    f.store.set("overlaySize", 120.5);
    EXPECT_EQ(f.settings.overlaySize(), 112);
}

TEST(Settings, SaveRecordingsFolderAcceptsAFileUrl) {
    Fixture f;
    f.store.set("saveRecordingsFolder", "file:///home/u/My%20Recordings/");
    EXPECT_EQ(f.settings.saveRecordingsFolder(), std::filesystem::path("/home/u/My Recordings"));
    EXPECT_EQ(f.constants.recordingsFolderURL(),
              AppConstants::fileURL(f.platform.dataHome() / "Sprelio/recordings", true));
    EXPECT_EQ(AppConstants::pathFromFileURLOrPath(f.constants.recordingsFolderURL()), f.constants.recordingsFolder());
}

TEST(Settings, LanguagesStoredAsAJsonTextAreAccepted) {
    Fixture f;
    json list = json::array({languageTable().back(), languageTable()[1]});
    f.store.set("aiLocalizedTranslationLanguages", list.dump());
    auto languages = f.settings.aiLocalizedTranslationLanguages();
    ASSERT_EQ(languages.size(), 2u);
    EXPECT_EQ(languages[0].code, "");
    EXPECT_EQ(languages[1].code, "af");
}

TEST(Settings, DraggedPositionsWithABadPointTextAreLeftOut) {
    Fixture f;
    f.store.set("draggedOverlayPositionPerScreen", json{{"a", "1,2"}, {"b", "1,2,3"}, {"c", "x,y"}, {"d", " 3.5 , 4 "}});
    auto positions = f.settings.draggedOverlayPositionPerScreen();
    EXPECT_EQ(positions.size(), 2u);
    EXPECT_EQ(positions.at("a"), (Point{1, 2}));
    EXPECT_EQ(positions.at("d"), (Point{3.5, 4}));
}

TEST(Settings, ARectangleTextWithoutFourNumbersReadsAsNoValue) {
    Fixture f;
    f.store.set("intelligenceResultsViewFrame", "1,2,3");
    EXPECT_FALSE(f.settings.intelligenceResultsViewFrame());
    EXPECT_EQ(f.settings.value("intelligenceResultsViewFrame"), json(nullptr));
    f.store.set("intelligenceResultsViewFrame", "10,20,30,40");
    EXPECT_EQ(f.settings.intelligenceResultsViewFrame(), (Rect{10, 20, 30, 40}));
}

TEST(Settings, KeyboardShortcutKeysStayPlainKeysOfTheStore) {
    Fixture f;
    std::string key = std::string(kKeyboardShortcutsPrefix) + "0F8FAD5B-D9CB-469F-A165-70867728950E";
    f.store.set(key, json{{"carbonKeyCode", 49}, {"carbonModifiers", 256}});
    EXPECT_EQ(f.store.dictionaryRepresentation().count(key), 1u);
    EXPECT_EQ(Settings::describe(key), nullptr);
    EXPECT_EQ(f.settings.value(key)["carbonKeyCode"], 49);
    f.store.remove(key);
    EXPECT_FALSE(f.store.object(key));
}

TEST(PointText, ParsesExactlyTwoNumbers) {
    EXPECT_EQ(PointText::parse("1,2"), (Point{1, 2}));
    EXPECT_EQ(PointText::parse("-1.5,2e3"), (Point{-1.5, 2000}));
    EXPECT_EQ(PointText::parse(" 1 , 2 "), (Point{1, 2}));
    EXPECT_FALSE(PointText::parse(""));
    EXPECT_FALSE(PointText::parse("1"));
    EXPECT_FALSE(PointText::parse("1,2,3"));
    EXPECT_FALSE(PointText::parse("1,"));
    EXPECT_FALSE(PointText::parse("a,b"));
    EXPECT_FALSE(PointText::parse("1,2x"));
    EXPECT_FALSE(PointText::parse("nan,1"));
    EXPECT_EQ(PointText::format({1, 2}), "1,2");
    EXPECT_EQ(PointText::format({0.1, -2.25}), "0.1,-2.25");
    Point p{123.456789, -0.000001};
    EXPECT_EQ(PointText::parse(PointText::format(p)), p);
}

TEST(RectText, ParsesExactlyFourNumbers) {
    EXPECT_EQ(RectText::parse("1,2,3,4"), (Rect{1, 2, 3, 4}));
    EXPECT_FALSE(RectText::parse("1,2"));
    EXPECT_FALSE(RectText::parse("1,2,3,4,5"));
    EXPECT_FALSE(RectText::parse("{{1,2},{3,4}}"));
    EXPECT_EQ(RectText::format({1.5, 2, 300, 400}), "1.5,2,300,400");
    Rect r{-10.25, 20, 640.5, 480};
    EXPECT_EQ(RectText::parse(RectText::format(r)), r);
}

TEST(SettingsCatalogue, ParseValueTurnsCommandLineTextIntoTheKeysType) {
    std::string reason;
    for (const char* t : {"true", "TRUE", "1", "yes", "Yes"})
        EXPECT_EQ(Settings::parseValue("soundEnabled", t), json(true)) << t;
    for (const char* t : {"false", "0", "no", "NO"})
        EXPECT_EQ(Settings::parseValue("soundEnabled", t), json(false)) << t;
    EXPECT_FALSE(Settings::parseValue("soundEnabled", "maybe", &reason));
    EXPECT_NE(reason.find("not a boolean"), std::string::npos);

    EXPECT_EQ(Settings::parseValue("overlaySize", "120"), json(120));
    EXPECT_EQ(Settings::parseValue("lastKnownInputDeviceID", "-1"), json(-1));
    EXPECT_FALSE(Settings::parseValue("overlaySize", "12.5", &reason));
    EXPECT_FALSE(Settings::parseValue("overlaySize", "", &reason));
    EXPECT_FALSE(Settings::parseValue("overlaySize", "99999999999", &reason));
    EXPECT_NE(reason.find("range"), std::string::npos);

    EXPECT_EQ(Settings::parseValue("recordingStartSoundName", "Tink"), json("Tink"));
    EXPECT_EQ(Settings::parseValue("messagesToNeverShowAgain", "[\"a\",\"b\"]"), json::array({"a", "b"}));
    EXPECT_FALSE(Settings::parseValue("messagesToNeverShowAgain", "[1]", &reason));
    EXPECT_FALSE(Settings::parseValue("messagesToNeverShowAgain", "[", &reason));
    EXPECT_NE(reason.find("not valid JSON"), std::string::npos);
    EXPECT_EQ(Settings::parseValue("overlayPositionPerScreen", "{\"s\":\"topLeft\"}"), (json{{"s", "topLeft"}}));
    EXPECT_EQ(Settings::parseValue("draggedOverlayPositionPerScreen", "{\"s\":\"1,2\",\"t\":[3,4]}"),
              (json{{"s", "1,2"}, {"t", "3,4"}}));
    EXPECT_FALSE(Settings::parseValue("draggedOverlayPositionPerScreen", "{\"s\":\"1\"}", &reason));
    EXPECT_EQ(Settings::parseValue("tutorialViewFrame", "1, 2, 3, 4"), json("1,2,3,4"));
    EXPECT_FALSE(Settings::parseValue("tutorialViewFrame", "1,2", &reason));
    EXPECT_EQ(Settings::parseValue("saveRecordingsFolder", "file:///a/b%20c/"), json("/a/b c"));
    EXPECT_FALSE(Settings::parseValue("saveRecordingsFolder", "relative/path", &reason));
    EXPECT_EQ(Settings::parseValue("floatingRecord.selectedItemIDs.json", "[\"x\"]"), json("[\"x\"]"));
    EXPECT_FALSE(Settings::parseValue("floatingRecord.selectedItemIDs.json", "[x", &reason));

    auto languages = Settings::parseValue("localizedTranslationLanguages", "de, EN");
    ASSERT_TRUE(languages);
    ASSERT_EQ(languages->size(), 2u);
    EXPECT_EQ((*languages)[0]["endonym"], "Deutsch");
    EXPECT_EQ((*languages)[1]["code"], "en");
    EXPECT_FALSE(Settings::parseValue("localizedTranslationLanguages", "de,xx", &reason));
    EXPECT_NE(reason.find("xx"), std::string::npos);
    EXPECT_TRUE(Settings::parseValue("localizedTranslationLanguages", json(languageTable()).dump()));

    EXPECT_EQ(Settings::parseValue("balancers", "[]"), json::array());
    EXPECT_FALSE(Settings::parseValue("balancers", "{}", &reason));
    EXPECT_EQ(Settings::parseValue("userDetailsResponse", "{\"a\":1}"), (json{{"a", 1}}));

    // Keys outside the catalogue: JSON when it parses, else the text.
    EXPECT_EQ(Settings::parseValue("KeyboardShortcuts_X", "{\"k\":1}"), (json{{"k", 1}}));
    EXPECT_EQ(Settings::parseValue("somethingElse", "plain text"), json("plain text"));

}

TEST(SettingsCatalogue, EveryDefaultIsAValidValueOfItsKey) {
    platform::test::TestPlatform p;
    AppConstants constants(p, storetest::fixedEnvironment({{"LANG", "de_DE"}}));
    MemorySettingsStore store;
    Settings settings(store, constants);
    for (const auto& description : Settings::catalogue()) {
        json value = settings.defaultValue(description.key);
        EXPECT_EQ(value.is_null(), description.optional) << description.key;
        if (!value.is_null()) {
            EXPECT_TRUE(Settings::isValidValue(description.key, value)) << description.key;
        }
    }
}

TEST(SettingsCatalogue, KeysAreUniqueAndTypesNamed) {
    std::set<std::string> keys;
    for (const auto& d : Settings::catalogue()) EXPECT_TRUE(keys.insert(d.key).second) << d.key;
    EXPECT_EQ(settingTypeName(Settings::describe("soundEnabled")->type), "boolean");
    EXPECT_EQ(settingTypeName(Settings::describe("minimumRecordingDuration")->type), "integer");
    EXPECT_EQ(settingTypeName(Settings::describe("messagesToNeverShowAgain")->type), "string array");
    EXPECT_EQ(settingTypeName(Settings::describe("overlayPositionPerScreen")->type), "dictionary");
    EXPECT_EQ(settingTypeName(Settings::describe("tutorialViewFrame")->type), "rectangle");
    EXPECT_EQ(settingTypeName(Settings::describe("localizedTranslationLanguages")->type), "languages");
    EXPECT_TRUE(Settings::describe("tutorialViewFrame")->optional);
    EXPECT_FALSE(Settings::describe("soundEnabled")->optional);
}

TEST(MemorySettingsStore, ConcurrentReadersAndWritersDoNotRace) {
    MemorySettingsStore store;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 2000; ++i) {
                store.set("k" + std::to_string(t), i);
                (void)store.object("k0");
                (void)store.dictionaryRepresentation();
                if (i % 7 == 0) store.remove("k" + std::to_string(t));
            }
        });
    }
    for (auto& th : threads) th.join();
    SUCCEED();
}
