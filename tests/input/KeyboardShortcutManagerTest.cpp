// The keyboard shortcut manager: start-up set-up, the default set, the editor's empty row, the tap-key decision
// with its two quirks, hold and tap, and the normal combinations as system hot keys.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Digest.h"
#include "InputTestSupport.h"

using namespace sprelio;
using namespace sprelio::inputtest;
using platform::GlobalInputEvent;
namespace type = platform::global_event_type;

namespace {

GlobalInputEvent keyEvent(int eventType, std::uint16_t code, std::uint64_t flags = kNoFlags) {
    GlobalInputEvent e;
    e.type = eventType;
    e.keyCode = code;
    e.flags = flags;
    return e;
}

class KeyboardShortcutManagerTest : public ::testing::Test {
protected:
    platform::test::RecordingLogSink log;
    InputStack s;
};

} // namespace

TEST_F(KeyboardShortcutManagerTest, SetupOnAnEmptyStoreCreatesTheDefaultSetAndATrailingEmptyRow) {
    int migrations = 0;
    KeyboardShortcutManager keyboard(KeyboardShortcutManagerDependencies{
        s.tp.loop(), s.context, s.settings, s.hotKeys, s.keyCodes, s.appState, &s.cache,
        [&] { ++migrations; return true; }, {}});
    keyboard.setup();
    EXPECT_EQ(migrations, 1);
    EXPECT_TRUE(log.contains("KeyboardShortcutManager.setup() - migrationsOccured: true"));
    EXPECT_TRUE(log.contains("setup() - no shortcuts configured, creating default set"));
    EXPECT_TRUE(log.contains("KeyboardShortcutManager.setup() - setup completed"));
    EXPECT_TRUE(keyboard.isSetupComplete());

    const auto all = s.shortcuts();
    ASSERT_EQ(all.size(), 14u);
    const auto& rows = defaultShortcutSet();
    ASSERT_EQ(rows.size(), 13u);

    // The rows have no order of their own; the editor lists them by creation time.
    struct Expected {
        const char* action;
        std::optional<std::string> item;
        std::optional<std::string> category;
        std::optional<std::string> completion;
        std::string shortcutString;
    };
    const std::vector<Expected> expected = {
        {"recordAndTranscribe", std::nullopt, std::nullopt, std::nullopt, "⌥"},
        {"recordAndProcessWithAI", md5Hex("addEmoji"), "action", "paste", "⌥S"},
        {"copyTextAndAskAI", md5Hex("addEmoji"), "action", "paste", "⌥⇧S"},
        {"recordAndProcessWithAI", md5Hex("improveWriting"), "action", "paste", "⌥W"},
        {"copyTextAndAskAI", md5Hex("improveWriting"), "action", "paste", "⌥⇧W"},
        {"recordAndProcessWithAI", md5Hex("lowercaseFirstChar"), "action", "paste", "⌥L"},
        {"copyTextAndAskAI", md5Hex("lowercaseAll"), "action", "paste", "⌥⇧L"},
        {"recordAndProcessWithAI", md5Hex("uppercaseAll"), "action", "paste", "⌥U"},
        {"recordAndProcessWithAI", md5Hex("uppercaseFirstChar"), "action", "paste", "⌥⇧U"},
        {"copyTextAndAskAI", md5Hex("uppercaseAll"), "action", "paste", "⌃⌥U"},
        {"recordAndProcessWithAI", md5Hex("es"), "translation", "paste", "⌥T"},
        {"copyTextAndAskAI", md5Hex("en"), "translation", "dialog", "⌥⇧T"},
        {"showHistory", std::nullopt, std::nullopt, std::nullopt, "⌥H"},
    };
    std::vector<std::shared_ptr<store::UserShortcut>> defaults(all.begin(), all.end());
    std::stable_sort(defaults.begin(), defaults.end(), [](const auto& a, const auto& b) {
        return a->shortcutString().value_or("").empty() < b->shortcutString().value_or("").empty();
    });
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(i);
        const auto& r = defaults[i];
        EXPECT_EQ(r->shortcutActionRawValue(), expected[i].action);
        EXPECT_EQ(r->intelligenceActionItemIdString(), expected[i].item);
        EXPECT_EQ(r->intelligenceActionCategoryRawValue(), expected[i].category);
        EXPECT_EQ(r->intelligenceActionCompletionType(), expected[i].completion);
        EXPECT_EQ(r->shortcutString(), expected[i].shortcutString);
        EXPECT_FALSE(r->hold());
        EXPECT_EQ(r->mouseEventMouseButton(), -1);
        ASSERT_TRUE(r->uuid());
        const auto stored = s.defaults.object("KeyboardShortcuts_" + r->uuid()->string());
        if (i == 0) {
            EXPECT_EQ(r->modifierEventKeyCode(), 61);
            EXPECT_EQ(r->singleModifierDirection(), "right");
            EXPECT_FALSE(stored);
        } else {
            EXPECT_EQ(r->modifierEventKeyCode(), -1);
            ASSERT_TRUE(stored && stored->is_string());
            const auto json = nlohmann::json::parse(stored->get<std::string>());
            EXPECT_EQ(json.size(), 2u);
            EXPECT_EQ(json.at("carbonKeyCode").get<int>(),
                      s.keyCodes.keyCode(rows[i].key->first));
            EXPECT_EQ(json.at("carbonModifiers").get<std::uint32_t>(), carbonModifiersFromEventFlags(rows[i].key->second));
        }
    }
    // Option+S is stored as Carbon key 1 with optionKey.
    const auto optionS = s.defaults.object("KeyboardShortcuts_" + defaults[1]->uuid()->string());
    EXPECT_EQ(optionS->get<std::string>(), R"({"carbonKeyCode":1,"carbonModifiers":2048})");

    // The trailing row: empty, the plain action with the actions dialog, after the highest order.
    const auto& last = all.back();
    EXPECT_TRUE(last->shortcutString().value_or("").empty());
    EXPECT_EQ(last->shortcutActionRawValue(), "recordAndTranscribe");
    EXPECT_EQ(last->intelligenceActionCategoryRawValue(), "action");
    EXPECT_EQ(last->intelligenceActionItemIdString(), md5Hex("showActionsDialog"));
    EXPECT_EQ(last->order(), 1);
    EXPECT_TRUE(log.contains("addNewShortcut() - New shortcut successfully added with order: 1"));

    // The tap holds right Option; the twelve combinations are system hot keys.
    EXPECT_EQ(keyboard.keysSet(), (std::set<std::uint16_t>{61}));
    EXPECT_EQ(s.input.registeredHotKeys().size(), 12u);
    EXPECT_EQ(s.hotKeys.registeredCount(), 12u);
}

