#pragma once
// The AI actions as the session reaches them: a prompt for an item that rides along with the upload, or an
// action run on a finished text.
#include <optional>
#include <string>

#include "shared/AICompletionPromptId.h"
#include "shared/ShortcutAction.h"

namespace sprelio {

class IntelligenceViewModel {
public:
    virtual ~IntelligenceViewModel() = default;
    virtual std::optional<AICompletionPromptId> promptIdForItemWithId(const std::string& itemId) = 0;
    // With no completion type of its own the action takes it from the active shortcut. `expectingCompletion`: the
    // item's prompt rode along with the upload, so the server's answer carries the result and the server steps
    // are skipped here (local steps still run).
    virtual void executeActionForItemWithText(const std::string& itemId, const std::string& text,
                                              bool expectingCompletion,
                                              std::optional<IntelligenceActionCompletionType> completionType) = 0;
};

} // namespace sprelio
