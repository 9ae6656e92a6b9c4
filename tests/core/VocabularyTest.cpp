// The session's vocabulary: states, actions, completion types, text forms and the shared observable state.
#include <gtest/gtest.h>

#include <set>

#include "shared/AppActivity.h"
#include "shared/AppState.h"
#include "shared/ShortcutAction.h"
#include "platform/test/TestPlatform.h"
#include "store/Entities.h"

using namespace sprelio;

TEST(AppActivityNames, PrintedFormIsTheCaseNameAndRawValuesRoundTrip) {
    EXPECT_EQ(appActivityName(AppActivity::idle), "idle");
    EXPECT_EQ(appActivityName(AppActivity::continuousSpeechActive), "continuousSpeechActive");
    for (int raw = 0; raw <= 4; ++raw) {
        const auto activity = appActivityFromRawValue(raw);
        ASSERT_TRUE(activity.has_value());
        EXPECT_EQ(static_cast<int>(*activity), raw);
        EXPECT_EQ(appActivityFromName(appActivityName(*activity)), activity);
    }
    EXPECT_FALSE(appActivityFromRawValue(5).has_value());
    EXPECT_FALSE(appActivityFromName("Idle").has_value());
}

TEST(ShortcutActions, TwelveCasesInDisplayOrderWithUniqueNamesTitlesAndMarks) {
    const auto& all = allShortcutActions();
    ASSERT_EQ(all.size(), 12u);
    EXPECT_EQ(all.front(), ShortcutAction::recordAndTranscribe);
    EXPECT_EQ(all.back(), ShortcutAction::continuousVoiceToText);
    std::set<std::string_view> raws, titles, marks;
    for (auto action : all) {
        raws.insert(shortcutActionRawValue(action));
        titles.insert(shortcutActionTitle(action));
        marks.insert(shortcutActionMark(action));
        EXPECT_EQ(shortcutActionFromRawValue(shortcutActionRawValue(action)), action);
    }
    EXPECT_EQ(raws.size(), 12u);
    EXPECT_EQ(titles.size(), 12u);
    EXPECT_EQ(marks.size(), 12u);
    EXPECT_EQ(shortcutActionTitle(ShortcutAction::recordAndTranscribeToFlat), "voice to text (start with lowercase)");
    EXPECT_EQ(shortcutActionMark(ShortcutAction::continuousVoiceToText), "♾️");
    EXPECT_FALSE(shortcutActionFromRawValue("RecordAndTranscribe").has_value());
    EXPECT_FALSE(shortcutActionFromRawValue("").has_value());
}

TEST(CompletionTypes, ParseOnlyTheTwoCases) {
    EXPECT_EQ(intelligenceActionCompletionTypeFromRawValue("paste"), IntelligenceActionCompletionType::paste);
    EXPECT_EQ(intelligenceActionCompletionTypeFromRawValue("dialog"), IntelligenceActionCompletionType::dialog);
    EXPECT_FALSE(intelligenceActionCompletionTypeFromRawValue("Dialog").has_value());
    EXPECT_EQ(intelligenceActionCompletionTypeDescription(IntelligenceActionCompletionType::dialog),
              "Text from Completion will be shown in actions dialog");
}

TEST(TextForms, FlatFormStartsWithOneBlankAndLowersOnlyTheFirstWord) {
    EXPECT_EQ(flatFormOfText("Hello World"), " hello World");
    EXPECT_EQ(flatFormOfText("Hello"), " hello");
    EXPECT_EQ(flatFormOfText(""), " ");
    EXPECT_EQ(flatFormOfText("ÉCOLE Normale Supérieure"), " école Normale Supérieure");
    EXPECT_EQ(flatFormOfText("Привет Мир"), " привет Мир");
}

TEST(TextForms, CapsUseTheRootRules) {
    EXPECT_EQ(capsFormOfText("hello world"), "HELLO WORLD");
    EXPECT_EQ(capsFormOfText("straße"), "STRASSE");
    EXPECT_EQ(capsFormOfText("istanbul"), "ISTANBUL"); // no dotted capital I, whatever the user's locale
    EXPECT_EQ(capsFormOfText("привет"), "ПРИВЕТ");
    EXPECT_EQ(capsFormOfText(""), "");
}

