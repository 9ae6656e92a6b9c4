// The server over real HTTP on loopback: authentication, the account answer, transcription of festival speech in
// WAV and in the client's own CAF Opus, the error shape of every failure, capacity and graceful shutdown.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <iostream>
#include <mutex>

#include <nlohmann/json.hpp>

#include "ServerTestSupport.h"
#include "audio/CafOpusWriter.h"
#include "base/Digest.h"
#include "base/Uuid.h"
#include "platform/test/TestPlatform.h"
#include "server/AudioDecoder.h"

namespace sprelio::server::test {
namespace {

using nlohmann::json;

const std::string kSentence = "Please call me tomorrow morning at the office. The weather is nice today.";

void expectErrorShape(const httplib::Result& result, int status, const std::string& error, bool stop) {
    ASSERT_TRUE(result) << "no HTTP answer: " << httplib::to_string(result.error());
    EXPECT_EQ(result->status, status);
    EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
    auto body = json::parse(result->body, nullptr, false);
    ASSERT_TRUE(body.is_object()) << result->body;
    EXPECT_EQ(body.value("error", ""), error);
    ASSERT_TRUE(body.contains("message") && body["message"].is_string());
    EXPECT_FALSE(body["message"].get<std::string>().empty());
    ASSERT_TRUE(body.contains("stop") && body["stop"].is_boolean());
    EXPECT_EQ(body["stop"].get<bool>(), stop);
}

// Speech and its CAF Opus form are made once for the whole suite: festival takes a moment.
class SpeechFiles {
public:
    static SpeechFiles& get() {
        static SpeechFiles files;
        return files;
    }
    std::filesystem::path wav;
    std::filesystem::path caf;

private:
    SpeechFiles() {
        wav = speak(kSentence, folder_.path(), "speech");
        if (wav.empty()) return;
        auto decoded = decodeAudio(readFile(wav), 60);
        auto* audio = std::get_if<DecodedAudio>(&decoded);
        if (!audio) return;
        std::vector<float> samples(audio->samples.size());
        for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(audio->samples[i]) / 32768.0f;
        caf = folder_.path() / "rec_20240101-120000-000.caf";
        CafOpusWriter writer;
        writer.open(caf); // 16 kHz mono, 16 kbit/s: what the recorder writes
        writer.appendSamples(samples.data(), samples.size());
        writer.finish();
    }
    TempFolder folder_;
};

class BackendServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        server_ = std::make_unique<BackendServer>(loopbackConfig(data_.path()));
        server_->start();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(60, 0);
        token_ = server_->localAccount().token;
    }
    void TearDown() override {
        client_.reset();
        server_->stop();
    }

    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::unique_ptr<httplib::Client> client_;
    std::string token_;
};

TEST_F(BackendServerTest, EveryEndpointRefusesAMissingOrWrongToken) {
    expectErrorShape(client_->Get("/users/info"), 401, "Unauthorized", true);
    expectErrorShape(client_->Get("/users/info", {{"Authorization", "Bearer "}}), 401, "Unauthorized", true);
    expectErrorShape(client_->Get("/users/info", {{"Authorization", "Bearer " + std::string(64, 'a')}}), 401,
                     "Unauthorized", true);
    // The stored hash is no token: sending it must not work.
    expectErrorShape(client_->Get("/users/info", {{"Authorization", "Bearer " + sha256Hex(token_)}}),
                     401, "Unauthorized", true);
    expectErrorShape(postTranscribe(*client_, "wrong", {"a.caf", "bytes", std::nullopt}), 401, "Unauthorized", true);
    auto ok = client_->Get("/users/info", {{"Authorization", "Bearer " + token_}});
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->status, 200);
}

