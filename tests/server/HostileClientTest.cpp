// The server against a hostile client, over real sockets on loopback: code guessing, slow senders, bodies and
// headers without end, other accounts' upload ids, playlists posing as audio, and every route walked without a
// token and with another account's. Clients that must look like different machines connect from different
// loopback addresses (127.0.0.2, 127.0.0.3, ...).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <set>

#include <nlohmann/json.hpp>

#include "ServerTestSupport.h"
#include "base/Uuid.h"
#include "platform/test/TestPlatform.h"
#include "server/OpenAiTranscriptionEngine.h"
#include "server/AudioDecoder.h"

namespace sprelio::server::test {
namespace {

using nlohmann::json;

// A TCP connection to the server from a chosen loopback address.
class RawConnection {
public:
    RawConnection(int port, const std::string& from = "127.0.0.1") {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        ::inet_pton(AF_INET, from.c_str(), &local.sin_addr);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) close();
        sockaddr_in remote{};
        remote.sin_family = AF_INET;
        remote.sin_port = htons(static_cast<std::uint16_t>(port));
        remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) close();
    }
    ~RawConnection() { close(); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool open() const { return fd_ >= 0; }
    bool send(const std::string& bytes) {
        std::size_t sent = 0;
        while (fd_ >= 0 && sent < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += static_cast<std::size_t>(n);
        }
        return fd_ >= 0;
    }
    // What has arrived, without waiting; false once the server has closed its end (or reset the connection).
    bool poll(std::string& into) {
        char buffer[4096];
        for (;;) {
            ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n > 0) {
                into.append(buffer, static_cast<std::size_t>(n));
                continue;
            }
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
    }
    // Everything until the server closes, or `timeout`.
    std::string readAll(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::string answer;
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, 100) <= 0) continue;
            char buffer[4096];
            ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            answer.append(buffer, static_cast<std::size_t>(n));
        }
        return answer;
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

struct Answer {
    int status = 0;
    json body;
    std::string error() const { return body.is_object() ? body.value("error", "") : ""; }
};

Answer parseAnswer(const std::string& text) {
    Answer answer;
    std::smatch match;
    if (std::regex_search(text, match, std::regex("^HTTP/1\\.1 (\\d{3})"))) answer.status = std::stoi(match[1]);
    auto bodyAt = text.find("\r\n\r\n");
    if (bodyAt != std::string::npos) answer.body = json::parse(text.substr(bodyAt + 4), nullptr, false);
    return answer;
}

// One request on a connection of its own from `from`, read to its end.
Answer exchange(int port, const std::string& from, const std::string& method, const std::string& target,
                const std::string& body = {}, const std::string& headers = {}) {
    RawConnection connection(port, from);
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + headers;
    if (!body.empty() || method == "POST")
        request += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    request += "\r\n" + body;
    if (!connection.send(request)) return {};
    return parseAnswer(connection.readAll());
}

std::size_t residentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
    return 0;
}

// A faint hum, not silence: the decoder must find audio in it.
std::string wavOfSilence(double seconds) {
    std::vector<std::int16_t> samples(static_cast<std::size_t>(seconds * 16000));
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::int16_t>((i * 37) % 200 - 100);
    return OpenAiTranscriptionEngine::wavFile(samples);
}

// ---------------------------------------------------------------------------------------------------------------
// Sign-in codes

class SignInGuessingTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto config = loopbackConfig(data_.path());
        config.signInCodeAttempts = 5;
        config.signInFreeGuessesPerEmail = 10;
        config.signInFreeGuessesPerClient = 20;
        config.signInBackOffSeconds = 60;
        config.signInMaxBackOffSeconds = 3600;
        server_ = std::make_unique<BackendServer>(config);
        server_->signIn().setClock([this] { return now_.load(); });
        server_->start();
    }
    void TearDown() override { server_->stop(); }

    struct Started {
        Answer answer;
        std::string uuid, code;
    };
    // A sign-in request from `from`, and the code mailed for it (read from the console log).
    Started request(const std::string& from, const std::string& email) {
        logs_.clear();
        Started started{exchange(server_->port(), from, "GET", "/auth/request?email=" + email), {}, {}};
        if (started.answer.status != 200) return started;
        started.uuid = started.answer.body.value("uuid", "");
        std::regex pattern("sign-in for \\S+: link \\S+ code (\\d{6})");
        for (const auto& line : logs_.lines()) {
            std::smatch match;
            if (std::regex_search(line.message, match, pattern)) started.code = match[1];
        }
        return started;
    }
    Answer submit(const std::string& from, const std::string& uuid, const std::string& code) {
        return exchange(server_->port(), from, "POST", "/auth/request/code", json{{"uuid", uuid}, {"code", code}}.dump());
    }
    // Any code but the right one: the test counts guesses, it does not rely on luck.
    static std::string wrongCode(const std::string& right, int n) {
        auto value = (std::stoi(right) + 1 + n) % 1000000;
        auto text = std::to_string(value);
        return std::string(6 - text.size(), '0') + text;
    }
    // A guess the server compared with the code, as opposed to one it refused unchecked.
    static bool checked(const Answer& answer) {
        return answer.error() == "WrongCode" || answer.error() == "TooManyAttempts";
    }

    platform::test::RecordingLogSink logs_;
    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::atomic<std::int64_t> now_{1'900'000'000};
};

TEST_F(SignInGuessingTest, OneClientCannotGuessAnotherAddressesCodeAndTheOwnerStillGetsIn) {
    const std::string victim = "victim@example.org";
    // The owner has asked for a sign-in from its own machine and is reading the mail.
    auto owner = request("127.0.0.3", victim);
    ASSERT_EQ(owner.answer.status, 200) << owner.answer.body.dump();

    // Meanwhile an attacker asks for codes and guesses for as long as the server lets it, at one moment in time.
    int checkedGuesses = 0;
    int refusedUnchecked = 0;
    for (int round = 0; round < 20; ++round) {
        auto started = request("127.0.0.2", victim);
        if (started.answer.status != 200) {
            EXPECT_EQ(started.answer.status, 429) << started.answer.body.dump();
            break;
        }
        ASSERT_EQ(started.code.size(), 6u);
        for (int guess = 0; guess < 6; ++guess) {
            auto answer = submit("127.0.0.2", started.uuid, wrongCode(started.code, round * 10 + guess));
            if (checked(answer)) ++checkedGuesses;
            if (answer.error() == "TooManySignInAttempts") {
                EXPECT_EQ(answer.status, 429);
                EXPECT_TRUE(answer.body.value("stop", false));
                ++refusedUnchecked;
            }
            if (answer.error() == "TooManyAttempts" || answer.error() == "TooManySignInAttempts") break;
        }
    }
    EXPECT_GE(checkedGuesses, 5);
    EXPECT_LE(checkedGuesses, 10) << "the free guesses of one address";
    EXPECT_GT(refusedUnchecked, 0);

    // While the address waits, even the owner's right code is not compared.
    auto early = submit("127.0.0.3", owner.uuid, owner.code);
    EXPECT_EQ(early.status, 429);
    EXPECT_EQ(early.error(), "TooManySignInAttempts");

    // Once the back-off has passed, well within the request's life, the right code signs the owner in.
    Answer late;
    int steps = 0;
    for (; steps < 30 && late.status != 200; ++steps) {
        now_ += 30;
        late = submit("127.0.0.3", owner.uuid, owner.code);
        if (late.status != 200) {
            EXPECT_EQ(late.error(), "TooManySignInAttempts");
        }
    }
    ASSERT_EQ(late.status, 200) << late.body.dump();
    EXPECT_GT(steps, 1);
    auto token = late.body.value("token", "");
    httplib::Client client("127.0.0.1", server_->port());
    auto info = client.Get("/users/info", {{"Authorization", "Bearer " + token}});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->status, 200);
    EXPECT_EQ(json::parse(info->body)["user"]["email"], victim);
}

