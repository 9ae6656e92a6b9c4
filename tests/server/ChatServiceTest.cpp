// The chat service as the server meets it, against scripted OpenAI-compatible services on loopback: the request
// it sends, plain and streamed answers, cut and broken ones, a service that never answers; finding a local
// runner by its model list, looking again when asked (but not too often), a configured service's model learnt
// from its list, and what a user is told when there is no service at all.
#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "ScriptedOpenAiService.h"
#include "ServerTestSupport.h"
#include "platform/test/TestPlatform.h"
#include "server/ChatCompletionClient.h"
#include "server/LocalAiProbe.h"
#include "server/OpenAiHttp.h"

namespace sprelio::server::test {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

const std::vector<ChatMessage> kMessages = {{"system", "Rewrite the text you are given."}, {"user", "hello there"}};

ChatCompletionClient clientOf(const ScriptedOpenAiService& service, int timeoutSeconds = 20) {
    return ChatCompletionClient({service.url() + "/v1", "sk-chat", "chat-test", std::chrono::seconds(timeoutSeconds)});
}

ProbeRequest probeAt(std::string url) {
    ProbeRequest request;
    request.url = std::move(url);
    return request;
}

std::string textOf(const std::variant<std::string, ChatFailure>& result) {
    if (auto* text = std::get_if<std::string>(&result)) return *text;
    return "(failure: " + std::get<ChatFailure>(result).detail + ")";
}

ChatFailure failureOf(const std::variant<std::string, ChatFailure>& result) {
    if (auto* failure = std::get_if<ChatFailure>(&result)) return *failure;
    return ChatFailure{ChatFailure::Kind::cancelled, -1, "(an answer: " + std::get<std::string>(result) + ")"};
}

void serve(httplib::Response& response, std::string body, const std::string& type) {
    response.set_content(std::move(body), type);
}

// The failure of a request that the service answers with `body` of content type `type` and `status`.
ChatFailure failureFor(ScriptedOpenAiService& service, const ChatCompletionClient& client, const std::string& body,
                       const std::string& type, int status = 200) {
    service.onChat([=](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        serve(response, body, type);
    });
    return failureOf(client.complete(kMessages, ""));
}

const std::string kGreeting = ScriptedOpenAiService::streamChunk({{"role", "assistant"}, {"content", ""}}) +
                              ScriptedOpenAiService::streamChunk({{"content", "Hello"}}) +
                              ScriptedOpenAiService::streamChunk({{"content", ", world."}});

TEST(ChatCompletion, APlainAnswerAndTheRequestThatAskedForIt) {
    ScriptedOpenAiService service;
    auto client = clientOf(service);
    EXPECT_EQ(textOf(client.complete(kMessages, "")), "Completed text.");
    EXPECT_EQ(textOf(client.complete(kMessages, "other-model")), "Completed text.");

    auto chats = service.chats();
    ASSERT_EQ(chats.size(), 2u);
    EXPECT_EQ(chats[0].path, "/v1/chat/completions");
    EXPECT_EQ(chats[0].authorization, "Bearer sk-chat");
    EXPECT_EQ(chats[0].contentType, "application/json");
    auto sent = chats[0].json();
    EXPECT_EQ(sent["model"], "chat-test");
    EXPECT_EQ(sent["stream"], false);
    EXPECT_EQ(sent["messages"], json::parse(R"([{"role":"system","content":"Rewrite the text you are given."},
                                                {"role":"user","content":"hello there"}])"));
    // Nothing else: parameters a model lacks make several services refuse the request.
    EXPECT_EQ(sent.size(), 3u) << sent.dump();
    EXPECT_EQ(chats[1].json()["model"], "other-model");
}

TEST(ChatCompletion, AStreamedAnswerIsPutTogetherFromItsEvents) {
    ScriptedOpenAiService service;
    auto client = clientOf(service);
    const std::string usage = R"(data: {"id":"chatcmpl-test","choices":[],"usage":{"total_tokens":9}})" "\n\n";
    struct Case {
        const char* what;
        std::string body;
        std::string type;
    };
    std::string crlf;
    for (char c : ": keep-alive\n\n" + kGreeting + ScriptedOpenAiService::streamChunk(json::object(), "stop") +
                      "data: [DONE]\n\n") {
        if (c == '\n') crlf += '\r';
        crlf += c;
    }
    const std::vector<Case> cases = {
        {"as the services send it", ": keep-alive\n\n" + kGreeting +
                                        ScriptedOpenAiService::streamChunk(json::object(), "stop") + usage +
                                        "data: [DONE]\n\n",
         "text/event-stream; charset=utf-8"},
        {"with CRLF lines, through a proxy that names no event stream", crlf, "text/plain"},
        {"with event and id fields", "event: message\nid: 1\n" + kGreeting + "id: 2\ndata: [DONE]\n\n",
         "text/event-stream"},
        {"ended by its finish reason alone", kGreeting + ScriptedOpenAiService::streamChunk(json::object(), "stop"),
         "text/event-stream"},
        {"without the blank line after the last event", kGreeting + "data: [DONE]\n", "text/event-stream"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        service.onChat([&c](const httplib::Request&, httplib::Response& response) { serve(response, c.body, c.type); });
        EXPECT_EQ(textOf(client.complete(kMessages, "")), "Hello, world.");
    }

    // A refusal streams no text at all and says why in its finish reason.
    auto refused = failureFor(
        service, client,
        ScriptedOpenAiService::streamChunk({{"role", "assistant"}}, "content_filter") + "data: [DONE]\n\n",
        "text/event-stream");
    EXPECT_EQ(refused.kind, ChatFailure::Kind::invalidAnswer);
    EXPECT_NE(refused.detail.find("content_filter"), std::string::npos) << refused.detail;
}

TEST(ChatCompletion, AStreamCutInTheMiddleIsNoAnswer) {
    ScriptedOpenAiService service;
    auto client = clientOf(service);

    // The body ends, whole as far as HTTP goes, before the stream does; or the last event is cut in the middle
    // of its line.
    for (const auto& body : {kGreeting, kGreeting + R"(data: {"choices":[{"index":0,"delta":{"content":" And th)"}) {
        auto ended = failureFor(service, client, body, "text/event-stream");
        EXPECT_EQ(ended.kind, ChatFailure::Kind::invalidAnswer);
        EXPECT_EQ(ended.detail, "the streamed answer broke off before its end");
    }

    // The connection drops in the middle of a chunked body.
    service.onChat([](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("text/event-stream", [](std::size_t offset, httplib::DataSink& sink) {
            if (offset > 0) return false;
            sink.write(kGreeting.data(), kGreeting.size());
            return true;
        });
    });
    auto dropped = failureOf(client.complete(kMessages, ""));
    EXPECT_EQ(dropped.kind, ChatFailure::Kind::invalidAnswer);
    EXPECT_EQ(dropped.detail.rfind("the answer broke off: ", 0), 0u) << dropped.detail;

    // The service reports its own failure inside the stream.
    auto reported = failureFor(service, client,
                               kGreeting + R"(data: {"error":{"message":"the model ran out of memory"}})" "\n\n",
                               "text/event-stream");
    EXPECT_EQ(reported.kind, ChatFailure::Kind::rejected);
    EXPECT_NE(reported.detail.find("the model ran out of memory"), std::string::npos) << reported.detail;
}

TEST(ChatCompletion, AnHtmlErrorPageIsAnHttpErrorWithoutItsHtml) {
    ScriptedOpenAiService service;
    auto failure = failureFor(service, clientOf(service),
                              "<html><head><title>500 Internal Server Error</title></head><body><h1>Internal "
                              "Server Error</h1></body></html>",
                              "text/html", 500);
    EXPECT_EQ(failure.kind, ChatFailure::Kind::rejected);
    EXPECT_EQ(failure.status, 500);
    EXPECT_EQ(failure.detail, "HTTP 500");
}

TEST(ChatCompletion, ABodyThatIsNotJsonIsAnInvalidAnswer) {
    ScriptedOpenAiService service;
    auto client = clientOf(service);
    for (const auto& [body, type] : std::vector<std::pair<std::string, std::string>>{
             {"Hello, I am a web server.", "text/plain"},
             {"<html><body>Welcome</body></html>", "text/html"},
             {R"({"choices": [ {"message": )", "application/json"},
             {"", "application/json"}}) {
        SCOPED_TRACE(body);
        auto failure = failureFor(service, client, body, type);
        EXPECT_EQ(failure.kind, ChatFailure::Kind::invalidAnswer);
        EXPECT_EQ(failure.status, 200);
        EXPECT_EQ(failure.detail, "the answer is not a JSON object");
    }
}

TEST(ChatCompletion, AServiceThatNeverAnswersEndsWithTheTimeOut) {
    SilentListener silent;
    ChatCompletionClient client({silent.url(), "", "chat-test", std::chrono::seconds(1)});
    auto started = Clock::now();
    auto failure = failureOf(client.complete(kMessages, ""));
    auto took = Clock::now() - started;
    EXPECT_EQ(failure.kind, ChatFailure::Kind::unreachable) << failure.detail;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(LocalAiProbe, FindsARunnerByItsModelList) {
    ScriptedOpenAiService runner;
    runner.onModels([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::modelList(response, {"llama3.2:latest", "qwen2.5:7b"});
    });
    auto request = probeAt(runner.url());
    auto found = probeChatService(request);
    ASSERT_TRUE(std::holds_alternative<ProbedService>(found)) << std::get<ChatFailure>(found).detail;
    EXPECT_EQ(std::get<ProbedService>(found).apiRoot, runner.url() + "/v1");
    EXPECT_EQ(std::get<ProbedService>(found).model, "llama3.2:latest");
    EXPECT_EQ(std::get<ProbedService>(found).modelCount, 2u);

    // A model that is named is taken when the runner has it, else the first.
    request.wantedModel = "qwen2.5:7b";
    EXPECT_EQ(std::get<ProbedService>(probeChatService(request)).model, "qwen2.5:7b");
    request.wantedModel = "mistral";
    EXPECT_EQ(std::get<ProbedService>(probeChatService(request)).model, "llama3.2:latest");

    // The other URL forms of a configured service lead to the same list.
    for (const auto& url : {runner.url() + "/v1/", runner.url() + "/v1/chat/completions"}) {
        request.url = url;
        auto again = probeChatService(request);
        ASSERT_TRUE(std::holds_alternative<ProbedService>(again)) << url;
        EXPECT_EQ(std::get<ProbedService>(again).apiRoot, runner.url() + "/v1");
    }
    ASSERT_EQ(runner.modelLists().size(), 5u);
    for (const auto& asked : runner.modelLists()) {
        EXPECT_EQ(asked.path, "/v1/models");
        EXPECT_EQ(asked.authorization, "");
    }
}

TEST(LocalAiProbe, WhatIsNoServiceAndHowLongItTakesToTell) {
    auto started = Clock::now();
    auto nothing = probeChatService(probeAt("http://127.0.0.1:" + std::to_string(closedPort())));
    ASSERT_TRUE(std::holds_alternative<ChatFailure>(nothing));
    EXPECT_EQ(std::get<ChatFailure>(nothing).kind, ChatFailure::Kind::unreachable);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));

    ScriptedOpenAiService other;
    auto kindOf = [&] {
        auto result = probeChatService(probeAt(other.url()));
        return std::holds_alternative<ChatFailure>(result) ? std::get<ChatFailure>(result).kind
                                                           : ChatFailure::Kind::cancelled;
    };
    EXPECT_EQ(kindOf(), ChatFailure::Kind::rejected); // no model list here: 404
    other.onModels([](const httplib::Request&, httplib::Response& response) {
        serve(response, R"({"models":[{"name":"llama3.2"}]})", "application/json");
    });
    EXPECT_EQ(kindOf(), ChatFailure::Kind::invalidAnswer); // a list, but not the OpenAI one
    other.onModels([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::modelList(response, {});
    });
    EXPECT_EQ(kindOf(), ChatFailure::Kind::invalidAnswer);

    // Something that accepts and never answers costs the probe's time-out, not the request's.
    SilentListener silent;
    started = Clock::now();
    auto silence = probeChatService(probeAt(silent.url()));
    ASSERT_TRUE(std::holds_alternative<ChatFailure>(silence));
    EXPECT_EQ(std::get<ChatFailure>(silence).kind, ChatFailure::Kind::unreachable);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(4));
}

