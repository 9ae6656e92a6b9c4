#pragma once
// How each terminal emulator takes text from Sprelio. Terminals do not paste on Control+V (it reaches the program
// inside as ^V), and not all of them have a clipboard paste key at all, so each one gets the route its own program
// takes with its default settings, as found by running it. See TerminalPasteRoutes.cpp for the findings.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sprelio {

enum class TerminalPasteRoute {
    // The clipboard and Control+Shift+V, its default clipboard paste key.
    controlShiftV,
    // No key of its defaults pastes the clipboard (Shift+Insert pastes the primary selection, the user's last
    // mouse selection): the text is typed instead, and the clipboard is not touched.
    typing,
};

struct TerminalPasteRule {
    // The application name (the window's class) in lower case, as the desktop reports it.
    std::string name;
    TerminalPasteRoute route;
    // False where delivery can't be counted on: terminals that could not be run here (the route is their
    // documented default) and one whose paste key proved unreliable. The text then stays on the clipboard and the
    // user is told.
    bool confirmed;
};

// Every terminal emulator Sprelio knows, in the order of the findings table.
const std::vector<TerminalPasteRule>& terminalPasteRules();
// The rule of an application by name (any letter case); nothing for an application that is not a terminal.
std::optional<TerminalPasteRule> terminalPasteRule(std::string_view applicationName);

} // namespace sprelio
