#pragma once
// The running desktop application's local socket, as the command line reaches it: a command typed in a terminal
// ("sprelio continuous start") is carried to the one instance, which runs it and answers with its output and exit
// status.
//
// One conversation per connection, one line each way at a time:
//   caller:   "command <JSON array of the arguments after 'sprelio'>\n"
//   instance: "out <JSON string>\n" and "err <JSON string>\n" any number of times, then "exit <status>\n".
// The older one-line "activate\n" (bring the window forward) stays as it was.
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::platform {

// The socket's path for this user and display: in XDG_RUNTIME_DIR, which is private to the user, or in the
// temporary folder with the user id in its name. `display` is $DISPLAY as the application saw it.
std::string instanceSocketPath(const std::string& display);

// The exit status askRunningInstance returns when no desktop application answers on the socket.
inline constexpr int kNoRunningInstance = 3;

// Sends `args` to the running instance, copies its "out" lines to `out` and its "err" lines to `err`, and returns
// its exit status. Without a running instance: "sprelio: Sprelio is not running; start it first (sprelio)" on `err`
// and kNoRunningInstance. A connection lost before "exit" is status 1 with a message.
int askRunningInstance(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace sprelio::platform
