#include "server/LocalAiProbe.h"

#include <nlohmann/json.hpp>

#include "server/OpenAiHttp.h"

namespace sprelio::server {

namespace {

constexpr std::string_view kChatPath = "/chat/completions";
constexpr std::string_view kModelsPath = "/models";

} // namespace

std::variant<ProbedService, ChatFailure> probeChatService(const ProbeRequest& request) {
    std::string base = request.url;
    while (!base.empty() && base.back() == '/') base.pop_back();
    if (base.size() >= kChatPath.size() &&
        base.compare(base.size() - kChatPath.size(), kChatPath.size(), kChatPath) == 0)
        base.erase(base.size() - kChatPath.size());
    const std::string modelsUrl = openAiEndpoint(base, "models");

    OpenAiRequest get{modelsUrl, request.key, request.timeout, request.cancel, request.connectTimeout};
    auto sent = getJson(get);
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
    auto list = nlohmann::json::parse(reply.body, nullptr, false);
    if (!list.is_object() || !list.contains("data") || !list["data"].is_array())
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, "the answer is not an OpenAI model list"};

    ProbedService found;
    found.apiRoot = modelsUrl.substr(0, modelsUrl.size() - kModelsPath.size());
    bool wantedListed = false;
    for (const auto& entry : list["data"]) {
        if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_string()) continue;
        const auto& id = entry["id"].get_ref<const std::string&>();
        if (id.empty()) continue;
        if (++found.modelCount == 1) found.model = id;
        if (!request.wantedModel.empty() && id == request.wantedModel) wantedListed = true;
    }
    if (wantedListed) found.model = request.wantedModel;
    if (found.modelCount == 0)
        return ChatFailure{ChatFailure::Kind::invalidAnswer, reply.status, "the service lists no model"};
    return found;
}

} // namespace sprelio::server
