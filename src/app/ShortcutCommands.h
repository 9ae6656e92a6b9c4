#pragma once
// `sprelio shortcuts list|set|add|remove|reset|press|release|tap`: the hotkeys from the command line, in the key names the editor
// shows ("Right Ctrl", "Alt+Shift+D", "Button 8"). A running application takes the command itself, so the change
// is live at once and a combination another program holds is refused as in the editor; without one the store and
// the settings file are changed directly and the next start picks them up.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio {
class KeyCodes;
class ShortcutRows;
class ShortcutTrigger;
} // namespace sprelio

namespace sprelio::app {

// `args` is the whole command line, args[1] being "shortcuts". Returns the exit status.
int shortcutCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The command on these rows; `args` begins with "shortcuts" (as the running application receives it).
int runShortcutCommand(const std::vector<std::string>& args, ShortcutRows& rows, KeyCodes& keyCodes,
                       std::ostream& out, std::ostream& err);

// `shortcuts press|release|tap [ID]` in the running application: the shortcut's key goes down, up, or both, as if
// pressed on the keyboard; without an ID, the dictation shortcut. Returns the exit status.
int runShortcutTriggerCommand(const std::vector<std::string>& args, ShortcutRows& rows, ShortcutTrigger& trigger,
                              std::ostream& err);

} // namespace sprelio::app
