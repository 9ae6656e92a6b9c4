#include "server/ChatCompletionClient.h"

#include <nlohmann/json.hpp>

#include "server/OpenAiHttp.h"

namespace sprelio::server {

ChatCompletionClient::ChatCompletionClient(ChatSettings settings)
    : settings_(std::move(settings)), endpoint_(openAiEndpoint(settings_.url, "chat/completions")) {}

std::variant<std::string, ChatFailure> ChatCompletionClient::complete(const std::vector<ChatMessage>& messages,
                                                                      const std::string& model,
                                                                      const std::atomic<bool>* cancel) const {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& message : messages) list.push_back({{"role", message.role}, {"content", message.content}});
    // No temperature or token limit: several compatible services refuse parameters their models lack, and the
    // service's defaults suit rewriting.
    nlohmann::json body = {{"model", model.empty() ? settings_.model : model}, {"messages", list}, {"stream", false}};
    // Dictated text may hold invalid UTF-8 from a client; it is replaced rather than failing the request.
    auto json = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

    auto sent = postJson({endpoint_, settings_.key, settings_.timeout, cancel}, json);
    if (auto* failure = std::get_if<OpenAiTransportFailure>(&sent)) {
        return ChatFailure{failure->cancelled ? ChatFailure::Kind::cancelled : ChatFailure::Kind::unreachable, 0,
                           failure->message};
    }
    const auto& reply = std::get<OpenAiReply>(sent);
    if (reply.status < 200 || reply.status > 299) {
        auto explanation = serviceErrorMessage(reply.body);
        return ChatFailure{ChatFailure::Kind::rejected, reply.status,
                           "HTTP " + std::to_string(reply.status) + (explanation.empty() ? "" : ": " + explanation)};
    }
    auto answer = nlohmann::json::parse(reply.body, nullptr, false);
    if (answer.is_discarded() || !answer.is_object())
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, "the answer is not a JSON object"};
    if (!answer.contains("choices") || !answer["choices"].is_array() || answer["choices"].empty())
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, "the answer has no choices"};
    const auto& choice = answer["choices"][0];
    if (!choice.is_object() || !choice.contains("message") || !choice["message"].is_object())
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, "the first choice has no message"};
    const auto& message = choice["message"];
    if (!message.contains("content") || !message["content"].is_string()) {
        // A refusal or a content filter leaves the content empty and says so elsewhere.
        std::string why = "the first choice has no text";
        if (choice.contains("finish_reason") && choice["finish_reason"].is_string())
            why += " (finish reason " + choice["finish_reason"].get<std::string>() + ")";
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, why};
    }
    return message["content"].get<std::string>();
}

} // namespace sprelio::server
