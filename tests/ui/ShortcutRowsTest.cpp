// The hotkey editor's rows and its recorder on the test platform: what a recording stores and refuses, that a
// change is live at once (the tap's keys, the combinations, the bound buttons follow), and that the keyboard is
// always given back.
#include <gtest/gtest.h>

#include "ai/IntelligenceItems.h"
#include "base/Digest.h"
#include "input/InputTestSupport.h"
#include "input/KeyShortcutRecorder.h"
#include "ui/ShortcutRows.h"

using namespace sprelio;
using namespace sprelio::inputtest;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t kAlt = event_flags::kOption;
constexpr std::uint64_t kCtrl = event_flags::kControl;
constexpr std::uint64_t kShift = event_flags::kShift;

class ShortcutRowsTest : public ::testing::Test {
public:
    void SetUp() override {
        s.keyboard.setup(); // the default set and the empty row after it
        s.refresh();
        s.tap->registerEventTap(false);
        inEditor();
    }
    // The pointer over our own window on the Settings tab: keys and buttons belong to the editor.
    void inEditor() {
        s.tp.frontmost = platform::RunningApplication{7, "com.sprelio.app", "Sprelio"};
        s.mirror.setSelectedContentViewTab(ContentViewTab::settings);
        s.mirror.setUserIsHoveringContentView(true);
    }
    // Another application in front: keys and buttons are hotkeys.
    void elsewhere() { s.tp.frontmost = platform::RunningApplication{42, "org.gnome.gedit", "gedit"}; }
    ShortcutRow rowWithKeys(const std::string& keys) {
        for (const auto& row : rows.rows())
            if (row.keys == keys) return row;
        ADD_FAILURE() << "no row with " << keys;
        return {};
    }
    ShortcutRow emptyRow() { return rows.rows().back(); }
    void record(const ShortcutRow& row) {
        recorder.startRecording(rows.shortcut(row.uuid));
        ASSERT_TRUE(recorder.isRecording());
        ASSERT_TRUE(s.input.keyboardGrabbed());
    }
    void settle() {
        s.tp.advance(20ms);
        s.tp.runUntilIdle();
    }
    std::size_t basso() const {
        std::size_t n = 0;
        for (const auto& call : s.tp.calls()) n += call == "sound:Basso";
        return n;
    }
    bool registered(std::uint16_t keyCode, std::uint64_t flags) const {
        for (const auto& combination : s.input.registeredHotKeys())
            if (combination.keyCode == keyCode && combination.flags == flags) return true;
        return false;
    }

    platform::test::RecordingLogSink log;
    InputStack s;
    KeyShortcutRecorder recorder{KeyShortcutRecorderDependencies{s.context, s.keyboard, s.hotKeys, s.tap.get(),
                                                                 &s.mouse, &s.tp, [this] { s.cache.update(s.context); }}};
    ShortcutRows rows{ShortcutRowsDependencies{s.context, s.keyboard, s.hotKeys, recorder,
                                               [] {
                                                   return std::vector<ShortcutItemChoice>{
                                                       {md5Hex("improveWriting"), "Improve writing", false},
                                                       {md5Hex("de"), "German", true}};
                                               },
                                               [this] { s.cache.update(s.context); }}};
};

TEST_F(ShortcutRowsTest, RightCtrlRecordedForDictationTakesOverFromRightAltAtOnce) {
    const auto dictation = rowWithKeys("Right Alt");
    record(dictation);
    s.input.flagsChanged(62, kNoFlags | kCtrl);
    EXPECT_EQ(recorder.displayString(), "Right Ctrl");
    s.input.flagsChanged(62, kNoFlags);
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_FALSE(s.input.keyboardGrabbed()) << "the keyboard is given back";
    EXPECT_EQ(recorder.lastOutcome(), KeyShortcutRecorder::Outcome::stored);
    EXPECT_EQ(rows.row(dictation.uuid)->keys, "Right Ctrl");
    EXPECT_EQ(*s.keyboard.keysSet(), (std::set<std::uint16_t>{62}));

    elsewhere();
    s.input.flagsChanged(62, kNoFlags | kCtrl);
    settle();
    s.input.flagsChanged(62, kNoFlags);
    settle();
    s.input.flagsChanged(61, kRightOptionDown);
    settle();
    s.input.flagsChanged(61, kNoFlags);
    settle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribe"}))
        << "right Ctrl starts, right Alt does nothing";
}

