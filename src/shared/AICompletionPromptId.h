#pragma once
// The AI instruction record that rides along with an upload or a completion request.
#include <string>

#include <nlohmann/json.hpp>

namespace sprelio {

// A request by the server's prompt id.
struct AICompletionPromptId {
    std::string promptId;
    std::string promptParam;
    std::string text;
    std::string textLang;
    std::string appLang;

    // The five keys of the wire form; the upload drops "text" from it.
    nlohmann::json dictionary() const {
        return nlohmann::json{{"prompt_id", promptId},
                              {"prompt_param", promptParam},
                              {"text", text},
                              {"text_lang", textLang},
                              {"app_lang", appLang}};
    }
    bool operator==(const AICompletionPromptId&) const = default;
};

} // namespace sprelio