TEST_F(KeyboardShortcutManagerTest, ASecondSetupChangesNothing) {
    s.keyboard.setup();
    const auto before = s.shortcuts().size();
    const auto hotKeyCalls = s.input.calls().size();
    log.clear();
    s.keyboard.setup();
    EXPECT_TRUE(log.contains("KeyboardShortcutManager.setup() - already completed, skipping", LogLevel::warning));
    EXPECT_EQ(s.shortcuts().size(), before);
    EXPECT_EQ(s.input.calls().size(), hotKeyCalls);
}

TEST_F(KeyboardShortcutManagerTest, OneShortcutWithoutStringCountsAsUnconfiguredButAConfiguredOneIsKept) {
    auto lone = s.context.insertNew<store::UserShortcut>();
    lone->setUuid(Uuid::random());
    lone->setShortcutActionRawValue(std::string("recordAndTranscribe"));
    s.context.save();
    s.keyboard.setup();
    EXPECT_EQ(s.shortcuts().size(), 14u);
    EXPECT_TRUE(lone->isDeleted() || lone->managedObjectContext() == nullptr);

    InputStack other;
    other.addTapShortcut(62, true);
    other.keyboard.setup();
    const auto kept = other.shortcuts();
    ASSERT_EQ(kept.size(), 2u); // the user's row and the new empty row
    EXPECT_EQ(kept.front()->modifierEventKeyCode(), 62);
    EXPECT_EQ(other.keyboard.keysSet(), (std::set<std::uint16_t>{62}));
}