TEST_F(BackendServerTest, UserInfoHasTheSectionsTheClientReads) {
    auto result = client_->Get("/users/info?api_version=2&device_id=abc&os=Linux&app=linux-0.1.0",
                               {{"Authorization", "Bearer " + token_}});
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200);
    auto body = json::parse(result->body);
    EXPECT_TRUE(body["flags"].is_object());
    EXPECT_TRUE(body["ai"]["models"].is_array());
    EXPECT_TRUE(body["ai"]["servers"].is_array());

    ASSERT_TRUE(body["balancers"].is_array());
    ASSERT_EQ(body["balancers"].size(), 1u);
    const auto& self = body["balancers"][0];
    EXPECT_EQ(self["url"], "http://127.0.0.1:" + std::to_string(server_->port()));
    EXPECT_TRUE(self["name"].is_string());
    EXPECT_TRUE(Uuid::parse(self["uuid"].get<std::string>()).has_value());

    const auto& user = body["user"];
    ASSERT_TRUE(user["user"].is_object());
    EXPECT_EQ(user["user"]["email"], AccountStore::kLocalEmail);
    EXPECT_EQ(user["email"], AccountStore::kLocalEmail);
    EXPECT_TRUE(Uuid::parse(user["guid"].get<std::string>()).has_value());
    EXPECT_TRUE(user["requests"].is_number_integer());
    EXPECT_EQ(user["token"], token_);
}

TEST(BackendServerPeers, BalancersNameThisServerFirstThenItsPeers) {
    TempFolder data;
    auto config = loopbackConfig(data.path());
    config.publicUrl = "https://dictation.example.org";
    config.peers = {{"second", "https://second.example.org", uuidFromText("https://second.example.org")}};
    BackendServer server(config);
    server.start();
    httplib::Client client("127.0.0.1", server.port());
    auto result = client.Get("/users/info", {{"Authorization", "Bearer " + server.localAccount().token}});
    server.stop();
    ASSERT_TRUE(result);
    auto balancers = json::parse(result->body)["balancers"];
    ASSERT_EQ(balancers.size(), 2u);
    EXPECT_EQ(balancers[0]["url"], "https://dictation.example.org");
    EXPECT_EQ(balancers[1]["name"], "second");
    EXPECT_EQ(balancers[1]["url"], "https://second.example.org");
    EXPECT_NE(balancers[0]["uuid"], balancers[1]["uuid"]);
}

TEST_F(BackendServerTest, TranscribesFestivalSpeechSentAsWavAndAsCafOpus) {
    auto& speech = SpeechFiles::get();
    ASSERT_FALSE(speech.wav.empty()) << "festival's text2wave could not make speech";
    ASSERT_FALSE(speech.caf.empty()) << "the CAF Opus recording could not be made";
    platform::test::RecordingLogSink logs;

    for (const auto& file : {speech.wav, speech.caf}) {
        auto result = postTranscribe(*client_, token_, {file.filename().string(), readFile(file), std::nullopt});
        ASSERT_TRUE(result);
        ASSERT_EQ(result->status, 200) << result->body;
        auto body = json::parse(result->body);
        ASSERT_TRUE(body["text"].is_string());
        EXPECT_EQ(body["language"], "en");
        EXPECT_FALSE(body.contains("error"));
        double accuracy = wordAccuracy(kSentence, body["text"].get<std::string>());
        std::cout << "[ measured ] " << file.extension() << " word accuracy " << accuracy << " (\""
                  << body["text"].get<std::string>() << "\")\n";
        RecordProperty("word_accuracy" + file.extension().string(), std::to_string(accuracy));
        EXPECT_GE(accuracy, 0.6) << body["text"];
    }

    // Two transcriptions counted for the account.
    auto info = json::parse(client_->Get("/users/info", {{"Authorization", "Bearer " + token_}})->body);
    EXPECT_EQ(info["user"]["requests"], 2);

    // The access log names the request without its values, and no recognised word reaches any line.
    bool accessLine = false;
    for (const auto& line : logs.lines()) {
        EXPECT_EQ(line.message.find("office"), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find("tomorrow"), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find("linux-0.1.0"), std::string::npos) << line.message;
        EXPECT_EQ(line.message.find(token_), std::string::npos) << line.message;
        if (line.message.find("method=POST path=/transcribe query=app,diarization,languages,os status=200") !=
            std::string::npos)
            accessLine = true;
    }
    EXPECT_TRUE(accessLine);
}

