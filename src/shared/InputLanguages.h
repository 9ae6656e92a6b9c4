#pragma once
// The languages a dictation asks the backend for.
#include <optional>
#include <string>
#include <vector>

namespace sprelio {

namespace store {
class Settings;
}

// The languages an upload asks for: the shortcut's own language when it names one, else every language of the
// user's list. Logs which of the two it took.
struct InputLanguages {
    std::optional<std::string> inputLanguageCode;
    std::vector<std::string> codes;
};
InputLanguages chooseInputLanguages(std::optional<std::string> shortcutLanguageCode, const store::Settings& settings);

} // namespace sprelio