TEST_F(KeyboardShortcutManagerTest, TheEmptyRowIsAddedOnlyWhenTheLastRowHasAStringOrIsForced) {
    auto first = s.addTapShortcut(61, true);
    s.keyboard.addNewShortcutIfNeeded();
    ASSERT_EQ(s.shortcuts().size(), 2u);
    s.keyboard.addNewShortcutIfNeeded();
    EXPECT_EQ(s.shortcuts().size(), 2u); // the last one is empty already
    s.keyboard.addNewShortcutIfNeeded(first);
    EXPECT_EQ(s.shortcuts().size(), 2u); // forced, but not by the last record
    const auto last = s.shortcuts().back();
    s.keyboard.addNewShortcutIfNeeded(last);
    EXPECT_EQ(s.shortcuts().size(), 3u);
    EXPECT_EQ(s.shortcuts().back()->order(), 2);
}

TEST_F(KeyboardShortcutManagerTest, KeysSetHoldsEveryTapKeyAndAnEmptySetStaysPresent) {
    EXPECT_FALSE(s.keyboard.keysSet());
    s.keyboard.updateKeysSetFromUserShortcuts();
    ASSERT_TRUE(s.keyboard.keysSet());
    EXPECT_TRUE(s.keyboard.keysSet()->empty());
    EXPECT_TRUE(log.contains("updateKeysSetFromUserShortcuts() - keysSet: []"));
    s.addTapShortcut(61, true);
    s.addTapShortcut(105, false, "recordAndTranscribe", 1);
    s.addMouseShortcut(3, false);
    s.keyboard.updateKeysSetFromUserShortcuts();
    EXPECT_EQ(s.keyboard.keysSet(), (std::set<std::uint16_t>{61, 105}));
    EXPECT_TRUE(log.contains("updateKeysSetFromUserShortcuts() - keysSet: [61, 105]"));
}

TEST_F(KeyboardShortcutManagerTest, GlobalKeyDecisionWithoutKeysSetOrCacheOrKeyEvent) {
    s.addTapShortcut(105, false);
    s.cache.update(s.context);
    // keysSet absent: nothing is ours.
    EXPECT_FALSE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105)));
    // Not a key event.
    EXPECT_FALSE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kRightMouseDown, 105)));
    EXPECT_TRUE(log.contains("handleGlobalKeyPressed() - NSEvent contains no flags or keys, skipping event",
                             LogLevel::warning));
    KeyboardShortcutManager orphan(KeyboardShortcutManagerDependencies{
        s.tp.loop(), s.context, s.settings, s.hotKeys, s.keyCodes, s.appState, nullptr, {}, {}});
    orphan.updateKeysSetFromUserShortcuts();
    EXPECT_FALSE(orphan.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105)));
    EXPECT_TRUE(log.contains("handleGlobalKeyPressed() - failed to retrieve cached user shortcuts from appDelegate",
                             LogLevel::error));
    s.tp.runUntilIdle();
    EXPECT_TRUE(s.session.calls.empty());
}

TEST_F(KeyboardShortcutManagerTest, WithAnEmptyKeysSetOnlyTheKeyUpOfTheRunningActionIsSwallowed) {
    auto f13 = s.addTapShortcut(105, true);
    s.refresh();
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105)));
    // The user takes the key away while it is held.
    f13->setModifierEventKeyCode(-1);
    s.context.save();
    s.refresh();
    ASSERT_TRUE(s.keyboard.keysSet() && s.keyboard.keysSet()->empty());
    EXPECT_FALSE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 0)));
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyUp, 105)));
    EXPECT_FALSE(s.keyboard.currentActionInitiatedWithKeyCode());
    EXPECT_FALSE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyUp, 105)));
}

