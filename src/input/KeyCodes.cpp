#include "input/KeyCodes.h"

#include <array>

#include "base/TextCase.h"

namespace sprelio {

namespace {

// Unshifted characters of the US layout by virtual key code; empty where the key types none.
constexpr std::array<std::string_view, 51> kQwerty = {
    "a", "s", "d", "f", "h", "g", "z", "x", "c", "v", "",  "b", "q", "w", "e", "r", "y",
    "t", "1", "2", "3", "4", "6", "5", "=", "9", "7", "-", "8", "0", "]", "o", "u", "[",
    "i", "p", "",  "l", "j", "'", "k", ";", "\\", ",", "/", "n", "m", ".", "",  "",  "`",
};

bool isKeypadCode(std::uint16_t code) {
    switch (code) {
    case 65: case 67: case 69: case 71: case 75: case 76: case 78: case 81: case 82: case 83: case 84: case 85:
    case 86: case 87: case 88: case 89: case 91: case 92: case 95:
        return true;
    default:
        return false;
    }
}

// The fallback layout is a member before the instance, so that the instance, which talks to its layout as it goes,
// is destroyed first at the end of the process.
struct SharedKeyCodes {
    QwertyKeyboardLayout qwerty;
    std::unique_ptr<KeyCodes> instance;
};

SharedKeyCodes& sharedKeyCodes() {
    static SharedKeyCodes shared;
    return shared;
}

std::unique_ptr<KeyCodes>& sharedInstance() { return sharedKeyCodes().instance; }

} // namespace

std::optional<std::string> QwertyKeyboardLayout::character(std::uint16_t keyCode) const {
    if (keyCode >= kQwerty.size() || kQwerty[keyCode].empty()) return std::nullopt;
    return std::string(kQwerty[keyCode]);
}

KeyCodes::KeyCodes(platform::KeyboardLayout& layout) : layout_(layout) {
    layout_.setLayoutChangedHandler([this] { layoutChanged(); });
}

KeyCodes::~KeyCodes() { layout_.setLayoutChangedHandler({}); }

const KeyCodes::Table& KeyCodes::currentTable() {
    const std::string id = layout_.currentLayoutIdentifier();
    auto found = tables_.find(id);
    if (found != tables_.end()) return found->second;
    Table table;
    // The lowest code wins when two keys type the same character; the keypad never stands in for the main block.
    for (std::uint16_t code = 0; code < 128; ++code) {
        if (isKeypadCode(code)) continue;
        auto ch = layout_.character(code);
        if (!ch || ch->empty()) continue;
        table.emplace(text::lowercased(*ch), code);
    }
    return tables_.emplace(id, std::move(table)).first->second;
}

std::uint16_t KeyCodes::keyCode(Key key) {
    auto ch = keyCharacter(key);
    if (!ch) return qwertyKeyCode(key);
    const Table& table = currentTable();
    auto found = table.find(std::string(*ch));
    return found != table.end() ? found->second : qwertyKeyCode(key);
}

std::optional<std::string> KeyCodes::character(std::uint16_t keyCode) const { return layout_.character(keyCode); }

void KeyCodes::layoutChanged() { tables_.clear(); }

KeyCodes& KeyCodes::shared() {
    auto& instance = sharedInstance();
    if (!instance) instance = std::make_unique<KeyCodes>(sharedKeyCodes().qwerty);
    return *instance;
}

void KeyCodes::installQwerty() { install(sharedKeyCodes().qwerty); }

void KeyCodes::install(platform::KeyboardLayout& layout) {
    auto& instance = sharedInstance();
    instance.reset();
    instance = std::make_unique<KeyCodes>(layout);
}

} // namespace sprelio
