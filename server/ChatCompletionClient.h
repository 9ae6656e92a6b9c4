#pragma once
// The language model behind AI completions: any service that speaks the OpenAI chat-completions protocol
// (POST <url>/v1/chat/completions with a Bearer key), configured by the operator or found on this machine. One
// blocking call per completion that asks for the whole answer at once, since the client waits for the whole
// result anyway; a service that streams it all the same (server-sent events, "data:" lines up to "[DONE]") is
// understood too.
#include <atomic>
#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace sprelio::server {

struct ChatMessage {
    std::string role; // "system", "user"
    std::string content;
};

struct ChatSettings {
    std::string url; // as configured; see openAiEndpoint()
    std::string key;
    std::string model;
    std::chrono::seconds timeout{60};
};

struct ChatFailure {
    enum class Kind {
        unreachable,   // no answer: refused, timed out, TLS
        cancelled,     // the server is stopping
        rejected,      // an HTTP status other than 2xx
        invalidAnswer, // 2xx but not the chat-completions shape, or no text in it
    };
    Kind kind;
    long status = 0;
    std::string detail; // for the operator's log and the user's message; never holds the prompt or the text
};

class ChatCompletionClient {
public:
    explicit ChatCompletionClient(ChatSettings settings);

    const ChatSettings& settings() const { return settings_; }
    const std::string& endpoint() const { return endpoint_; }

    // The text of the first choice. `model` empty: the configured one.
    std::variant<std::string, ChatFailure> complete(const std::vector<ChatMessage>& messages,
                                                    const std::string& model,
                                                    const std::atomic<bool>* cancel = nullptr) const;

private:
    ChatSettings settings_;
    std::string endpoint_;
};

} // namespace sprelio::server