TEST_F(KeyboardShortcutManagerTest, AKeyUpInKeysSetRunsTheKeyUpTwiceAndTracksTheKeyAgain) {
    s.addTapShortcut(105, true);
    s.refresh();
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105)));
    EXPECT_TRUE(s.keyboard.isKeyPressed());
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe"}));
    log.clear();
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyUp, 105)));
    EXPECT_EQ(log.count("KeyboardShortcutManager.executeActionForKeyCode() - keyCode: 105, isKeyDown: false"), 2u);
    EXPECT_EQ(s.keyboard.currentActionInitiatedWithKeyCode(), std::optional<std::uint16_t>(105));
    EXPECT_FALSE(s.keyboard.isKeyPressed());
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls,
              (std::vector<std::string>{"start:recordAndTranscribe", "stop:recordAndTranscribe",
                                        "stop:recordAndTranscribe"}));
    EXPECT_EQ(s.appState.currentlyActiveUserShortcut()->modifierEventKeyCode(), 105);
    EXPECT_EQ(s.usabilityChecks, std::vector<std::string>(3, "KeyboardShortcutManager.executeActionForKeyCode()"));
}

TEST_F(KeyboardShortcutManagerTest, FlagsDecideDownAndAModifierReleasedWhileAnotherIsHeldIsAFurtherPress) {
    s.addTapShortcut(61, true);
    s.refresh();
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kFlagsChanged, 61, kRightOptionDown)));
    EXPECT_TRUE(s.keyboard.isKeyPressed());
    // Right Option released while Shift is still down: the flags are not empty, so it reads as a press.
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kFlagsChanged, 61, 0x100 | event_flags::kShift)));
    EXPECT_TRUE(s.keyboard.isKeyPressed());
    // Only the Caps Lock state left counts as released.
    EXPECT_TRUE(s.keyboard.handleGlobalKeyPressed(keyEvent(type::kFlagsChanged, 61, 0x10100)));
    EXPECT_FALSE(s.keyboard.isKeyPressed());
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe", "start:recordAndTranscribe",
                                                         "stop:recordAndTranscribe"}));
}

TEST_F(KeyboardShortcutManagerTest, TheFirstShortcutInListOrderActsOnASharedKeyCode) {
    auto later = s.addTapShortcut(105, false, "showHistory", 5);
    auto earlier = s.addTapShortcut(105, false, "showSubstitutions", 2);
    s.refresh();
    s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"show:substitutions"}));
    EXPECT_EQ(s.appState.currentlyActiveUserShortcut(), earlier);
}

TEST_F(KeyboardShortcutManagerTest, TapModeStartsWithTheTimerAndStopsAtTheSecondPress) {
    s.settings.setTapAndRecordTimeoutMinutes(3);
    s.addTapShortcut(105, false, "recordAndProcessWithAI")->setIntelligenceActionItemIdString(std::string("id"));
    s.context.save();
    s.refresh();
    s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105));
    s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyUp, 105));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"startTimer:3", "start:recordAndProcessWithAI:id"}));
    s.keyboard.handleGlobalKeyPressed(keyEvent(type::kKeyDown, 105));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls,
              (std::vector<std::string>{"startTimer:3", "start:recordAndProcessWithAI:id",
                                        "stopTimer:recordAndProcessWithAI:} else {",
                                        "stop:recordAndProcessWithAI:id"}));
}

