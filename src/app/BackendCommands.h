#pragma once
// The commands that talk to the account API, the transcription backends and the AI servers:
//   sprelio transcribe FILE [--language CODE] [--item ITEM] [--diarization]
//   sprelio transcribe --long FILE [--diarization]
//   sprelio ai ITEM TEXT [--language CODE] | sprelio ai --preset NAME TEXT
//   sprelio account
//   sprelio login EMAIL | sprelio login --code CODE | sprelio logout
//   sprelio report TEXT [--no-logs]
#include <iosfwd>
#include <string>
#include <vector>

namespace sprelio::app {

// `args` is the whole command line, args[1] being "transcribe", "ai", "account", "login", "logout" or "report". Returns
// the exit status: 0 done, 1 failed, 2 the command line was wrong.
int backendCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The commands behind it, each with the same arguments and results: TranscribeCommand.cpp, AiCommand.cpp,
// AccountCommands.cpp.
int transcribeCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int aiCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int accountCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int loginCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int logoutCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int reportCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err); // ReportCommand.cpp

} // namespace sprelio::app
