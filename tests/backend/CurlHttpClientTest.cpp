// The HTTP transport against a real server on loopback, through the real libcurl client and a real-time loop.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "backend/MultipartBody.h"
#include "backend/ScriptedServer.h"
#include "platform/linux/CurlHttpClient.h"
#include "platform/loop/RealTimeLoop.h"
#include "platform/test/TemporaryFolder.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
using backendtest::RecordedRequest;
using backendtest::Script;
using backendtest::ScriptedServer;
using backendtest::StreamStep;
using platform::HttpRequest;
using platform::HttpResponse;
using platform::HttpResult;

constexpr auto kWait = 20s;

using TempFolder = platform::test::TemporaryFolder;

// Clears the proxy variables for its lifetime and, when given one, routes plain http through `proxy`.
class ProxyEnvironment {
public:
    explicit ProxyEnvironment(const std::string& proxy = {}) {
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "no_proxy", "NO_PROXY",
                                 "all_proxy", "ALL_PROXY"}) {
            if (const char* value = std::getenv(name)) saved_.emplace_back(name, value);
            ::unsetenv(name);
        }
        if (!proxy.empty()) {
            ::setenv("http_proxy", proxy.c_str(), 1);
            ::setenv("HTTP_PROXY", proxy.c_str(), 1);
        }
    }
    ~ProxyEnvironment() {
        ::unsetenv("http_proxy");
        ::unsetenv("HTTP_PROXY");
        for (const auto& [name, value] : saved_) ::setenv(name.c_str(), value.c_str(), 1);
    }
    ProxyEnvironment(const ProxyEnvironment&) = delete;
    ProxyEnvironment& operator=(const ProxyEnvironment&) = delete;

private:
    std::vector<std::pair<std::string, std::string>> saved_;
};

// A plain TCP server on loopback that answers whatever arrives with a few bytes of HTTP and hangs up: what a
// client speaking TLS to it gets instead of a handshake.
class GarbageServer {
public:
    GarbageServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 8) != 0) {
            throw std::runtime_error("GarbageServer: can't listen on 127.0.0.1");
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            for (;;) {
                const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0) return; // the listener was shut down
                ++connections_;
                char hello[4096];
                (void)::recv(fd, hello, sizeof hello, 0);
                const std::string_view reply = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
                (void)::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
                ::close(fd);
            }
        });
    }
    ~GarbageServer() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    GarbageServer(const GarbageServer&) = delete;
    GarbageServer& operator=(const GarbageServer&) = delete;

    int port() const { return port_; }
    int connections() const { return connections_.load(); }

private:
    int listener_ = -1;
    int port_ = 0;
    std::atomic<int> connections_{0};
    std::thread thread_;
};

class HttpTransportTest : public ::testing::Test {
protected:
    // One call's observations, all made on the main loop.
    struct Outcome {
        std::optional<HttpResult> result;
        int completions = 0;
        std::vector<std::string> lines;
        std::optional<HttpResponse> head;
        std::vector<std::pair<std::int64_t, std::int64_t>> progress;
        bool offLoopCallback = false;
    };

    std::shared_ptr<Outcome> start(HttpRequest request, std::shared_ptr<platform::HttpTask>* task = nullptr) {
        auto outcome = std::make_shared<Outcome>();
        auto onLoop = [this, outcome] {
            if (!loop.isMainThread()) outcome->offLoopCallback = true;
        };
        if (request.onLine) {
            request.onLine = [outcome, onLoop](std::string line) {
                onLoop();
                outcome->lines.push_back(std::move(line));
            };
        }
        if (request.onUploadProgress) {
            request.onUploadProgress = [outcome, onLoop](std::int64_t sent, std::int64_t total) {
                onLoop();
                outcome->progress.emplace_back(sent, total);
            };
        }
        request.onResponse = [outcome, onLoop](const HttpResponse& head) {
            onLoop();
            outcome->head = head;
        };
        auto sent = client.send(std::move(request), [outcome, onLoop](HttpResult result) {
            onLoop();
            ++outcome->completions;
            outcome->result = std::move(result);
        });
        if (task) *task = sent;
        return outcome;
    }

    std::shared_ptr<Outcome> sendAndWait(HttpRequest request) {
        auto outcome = start(std::move(request));
        EXPECT_TRUE(loop.runUntil([&] { return outcome->result.has_value(); }, kWait));
        EXPECT_FALSE(outcome->offLoopCallback);
        return outcome;
    }

