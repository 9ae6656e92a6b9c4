// The live stream of a dictation: its transport (libcurl, chunked, against an HTTP library server on loopback) and
// the one header by which the ordinary upload names it, which only the stream's own backend hears of, and only
// while the stream has not failed.
// Before the X headers that the test support pulls in: their macros clash with the HTTP library's names.
#include <httplib.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "backend/LiveDictationStreams.h"
#include "backend/UploadTestSupport.h"
#include "platform/linux/CurlStreamingUpload.h"

namespace sprelio::backendtest {
namespace {

using platform::HttpRequest;
using platform::HttpResponse;
using platform::HttpResult;

// An HTTP server on 127.0.0.1 whose POST /live reads its body piece by piece as the client sends it. After
// `closeAfter` bytes it stops reading, answers 413 and closes the connection, as a server ends a stream it won't
// take further.
class LiveServer {
public:
    explicit LiveServer(std::size_t closeAfter = 0) : closeAfter_(closeAfter) {
        http_.Post("/live", [this](const httplib::Request&, httplib::Response& response,
                                   const httplib::ContentReader& reader) {
            const bool whole = reader([this](const char* data, std::size_t length) {
                std::lock_guard lock(mutex_);
                received_.append(data, length);
                changed_.notify_all();
                return closeAfter_ == 0 || received_.size() < closeAfter_;
            });
            {
                std::lock_guard lock(mutex_);
                handled_ = true;
                complete_ = whole && (closeAfter_ == 0 || received_.size() < closeAfter_);
                changed_.notify_all();
            }
            if (complete_) {
                response.set_content(R"({"received":)" + std::to_string(received_.size()) + "}", "application/json");
            } else {
                response.status = 413;
                response.set_header("Connection", "close");
                response.set_content(R"({"error":"LiveStreamTooLong","message":"enough"})", "application/json");
            }
        });
        port_ = http_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { http_.listen_after_bind(); });
        // Listening since the bind; the wait keeps a quick stop() from racing the accepting loop's start.
        const auto deadline = std::chrono::steady_clock::now() + kWait;
        while (!http_.is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    }
    ~LiveServer() {
        http_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/live"; }
    // Waits (with a deadline) until the body read so far is `bytes` exactly or longer.
    bool waitForReceived(std::size_t bytes) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return received_.size() >= bytes; });
    }
    bool waitForHandled() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return handled_; });
    }
    std::string received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    bool complete() const {
        std::lock_guard lock(mutex_);
        return complete_;
    }

private:
    httplib::Server http_;
    std::thread thread_;
    int port_ = 0;
    std::size_t closeAfter_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string received_;
    bool handled_ = false;
    bool complete_ = false;
};

class StreamingTransport : public ::testing::Test {
protected:
    std::shared_ptr<platform::StreamingUpload> start(const std::string& url) {
        HttpRequest request;
        request.method = "POST";
        request.url = url;
        request.headers = {{"Authorization", "Bearer tok-live"}, {"Content-Type", "application/octet-stream"}};
        request.timeout = std::chrono::seconds(10);
        return client.start(std::move(request), [this](HttpResult result) {
            ++completions;
            outcome = std::move(result);
        });
    }
    bool waitForOutcome() { return loop.runUntil([&] { return outcome.has_value(); }, kWait); }
    const Error* error() const { return std::get_if<Error>(&*outcome); }
    const HttpResponse* response() const { return std::get_if<HttpResponse>(&*outcome); }

    platform::RealTimeLoop loop;
    platform::CurlStreamingUploadClient client{loop};
    std::optional<HttpResult> outcome;
    int completions = 0;
};

TEST_F(StreamingTransport, EachPieceReachesTheServerBeforeTheNextIsWrittenAndTheAnswerComesAtTheEnd) {
    LiveServer server;
    auto upload = start(server.url());
    const std::vector<std::string> pieces = {"first packet", std::string(70000, '\x01'), "", "last"};
    std::string sent;
    for (const auto& piece : pieces) {
        upload->write(piece);
        sent += piece;
        // Streamed, not gathered: the server holds this piece while the next one has not been written.
        ASSERT_TRUE(server.waitForReceived(sent.size())) << "the server got " << server.received().size() << " of "
                                                         << sent.size() << " bytes";
        EXPECT_EQ(server.received(), sent);
        EXPECT_FALSE(outcome.has_value());
    }
    upload->finish();
    upload->write("after the end");
    ASSERT_TRUE(waitForOutcome());
    ASSERT_NE(response(), nullptr) << error()->localizedDescription;
    EXPECT_EQ(response()->status, 200);
    EXPECT_EQ(response()->body, R"({"received":)" + std::to_string(sent.size()) + "}");
    EXPECT_EQ(server.received(), sent);
    EXPECT_TRUE(server.complete());
}