TEST_F(BackendServerTest, RequestsTheEngineCannotServeAreClearErrorsWithStop) {
    auto& speech = SpeechFiles::get();
    ASSERT_FALSE(speech.caf.empty());
    Upload upload{"rec.caf", readFile(speech.caf), std::nullopt};

    expectErrorShape(postTranscribe(*client_, token_, upload, "?languages=de,fr&diarization=false"), 422,
                     "UnsupportedLanguage", true);
    expectErrorShape(postTranscribe(*client_, token_, upload, "?languages=en&diarization=true"), 422,
                     "DiarizationUnsupported", true);
    expectErrorShape(postTranscribe(*client_, token_, upload, "?diarization=maybe"), 400, "BadRequest", true);

    // An AI action the server does not know is refused before any transcription.
    Upload withAi = upload;
    withAi.aiJson = R"({"prompt_id":"fix","prompt_param":"","text_lang":"en","app_lang":"en"})";
    expectErrorShape(postTranscribe(*client_, token_, withAi), 400, "BadRequest", true);
    // A known one without an AI service: the transcript, then the reason there is no AI result.
    withAi.aiJson = R"({"prompt_id":"fix_grammar","prompt_param":"","text_lang":"en","app_lang":"en"})";
    auto ai = postTranscribe(*client_, token_, withAi);
    ASSERT_TRUE(ai);
    EXPECT_EQ(ai->status, 200);
    EXPECT_EQ(ai->get_header_value("Content-Type"), "text/event-stream");
    auto firstLine = json::parse(ai->body.substr(0, ai->body.find('\n')));
    EXPECT_TRUE(firstLine["text"].is_string());
    EXPECT_EQ(firstLine["language"], "en");
    auto secondLine = json::parse(ai->body.substr(ai->body.find('\n') + 1));
    EXPECT_EQ(secondLine["error"], "AINotConfigured");
    EXPECT_EQ(secondLine["message"].get<std::string>().rfind("No AI service is set up on this server: ", 0), 0u)
        << secondLine["message"];
    EXPECT_EQ(secondLine["stop"], true);

    // A language list that holds one language of the engine is served, whatever its place and region.
    auto mixed = postTranscribe(*client_, token_, upload, "?languages=de,en-US&diarization=false");
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed->status, 200) << mixed->body;
}

TEST_F(BackendServerTest, BadUploadsAreClearErrorsAndTheServerStaysUp) {
    expectErrorShape(postTranscribe(*client_, token_, {"rec.caf", std::string(5000, '\x42'), std::nullopt}), 422,
                     "UndecodableAudio", true);
    expectErrorShape(postTranscribe(*client_, token_, {"rec.caf", "", std::nullopt}), 422, "UndecodableAudio", true);
    // A real recording cut in half still has a header that promises more than there is.
    auto& speech = SpeechFiles::get();
    ASSERT_FALSE(speech.caf.empty());
    auto caf = readFile(speech.caf);
    auto truncated = postTranscribe(*client_, token_, {"rec.caf", caf.substr(0, 200), std::nullopt});
    ASSERT_TRUE(truncated);
    EXPECT_TRUE(truncated->status == 200 || truncated->status == 422) << truncated->body;

    auto notMultipart = client_->Post("/transcribe", {{"Authorization", "Bearer " + token_}}, "{}",
                                      "application/json");
    expectErrorShape(notMultipart, 400, "BadRequest", true);
    expectErrorShape(client_->Get("/nowhere", {{"Authorization", "Bearer " + token_}}), 404, "NotFound", true);
    auto wrongMethod = client_->Get("/transcribe", {{"Authorization", "Bearer " + token_}});
    expectErrorShape(wrongMethod, 405, "MethodNotAllowed", true);
    EXPECT_EQ(wrongMethod->get_header_value("Allow"), "POST");

    auto info = client_->Get("/users/info", {{"Authorization", "Bearer " + token_}});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->status, 200);
}

TEST(BackendServerLimits, AnOversizedUploadIsRefusedWith413InTheErrorShape) {
    TempFolder data;
    auto config = loopbackConfig(data.path());
    config.maxUploadBytes = 64 * 1024;
    BackendServer server(config);
    server.start();
    httplib::Client client("127.0.0.1", server.port());
    auto result = postTranscribe(client, server.localAccount().token, {"big.caf", std::string(256 * 1024, 'x'),
                                                                       std::nullopt});
    expectErrorShape(result, 413, "PayloadTooLarge", true);
    server.stop();
}

