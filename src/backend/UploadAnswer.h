#pragma once
// What the answer to a recording upload says, read one way for every owner of an upload: the dictation session,
// the command line, the history's "transcribe again" and the conversion of the last recording. Each owner decides
// what to do with it; only the reading is shared.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/Error.h"

namespace sprelio {

struct UploadAnswer {
    enum class Kind {
        // A transcript with its detected language: the dictation's text.
        transcript,
        // An AI result, on its own line behind the transcript or as the whole answer.
        completion,
        // A server's words without a transport error: shown to the user as they stand.
        serverMessage,
        // The upload failed; `error` says how.
        failure,
        // Nothing usable: no text, no message, no error.
        empty,
    };
    Kind kind = Kind::empty;
    // The transcript, the AI result or the server's message, by kind.
    std::string text;
    std::optional<std::string> language;
    std::optional<Error> error;
    // The transcript's text even where the answer lacks the language that would make it a transcript.
    std::optional<std::string> anyText;
};

UploadAnswer readUploadAnswer(const std::optional<nlohmann::json>& result, const std::optional<Error>& error);

} // namespace sprelio