    static const HttpResponse& response(const Outcome& outcome) {
        static const HttpResponse none;
        if (!outcome.result || !std::holds_alternative<HttpResponse>(*outcome.result)) {
            ADD_FAILURE() << "expected a response, got "
                          << (outcome.result ? std::get<Error>(*outcome.result).debugDescription() : "nothing");
            return none;
        }
        return std::get<HttpResponse>(*outcome.result);
    }

    static Error error(const Outcome& outcome) {
        if (!outcome.result || !std::holds_alternative<Error>(*outcome.result)) {
            ADD_FAILURE() << "expected an error";
            return {};
        }
        return std::get<Error>(*outcome.result);
    }

    // For conditions that change off the loop (at the server): re-checked on a short timer while the loop runs.
    bool waitForServer(const std::function<bool()>& condition) {
        std::function<void()> tick;
        std::shared_ptr<platform::Timer> timer;
        tick = [&] { timer = loop.schedule(5ms, tick); };
        tick();
        const bool met = loop.runUntil(condition, kWait);
        timer->invalidate();
        return met;
    }

    // Runs the loop until everything posted so far has run.
    void drainLoop() {
        bool marker = false;
        loop.post([&] { marker = true; });
        ASSERT_TRUE(loop.runUntil([&] { return marker; }, kWait));
    }

    static HttpRequest get(const std::string& url) {
        HttpRequest request;
        request.url = url;
        return request;
    }

    platform::RealTimeLoop loop;
    ScriptedServer server;
    platform::CurlHttpClient client{loop};
};

// ---- What goes on the wire ----

TEST_F(HttpTransportTest, MultipartBodyArrivesByteForByteWithAndWithoutAJsonPart) {
    TempFolder folder;
    const auto audio = folder.path() / "rec_20240501-101010-123.caf";
    std::ofstream(audio, std::ios::binary) << std::string("caff\0\x01\xff\r\n--", 11);

    const std::string boundary = "----Boundary-2F1C9A3E-0000-4000-8000-00000000ABCD";
    const std::string fileOnlyExpected =
        "------Boundary-2F1C9A3E-0000-4000-8000-00000000ABCD\r\n"
        "Content-Disposition: form-data; name=\"file\"; filename=\"rec_20240501-101010-123.caf\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n" +
        std::string("caff\0\x01\xff\r\n--", 11) +
        "\r\n"
        "------Boundary-2F1C9A3E-0000-4000-8000-00000000ABCD--\r\n";
    const std::string aiJson = R"({"app_lang":"en","prompt_id":"p","prompt_param":"","text_lang":"de"})";
    const std::string withAiExpected =
        fileOnlyExpected.substr(0, fileOnlyExpected.size() - boundary.size() - 6) +
        "------Boundary-2F1C9A3E-0000-4000-8000-00000000ABCD\r\n"
        "Content-Disposition: form-data; name=\"ai\"\r\n"
        "Content-Type: application/json\r\n\r\n" +
        aiJson +
        "\r\n"
        "------Boundary-2F1C9A3E-0000-4000-8000-00000000ABCD--\r\n";

    for (bool withAi : {false, true}) {
        SCOPED_TRACE(withAi ? "with the ai part" : "file only");
        MultipartBody body(boundary);
        body.addFile("file", audio.filename().string(), "application/octet-stream", audio);
        if (withAi) body.addBytes("ai", std::nullopt, "application/json", aiJson);
        const std::string expected = withAi ? withAiExpected : fileOnlyExpected;
        ASSERT_EQ(body.bytes(), expected);

        HttpRequest request;
        request.method = "POST";
        request.url = server.url("/transcribe?app=sprelio&os=linux&languages=de,en");
        request.headers = {{"Authorization", "Bearer tok"},
                           {"Accept-Language", "de-DE, en;q=0.9"},
                           {"Content-Type", body.contentType()}};
        request.body = body.body();
        auto outcome = sendAndWait(std::move(request));
        EXPECT_EQ(response(*outcome).status, 200);

        const RecordedRequest recorded = server.requests().back();
        EXPECT_EQ(recorded.method, "POST");
        EXPECT_EQ(recorded.target, "/transcribe?app=sprelio&os=linux&languages=de,en");
        EXPECT_EQ(recorded.body, expected);
        EXPECT_EQ(recorded.header("Content-Length"), std::to_string(expected.size()));
        EXPECT_EQ(recorded.header("Content-Type"), "multipart/form-data; boundary=" + boundary);
        EXPECT_EQ(recorded.header("Expect"), "");
        // The caller's headers keep their order.
        std::vector<std::string> order;
        for (const auto& [name, value] : recorded.headers) {
            if (name == "Authorization" || name == "Accept-Language" || name == "Content-Type") order.push_back(name);
        }
        EXPECT_EQ(order, (std::vector<std::string>{"Authorization", "Accept-Language", "Content-Type"}));
    }
}