class AiAutoDetect : public ::testing::Test {
protected:
    void startServer(const std::function<void(ServerConfig&)>& adjust) {
        auto config = loopbackConfig(data_.path());
        config.aiAutoDetect = true;
        config.aiAutoDetectUrl = runner_.url();
        adjust(config);
        server_ = std::make_unique<BackendServer>(config);
        auto started = Clock::now();
        server_->start();
        startTook_ = Clock::now() - started;
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(60, 0);
    }
    void TearDown() override {
        client_.reset();
        if (server_) server_->stop();
    }
    httplib::Result complete(const std::string& text = "so um hello there") {
        return client_->Post("/completions?app=linux-0.1.0", {{"Authorization", "Bearer " + token()}},
                             json{{"prompt_id", "fix_grammar"}, {"prompt_param", ""}, {"text", text}}.dump(),
                             "application/json");
    }
    json userInfo() {
        auto info = client_->Get("/users/info", {{"Authorization", "Bearer " + token()}});
        return info ? json::parse(info->body, nullptr, false) : json();
    }
    std::string token() const { return server_->localAccount().token; }
    static int statusOf(const httplib::Result& result) { return result ? result->status : -1; }
    static std::string errorOf(const httplib::Result& result) {
        return result ? jsonString(json::parse(result->body, nullptr, false), "error") : "(no answer)";
    }
    static std::string messageOf(const httplib::Result& result) {
        return result ? jsonString(json::parse(result->body, nullptr, false), "message") : "(no answer)";
    }
    void runnerLists(std::vector<std::string> models) {
        runner_.onModels([models](const httplib::Request&, httplib::Response& response) {
            ScriptedOpenAiService::modelList(response, models);
        });
    }