TEST_F(KeyboardShortcutManagerTest, ActionsOfEveryKindAndAnUnknownAction) {
    FakeSession& session = s.session;
    auto make = [&](const std::string& action) {
        auto sc = std::make_shared<store::UserShortcut>();
        sc->setShortcutActionRawValue(action);
        sc->setIntelligenceActionItemIdString(std::string("item"));
        return sc;
    };
    for (const char* a : {"showHistory", "showSubstitutions", "showIntelligence", "showFileToText", "transcribeLast",
                          "copyTextAndAskAI", "continuousVoiceToText"}) {
        s.actions.keyDownAction(make(a));
        s.actions.keyUpAction(make(a));
    }
    EXPECT_EQ(session.calls, (std::vector<std::string>{"show:history", "show:substitutions", "show:ai", "show:files",
                                                       "transcribeLast", "copyTextAndAskAI:item",
                                                       "continuousVoiceToText"}));
    session.calls.clear();
    s.actions.keyDownAction(make("dance"));
    EXPECT_TRUE(log.contains("UserShortcut.keyDownAction: no ShortcutAction for shortcutActionRawValue: dance",
                             LogLevel::error));
    // Only recordAndProcessWithAI passes its item; a tap with no delegate is refused with a log line.
    s.actions.keyDownAction(make("recordAndTranscribeToCaps"));
    session.status.reset();
    s.actions.keyDownAction(make("recordAndTranscribe"));
    EXPECT_TRUE(log.contains("handleRecording() - appDelegate is nil", LogLevel::error));
    EXPECT_EQ(session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribeToCaps"}));
}

TEST_F(KeyboardShortcutManagerTest, ANormalCombinationFiresThroughItsHotKey) {
    s.keyboard.setup();
    const platform::KeyCombination optionS{1, event_flags::kOption};
    const platform::KeyCombination optionH{4, event_flags::kOption};
    ASSERT_TRUE(s.input.pressHotKey(optionS));
    ASSERT_TRUE(s.input.releaseHotKey(optionS));
    ASSERT_TRUE(s.input.pressHotKey(optionH));
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndProcessWithAI:" +
                                                                              md5Hex("addEmoji"),
                                                         "show:history"}));
    // Reconfiguring replaces the handlers instead of adding a second set.
    s.session.calls.clear();
    s.session.status = AppActivity::idle;
    s.keyboard.configureKeyboardShortcuts();
    ASSERT_TRUE(s.input.pressHotKey(optionH));
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"show:history"}));
    EXPECT_EQ(s.input.registeredHotKeys().size(), 12u);
}

TEST_F(KeyboardShortcutManagerTest, UnregisteringAShortcutFreesItsKeyAndItsHotKey) {
    s.keyboard.setup();
    auto rows = s.shortcuts();
    auto rightOption = *std::find_if(rows.begin(), rows.end(), [](auto& r) { return r->modifierEventKeyCode() == 61; });
    s.keyboard.unregisterKeysForShortcut(rightOption);
    EXPECT_EQ(s.keyboard.keysSet(), (std::set<std::uint16_t>{}));
    auto optionS = *std::find_if(rows.begin(), rows.end(), [](auto& r) { return r->shortcutString() == "⌥S"; });
    const std::string key = "KeyboardShortcuts_" + optionS->uuid()->string();
    ASSERT_TRUE(s.defaults.object(key));
    s.keyboard.unregisterKeysForShortcut(optionS);
    EXPECT_FALSE(s.defaults.object(key));
    EXPECT_FALSE(s.input.pressHotKey({1, event_flags::kOption}));
    EXPECT_EQ(s.input.registeredHotKeys().size(), 11u);
}

TEST_F(KeyboardShortcutManagerTest, MissingShortcutStringsAreFilledFromTheStoredCombination) {
    auto row = s.context.insertNew<store::UserShortcut>();
    row->setUuid(Uuid::random());
    row->setShortcutActionRawValue(std::string("showHistory"));
    row->setModifierEventKeyCode(-1);
    row->setMouseEventMouseButton(-1);
    s.context.save();
    s.defaults.set("KeyboardShortcuts_" + row->uuid()->string(),
                   CarbonShortcut::fromEvent(17, event_flags::kControl | event_flags::kCommand).jsonText());
    s.keyboard.addMissingShortcutStringsToKeyboardShortcutsShortcuts();
    EXPECT_EQ(row->shortcutString(), "⌃⌘T");
    EXPECT_FALSE(row->hasChanges());
}

