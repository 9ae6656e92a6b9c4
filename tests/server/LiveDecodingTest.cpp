// Decoding while the user speaks: the packets of a stream decode to exactly the samples of the finished file, the
// recogniser fed in pieces gives the text of the whole, and over real HTTP an upload is answered from its stream
// only when the stream is that very recording, finished; in every other case it is transcribed as before.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ServerTestSupport.h"
#include "audio/CafOpusWriter.h"
#include "base/Uuid.h"
#include "server/AudioDecoder.h"
#include "server/LiveAudioDecoder.h"
#include "server/LiveDecodeSessions.h"
#include "server/PocketsphinxEngine.h"

namespace sprelio::server::test {
namespace {

using nlohmann::json;

const char* kModelFolder = "/usr/share/pocketsphinx/model/en-us";
const char* kQuery = "app=linux-0.1.0&languages=en&os=Linux&diarization=false";

// A recording as the client's recorder writes it, of a festival sentence.
struct Recording {
    std::filesystem::path caf;
    std::string bytes;
};

Recording record(const std::string& sentence, const std::filesystem::path& folder, const std::string& name) {
    auto wav = speak(sentence, folder, name);
    if (wav.empty()) return {};
    auto decoded = decodeAudio(readFile(wav), 120);
    auto* audio = std::get_if<DecodedAudio>(&decoded);
    if (!audio) return {};
    std::vector<float> samples(audio->samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(audio->samples[i]) / 32768.0f;
    Recording recording;
    recording.caf = folder / ("rec_" + name + ".caf");
    CafOpusWriter writer;
    writer.open(recording.caf);
    // In the pieces a capture delivers, so that the packets come out as they do while recording.
    for (std::size_t at = 0; at < samples.size(); at += 1600)
        writer.appendSamples(samples.data() + at, std::min<std::size_t>(1600, samples.size() - at));
    writer.finish();
    recording.bytes = readFile(recording.caf);
    return recording;
}

class Speech {
public:
    static Speech& get() {
        static Speech speech;
        return speech;
    }
    Recording first;
    Recording second;

private:
    Speech() {
        first = record("Please call me tomorrow morning at the office. The weather is nice today.", folder_.path(),
                       "first");
        second = record("The quick brown fox jumps over the lazy dog near the river bank.", folder_.path(), "second");
    }
    TempFolder folder_;
};

std::string framed(const std::vector<std::string_view>& packets) {
    std::string body;
    for (auto packet : packets) {
        body += static_cast<char>(packet.size() >> 8);
        body += static_cast<char>(packet.size() & 0xff);
        body.append(packet);
    }
    return body;
}

// A live stream over a raw socket, so that a test can send part of it, stop, or drop the connection.
class RawStream {
public:
    RawStream(int port, const std::string& token, const std::string& id) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        send("POST /transcribe/live?id=" + id + "&" + kQuery + "&channels=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
             token + "\r\nContent-Type: application/octet-stream\r\nTransfer-Encoding: chunked\r\n\r\n");
    }
    ~RawStream() { close(); }
    bool connected() const { return connected_; }
    void chunk(const std::string& bytes) {
        if (bytes.empty()) return;
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
        send(size + bytes + "\r\n");
    }
    // Ends the body and returns the status line and body of the answer.
    std::string end() {
        send("0\r\n\r\n");
        std::string answer;
        char buffer[4096];
        for (;;) {
            auto n = ::recv(fd_, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            answer.append(buffer, static_cast<std::size_t>(n));
            if (answer.find("\r\n\r\n") != std::string::npos && answer.find('}') != std::string::npos) break;
        }
        return answer;
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    void send(const std::string& bytes) {
        std::size_t at = 0;
        while (at < bytes.size()) {
            auto n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (n <= 0) return;
            at += static_cast<std::size_t>(n);
        }
    }
    int fd_ = -1;
    bool connected_ = false;
};

TEST(LiveDecoding, StreamedPacketsDecodeToTheSamplesOfTheFinishedFile) {
    const auto& recording = Speech::get().first;
    ASSERT_FALSE(recording.bytes.empty()) << "festival could not speak (scripts/install-deps.sh)";
    auto decoded = decodeAudio(recording.bytes, 120);
    ASSERT_TRUE(std::holds_alternative<DecodedAudio>(decoded));
    const auto& expected = std::get<DecodedAudio>(decoded).samples;

    auto packets = readCafOpusPackets(recording.bytes);
    ASSERT_TRUE(packets);
    EXPECT_EQ(packets->channels, 1);
    LiveOpusDecoder decoder(1, 120);
    ASSERT_FALSE(decoder.openFailure());
    std::vector<std::int16_t> live;
    SampleSink sink = [&](std::span<const std::int16_t> piece) {
        live.insert(live.end(), piece.begin(), piece.end());
        return true;
    };
    for (auto packet : packets->packets) ASSERT_FALSE(decoder.push(packet, sink));
    ASSERT_FALSE(decoder.finish(sink));
    ASSERT_EQ(live.size(), expected.size());
    EXPECT_TRUE(live == expected);
}

TEST(LiveDecoding, TheRecogniserFedInPiecesGivesTheTextOfTheWhole) {
    const auto& recording = Speech::get().first;
    ASSERT_FALSE(recording.bytes.empty());
    auto samples = std::get<DecodedAudio>(decodeAudio(recording.bytes, 120)).samples;
    PocketsphinxEngine engine(kModelFolder);
    const auto whole = engine.transcribe(samples, "en");
    ASSERT_FALSE(whole.text.empty());
    for (std::size_t piece : {1u, 320u, 777u, 2048u, 5000u}) {
        auto run = engine.beginIncremental("en");
        ASSERT_TRUE(run);
        for (std::size_t at = 0; at < samples.size(); at += piece)
            run->feed(std::span<const std::int16_t>(samples).subspan(at, std::min(piece, samples.size() - at)));
        EXPECT_EQ(run->finish().text, whole.text) << "pieces of " << piece;
    }
    // A run dropped half-way leaves the engine as it found it.
    {
        auto run = engine.beginIncremental("en");
        run->feed(std::span<const std::int16_t>(samples).first(samples.size() / 2));
    }
    EXPECT_EQ(engine.transcribe(samples, "en").text, whole.text);
}

TEST(LiveDecoding, ACafFileThatIsNoOpusRecordingHasNoPackets) {
    EXPECT_FALSE(readCafOpusPackets(""));
    EXPECT_FALSE(readCafOpusPackets("RIFF\x10\0\0\0WAVEfmt "));
    const auto& recording = Speech::get().first;
    ASSERT_FALSE(recording.bytes.empty());
    // Cut inside the packet table: the sizes no longer add up.
    EXPECT_FALSE(readCafOpusPackets(std::string_view(recording.bytes).substr(0, recording.bytes.size() - 3)));
}

class LiveRoutesTest : public ::testing::Test {
protected:
    void start(bool live, std::size_t slots = 2) {
        auto config = loopbackConfig(data_.path());
        config.liveDecoding = live;
        config.engineSlots = slots;
        server_ = std::make_unique<BackendServer>(config);
        server_->start();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(120, 0);
        token_ = server_->localAccount().token;
    }
    httplib::Result upload(const Recording& recording, const std::optional<std::string>& stream) {
        httplib::Headers headers{{"Authorization", "Bearer " + token_}};
        if (stream) headers.emplace("X-Live-Stream", *stream);
        httplib::MultipartFormDataItems items{{"file", recording.bytes, recording.caf.filename().string(),
                                               "application/octet-stream"}};
        return client_->Post(std::string("/transcribe?") + kQuery, headers, items);
    }
    std::string textOf(const httplib::Result& result) {
        if (!result || result->status != 200) return "<failed>";
        return json::parse(result->body).value("text", "<none>");
    }
    // Streams the whole recording and waits for the server's answer to the stream.
    std::string stream(const Recording& recording, const std::string& id) {
        RawStream raw(server_->port(), token_, id);
        EXPECT_TRUE(raw.connected());
        auto packets = readCafOpusPackets(recording.bytes);
        if (!packets) return {};
        // In the small pieces a recorder sends; one packet split across two pieces too.
        std::string body = framed(packets->packets);
        for (std::size_t at = 0; at < body.size(); at += 333) raw.chunk(body.substr(at, 333));
        return raw.end();
    }

    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::unique_ptr<httplib::Client> client_;
    std::string token_;
};

TEST_F(LiveRoutesTest, TheAccountAnswerAnnouncesLiveDecodingOnlyWhenSwitchedOn) {
    for (bool live : {true, false}) {
        start(live);
        auto result = client_->Get("/users/info", {{"Authorization", "Bearer " + token_}});
        ASSERT_TRUE(result && result->status == 200);
        auto first = json::parse(result->body)["balancers"][0];
        EXPECT_EQ(first.value("liveDecoding", false), live);
        if (!live) {
            RawStream raw(server_->port(), token_, Uuid::random().string());
            auto answer = raw.end();
            EXPECT_NE(answer.find("404"), std::string::npos) << answer;
            EXPECT_NE(answer.find("LiveDecodingOff"), std::string::npos) << answer;
        }
        server_->stop();
    }
}

TEST_F(LiveRoutesTest, AnUploadIsAnsweredFromItsStreamWithTheSameText) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.first.bytes.empty());
    start(true);
    const auto plain = textOf(upload(speech.first, std::nullopt));
    ASSERT_NE(plain, "<failed>");

    const auto id = Uuid::random().string();
    auto answer = stream(speech.first, id);
    ASSERT_NE(answer.find("200 OK"), std::string::npos) << answer;
    EXPECT_EQ(server_->liveStreams(), 1u);
    EXPECT_EQ(server_->engineSlots().busy(), 0u);
    EXPECT_EQ(textOf(upload(speech.first, id)), plain);
    // Used up: the same name again finds nothing and is transcribed the ordinary way.
    EXPECT_EQ(server_->liveStreams(), 0u);
    EXPECT_EQ(textOf(upload(speech.first, id)), plain);
}

TEST_F(LiveRoutesTest, AnUploadOfOtherAudioOrAnUnknownStreamIsTranscribedAsBefore) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.first.bytes.empty() || speech.second.bytes.empty());
    start(true);
    const auto first = textOf(upload(speech.first, std::nullopt));
    const auto second = textOf(upload(speech.second, std::nullopt));
    ASSERT_NE(first, second);

