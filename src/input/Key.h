#pragma once
// The vocabulary of global input: logical keys, key codes and their names, modifier keys that are hotkeys on
// their own, directions, and the text forms of a shortcut.
//
// Key codes are macOS virtual key codes (the kVK_ values) and modifier flags are CGEventFlags values on every
// platform: they are what the store and the settings file hold, and the platform adapters translate into them.
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sprelio {

// Logical keys, in their fixed order. `return_` and `delete_` carry a trailing underscore only because the plain
// words are reserved in C++; their raw names are "return" and "delete".
enum class Key : std::uint8_t {
    a, s, d, f, h, g, z, x, c, v, b, q, w, e, r, y, t,
    one, two, three, four, six, five, equal, nine, seven, minus, eight, zero,
    rightBracket, o, u, leftBracket, i, p, l, j, quote, k, semicolon, backslash, comma, slash, n, m, period, grave,
    keypadDecimal, keypadMultiply, keypadPlus, keypadClear, keypadDivide, keypadEnter, keypadMinus, keypadEquals,
    keypadZero, keypadOne, keypadTwo, keypadThree, keypadFour, keypadFive, keypadSix, keypadSeven, keypadEight,
    keypadNine,
    return_, tab, space, delete_, escape,
    f17, f18, f19, f20, f5, f6, f7, f3, f8, f9, f11, f13, f16, f14, f10, f12, f15,
    help, home, pageUp, forwardDelete, f4, end, f2, pageDown, f1,
    leftArrow, rightArrow, downArrow, upArrow,
    yen, underscore, keypadComma, eisu, kana, atSign, caret, colon, section,
};

inline constexpr std::size_t kKeyCount = 109;
// Every key, in the order of the enumeration.
const std::array<Key, kKeyCount>& allKeys();

std::string_view keyRawName(Key key);
std::optional<Key> keyFromRawName(std::string_view name);
// The key code of the key on a US QWERTY keyboard (ANSI position; JIS and ISO keys at their own codes), used when
// the current layout gives no mapping.
std::uint16_t qwertyKeyCode(Key key);
// The character the key types without modifiers, for the keys that type one ("a", "1", "=", "¥", "@"); none for
// keypad, function, editing and navigation keys, which keep their code in every layout.
std::optional<std::string_view> keyCharacter(Key key);

// Modifier flags of events (CGEventFlags values).
namespace event_flags {
inline constexpr std::uint64_t kControl = 0x40000;
inline constexpr std::uint64_t kOption = 0x80000;
inline constexpr std::uint64_t kShift = 0x20000;
inline constexpr std::uint64_t kCommand = 0x100000;
inline constexpr std::uint64_t kFunction = 0x800000;
} // namespace event_flags

// Key codes that have a meaning inside the shortcut recorder.
enum class SpecialKeycode : std::uint16_t {
    none = 999,
    backspace = 51,
    enter = 36,
    escape = 53,
    tab = 48,
};
std::optional<SpecialKeycode> specialKeycode(std::int64_t keyCode);

// Direction of a modifier key. `none` has the raw string "" (Fn is stored with the empty word).
enum class Direction { none, left, right, up, down };
std::string_view directionRawValue(Direction direction);
std::optional<Direction> directionFromRawValue(std::string_view raw);
// "Left", "Right", "Up", "Down"; empty for none.
std::string_view directionDisplayWord(Direction direction);

// Key codes 54 to 63: the keys that may be a hotkey on their own. 64 (F17) is not one.
bool isModifierKeyCode(std::int64_t keyCode);
// The direction stored for a modifier key code; none for Fn and for any code outside the modifier range.
Direction singleModifierDirection(std::int64_t keyCode);

// The name of a key code ("⌥", "F5", "Space"), else the code in double quotes ("\"12\""): a caller that sees the
// quotes knows the name only holds the code and can prefer the typed character.
std::string keyString(std::int64_t keyCode);
// "⌃", "⌥", "⇧", "⌘" in that order, then "🌐︎" for the Function flag.
std::string modifierString(std::uint64_t flags);

// Normal shortcuts in the settings file use Carbon's modifier mask.
namespace carbon_modifiers {
inline constexpr std::uint32_t kCmdKey = 0x100;
inline constexpr std::uint32_t kShiftKey = 0x200;
inline constexpr std::uint32_t kOptionKey = 0x800;
inline constexpr std::uint32_t kControlKey = 0x1000;
} // namespace carbon_modifiers
std::uint64_t eventFlagsFromCarbonModifiers(std::uint32_t carbonModifiers);
std::uint32_t carbonModifiersFromEventFlags(std::uint64_t flags);

// The `shortcutString` of a normal shortcut: the modifiers, then the key's character in the current layout in
// upper case ("⌥S"). Without a character the whole string is empty.
std::string normalShortcutString(std::uint64_t flags, const std::optional<std::string>& character);

// The form shown in menus and lists: "Right-⌥", "⌥S", "Mouse 3". Empty when a key shortcut has no string yet.
std::string shortcutDisplayString(const std::optional<std::string>& singleModifierDirection,
                                  std::int64_t mouseEventMouseButton, const std::optional<std::string>& shortcutString);

// The event the recorder saw last, for its display form.
enum class RecorderEventType { flagsChanged, keyDown, keyUp, other };
struct RecorderEvent {
    RecorderEventType type = RecorderEventType::other;
    std::int64_t keyCode = -1;
};
// The string being recorded as the recorder shows it: "Right-⌥", "⌃+⌘+A", "F12", "Fn".
std::string recorderDisplayString(const std::string& text, const std::optional<RecorderEvent>& event,
                                  const std::optional<std::string>& storedDirection);

// Keys the recorder refuses: Command+Tab, and Space alone or with anything.
bool isBlockedWhileRecording(std::uint64_t flags, std::int64_t keyCode);

} // namespace sprelio
