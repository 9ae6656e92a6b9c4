// What a failed attempt leads to: give up at the server's order, end of the chain, a silent cancel, no blame on
// the backend, or another attempt elsewhere; and bad answers that must end in that same path.
#include "backend/UploadTestSupport.h"

namespace sprelio::backendtest {
namespace {

std::vector<std::string> postOrder(const std::vector<std::unique_ptr<ScriptedServer>>& servers) {
    std::vector<std::pair<std::chrono::steady_clock::time_point, std::string>> all;
    for (std::size_t i = 0; i < servers.size(); ++i) {
        for (const auto& request : servers[i]->requests()) {
            if (request.method == "POST") all.emplace_back(request.firstByteAt, "B" + std::to_string(i + 1));
        }
    }
    std::sort(all.begin(), all.end());
    std::vector<std::string> order;
    for (auto& entry : all) order.push_back(entry.second);
    return order;
}

bool allOnline(const std::vector<BackendBalancerPtr>& list) {
    return std::all_of(list.begin(), list.end(), [](const auto& b) { return b->isOnline; });
}

using FailureTable = UploadFixture;

TEST_F(FailureTable, ThreeBackendsTimingOutWalkTheChainAndTheLastEndsIt) {
    auto backends = useBackends(3);
    Script silent;
    silent.gateBeforeHead = "never";
    for (auto& server : servers) server->script("/transcribe", silent);
    manager->setRequestTimeout(300ms);
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();

    EXPECT_EQ(postOrder(servers), (std::vector<std::string>{"B1", "B2", "B3"}));
    ASSERT_EQ(outcome->calls.size(), 1u);
    ASSERT_TRUE(outcome->calls[0].error);
    EXPECT_EQ(outcome->calls[0].error->domain, "NSURLErrorDomain");
    EXPECT_EQ(outcome->calls[0].error->code, url_error::kTimedOut);
    EXPECT_FALSE(outcome->calls[0].result);
    EXPECT_TRUE(allOnline(balancing->balancers()));
    EXPECT_TRUE(balancing->lastTranscriptionHadError());
    EXPECT_EQ(refresher.callers, std::vector<std::string>{"AudioUploadManager.evaluateAndHandleError()"});
    // Each attempt: one entry for the transport failure, one for its judgement.
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 6u);
    EXPECT_EQ(logs.count("AudioUploadManager.evaluateAndHandleError() - initiating retry #1"), 2u);
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - invalidating balancer B1"));
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - invalidating balancer B2"));
    EXPECT_TRUE(logs.containsPrefix(
        "AudioUploadManager.evaluateAndHandleError() - (last balancer in array failed, handle error) - error: "));
    EXPECT_TRUE(logs.contains("BalancingManager.resetAllServersToOnline() - resetting all 3 servers to online"));
    EXPECT_TRUE(toasts.shown.empty());
}

TEST_F(FailureTable, NoOnlineFarmsAlternatesBetweenTheTwoFirstBackendsWithoutMarkingThem) {
    auto backends = useBackends(3);
    const Script full = jsonAnswer(R"({"error":"NoOnlineFarms","message":"no capacity"})", 503);
    servers[0]->script("/transcribe", full);
    servers[1]->script("/transcribe", full);
    servers[2]->script("/transcribe", jsonAnswer(R"({"text":"never reached","language":"en"})"));
    int uploads = 0;
    hooked.beforeSend = [&](const platform::HttpRequest& request) {
        if (request.method != "POST") return;
        // The fifth attempt is the first that the first backend can serve.
        if (++uploads == 5) servers[0]->script("/transcribe", jsonAnswer(R"({"text":"ok","language":"en"})"));
    };
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();

    EXPECT_EQ(postOrder(servers), (std::vector<std::string>{"B1", "B2", "B1", "B2", "B1"}));
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_EQ((*outcome->calls[0].result)["text"], "ok");
    EXPECT_TRUE(allOnline(backends));
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 8u);
    EXPECT_EQ(logs.count("AudioUploadManager.evaluateAndHandleError() - 'NoOnlineFarms' error - skipping balancer "
                         "B1, initiating retry #1"),
              2u);
    EXPECT_TRUE(logs.contains("BalancingManager.getEndpoint() - skipBalancer: B2"));
}