TEST_F(HttpTransportTest, LargeFilePartIsStreamedFromDiskIdenticallyWithUploadProgress) {
    TempFolder folder;
    const auto path = folder.path() / "long.caf";
    {
        std::mt19937 random(7);
        std::string data(6 * 1024 * 1024 + 123, '\0');
        for (auto& c : data) c = static_cast<char>(random());
        std::ofstream(path, std::ios::binary) << data;
    }
    MultipartBody body("----Boundary-LARGE");
    body.addFile("file", "long.caf", "application/octet-stream", path);
    body.addBytes("ai", std::nullopt, "application/json", "{}");
    const auto expected = body.bytes();
    ASSERT_TRUE(expected);

    HttpRequest request;
    request.method = "POST";
    request.url = server.url("/transcribe");
    request.headers = {{"Content-Type", body.contentType()}};
    request.body = body.body();
    request.onUploadProgress = [](std::int64_t, std::int64_t) {};
    auto outcome = sendAndWait(std::move(request));
    EXPECT_EQ(response(*outcome).status, 200);
    ASSERT_EQ(server.requestCount(), 1u);
    EXPECT_TRUE(server.requests().front().body == *expected) << "the bytes on the wire differ from the body";

    ASSERT_FALSE(outcome->progress.empty());
    const auto total = static_cast<std::int64_t>(expected->size());
    for (std::size_t i = 0; i < outcome->progress.size(); ++i) {
        EXPECT_EQ(outcome->progress[i].second, total);
        if (i > 0) {
            EXPECT_GT(outcome->progress[i].first, outcome->progress[i - 1].first);
        }
    }
    EXPECT_EQ(outcome->progress.back().first, total);
}

TEST_F(HttpTransportTest, RawFileBodyAndEmptyPostCarryNoInventedContentType) {
    TempFolder folder;
    const auto path = folder.path() / "clip.mp4";
    std::ofstream(path, std::ios::binary) << "0123456789";
    HttpRequest upload;
    upload.method = "POST";
    upload.url = server.url("/transcribe/file/ABC?diarization=false&file_hash=ff");
    upload.body = platform::HttpBody::fromFile(path);
    sendAndWait(std::move(upload));
    HttpRequest empty;
    empty.method = "POST";
    empty.url = server.url("/users/report");
    sendAndWait(std::move(empty));

    const auto recorded = server.requests();
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded[0].body, "0123456789");
    EXPECT_EQ(recorded[0].header("Content-Type"), "");
    EXPECT_EQ(recorded[0].target, "/transcribe/file/ABC?diarization=false&file_hash=ff");
    EXPECT_EQ(recorded[1].method, "POST");
    EXPECT_EQ(recorded[1].header("Content-Length"), "0");
    EXPECT_EQ(recorded[1].header("Content-Type"), "");
}

TEST_F(HttpTransportTest, MissingBodyFileFailsBeforeConnecting) {
    MultipartBody body("----B");
    body.addFile("file", "gone.caf", "application/octet-stream", "/nonexistent/sprelio/gone.caf");
    HttpRequest request;
    request.method = "POST";
    request.url = server.url("/transcribe");
    request.body = body.body();
    auto outcome = sendAndWait(std::move(request));
    EXPECT_EQ(error(*outcome).code, platform::url_error_extra::kFileDoesNotExist);
    EXPECT_EQ(server.headsReceived(), 0u);
}

// ---- Answers ----

