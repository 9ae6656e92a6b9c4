// The completion service end to end on loopback: the request as each AI server receives it, the walk over the
// servers with every way a server can fail, the forced refresh for a preset's model, the two list files, and the
// user's text kept out of the log.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ai/IntelligenceManager.h"
#include "backend/UploadTestSupport.h"
#include "store/Entities.h"

namespace sprelio::aitest {
namespace {

using namespace std::chrono_literals;
using backendtest::jsonAnswer;
using backendtest::RecordedRequest;
using backendtest::Script;
using backendtest::ScriptedServer;
using Kind = AICompletionError::Kind;

constexpr const char* kModelA = "gpt-a";
constexpr const char* kModelB = "gpt-b";

// The account service as the manager sees it: each forced refresh is noted; it brings the queued server list, or
// fails when none is queued.
class AIListRefresher final : public UserInfoRefresher {
public:
    struct Call {
        std::string caller;
        bool ignoreDebounceTime;
    };
    IntelligenceManager* manager = nullptr;
    std::vector<Call> calls;
    std::optional<std::vector<AIServerItem>> nextServers;

    void refreshUserInfo(const std::string& caller, bool ignoreDebounceTime,
                         std::function<void(std::optional<Error>)> done) override {
        calls.push_back({caller, ignoreDebounceTime});
        if (!nextServers) return done(Error{"Test", 1, "account service unreachable", {}});
        manager->setAIServerItems(*nextServers);
        nextServers.reset();
        done(std::nullopt);
    }
};

struct Answer {
    std::optional<std::string> text;
    std::optional<AICompletionError> error;
};

// Every call of one completion, in order; a request answers exactly once.
struct Answers {
    std::vector<Answer> calls;
    IntelligenceManager::Completion completion() {
        return [this](std::optional<std::string> text, std::optional<AICompletionError> error) {
            calls.push_back({std::move(text), std::move(error)});
        };
    }
};

AIServerItem serverItem(const std::string& name, const std::string& url, std::vector<std::string> models) {
    return AIServerItem{"uuid-" + name, name, url, std::move(models)};
}

AIModelItem modelItem(const std::string& name, const std::string& model) {
    return AIModelItem{name, model, {"en", "de"}, std::string("openai"), std::string("OpenAI"),
                       std::vector<std::string>{"translate"}};
}

std::vector<std::string> encoded(const std::vector<AIServerItem>& items) {
    std::vector<std::string> texts;
    for (const auto& item : items) texts.push_back(item.encode().dump());
    return texts;
}

std::vector<std::string> encoded(const std::vector<AIModelItem>& items) {
    std::vector<std::string> texts;
    for (const auto& item : items) texts.push_back(item.encode().dump());
    return texts;
}

class IntelligenceFixture : public backendtest::UploadFixture {
protected:
    IntelligenceFixture() {
        hooked.beforeSend = [this](const platform::HttpRequest& request) { timeouts.push_back(request.timeout); };
        intelligence = makeManager();
    }

    ~IntelligenceFixture() override { intelligence.reset(); }

    std::unique_ptr<IntelligenceManager> makeManager() {
        auto made = std::make_unique<IntelligenceManager>(
            IntelligenceManager::Dependencies{loop, hooked, *settings, *constants, &refresher});
        refresher.manager = made.get();
        return made;
    }

    // A scripted server that answers every request alike.
    ScriptedServer& addServer(Script script) {
        servers.push_back(std::make_unique<ScriptedServer>());
        servers.back()->scriptDefault(std::move(script));
        return *servers.back();
    }

    // The address of an AI server entry: no trailing slash, as the account service gives it.
    std::string urlOf(const ScriptedServer& server, const std::string& path = "") const {
        return "http://127.0.0.1:" + std::to_string(server.port()) + path;
    }

    // An address where nothing listens any more: connecting is refused.
    std::string deadURL() {
        ScriptedServer gone;
        const std::string url = urlOf(gone);
        gone.stop();
        return url;
    }

    std::shared_ptr<Answers> askByPromptId(const std::string& text = "hello there") {
        auto answers = std::make_shared<Answers>();
        intelligence->textCompletionWithPromptId(AICompletionPromptId{"summarize", "formal", text, "de", "en"},
                                                 answers->completion());
        return answers;
    }