TEST_F(ShortcutRowsTest, AltShiftDRecordedForAnAIActionReplacesItsCombination) {
    const auto emoji = rowWithKeys("Alt+S");
    record(emoji);
    s.input.flagsChanged(58, kNoFlags | kAlt);
    EXPECT_EQ(recorder.displayString(), "Left Alt");
    s.input.flagsChanged(56, kNoFlags | kAlt | kShift);
    EXPECT_EQ(recorder.displayString(), "Alt+Shift+…");
    s.input.keyDown(2, kNoFlags | kAlt | kShift, std::string("d"));
    EXPECT_EQ(recorder.displayString(), "Alt+Shift+D");
    s.input.keyUp(2, kNoFlags | kAlt | kShift, std::string("d"));
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_EQ(rows.row(emoji.uuid)->keys, "Alt+Shift+D");
    EXPECT_TRUE(registered(2, kAlt | kShift));
    EXPECT_FALSE(registered(1, kAlt)) << "Alt+S is free again";
    // The remaining releases go on as ordinary key events.
    s.input.flagsChanged(56, kNoFlags | kAlt);
    s.input.flagsChanged(58, kNoFlags);

    elsewhere();
    ASSERT_TRUE(s.input.pressHotKey({2, kAlt | kShift}));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls,
              (std::vector<std::string>{"startTimer:10", "start:recordAndProcessWithAI:" + md5Hex("addEmoji")}));
}

TEST_F(ShortcutRowsTest, AMouseButtonRecordedOnTheEmptyRowStartsADictationAndIsGrabbed) {
    const auto fresh = emptyRow();
    record(fresh);
    s.input.mouseDown(3, 1.0);
    s.input.mouseUp(3, 1.1);
    s.tp.runUntilIdle();
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_EQ(rows.row(fresh.uuid)->keys, "Button 8");
    EXPECT_EQ(s.input.grabbedButtons(), (std::set<std::int64_t>{3}));
    EXPECT_TRUE(rows.rows().back().isEmpty()) << "a new empty row follows";
    EXPECT_NE(rows.rows().back().uuid, fresh.uuid);

    elsewhere();
    EXPECT_TRUE(s.input.mouseDown(3, 2.0));
    s.tp.runUntilIdle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"startTimer:10", "start:recordAndTranscribe"}));
}

TEST_F(ShortcutRowsTest, HoldModeStartsOnThePressAndStopsOnTheRelease) {
    const auto dictation = rowWithKeys("Right Alt");
    EXPECT_EQ(rows.setHold(dictation.uuid, true), std::nullopt);
    EXPECT_TRUE(rows.row(dictation.uuid)->hold);
    elsewhere();
    s.input.flagsChanged(61, kRightOptionDown);
    settle();
    s.input.flagsChanged(61, kNoFlags);
    settle();
    EXPECT_EQ(s.session.calls, (std::vector<std::string>{"start:recordAndTranscribe", "stop:recordAndTranscribe"}));
    // Only the actions that record can be held.
    const auto history = rowWithKeys("Alt+H");
    EXPECT_TRUE(rows.setHold(history.uuid, true).has_value());
    EXPECT_FALSE(rows.row(history.uuid)->hold);
}

TEST_F(ShortcutRowsTest, EscapeAndCancelEndTheRecordingWithTheKeyboardGivenBackAndNothingChanged) {
    struct Case {
        const char* name;
        std::function<void(ShortcutRowsTest&)> end;
    };
    const Case cases[] = {
        {"Escape", [](ShortcutRowsTest& t) { t.s.input.keyDown(53, kNoFlags, std::string("\x1b")); }},
        {"Escape after a modifier", [](ShortcutRowsTest& t) {
             t.s.input.flagsChanged(59, kNoFlags | kCtrl);
             t.s.input.keyDown(53, kNoFlags | kCtrl, std::string("\x1b"));
         }},
        {"focus lost", [](ShortcutRowsTest& t) { t.recorder.cancel(); }},
    };
    for (const auto& c : cases) {
        const auto dictation = rowWithKeys("Right Alt");
        record(dictation);
        c.end(*this);
        EXPECT_FALSE(recorder.isRecording()) << c.name;
        EXPECT_FALSE(s.input.keyboardGrabbed()) << c.name;
        EXPECT_EQ(recorder.lastOutcome(), KeyShortcutRecorder::Outcome::cancelled) << c.name;
        EXPECT_EQ(rows.row(dictation.uuid)->keys, "Right Alt") << c.name;
        EXPECT_EQ(*s.keyboard.keysSet(), (std::set<std::uint16_t>{61})) << c.name;
    }
}

TEST_F(ShortcutRowsTest, ARecorderThatGoesAwayWhileRecordingGivesTheKeyboardBack) {
    auto local = std::make_unique<KeyShortcutRecorder>(
        KeyShortcutRecorderDependencies{s.context, s.keyboard, s.hotKeys, s.tap.get(), &s.mouse, &s.tp, {}});
    local->startRecording(rows.shortcut(rowWithKeys("Right Alt").uuid));
    ASSERT_TRUE(s.input.keyboardGrabbed());
    local.reset();
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_FALSE(s.tap->isRecording());
    EXPECT_FALSE(s.mouse.recordMouseShortcut);
}