TEST_F(HttpTransportTest, StreamedLinesArriveBeforeTheBodyEnds) {
    Script script;
    script.headers = {{"Content-Type", "text/event-stream; charset=utf-8"}};
    script.stream = {StreamStep::write("{\"text\":\"a\"}\n\n"), StreamStep::waitFor("rest"),
                     StreamStep::write("{\"progress_text\":\"b\"}\r\n{\"comp"), StreamStep::write("letion\":\"c\"}")};
    server.script("/stream", script);
    HttpRequest request = get(server.url("/stream"));
    request.onLine = [](std::string) {};
    auto outcome = start(std::move(request));

    ASSERT_TRUE(loop.runUntil([&] { return outcome->lines.size() == 1; }, kWait));
    EXPECT_FALSE(outcome->result.has_value()) << "the first line must arrive while the body is still open";
    ASSERT_TRUE(outcome->head.has_value());
    EXPECT_EQ(outcome->head->status, 200);
    EXPECT_EQ(outcome->head->mimeType, "text/event-stream");

    server.openGate("rest");
    ASSERT_TRUE(loop.runUntil([&] { return outcome->result.has_value(); }, kWait));
    EXPECT_EQ(outcome->lines,
              (std::vector<std::string>{"{\"text\":\"a\"}", "{\"progress_text\":\"b\"}", "{\"completion\":\"c\"}"}));
    EXPECT_EQ(response(*outcome).mimeType, "text/event-stream");
    EXPECT_EQ(response(*outcome).body, "") << "a streamed answer is not kept";
    EXPECT_FALSE(outcome->offLoopCallback);
}

TEST_F(HttpTransportTest, ServerErrorWithHtmlIsAResponseAndInvalidUtf8PassesThrough) {
    Script html;
    html.status = 500;
    html.reason = "Internal Server Error";
    html.headers = {{"Content-Type", "text/html; charset=iso-8859-1"}, {"X-Trace", "abc"}};
    html.body = "<html><body>Oops</body></html>";
    server.script("/html", html);
    Script binary;
    binary.body = std::string("{\"text\":\"\xff\xfe\xc3\"}");
    server.script("/binary", binary);

    auto failed = sendAndWait(get(server.url("/html")));
    EXPECT_EQ(response(*failed).status, 500);
    EXPECT_EQ(response(*failed).mimeType, "text/html");
    EXPECT_EQ(response(*failed).body, html.body);
    EXPECT_EQ(response(*failed).header("x-trace"), "abc");

    auto odd = sendAndWait(get(server.url("/binary")));
    EXPECT_EQ(response(*odd).body, binary.body);
}

TEST_F(HttpTransportTest, SeveralTransfersRunAtOnce) {
    Script gated;
    gated.gateBeforeHead = "go";
    server.scriptDefault(gated);
    std::vector<std::shared_ptr<Outcome>> outcomes;
    for (int i = 0; i < 4; ++i) outcomes.push_back(start(get(server.url("/r" + std::to_string(i)))));
    // All four are at the server before any is answered.
    ASSERT_TRUE(waitForServer([&] { return server.requestCount() == 4; }));
    server.openGate("go");
    ASSERT_TRUE(loop.runUntil(
        [&] {
            return std::all_of(outcomes.begin(), outcomes.end(), [](auto& o) { return o->result.has_value(); });
        },
        kWait));
    for (auto& outcome : outcomes) EXPECT_EQ(response(*outcome).status, 200);
}

// ---- Failures ----

TEST_F(HttpTransportTest, CancelMidTransferCompletesOnceWithCancelled) {
    Script script;
    script.stream = {StreamStep::write("first\n"), StreamStep::hangForever()};
    server.script("/slow", script);
    HttpRequest request = get(server.url("/slow"));
    request.onLine = [](std::string) {};
    std::shared_ptr<platform::HttpTask> task;
    auto outcome = start(std::move(request), &task);
    ASSERT_TRUE(loop.runUntil([&] { return !outcome->lines.empty(); }, kWait));

    task->cancel();
    task->cancel();
    ASSERT_TRUE(loop.runUntil([&] { return outcome->result.has_value(); }, kWait));
    task->cancel();
    drainLoop();
    EXPECT_EQ(outcome->completions, 1);
    EXPECT_EQ(error(*outcome).code, url_error::kCancelled);
    EXPECT_EQ(error(*outcome).domain, "NSURLErrorDomain");
}