TEST_F(FailureTable, NoOnlineFarmsFromTheLastBackendEndsTheChain) {
    auto backends = useBackends(2);
    for (auto& server : servers) {
        server->script("/transcribe", jsonAnswer(R"({"error":"NoOnlineFarms","message":"no capacity"})", 503));
    }
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();
    EXPECT_EQ(postOrder(servers), (std::vector<std::string>{"B1", "B2"}));
    ASSERT_TRUE(outcome->calls[0].error);
    EXPECT_EQ(outcome->calls[0].error->domain, kSPRStringErrorDomain);
    EXPECT_EQ(outcome->calls[0].error->localizedDescription, "no capacity");
    EXPECT_EQ(outcome->calls[0].status, 503);
}

TEST_F(FailureTable, UnauthorizedAtTheLastBackendEndsTheChainWithoutAnAlert) {
    auto backends = useBackends(2);
    servers[0]->script("/transcribe", jsonAnswer(R"({"error":"SomethingNew"})", 500));
    servers[1]->script("/transcribe", jsonAnswer(R"({"error":"Unauthorized","message":"Unauthorized"})", 401));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();
    EXPECT_EQ(postOrder(servers), (std::vector<std::string>{"B1", "B2"}));
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_EQ(outcome->calls[0].status, 401);
    EXPECT_EQ(outcome->calls[0].error->domain, kSPRStringErrorDomain);
    EXPECT_TRUE(toasts.shown.empty());
    EXPECT_TRUE(allOnline(backends)) << "the unknown error name invalidated B1, the end of the chain reset it";
    EXPECT_TRUE(balancing->lastTranscriptionHadError());
    EXPECT_FALSE(logs.containsPrefix("AudioUploadManager.evaluateAndHandleError() - 'Optional(\"Unauthorized\")'"));
}

TEST_F(FailureTable, UnauthorizedBeforeTheLastBackendAlertsAndOffersTheLogout) {
    auto backends = useBackends(2);
    servers[0]->script("/transcribe", jsonAnswer(R"({"error":"Unauthorized","message":"Unauthorized"})", 401));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty() && !toasts.shown.empty(); }));
    drain();
    EXPECT_EQ(postOrder(servers), std::vector<std::string>{"B1"});
    EXPECT_EQ(outcome->calls.size(), 1u);
    EXPECT_TRUE(allOnline(backends));
    EXPECT_FALSE(balancing->lastTranscriptionHadError());
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - 'Optional(\"Unauthorized\")' error, will "
                              "not invalidate balancer",
                              LogLevel::warning));
    ASSERT_EQ(toasts.shown.size(), 1u);
    EXPECT_EQ(toasts.shown[0].statusCode, 401);
    EXPECT_EQ(toasts.shown[0].tapActionText, std::optional<std::string>("Log Out"));
    ASSERT_TRUE(toasts.shown[0].tapAction);
    toasts.shown[0].tapAction();
    EXPECT_EQ(logouts, 1);
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
}

TEST_F(FailureTable, StopFromTheFirstBackendGivesUpAndKeepsItOnline) {
    auto backends = useBackends(3);
    servers[0]->script("/transcribe", jsonAnswer(R"({"error":"QuotaExceeded","message":"Monthly quota used","stop":true})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();
    EXPECT_EQ(postOrder(servers), std::vector<std::string>{"B1"});
    EXPECT_EQ(outcome->calls[0].error->localizedDescription, "Monthly quota used");
    EXPECT_TRUE(allOnline(backends));
    EXPECT_FALSE(balancing->lastTranscriptionHadError());
    ASSERT_EQ(history.entries.size(), 2u);
    EXPECT_EQ(history.entries[0].level, HistoryManagerLogLevel::error);
    EXPECT_EQ(history.entries[1].level, HistoryManagerLogLevel::warning);
    EXPECT_EQ(history.entries[1].message, "Optional(\"Monthly quota used\")");
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - handling STOP"));
}

TEST_F(FailureTable, CancelBeforeTheLastBackendEndsSilently) {
    auto backends = useBackends(2);
    Script silent;
    silent.gateBeforeHead = "never";
    servers[0]->script("/transcribe", silent);
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return manager->hasUploadTask() && posts(*servers[0]).size() == 1; }));
    manager->cancelUpload();
    EXPECT_FALSE(manager->hasUploadTask());
    EXPECT_EQ(manager->uploadProgress(), 0.0);
    ASSERT_TRUE(waitFor([&] { return menuRebuilds == 1; }));
    drain();
    EXPECT_TRUE(outcome->calls.empty());
    EXPECT_EQ(totalPosts(), 1u);
    EXPECT_TRUE(allOnline(backends));
    EXPECT_FALSE(balancing->lastTranscriptionHadError());
    EXPECT_TRUE(logs.contains("AudoUploadManager.cancelUpload()"));
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - upload was cancelled "
                              "(NSURLErrorCancelled), will not retry, will not show error"));
    // The transport failure and the judgement each leave an entry.
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
}

