// The account service: the sender's retries and the refresh timer on virtual time; the refresh sections and the
// sign-in calls against a scripted server over the real transport.
#include <gtest/gtest.h>

#include <deque>

#include "backend/LoginResourceService.h"
#include "backend/UploadTestSupport.h"
#include "base/Digest.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using platform::test::RecordingLogSink;

// A transport on virtual time: each request gets the next scripted result (an empty JSON object when none is
// left), delivered as a task on the loop.
class FakeHttpClient final : public platform::HttpClient {
public:
    explicit FakeHttpClient(platform::test::TestPlatform& tp) : tp_(tp) {}
    struct Sent {
        platform::HttpRequest request;
        std::chrono::system_clock::time_point at;
    };
    std::deque<platform::HttpResult> results;
    std::vector<Sent> sent;

    std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request, Completion completion) override {
        sent.push_back({request, tp_.now()});
        platform::HttpResponse empty;
        empty.status = 200;
        empty.body = "{}";
        platform::HttpResult result = empty;
        if (!results.empty()) {
            result = results.front();
            results.pop_front();
        }
        tp_.loop().post([completion = std::move(completion), result] { completion(result); });
        return nullptr;
    }

private:
    platform::test::TestPlatform& tp_;
};

platform::HttpResult transportError() {
    return Error{url_error::kDomain, url_error::kCannotConnectToHost, "Could not connect to the server.", {}};
}

platform::HttpResult answer(long status, std::string body, std::string mime = "application/json") {
    platform::HttpResponse response;
    response.status = status;
    response.mimeType = std::move(mime);
    response.body = std::move(body);
    return response;
}

std::string bodyText(const platform::HttpBody& body) {
    std::string text;
    for (const auto& segment : body.segments()) {
        if (auto* bytes = std::get_if<std::string>(&segment)) text += *bytes;
    }
    return text;
}

class VirtualAccountTest : public ::testing::Test {
protected:
    VirtualAccountTest() {
        constants.emplace(tp);
        settings.emplace(store, *constants);
        balancing.emplace(tp.loop(), tp, *settings, appState, "Sprelio");
        tp.screenList = {platform::ScreenInfo{"Main", std::string("1"), {0, 0, 1440, 900}, 2.0, true}};
    }

    LoginResourceService& make(bool timer = false) {
        LoginResourceService::Dependencies deps{tp.loop(), tp, http, *settings, *constants, appState, tp,
                                                &*balancing, nullptr, "https://api.example.com", "machine-1"};
        deps.startRefreshTimer = timer;
        service = std::make_unique<LoginResourceService>(std::move(deps));
        return *service;
    }

    std::size_t usersInfoRequests() const {
        std::size_t n = 0;
        for (const auto& s : http.sent) n += s.request.url.find("/users/info?") != std::string::npos ? 1 : 0;
        return n;
    }

    RecordingLogSink logs;
    platform::test::TestPlatform tp;
    FakeHttpClient http{tp};
    std::optional<store::AppConstants> constants;
    store::MemorySettingsStore store;
    std::optional<store::Settings> settings;
    AppStateRealtimeMirror mirror;
    AppState appState{mirror};
    std::optional<BalancingManager> balancing;
    std::unique_ptr<LoginResourceService> service;
};

TEST_F(VirtualAccountTest, TransportFailuresAreRetriedThreeTimesOneTwoThreeSecondsApart) {
    auto& s = make();
    http.results = {transportError(), transportError(), transportError(), transportError(), transportError()};
    int calls = 0;
    std::optional<Error> received;
    platform::HttpRequest request;
    request.url = "https://api.example.com/x";
    s.performRequest(request, 7, 5.0, "test()",
                     [&](std::optional<nlohmann::json> dictionary, std::optional<platform::HttpResponse>,
                         std::optional<Error> error) {
                         ++calls;
                         EXPECT_FALSE(dictionary);
                         received = error;
                     });
    const auto start = tp.now();
    tp.runUntilIdle();
    tp.advance(10s);
    ASSERT_EQ(http.sent.size(), 4u) << "retries are clamped to three";
    EXPECT_EQ(http.sent[1].at - start, 1s);
    EXPECT_EQ(http.sent[2].at - start, 3s);
    EXPECT_EQ(http.sent[3].at - start, 6s);
    EXPECT_EQ(http.sent[0].request.timeout, 5000ms) << "the caller's time-out applies to the first attempt";
    EXPECT_EQ(http.sent[1].request.timeout, 60000ms) << "retries go without it";
    const std::vector<platform::HttpHeader> expected{
        {"Content-Type", "application/json"}, {"Accept", "application/json"}, {"Accept-Language", "en"}};
    EXPECT_EQ(http.sent[0].request.headers.size(), 3u);
    EXPECT_EQ(http.sent[0].request.headers[0], expected[0]);
    EXPECT_EQ(http.sent[0].request.headers[1], expected[1]);
    EXPECT_EQ(http.sent[0].request.headers[2].name, "Accept-Language");
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->code, url_error::kCannotConnectToHost);
    EXPECT_TRUE(logs.contains("performRequest() - retries: 3 - timeoutInterval: 5.0, caller: test()"));
    EXPECT_TRUE(logs.contains("performRequest() - retries: 0 - timeoutInterval: default, caller: test()"));
    EXPECT_TRUE(logs.containsPrefix("performRequest() - caller: test() - failed to get data with error -> "));
    bool sawSecond = false;
    for (const auto& line : logs.lines()) {
        if (line.message.ends_with(" -> retrying in 2 second(s) -> (retry 2/3)")) sawSecond = line.level == LogLevel::error;
    }
    EXPECT_TRUE(sawSecond);
    EXPECT_TRUE(logs.containsPrefix("performRequest() - caller: test() - error: "));
}