    std::shared_ptr<Answers> askByPreset(std::optional<std::string> model, const std::string& text = "hi there",
                                         std::optional<std::string> prompt = std::string("Make it formal")) {
        store::IntelligencePreset preset;
        preset.setTitle(std::string("Formal"));
        preset.setPrompt(std::move(prompt));
        preset.setModel(std::move(model));
        auto answers = std::make_shared<Answers>();
        intelligence->textCompletionWithPreset(preset, text, answers->completion());
        return answers;
    }

    // Waits for the one answer and gives the loop the chance to deliver a second one, which must not come.
    const Answer& answerOf(const std::shared_ptr<Answers>& answers) {
        EXPECT_TRUE(waitFor([&] { return !answers->calls.empty(); }));
        drain();
        EXPECT_EQ(answers->calls.size(), 1u);
        static const Answer kNone{};
        return answers->calls.empty() ? kNone : answers->calls.front();
    }

    std::string completionsTarget(const std::string& path = "") const {
        return path + "/completions?app=" + constants->clientVersion();
    }

    bool loggedErrorFromManager() const {
        for (const auto& line : logs.lines()) {
            if (line.level == LogLevel::error && line.message.rfind("IntelligenceManager.", 0) == 0) return true;
        }
        return false;
    }

    AIListRefresher refresher;
    std::vector<std::chrono::milliseconds> timeouts;
    std::unique_ptr<IntelligenceManager> intelligence;
};

// ---- The request as it leaves ----

using IntelligenceManagerRequest = IntelligenceFixture;

TEST_F(IntelligenceManagerRequest, ByPromptIdPostsTheFiveKeysWithTokenAndAppIdentifier) {
    auto& server = addServer(jsonAnswer(R"({"completion":"Dear Sir"})"));
    // The server's path stays in front: the url and the rest are simply joined.
    intelligence->setAIServerItems({serverItem("S1", urlOf(server, "/v1"), {kModelA})});

    auto answers = askByPromptId();
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.text);
    EXPECT_EQ(*answer.text, "Dear Sir");
    EXPECT_FALSE(answer.error);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const RecordedRequest& request = requests[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, completionsTarget("/v1"));
    EXPECT_EQ(constants->clientVersion().rfind("linux-", 0), 0u);
    EXPECT_EQ(request.header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.body,
              R"({"app_lang":"en","prompt_id":"summarize","prompt_param":"formal","text":"hello there","text_lang":"de"})");
    EXPECT_EQ(timeouts, std::vector<std::chrono::milliseconds>{60s});

    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - requestBody: <privatized>",
                              LogLevel::info));
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: " +
                              urlOf(server, "/v1") + completionsTarget()));
}

TEST_F(IntelligenceManagerRequest, ByPresetAsksOnlyTheServersOfItsModelWithPromptTextAndModel) {
    auto& other = addServer(jsonAnswer(R"({"completion":"wrong server"})"));
    auto& serving = addServer(jsonAnswer(R"({"completion":"Good day"})"));
    const auto servingItem = serverItem("S2", urlOf(serving), {kModelA, kModelB});
    intelligence->setAIServerItems({serverItem("S1", urlOf(other), {kModelA}), servingItem});

    auto answers = askByPreset(std::string(kModelB));
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.text);
    EXPECT_EQ(*answer.text, "Good day");

    EXPECT_EQ(other.requestCount(), 0u);
    const auto requests = serving.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, completionsTarget());
    EXPECT_EQ(requests[0].header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].body, R"({"model":"gpt-b","prompt":"Make it formal","text":"hi there"})");
    EXPECT_TRUE(refresher.calls.empty()) << "a listed model needs no refresh";

    EXPECT_TRUE(logs.containsPrefix("IntelligenceManager.textCompletionWithPreset() - enabledPreset: <IntelligencePreset"));
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - model: gpt-b"));
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - serversWithModel: [" +
                              servingItem.encode().dump() + "]"));
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - requestBody: <privatized>"));
    EXPECT_TRUE(logs.contains("textCompletionWithPreset() - aiServerURLString: " + urlOf(serving) +
                              completionsTarget()));
}

