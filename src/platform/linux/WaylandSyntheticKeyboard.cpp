#include "platform/linux/WaylandSyntheticKeyboard.h"

#include <xkbcommon/xkbcommon.h>

#include "base/Log.h"
#include "input/Key.h"
#include "platform/linux/X11KeyTables.h"

namespace sprelio::platform {

namespace {

// wtype's modifier names for the flags and for the modifier keys themselves.
std::optional<std::string> modifierName(std::uint16_t keyCode) {
    switch (keyCode) {
    case 54: case 55: return "logo";
    case 56: case 60: return "shift";
    case 58: case 61: return "alt";
    case 59: case 62: return "ctrl";
    default: return std::nullopt;
    }
}

const std::vector<std::pair<std::uint64_t, std::string>>& flagNames() {
    static const std::vector<std::pair<std::uint64_t, std::string>> names = {
        {event_flags_mask::kControl, "ctrl"},
        {event_flags_mask::kShift, "shift"},
        {event_flags_mask::kOption, "alt"},
        {event_flags_mask::kCommand, "logo"}};
    return names;
}

std::optional<std::string> keysymName(std::uint16_t keyCode) {
    // Keys that type a character: the character of the key's US position.
    for (const Key key : allKeys()) {
        if (qwertyKeyCode(key) != keyCode) continue;
        const auto character = keyCharacter(key);
        if (!character || character->empty()) break;
        const auto c = static_cast<unsigned char>((*character)[0]);
        if (c >= 0x80) break;
        char name[64];
        if (xkb_keysym_get_name(xkb_utf32_to_keysym(c), name, sizeof name) > 0) return std::string(name);
    }
    // The others (Return, Tab, arrows, function keys) by their keysym.
    for (const auto& [sym, key] : x11::keysymKeys()) {
        if (key.code != keyCode) continue;
        char name[64];
        if (xkb_keysym_get_name(static_cast<xkb_keysym_t>(sym), name, sizeof name) > 0) return std::string(name);
    }
    return std::nullopt;
}

} // namespace

WaylandSyntheticKeyboard::WaylandSyntheticKeyboard(bool offersVirtualKeyboard)
    : offersVirtualKeyboard_(offersVirtualKeyboard), installed_(programOnPath("wtype")) {
    if (!installed_) logWarning("WaylandSyntheticKeyboard - wtype is not installed: no pasting or typing");
    if (!offersVirtualKeyboard_)
        logWarning("WaylandSyntheticKeyboard - the compositor offers no virtual keyboard: no pasting or typing");
}

bool WaylandSyntheticKeyboard::isAvailable() const { return installed_ && offersVirtualKeyboard_ && !refused_.load(); }

std::optional<std::vector<std::string>>
WaylandSyntheticKeyboard::wtypeArguments(const std::vector<SyntheticKeyEvent>& events) {
    std::vector<std::string> args;
    const auto add = [&args](const std::string& option, const std::string& value) {
        args.push_back(option);
        args.push_back(value);
    };
    std::uint64_t held = 0;
    const auto holdFlags = [&](std::uint64_t wanted) {
        for (const auto& [flag, name] : flagNames()) {
            if ((wanted & flag) && !(held & flag)) add("-M", name);
            if (!(wanted & flag) && (held & flag)) add("-m", name);
        }
        held = wanted;
    };
    for (const auto& event : events) {
        if (const auto modifier = modifierName(event.keyCode)) {
            add(event.down ? "-M" : "-m", *modifier);
            continue;
        }
        const auto name = keysymName(event.keyCode);
        if (!name) return std::nullopt;
        holdFlags(event.flags);
        add(event.down ? "-P" : "-p", *name);
    }
    holdFlags(0);
    return args;
}

void WaylandSyntheticKeyboard::postKeyEvents(std::vector<SyntheticKeyEvent> events) {
    auto args = wtypeArguments(events);
    if (!args) {
        logError("WaylandSyntheticKeyboard.postKeyEvents() - a key code without a keysym; nothing sent");
        return;
    }
    if (args->empty()) return;
    std::vector<std::string> argv;
    argv.reserve(args->size() + 1);
    argv.emplace_back("wtype");
    for (auto& arg : *args) argv.push_back(std::move(arg));
    run(std::move(argv));
}

void WaylandSyntheticKeyboard::typeText(std::string text) {
    if (text.empty()) return;
    std::vector<std::string> argv;
    argv.reserve(3);
    argv.emplace_back("wtype");
    argv.emplace_back("--");
    argv.push_back(std::move(text));
    run(std::move(argv));
}

void WaylandSyntheticKeyboard::run(std::vector<std::string> argv) {
    if (!isAvailable()) {
        logError("WaylandSyntheticKeyboard - no virtual keyboard here; the keys are not sent");
        return;
    }
    // Each run is a new virtual keyboard with a keymap of its own; a client that gets the first key before it has
    // taken the keymap in loses that key (Qt drops it), and nothing tells when it has: the keys wait a moment.
    argv.insert(argv.begin() + 1, {"-s", std::to_string(kKeymapSettle.count())});
    jobs_.add([this, argv = std::move(argv)] {
        const auto result = runProgram(argv, {}, kRunTimeout);
        if (result.exitCode == 0) return;
        logError("WaylandSyntheticKeyboard - wtype failed (status " + std::to_string(result.exitCode) + "): " +
                 result.errorOutput);
        // "Compositor does not support the virtual keyboard protocol": no further run will do better.
        if (result.errorOutput.find("virtual keyboard") != std::string::npos) refused_.store(true);
    });
}

} // namespace sprelio::platform
