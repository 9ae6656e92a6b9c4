#pragma once
// `sprelio history list | retry ID | remove ID | wipe`: the History tab from the command line. ID is the number
// `history list` shows in brackets.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// `args` is the whole command line, args[1] being "history". Returns the exit status.
int historyCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace sprelio::app