TEST_F(IntelligenceManagerRequest, PresetWithoutModelTakesTheFirstKnownModel) {
    auto& server = addServer(jsonAnswer(R"({"completion":"ok"})"));
    intelligence->setAIModelItems({modelItem("Model B", kModelB), modelItem("Model A", kModelA)});
    intelligence->setAIServerItems({serverItem("S1", urlOf(server), {kModelB})});
    EXPECT_EQ(intelligence->defaultModel(), kModelB);

    auto answers = askByPreset(std::nullopt, "words", std::nullopt);
    ASSERT_TRUE(answerOf(answers).text);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    // A preset without a prompt sends an empty one.
    EXPECT_EQ(requests[0].body, R"({"model":"gpt-b","prompt":"","text":"words"})");
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - model: gpt-b"));
}

TEST_F(IntelligenceManagerRequest, CompletionNeverRunsBeforeTheCallReturns) {
    auto answers = askByPromptId();
    EXPECT_TRUE(answers->calls.empty());
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::noResult);
}

TEST_F(IntelligenceManagerRequest, EmptyServerListEndsWithNoResultAndNoRequest) {
    auto answers = askByPromptId();
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_FALSE(answer.text);
    EXPECT_EQ(answer.error->kind(), Kind::noResult);
    EXPECT_EQ(answer.error->errorDescription(), "Failed to produce a valid result.");
    EXPECT_TRUE(timeouts.empty());
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - requestBody: <privatized>"));
    EXPECT_FALSE(logs.containsPrefix("IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: "));
}

TEST_F(IntelligenceManagerRequest, MissingTokenSkipsEveryServerAsAnInvalidURL) {
    settings->setToken(std::nullopt);
    auto& first = addServer(jsonAnswer(R"({"completion":"one"})"));
    auto& second = addServer(jsonAnswer(R"({"completion":"two"})"));
    intelligence->setAIServerItems(
        {serverItem("S1", urlOf(first), {kModelA}), serverItem("S2", urlOf(second), {kModelA})});

    auto answers = askByPromptId();
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::invalidServerURL);
    EXPECT_EQ(answer.error->errorDescription(), "Invalid server URL for AI processing.");
    EXPECT_EQ(first.requestCount() + second.requestCount(), 0u);
    // Both were considered, the last one's error is logged.
    EXPECT_EQ(logs.count("IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: " + urlOf(second) +
                         completionsTarget()),
              1u);
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - error: Invalid server URL for AI "
                              "processing.",
                              LogLevel::error));
}

TEST_F(IntelligenceManagerRequest, TextThatCannotBecomeJSONFailsAtOnceWithoutWalking) {
    auto& first = addServer(jsonAnswer(R"({"completion":"one"})"));
    auto& second = addServer(jsonAnswer(R"({"completion":"two"})"));
    intelligence->setAIServerItems(
        {serverItem("S1", urlOf(first), {kModelA}), serverItem("S2", urlOf(second), {kModelA})});

    auto answers = askByPromptId(std::string("broken \xFF byte"));
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::requestError);
    EXPECT_EQ(answer.error->errorDescription(),
              "Request error during AI processing: The request couldn’t be written as JSON.");
    EXPECT_EQ(first.requestCount() + second.requestCount(), 0u);
    EXPECT_EQ(logs.count("IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: " + urlOf(second) +
                         completionsTarget()),
              0u)
        << "the second server is not tried";
}

TEST_F(IntelligenceManagerRequest, ManagerGoneBeforeTheAnswerCallsNothing) {
    Script held = jsonAnswer(R"({"completion":"late"})");
    held.gateBeforeHead = "answer";
    auto& server = addServer(held);
    intelligence->setAIServerItems({serverItem("S1", urlOf(server), {kModelA})});
    auto answers = askByPromptId();
    ASSERT_TRUE(waitFor([&] { return server.headsReceived() == 1; }));
    intelligence.reset();
    server.openGate("answer");
    drain();
    EXPECT_TRUE(answers->calls.empty());
}

// ---- The walk over the servers ----

// How one server of a row behaves.
struct ServerPlan {
    enum class Kind { answers, unreachable, noURL };
    Kind kind = Kind::answers;
    Script script;
};