TEST_F(HttpTransportTest, SilentServerTimesOut) {
    Script silentHead;
    silentHead.gateBeforeHead = "never";
    server.script("/silent", silentHead);
    Script stalledBody;
    stalledBody.stream = {StreamStep::write("{\"progress_text\":\"x\"}\n"), StreamStep::hangForever()};
    server.script("/stalled", stalledBody);

    for (const std::string path : {"/silent", "/stalled"}) {
        SCOPED_TRACE(path);
        HttpRequest request = get(server.url(path));
        request.timeout = 400ms;
        auto outcome = sendAndWait(std::move(request));
        EXPECT_EQ(error(*outcome).code, url_error::kTimedOut);
        EXPECT_FALSE(error(*outcome).localizedDescription.empty());
    }
}

TEST_F(HttpTransportTest, BodyThatNeverEndsHitsTheTotalTimeOut) {
    Script endless;
    endless.body = "{\"progress_text\":\"start\"}\n";
    endless.trickle = "{\"progress_text\":\"more\"}\n";
    endless.trickleEvery = 20ms;
    server.script("/endless", endless);
    for (bool lines : {false, true}) {
        SCOPED_TRACE(lines ? "lines" : "whole body");
        HttpRequest request = get(server.url("/endless"));
        request.timeout = 300ms;
        request.totalTimeout = 800ms;
        if (lines) request.onLine = [](std::string) {};
        auto outcome = sendAndWait(std::move(request));
        EXPECT_EQ(error(*outcome).code, url_error::kTimedOut);
        if (lines) {
            EXPECT_FALSE(outcome->lines.empty());
        }
    }
}

TEST_F(HttpTransportTest, AnswerTimeOutCountsFromTheLastByteOfTheBody) {
    TempFolder folder;
    const auto path = folder.path() / "clip.mp4";
    std::ofstream(path, std::ios::binary) << std::string(2 * 1024 * 1024, 'a');
    Script endless;
    endless.body = "{\"uuid\":";
    endless.trickle = " ";
    endless.trickleEvery = 20ms;
    server.script("/endless", endless);
    // Silent for a while, then a whole answer: within the bound, so it must pass.
    Script late;
    late.delayBeforeHead = 300ms;
    late.body = R"({"uuid":"A"})";
    server.script("/late", late);

    auto upload = [&](const std::string& target) {
        HttpRequest request;
        request.method = "POST";
        request.url = server.url(target);
        request.body = platform::HttpBody::fromFile(path);
        request.timeout = 2s;
        request.answerTimeout = 1s;
        return sendAndWait(std::move(request));
    };
    auto trickled = upload("/endless");
    EXPECT_EQ(error(*trickled).code, url_error::kTimedOut);
    EXPECT_EQ(error(*trickled).domain, "NSURLErrorDomain");
    EXPECT_NE(error(*trickled).localizedDescription.find("answer had not ended"), std::string::npos)
        << error(*trickled).localizedDescription;
    auto answered = upload("/late");
    EXPECT_EQ(response(*answered).status, 200);
    EXPECT_EQ(response(*answered).body, R"({"uuid":"A"})");
    for (const auto& request : server.requests()) EXPECT_EQ(request.bodySize, 2u * 1024u * 1024u);
}

TEST_F(HttpTransportTest, LineTimeOutEndsBytesThatNeverCompleteALine) {
    Script partial;
    partial.headers = {{"Content-Type", "application/x-ndjson"}};
    partial.body = "{\"progress_text\":\"a\"}\n{\"progress_text\":";
    partial.trickle = "x";
    partial.trickleEvery = 20ms;
    server.script("/partial", partial);
    // Lines that keep coming reset the limit: this stream lasts longer than it and still ends well.
    Script steady;
    steady.headers = {{"Content-Type", "application/x-ndjson"}};
    for (int i = 0; i < 8; ++i) {
        steady.stream.push_back(StreamStep::write("{\"progress_text\":\"" + std::to_string(i) + "\"}\n"));
        steady.stream.push_back(StreamStep::sleep(150ms));
    }
    server.script("/steady", steady);

    auto stream = [&](const std::string& target) {
        HttpRequest request = get(server.url(target));
        request.timeout = 2s;
        request.lineTimeout = 600ms;
        request.onLine = [](std::string) {};
        return sendAndWait(std::move(request));
    };
    auto stalled = stream("/partial");
    EXPECT_EQ(error(*stalled).code, url_error::kTimedOut);
    EXPECT_NE(error(*stalled).localizedDescription.find("no complete line"), std::string::npos)
        << error(*stalled).localizedDescription;
    EXPECT_EQ(stalled->lines, std::vector<std::string>{"{\"progress_text\":\"a\"}"});
    auto flowing = stream("/steady");
    EXPECT_EQ(response(*flowing).status, 200);
    EXPECT_EQ(flowing->lines.size(), 8u);
}

