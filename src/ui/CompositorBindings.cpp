#include "ui/CompositorBindings.h"

#include <cctype>
#include <map>
#include <sstream>

namespace sprelio {

namespace {

std::vector<std::string> split(const std::string& keys) {
    // "Ctrl++" would be Ctrl and the plus key: a '+' right after a separator is the key itself.
    std::vector<std::string> parts;
    std::string current;
    for (char c : keys) {
        if (c == '+' && !current.empty()) {
            parts.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty()) parts.push_back(current);
    return parts;
}

std::string keyName(const std::string& key) {
    static const std::map<std::string, std::string> named = {
        {"Right Alt", "Alt_R"},     {"Left Alt", "Alt_L"},       {"Right Ctrl", "Control_R"},
        {"Left Ctrl", "Control_L"}, {"Right Shift", "Shift_R"},  {"Left Shift", "Shift_L"},
        {"Right Super", "Super_R"}, {"Left Super", "Super_L"},   {"Caps Lock", "Caps_Lock"},
        {"Enter", "Return"},        {"Tab", "Tab"},              {"Space", "space"},
        {"Backspace", "BackSpace"}, {"Escape", "Escape"},        {"Insert", "Insert"},
        {"Home", "Home"},           {"Page Up", "Prior"},        {"Delete", "Delete"},
        {"End", "End"},             {"Page Down", "Next"},        {"Left", "Left"},
        {"Right", "Right"},         {"Up", "Up"},                {"Down", "Down"},
        {",", "comma"},             {".", "period"},             {"/", "slash"},
        {";", "semicolon"},         {"'", "apostrophe"},         {"[", "bracketleft"},
        {"]", "bracketright"},      {"\\", "backslash"},         {"-", "minus"},
        {"=", "equal"},             {"`", "grave"},              {"+", "plus"}};
    if (const auto it = named.find(key); it != named.end()) return it->second;
    if (key.size() == 1 && std::isalnum(static_cast<unsigned char>(key[0])))
        return std::string(1, static_cast<char>(std::tolower(static_cast<unsigned char>(key[0]))));
    if (key.size() >= 2 && key[0] == 'F' && std::isdigit(static_cast<unsigned char>(key[1]))) return key;
    return {};
}

} // namespace

std::string swayKeyName(const std::string& keys) {
    if (keys.rfind("Button ", 0) == 0) return "--whole-window button" + keys.substr(7);
    const auto parts = split(keys);
    if (parts.empty()) return {};
    static const std::map<std::string, std::string> modifiers = {
        {"Ctrl", "Ctrl"}, {"Alt", "Mod1"}, {"Shift", "Shift"}, {"Super", "Mod4"}};
    std::string out;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        const auto it = modifiers.find(parts[i]);
        if (it == modifiers.end()) return {};
        out += it->second + "+";
    }
    const std::string key = keyName(parts.back());
    return key.empty() ? std::string() : out + key;
}

std::vector<std::string> swayBindingLines(const ShortcutRow& row) {
    if (row.isEmpty()) return {};
    const std::string key = swayKeyName(row.keys);
    if (key.empty()) return {};
    const std::string id = ShortcutRows::shortId(row.uuid);
    // sway runs a binding again while its key repeats; a held key is one press, and a tap key toggles once.
    if (row.hold)
        return {"bindsym --no-repeat " + key + " exec sprelio shortcuts press " + id,
                "bindsym --release " + key + " exec sprelio shortcuts release " + id};
    return {"bindsym --no-repeat " + key + " exec sprelio shortcuts tap " + id};
}

} // namespace sprelio