ServerPlan answering(std::string body, int status = 200) { return {ServerPlan::Kind::answers, jsonAnswer(std::move(body), status)}; }
ServerPlan unreachable() { return {ServerPlan::Kind::unreachable, {}}; }
ServerPlan withoutURL() { return {ServerPlan::Kind::noURL, {}}; }

struct FailoverRow {
    const char* name;
    std::vector<ServerPlan> servers;
    // The generated text, or the error: its kind and user text (a prefix for transport errors, whose wording is the
    // transport's).
    std::optional<std::string> text;
    std::optional<Kind> errorKind;
    std::string errorText;
    bool errorTextIsPrefix = false;
    // For a server's refusal: the domain and code of the underlying error.
    std::optional<std::string> refusalDomain;
    long refusalCode = 0;
    // Requests each scripted server received.
    std::vector<std::size_t> requests;
};

const std::vector<FailoverRow>& failoverRows() {
    static const std::vector<FailoverRow> rows{
        {"ServerErrorWithEmptyBodyThenSuccess",
         {answering("", 500), answering(R"({"completion":"from the second"})")},
         std::string("from the second"), std::nullopt, "", false, std::nullopt, 0, {1, 1}},
        {"RefusalWithStopEndsAtTheFirstServer",
         {answering(R"({"stop":true,"error":"TooManyRequests","message":"Slow down, please."})", 429),
          answering(R"({"completion":"never"})")},
         std::nullopt, Kind::requestError, "Request error during AI processing: Slow down, please.", false,
         std::string("TooManyRequests"), 429, {1, 0}},
        {"RefusalWithoutErrorKeyIsUnknownError",
         {answering(R"({"stop":true,"message":"Try later."})", 503), answering(R"({"completion":"never"})")},
         std::nullopt, Kind::requestError, "Request error during AI processing: Try later.", false,
         std::string("UnknownError"), 503, {1, 0}},
        {"RefusalWithoutMessageHasTheStandardText",
         {answering(R"({"stop":true,"error":"Quota"})", 402)},
         std::nullopt, Kind::requestError, "Request error during AI processing: An unknown error occurred.", false,
         std::string("Quota"), 402, {1}},
        {"StopFalseGoesOnAndTheLastIsAnInvalidResponse",
         {answering(R"({"stop":false,"error":"Busy","message":"busy"})", 503), answering("<html>gone</html>", 404)},
         std::nullopt, Kind::invalidResponse, "Invalid response from the AI processing server.", false, std::nullopt,
         0, {1, 1}},
        {"AnswerWithoutCompletionGoesOnAndEndsInDecodingError",
         {answering(R"({"answer":"x"})"), answering(R"({"result":"y"})")},
         std::nullopt, Kind::decodingError,
         "Decoding error during AI processing: The data couldn’t be read because it is missing.", false, std::nullopt,
         0, {1, 1}},
        {"AnswerThatIsNoJSONThenCompletionOfWrongType",
         {answering("plain words"), answering(R"({"completion":5})")},
         std::nullopt, Kind::decodingError,
         "Decoding error during AI processing: The data couldn’t be read because it isn’t in the correct format.",
         false, std::nullopt, 0, {1, 1}},
        {"AnswerWithoutCompletionThenSuccess",
         {answering(R"({"completion":null})"), answering(R"({"completion":"fine"})")},
         std::string("fine"), std::nullopt, "", false, std::nullopt, 0, {1, 1}},
        {"ServerWithoutURLIsSkipped",
         {withoutURL(), answering(R"({"completion":"after the gap"})")},
         std::string("after the gap"), std::nullopt, "", false, std::nullopt, 0, {0, 1}},
        {"OnlyServersWithoutURL",
         {withoutURL(), withoutURL()},
         std::nullopt, Kind::invalidServerURL, "Invalid server URL for AI processing.", false, std::nullopt, 0,
         {0, 0}},
        {"UnreachableServerThenSuccess",
         {unreachable(), answering(R"({"completion":"reached"})")},
         std::string("reached"), std::nullopt, "", false, std::nullopt, 0, {0, 1}},
        {"LastServerUnreachable",
         {answering("", 502), unreachable()},
         std::nullopt, Kind::requestError, "Request error during AI processing: ", true, std::nullopt, 0, {1, 0}},
    };
    return rows;
}