TEST_F(FailureTable, CancelAtTheOnlyBackendIsReportedAsTheEndOfTheChain) {
    auto backends = useBackends(1);
    Script silent;
    silent.gateBeforeHead = "never";
    servers[0]->script("/transcribe", silent);
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return manager->hasUploadTask() && posts(*servers[0]).size() == 1; }));
    manager->cancelUpload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    EXPECT_EQ(outcome->calls[0].error->code, url_error::kCancelled);
    EXPECT_EQ(menuRebuilds, 0);
    EXPECT_TRUE(balancing->lastTranscriptionHadError());
}

TEST_F(FailureTable, NoInternetAndNoBackendEndWithAnEmptyCompletion) {
    useBackends(1);
    appState.setInternetAvailable(false);
    auto offline = upload();
    drain();
    ASSERT_EQ(offline->calls.size(), 1u);
    EXPECT_FALSE(offline->calls[0].result || offline->calls[0].status || offline->calls[0].error);
    ASSERT_EQ(history.entries.size(), 1u);
    EXPECT_EQ(history.entries[0].message, errorDescription(SPRLocalizedError::networkError, "Sprelio"));
    EXPECT_TRUE(toasts.shown.empty());

    appState.setInternetAvailable(true);
    balancing->setBalancers({});
    auto none = upload();
    ASSERT_TRUE(waitFor([&] { return !none->calls.empty() && !toasts.shown.empty(); }));
    EXPECT_FALSE(none->calls[0].result || none->calls[0].status || none->calls[0].error);
    EXPECT_EQ(toasts.shown[0].messageText, errorDescription(SPRLocalizedError::balancerError, "Sprelio"));
    EXPECT_EQ(totalPosts(), 0u);
}

TEST_F(FailureTable, UnreadableRecordingAndMalformedBackendNeverReachTheWire) {
    useBackends(1);
    std::filesystem::remove(recording);
    auto missing = upload();
    ASSERT_TRUE(waitFor([&] { return !missing->calls.empty(); }));
    ASSERT_TRUE(missing->calls[0].error);
    EXPECT_NE(missing->calls[0].error->localizedDescription.find(recording.filename().string()), std::string::npos);
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.uploadRecording() - prepare data failed with error: "));
    EXPECT_TRUE(history.entries.empty());

    balancing->setBalancers({std::make_shared<BackendBalancer>("U", "broken", "not a url")});
    auto malformed = upload();
    drain();
    EXPECT_TRUE(malformed->calls.empty()) << "a malformed backend entry leaves the caller's state as it is";
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - error: failed to generate URL", LogLevel::error));
    EXPECT_EQ(totalPosts(), 0u);
}

struct BadAnswer {
    const char* name;
    Script script;
    long expectedCode;
};

using BadAnswers = UploadFixture;

TEST_F(BadAnswers, EveryBadAnswerEndsInTheErrorPathWithAClearDescription) {
    Script closedMidStream;
    closedMidStream.headers = {{"Content-Type", "application/json"}};
    closedMidStream.stream = {StreamStep::write("{\"text\":\"cut"), StreamStep::closeConnection()};
    const std::vector<BadAnswer> cases = {
        {"invalid UTF-8", jsonAnswer("{\"text\":\"\xC3\x28\",\"language\":\"en\"}"), 3840},
        {"array", jsonAnswer(R"([{"text":"a"}])"), 3840},
        {"HTML 500", jsonAnswer("<html><body>Internal Server Error</body></html>", 500, "text/html"), 3840},
        {"closed mid-stream", closedMidStream, url_error::kNetworkConnectionLost},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.name);
        history.entries.clear();
        logs.clear();
        useBackends(1);
        servers.back()->script("/transcribe", bad.script);
        auto outcome = upload();
        ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
        drain();
        ASSERT_EQ(outcome->calls.size(), 1u);
        ASSERT_TRUE(outcome->calls[0].error);
        EXPECT_EQ(outcome->calls[0].error->code, bad.expectedCode);
        EXPECT_FALSE(outcome->calls[0].error->localizedDescription.empty());
        ASSERT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
        EXPECT_EQ(history.entries[0].message, outcome->calls[0].error->localizedDescription);
        EXPECT_EQ(history.entries[0].fileURL, std::optional<std::filesystem::path>(recording));
        EXPECT_TRUE(logs.containsPrefix(
            "AudioUploadManager.evaluateAndHandleError() - (last balancer in array failed, handle error) - error: "));
        for (const auto& line : logs.lines()) EXPECT_EQ(line.message.find("cut"), std::string::npos) << line.message;
    }
}

