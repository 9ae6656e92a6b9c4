#pragma once
// The lines a user pastes into sway's configuration so that a Wayland compositor, which lets no client watch the
// whole keyboard, presses Sprelio's shortcuts itself through `sprelio shortcuts press|release|tap`.
#include <string>
#include <vector>

#include "ui/ShortcutRows.h"

namespace sprelio {

// The key as sway's bindsym names it ("Mod1+Shift+d", "Alt_R", "--whole-window button8"); empty when sway has no
// name for it (Fn).
std::string swayKeyName(const std::string& keys);

// For a held shortcut two lines (the press, and the release with --release), for a tapped one a single line; none
// for a row without a key.
std::vector<std::string> swayBindingLines(const ShortcutRow& row);

} // namespace sprelio
