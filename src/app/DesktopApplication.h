#pragma once
// The desktop application: every service of the logic on the Linux adapters and the Qt shell, in the order of
// the launch. One instance per user session; a second start brings the first one's main window forward.
namespace sprelio::app {

// Runs the application until the user quits; the process's exit status.
int runDesktopApplication(int argc, char** argv);

} // namespace sprelio::app