TEST_F(ShortcutRowsTest, ACombinationAnotherClientHoldsIsRefusedAndTheOldKeyStays) {
    s.input.refusedCombinations.push_back({2, kAlt | kShift});
    const auto emoji = rowWithKeys("Alt+S");
    record(emoji);
    s.input.flagsChanged(58, kNoFlags | kAlt);
    s.input.flagsChanged(56, kNoFlags | kAlt | kShift);
    s.input.keyDown(2, kNoFlags | kAlt | kShift, std::string("d"));
    s.input.keyUp(2, kNoFlags | kAlt | kShift, std::string("d"));
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_EQ(recorder.lastOutcome(), KeyShortcutRecorder::Outcome::takenByAnotherClient);
    EXPECT_EQ(recorder.lastMessage(), "Alt+Shift+D is taken by another application, so the shortcut keeps Alt+S.");
    EXPECT_EQ(rows.row(emoji.uuid)->keys, "Alt+S");
    EXPECT_TRUE(registered(1, kAlt)) << "Alt+S still answers";
    EXPECT_EQ(basso(), 1u);
    // The stored combination is the old one too, as the next start reads it.
    EXPECT_EQ(s.hotKeys.getShortcut(emoji.uuid.string()), (CarbonShortcut{1, 0x800}));
}

TEST_F(ShortcutRowsTest, WhatTheRecorderRefuses) {
    struct Case {
        const char* name;
        std::function<void(ShortcutRowsTest&)> keys;
        KeyShortcutRecorder::Outcome outcome;
        bool stillRecording;
    };
    using O = KeyShortcutRecorder::Outcome;
    const Case cases[] = {
        {"another row's combination",
         [](ShortcutRowsTest& t) {
             t.s.input.flagsChanged(58, kNoFlags | kAlt);
             t.s.input.keyDown(13, kNoFlags | kAlt, std::string("w"));
             t.s.input.keyUp(13, kNoFlags | kAlt, std::string("w"));
         },
         O::duplicate, false},
        {"two modifiers alone",
         [](ShortcutRowsTest& t) {
             t.s.input.flagsChanged(59, kNoFlags | kCtrl);
             t.s.input.flagsChanged(58, kNoFlags | kCtrl | kAlt);
             t.s.input.flagsChanged(58, kNoFlags | kCtrl);
         },
         O::multipleModifiers, true},
    };
    for (const auto& c : cases) {
        const auto emoji = rowWithKeys("Alt+S");
        const auto before = basso();
        record(emoji);
        c.keys(*this);
        EXPECT_EQ(recorder.lastOutcome(), c.outcome) << c.name;
        EXPECT_FALSE(recorder.lastMessage().empty()) << c.name;
        EXPECT_EQ(recorder.isRecording(), c.stillRecording) << c.name;
        EXPECT_EQ(s.input.keyboardGrabbed(), c.stillRecording) << c.name;
        EXPECT_EQ(basso(), before + 1) << c.name;
        EXPECT_EQ(rows.row(emoji.uuid)->keys, "Alt+S") << c.name;
        recorder.cancel();
        EXPECT_FALSE(s.input.keyboardGrabbed()) << c.name;
    }
    // Right Alt is taken; left Alt is another key.
    const auto fresh = emptyRow();
    record(fresh);
    s.input.flagsChanged(58, kNoFlags | kAlt);
    s.input.flagsChanged(58, kNoFlags);
    EXPECT_EQ(recorder.lastOutcome(), O::stored);
    EXPECT_EQ(rows.row(fresh.uuid)->keys, "Left Alt");
    EXPECT_EQ(*s.keyboard.keysSet(), (std::set<std::uint16_t>{58, 61}));
}

TEST_F(ShortcutRowsTest, BackspaceTakesTheKeyAwayAndTabMovesToTheNextRow) {
    const auto all = rows.rows();
    record(all[1]); // Alt+S
    s.input.keyDown(48, kNoFlags, std::string("\t"));
    ASSERT_TRUE(recorder.isRecording());
    EXPECT_EQ(recorder.recordingUuid(), all[2].uuid) << "Tab moved on without changing Alt+S";
    EXPECT_EQ(rows.row(all[1].uuid)->keys, "Alt+S");
    s.input.keyDown(51, kNoFlags, std::string("\x7f"));
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_FALSE(s.input.keyboardGrabbed());
    EXPECT_EQ(rows.row(all[2].uuid)->keys, "");
    EXPECT_FALSE(registered(1, kAlt | kShift)) << "Alt+Shift+S no longer answers";
}

