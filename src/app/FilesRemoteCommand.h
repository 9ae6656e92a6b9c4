#pragma once
// `sprelio files add FILE...` and `sprelio files record --mode microphone|system|both --seconds N`: the terminal's
// way into the running application's Files tab.
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio {
class FilesMenuViewModel;
}
namespace sprelio::platform {
class MainLoop;
struct RemoteCommand;
} // namespace sprelio::platform

namespace sprelio::app {

// The command line's side: the files named as the user typed them are made absolute (the application runs in a
// folder of its own), then the running application is asked.
int filesCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The application's side, on its main loop. `showFilesTab` brings the main window forward on the Files tab, where
// the user sees the items and the recording as if they had started them there.
void runFilesRemoteCommand(FilesMenuViewModel& files, platform::MainLoop& loop, const std::function<void()>& showFilesTab,
                           platform::RemoteCommand command);

} // namespace sprelio::app