TEST_F(SignInGuessingTest, GuessesForOneAddressStayBoundedOverADayFromManyClients) {
    const std::string victim = "target@example.org";
    int checkedGuesses = 0;
    int requests = 0;
    std::string uuid, code;
    int attemptsLeft = 0;
    const auto start = now_.load();
    // A patient attacker on eight machines: every simulated minute it tries once more, from the next machine.
    for (int minute = 0; minute < 24 * 60; ++minute) {
        std::string from = "127.0.0." + std::to_string(2 + minute % 8);
        if (attemptsLeft == 0) {
            auto started = request(from, victim);
            if (started.answer.status == 200) {
                ++requests;
                uuid = started.uuid;
                code = started.code;
                attemptsLeft = 5;
            }
        }
        if (attemptsLeft > 0) {
            auto answer = submit(from, uuid, wrongCode(code, minute));
            if (checked(answer)) {
                ++checkedGuesses;
                --attemptsLeft;
            }
            if (answer.error() == "TooManyAttempts" || answer.error() == "SignInExpired") attemptsLeft = 0;
        }
        now_ += 60;
    }
    EXPECT_GE(checkedGuesses, 10);
    // 10 free, then waits of 1, 2, 4 ... 60 minutes: about 40 a day, of a million codes.
    EXPECT_LE(checkedGuesses, 40) << "over " << (now_.load() - start) / 3600 << " hours, " << requests << " requests";
}

TEST_F(SignInGuessingTest, OneClientGuessingAcrossAddressesIsStoppedByItsOwnLimit) {
    int checkedGuesses = 0;
    for (int i = 0; i < 12; ++i) {
        auto email = "person" + std::to_string(i) + "@example.org";
        auto started = request("127.0.0.4", email);
        if (started.answer.status != 200) continue;
        for (int guess = 0; guess < 3; ++guess)
            if (checked(submit("127.0.0.4", started.uuid, wrongCode(started.code, guess)))) ++checkedGuesses;
    }
    EXPECT_EQ(checkedGuesses, 20) << "the free guesses of one client";
    // Another machine signs in to one of those addresses as usual.
    auto other = request("127.0.0.5", "person11@example.org");
    ASSERT_EQ(other.answer.status, 200) << other.answer.body.dump();
    EXPECT_EQ(submit("127.0.0.5", other.uuid, other.code).status, 200);
}

// ---------------------------------------------------------------------------------------------------------------
// Slow senders, bodies and headers without end

class SlowAndLargeTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto config = loopbackConfig(data_.path());
        config.workerThreads = 4;
        config.requestHeadSeconds = 2;
        config.requestBodySeconds = 2;
        config.maxUploadBytes = 4 * 1024 * 1024;
        server_ = std::make_unique<BackendServer>(config);
        server_->start();
        token_ = server_->localAccount().token;
    }
    void TearDown() override { server_->stop(); }

    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::string token_;
};

// Clients that send a few bytes at a time, for ever unless the server ends them.
struct Tricklers {
    std::vector<std::unique_ptr<RawConnection>> connections;
    std::vector<std::string> answers;
    std::vector<bool> cut;

    void add(int port, const std::string& opening) {
        connections.push_back(std::make_unique<RawConnection>(port));
        connections.back()->send(opening);
        answers.emplace_back();
        cut.push_back(false);
    }
    // One more piece from each; records which the server has ended.
    void round(const std::function<std::string(std::size_t)>& piece) {
        for (std::size_t i = 0; i < connections.size(); ++i) {
            if (cut[i]) continue;
            if (!connections[i]->poll(answers[i]) || !connections[i]->send(piece(i))) cut[i] = true;
        }
    }
    std::size_t cutCount() const { return static_cast<std::size_t>(std::count(cut.begin(), cut.end(), true)); }
};

