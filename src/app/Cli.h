#pragma once
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// Runs the `sprelio` command line; returns the process exit code. Without a command it runs `startDesktop`, the
// desktop application.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const std::function<int()>& startDesktop);

} // namespace sprelio::app
