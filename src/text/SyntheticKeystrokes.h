#pragma once
// Synthetic keystrokes into the application in front, with the modifiers the user still holds out of the way: a
// right Option still down from the hotkey would turn Control+V into Control+Option+V, and typed text into other
// characters. The held keys are released first and pressed again afterwards, so the user's keyboard is as it was.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/SyntheticKeyboard.h"

namespace sprelio {

// Releases the modifier keys the user holds now and returns them, for pressModifiersAgain().
std::vector<std::uint16_t> releaseHeldModifiers(platform::SyntheticKeyboard& keyboard);
void pressModifiersAgain(platform::SyntheticKeyboard& keyboard, const std::vector<std::uint16_t>& released);

// One call: the held modifiers released, the events, the modifiers pressed again.
void postKeyEventsReleasingHeldModifiers(platform::SyntheticKeyboard& keyboard,
                                         std::vector<platform::SyntheticKeyEvent> events);
void typeTextReleasingHeldModifiers(platform::SyntheticKeyboard& keyboard, const std::string& text);

} // namespace sprelio