TEST_F(SlowAndLargeTest, TricklingHeadsAndBodiesAreCutAndHoldNoWorkerMeanwhile) {
    Tricklers heads;
    for (int i = 0; i < 8; ++i) heads.add(server_->port(), "GET /users/info HTTP/1.1\r\nHost: x\r\n");
    // Bodies without a token are refused before a byte of them is read.
    Tricklers anonymousBodies;
    for (int i = 0; i < 8; ++i)
        anonymousBodies.add(server_->port(), "POST /transcribe HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
    // A body with a token is read, but only within its time.
    Tricklers bodies;
    for (int i = 0; i < 2; ++i)
        bodies.add(server_->port(), "POST /completions HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token_ +
                                        "\r\nTransfer-Encoding: chunked\r\n\r\n");
    auto headLine = [](std::size_t) { return std::string("X-Slow: a\r\n"); };
    auto oneByteChunk = [](std::size_t) { return std::string("1\r\na\r\n"); };
    heads.round(headLine);
    bodies.round(oneByteChunk);

    // 18 connections are open and trickling, 4 workers: a real request is still answered.
    ASSERT_TRUE(waitFor([&] { return server_->openConnections() >= 10; }));
    httplib::Client client("127.0.0.1", server_->port());
    auto info = client.Get("/users/info", {{"Authorization", "Bearer " + token_}});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->status, 200);
    heads.round(headLine);
    EXPECT_EQ(heads.cutCount(), 0u) << "the real request was answered while every slow head was still open";

    // None of them ends by itself; the server ends every one.
    auto allCut = [&] {
        heads.round(headLine);
        anonymousBodies.round(oneByteChunk);
        bodies.round(oneByteChunk);
        if (heads.cutCount() + anonymousBodies.cutCount() + bodies.cutCount() == 18) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(250)); // the trickle's pace
        return false;
    };
    ASSERT_TRUE(waitFor(allCut, std::chrono::seconds(60)));
    for (const auto& answer : heads.answers)
        if (!answer.empty()) {
            EXPECT_EQ(parseAnswer(answer).status, 408) << answer;
        }
    for (const auto& answer : anonymousBodies.answers) {
        EXPECT_EQ(parseAnswer(answer).status, 401) << answer;
        EXPECT_EQ(parseAnswer(answer).error(), "Unauthorized") << answer;
    }
    EXPECT_TRUE(waitFor([&] { return server_->openConnections() == 0; }));
}

TEST_F(SlowAndLargeTest, AnEndlessChunkedBodyWithoutTokenIsRefusedWithoutGrowingMemory) {
    struct Row {
        std::string path;
        int status; // a route that takes no body refuses it by its method, the others by the missing token
    };
    const Row rows[] = {{"/transcribe", 401}, {"/users/info", 405}, {"/transcribe/file/" + Uuid::random().string(), 401}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        auto before = residentBytes();
        RawConnection connection(server_->port());
        ASSERT_TRUE(connection.send("POST " + row.path +
                                    " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"));
        const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
        std::uint64_t sent = 0;
        std::string received;
        // Up to 2 GB, for as long as the server takes it.
        while (sent < 2ULL * 1024 * 1024 * 1024 && connection.send(chunk) && connection.poll(received))
            sent += chunk.size();
        received += connection.readAll();
        auto after = residentBytes();
        EXPECT_LT(sent, 64ULL * 1024 * 1024) << "the server read on after refusing";
        EXPECT_LT(after, before + 100 * 1024 * 1024) << "resident memory grew from " << before << " to " << after;
        // The answer comes before the body; a reset that follows the refusal may take it from the socket.
        if (!received.empty()) {
            EXPECT_EQ(parseAnswer(received).status, row.status) << received.substr(0, 200);
        }
    }
}

TEST_F(SlowAndLargeTest, ChunkedBodiesCountAgainstTheLimitAndBadLengthsAreRefused) {
    auto before = residentBytes();
    RawConnection connection(server_->port());
    ASSERT_TRUE(connection.send("POST /completions HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token_ +
                                "\r\nTransfer-Encoding: chunked\r\n\r\n"));
    const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
    std::uint64_t sent = 0;
    std::string received;
    while (sent < 512ULL * 1024 * 1024 && connection.send(chunk) && connection.poll(received)) sent += chunk.size();
    received += connection.readAll();
    EXPECT_LT(sent, 64ULL * 1024 * 1024);
    auto answer = parseAnswer(received);
    EXPECT_EQ(answer.status, 413) << received.substr(0, 300);
    EXPECT_EQ(answer.error(), "PayloadTooLarge");
    EXPECT_LT(residentBytes(), before + 100 * 1024 * 1024);

    auto bad = exchange(server_->port(), "127.0.0.1", "POST", "/completions", "",
                        "Authorization: Bearer " + token_ + "\r\nContent-Length: abc\r\n");
    EXPECT_EQ(bad.status, 400);
    EXPECT_EQ(bad.error(), "BadRequest");
}