    platform::test::RecordingLogSink logs_;
    ScriptedOpenAiService runner_;
    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::unique_ptr<httplib::Client> client_;
    Clock::duration startTook_{};
};

TEST_F(AiAutoDetect, TheStandaloneServerDoesNotLookUnlessAskedTo) {
    EXPECT_FALSE(ServerConfig().aiAutoDetect);
    auto parse = [](std::vector<const char*> a) { return parseServerCommandLine(static_cast<int>(a.size()), a.data()); };
    auto plain = parse({"sprelio-server"});
    ASSERT_TRUE(plain.config);
    EXPECT_FALSE(plain.config->aiAutoDetect);
    EXPECT_EQ(plain.config->aiAutoDetectUrl, "http://127.0.0.1:11434");
    auto asked = parse({"sprelio-server", "--ai-auto-detect", "on", "--ai-auto-detect-url", "http://127.0.0.1:8080"});
    ASSERT_TRUE(asked.config) << asked.error;
    EXPECT_TRUE(asked.config->aiAutoDetect);
    EXPECT_EQ(asked.config->aiAutoDetectUrl, "http://127.0.0.1:8080");
    EXPECT_FALSE(parse({"sprelio-server", "--ai-auto-detect", "maybe"}).config);
    EXPECT_NE(serverUsage().find("--ai-auto-detect on|off"), std::string::npos);
    EXPECT_NE(serverUsage().find("--ai-auto-detect-url URL"), std::string::npos);

    ServerConfig fromJson;
    std::string error;
    ASSERT_TRUE(applyServerConfigJson(
        R"({"aiAutoDetect":true,"aiAutoDetectUrl":"http://127.0.0.1:1234","aiAutoDetectIntervalSeconds":5})", fromJson,
        error))
        << error;
    EXPECT_TRUE(fromJson.aiAutoDetect);
    EXPECT_EQ(fromJson.aiAutoDetectUrl, "http://127.0.0.1:1234");
    EXPECT_EQ(fromJson.aiAutoDetectIntervalSeconds, 5);

    // Off, nothing is asked even with a runner at the address.
    runnerLists({"llama3.2"});
    startServer([](ServerConfig& config) { config.aiAutoDetect = false; });
    EXPECT_EQ(errorOf(complete()), "AINotConfigured");
    EXPECT_TRUE(runner_.modelLists().empty());
    EXPECT_FALSE(server_->hasAi());
}