// An engine that holds every transcription until the test lets it go: capacity and shutdown become deterministic.
struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool open = false;
    void release() {
        std::lock_guard lock(mutex);
        open = true;
        opened.notify_all();
    }
};

class GatedEngine final : public TranscriptionEngine {
public:
    explicit GatedEngine(std::shared_ptr<Gate> gate) : gate_(std::move(gate)) {}
    Transcript transcribe(std::span<const std::int16_t> samples, const std::string& language) override {
        std::unique_lock lock(gate_->mutex);
        gate_->opened.wait(lock, [this] { return gate_->open; });
        return {"held " + std::to_string(samples.size()) + " samples", language};
    }

private:
    std::shared_ptr<Gate> gate_;
};

struct GatedServer {
    explicit GatedServer(std::size_t slots) {
        auto config = loopbackConfig(data.path());
        config.engineSlots = slots;
        server = std::make_unique<BackendServer>(config, EngineDescription{"gated", {"en"}, false},
                                                 [g = gate] { return std::make_unique<GatedEngine>(g); });
        server->start();
    }
    ~GatedServer() {
        gate->release();
        server->stop();
    }
    TempFolder data;
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::unique_ptr<BackendServer> server;
};

TEST(BackendServerCapacity, ARequestBeyondTheEngineSlotsIsAnsweredNoOnlineFarms) {
    auto& speech = SpeechFiles::get();
    ASSERT_FALSE(speech.caf.empty());
    GatedServer gated(1);
    auto token = gated.server->localAccount().token;
    Upload upload{"rec.caf", readFile(speech.caf), std::nullopt};

    auto first = std::async(std::launch::async, [&] {
        httplib::Client client("127.0.0.1", gated.server->port());
        client.set_read_timeout(60, 0);
        return postTranscribe(client, token, upload);
    });
    ASSERT_TRUE(waitFor([&] { return gated.server->engineSlots().busy() == 1; }));

    httplib::Client second("127.0.0.1", gated.server->port());
    expectErrorShape(postTranscribe(second, token, upload), 503, "NoOnlineFarms", false);

    gated.gate->release();
    auto firstResult = first.get();
    ASSERT_TRUE(firstResult);
    EXPECT_EQ(firstResult->status, 200);
    EXPECT_EQ(json::parse(firstResult->body)["text"].get<std::string>().rfind("held ", 0), 0u);
    // The slot is free again.
    EXPECT_EQ(gated.server->engineSlots().busy(), 0u);
}

TEST(BackendServerShutdown, StopLetsARunningTranscriptionFinishAndRefusesNewConnections) {
    auto& speech = SpeechFiles::get();
    ASSERT_FALSE(speech.caf.empty());
    GatedServer gated(1);
    auto token = gated.server->localAccount().token;
    int port = gated.server->port();

    auto running = std::async(std::launch::async, [&] {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(60, 0);
        return postTranscribe(client, token, {"rec.caf", readFile(speech.caf), std::nullopt});
    });
    ASSERT_TRUE(waitFor([&] { return gated.server->engineSlots().busy() == 1; }));

    std::atomic<bool> stopped{false};
    auto stopper = std::async(std::launch::async, [&] {
        gated.server->stop();
        stopped = true;
    });
    // Once the listening socket is closed a new connection is refused, while the running request still waits.
    ASSERT_TRUE(waitFor([&] {
        httplib::Client probe("127.0.0.1", port);
        probe.set_connection_timeout(0, 200000);
        return !probe.Get("/users/info");
    }));
    EXPECT_FALSE(stopped.load());

    gated.gate->release();
    auto result = running.get();
    ASSERT_TRUE(result) << httplib::to_string(result.error());
    EXPECT_EQ(result->status, 200);
    stopper.get();
    EXPECT_TRUE(stopped.load());
    EXPECT_FALSE(gated.server->isRunning());
}

} // namespace
} // namespace sprelio::server::test
