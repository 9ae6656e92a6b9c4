#pragma once
// One dictation as it travels from the press to the delivered text. The key-down chain makes it with its id and
// the recording's file; when the recording is complete its action, AI item and languages are settled from the
// shortcut that stopped it (a stop press decides what the result becomes) or from the floating button's choice.
// The upload, its evaluation and the delivery then take it as it stands.
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "base/Uuid.h"
#include "shared/AICompletionPromptId.h"
#include "shared/InputLanguages.h"
#include "shared/ShortcutAction.h"

namespace sprelio {

struct Dictation {
    Uuid requestID;
    std::filesystem::path file;
    std::chrono::system_clock::time_point startDate{};

    // Settled when the recording is complete.
    ShortcutAction action = ShortcutAction::recordAndTranscribe;
    std::optional<std::string> itemId;
    std::optional<AICompletionPromptId> prompt;
    bool diarization = false;
    InputLanguages languages;

    // The transcript of a dictation whose AI result the server still owes, shared by every copy of the dictation:
    // when that step fails, this is what the user gets.
    std::shared_ptr<std::optional<std::string>> transcriptAwaitingCompletion =
        std::make_shared<std::optional<std::string>>();
};

} // namespace sprelio
