#include "server/ChatCompletionClient.h"

#include <algorithm>
#include <cctype>

#include <nlohmann/json.hpp>

#include "server/OpenAiHttp.h"

namespace sprelio::server {

namespace {

ChatFailure invalid(long status, std::string detail) {
    return ChatFailure{ChatFailure::Kind::invalidAnswer, status, std::move(detail)};
}

// A refusal or a content filter leaves the content empty and says so in the finish reason.
ChatFailure noText(long status, const std::string& finishReason) {
    return invalid(status, "the first choice has no text" +
                               (finishReason.empty() ? std::string() : " (finish reason " + finishReason + ")"));
}

std::string finishReasonOf(const nlohmann::json& choice) {
    if (choice.contains("finish_reason") && choice["finish_reason"].is_string())
        return choice["finish_reason"].get<std::string>();
    return {};
}

// Services stream even when asked not to now and then (proxies in front of them, some local runners); their
// answer is then server-sent events, which no JSON answer can be mistaken for.
bool isEventStream(const OpenAiReply& reply) {
    std::string type = reply.contentType.substr(0, reply.contentType.find(';'));
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (type == "text/event-stream") return true;
    auto start = reply.body.find_first_not_of(" \t\r\n");
    if (start == std::string::npos) return false;
    for (const char* field : {"data:", "event:", "id:", ":"})
        if (reply.body.compare(start, std::char_traits<char>::length(field), field) == 0) return true;
    return false;
}

// The data of each event of a server-sent event stream, in order, the lines of one event joined by "\n". A last
// line without its newline was cut off on the way and is left out, as the event-stream rules have it.
std::vector<std::string> eventData(const std::string& body) {
    std::vector<std::string> events;
    std::string data;
    bool pending = false;
    auto dispatch = [&] {
        if (pending) events.push_back(data);
        data.clear();
        pending = false;
    };
    std::size_t start = 0;
    while (start < body.size()) {
        auto end = body.find('\n', start);
        if (end == std::string::npos) break;
        std::string line = body.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) {
            dispatch();
            continue;
        }
        // Comments (":"), "event:", "id:" and "retry:" carry nothing of the answer.
        if (line.rfind("data:", 0) != 0) continue;
        std::string value = line.substr(5);
        if (!value.empty() && value.front() == ' ') value.erase(0, 1);
        if (pending) data += '\n';
        data += value;
        pending = true;
    }
    // A stream that ends after its last data line without the blank line that should follow.
    dispatch();
    return events;
}

std::variant<std::string, ChatFailure> plainAnswer(const OpenAiReply& reply) {
    auto answer = nlohmann::json::parse(reply.body, nullptr, false);
    if (answer.is_discarded() || !answer.is_object()) return invalid(reply.status, "the answer is not a JSON object");
    if (!answer.contains("choices") || !answer["choices"].is_array() || answer["choices"].empty())
        return invalid(reply.status, "the answer has no choices");
    const auto& choice = answer["choices"][0];
    if (!choice.is_object() || !choice.contains("message") || !choice["message"].is_object())
        return invalid(reply.status, "the first choice has no message");
    const auto& message = choice["message"];
    if (!message.contains("content") || !message["content"].is_string())
        return noText(reply.status, finishReasonOf(choice));
    return message["content"].get<std::string>();
}

// The first choice's text pieces ("delta" of each chunk) put together. The answer is whole once "[DONE]" or a
// finish reason came; a stream that ends before either was cut short, and half a rewrite is no answer.
std::variant<std::string, ChatFailure> streamedAnswer(const OpenAiReply& reply) {
    std::string text;
    std::string finishReason;
    bool hasText = false;
    bool done = false;
    for (const auto& data : eventData(reply.body)) {
        if (data == "[DONE]") {
            done = true;
            break;
        }
        auto chunk = nlohmann::json::parse(data, nullptr, false);
        if (chunk.is_discarded() || !chunk.is_object())
            return invalid(reply.status, "a piece of the streamed answer is not a JSON object");
        if (chunk.contains("error")) {
            auto explanation = serviceErrorMessage(data);
            return ChatFailure{ChatFailure::Kind::rejected, reply.status,
                               "the service broke off its streamed answer with an error" +
                                   (explanation.empty() ? std::string() : ": " + explanation)};
        }
        // The last chunk of some services holds only the usage, with no choice at all.
        if (!chunk.contains("choices") || !chunk["choices"].is_array()) continue;
        for (const auto& choice : chunk["choices"]) {
            if (!choice.is_object()) continue;
            if (choice.contains("index") && choice["index"].is_number_integer() && choice["index"].get<long>() != 0)
                continue;
            for (const char* part : {"delta", "message"}) {
                if (!choice.contains(part) || !choice[part].is_object()) continue;
                const auto& piece = choice[part];
                if (piece.contains("content") && piece["content"].is_string()) {
                    text += piece["content"].get<std::string>();
                    hasText = true;
                }
            }
            if (auto reason = finishReasonOf(choice); !reason.empty()) finishReason = reason;
        }
    }
    if (!done && finishReason.empty()) return invalid(reply.status, "the streamed answer broke off before its end");
    if (!hasText) return noText(reply.status, finishReason);
    return text;
}

} // namespace

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
        if (failure->cancelled) return ChatFailure{ChatFailure::Kind::cancelled, 0, failure->message};
        if (failure->brokeOff)
            return invalid(0, "the answer broke off: " + failure->message);
        return ChatFailure{ChatFailure::Kind::unreachable, 0, failure->message};
    }
    const auto& reply = std::get<OpenAiReply>(sent);
    if (reply.status < 200 || reply.status > 299) {
        auto explanation = serviceErrorMessage(reply.body);
        return ChatFailure{ChatFailure::Kind::rejected, reply.status,
                           "HTTP " + std::to_string(reply.status) + (explanation.empty() ? "" : ": " + explanation)};
    }
    return isEventStream(reply) ? streamedAnswer(reply) : plainAnswer(reply);
}

} // namespace sprelio::server
