#include "input/KeyNames.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

#include "base/TextCase.h"
#include "input/Key.h"

namespace sprelio {

namespace {

struct NamedCode {
    std::uint16_t code;
    std::string_view name;
};

// Keys whose name does not depend on the layout. Command is the Super key, Option is Alt; Help sits where PC
// keyboards have Insert, and keypad Clear where they have Num Lock.
constexpr NamedCode kNamedCodes[] = {
    {36, "Enter"},      {48, "Tab"},          {49, "Space"},       {51, "Backspace"},   {53, "Escape"},
    {54, "Right Super"}, {55, "Left Super"},  {56, "Left Shift"},  {57, "Caps Lock"},   {58, "Left Alt"},
    {59, "Left Ctrl"},  {60, "Right Shift"},  {61, "Right Alt"},   {62, "Right Ctrl"},  {63, "Fn"},
    {122, "F1"},        {120, "F2"},          {99, "F3"},          {118, "F4"},         {96, "F5"},
    {97, "F6"},         {98, "F7"},           {100, "F8"},         {101, "F9"},         {109, "F10"},
    {103, "F11"},       {111, "F12"},         {105, "F13"},        {107, "F14"},        {113, "F15"},
    {106, "F16"},       {64, "F17"},          {79, "F18"},         {80, "F19"},         {90, "F20"},
    {114, "Insert"},    {115, "Home"},        {116, "Page Up"},    {117, "Delete"},     {119, "End"},
    {121, "Page Down"}, {123, "Left"},        {124, "Right"},      {125, "Down"},       {126, "Up"},
    {65, "KP ."},       {67, "KP *"},         {69, "KP +"},        {71, "Num Lock"},    {75, "KP /"},
    {76, "KP Enter"},   {78, "KP -"},         {81, "KP ="},        {82, "KP 0"},        {83, "KP 1"},
    {84, "KP 2"},       {85, "KP 3"},         {86, "KP 4"},        {87, "KP 5"},        {88, "KP 6"},
    {89, "KP 7"},       {91, "KP 8"},         {92, "KP 9"},
};

// The stored symbols of keys, against their names.
struct SymbolName {
    std::string_view symbol;
    std::string_view name;
};
constexpr SymbolName kModifierSymbols[] = {
    {"⌃", "Ctrl"}, {"⌥", "Alt"}, {"⇧", "Shift"}, {"⌘", "Super"}, {"🌐︎", "Fn"}, {"🌐", "Fn"},
};
constexpr SymbolName kKeySymbols[] = {
    {"↩", "Enter"}, {"⇥", "Tab"},       {"⌫", "Backspace"}, {"⎋", "Escape"}, {"⇪", "Caps Lock"},
    {"?⃝", "Insert"}, {"↖", "Home"},     {"⇞", "Page Up"},   {"⌦", "Delete"}, {"↘", "End"},
    {"⇟", "Page Down"}, {"←", "Left"},   {"→", "Right"},     {"↓", "Down"},   {"↑", "Up"},
    {"⌧", "Num Lock"}, {"⌅", "KP Enter"}, {"−", "KP -"},
};

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// "page  up" and "pageup" and "page_up" read alike.
std::string squeezed(const std::string& text) {
    std::string out;
    for (const char c : lower(text))
        if (c != ' ' && c != '_' && c != '-') out += c;
    return out;
}

std::optional<std::uint64_t> modifierFlag(const std::string& word) {
    const std::string w = squeezed(word);
    if (w == "ctrl" || w == "control") return event_flags::kControl;
    if (w == "alt" || w == "option") return event_flags::kOption;
    if (w == "shift") return event_flags::kShift;
    if (w == "super" || w == "win" || w == "meta" || w == "command" || w == "cmd") return event_flags::kCommand;
    if (w == "fn") return event_flags::kFunction;
    return std::nullopt;
}

std::optional<std::uint16_t> namedCode(const std::string& name) {
    const std::string wanted = squeezed(name);
    if (wanted == "return") return 36;
    if (wanted == "esc") return 53;
    if (wanted == "help") return 114;
    if (wanted == "del") return 117;
    if (wanted == "pgup") return 116;
    if (wanted == "pgdown" || wanted == "pgdn") return 121;
    for (const auto& entry : kNamedCodes)
        if (squeezed(std::string(entry.name)) == wanted) return entry.code;
    return std::nullopt;
}

// "Right Control", "left super": a side and any word for a modifier.
std::optional<std::uint16_t> sidedModifierCode(const std::string& text) {
    const std::string word = lower(text);
    bool right;
    std::string rest;
    if (word.rfind("right", 0) == 0) {
        right = true;
        rest = word.substr(5);
    } else if (word.rfind("left", 0) == 0) {
        right = false;
        rest = word.substr(4);
    } else {
        return std::nullopt;
    }
    const auto flag = modifierFlag(rest);
    if (!flag) return std::nullopt;
    switch (*flag) {
    case event_flags::kControl: return right ? 62 : 59;
    case event_flags::kOption: return right ? 61 : 58;
    case event_flags::kShift: return right ? 60 : 56;
    case event_flags::kCommand: return right ? 54 : 55;
    default: return std::nullopt;
    }
}

} // namespace

int linuxMouseButton(std::int64_t buttonNumber) {
    if (buttonNumber == 0) return 1;
    if (buttonNumber == 1) return 3;
    if (buttonNumber == 2) return 2;
    return static_cast<int>(buttonNumber + 5);
}

std::optional<std::int64_t> buttonNumberForLinuxMouseButton(int button) {
    if (button == 1) return 0;
    if (button == 3) return 1;
    if (button == 2) return 2;
    if (button >= 8) return button - 5;
    return std::nullopt;
}

std::string linuxModifierPrefix(std::uint64_t flags) {
    std::string out;
    if (flags & event_flags::kControl) out += "Ctrl+";
    if (flags & event_flags::kOption) out += "Alt+";
    if (flags & event_flags::kShift) out += "Shift+";
    if (flags & event_flags::kCommand) out += "Super+";
    if (flags & event_flags::kFunction) out += "Fn+";
    return out;
}

std::string linuxKeyName(std::uint16_t keyCode, const std::optional<std::string>& character) {
    for (const auto& entry : kNamedCodes)
        if (entry.code == keyCode) return std::string(entry.name);
    if (character && !character->empty()) return text::uppercased(*character);
    for (const Key key : allKeys())
        if (qwertyKeyCode(key) == keyCode)
            if (const auto typed = keyCharacter(key)) return text::uppercased(std::string(*typed));
    return "Key " + std::to_string(keyCode);
}

std::string linuxNameOfSymbolString(const std::string& symbols) {
    std::string rest = symbols;
    std::vector<std::string> parts;
    for (bool found = true; found && !rest.empty();) {
        found = false;
        for (const auto& modifier : kModifierSymbols)
            if (rest.rfind(modifier.symbol, 0) == 0) {
                parts.emplace_back(modifier.name);
                rest.erase(0, modifier.symbol.size());
                found = true;
                break;
            }
    }
    if (!rest.empty()) {
        std::string name = rest;
        for (const auto& key : kKeySymbols)
            if (rest == key.symbol) name = std::string(key.name);
        parts.push_back(name);
    }
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : "+") + part;
    return out;
}