TEST(TextForms, InvalidUtf8IsNotLost) {
    const std::string broken = "ab\xff" "cd";
    EXPECT_FALSE(capsFormOfText(broken).empty());
}

class AppStateTest : public ::testing::Test {
protected:
    platform::test::RecordingLogSink logs;
    AppStateRealtimeMirror mirror;
    AppState state{mirror};
};

TEST_F(AppStateTest, DefaultsMatchAFreshProcess) {
    EXPECT_TRUE(state.internetAvailable());
    EXPECT_FALSE(state.lastKnownErrorLocalizedDescription().has_value());
    EXPECT_EQ(state.selectedContentViewTab(), ContentViewTab::main);
    EXPECT_FALSE(state.userIsHoveringContentView());
    EXPECT_EQ(state.currentlyActiveUserShortcut(), nullptr);
    EXPECT_FALSE(state.currentlyActiveIntelligenceActionCompletionType().has_value());
}

TEST_F(AppStateTest, ClearingTheActiveShortcutClearsTheMenuShortcutAndLogsBoth) {
    auto active = std::make_shared<store::UserShortcut>();
    state.setCurrentlyActiveUserShortcut(active);
    state.setFloatingButtonMenuShortcut(std::make_shared<store::UserShortcut>());
    EXPECT_TRUE(logs.contains("AppState.currentlyActiveUserShortcut: " + active->description()));
    EXPECT_FALSE(logs.containsPrefix("AppState.floatingButtonMenuShortcut: "));

    // Setting another shortcut keeps the menu choice.
    state.setCurrentlyActiveUserShortcut(std::make_shared<store::UserShortcut>());
    EXPECT_NE(state.floatingButtonMenuShortcut(), nullptr);

    state.setCurrentlyActiveUserShortcut(nullptr);
    EXPECT_EQ(state.floatingButtonMenuShortcut(), nullptr);
    EXPECT_TRUE(logs.contains("AppState.currentlyActiveUserShortcut: nil"));
    EXPECT_TRUE(logs.contains("AppState.floatingButtonMenuShortcut: nil"));
}

TEST_F(AppStateTest, CompletionTypeComesFromTheMenuShortcutFirst) {
    auto active = std::make_shared<store::UserShortcut>();
    active->setIntelligenceActionCompletionType(std::string("dialog"));
    state.setCurrentlyActiveUserShortcut(active);
    EXPECT_EQ(state.currentlyActiveIntelligenceActionCompletionType(), IntelligenceActionCompletionType::dialog);

    auto menu = std::make_shared<store::UserShortcut>();
    menu->setIntelligenceActionCompletionType(std::string("paste"));
    state.setFloatingButtonMenuShortcut(menu);
    EXPECT_EQ(state.currentlyActiveIntelligenceActionCompletionType(), IntelligenceActionCompletionType::paste);

    // A menu shortcut with an unknown text wins too, and yields nothing.
    menu->setIntelligenceActionCompletionType(std::string("popup"));
    EXPECT_FALSE(state.currentlyActiveIntelligenceActionCompletionType().has_value());
}

TEST_F(AppStateTest, TabAndHoverAreCopiedToTheMirrorAndObserversHear) {
    std::vector<std::string> changed;
    state.onChange = [&](std::string_view field) { changed.emplace_back(field); };
    state.setSelectedContentViewTab(ContentViewTab::ai);
    state.setUserIsHoveringContentView(true);
    EXPECT_EQ(mirror.selectedContentViewTab(), ContentViewTab::ai);
    EXPECT_TRUE(mirror.userIsHoveringContentView());
    EXPECT_EQ(changed, (std::vector<std::string>{"selectedContentViewTab", "userIsHoveringContentView"}));
    EXPECT_EQ(contentViewTabLabel(ContentViewTab::sendreport), "/");
    EXPECT_EQ(contentViewTabLabel(ContentViewTab::floatingButton), "FloatingButton");
}
