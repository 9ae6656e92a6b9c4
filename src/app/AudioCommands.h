#pragma once
// `sprelio devices` and `sprelio record --seconds N [--output PATH] [--device ID]`: the microphones and the recorder
// from the command line.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// `args` is the whole command line, args[1] being "devices" or "record". Returns the exit status.
int audioCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace sprelio::app