TEST_F(AiAutoDetect, ARunnerFoundAtStartServesTheAiRequestsWithoutAKey) {
    runnerLists({"llama3.2", "qwen2.5:7b"});
    // Local runners stream now and then even when asked not to.
    runner_.onChat([](const httplib::Request&, httplib::Response& response) {
        serve(response,
              ScriptedOpenAiService::streamChunk({{"role", "assistant"}, {"content", "So, hello"}}) +
                  ScriptedOpenAiService::streamChunk({{"content", " there."}}, "stop") + "data: [DONE]\n\n",
              "text/event-stream");
    });
    // The key belongs to a configured service; whatever listens at the local address never sees it.
    startServer([](ServerConfig& config) { config.aiKey = "sk-not-for-the-runner"; });
    ASSERT_TRUE(waitFor([&] { return server_->hasAi(); }));
    EXPECT_TRUE(logs_.contains("BackendServer.findAiService() - found an OpenAI-compatible service at " +
                               urlHost(runner_.url()) + " lists 2 model(s); using llama3.2"));

    auto result = complete();
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200) << result->body;
    EXPECT_EQ(json::parse(result->body), json({{"completion", "So, hello there."}}));
    ASSERT_EQ(runner_.chats().size(), 1u);
    EXPECT_EQ(runner_.chats()[0].path, "/v1/chat/completions");
    EXPECT_EQ(runner_.chats()[0].json()["model"], "llama3.2");
    EXPECT_EQ(runner_.chats()[0].authorization, "");
    EXPECT_EQ(runner_.modelLists().size(), 1u);

    auto info = userInfo();
    EXPECT_EQ(info["flags"]["aiCompletions"], true);
    ASSERT_EQ(info["ai"]["models"].size(), 1u);
    EXPECT_EQ(info["ai"]["models"][0]["model"], "llama3.2");
    EXPECT_EQ(info["ai"]["servers"][0]["models"], json::array({"llama3.2"}));
}