class IntelligenceManagerFailover : public IntelligenceFixture,
                                    public ::testing::WithParamInterface<FailoverRow> {};

TEST_P(IntelligenceManagerFailover, WalksTheServersInOrder) {
    const FailoverRow& row = GetParam();
    std::vector<AIServerItem> items;
    std::vector<ScriptedServer*> scripted;
    for (std::size_t i = 0; i < row.servers.size(); ++i) {
        const auto& plan = row.servers[i];
        const std::string name = "S" + std::to_string(i + 1);
        ScriptedServer& server = addServer(plan.script);
        scripted.push_back(&server);
        std::string url = urlOf(server);
        if (plan.kind == ServerPlan::Kind::unreachable) url = deadURL();
        if (plan.kind == ServerPlan::Kind::noURL) url.clear();
        items.push_back(serverItem(name, url, {kModelA}));
    }
    intelligence->setAIServerItems(items);

    auto answers = askByPromptId();
    const auto& answer = answerOf(answers);

    for (std::size_t i = 0; i < row.requests.size(); ++i) {
        EXPECT_EQ(scripted[i]->requestCount(), row.requests[i]) << "server " << i + 1;
    }
    if (row.text) {
        ASSERT_TRUE(answer.text);
        EXPECT_EQ(*answer.text, *row.text);
        EXPECT_FALSE(answer.error);
        EXPECT_FALSE(loggedErrorFromManager()) << "a failure that a later server makes good leaves no trace";
        return;
    }
    ASSERT_TRUE(answer.error);
    EXPECT_FALSE(answer.text);
    EXPECT_EQ(aiCompletionErrorKindName(answer.error->kind()), aiCompletionErrorKindName(*row.errorKind));
    const std::string description = answer.error->errorDescription();
    if (row.errorTextIsPrefix) {
        EXPECT_EQ(description.rfind(row.errorText, 0), 0u) << description;
        EXPECT_GT(description.size(), row.errorText.size()) << "the transport's own words follow";
        ASSERT_TRUE(answer.error->error());
        EXPECT_EQ(answer.error->error()->domain, url_error::kDomain);
    } else {
        EXPECT_EQ(description, row.errorText);
    }
    if (row.refusalDomain) {
        ASSERT_TRUE(answer.error->error());
        EXPECT_EQ(answer.error->error()->domain, *row.refusalDomain);
        EXPECT_EQ(answer.error->error()->code, row.refusalCode);
        // The refusal logs the server's words; the user text adds the prefix.
        EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - error: " +
                                      answer.error->error()->localizedDescription,
                                  LogLevel::error));
    } else {
        EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - error: " + description,
                                  LogLevel::error));
    }
}

INSTANTIATE_TEST_SUITE_P(IntelligenceManager, IntelligenceManagerFailover, ::testing::ValuesIn(failoverRows()),
                         [](const ::testing::TestParamInfo<FailoverRow>& row) { return std::string(row.param.name); });

using IntelligenceManagerWalk = IntelligenceFixture;

TEST_F(IntelligenceManagerWalk, MissingURLLeavesOnlyPathAndQueryInTheLog) {
    auto& server = addServer(jsonAnswer(R"({"completion":"ok"})"));
    intelligence->setAIServerItems({serverItem("S1", "", {kModelA}), serverItem("S2", urlOf(server), {kModelA})});
    auto answers = askByPromptId();
    ASSERT_TRUE(answerOf(answers).text);
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPromptId() - aiServerURLString: " +
                              completionsTarget()));
}

TEST_F(IntelligenceManagerWalk, NextRequestStartsAtTheFirstServerAgain) {
    auto& first = addServer(jsonAnswer("", 500));
    auto& second = addServer(jsonAnswer(R"({"completion":"second"})"));
    intelligence->setAIServerItems(
        {serverItem("S1", urlOf(first), {kModelA}), serverItem("S2", urlOf(second), {kModelA})});
    for (int round = 1; round <= 2; ++round) {
        auto answers = askByPromptId();
        ASSERT_TRUE(answerOf(answers).text);
        EXPECT_EQ(first.requestCount(), std::size_t(round));
        EXPECT_EQ(second.requestCount(), std::size_t(round));
    }
}