TEST_F(HttpTransportTest, RefusedConnectionIsCannotConnect) {
    std::string url;
    {
        ScriptedServer gone;
        url = gone.url("/x");
    }
    auto outcome = sendAndWait(get(url));
    EXPECT_EQ(error(*outcome).code, url_error::kCannotConnectToHost);
    EXPECT_EQ(error(*outcome).domain, "NSURLErrorDomain");
    EXPECT_NE(error(*outcome).localizedDescription.find("Could not connect to the server"), std::string::npos);
    EXPECT_EQ(error(*outcome).userInfo.at("NSErrorFailingURLStringKey"), url);
}

TEST_F(HttpTransportTest, UnknownHostIsCannotFindHost) {
    // Without a proxy the name itself is resolved; the reserved TLD guarantees that it does not exist.
    ProxyEnvironment noProxy;
    const std::string url = "https://sprelio-no-such-host.invalid/users/info";
    auto outcome = sendAndWait(get(url));
    EXPECT_EQ(error(*outcome).code, url_error::kCannotFindHost);
    EXPECT_EQ(error(*outcome).domain, "NSURLErrorDomain");
    EXPECT_NE(error(*outcome).localizedDescription.find("host name could not be found"), std::string::npos)
        << error(*outcome).localizedDescription;
    EXPECT_EQ(error(*outcome).userInfo.at("NSErrorFailingURLStringKey"), url);
}

TEST_F(HttpTransportTest, PlainTcpAnswerToHttpsIsSecureConnectionFailed) {
    GarbageServer plain;
    const std::string url = "https://127.0.0.1:" + std::to_string(plain.port()) + "/transcribe";
    auto outcome = sendAndWait(get(url));
    EXPECT_EQ(error(*outcome).code, url_error::kSecureConnectionFailed);
    EXPECT_EQ(error(*outcome).domain, "NSURLErrorDomain");
    EXPECT_NE(error(*outcome).localizedDescription.find("secure connection"), std::string::npos)
        << error(*outcome).localizedDescription;
    EXPECT_GE(plain.connections(), 1);
}

TEST_F(HttpTransportTest, ConnectionClosedMidStreamIsConnectionLost) {
    Script script;
    script.headers = {{"Content-Type", "text/event-stream"}};
    script.stream = {StreamStep::write("{\"text\":\"a\"}\n{\"compl"), StreamStep::closeConnection()};
    server.script("/cut", script);
    for (bool lines : {false, true}) {
        SCOPED_TRACE(lines ? "lines" : "whole body");
        HttpRequest request = get(server.url("/cut"));
        if (lines) request.onLine = [](std::string) {};
        auto outcome = sendAndWait(std::move(request));
        EXPECT_EQ(error(*outcome).code, url_error::kNetworkConnectionLost);
        // The complete line went out before the cut; the partial one never does.
        if (lines) {
            EXPECT_EQ(outcome->lines, std::vector<std::string>{"{\"text\":\"a\"}"});
        }
    }
}

TEST_F(HttpTransportTest, LineLongerThan16MegabytesIsABadServerResponse) {
    Script script;
    script.headers = {{"Content-Type", "text/event-stream"}};
    script.stream.push_back(StreamStep::write("{\"text\":\"ok\"}\n"));
    const std::string megabyte(1024 * 1024, 'x');
    for (int i = 0; i < 17; ++i) script.stream.push_back(StreamStep::write(megabyte));
    script.stream.push_back(StreamStep::hangForever());
    server.script("/long", script);
    HttpRequest request = get(server.url("/long"));
    request.onLine = [](std::string) {};
    auto outcome = sendAndWait(std::move(request));
    EXPECT_EQ(error(*outcome).code, url_error::kBadServerResponse);
    EXPECT_NE(error(*outcome).localizedDescription.find("16 MB"), std::string::npos);
    EXPECT_EQ(outcome->lines, std::vector<std::string>{"{\"text\":\"ok\"}"});
}