TEST_F(VirtualAccountTest, JsonErrorStatusIsAnAnswerAndAPlainBodyIsNotRetried) {
    auto& s = make();
    http.results = {answer(401, R"({"error":"Unauthorized","message":"bad token"})"), answer(502, "<html>")};
    std::vector<std::optional<nlohmann::json>> dictionaries;
    for (int i = 0; i < 2; ++i) {
        platform::HttpRequest request;
        request.url = "https://api.example.com/y";
        s.performRequest(request, 3, std::nullopt, "t()",
                         [&](std::optional<nlohmann::json> d, std::optional<platform::HttpResponse> response,
                             std::optional<Error> error) {
                             EXPECT_TRUE(response);
                             EXPECT_FALSE(error);
                             dictionaries.push_back(d);
                         });
        tp.runUntilIdle();
    }
    tp.advance(10s);
    EXPECT_EQ(http.sent.size(), 2u);
    ASSERT_EQ(dictionaries.size(), 2u);
    ASSERT_TRUE(dictionaries[0]);
    EXPECT_EQ((*dictionaries[0])["error"], "Unauthorized");
    EXPECT_FALSE(dictionaries[1]);
    EXPECT_TRUE(logs.containsPrefix("performRequest()  - caller: t() - response: { URL: https://api.example.com/y }"));
}

TEST_F(VirtualAccountTest, LoginViaCodeRetriesWithTheSameBody) {
    auto& s = make();
    http.results = {transportError(), answer(200, R"({"user":{"email":"a@b.c"},"requests":3,"token":"T"})")};
    std::optional<LoginConfirmResponse> record;
    s.loginViaCode("U-1", "123456", [&](auto r, auto, auto) { record = r; });
    tp.runUntilIdle();
    tp.advance(1s);
    ASSERT_EQ(http.sent.size(), 2u);
    EXPECT_EQ(http.sent[0].request.method, "POST");
    EXPECT_EQ(http.sent[0].request.url, "https://api.example.com/auth/request/code");
    EXPECT_EQ(bodyText(http.sent[1].request.body), R"({"uuid":"U-1","code":"123456"})");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->email, "a@b.c");
    EXPECT_EQ(record->requests, 3);
    EXPECT_EQ(s.refreshTimerCount(), 1u);
}

TEST_F(VirtualAccountTest, UnforcedRefreshIsHeldOffForThreeHundredSecondsEvenAfterAFailure) {
    auto& s = make();
    http.results = {answer(500, "oops", "text/plain")};
    s.refreshUserInfo("first", false, [](std::optional<Error>) {});
    tp.runUntilIdle();
    EXPECT_EQ(usersInfoRequests(), 1u);
    tp.advance(299s);
    s.refreshUserInfo("second", false, [](std::optional<Error>) {});
    tp.runUntilIdle();
    EXPECT_EQ(usersInfoRequests(), 1u);
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - * skipped (last call < 300.0 seconds - caller: "
                              "second"));
    s.refreshUserInfo("forced", true, [](std::optional<Error>) {});
    tp.runUntilIdle();
    EXPECT_EQ(usersInfoRequests(), 2u);
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - * forced (ignoring 300.0 seconds debounce) - "
                              "caller: forced"));
    tp.advance(300s);
    s.refreshUserInfo("third", false, [](std::optional<Error>) {});
    tp.runUntilIdle();
    EXPECT_EQ(usersInfoRequests(), 3u) << "300 seconds after the forced call";
}

