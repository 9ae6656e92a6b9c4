// The recording upload end to end on loopback: the request as it leaves, both answer forms, and what every kind of
// failure does to the completion, the history, the alerts and the chain of backends.
#include "backend/UploadTestSupport.h"

namespace sprelio::backendtest {
namespace {

constexpr const char* kNoAiLog =
    "AudioUploadManager.uploadRecording().aiFormField: nil, will proceed with file-only upload";

std::string boundaryOf(const RecordedRequest& request) {
    const std::string type = request.header("Content-Type");
    const std::string prefix = "multipart/form-data; boundary=";
    return type.rfind(prefix, 0) == 0 ? type.substr(prefix.size()) : std::string();
}

using WireRequest = UploadFixture;

TEST_F(WireRequest, FileOnlyBodyQueryAndHeadersAreExact) {
    auto backends = useBackends(1, "/api/v2/ignored?x=1");
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"hallo","language":"de"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));

    const auto sent = posts(*servers[0]);
    ASSERT_EQ(sent.size(), 1u);
    const auto& request = sent[0];
    // The backend's path is replaced, host and port stay; the query keys in their order, false spelled out.
    EXPECT_EQ(request.target, "/transcribe?app=" + constants->clientVersion() +
                                  "&languages=de,en&os=Linux%20Debian%20GNU/Linux%2012%20(bookworm)%206.1.0-test"
                                  "&diarization=false");
    EXPECT_EQ(constants->clientVersion().rfind("linux-", 0), 0u);

    const std::string boundary = boundaryOf(request);
    ASSERT_EQ(boundary.rfind("----Boundary-", 0), 0u) << request.header("Content-Type");
    const auto uuid = Uuid::parse(boundary.substr(13));
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ(uuid->string(), boundary.substr(13)) << "the boundary's UUID is in upper case";

    EXPECT_EQ(request.header("Authorization"), "Bearer tok-123");
    EXPECT_EQ(request.header("Accept-Language"), "de");
    const auto authorization = request.head.find("\r\nAuthorization: ");
    const auto language = request.head.find("\r\nAccept-Language: ");
    const auto type = request.head.find("\r\nContent-Type: ");
    ASSERT_NE(authorization, std::string::npos);
    EXPECT_LT(authorization, language);
    EXPECT_LT(language, type);

    const std::string delim = "--" + boundary;
    const std::string expected = delim + "\r\n" +
                                 "Content-Disposition: form-data; name=\"file\"; filename=\"" +
                                 recording.filename().string() + "\"\r\n" +
                                 "Content-Type: application/octet-stream\r\n\r\n" + recordingBytes + "\r\n" + delim +
                                 "--\r\n";
    EXPECT_EQ(request.body, expected);
    EXPECT_EQ(delim.substr(0, 6), "------");
    EXPECT_TRUE(logs.contains(kNoAiLog));
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - endpoint.url: " + backends[0]->url));
}

TEST_F(WireRequest, AiPartCarriesThePromptWithoutTextAndEveryAttemptGetsAFreshBoundary) {
    useBackends(2);
    settings->setToken(std::nullopt);
    servers[0]->script("/transcribe", jsonAnswer(R"({"error":"Overloaded","message":"busy"})"));
    servers[1]->script("/transcribe", jsonAnswer(R"({"text":"bonjour","language":"fr"})"));
    AICompletionPromptId prompt{"summarize", "short", "never sent", "fr", "en"};
    auto outcome = upload(prompt, true, std::string("fr"), "fr");
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));

    const auto first = posts(*servers[0]);
    const auto second = posts(*servers[1]);
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_NE(boundaryOf(first[0]), boundaryOf(second[0]));
    for (const auto& request : {first[0], second[0]}) {
        EXPECT_EQ(request.header("Authorization"), "Bearer ");
        EXPECT_NE(request.target.find("&languages=fr&"), std::string::npos) << request.target;
        EXPECT_NE(request.target.find("&diarization=true"), std::string::npos) << request.target;
        const std::string delim = "--" + boundaryOf(request);
        const std::string aiPart = delim + "\r\nContent-Disposition: form-data; name=\"ai\"\r\n" +
                                   "Content-Type: application/json\r\n\r\n" +
                                   R"({"app_lang":"en","prompt_id":"summarize","prompt_param":"short","text_lang":"fr"})" +
                                   "\r\n" + delim + "--\r\n";
        ASSERT_GE(request.body.size(), aiPart.size());
        EXPECT_EQ(request.body.substr(request.body.size() - aiPart.size()), aiPart);
        EXPECT_EQ(request.body.find("never sent"), std::string::npos);
        EXPECT_EQ(request.body.find(delim + "\r\nContent-Disposition: form-data; name=\"file\""), 0u);
    }
    EXPECT_FALSE(logs.contains(kNoAiLog));
    // The restart recomputes the list from the explicit code.
    EXPECT_TRUE(logs.contains("inputLanguageCodes{} - using explicit inputLanguageCode=fr"));
}