TEST_F(IntelligenceManagerWalk, PresetWalksItsServersWithItsOwnLogLines) {
    auto& first = addServer(jsonAnswer(R"({"nothing":true})"));
    intelligence->setAIServerItems({serverItem("S1", urlOf(first), {kModelB})});
    auto answers = askByPreset(std::string(kModelB));
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::decodingError);
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - error: " +
                                  answer.error->errorDescription(),
                              LogLevel::error));
    EXPECT_FALSE(logs.containsPrefix("IntelligenceManager.textCompletionWithPromptId()"));
}

// ---- Servers for a model ----

using IntelligenceManagerPreset = IntelligenceFixture;

TEST_F(IntelligenceManagerPreset, ServersWithModelKeepsListOrderAndNeedsNoRefresh) {
    intelligence->setAIServerItems({serverItem("S1", "https://one.example", {kModelA}),
                                    serverItem("S2", "https://two.example", {kModelB}),
                                    serverItem("S3", "https://three.example", {kModelB, kModelA})});
    std::optional<std::optional<std::vector<AIServerItem>>> found;
    intelligence->serversWithModel(kModelA, [&](std::optional<std::vector<AIServerItem>> list) { found = list; });
    ASSERT_TRUE(waitFor([&] { return found.has_value(); }));
    ASSERT_TRUE(found->has_value());
    std::vector<std::string> names;
    for (const auto& server : **found) names.push_back(server.name);
    EXPECT_EQ(names, (std::vector<std::string>{"S1", "S3"}));
    EXPECT_TRUE(refresher.calls.empty());
}

// What one forced refresh brings decides the outcome for a model no server lists.
struct RefreshRow {
    const char* name;
    bool refreshSucceeds;
    bool refreshBringsTheModel;
};

class IntelligenceManagerRefresh : public IntelligenceFixture, public ::testing::WithParamInterface<RefreshRow> {};

TEST_P(IntelligenceManagerRefresh, UnlistedModelIsLookedUpAgainOnce) {
    const RefreshRow& row = GetParam();
    auto& server = addServer(jsonAnswer(R"({"completion":"from the new server"})"));
    intelligence->setAIServerItems({serverItem("S1", urlOf(server), {kModelA})});
    if (row.refreshSucceeds) {
        refresher.nextServers = std::vector<AIServerItem>{serverItem(
            "S1", urlOf(server), row.refreshBringsTheModel ? std::vector<std::string>{kModelA, kModelB}
                                                           : std::vector<std::string>{kModelA})};
    }

    auto answers = askByPreset(std::string(kModelB));
    const auto& answer = answerOf(answers);

    ASSERT_EQ(refresher.calls.size(), 1u);
    EXPECT_EQ(refresher.calls[0].caller, "IntelligenceManager.serversWithModel()");
    EXPECT_TRUE(refresher.calls[0].ignoreDebounceTime);
    if (row.refreshSucceeds && row.refreshBringsTheModel) {
        ASSERT_TRUE(answer.text);
        EXPECT_EQ(*answer.text, "from the new server");
        EXPECT_EQ(server.requestCount(), 1u);
        return;
    }
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::noServersAvailableForModel);
    EXPECT_EQ(answer.error->errorDescription(), "No servers available for the requested AI processing model.");
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_FALSE(logs.containsPrefix("IntelligenceManager.textCompletionWithPreset() - serversWithModel: "));
}

INSTANTIATE_TEST_SUITE_P(IntelligenceManager, IntelligenceManagerRefresh,
                         ::testing::Values(RefreshRow{"RefreshFails", false, false},
                                           RefreshRow{"RefreshBringsNothingNew", true, false},
                                           RefreshRow{"RefreshBringsAServer", true, true}),
                         [](const ::testing::TestParamInfo<RefreshRow>& row) { return std::string(row.param.name); });

TEST_F(IntelligenceManagerPreset, NoModelsAndNoModelOnThePresetAsksForTheEmptyModel) {
    intelligence->setAIServerItems({serverItem("S1", "https://one.example", {kModelA})});
    auto answers = askByPreset(std::nullopt);
    const auto& answer = answerOf(answers);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->kind(), Kind::noServersAvailableForModel);
    EXPECT_EQ(refresher.calls.size(), 1u);
    EXPECT_TRUE(logs.contains("IntelligenceManager.textCompletionWithPreset() - model: "));
}