// ---- Cleartext rules ----

TEST_F(HttpTransportTest, PlainHttpToAnotherHostAndCleartextBearerTokensNeverLeave) {
    // Were anything sent, it would go through this "proxy", which records every request.
    ScriptedServer proxy;
    ProxyEnvironment environment(proxy.url(""));

    auto plain = sendAndWait(get("http://192.0.2.1/transcribe"));
    EXPECT_EQ(error(*plain).code, platform::url_error_extra::kSecureConnectionRequired);
    EXPECT_NE(error(*plain).localizedDescription.find("192.0.2.1"), std::string::npos);

    HttpRequest bearer = get("http://example.com:8080/users/info");
    bearer.headers = {{"authorization", "Bearer secret-token"}};
    auto token = sendAndWait(std::move(bearer));
    EXPECT_EQ(error(*token).code, platform::url_error_extra::kSecureConnectionRequired);
    EXPECT_NE(error(*token).localizedDescription.find("bearer token"), std::string::npos);
    EXPECT_EQ(error(*token).localizedDescription.find("secret-token"), std::string::npos);

    // Loopback is allowed and never goes through the proxy.
    HttpRequest local = get(server.url("/users/info"));
    local.headers = {{"Authorization", "Bearer secret-token"}};
    EXPECT_EQ(response(*sendAndWait(std::move(local))).status, 200);
    EXPECT_EQ(server.requests().back().header("Authorization"), "Bearer secret-token");
    EXPECT_EQ(proxy.headsReceived(), 0u);

    auto unsupported = sendAndWait(get("ftp://127.0.0.1/x"));
    EXPECT_EQ(error(*unsupported).code, platform::url_error_extra::kUnsupportedURL);
    auto bad = sendAndWait(get("not a url"));
    EXPECT_EQ(error(*bad).code, platform::url_error_extra::kBadURL);
}

// No route anywhere, as on a machine without any network: a fresh network namespace holds only a loopback
// device, and that one is down. The namespace is entered by a child process so that nothing else is affected.
TEST(HttpTransportOfflineTest, NoRouteIsNotConnectedToTheInternet) {
    int channel[2];
    ASSERT_EQ(::pipe2(channel, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(channel[0]);
        auto report = [&](int status, const std::string& text) {
            (void)!::write(channel[1], text.data(), text.size());
            ::_exit(status);
        };
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
            report(77, std::string("can't enter a network namespace of its own: ") + std::strerror(errno));
        }
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            ::unsetenv(name);
        }
        // The child must never return into the test runner, whatever happens.
        try {
            platform::RealTimeLoop loop;
            platform::CurlHttpClient client(loop);
            std::optional<HttpResult> result;
            HttpRequest request;
            request.url = "https://192.0.2.1/users/info";
            request.timeout = 10s;
            client.send(std::move(request), [&](HttpResult r) { result = std::move(r); });
            if (!loop.runUntil([&] { return result.has_value(); }, kWait)) report(2, "no completion");
            if (!std::holds_alternative<Error>(*result)) report(3, "an answer without any network");
            const Error failure = std::get<Error>(*result);
            const bool expected = failure.code == url_error::kNotConnectedToInternet &&
                                  failure.domain == "NSURLErrorDomain" &&
                                  failure.localizedDescription.find("offline") != std::string::npos;
            report(expected ? 0 : 1, failure.debugDescription());
        } catch (const std::exception& e) {
            report(4, e.what());
        }
        report(5, "unreachable");
    }
    ::close(channel[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = ::read(channel[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(channel[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ASSERT_TRUE(WIFEXITED(status)) << "the child ended by a signal";
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << text;
    EXPECT_EQ(WEXITSTATUS(status), 0) << text;
}

TEST(LoopbackHostTest, OnlyLoopbackAddressesCount) {
    for (const char* host : {"127.0.0.1", "127.8.9.10", "::1", "[::1]", "localhost", "LocalHost", "localhost."}) {
        EXPECT_TRUE(platform::isLoopbackHost(host)) << host;
    }
    for (const char* host : {"192.0.2.1", "128.0.0.1", "::2", "localhost.example.com", "127.0.0.1.nip.io", ""}) {
        EXPECT_FALSE(platform::isLoopbackHost(host)) << host;
    }
}

} // namespace
} // namespace sprelio
