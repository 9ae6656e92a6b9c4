#pragma once
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// Runs the `sprelio` command line; returns the process exit code.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace sprelio::app