TEST_F(VirtualAccountTest, OfflineRefreshSendsNothing) {
    auto& s = make();
    appState.setInternetAvailable(false);
    bool done = false;
    s.refreshUserInfo("x", true, [&](std::optional<Error> e) { done = !e; });
    tp.runUntilIdle();
    EXPECT_TRUE(done);
    EXPECT_TRUE(http.sent.empty());
    EXPECT_TRUE(logs.containsPrefix("LoginResourceService.refreshUserInfo() - "));
}

TEST_F(VirtualAccountTest, TimerRefreshesAtOnceAndEveryThreeHundredSecondsAndLoginAddsAnother) {
    make(true);
    tp.runUntilIdle();
    EXPECT_EQ(usersInfoRequests(), 1u);
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - caller: "
                              "LoginResourceService.discardableResultRefreshUserInfo() - ignoreDebounceTime: true"));
    tp.advance(299s);
    EXPECT_EQ(usersInfoRequests(), 1u);
    tp.advance(1s);
    EXPECT_EQ(usersInfoRequests(), 2u);
    http.results = {answer(200, R"({"uuid":"L-1","message":"check your mail"})")};
    std::optional<LoginEmailResponse> mail;
    service->login("me@example.com", [&](auto r, auto, auto) { mail = r; });
    tp.runUntilIdle();
    ASSERT_TRUE(mail);
    EXPECT_EQ(mail->uuid, "L-1");
    EXPECT_EQ(service->refreshTimerCount(), 2u);
    // The new timer was started at 300 s, the first fires at 600 s: both keep going.
    tp.advance(300s);
    EXPECT_EQ(usersInfoRequests(), 4u);
    tp.advance(300s);
    EXPECT_EQ(usersInfoRequests(), 6u);
    service.reset();
    tp.advance(600s);
    EXPECT_EQ(usersInfoRequests(), 6u) << "timers end with the service";
}

// ---- Against a scripted server ----

class AccountServerTest : public backendtest::UploadFixture {
protected:
    AccountServerTest() {
        api = std::make_unique<backendtest::ScriptedServer>();
        LoginResourceService::Dependencies deps{loop, clock, http, *settings, *constants, appState, tp,
                                                &*balancing, &*messages, api->url(""), "machine-1"};
        deps.startRefreshTimer = false;
        service = std::make_unique<LoginResourceService>(std::move(deps));
    }
    ~AccountServerTest() override {
        service.reset();
        api->stop();
    }

    std::optional<Error> refresh(bool forced = true) {
        bool done = false;
        std::optional<Error> result;
        service->refreshUserInfo("test", forced, [&](std::optional<Error> e) {
            result = e;
            done = true;
        });
        EXPECT_TRUE(waitFor([&] { return done; }));
        return result;
    }

    std::unique_ptr<backendtest::ScriptedServer> api;
    std::unique_ptr<LoginResourceService> service;
};

TEST_F(AccountServerTest, UsersInfoQueryHeadersAndAllSections) {
    api->script("/users/info", backendtest::jsonAnswer(R"({
        "flags": {"beta": true},
        "ai": {"models": [{"name":"Fast","model":"m1","languages":["en"],"features":["x"]}, {"name":"no model"}],
               "servers": [{"uuid":"S1","name":"AI","url":"https://ai","models":["m1"]}, {"uuid":"S2"}]},
        "balancers": [{"uuid":"B1","name":"one","url":"https://one"}, {"uuid":"B2","name":"two"},
                      {"uuid":"B3","name":"three","url":"https://three"}],
        "user": {"user": {"user": {"email":"me@example.com","guid":"G"}}, "requests": 12, "token": "fresh-token"}
    })"));
    ASSERT_FALSE(refresh());
    ASSERT_EQ(api->requestCount(), 1u);
    const auto request = api->requests()[0];
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(request.header("Accept"), "application/json");
    EXPECT_EQ(request.header("Accept-Language"), "de");
    const std::string prefix = "/users/info?api_version=2&device_id=" + md5Hex("machine-1") + "&os=";
    EXPECT_EQ(request.target.substr(0, prefix.size()), prefix);
    EXPECT_NE(request.target.find("&app=linux-"), std::string::npos);
    const auto infoAt = request.target.find("&info=");
    ASSERT_NE(infoAt, std::string::npos);
    EXPECT_GT(infoAt, request.target.find("&app="));
    const auto info = nlohmann::json::parse(service->info());
    const auto screens = nlohmann::json::parse(info["screens"].get<std::string>());
    ASSERT_EQ(screens.size(), 1u);
    EXPECT_EQ(screens[0]["is_primary"], true);
    EXPECT_EQ(nlohmann::json::parse(info["languages"].get<std::string>())["system"], "de");

    ASSERT_TRUE(service->flags());
    EXPECT_EQ((*service->flags())["beta"], true);
    ASSERT_EQ(service->aiModels().size(), 1u);
    EXPECT_EQ(service->aiModels()[0].model, "m1");
    ASSERT_EQ(service->aiServers().size(), 1u);
    ASSERT_EQ(balancing->balancers().size(), 2u) << "the element without url is dropped";
    EXPECT_EQ(balancing->balancers()[0]->name, "one");
    EXPECT_EQ(balancing->balancers()[1]->name, "three");
    auto details = settings->userDetailsResponse();
    ASSERT_TRUE(details);
    EXPECT_EQ((*details)["email"], "me@example.com");
    EXPECT_EQ((*details)["requests"], 12);
    EXPECT_EQ(settings->token(), "fresh-token");
    for (const auto& line : logs.lines()) EXPECT_EQ(line.message.find("fresh-token"), std::string::npos) << line.message;
}

