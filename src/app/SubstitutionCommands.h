#pragma once
// `sprelio substitute TEXT` and `sprelio substitutions list|add|remove`: the stored rules from the command line.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// `args` is the whole command line, args[1] being "substitute" or "substitutions". Returns the exit status.
int substitutionCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace sprelio::app