TEST_F(SlowAndLargeTest, HugeHeadersAreRefused) {
    struct Row {
        const char* name;
        std::string headers;
    };
    const Row rows[] = {
        {"many lines", [] {
             std::string lines;
             for (int i = 0; i < 200; ++i) lines += "X-Filler-" + std::to_string(i) + ": " + std::string(500, 'a') + "\r\n";
             return lines;
         }()},
        {"one long line", "X-Long: " + std::string(64 * 1024, 'b') + "\r\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawConnection connection(server_->port());
        connection.send("GET /users/info HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token_ + "\r\n" + row.headers +
                        "\r\n");
        auto answer = parseAnswer(connection.readAll());
        EXPECT_EQ(answer.status, 431);
        EXPECT_EQ(answer.error(), "HeadersTooLarge");
    }
    // Headers that never end are cut too, after a bounded amount.
    RawConnection endless(server_->port());
    endless.send("GET /users/info HTTP/1.1\r\nHost: x\r\n");
    std::uint64_t sent = 0;
    const std::string line = "X-More: " + std::string(1000, 'c') + "\r\n";
    std::string received;
    while (sent < 300ULL * 1024 * 1024 && endless.send(line) && endless.poll(received)) sent += line.size();
    EXPECT_LT(sent, 16ULL * 1024 * 1024);
    // A request of ordinary size still passes.
    httplib::Client client("127.0.0.1", server_->port());
    auto info = client.Get("/users/info", {{"Authorization", "Bearer " + token_}, {"X-Ordinary", std::string(4000, 'd')}});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->status, 200);
}

// ---------------------------------------------------------------------------------------------------------------
// Long files across accounts, and what the decoder opens

class AccountsAndFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto config = loopbackConfig(data_.path());
        config.fileChunkSeconds = 2;
        config.maxReportPartBytes = 64 * 1024;
        server_ = std::make_unique<BackendServer>(config);
        server_->start();
        tokenA_ = server_->localAccount().token;
        auto other = server_->accounts().accountForEmail("other@example.org");
        tokenB_ = server_->accounts().issueToken(other.id);
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(60, 0);
    }
    void TearDown() override {
        client_.reset();
        server_->stop();
    }
    httplib::Headers auth(const std::string& token) const { return {{"Authorization", "Bearer " + token}}; }
    httplib::Result upload(const std::string& token, const std::string& id, const std::string& bytes) {
        return client_->Post(("/transcribe/file/" + id).c_str(), auth(token), bytes, "application/octet-stream");
    }
    // The lines of a long file's transcription stream.
    std::vector<json> transcribe(const std::string& token, const std::string& id) {
        std::vector<json> lines;
        auto result = client_->Get(("/transcribe/file/" + id + "?languages=en").c_str(), auth(token));
        if (!result) return lines;
        if (result->status != 200) {
            lines.push_back(json::parse(result->body, nullptr, false));
            return lines;
        }
        std::istringstream stream(result->body);
        std::string line;
        while (std::getline(stream, line))
            if (!line.empty()) lines.push_back(json::parse(line, nullptr, false));
        return lines;
    }

    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::unique_ptr<httplib::Client> client_;
    std::string tokenA_, tokenB_;
};

TEST_F(AccountsAndFilesTest, AnUploadIdBelongsToItsAccount) {
    auto id = Uuid::random().string();
    auto audioA = wavOfSilence(1.5);
    auto first = upload(tokenA_, id, audioA);
    ASSERT_TRUE(first);
    ASSERT_EQ(first->status, 200) << first->body;

    auto takeover = upload(tokenB_, id, wavOfSilence(0.5));
    ASSERT_TRUE(takeover);
    EXPECT_EQ(takeover->status, 403);
    EXPECT_EQ(json::parse(takeover->body).value("error", ""), "FileIdTaken");
    EXPECT_EQ(readFile(server_->uploadFolder() / (id + ".upload")), audioA) << "the owner's file was replaced";
    EXPECT_EQ(std::filesystem::status(server_->uploadFolder()).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_all)
        << "uploads are for the server's user only";

    auto asB = transcribe(tokenB_, id);
    ASSERT_EQ(asB.size(), 1u);
    EXPECT_EQ(asB[0].value("error", ""), "FileNotFound");

    // The owner may upload again under its id, and gets its transcript.
    auto again = upload(tokenA_, id, audioA);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 200);
    auto asA = transcribe(tokenA_, id);
    ASSERT_FALSE(asA.empty());
    EXPECT_TRUE(asA.back().contains("text")) << asA.back().dump();
}

