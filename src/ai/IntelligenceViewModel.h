#pragma once
// The AI actions as the session reaches them: a prompt for an item that rides along with the upload, or an
// action run on a finished text.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "core/ShortcutAction.h"

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

class IntelligenceViewModel {
public:
    virtual ~IntelligenceViewModel() = default;
    virtual std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) = 0;
    // With no completion type of its own the action takes it from the active shortcut.
    virtual void executeActionForItemWithText(const std::string& itemId, const std::string& text,
                                              std::optional<IntelligenceActionCompletionType> completionType) = 0;
};

} // namespace sprelio