std::string linuxShortcutName(const std::optional<std::string>& singleModifierDirection,
                              std::int64_t modifierEventKeyCode, std::int64_t mouseEventMouseButton,
                              const std::optional<std::string>& shortcutString) {
    if (mouseEventMouseButton >= 0) return "Button " + std::to_string(linuxMouseButton(mouseEventMouseButton));
    const std::string stored = shortcutString.value_or("");
    if (stored.empty()) return {};
    if (isModifierKeyCode(modifierEventKeyCode)) return linuxKeyName(static_cast<std::uint16_t>(modifierEventKeyCode));
    // A modifier alone without its key code: the direction word tells which one.
    const std::string name = linuxNameOfSymbolString(stored);
    const auto direction = singleModifierDirection ? directionFromRawValue(*singleModifierDirection) : std::nullopt;
    if (direction && (*direction == Direction::left || *direction == Direction::right) &&
        name.find('+') == std::string::npos && modifierFlag(name))
        return std::string(directionDisplayWord(*direction)) + " " + name;
    return name;
}

std::variant<KeySpec, std::string> parseLinuxKey(const std::string& input, KeyCodes& keyCodes) {
    const std::string text = trimmed(input);
    if (text.empty()) return std::string("no key given");

    // Split at "+", but a "+" that is the key itself ("Ctrl++", "KP +") stays a key.
    std::vector<std::string> parts;
    std::string current;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+' && !trimmed(current).empty() && !(lower(trimmed(current)) == "kp")) {
            parts.push_back(trimmed(current));
            current.clear();
        } else {
            current += text[i];
        }
    }
    parts.push_back(trimmed(current));
    for (const auto& part : parts)
        if (part.empty()) return "\"" + text + "\" has an empty part";

    KeySpec spec;
    if (parts.size() == 1) {
        const std::string word = lower(parts[0]);
        if (word.rfind("button", 0) == 0) {
            const std::string number = trimmed(word.substr(6));
            if (number.empty() || !std::all_of(number.begin(), number.end(), ::isdigit) || number.size() > 3)
                return "\"" + text + "\" is no mouse button (write \"Button 8\")";
            const int button = std::stoi(number);
            if (button == 1) return std::string("Button 1 is the left button, which can't be a shortcut");
            const auto buttonNumber = buttonNumberForLinuxMouseButton(button);
            if (!buttonNumber) return "Button " + number + " is the mouse wheel, which can't be a shortcut";
            spec.kind = KeySpec::Kind::mouse;
            spec.buttonNumber = *buttonNumber;
            return spec;
        }
        if (const auto code = sidedModifierCode(parts[0])) {
            spec.kind = KeySpec::Kind::modifier;
            spec.keyCode = *code;
            return spec;
        }
        if (const auto code = namedCode(parts[0]); code && isModifierKeyCode(*code)) {
            spec.kind = KeySpec::Kind::modifier;
            spec.keyCode = *code;
            return spec;
        }
        if (const auto flag = modifierFlag(parts[0]); flag && *flag != event_flags::kFunction)
            return "say which " + parts[0] + " key: \"Left " + parts[0] + "\" or \"Right " + parts[0] + "\"";
    }

    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        const auto flag = modifierFlag(parts[i]);
        if (!flag) return "\"" + parts[i] + "\" is no modifier (Ctrl, Alt, Shift, Super, Fn)";
        spec.flags |= *flag;
    }
    const std::string& keyName = parts.back();
    if (modifierFlag(keyName) || (namedCode(keyName) && isModifierKeyCode(*namedCode(keyName))))
        return "\"" + text + "\" has no key after its modifiers";
    spec.kind = KeySpec::Kind::combination;
    if (const auto code = namedCode(keyName)) {
        spec.keyCode = *code;
        spec.characters = linuxKeyName(*code);
        return spec;
    }
    const std::string typed = text::lowercased(keyName);
    for (const Key key : allKeys()) {
        const auto character = keyCharacter(key);
        if (!character || *character != typed) continue;
        spec.keyCode = keyCodes.keyCode(key);
        spec.characters = typed;
        return spec;
    }
    return "unknown key \"" + keyName + "\"";
}

} // namespace sprelio