TEST_F(StreamingTransport, CancelEndsTheConnectionWithoutTheBodysEnd) {
    LiveServer server;
    auto upload = start(server.url());
    upload->write("spoken so far");
    ASSERT_TRUE(server.waitForReceived(13));
    upload->cancel();
    // The server's reading ends because the connection did: no last chunk was sent.
    ASSERT_TRUE(server.waitForHandled());
    EXPECT_FALSE(server.complete());
    ASSERT_TRUE(waitForOutcome());
    ASSERT_NE(error(), nullptr);
    EXPECT_EQ(error()->code, url_error::kCancelled);
    upload->write("never sent");
    upload->finish();
    EXPECT_EQ(server.received(), "spoken so far");
}

TEST_F(StreamingTransport, AServerThatEndsTheStreamMidWayIsHeardWhileNothingMoreIsWritten) {
    LiveServer server(/*closeAfter=*/8);
    auto upload = start(server.url());
    upload->write("0123456789");
    ASSERT_TRUE(server.waitForHandled());
    // The speaker is silent for the codec's sake or the capture is slow: the answer is taken all the same.
    ASSERT_TRUE(waitForOutcome());
    if (const auto* answer = response()) {
        EXPECT_EQ(answer->status, 413);
    } else {
        EXPECT_EQ(error()->code, url_error::kNetworkConnectionLost) << error()->localizedDescription;
    }
    upload->write("more");
    upload->finish();
    loop.runUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(completions, 1);
}

TEST_F(StreamingTransport, AServerThatIsGoneIsReported) {
    int port = 0;
    {
        LiveServer gone;
        port = std::stoi(gone.url().substr(gone.url().rfind(':') + 1));
    }
    auto upload = start("http://127.0.0.1:" + std::to_string(port) + "/live");
    upload->write("packet");
    ASSERT_TRUE(waitForOutcome());
    ASSERT_NE(error(), nullptr);
    EXPECT_EQ(error()->code, url_error::kNetworkConnectionLost);
}

TEST_F(StreamingTransport, AStreamInClearTextLeavesOnlyForLoopback) {
    auto upload = start("http://example.invalid/transcribe/live");
    upload->write("packet");
    ASSERT_TRUE(waitForOutcome());
    ASSERT_NE(error(), nullptr);
    EXPECT_EQ(error()->code, platform::url_error_extra::kSecureConnectionRequired);
}

// The streaming transport as the live streams see it: what was started, written and ended, and a completion the
// test gives when it likes.
class RecordingStreamClient final : public platform::StreamingUploadClient {
public:
    struct Stream final : platform::StreamingUpload {
        std::string bytes;
        bool finished = false;
        bool cancelled = false;
        void write(std::string more) override {
            if (!finished && !cancelled) bytes += more;
        }
        void finish() override { finished = true; }
        void cancel() override { cancelled = true; }
    };
    struct Started {
        HttpRequest request;
        Completion completion;
        std::shared_ptr<Stream> stream;
    };
    std::shared_ptr<platform::StreamingUpload> start(HttpRequest request, Completion completion) override {
        started.push_back({std::move(request), std::move(completion), std::make_shared<Stream>()});
        return started.back().stream;
    }
    std::vector<Started> started;
};

class LiveHeader : public UploadFixture {
protected:
    LiveHeader() {
        live = std::make_unique<LiveDictationStreams>(
            LiveDictationStreams::Dependencies{loop, streams, *balancing, appState, *settings, *manager});
        manager->setLiveStreams(live.get());
    }
    ~LiveHeader() override {
        manager->setLiveStreams(nullptr);
        live.reset();
    }
    // A dictation recorded while its stream ran: two packets, then the end.
    std::shared_ptr<RecordingPacketSink> record() {
        auto sink = live->begin(requestID, "de,en", false);
        if (!sink) return nullptr;
        const std::uint8_t packet[] = {0xfc, 0x01, 0x02};
        sink->packet(packet, sizeof packet);
        sink->packet(packet, 1);
        sink->ended(true);
        return sink;
    }
    std::string uploadedHeader(std::size_t server) {
        const auto sent = posts(*servers[server]);
        return sent.empty() ? "<no upload>" : sent.back().header(LiveDictationStreams::kHeader);
    }

    RecordingStreamClient streams;
    std::unique_ptr<LiveDictationStreams> live;
};