TEST_F(WireRequest, ProgressReachesTheWholeBodyAndIsLogged) {
    useBackends(1);
    recordingBytes = std::string(120 * 1024, 'x');
    std::ofstream(recording, std::ios::binary | std::ios::trunc) << recordingBytes;
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"t","language":"en"})"));
    std::vector<double> seen;
    manager->onUploadProgressChanged = [&](double value) { seen.push_back(value); };
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    ASSERT_FALSE(seen.empty());
    EXPECT_DOUBLE_EQ(manager->uploadProgress(), 1.0);
    EXPECT_TRUE(logs.contains("AudioUploadManager.urlSession() - Upload progress: 100.0%"));
    EXPECT_FALSE(manager->hasUploadTask());
}

using Answers = UploadFixture;

TEST_F(Answers, PlainAnswerIsDeliveredOnceAndKeepsTheTranscriptOutOfTheLog) {
    useBackends(1);
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"secret words","language":"en","stop":true})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return balancing->lastInitializationDate().has_value(); }));
    drain();
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_EQ(outcome->calls[0].status, 200);
    EXPECT_FALSE(outcome->calls[0].error);
    ASSERT_TRUE(outcome->calls[0].result);
    EXPECT_EQ((*outcome->calls[0].result)["text"], "secret words");
    EXPECT_TRUE(history.entries.empty());
    EXPECT_TRUE(stages.calls.empty()) << "a plain answer has no stages";
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - handle JSON response - responseObj: <privatized>"));
    EXPECT_TRUE(logs.containsPrefix("AudioUploadManager.uploadRecording() - FULL RESPONSE DEBUG: "));
    for (const auto& line : logs.lines()) EXPECT_EQ(line.message.find("secret words"), std::string::npos) << line.message;
    EXPECT_TRUE(logs.contains("BalancingManager.initializeIfNeeded() - called by AudioUploadManager.uploadRecording() - "
                              "never initialized before"));
}

TEST_F(Answers, MimeTypeThatOnlyBeginsAlikeIsThePlainForm) {
    useBackends(1);
    servers[0]->script("/transcribe",
                       jsonAnswer(R"({"text":"one","language":"en"})", 200, "text/event-streaming"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    drain();
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_EQ((*outcome->calls[0].result)["text"], "one");
    EXPECT_FALSE(logs.contains("AudioUploadManager.uploadRecording() - got TEXT event"));
}

TEST_F(Answers, StreamDeliversTextThenCompletionAndSkipsUnknownLines) {
    useBackends(1);
    servers[0]->script("/transcribe",
                       streamAnswer({"{\"text\":\"raw words\",\"language\":\"en\"}\n", "\n{\"foo\":1}\n", "[1,2]\n",
                                     "{\"completion\":\"polished\"}\n"},
                                    "text/event-stream; charset=utf-8"));
    auto outcome = upload(AICompletionPromptId{"p", "", "", "en", "en"});
    ASSERT_TRUE(waitFor([&] { return outcome->calls.size() == 2 && stages.calls.size() == 2; }));
    EXPECT_EQ((*outcome->calls[0].result)["text"], "raw words");
    EXPECT_EQ((*outcome->calls[1].result)["completion"], "polished");
    EXPECT_EQ(outcome->calls[1].status, 200);
    EXPECT_EQ(stages.calls, (std::vector<std::string>{"aiStepStarted", "aiStepEnded"}));
    EXPECT_EQ(logs.count("AudioUploadManager.uploadRecording() - got unknown event, skipping it"), 1u);
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - got TEXT event"));
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - got COMPLETION event"));
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.message.find("raw words"), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find("polished"), std::string::npos) << line.message;
    }
}

