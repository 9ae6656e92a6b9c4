#pragma once
// Keys as a Linux user reads and types them: "Right Alt", "Alt+S", "Ctrl+Shift+U", "Super+F5", "Button 8".
//
// The store and the log keep the symbol vocabulary ("⌥", "⌃⇧U", "Mouse 3"); these names are only what the views,
// the tray and the command line show and accept. Mouse buttons are named by X's numbering (8 and 9 are the side
// buttons), which is what xev and the desktop's settings show; the store keeps the event's button number.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "input/KeyCodes.h"

namespace sprelio {

// The X button a user knows for an event's button number (0 left → 1, 1 right → 3, 2 middle → 2, 3 → 8, ...).
int linuxMouseButton(std::int64_t buttonNumber);
// The event's button number for an X button; none for the wheel (4 to 7) and for numbers below 1.
std::optional<std::int64_t> buttonNumberForLinuxMouseButton(int button);

// "Ctrl+Alt+Shift+Super+" for the flags (Fn last), in the order Linux desktops write them.
std::string linuxModifierPrefix(std::uint64_t flags);
// The name of a key code: "Right Alt", "Left Ctrl", "Caps Lock", "Fn", "F5", "Enter", "Space", "A" (the letter
// of the key's QWERTY position, or of `character` when given).
std::string linuxKeyName(std::uint16_t keyCode, const std::optional<std::string>& character = std::nullopt);
// A stored key text in Linux names: "⌥⇧S" → "Alt+Shift+S", "⌃F5" → "Ctrl+F5", "↩" → "Enter".
std::string linuxNameOfSymbolString(const std::string& symbols);

// The keys of a shortcut as the views show them; empty when it has none yet.
std::string linuxShortcutName(const std::optional<std::string>& singleModifierDirection,
                              std::int64_t modifierEventKeyCode, std::int64_t mouseEventMouseButton,
                              const std::optional<std::string>& shortcutString);

// A key as typed on the command line.
struct KeySpec {
    enum class Kind {
        modifier,    // a modifier key alone: keyCode 54 to 63
        combination, // a key with or without modifiers: keyCode and flags
        mouse,       // a mouse button: buttonNumber
    };
    Kind kind = Kind::combination;
    std::uint16_t keyCode = 0;
    std::uint64_t flags = 0;
    std::int64_t buttonNumber = -1;
    // What the key types (the letter for "Alt+S"), for the text the recorder would have built.
    std::optional<std::string> characters;
};
// Parses "Right Ctrl", "Alt+Shift+D", "Ctrl+F5", "Button 8" (case and blanks around "+" do not matter). Letters
// and digits are found in the current layout through `keyCodes`. An error text for anything else.
std::variant<KeySpec, std::string> parseLinuxKey(const std::string& text, KeyCodes& keyCodes);

} // namespace sprelio
