// The key vocabulary: names, directions, text forms and what the recorder refuses.
#include <gtest/gtest.h>

#include <set>

#include "input/Key.h"
#include "input/KeyCodes.h"

using namespace sprelio;

TEST(KeyVocabulary, EveryKeyHasADistinctNameThatRoundTripsAndAFixedCode) {
    ASSERT_EQ(allKeys().size(), 109u);
    std::set<std::string_view> names;
    for (Key key : allKeys()) {
        EXPECT_TRUE(names.insert(keyRawName(key)).second) << keyRawName(key);
        EXPECT_EQ(keyFromRawName(keyRawName(key)), key);
        EXPECT_LT(qwertyKeyCode(key), 127) << keyRawName(key);
    }
    EXPECT_EQ(keyFromRawName("nope"), std::nullopt);
    EXPECT_EQ(keyRawName(Key::return_), "return");
    EXPECT_EQ(keyRawName(Key::delete_), "delete");
    EXPECT_EQ(qwertyKeyCode(Key::a), 0);
    EXPECT_EQ(qwertyKeyCode(Key::v), 9);
    EXPECT_EQ(qwertyKeyCode(Key::return_), 36);
    EXPECT_EQ(qwertyKeyCode(Key::f1), 122);
    EXPECT_EQ(qwertyKeyCode(Key::keypadNine), 92);
    EXPECT_EQ(qwertyKeyCode(Key::upArrow), 126);
    EXPECT_EQ(qwertyKeyCode(Key::section), 10);
}

TEST(KeyVocabulary, KeyStringNamesKnownCodesAndQuotesOthers) {
    EXPECT_EQ(keyString(12), "\"12\"");
    EXPECT_EQ(keyString(63), "Fn");
    EXPECT_EQ(keyString(61), "⌥");
    EXPECT_EQ(keyString(54), "⌘");
    EXPECT_EQ(keyString(49), "Space");
    EXPECT_EQ(keyString(78), "−");
    EXPECT_EQ(keyString(82), "0");
    EXPECT_EQ(keyString(89), "7");
    EXPECT_EQ(keyString(91), "8");
    EXPECT_EQ(keyString(90), "F20");
    EXPECT_EQ(keyString(114), "?⃝");
    EXPECT_EQ(keyString(-1), "\"-1\"");
}

TEST(KeyVocabulary, ModifierRangeDirectionsAndSpecialKeys) {
    EXPECT_FALSE(isModifierKeyCode(53));
    EXPECT_TRUE(isModifierKeyCode(54));
    EXPECT_TRUE(isModifierKeyCode(63));
    EXPECT_FALSE(isModifierKeyCode(64)); // F17
    EXPECT_EQ(singleModifierDirection(61), Direction::right);
    EXPECT_EQ(singleModifierDirection(57), Direction::left);
    EXPECT_EQ(singleModifierDirection(63), Direction::none);
    EXPECT_EQ(singleModifierDirection(0), Direction::none);
    EXPECT_EQ(directionRawValue(singleModifierDirection(63)), "");
    for (Direction d : {Direction::none, Direction::left, Direction::right, Direction::up, Direction::down})
        EXPECT_EQ(directionFromRawValue(directionRawValue(d)), d);
    EXPECT_EQ(directionFromRawValue("sideways"), std::nullopt);

    EXPECT_EQ(specialKeycode(999), SpecialKeycode::none);
    EXPECT_EQ(specialKeycode(51), SpecialKeycode::backspace);
    EXPECT_EQ(specialKeycode(36), SpecialKeycode::enter);
    EXPECT_EQ(specialKeycode(53), SpecialKeycode::escape);
    EXPECT_EQ(specialKeycode(48), SpecialKeycode::tab);
    EXPECT_EQ(specialKeycode(49), std::nullopt);
}

TEST(KeyVocabulary, ModifierStringOrderAndCarbonMasks) {
    using namespace event_flags;
    EXPECT_EQ(modifierString(kCommand | kShift | kOption | kControl | kFunction), "⌃⌥⇧⌘🌐︎");
    EXPECT_EQ(modifierString(kCommand | kControl), "⌃⌘");
    EXPECT_EQ(modifierString(0), "");
    for (std::uint64_t flags : {kCommand, kShift | kOption, kControl | kCommand | kShift | kOption})
        EXPECT_EQ(eventFlagsFromCarbonModifiers(carbonModifiersFromEventFlags(flags)), flags);
    EXPECT_EQ(carbonModifiersFromEventFlags(kCommand | kOption), 0x900u);
}

TEST(ShortcutForms, NormalAndDisplayForms) {
    EXPECT_EQ(normalShortcutString(event_flags::kOption, std::string("s")), "⌥S");
    EXPECT_EQ(normalShortcutString(event_flags::kOption, std::string("ß")), "⌥SS");
    EXPECT_EQ(normalShortcutString(event_flags::kOption, std::nullopt), "");

    EXPECT_EQ(shortcutDisplayString(std::string("right"), -1, std::string("⌥")), "Right-⌥");
    EXPECT_EQ(shortcutDisplayString(std::string(""), -1, std::string("Fn")), "Fn");
    EXPECT_EQ(shortcutDisplayString(std::nullopt, -1, std::string("⌥S")), "⌥S");
    EXPECT_EQ(shortcutDisplayString(std::nullopt, 3, std::nullopt), "Mouse 3");
    EXPECT_EQ(shortcutDisplayString(std::string("right"), -1, std::string("")), "");
    EXPECT_EQ(shortcutDisplayString(std::string("left"), -1, std::nullopt), "");
}

