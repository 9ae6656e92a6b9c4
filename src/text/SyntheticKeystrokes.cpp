#include "text/SyntheticKeystrokes.h"

#include "base/Log.h"

namespace sprelio {

namespace {

std::string codes(const std::vector<std::uint16_t>& keys) {
    std::string text;
    for (auto key : keys) text += (text.empty() ? "" : ", ") + std::to_string(key);
    return text;
}

} // namespace

std::vector<std::uint16_t> releaseHeldModifiers(platform::SyntheticKeyboard& keyboard) {
    auto held = keyboard.heldModifierKeys();
    if (held.empty()) return held;
    logDebug("releaseHeldModifiers() - releasing the held modifier keys " + codes(held) +
             " around a synthetic keystroke");
    std::vector<platform::SyntheticKeyEvent> ups;
    for (auto key : held) ups.push_back({key, false, 0});
    keyboard.postKeyEvents(std::move(ups));
    return held;
}

void pressModifiersAgain(platform::SyntheticKeyboard& keyboard, const std::vector<std::uint16_t>& released) {
    if (released.empty()) return;
    std::vector<platform::SyntheticKeyEvent> downs;
    for (auto key : released) downs.push_back({key, true, 0});
    keyboard.postKeyEvents(std::move(downs));
}

void postKeyEventsReleasingHeldModifiers(platform::SyntheticKeyboard& keyboard,
                                         std::vector<platform::SyntheticKeyEvent> events) {
    const auto held = keyboard.heldModifierKeys();
    if (!held.empty())
        logDebug("releaseHeldModifiers() - releasing the held modifier keys " + codes(held) +
                 " around a synthetic keystroke");
    std::vector<platform::SyntheticKeyEvent> all;
    for (auto key : held) all.push_back({key, false, 0});
    all.insert(all.end(), events.begin(), events.end());
    for (auto key : held) all.push_back({key, true, 0});
    keyboard.postKeyEvents(std::move(all));
}

void typeTextReleasingHeldModifiers(platform::SyntheticKeyboard& keyboard, const std::string& text) {
    const auto held = releaseHeldModifiers(keyboard);
    keyboard.typeText(text);
    pressModifiersAgain(keyboard, held);
}

} // namespace sprelio