// A server that keeps the answer open by trickling bytes: the request time-out never fires, the answer's own bound
// does, and the attempt ends like any transport failure.
TEST_F(BadAnswers, AnswerThatNeverEndsTimesOutAndEndsTheChain) {
    Script plain = jsonAnswer("{\"text\":\"");
    plain.trickle = "a";
    plain.trickleEvery = 20ms;
    Script streamed = jsonAnswer("{\"text\":\"first\",\"language\":\"en\"}\n", 200, "text/event-stream");
    streamed.trickle = "{\"foo\":1}\n";
    streamed.trickleEvery = 20ms;
    for (const auto& [name, script] : {std::pair{"plain", plain}, std::pair{"streamed", streamed}}) {
        SCOPED_TRACE(name);
        history.entries.clear();
        useBackends(1);
        servers.back()->script("/transcribe", script);
        // The answer's bound is two and a half request time-outs: one second here.
        manager->setRequestTimeout(400ms);
        auto outcome = upload();
        ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
        drain();
        ASSERT_EQ(outcome->calls.size(), 1u) << "nothing of an answer that never ended reaches the caller";
        ASSERT_TRUE(outcome->calls[0].error);
        EXPECT_FALSE(outcome->calls[0].result);
        EXPECT_EQ(outcome->calls[0].error->domain, "NSURLErrorDomain");
        EXPECT_EQ(outcome->calls[0].error->code, url_error::kTimedOut);
        EXPECT_NE(outcome->calls[0].error->localizedDescription.find("answer had not ended"), std::string::npos)
            << outcome->calls[0].error->localizedDescription;
        // One entry for the transport failure, one for the end of the chain.
        ASSERT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
        EXPECT_EQ(history.entries[0].message, outcome->calls[0].error->localizedDescription);
        EXPECT_EQ(history.entries[0].requestID, requestID);
        EXPECT_TRUE(allOnline(balancing->balancers()));
        EXPECT_TRUE(balancing->lastTranscriptionHadError());
        EXPECT_FALSE(manager->hasUploadTask());
    }
}

TEST_F(BadAnswers, AnswerThatNeverEndsMovesTheUploadToTheNextBackend) {
    auto backends = useBackends(2);
    Script endless = jsonAnswer("{\"text\":\"");
    endless.trickle = "a";
    endless.trickleEvery = 20ms;
    servers[0]->script("/transcribe", endless);
    servers[1]->script("/transcribe", jsonAnswer(R"({"text":"from the second","language":"en"})"));
    manager->setRequestTimeout(400ms);
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();
    ASSERT_EQ(outcome->calls.size(), 1u);
    ASSERT_TRUE(outcome->calls[0].result);
    EXPECT_EQ((*outcome->calls[0].result)["text"], "from the second");
    EXPECT_FALSE(backends[0]->isOnline) << "a backend whose answer never ends is invalidated";
    EXPECT_TRUE(logs.contains("AudioUploadManager.evaluateAndHandleError() - invalidating balancer B1"));
    EXPECT_EQ(history.count(HistoryManagerLogLevel::error), 2u);
}

TEST_F(FailureTable, EmptyAndUndecodableAnswersGoStraightToTheCaller) {
    useBackends(1);
    servers[0]->script("/transcribe", jsonAnswer("", 200));
    auto empty = upload();
    ASSERT_TRUE(waitFor([&] { return !empty->calls.empty(); }));
    EXPECT_EQ(empty->calls[0].error->localizedDescription, "No data received");
    EXPECT_EQ(empty->calls[0].status, 200);

    servers[0]->script("/transcribe", streamAnswer({"{\"text\":\"\xFF\xFE\"}\n"}));
    auto undecodable = upload();
    ASSERT_TRUE(waitFor([&] { return !undecodable->calls.empty(); }));
    EXPECT_EQ(undecodable->calls[0].error->localizedDescription, "Failed to decode response");

    servers[0]->script("/transcribe", streamAnswer({"{\"text\":\"ok\"}\n", "{not json\n", "{\"completion\":\"x\"}\n"}));
    auto broken = upload();
    ASSERT_TRUE(waitFor([&] { return broken->calls.size() == 2; }));
    drain();
    EXPECT_EQ(broken->calls.size(), 2u) << "the rest of the stream is dropped";
    EXPECT_EQ(broken->calls[1].error->code, 3840);
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.uploadRecording() - event parsing error: "));
    EXPECT_TRUE(history.entries.empty());
    EXPECT_TRUE(allOnline(balancing->balancers()));
}

} // namespace
} // namespace sprelio::backendtest
