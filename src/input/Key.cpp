#include "input/Key.h"

#include <regex>

#include "base/TextCase.h"

namespace sprelio {

namespace {

struct KeyRow {
    Key key;
    std::string_view raw;
    std::uint16_t code;
    std::string_view character; // empty: the key types no character of its own
};

// kVK_ values. The three JIS keys without a constant of their own (@, ^, :) sit where a JIS keyboard has them,
// on the ANSI codes of [, = and '.
constexpr std::array<KeyRow, kKeyCount> kKeys = {{
    {Key::a, "a", 0, "a"},
    {Key::s, "s", 1, "s"},
    {Key::d, "d", 2, "d"},
    {Key::f, "f", 3, "f"},
    {Key::h, "h", 4, "h"},
    {Key::g, "g", 5, "g"},
    {Key::z, "z", 6, "z"},
    {Key::x, "x", 7, "x"},
    {Key::c, "c", 8, "c"},
    {Key::v, "v", 9, "v"},
    {Key::b, "b", 11, "b"},
    {Key::q, "q", 12, "q"},
    {Key::w, "w", 13, "w"},
    {Key::e, "e", 14, "e"},
    {Key::r, "r", 15, "r"},
    {Key::y, "y", 16, "y"},
    {Key::t, "t", 17, "t"},
    {Key::one, "one", 18, "1"},
    {Key::two, "two", 19, "2"},
    {Key::three, "three", 20, "3"},
    {Key::four, "four", 21, "4"},
    {Key::six, "six", 22, "6"},
    {Key::five, "five", 23, "5"},
    {Key::equal, "equal", 24, "="},
    {Key::nine, "nine", 25, "9"},
    {Key::seven, "seven", 26, "7"},
    {Key::minus, "minus", 27, "-"},
    {Key::eight, "eight", 28, "8"},
    {Key::zero, "zero", 29, "0"},
    {Key::rightBracket, "rightBracket", 30, "]"},
    {Key::o, "o", 31, "o"},
    {Key::u, "u", 32, "u"},
    {Key::leftBracket, "leftBracket", 33, "["},
    {Key::i, "i", 34, "i"},
    {Key::p, "p", 35, "p"},
    {Key::l, "l", 37, "l"},
    {Key::j, "j", 38, "j"},
    {Key::quote, "quote", 39, "'"},
    {Key::k, "k", 40, "k"},
    {Key::semicolon, "semicolon", 41, ";"},
    {Key::backslash, "backslash", 42, "\\"},
    {Key::comma, "comma", 43, ","},
    {Key::slash, "slash", 44, "/"},
    {Key::n, "n", 45, "n"},
    {Key::m, "m", 46, "m"},
    {Key::period, "period", 47, "."},
    {Key::grave, "grave", 50, "`"},
    {Key::keypadDecimal, "keypadDecimal", 65, ""},
    {Key::keypadMultiply, "keypadMultiply", 67, ""},
    {Key::keypadPlus, "keypadPlus", 69, ""},
    {Key::keypadClear, "keypadClear", 71, ""},
    {Key::keypadDivide, "keypadDivide", 75, ""},
    {Key::keypadEnter, "keypadEnter", 76, ""},
    {Key::keypadMinus, "keypadMinus", 78, ""},
    {Key::keypadEquals, "keypadEquals", 81, ""},
    {Key::keypadZero, "keypadZero", 82, ""},
    {Key::keypadOne, "keypadOne", 83, ""},
    {Key::keypadTwo, "keypadTwo", 84, ""},
    {Key::keypadThree, "keypadThree", 85, ""},
    {Key::keypadFour, "keypadFour", 86, ""},
    {Key::keypadFive, "keypadFive", 87, ""},
    {Key::keypadSix, "keypadSix", 88, ""},
    {Key::keypadSeven, "keypadSeven", 89, ""},
    {Key::keypadEight, "keypadEight", 91, ""},
    {Key::keypadNine, "keypadNine", 92, ""},
    {Key::return_, "return", 36, ""},
    {Key::tab, "tab", 48, ""},
    {Key::space, "space", 49, ""},
    {Key::delete_, "delete", 51, ""},
    {Key::escape, "escape", 53, ""},
    {Key::f17, "f17", 64, ""},
    {Key::f18, "f18", 79, ""},
    {Key::f19, "f19", 80, ""},
    {Key::f20, "f20", 90, ""},
    {Key::f5, "f5", 96, ""},
    {Key::f6, "f6", 97, ""},
    {Key::f7, "f7", 98, ""},
    {Key::f3, "f3", 99, ""},
    {Key::f8, "f8", 100, ""},
    {Key::f9, "f9", 101, ""},
    {Key::f11, "f11", 103, ""},
    {Key::f13, "f13", 105, ""},
    {Key::f16, "f16", 106, ""},
    {Key::f14, "f14", 107, ""},
    {Key::f10, "f10", 109, ""},
    {Key::f12, "f12", 111, ""},
    {Key::f15, "f15", 113, ""},
    {Key::help, "help", 114, ""},
    {Key::home, "home", 115, ""},
    {Key::pageUp, "pageUp", 116, ""},
    {Key::forwardDelete, "forwardDelete", 117, ""},
    {Key::f4, "f4", 118, ""},
    {Key::end, "end", 119, ""},
    {Key::f2, "f2", 120, ""},
    {Key::pageDown, "pageDown", 121, ""},
    {Key::f1, "f1", 122, ""},
    {Key::leftArrow, "leftArrow", 123, ""},
    {Key::rightArrow, "rightArrow", 124, ""},
    {Key::downArrow, "downArrow", 125, ""},
    {Key::upArrow, "upArrow", 126, ""},
    {Key::yen, "yen", 93, "¥"},
    {Key::underscore, "underscore", 94, "_"},
    {Key::keypadComma, "keypadComma", 95, ""},
    {Key::eisu, "eisu", 102, ""},
    {Key::kana, "kana", 104, ""},
    {Key::atSign, "atSign", 33, "@"},
    {Key::caret, "caret", 24, "^"},
    {Key::colon, "colon", 39, ":"},
    {Key::section, "section", 10, "§"},
}};

constexpr bool rowsInEnumerationOrder() {
    for (std::size_t i = 0; i < kKeys.size(); ++i)
        if (static_cast<std::size_t>(kKeys[i].key) != i) return false;
    return true;
}
static_assert(rowsInEnumerationOrder(), "the key table must follow the order of Key");

const KeyRow& rowOf(Key key) { return kKeys[static_cast<std::size_t>(key)]; }

struct KeyName {
    std::int64_t code;
    std::string_view name;
};

constexpr KeyName kKeyNames[] = {
    {36, "↩"},   {48, "⇥"},   {49, "Space"}, {51, "⌫"},   {53, "⎋"},   {54, "⌘"},   {55, "⌘"},   {56, "⇧"},
    {60, "⇧"},   {57, "⇪"},   {58, "⌥"},     {61, "⌥"},   {59, "⌃"},   {62, "⌃"},   {63, "Fn"},  {64, "F17"},
    {79, "F18"}, {80, "F19"}, {90, "F20"},   {65, "."},   {67, "*"},   {69, "+"},   {75, "/"},   {71, "⌧"},
    {76, "⌅"},   {78, "−"},   {96, "F5"},    {97, "F6"},  {98, "F7"},  {99, "F3"},  {100, "F8"}, {101, "F9"},
    {103, "F11"}, {105, "F13"}, {106, "F16"}, {107, "F14"}, {109, "F10"}, {111, "F12"}, {113, "F15"},
    {114, "?⃝"}, {115, "↖"}, {116, "⇞"},    {117, "⌦"},  {118, "F4"}, {120, "F2"}, {122, "F1"}, {119, "↘"},
    {121, "⇟"},  {123, "←"},  {124, "→"},    {125, "↓"},  {126, "↑"},  {81, "="},   {82, "0"},   {83, "1"},
    {84, "2"},   {85, "3"},   {86, "4"},     {87, "5"},   {88, "6"},   {89, "7"},   {91, "8"},   {92, "9"},
};

} // namespace

const std::array<Key, kKeyCount>& allKeys() {
    static const std::array<Key, kKeyCount> keys = [] {
        std::array<Key, kKeyCount> out{};
        for (std::size_t i = 0; i < kKeyCount; ++i) out[i] = kKeys[i].key;
        return out;
    }();
    return keys;
}

std::string_view keyRawName(Key key) { return rowOf(key).raw; }

std::optional<Key> keyFromRawName(std::string_view name) {
    for (const auto& row : kKeys)
        if (row.raw == name) return row.key;
    return std::nullopt;
}

std::uint16_t qwertyKeyCode(Key key) { return rowOf(key).code; }

std::optional<std::string_view> keyCharacter(Key key) {
    const auto& row = rowOf(key);
    if (row.character.empty()) return std::nullopt;
    return row.character;
}

std::optional<SpecialKeycode> specialKeycode(std::int64_t keyCode) {
    switch (keyCode) {
    case 999: return SpecialKeycode::none;
    case 51: return SpecialKeycode::backspace;
    case 36: return SpecialKeycode::enter;
    case 53: return SpecialKeycode::escape;
    case 48: return SpecialKeycode::tab;
    default: return std::nullopt;
    }
}

std::string_view directionRawValue(Direction direction) {
    switch (direction) {
    case Direction::left: return "left";
    case Direction::right: return "right";
    case Direction::up: return "up";
    case Direction::down: return "down";
    case Direction::none: break;
    }
    return "";
}

std::optional<Direction> directionFromRawValue(std::string_view raw) {
    for (Direction d : {Direction::none, Direction::left, Direction::right, Direction::up, Direction::down})
        if (directionRawValue(d) == raw) return d;
    return std::nullopt;
}

std::string_view directionDisplayWord(Direction direction) {
    switch (direction) {
    case Direction::left: return "Left";
    case Direction::right: return "Right";
    case Direction::up: return "Up";
    case Direction::down: return "Down";
    case Direction::none: break;
    }
    return "";
}

bool isModifierKeyCode(std::int64_t keyCode) { return keyCode >= 54 && keyCode < 64; }

Direction singleModifierDirection(std::int64_t keyCode) {
    switch (keyCode) {
    case 54: case 60: case 61: case 62: return Direction::right;
    case 55: case 56: case 57: case 58: case 59: return Direction::left;
    default: return Direction::none;
    }
}

std::string keyString(std::int64_t keyCode) {
    for (const auto& entry : kKeyNames)
        if (entry.code == keyCode) return std::string(entry.name);
    return "\"" + std::to_string(keyCode) + "\"";
}

std::string modifierString(std::uint64_t flags) {
    std::string out;
    if (flags & event_flags::kControl) out += "⌃";
    if (flags & event_flags::kOption) out += "⌥";
    if (flags & event_flags::kShift) out += "⇧";
    if (flags & event_flags::kCommand) out += "⌘";
    if (flags & event_flags::kFunction) out += "🌐︎";
    return out;
}

std::uint64_t eventFlagsFromCarbonModifiers(std::uint32_t carbonModifiers) {
    std::uint64_t flags = 0;
    if (carbonModifiers & carbon_modifiers::kCmdKey) flags |= event_flags::kCommand;
    if (carbonModifiers & carbon_modifiers::kShiftKey) flags |= event_flags::kShift;
    if (carbonModifiers & carbon_modifiers::kOptionKey) flags |= event_flags::kOption;
    if (carbonModifiers & carbon_modifiers::kControlKey) flags |= event_flags::kControl;
    return flags;
}

std::uint32_t carbonModifiersFromEventFlags(std::uint64_t flags) {
    std::uint32_t carbon = 0;
    if (flags & event_flags::kCommand) carbon |= carbon_modifiers::kCmdKey;
    if (flags & event_flags::kShift) carbon |= carbon_modifiers::kShiftKey;
    if (flags & event_flags::kOption) carbon |= carbon_modifiers::kOptionKey;
    if (flags & event_flags::kControl) carbon |= carbon_modifiers::kControlKey;
    return carbon;
}

std::string normalShortcutString(std::uint64_t flags, const std::optional<std::string>& character) {
    if (!character || character->empty()) return "";
    return modifierString(flags) + text::uppercased(*character);
}

std::string shortcutDisplayString(const std::optional<std::string>& singleModifierDirection,
                                  std::int64_t mouseEventMouseButton, const std::optional<std::string>& shortcutString) {
    std::string out;
    if (singleModifierDirection) out = text::capitalized(*singleModifierDirection) + "-";
    if (mouseEventMouseButton < 0) {
        if (!shortcutString || shortcutString->empty()) return "";
        out += *shortcutString;
    } else {
        out += text::capitalized("mouse") + " " + std::to_string(mouseEventMouseButton);
    }
    if (out.starts_with("-")) out.erase(0, 1);
    return out;
}

std::string recorderDisplayString(const std::string& text, const std::optional<RecorderEvent>& event,
                                  const std::optional<std::string>& storedDirection) {
    const auto characters = text::graphemes(text);
    if (characters.size() == 1) {
        std::string_view word;
        if (event && (event->type == RecorderEventType::flagsChanged || event->type == RecorderEventType::keyDown ||
                      event->type == RecorderEventType::keyUp)) {
            if (event->type == RecorderEventType::flagsChanged)
                word = directionDisplayWord(singleModifierDirection(event->keyCode));
        } else if (storedDirection) {
            if (auto direction = directionFromRawValue(*storedDirection)) word = directionDisplayWord(*direction);
        }
        return word.empty() ? text : std::string(word) + "-" + text;
    }
    if (text.find("mouse") != std::string::npos) return text;

    std::string joined;
    for (std::size_t i = 0; i < characters.size(); ++i) {
        if (i > 0) joined += "+";
        joined += characters[i];
    }
    if (joined.find("F+") == std::string::npos) return joined;
    static const std::regex functionKey(R"(F\+(n|\d(\+\d)?))");
    std::string out;
    auto begin = std::sregex_iterator(joined.begin(), joined.end(), functionKey);
    std::size_t last = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it) {
        out.append(joined, last, static_cast<std::size_t>(it->position()) - last);
        for (char ch : it->str())
            if (ch != '+') out += ch;
        last = static_cast<std::size_t>(it->position() + it->length());
    }
    out.append(joined, last, std::string::npos);
    return out;
}

bool isBlockedWhileRecording(std::uint64_t flags, std::int64_t keyCode) {
    struct Blocked {
        std::uint64_t flags;
        std::int64_t keyCode;
    };
    static constexpr Blocked kCombinations[] = {{event_flags::kCommand, 48}};
    for (const auto& entry : kCombinations)
        if ((flags & entry.flags) == entry.flags && keyCode == entry.keyCode) return true;
    return keyCode == 49;
}

} // namespace sprelio