    const auto id = Uuid::random().string();
    stream(speech.first, id);
    EXPECT_EQ(textOf(upload(speech.second, id)), second);
    EXPECT_EQ(textOf(upload(speech.second, Uuid::random().string())), second);
    EXPECT_EQ(textOf(upload(speech.second, "not-a-uuid")), second);
}

TEST_F(LiveRoutesTest, ABrokenStreamFreesItsSlotAndItsUploadIsTranscribedAsBefore) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.first.bytes.empty());
    start(true, 1);
    const auto plain = textOf(upload(speech.first, std::nullopt));
    const auto id = Uuid::random().string();
    {
        RawStream raw(server_->port(), token_, id);
        auto packets = readCafOpusPackets(speech.first.bytes);
        ASSERT_TRUE(packets);
        auto body = framed(packets->packets);
        raw.chunk(body.substr(0, body.size() / 2));
        // The only slot is the stream's while it runs.
        ASSERT_TRUE(waitFor([&] { return server_->engineSlots().busy() == 1; }));
        auto refused = upload(speech.second, std::nullopt);
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, 503) << refused->body;
        raw.close(); // the connection drops mid-way, as when a dictation is cancelled
    }
    EXPECT_TRUE(waitFor([&] { return server_->engineSlots().busy() == 0 && server_->liveStreams() == 0; }));
    EXPECT_EQ(textOf(upload(speech.first, id)), plain);
}