TEST_F(ShortcutRowsTest, RowsChangeActionItemLanguageAndComeBackAsTheDefaultSet) {
    const auto dictation = rowWithKeys("Right Alt");
    EXPECT_TRUE(rows.setItem(dictation.uuid, md5Hex("de")).has_value()) << "plain dictation runs no item";
    EXPECT_EQ(rows.setAction(dictation.uuid, ShortcutAction::recordAndProcessWithAI), std::nullopt);
    auto row = *rows.row(dictation.uuid);
    EXPECT_EQ(row.itemId, md5Hex("improveWriting")) << "an AI action starts with an item";
    EXPECT_EQ(row.completionType, "paste");
    EXPECT_EQ(rows.setItem(dictation.uuid, md5Hex("de")), std::nullopt);
    EXPECT_EQ(rows.row(dictation.uuid)->category, "translation");
    EXPECT_EQ(rows.setLanguage(dictation.uuid, std::string("de")), std::nullopt);
    EXPECT_EQ(rows.row(dictation.uuid)->languageCode, "de");

    // The change is in the event path's copy at once.
    elsewhere();
    s.input.flagsChanged(61, kRightOptionDown);
    settle();
    EXPECT_EQ(s.session.calls.back(), "start:recordAndProcessWithAI:" + md5Hex("de"));

    // Removing a row frees its key; the default set brings everything back.
    EXPECT_EQ(rows.remove(rowWithKeys("Alt+W").uuid), std::nullopt);
    EXPECT_FALSE(registered(13, kAlt));
    EXPECT_EQ(rows.rows().size(), 13u);
    rows.reset();
    const auto restored = rows.rows();
    ASSERT_EQ(restored.size(), 14u) << "13 shortcuts and the empty row";
    EXPECT_EQ(restored[0].keys, "Right Alt");
    EXPECT_EQ(restored[0].action, ShortcutAction::recordAndTranscribe);
    EXPECT_EQ(restored[3].keys, "Alt+W");
    EXPECT_TRUE(registered(13, kAlt));
    EXPECT_TRUE(restored.back().isEmpty());
    EXPECT_EQ(s.input.registeredHotKeys().size(), 12u);
}

TEST_F(ShortcutRowsTest, KeysTypedAsTextFollowTheRecordersRules) {
    using K = KeySpec::Kind;
    // A new shortcut with its item, on a combination.
    const auto added = rows.add(ShortcutAction::copyTextAndAskAI, md5Hex("de"),
                                KeySpec{K::combination, 2, kAlt | kShift, -1, std::string("d")});
    ASSERT_TRUE(std::holds_alternative<Uuid>(added)) << std::get<std::string>(added);
    const auto row = *rows.row(std::get<Uuid>(added));
    EXPECT_EQ(row.keys, "Alt+Shift+D");
    EXPECT_EQ(row.itemId, md5Hex("de"));
    EXPECT_TRUE(registered(2, kAlt | kShift));
    EXPECT_TRUE(rows.rows().back().isEmpty());

    const auto dictation = rowWithKeys("Right Alt").uuid;
    struct Case {
        const char* name;
        KeySpec key;
        std::optional<std::string> keysAfter; // none: refused, the row keeps Right Alt
    };
    const Case cases[] = {
        {"taken combination", KeySpec{K::combination, 1, kAlt, -1, std::string("s")}, std::nullopt},
        {"Space", KeySpec{K::combination, 49, 0, -1, std::string(" ")}, std::nullopt},
        {"Escape", KeySpec{K::combination, 53, 0, -1, std::string("\x1b")}, std::nullopt},
        {"right Ctrl", KeySpec{K::modifier, 62, 0, -1, {}}, std::string("Right Ctrl")},
        {"button 9", KeySpec{K::mouse, 0, 0, 4, {}}, std::string("Button 9")},
        {"Ctrl+F5", KeySpec{K::combination, 96, kCtrl, -1, std::string("F5")}, std::string("Ctrl+F5")},
        {"back to right Alt", KeySpec{K::modifier, 61, 0, -1, {}}, std::string("Right Alt")},
    };
    for (const auto& c : cases) {
        const auto error = rows.setKey(dictation, c.key);
        EXPECT_EQ(!error, c.keysAfter.has_value()) << c.name << ": " << error.value_or("");
        EXPECT_EQ(rows.row(dictation)->keys, c.keysAfter.value_or("Right Alt")) << c.name;
        EXPECT_FALSE(s.input.keyboardGrabbed()) << c.name;
    }
    EXPECT_EQ(*s.keyboard.keysSet(), (std::set<std::uint16_t>{61}));
    EXPECT_TRUE(s.input.grabbedButtons().empty()) << "button 9 was let go with its row";
    EXPECT_FALSE(registered(96, kCtrl));
}

} // namespace
