// Keys in the names a Linux user reads and types, against the stored symbol vocabulary.
#include <gtest/gtest.h>

#include "input/KeyNames.h"

using namespace sprelio;

namespace {

struct StoredKeys {
    std::optional<std::string> direction;
    std::int64_t keyCode;
    std::int64_t button;
    std::optional<std::string> text;
    std::string shown;
};

TEST(KeyNames, StoredShortcutsShowInLinuxNames) {
    const StoredKeys rows[] = {
        {"right", 61, -1, "⌥", "Right Alt"},
        {"right", 62, -1, "⌃", "Right Ctrl"},
        {"left", 58, -1, "⌥", "Left Alt"},
        {"right", 54, -1, "⌘", "Right Super"},
        {"", 63, -1, "Fn", "Fn"},
        {std::nullopt, -1, -1, "⌥S", "Alt+S"},
        {std::nullopt, -1, -1, "⌃⇧U", "Ctrl+Shift+U"},
        {std::nullopt, -1, -1, "⌥⇧D", "Alt+Shift+D"},
        {std::nullopt, -1, -1, "⌃⌥⇧⌘F5", "Ctrl+Alt+Shift+Super+F5"},
        {std::nullopt, -1, -1, "⌘↩", "Super+Enter"},
        {std::nullopt, -1, -1, "⌃←", "Ctrl+Left"},
        {std::nullopt, 96, -1, "F5", "F5"},
        {std::nullopt, -1, 3, "Mouse 3", "Button 8"},
        {std::nullopt, -1, 2, "Mouse 2", "Button 2"},
        {std::nullopt, -1, 1, "Mouse 1", "Button 3"},
        {std::nullopt, -1, 4, "Mouse 4", "Button 9"},
        // A modifier whose key code was never stored still shows its side.
        {"right", -1, -1, "⌥", "Right Alt"},
        // The new row without a key, even with a direction left over.
        {"right", -1, -1, "", ""},
        {std::nullopt, -1, -1, std::nullopt, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(linuxShortcutName(row.direction, row.keyCode, row.button, row.text), row.shown)
            << row.text.value_or("(none)");
}

TEST(KeyNames, KeyCodesHaveTheirLinuxNames) {
    const std::pair<std::uint16_t, const char*> rows[] = {
        {61, "Right Alt"}, {58, "Left Alt"},  {62, "Right Ctrl"}, {59, "Left Ctrl"}, {60, "Right Shift"},
        {55, "Left Super"}, {57, "Caps Lock"}, {36, "Enter"},      {53, "Escape"},    {49, "Space"},
        {122, "F1"},       {64, "F17"},       {114, "Insert"},    {0, "A"},          {2, "D"},
        {18, "1"},         {82, "KP 0"},      {126, "Up"},
    };
    for (const auto& [code, name] : rows) EXPECT_EQ(linuxKeyName(code), name) << code;
    // The character of the layout wins over the QWERTY position.
    EXPECT_EQ(linuxKeyName(12, std::string("a")), "A");
}

TEST(KeyNames, MouseButtonsUseXsNumbersBothWays) {
    for (std::int64_t number = 0; number < 12; ++number)
        EXPECT_EQ(buttonNumberForLinuxMouseButton(linuxMouseButton(number)), number) << number;
    for (int wheel = 4; wheel <= 7; ++wheel) EXPECT_FALSE(buttonNumberForLinuxMouseButton(wheel)) << wheel;
    EXPECT_EQ(linuxMouseButton(3), 8);
}

struct Typed {
    const char* text;
    KeySpec::Kind kind;
    std::uint16_t keyCode;
    std::uint64_t flags;
    std::int64_t button;
};

TEST(KeyNames, TypedKeysParse) {
    QwertyKeyboardLayout layout;
    KeyCodes codes(layout);
    using K = KeySpec::Kind;
    const Typed rows[] = {
        {"Right Ctrl", K::modifier, 62, 0, -1},
        {"right control", K::modifier, 62, 0, -1},
        {"Left Alt", K::modifier, 58, 0, -1},
        {"Caps Lock", K::modifier, 57, 0, -1},
        {"Fn", K::modifier, 63, 0, -1},
        {"Alt+Shift+D", K::combination, 2, event_flags::kOption | event_flags::kShift, -1},
        {"ctrl + shift + u", K::combination, 32, event_flags::kControl | event_flags::kShift, -1},
        {"Super+F5", K::combination, 96, event_flags::kCommand, -1},
        {"Ctrl+Page Down", K::combination, 121, event_flags::kControl, -1},
        {"F5", K::combination, 96, 0, -1},
        {"Alt+1", K::combination, 18, event_flags::kOption, -1},
        {"Button 8", K::mouse, 0, 0, 3},
        {"button 2", K::mouse, 0, 0, 2},
    };
    for (const auto& row : rows) {
        const auto parsed = parseLinuxKey(row.text, codes);
        ASSERT_TRUE(std::holds_alternative<KeySpec>(parsed)) << row.text << ": " << std::get<std::string>(parsed);
        const auto& spec = std::get<KeySpec>(parsed);
        EXPECT_EQ(spec.kind, row.kind) << row.text;
        if (row.kind == K::mouse) {
            EXPECT_EQ(spec.buttonNumber, row.button) << row.text;
        } else {
            EXPECT_EQ(spec.keyCode, row.keyCode) << row.text;
            EXPECT_EQ(spec.flags, row.flags) << row.text;
        }
    }
}

TEST(KeyNames, WhatIsNoKeySaysWhy) {
    QwertyKeyboardLayout layout;
    KeyCodes codes(layout);
    const std::pair<const char*, const char*> rows[] = {
        {"", "no key"},
        {"Alt", "Left Alt"},
        {"Ctrl+Alt", "no key after"},
        {"Hyper+S", "no modifier"},
        {"Alt+Banana", "unknown key"},
        {"Button 5", "wheel"},
        {"Button 1", "left button"},
        {"Button x", "no mouse button"},
    };
    for (const auto& [text, reason] : rows) {
        const auto parsed = parseLinuxKey(text, codes);
        ASSERT_TRUE(std::holds_alternative<std::string>(parsed)) << text;
        EXPECT_NE(std::get<std::string>(parsed).find(reason), std::string::npos)
            << text << ": " << std::get<std::string>(parsed);
    }
}

} // namespace