TEST_F(LiveRoutesTest, AStreamLongerThanTheServerDecodesLiveIsEndedAndItsUploadTranscribedAsBefore) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.first.bytes.empty());
    auto config = loopbackConfig(data_.path());
    config.liveMaxSeconds = 1;
    server_ = std::make_unique<BackendServer>(config);
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_read_timeout(120, 0);
    token_ = server_->localAccount().token;
    const auto plain = textOf(upload(speech.first, std::nullopt));

    const auto id = Uuid::random().string();
    RawStream raw(server_->port(), token_, id);
    auto packets = readCafOpusPackets(speech.first.bytes);
    ASSERT_TRUE(packets);
    auto body = framed(packets->packets);
    raw.chunk(body.substr(0, 100));
    // The server ends the stream at the first bytes after its limit; until then it waits for more.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1100);
    ASSERT_TRUE(waitFor([&] { return std::chrono::steady_clock::now() > until; }));
    raw.chunk(body.substr(100));
    auto answer = raw.end();
    EXPECT_NE(answer.find("LiveStreamTooLong"), std::string::npos) << answer;
    EXPECT_EQ(server_->liveStreams(), 0u);
    EXPECT_EQ(textOf(upload(speech.first, id)), plain);
}

} // namespace
} // namespace sprelio::server::test