TEST_F(Answers, LineWithTextAndCompletionCountsAsTextOnly) {
    useBackends(1);
    servers[0]->script("/transcribe", streamAnswer({"{\"text\":\"a\",\"completion\":\"b\"}\n"}));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return outcome->calls.size() == 1; }));
    drain();
    EXPECT_EQ(outcome->calls.size(), 1u);
    EXPECT_FALSE(logs.contains("AudioUploadManager.uploadRecording() - got COMPLETION event"));
    // Without a COMPLETION line the AI step never ends here: the caller's evaluation returns the session to idle.
    EXPECT_EQ(stages.calls, (std::vector<std::string>{"aiStepStarted"}));
}

TEST_F(Answers, ErrorLineAfterTextDeliversTheTextThenRetriesElsewhere) {
    auto backends = useBackends(2);
    servers[0]->script("/transcribe", streamAnswer({"{\"text\":\"first\",\"language\":\"en\"}\n",
                                                    "{\"error\":\"ModelCrashed\",\"message\":\"gone\"}\n",
                                                    "{\"completion\":\"never\"}\n"}));
    servers[1]->script("/transcribe", jsonAnswer(R"({"text":"second","language":"en"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return outcome->calls.size() == 2; }));
    EXPECT_EQ((*outcome->calls[0].result)["text"], "first");
    EXPECT_EQ((*outcome->calls[1].result)["text"], "second");
    EXPECT_FALSE(logs.contains("AudioUploadManager.uploadRecording() - got COMPLETION event"));
    EXPECT_TRUE(logs.contains("AudioUploadManager.uploadRecording() - event error: ModelCrashed : gone"));
    EXPECT_FALSE(backends[0]->isOnline);
    ASSERT_EQ(history.entries.size(), 2u);
    EXPECT_EQ(history.entries[0].message, "gone");
    EXPECT_EQ(history.entries[0].requestID, requestID);
    EXPECT_EQ(history.entries[1].level, HistoryManagerLogLevel::error);
}

TEST_F(Answers, TheSessionInterfaceJoinsLanguagesAndDropsTheStatus) {
    useBackends(1);
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"x","language":"en"})"));
    std::optional<nlohmann::json> result;
    int calls = 0;
    AudioUploadManager& session = *manager;
    session.uploadRecording(recording, requestID, {"pt", "es"}, std::nullopt, false, std::nullopt,
                            [&](std::optional<nlohmann::json> r, std::optional<Error>) {
                                ++calls;
                                result = std::move(r);
                            });
    ASSERT_TRUE(waitFor([&] { return calls > 0; }));
    EXPECT_NE(posts(*servers[0]).at(0).target.find("&languages=pt,es&"), std::string::npos);
    EXPECT_EQ((*result)["text"], "x");
}

// Found by fuzz_upload_answer: a number too large for a double is JSON that parses as far as the number and then
// throws out_of_range, not parse_error; it ended the program. Plain or in the line stream, it is an answer that
// can't be read, like any other.
TEST_F(Answers, ANumberBeyondWhatADoubleHoldsIsAnUnreadableAnswerNotACrash) {
    const std::string huge = R"({"text":"x","n":777777777777777755557777777777777777775E5555555555958})";
    for (const bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "line stream" : "plain");
        useBackends(1);
        servers.back()->script("/transcribe", stream ? streamAnswer({huge + "\n"}) : jsonAnswer(huge));
        auto outcome = upload();
        ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
        drain();
        ASSERT_EQ(outcome->calls.size(), 1u);
        EXPECT_FALSE(outcome->calls[0].result);
        EXPECT_TRUE(outcome->calls[0].error);
    }
}

} // namespace
} // namespace sprelio::backendtest