TEST_F(LiveHeader, TheStreamGoesToTheFirstBackendWithThePacketsFramedAndTheUploadsQuery) {
    auto backends = useBackends(1);
    backends[0]->liveDecoding = true;
    ASSERT_NE(record(), nullptr);
    ASSERT_EQ(streams.started.size(), 1u);
    const auto& started = streams.started[0];
    EXPECT_EQ(started.request.url, servers[0]->url("/transcribe/live?id=") + requestID.string() + "&app=" +
                                       constants->clientVersion() + "&languages=de,en" +
                                       "&os=Linux%20Debian%20GNU/Linux%2012%20(bookworm)%206.1.0-test" +
                                       "&diarization=false&channels=1");
    EXPECT_EQ(started.stream->bytes, std::string("\0\3\xfc\1\2\0\1\xfc", 8));
    EXPECT_TRUE(started.stream->finished);
    bool authorized = false;
    for (const auto& header : started.request.headers)
        authorized = authorized || (header.name == "Authorization" && header.value == "Bearer tok-123");
    EXPECT_TRUE(authorized);
}

TEST_F(LiveHeader, ABackendThatDoesNotDecodeLiveGetsNoStreamAndAPlainUpload) {
    useBackends(1);
    EXPECT_EQ(record(), nullptr);
    EXPECT_TRUE(streams.started.empty());
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"hallo","language":"de"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    EXPECT_EQ(uploadedHeader(0), "");
}

// How the stream stands when its recording's upload leaves, and whether the upload names it.
struct StreamEnd {
    const char* name;
    std::function<void(RecordingStreamClient::Started&, LiveDictationStreams&, const Uuid&)> end;
    bool named;
};

class LiveHeaderByStreamEnd : public LiveHeader, public ::testing::WithParamInterface<StreamEnd> {};

TEST_P(LiveHeaderByStreamEnd, TheUploadNamesTheStreamOnlyWhileItHasNotFailed) {
    auto backends = useBackends(1);
    backends[0]->liveDecoding = true;
    ASSERT_NE(record(), nullptr);
    ASSERT_EQ(streams.started.size(), 1u);
    GetParam().end(streams.started[0], *live, requestID);
    drain();
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"hallo","language":"de"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    EXPECT_EQ(uploadedHeader(0), GetParam().named ? requestID.string() : "");
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_TRUE(outcome->calls[0].result.has_value());
}

HttpResponse answered(int status) {
    HttpResponse response;
    response.status = status;
    response.body = R"({"id":"x","decoded":true})";
    return response;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LiveHeaderByStreamEnd,
    ::testing::Values(
        StreamEnd{"StillAnswering", [](auto&, auto&, const auto&) {}, true},
        StreamEnd{"Decoded", [](auto& started, auto&, const auto&) { started.completion(answered(200)); }, true},
        StreamEnd{"RefusedByTheServer",
                  [](auto& started, auto&, const auto&) {
                      HttpResponse refused = answered(413);
                      refused.body = R"({"error":"LiveStreamTooLong","message":"too long"})";
                      started.completion(refused);
                  },
                  false},
        StreamEnd{"ConnectionLost",
                  [](auto& started, auto&, const auto&) {
                      started.completion(Error{url_error::kDomain, url_error::kNetworkConnectionLost, "lost", {}});
                  },
                  false},
        StreamEnd{"CancelledWithItsDictation",
                  [](auto& started, auto& live, const auto& id) {
                      live.cancel(id);
                      EXPECT_TRUE(started.stream->cancelled);
                  },
                  false}),
    [](const ::testing::TestParamInfo<StreamEnd>& row) { return std::string(row.param.name); });

TEST_F(LiveHeader, AFailoverUploadToAnotherBackendDoesNotNameTheStream) {
    auto backends = useBackends(2);
    backends[0]->liveDecoding = true;
    backends[1]->liveDecoding = true;
    ASSERT_NE(record(), nullptr);
    servers[0]->script("/transcribe", jsonAnswer(R"({"error":"Overloaded","message":"busy"})"));
    servers[1]->script("/transcribe", jsonAnswer(R"({"text":"bonjour","language":"fr"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    EXPECT_EQ(uploadedHeader(0), requestID.string());
    EXPECT_EQ(uploadedHeader(1), "") << "the second backend never saw the stream";
    ASSERT_EQ(outcome->calls.size(), 1u);
    EXPECT_TRUE(outcome->calls[0].result.has_value());
}

TEST_F(LiveHeader, AnotherDictationsUploadDoesNotNameThisStream) {
    auto backends = useBackends(1);
    backends[0]->liveDecoding = true;
    ASSERT_NE(record(), nullptr);
    requestID = Uuid::random();
    servers[0]->script("/transcribe", jsonAnswer(R"({"text":"hallo","language":"de"})"));
    auto outcome = upload();
    ASSERT_TRUE(waitFor([&] { return !outcome->calls.empty(); }));
    EXPECT_EQ(uploadedHeader(0), "");
}

} // namespace
} // namespace sprelio::backendtest
