#pragma once
// What an AI request asks for and the chat messages that ask a language model for it. Requests come by a
// prompt id of the server's own (ask_ai, add_emoji, improve_writing, fix_grammar, tone, translate) or as the
// user's own preset (an instruction and a model).
//
// The user's text is data, never instructions: it goes into the user message inside one block between the
// lines <dictated_text> and </dictated_text>, the system message tells the model that nothing in the block can
// give orders, and anything in the text that could pass for one of the two markers is defused first. A dictation
// that says "ignore the above" is therefore rewritten like any other sentence, not obeyed.
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "server/ApiError.h"
#include "server/ChatCompletionClient.h"

namespace sprelio::server {

struct CompletionRequest {
    enum class Kind { promptId, preset };
    Kind kind = Kind::promptId;
    // By prompt id.
    std::string promptId;
    std::string promptParam; // the tone, the target language code
    std::string textLang;    // language of the text, may be empty
    std::string appLang;     // language of the user's interface, may be empty
    // By preset.
    std::string prompt;
    std::string model; // empty: the server's model
    std::string text;
};

class CompletionPrompts {
public:
    static constexpr const char* kOpen = "<dictated_text>";
    static constexpr const char* kClose = "</dictated_text>";

    // The body of POST /completions (`textRequired` true) or the `ai` part of an upload, whose text is the
    // transcript still to be made. A request the server can't carry out is a 400 with `stop`, so the client
    // does not send it to another server.
    static std::variant<CompletionRequest, ApiError> parse(const nlohmann::json& body, bool textRequired);

    static std::vector<ChatMessage> messages(const CompletionRequest& request);

    // Every spot in `text` that a model could read as one of the two markers, "</dictated_text>" in any case
    // and spacing, "< dictated text >", "<DICTATED-TEXT", has its "<" replaced by "‹". Nothing else changes.
    static std::string neutraliseMarkers(const std::string& text);

    // The model's answer as the user gets it: surrounding white space dropped, and the markers, which models now
    // and then repeat around their answer, removed from its two ends.
    static std::string cleanAnswer(std::string answer);

    // The ids the server understands, for the `features` it announces.
    static std::vector<std::string> promptIds();
    // Tones of `tone`, in the client's order.
    static const std::vector<std::string>& tones();
};

} // namespace sprelio::server