TEST_F(AccountsAndFilesTest, PlaylistsAndReferencesAreNotDecoded) {
    // Account A's long file waits on disk.
    auto idA = Uuid::random().string();
    ASSERT_EQ(upload(tokenA_, idA, wavOfSilence(2))->status, 200);
    auto fileA = (server_->uploadFolder() / (idA + ".upload")).string();

    struct Row {
        const char* name;
        std::string bytes;
    };
    const Row rows[] = {
        {"ffconcat, relative", "ffconcat version 1.0\nfile '" + idA + ".upload'\n"},
        {"ffconcat, absolute", "ffconcat version 1.0\nfile '" + fileA + "'\n"},
        {"ffconcat, file: URL", "ffconcat version 1.0\nfile 'file:" + fileA + "'\n"},
        {"m3u8 playlist", "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:2.0,\nfile:" + fileA + "\n#EXT-X-ENDLIST\n"},
        {"m3u8 relative", "#EXTM3U\n#EXTINF:2.0,\n" + idA + ".upload\n#EXT-X-ENDLIST\n"},
        {"sdp", "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\nm=audio 5004 RTP/AVP 0\n"},
        {"ffmetadata", ";FFMETADATA1\ntitle=x\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto id = Uuid::random().string();
        ASSERT_EQ(upload(tokenB_, id, row.bytes)->status, 200);
        auto lines = transcribe(tokenB_, id);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().value("error", ""), "UndecodableAudio") << lines.back().dump();
        for (const auto& line : lines) EXPECT_FALSE(line.contains("text")) << line.dump();

        // The same bytes as a recording, decoded from memory.
        auto direct = postTranscribe(*client_, tokenB_, {"recording.wav", row.bytes, std::nullopt});
        ASSERT_TRUE(direct);
        EXPECT_EQ(json::parse(direct->body, nullptr, false).value("error", ""), "UndecodableAudio") << direct->body;
    }
}