TEST_F(AccountServerTest, NoTokenNoAuthorizationAndPartialAnswersChangeOnlyWhatTheyHold) {
    settings->setToken(std::nullopt);
    balancing->setBalancers({std::make_shared<BackendBalancer>("OLD", "old", "https://old")});
    api->script("/users/info", backendtest::jsonAnswer(R"({"user": {"user": {"name":"x"}, "token": "T2"}})"));
    ASSERT_FALSE(refresh());
    EXPECT_EQ(api->requests()[0].header("Authorization"), "");
    EXPECT_EQ(balancing->balancers().size(), 1u);
    EXPECT_EQ(settings->token(), "T2") << "a user without email still hands on its token";
    EXPECT_FALSE(settings->userDetailsResponse());
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - No 'flags' found in response", LogLevel::warning));
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - 'ai' section missing in response",
                              LogLevel::error));
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - No 'balancers' found in response",
                              LogLevel::warning));
    EXPECT_TRUE(logs.contains("UserDetailsResponse.init() - unable to extract user details"));
    EXPECT_TRUE(logs.contains("LoginResourceService.refreshUserInfo() - Unable to parse 'user' data into "
                              "UserDetailsResponse",
                              LogLevel::warning));
}

TEST_F(AccountServerTest, LinkLongPollWaitsForTheServer) {
    backendtest::Script held = backendtest::jsonAnswer(R"({"user":{"email":"me@x"},"requests":1,"token":"LT"})");
    held.gateBeforeHead = "link-used";
    api->script("/auth/request/wait", held);
    std::optional<LoginConfirmResponse> record;
    bool done = false;
    service->checkLoginViaLink("U 1", [&](auto r, auto, auto) {
        record = r;
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return api->headsReceived() == 1; }));
    loop.runUntil([&] { return done; }, 100ms);
    EXPECT_FALSE(done) << "the answer is held until the link is used";
    api->openGate("link-used");
    ASSERT_TRUE(waitFor([&] { return done; }));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->token, "LT");
    EXPECT_EQ(api->requests()[0].target, "/auth/request/wait?uuid=U%201");
}

TEST_F(AccountServerTest, LoginAndCodeAnswers) {
    api->script("/auth/request", backendtest::jsonAnswer(R"({"uuid":"L-9","message":"sent"})"));
    std::optional<LoginEmailResponse> mail;
    bool done = false;
    service->login("me@example.com", [&](auto r, auto, auto) {
        mail = r;
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return done; }));
    ASSERT_TRUE(mail);
    EXPECT_EQ(mail->uuid, "L-9");
    const auto target = api->requests()[0].target;
    EXPECT_EQ(target.rfind("/auth/request?email=me@example.com&device_id=", 0), 0u) << target;
    EXPECT_NE(target.find("&info="), std::string::npos);

    // A wrong code: the server's pair reaches the caller; a record without requests is no record.
    api->script("/auth/request/code", backendtest::jsonAnswer(R"({"error":"InvalidCode","message":"Wrong code"})", 400));
    std::optional<Error> error;
    done = false;
    service->loginViaCode("L-9", "000000", [&](auto r, auto, auto e) {
        EXPECT_FALSE(r);
        error = e;
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return done; }));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, kSPRStringErrorDomain);
    EXPECT_EQ(error->localizedDescription, "Wrong code");
    EXPECT_EQ(api->requests().back().body, R"({"uuid":"L-9","code":"000000"})");

    api->script("/auth/request/code", backendtest::jsonAnswer(R"({"user":{"email":"me@x"},"token":"T"})"));
    bool noRecord = false;
    done = false;
    service->loginViaCode("L-9", "111111", [&](auto r, auto, auto e) {
        noRecord = !r && !e;
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return done; }));
    EXPECT_TRUE(noRecord);
    EXPECT_TRUE(logs.containsPrefix("loginViaCode() - response: "));
}

} // namespace
} // namespace sprelio
