#pragma once
// What every command of the command line shares: how it ends with an error, and how it lists things.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// Prints "sprelio: MESSAGE" on `err` and returns `code`: 1 the command failed, 2 the command line was wrong.
int fail(std::ostream& err, const std::string& message, int code = 1);
std::string joined(const std::vector<std::string>& items, const std::string& separator);

} // namespace sprelio::app