TEST_F(KeyboardShortcutManagerTest, TheRecorderStoresAFreeKeyAndRefusesUsedAndBlockedOnes) {
    auto used = s.addTapShortcut(61, true);
    auto target = s.addTapShortcut(-1, false, "recordAndTranscribe", 1);
    // Not recording: nothing happens.
    s.keyboard.handleLocalKeyPressed(keyEvent(type::kKeyDown, 105));
    EXPECT_EQ(target->modifierEventKeyCode(), -1);

    s.keyboard.recordNextModifier = true;
    s.keyboard.recordNextModifierEditingUserShortcut = target;
    s.keyboard.handleLocalKeyPressed(keyEvent(type::kFlagsChanged, 61, kRightOptionDown));
    EXPECT_TRUE(log.contains("handleLocalKeyPressed() - event.keyCode is already in use, will not be stored!"));
    EXPECT_TRUE(s.keyboard.recordNextModifier);

    s.keyboard.handleLocalKeyPressed(keyEvent(type::kKeyDown, 49));
    EXPECT_TRUE(log.contains("handleLocalKeyPressed() - blocked keyCode: (49), SKIPPING"));
    EXPECT_FALSE(s.keyboard.recordNextModifier);
    EXPECT_FALSE(s.keyboard.recordNextModifierEditingUserShortcut);

    s.keyboard.recordNextModifier = true;
    s.keyboard.recordNextModifierEditingUserShortcut = target;
    target->setMouseEventMouseButton(3);
    const auto returned = s.keyboard.handleLocalKeyPressed(keyEvent(type::kFlagsChanged, 62, kNoFlags | 0x40000));
    EXPECT_EQ(returned.keyCode, 62);
    EXPECT_EQ(target->modifierEventKeyCode(), 62);
    EXPECT_EQ(target->mouseEventMouseButton(), -1);
    EXPECT_FALSE(target->hasChanges());
    EXPECT_EQ(s.keyboard.keysSet(), (std::set<std::uint16_t>{61, 62}));
    EXPECT_TRUE(log.contains("handleLocalKeyPressed() - set keyCode 62 as recording key!"));
    (void)used;
}

TEST_F(KeyboardShortcutManagerTest, HotKeyLayerStoresJsonAndReportsARefusedCombinationByName) {
    s.input.refusedCombinations.push_back({1, event_flags::kOption});
    s.hotKeys.setShortcut(CarbonShortcut{1, 0x800}, "NAME");
    EXPECT_EQ(s.defaults.object("KeyboardShortcuts_NAME")->get<std::string>(),
              R"({"carbonKeyCode":1,"carbonModifiers":2048})");
    EXPECT_FALSE(s.hotKeys.isRegistered("NAME"));
    EXPECT_TRUE(log.containsPrefix("KeyboardShortcuts.register() - unable to register hot key ⌥\"1\" for NAME: "));
    EXPECT_EQ(s.hotKeys.getShortcut("NAME"), (CarbonShortcut{1, 0x800}));

    s.defaults.set("KeyboardShortcuts_BAD", "{not json");
    EXPECT_FALSE(s.hotKeys.getShortcut("BAD"));
    EXPECT_TRUE(log.contains("KeyboardShortcuts.getShortcut() - stored value of \"KeyboardShortcuts_BAD\" is not a "
                             "shortcut, ignoring it",
                             LogLevel::error));

    // disable keeps the stored value, reset removes it.
    int pressed = 0;
    s.hotKeys.setShortcut(CarbonShortcut{4, 0x100}, "CMD_H");
    s.hotKeys.onKeyDown("CMD_H", [&] { ++pressed; });
    EXPECT_TRUE(s.input.pressHotKey({4, event_flags::kCommand}));
    s.hotKeys.disable({"CMD_H"});
    EXPECT_FALSE(s.input.pressHotKey({4, event_flags::kCommand}));
    EXPECT_TRUE(s.defaults.object("KeyboardShortcuts_CMD_H"));
    s.hotKeys.reset({"CMD_H"});
    EXPECT_FALSE(s.defaults.object("KeyboardShortcuts_CMD_H"));
    EXPECT_EQ(pressed, 1);
}

// Found by fuzz_stored_texts: a stored key code no key can have ended the program at start-up. Damage in the
// store costs that shortcut its key, never the others theirs.
TEST_F(KeyboardShortcutManagerTest, AStoredKeyCodeNoKeyCanHaveLeavesThatShortcutOutAndTheOthersWork) {
    for (const int damaged : {-7, -32768}) {
        SCOPED_TRACE(damaged);
        InputStack stack;
        stack.addTapShortcut(61, true);
        auto bad = stack.addTapShortcut(105, false, "recordAndTranscribe", 1);
        bad->setModifierEventKeyCode(damaged);
        stack.context.save();
        stack.keyboard.setup();
        EXPECT_EQ(stack.keyboard.keysSet(), (std::set<std::uint16_t>{61}));
    }
}