// ---- The list files ----

using IntelligenceManagerLists = IntelligenceFixture;

TEST_F(IntelligenceManagerLists, BothListsSurviveARestart) {
    const std::vector<AIServerItem> serversList{serverItem("S1", "https://one.example", {kModelA}),
                                                serverItem("S2", "https://two.example/v1", {kModelA, kModelB})};
    AIModelItem bare{"Bare", "bare-1", {}, std::nullopt, std::nullopt, std::nullopt};
    const std::vector<AIModelItem> modelsList{modelItem("Model A", kModelA), bare};
    int serverChanges = 0;
    int modelChanges = 0;
    intelligence->onAIServerItemsChanged = [&] { ++serverChanges; };
    intelligence->onAIModelItemsChanged = [&] { ++modelChanges; };
    intelligence->setAIServerItems(serversList);
    intelligence->setAIModelItems(modelsList);
    EXPECT_EQ(serverChanges, 1);
    EXPECT_EQ(modelChanges, 1);

    ASSERT_TRUE(std::filesystem::is_regular_file(constants->aiServerItemsFile()));
    ASSERT_TRUE(std::filesystem::is_regular_file(constants->aiModelItemsFile()));
    EXPECT_EQ(constants->aiServerItemsFile().filename(), "AIServerItems");
    EXPECT_EQ(constants->aiModelItemsFile().filename(), "AIModelItems");
    EXPECT_EQ(constants->aiServerItemsFile().parent_path(), constants->appSupportFolder());

    intelligence.reset();
    logs.clear();
    intelligence = makeManager();
    EXPECT_EQ(encoded(intelligence->aiServerItems()), encoded(serversList));
    EXPECT_EQ(encoded(intelligence->aiModelItems()), encoded(modelsList));
    EXPECT_FALSE(logs.containsPrefix("CodableHelpers."));

    // Replacing a list replaces the file too.
    intelligence->setAIServerItems({});
    intelligence.reset();
    intelligence = makeManager();
    EXPECT_TRUE(intelligence->aiServerItems().empty());
    EXPECT_EQ(intelligence->aiModelItems().size(), 2u);
}

TEST_F(IntelligenceManagerLists, MissingFilesAreEmptyListsWithAWarning) {
    EXPECT_TRUE(intelligence->aiServerItems().empty());
    EXPECT_TRUE(intelligence->aiModelItems().empty());
    EXPECT_TRUE(logs.contains("CodableHelpers.retrieveArray() - failed to load " +
                                  constants->aiServerItemsFile().string() + ", will treat it as empty!",
                              LogLevel::warning));
    EXPECT_TRUE(logs.contains("CodableHelpers.retrieveArray() - failed to load " +
                                  constants->aiModelItemsFile().string() + ", will treat it as empty!",
                              LogLevel::warning));
}

