#include "app/BackendCommands.h"

namespace sprelio::app {

int backendCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const std::string& command = args.at(1);
    if (command == "transcribe") return transcribeCommand(args, out, err);
    if (command == "ai") return aiCommand(args, out, err);
    if (command == "account") return accountCommand(args, out, err);
    if (command == "login") return loginCommand(args, out, err);
    if (command == "report") return reportCommand(args, out, err);
    return logoutCommand(args, out, err);
}

} // namespace sprelio::app