TEST(ShortcutForms, RecorderDisplayForm) {
    const RecorderEvent rightOption{RecorderEventType::flagsChanged, 61};
    EXPECT_EQ(recorderDisplayString("⌥", rightOption, std::nullopt), "Right-⌥");
    EXPECT_EQ(recorderDisplayString("A", RecorderEvent{RecorderEventType::keyDown, 0}, std::string("left")), "A");
    EXPECT_EQ(recorderDisplayString("⌃", std::nullopt, std::string("left")), "Left-⌃");
    EXPECT_EQ(recorderDisplayString("⌃", RecorderEvent{RecorderEventType::other, 0}, std::nullopt), "⌃");
    EXPECT_EQ(recorderDisplayString("🌐︎", RecorderEvent{RecorderEventType::flagsChanged, 63}, std::nullopt), "🌐︎");
    EXPECT_EQ(recorderDisplayString("mouse 4", std::nullopt, std::nullopt), "mouse 4");
    EXPECT_EQ(recorderDisplayString("⌃⌘A", std::nullopt, std::nullopt), "⌃+⌘+A");
    EXPECT_EQ(recorderDisplayString("Fn", std::nullopt, std::nullopt), "Fn");
    EXPECT_EQ(recorderDisplayString("⌥F12", std::nullopt, std::nullopt), "⌥+F12");
    EXPECT_EQ(recorderDisplayString("⌘F5", std::nullopt, std::nullopt), "⌘+F5");
}

TEST(ShortcutForms, BlockedWhileRecording) {
    using namespace event_flags;
    EXPECT_TRUE(isBlockedWhileRecording(kCommand, 48));
    EXPECT_TRUE(isBlockedWhileRecording(kCommand | kShift, 48));
    EXPECT_FALSE(isBlockedWhileRecording(kOption, 48));
    EXPECT_TRUE(isBlockedWhileRecording(0, 49));
    EXPECT_TRUE(isBlockedWhileRecording(kControl | kOption, 49));
    EXPECT_FALSE(isBlockedWhileRecording(kCommand, 0));
}

namespace {

// A German layout: Y and Z swapped, "ß" on the minus key, and no key that types "[".
class GermanLayout final : public platform::KeyboardLayout {
public:
    std::string currentLayoutIdentifier() const override { return german ? "de" : "us"; }
    std::string currentLayoutLocalizedName() const override { return german ? "German" : "English (US)"; }
    std::optional<std::string> character(std::uint16_t keyCode) const override {
        if (!german) return qwerty.character(keyCode);
        if (keyCode == 16) return "z";
        if (keyCode == 6) return "y";
        if (keyCode == 27) return "ß";
        if (keyCode == 33) return "ü";
        return qwerty.character(keyCode);
    }
    void setLayoutChangedHandler(std::function<void()> h) override { handler = std::move(h); }
    void switchTo(bool toGerman) {
        german = toGerman;
        if (handler) handler();
    }
    bool german = false;
    std::function<void()> handler;
    QwertyKeyboardLayout qwerty;
};

} // namespace

TEST(KeyCodesForLayout, FollowsTheLayoutAndFallsBackToQwerty) {
    GermanLayout layout;
    KeyCodes codes(layout);
    EXPECT_EQ(codes.keyCode(Key::z), 6);
    EXPECT_EQ(codes.keyCode(Key::v), 9);
    EXPECT_EQ(codes.character(6), "z");
    ASSERT_TRUE(layout.handler);

    layout.switchTo(true);
    EXPECT_EQ(codes.cachedLayoutCount(), 0u);
    EXPECT_EQ(codes.keyCode(Key::z), 16);
    EXPECT_EQ(codes.keyCode(Key::y), 6);
    EXPECT_EQ(codes.keyCode(Key::leftBracket), 33); // no key types "[": the QWERTY position
    EXPECT_EQ(codes.keyCode(Key::f5), 96);
    EXPECT_EQ(codes.keyCode(Key::keypadOne), 83);
    EXPECT_EQ(codes.character(16), "z");
    EXPECT_EQ(codes.cachedLayoutCount(), 1u);

    layout.switchTo(false);
    EXPECT_EQ(codes.keyCode(Key::z), 6);
}

TEST(KeyCodesForLayout, SharedInstanceIsQwertyUntilInstalled) {
    EXPECT_EQ(KeyCodes::shared().keyCode(Key::v), 9);
    EXPECT_EQ(KeyCodes::shared().character(0), "a");
    GermanLayout layout;
    layout.german = true;
    KeyCodes::install(layout);
    EXPECT_EQ(KeyCodes::shared().keyCode(Key::z), 16);
    KeyCodes::installQwerty(); // the German layout goes out of scope with this test
    EXPECT_EQ(KeyCodes::shared().keyCode(Key::z), 6);
}