// A file that can't be read as a list yields an empty list and an error line; the rows are what may be in it.
TEST_F(IntelligenceManagerLists, UnreadableFilesAreEmptyListsWithAnError) {
    struct Row {
        const char* what;
        const char* servers;
        const char* models;
    };
    const std::vector<Row> rows{
        {"not JSON", "{[ this is broken", "[{"},
        {"not an array", R"({"uuid":"a"})", R"({"name":"a"})"},
        {"element not an object", R"(["a"])", "[1]"},
        {"member of the wrong type", R"([{"uuid":"a","name":"n","url":"https://x","models":"gpt-a"}])",
         R"([{"name":"n","model":"m","languages":[1,2]}])"},
        {"required member missing or mistyped", R"([{"name":5}])", R"([{"model":"m"}])"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::ofstream(constants->aiServerItemsFile(), std::ios::trunc) << row.servers;
        std::ofstream(constants->aiModelItemsFile(), std::ios::trunc) << row.models;
        logs.clear();
        intelligence = makeManager();
        EXPECT_TRUE(intelligence->aiServerItems().empty());
        EXPECT_TRUE(intelligence->aiModelItems().empty());
        for (const auto& file : {constants->aiServerItemsFile(), constants->aiModelItemsFile()}) {
            bool logged = false;
            for (const auto& line : logs.lines()) {
                logged = logged || (line.level == LogLevel::error &&
                                    line.message.rfind("CodableHelpers.retrieveArray() - error loading " +
                                                           file.string() + ", error: ",
                                                       0) == 0);
            }
            EXPECT_TRUE(logged) << file;
        }
    }
    // A server entry may lack members: older lists load, and the entry simply has no url.
    std::ofstream(constants->aiServerItemsFile(), std::ios::trunc) << R"([{"uuid":"a","name":"n","models":null}])";
    intelligence = makeManager();
    ASSERT_EQ(intelligence->aiServerItems().size(), 1u);
    EXPECT_EQ(intelligence->aiServerItems()[0].name, "n");
    EXPECT_TRUE(intelligence->aiServerItems()[0].url.empty());
    EXPECT_TRUE(intelligence->aiServerItems()[0].models.empty());
}

TEST_F(IntelligenceManagerLists, FailedWriteIsLoggedAndTheListStillHolds) {
    // A folder where the file should be: the file can't be replaced.
    std::filesystem::create_directories(constants->aiServerItemsFile());
    intelligence->setAIServerItems({serverItem("S1", "https://one.example", {kModelA})});
    EXPECT_EQ(intelligence->aiServerItems().size(), 1u);
    EXPECT_TRUE(logs.containsPrefix("CodableHelpers.persistArray() - error saving " +
                                    constants->aiServerItemsFile().string() + ", error: "));
}

// ---- Privacy and the error texts ----

using IntelligenceManagerPrivacy = IntelligenceFixture;

TEST_F(IntelligenceManagerPrivacy, DictatedTextPromptAndResultNeverReachTheLog) {
    const std::string dictated = "my confidential dictation";
    const std::string prompt = "my confidential prompt";
    const std::string result = "the confidential result";
    auto& good = addServer(jsonAnswer(R"({"completion":")" + result + R"("})"));
    auto& broken = addServer(jsonAnswer(R"({"completion":)" + std::string("\"") + result, 200));
    auto& failing = addServer(jsonAnswer("", 500));
    intelligence->setAIServerItems({serverItem("S1", urlOf(failing), {kModelA, kModelB}),
                                    serverItem("S2", urlOf(good), {kModelA}),
                                    serverItem("S3", urlOf(broken), {kModelB})});

    auto byPromptId = askByPromptId(dictated);
    ASSERT_TRUE(answerOf(byPromptId).text);
    auto byPreset = askByPreset(std::string(kModelB), dictated, prompt);
    const auto& presetAnswer = answerOf(byPreset);
    ASSERT_TRUE(presetAnswer.error);
    EXPECT_EQ(presetAnswer.error->kind(), Kind::decodingError);
    ASSERT_EQ(broken.requestCount(), 1u);
    EXPECT_NE(broken.requests()[0].body.find(dictated), std::string::npos) << "the text itself does go out";

    ASSERT_FALSE(logs.lines().empty());
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.message.find("confidential"), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find("Formal"), std::string::npos) << "the preset's title is the user's: " << line.message;
    }
}

TEST(IntelligenceManagerErrors, EveryKindHasItsUserText) {
    const Error underlying{"D", 7, "what happened", {}};
    const std::vector<std::pair<AICompletionError, std::string>> rows{
        {AICompletionError::requestError(underlying), "Request error during AI processing: what happened"},
        {AICompletionError::decodingError(underlying), "Decoding error during AI processing: what happened"},
        {AICompletionError::noServersAvailableForModel(), "No servers available for the requested AI processing model."},
        {AICompletionError::invalidServerURL(), "Invalid server URL for AI processing."},
        {AICompletionError::invalidToken(), "Invalid token for AI processing."},
        {AICompletionError::invalidResponse(), "Invalid response from the AI processing server."},
        {AICompletionError::noResult(), "Failed to produce a valid result."},
    };
    for (const auto& [error, text] : rows) {
        SCOPED_TRACE(aiCompletionErrorKindName(error.kind()));
        EXPECT_EQ(error.errorDescription(), text);
    }
    EXPECT_EQ(AICompletionError::requestError(underlying).error(), underlying);
    EXPECT_FALSE(AICompletionError::noResult().error());
}

} // namespace
} // namespace sprelio::aitest
