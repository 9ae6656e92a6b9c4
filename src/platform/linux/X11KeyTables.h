#pragma once
// The stored key vocabulary (macOS virtual key codes) against the keys of an X keyboard. Keys whose printed
// character depends on the layout follow their position, named by XKB key name; keys that mean the same on every
// layout (modifiers, editing, navigation, function keys) follow their keysym.
#include <X11/XKBlib.h>
#include <X11/Xlib.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sprelio::platform::x11 {

// XF86XK_Fn, spelled out because its header macro expands to a helper only defined in newer headers.
inline constexpr KeySym kKeysymFn = 0x100811D0;

struct KeysymKey {
    std::uint16_t code;
    char32_t character; // what the key types, 0 for none
};

// Position-bound keys by XKB key name ("AC01" is the key right of Caps Lock, whatever it prints).
const std::map<std::string_view, std::uint16_t>& positionalKeys();
// Layout-independent keys by keysym. The characters are the ones the stored vocabulary expects for these keys
// (control codes and the private-use function-key characters).
const std::map<KeySym, KeysymKey>& keysymKeys();

inline bool isModifierCode(std::uint16_t code) { return code >= 54 && code < 64; }

// The text a keysym types, for the keysyms that have a character.
std::optional<char32_t> keysymCharacter(KeySym sym);
std::string utf8(char32_t c);

struct KeyTables {
    std::map<unsigned, std::uint16_t> codeOfX11;        // X keycode -> stored code
    std::map<unsigned, char32_t> specialCharacterOfX11; // X keycode -> the vocabulary's character for it
    // The X keycodes that produce a stored code, lowest first.
    std::vector<unsigned> x11CodesFor(std::uint16_t code) const;
    bool operator==(const KeyTables&) const = default;
};

// The tables of the display's current keymap; `xkb` must hold the key names (XkbKeyNamesMask).
KeyTables buildKeyTables(Display* display, XkbDescPtr xkb);

} // namespace sprelio::platform::x11
