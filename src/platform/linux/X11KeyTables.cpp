#include "platform/linux/X11KeyTables.h"

#include <X11/keysym.h>
#include <xkbcommon/xkbcommon.h>

#include <cstring>

namespace sprelio::platform::x11 {

const std::map<std::string_view, std::uint16_t>& positionalKeys() {
    static const std::map<std::string_view, std::uint16_t> table = {
        {"TLDE", 50}, {"AE01", 18}, {"AE02", 19}, {"AE03", 20}, {"AE04", 21}, {"AE05", 23}, {"AE06", 22},
        {"AE07", 26}, {"AE08", 28}, {"AE09", 25}, {"AE10", 29}, {"AE11", 27}, {"AE12", 24}, {"AE13", 93},
        {"AD01", 12}, {"AD02", 13}, {"AD03", 14}, {"AD04", 15}, {"AD05", 17}, {"AD06", 16}, {"AD07", 32},
        {"AD08", 34}, {"AD09", 31}, {"AD10", 35}, {"AD11", 33}, {"AD12", 30}, {"AC01", 0},  {"AC02", 1},
        {"AC03", 2},  {"AC04", 3},  {"AC05", 5},  {"AC06", 4},  {"AC07", 38}, {"AC08", 40}, {"AC09", 37},
        {"AC10", 41}, {"AC11", 39}, {"AC12", 42}, {"BKSL", 42}, {"AB01", 6},  {"AB02", 7},  {"AB03", 8},
        {"AB04", 9},  {"AB05", 11}, {"AB06", 45}, {"AB07", 46}, {"AB08", 43}, {"AB09", 47}, {"AB10", 44},
        {"AB11", 94}, {"LSGT", 10}, {"SPCE", 49}, {"KP0", 82},  {"KP1", 83},  {"KP2", 84},  {"KP3", 85},
        {"KP4", 86},  {"KP5", 87},  {"KP6", 88},  {"KP7", 89},  {"KP8", 91},  {"KP9", 92},  {"KPDL", 65},
        {"KPMU", 67}, {"KPAD", 69}, {"NMLK", 71}, {"KPDV", 75}, {"KPEN", 76}, {"KPSU", 78}, {"KPEQ", 81},
        {"KPDC", 95}, {"MUHE", 102}, {"HENK", 104},
    };
    return table;
}

const std::map<KeySym, KeysymKey>& keysymKeys() {
    static const std::map<KeySym, KeysymKey> table = {
        {XK_Super_R, {54, 0}}, {XK_Super_L, {55, 0}}, {XK_Meta_R, {54, 0}}, {XK_Meta_L, {55, 0}},
        {XK_Shift_L, {56, 0}}, {XK_Caps_Lock, {57, 0}}, {XK_Alt_L, {58, 0}}, {XK_Control_L, {59, 0}},
        {XK_Shift_R, {60, 0}}, {XK_Alt_R, {61, 0}}, {XK_ISO_Level3_Shift, {61, 0}}, {XK_Control_R, {62, 0}},
        {kKeysymFn, {63, 0}},
        {XK_Return, {36, U'\r'}}, {XK_Tab, {48, U'\t'}}, {XK_ISO_Left_Tab, {48, U'\t'}},
        {XK_BackSpace, {51, 0x7f}}, {XK_Escape, {53, 0x1b}},
        {XK_F17, {64, 0xF714}}, {XK_F18, {79, 0xF715}}, {XK_F19, {80, 0xF716}}, {XK_F20, {90, 0xF717}},
        {XK_F5, {96, 0xF708}}, {XK_F6, {97, 0xF709}}, {XK_F7, {98, 0xF70A}}, {XK_F3, {99, 0xF706}},
        {XK_F8, {100, 0xF70B}}, {XK_F9, {101, 0xF70C}}, {XK_F11, {103, 0xF70E}}, {XK_F13, {105, 0xF710}},
        {XK_F16, {106, 0xF713}}, {XK_F14, {107, 0xF711}}, {XK_F10, {109, 0xF70D}}, {XK_F12, {111, 0xF70F}},
        {XK_F15, {113, 0xF712}}, {XK_Help, {114, 0xF746}}, {XK_Insert, {114, 0xF746}}, {XK_Home, {115, 0xF729}},
        {XK_Prior, {116, 0xF72C}}, {XK_Delete, {117, 0xF728}}, {XK_F4, {118, 0xF707}}, {XK_End, {119, 0xF72B}},
        {XK_F2, {120, 0xF705}}, {XK_Next, {121, 0xF72D}}, {XK_F1, {122, 0xF704}}, {XK_Left, {123, 0xF702}},
        {XK_Right, {124, 0xF703}}, {XK_Down, {125, 0xF701}}, {XK_Up, {126, 0xF700}},
    };
    return table;
}

std::optional<char32_t> keysymCharacter(KeySym sym) {
    if ((sym >= 0x20 && sym <= 0x7e) || (sym >= 0xa0 && sym <= 0xff)) return static_cast<char32_t>(sym);
    if (sym >= 0x01000100 && sym <= 0x0110ffff) return static_cast<char32_t>(sym - 0x01000000);
    if (sym >= 0xffaa && sym <= 0xffb9) return static_cast<char32_t>(sym - 0xff80); // keypad digits and signs
    if (sym == XK_KP_Equal) return U'=';
    if (sym == XK_KP_Enter) return U'\x03';
    if (sym == XK_KP_Space) return U' ';
    if (sym >= 0x6c0 && sym <= 0x6ff) {
        static constexpr char32_t lower[] = U"юабцдефгхийклмнопярстужвьызшэщчъ";
        static constexpr char32_t upper[] = U"ЮАБЦДЕФГХИЙКЛМНОПЯРСТУЖВЬЫЗШЭЩЧЪ";
        const auto index = static_cast<std::size_t>(sym & 0x1f);
        return sym < 0x6e0 ? lower[index] : upper[index];
    }
    if (sym == XK_Cyrillic_io) return U'ё';
    if (sym == XK_Cyrillic_IO) return U'Ё';
    // Every other keysym with a character (Greek, Arabic, dead-key-free legacy sets) by xkbcommon's table.
    const std::uint32_t c = xkb_keysym_to_utf32(static_cast<xkb_keysym_t>(sym));
    if (c >= 0x20 && c != 0x7f) return static_cast<char32_t>(c);
    return std::nullopt;
}

std::string utf8(char32_t c) {
    std::string out;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    return out;
}

KeyTables buildKeyTables(Display* display, XkbDescPtr xkb) {
    KeyTables tables;
    int minCode = 8, maxCode = 255;
    XDisplayKeycodes(display, &minCode, &maxCode);
    for (int kc = minCode; kc <= maxCode; ++kc) {
        const auto x11 = static_cast<unsigned>(kc);
        const KeySym sym = XkbKeycodeToKeysym(display, static_cast<KeyCode>(kc), 0, 0);
        if (auto it = keysymKeys().find(sym); sym != NoSymbol && it != keysymKeys().end()) {
            tables.codeOfX11[x11] = it->second.code;
            if (it->second.character) tables.specialCharacterOfX11[x11] = it->second.character;
            continue;
        }
        if (xkb && xkb->names && xkb->names->keys && kc >= xkb->min_key_code && kc <= xkb->max_key_code) {
            const char* raw = xkb->names->keys[kc].name;
            const std::string name(raw, strnlen(raw, XkbKeyNameLength));
            if (auto it = positionalKeys().find(name); it != positionalKeys().end()) tables.codeOfX11[x11] = it->second;
        }
    }
    return tables;
}

std::vector<unsigned> KeyTables::x11CodesFor(std::uint16_t code) const {
    std::vector<unsigned> result;
    for (const auto& [x11, stored] : codeOfX11)
        if (stored == code) result.push_back(x11);
    return result;
}

} // namespace sprelio::platform::x11