TEST_F(AiAutoDetect, TheNamedModelIsTakenWhenTheRunnerHasIt) {
    runnerLists({"llama3.2", "qwen2.5:7b"});
    startServer([](ServerConfig& config) { config.aiModel = "qwen2.5:7b"; });
    ASSERT_EQ(statusOf(complete()), 200);
    ASSERT_EQ(runner_.chats().size(), 1u);
    EXPECT_EQ(runner_.chats()[0].json()["model"], "qwen2.5:7b");
}

TEST_F(AiAutoDetect, WithoutAServiceTheAnswerSaysWhatToSetUpAndARunnerStartedLaterIsFound) {
    const int port = closedPort();
    const std::string address = "127.0.0.1:" + std::to_string(port);
    startServer([&](ServerConfig& config) {
        config.aiAutoDetectUrl = "http://" + address;
        config.aiAutoDetectIntervalSeconds = 3;
    });
    auto startedAt = Clock::now();
    EXPECT_LT(startTook_, std::chrono::seconds(1));
    auto first = complete();
    EXPECT_EQ(errorOf(first), "AINotConfigured");
    EXPECT_EQ(statusOf(first), 501);
    EXPECT_EQ(messageOf(first), "No AI service is set up on this server: its operator names an OpenAI-compatible "
                                "chat service with --ai-url and --ai-model (aiUrl and aiModel in its configuration "
                                "file), or starts a local one on " + address + ".");
    EXPECT_TRUE(logs_.containsPrefix("BackendServer.findAiService() - no AI service at " + address + ": "));

    ScriptedOpenAiService runner(port);
    runner.onModels([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::modelList(response, {"phi3"});
    });
    // Within the interval the last look stands: the runner is not asked yet.
    auto soon = complete();
    if (Clock::now() - startedAt < std::chrono::milliseconds(2500)) {
        EXPECT_EQ(errorOf(soon), "AINotConfigured");
        EXPECT_TRUE(runner.modelLists().empty());
    }
    // Then the next request looks again and finds it; the requests in between asked nothing.
    ASSERT_TRUE(waitFor(
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            auto result = complete();
            return result && result->status == 200;
        },
        std::chrono::seconds(15)));
    EXPECT_EQ(runner.modelLists().size(), 1u);
    ASSERT_EQ(runner.chats().size(), 1u);
    EXPECT_EQ(runner.chats()[0].json()["model"], "phi3");
    EXPECT_EQ(userInfo()["ai"]["models"][0]["model"], "phi3");
}