TEST(AudioDecoderContainers, TheContainersOfAudioAndVideoFilesStillDecode) {
    TempFolder folder;
    auto wav = folder.path() / "tone.wav";
    std::ofstream(wav, std::ios::binary) << wavOfSilence(1);
    const char* rows[][2] = {{"flac", "-c:a flac"}, {"ogg", "-c:a libopus"}, {"m4a", "-c:a aac"},
                             {"mp3", "-c:a libmp3lame"}, {"webm", "-c:a libopus"}, {"caf", "-c:a pcm_s16le"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        auto out = folder.path() / (std::string("tone.") + row[0]);
        auto command = "ffmpeg -nostdin -loglevel error -y -i '" + wav.string() + "' " + row[1] + " '" + out.string() + "'";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        auto decoded = decodeAudio(readFile(out), 60);
        ASSERT_TRUE(std::holds_alternative<DecodedAudio>(decoded)) << std::get<DecodeFailure>(decoded).message;
        EXPECT_NEAR(std::get<DecodedAudio>(decoded).seconds(), 1.0, 0.1);
        std::uint64_t streamed = 0;
        auto fromDisk = decodeAudioFile(out, 60, [&](std::span<const std::int16_t> piece) {
            streamed += piece.size();
            return true;
        });
        ASSERT_TRUE(std::holds_alternative<DecodeSummary>(fromDisk));
        EXPECT_NEAR(static_cast<double>(streamed) / 16000, 1.0, 0.1);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Every route

TEST_F(AccountsAndFilesTest, EveryRouteRefusesWithoutTokenAndKeepsAccountsApart) {
    auto idA = Uuid::random().string();
    ASSERT_EQ(upload(tokenA_, idA, wavOfSilence(1))->status, 200);
    const int port = server_->port();
    auto routes = BackendServer::routes();
    ASSERT_GE(routes.size(), 10u);
    std::set<std::string> walked;
    for (const auto& route : routes) {
        auto path = std::regex_replace(route.path, std::regex("<uuid>"), idA);
        SCOPED_TRACE(std::string(route.method) + " " + path);
        walked.insert(route.path);
        std::string body = std::string(route.method) == "POST" ? "{}" : "";
        auto anonymous = exchange(port, "127.0.0.1", route.method, path, body);
        auto wrongToken = exchange(port, "127.0.0.1", route.method, path, body,
                                   "Authorization: Bearer " + std::string(64, 'f') + "\r\n");
        if (route.needsToken) {
            EXPECT_EQ(anonymous.status, 401);
            EXPECT_EQ(anonymous.error(), "Unauthorized");
            EXPECT_TRUE(anonymous.body.value("stop", false));
            EXPECT_EQ(wrongToken.status, 401);
            EXPECT_EQ(wrongToken.error(), "Unauthorized");
        } else {
            EXPECT_NE(anonymous.status, 401) << "sign-in needs no token";
            EXPECT_NE(anonymous.status, 0);
        }
        // Another account's token reaches its own things only.
        if (path.find(idA) != std::string::npos) {
            auto asB = exchange(port, "127.0.0.1", route.method, path, body, "Authorization: Bearer " + tokenB_ + "\r\n");
            EXPECT_TRUE(asB.status == 403 || asB.status == 404) << asB.status << " " << asB.body.dump();
            EXPECT_TRUE(asB.error() == "FileIdTaken" || asB.error() == "FileNotFound") << asB.body.dump();
        }
    }
    EXPECT_TRUE(walked.count("/users/info") && walked.count("/transcribe") && walked.count("/auth/request/code"));
    EXPECT_TRUE(std::filesystem::exists(server_->uploadFolder() / (idA + ".upload")));

    // Ids that are not UUIDs, and paths that try to leave the data folder.
    const std::string authA = "Authorization: Bearer " + tokenA_ + "\r\n";
    const char* escapes[] = {"not-a-uuid", "..", "..%2F..%2Faccounts.sqlite3", "%2e%2e%2f%2e%2e%2flocal-token",
                             "..%5C..%5Caccounts.sqlite3", "%00", "12345678-1234-1234-1234-1234567890ab%2F..%2F.."};
    auto before = std::distance(std::filesystem::recursive_directory_iterator(data_.path()),
                                std::filesystem::recursive_directory_iterator());
    for (const char* escape : escapes) {
        SCOPED_TRACE(escape);
        auto posted = exchange(port, "127.0.0.1", "POST", std::string("/transcribe/file/") + escape, "RIFF", authA);
        EXPECT_TRUE(posted.status == 400 || posted.status == 404) << posted.status;
        EXPECT_TRUE(posted.body.is_object());
        auto got = exchange(port, "127.0.0.1", "GET", std::string("/transcribe/file/") + escape, "", authA);
        EXPECT_TRUE(got.status == 400 || got.status == 404) << got.status;
    }
    auto after = std::distance(std::filesystem::recursive_directory_iterator(data_.path()),
                               std::filesystem::recursive_directory_iterator());
    EXPECT_EQ(before, after) << "a refused path left a file behind";

    // A method a route does not take is refused before its body is read.
    auto put = exchange(port, "127.0.0.1", "POST", "/users/info", std::string(1000, 'x'), authA);
    EXPECT_EQ(put.status, 405);
    EXPECT_EQ(put.error(), "MethodNotAllowed");

    // Reports are bounded part by part.
    httplib::MultipartFormDataItems report{{"data", "{}", "", "application/json"},
                                           {"logs", std::string(200 * 1024, 'l'), "logs.zip", "application/zip"},
                                           {"config", "c", "config.zip", "application/zip"}};
    auto tooLarge = client_->Post("/users/report", auth(tokenA_), report);
    ASSERT_TRUE(tooLarge);
    EXPECT_EQ(tooLarge->status, 413);
    EXPECT_FALSE(std::filesystem::exists(server_->reportFolder()) &&
                 std::filesystem::directory_iterator(server_->reportFolder()) != std::filesystem::directory_iterator())
        << "a refused report was kept";

    // A query value that is not UTF-8 is a bad request, not a server failure.
    auto odd = exchange(port, "127.0.0.1", "GET", "/transcribe/file/" + idA + "?languages=%FF%FE", "", authA);
    EXPECT_EQ(odd.status, 400);
    EXPECT_EQ(odd.error(), "BadRequest");
}

} // namespace
} // namespace sprelio::server::test