TEST_F(AiAutoDetect, ALookThatHangsHoldsNeitherTheStartNorARequestForLong) {
    SilentListener silent;
    startServer([&](ServerConfig& config) { config.aiAutoDetectUrl = silent.url(); });
    EXPECT_LT(startTook_, std::chrono::seconds(1));
    auto started = Clock::now();
    EXPECT_EQ(errorOf(complete()), "AINotConfigured");
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
}

TEST_F(AiAutoDetect, ARunnerThatGoesAwayIsLookedForAgain) {
    runnerLists({"llama3.2"});
    startServer([](ServerConfig& config) { config.aiAutoDetectIntervalSeconds = 0; });
    ASSERT_EQ(statusOf(complete()), 200);
    runner_.stop();
    EXPECT_EQ(errorOf(complete()), "AIServerUnavailable");
    EXPECT_EQ(errorOf(complete()), "AINotConfigured");
    EXPECT_FALSE(server_->hasAi());
}

TEST_F(AiAutoDetect, AConfiguredServiceWithoutAModelGetsItsFirstAndTheKeyStaysOutOfTheLog) {
    const std::string key = "sk-listed-9f8e7d6c5b4a";
    auto keyFile = data_.path() / "ai.key";
    std::ofstream(keyFile) << key << "\n";
    std::filesystem::permissions(keyFile, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    runnerLists({"gpt-small", "gpt-large"});
    startServer([&](ServerConfig& config) {
        config.aiUrl = runner_.url() + "/v1";
        config.aiKeyFile = keyFile;
    });
    auto result = complete();
    ASSERT_EQ(statusOf(result), 200) << (result ? result->body : "");
    ASSERT_EQ(runner_.modelLists().size(), 1u);
    EXPECT_EQ(runner_.modelLists()[0].authorization, "Bearer " + key);
    ASSERT_EQ(runner_.chats().size(), 1u);
    EXPECT_EQ(runner_.chats()[0].authorization, "Bearer " + key);
    EXPECT_EQ(runner_.chats()[0].json()["model"], "gpt-small");
    EXPECT_EQ(userInfo().dump().find(key), std::string::npos);

    // A failing service: its failure, not the advice to set one up.
    runner_.onChat([](const httplib::Request&, httplib::Response& response) {
        response.status = 401;
        serve(response, R"({"error":{"message":"invalid api key"}})", "application/json");
    });
    EXPECT_EQ(errorOf(complete()), "AIServerError");
    ASSERT_FALSE(logs_.lines().empty());
    for (const auto& line : logs_.lines()) EXPECT_EQ(line.message.find(key), std::string::npos) << line.message;
}

TEST_F(AiAutoDetect, AConfiguredServiceWhoseModelsCantBeListedIsUnavailableNotMissing) {
    startServer([&](ServerConfig& config) {
        config.aiUrl = "http://127.0.0.1:" + std::to_string(closedPort());
    });
    EXPECT_FALSE(server_->hasAi());
    EXPECT_EQ(errorOf(complete()), "AIServerUnavailable");
}

} // namespace
} // namespace sprelio::server::test
