// Sign-in by link and by code, problem reports and long files, over real HTTP on loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <iostream>
#include <regex>

#include <nlohmann/json.hpp>

#include "ServerTestSupport.h"
#include "base/Uuid.h"
#include "platform/test/TestPlatform.h"

namespace sprelio::server::test {
namespace {

using nlohmann::json;

class SignInReportFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto config = loopbackConfig(data_.path());
        config.signInWaitSeconds = 20;
        config.signInCodeAttempts = 3;
        config.fileChunkSeconds = 2;
        config.maxFileUploadBytes = 4 * 1024 * 1024;
        config.maxReportPartBytes = 64 * 1024;
        server_ = std::make_unique<BackendServer>(config);
        server_->start();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(60, 0);
        token_ = server_->localAccount().token;
    }
    void TearDown() override {
        client_.reset();
        server_->stop();
    }

    // Asks for a sign-in and reads the link and the code from the console log line.
    struct Mail {
        std::string uuid, link, code;
    };
    Mail requestSignIn(const std::string& email) {
        auto result = client_->Get(("/auth/request?email=" + email + "&device_id=abc&os=Linux&info=%7B%7D").c_str());
        EXPECT_TRUE(result);
        if (!result) return {};
        EXPECT_EQ(result->status, 200) << result->body;
        auto body = json::parse(result->body);
        Mail mail{body.value("uuid", ""), {}, {}};
        EXPECT_FALSE(body.value("message", "").empty());
        std::regex pattern("sign-in for (\\S+): link (\\S+) code (\\d{6})");
        for (const auto& line : logs_.lines()) {
            std::smatch match;
            if (std::regex_search(line.message, match, pattern)) {
                mail.link = match[2];
                mail.code = match[3];
            }
        }
        logs_.clear();
        return mail;
    }
    httplib::Result postCode(const std::string& uuid, const std::string& code) {
        return client_->Post("/auth/request/code", json{{"uuid", uuid}, {"code", code}}.dump(), "application/json");
    }

    platform::test::RecordingLogSink logs_;
    TempFolder data_;
    std::unique_ptr<BackendServer> server_;
    std::unique_ptr<httplib::Client> client_;
    std::string token_;
};

// Sends only the head of a request that announces a body, and reads the answer. A server that refuses a body by
// its announced length answers at once; an HTTP client library still busy writing the body would lose that answer.
std::string answerToAnnouncedBody(int port, const std::string& path, const std::string& token,
                                  std::uint64_t contentLength) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return {};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        timeval timeout{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        const std::string head = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + token +
                                 "\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                                 std::to_string(contentLength) + "\r\n\r\n";
        if (::send(fd, head.data(), head.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(head.size())) {
            char buffer[4096];
            ssize_t n;
            while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    return answer;
}

void expectError(const httplib::Result& result, int status, const std::string& error) {
    ASSERT_TRUE(result) << "no answer: " << httplib::to_string(result.error());
    EXPECT_EQ(result->status, status) << result->body;
    auto body = json::parse(result->body, nullptr, false);
    ASSERT_TRUE(body.is_object()) << result->body;
    EXPECT_EQ(body.value("error", ""), error);
    EXPECT_TRUE(body.contains("message") && body["message"].is_string());
    EXPECT_TRUE(body.contains("stop") && body["stop"].is_boolean());
}

void expectSignedIn(httplib::Client& client, const httplib::Result& result, const std::string& email) {
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200) << result->body;
    auto body = json::parse(result->body);
    EXPECT_EQ(body["user"]["email"], email);
    EXPECT_TRUE(body["requests"].is_number_integer());
    auto token = body["token"].get<std::string>();
    auto info = client.Get("/users/info", {{"Authorization", "Bearer " + token}});
    ASSERT_TRUE(info);
    EXPECT_EQ(info->status, 200);
    EXPECT_EQ(json::parse(info->body)["user"]["email"], email);
}

TEST_F(SignInReportFileTest, SignInByLinkAnswersTheWaitingPollWithAToken) {
    auto mail = requestSignIn("Ada@Example.org");
    ASSERT_FALSE(mail.link.empty()) << "no console line with the link";
    ASSERT_EQ(mail.link.rfind(server_->url() + "/auth/confirm?token=", 0), 0u) << mail.link;

    httplib::Client poller("127.0.0.1", server_->port());
    poller.set_read_timeout(60, 0);
    auto wait = std::async(std::launch::async, [&] { return poller.Get(("/auth/request/wait?uuid=" + mail.uuid).c_str()); });
    ASSERT_TRUE(waitFor([&] { return server_->signIn().waiting() == 1; }));

    auto page = client_->Get(mail.link.substr(server_->url().size()).c_str());
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("Sign-in confirmed"), std::string::npos);
    expectSignedIn(*client_, wait.get(), "ada@example.org");

    // The link and code never reach the access log; a used request can't be used again.
    for (const auto& line : logs_.lines()) {
        if (line.message.find("BackendServer.access()") != std::string::npos) {
            EXPECT_EQ(line.message.find(mail.link.substr(mail.link.find('=') + 1)), std::string::npos);
        }
    }
    expectError(postCode(mail.uuid, mail.code), 409, "SignInUsed");
    expectError(client_->Get("/auth/request/wait?uuid=unknown"), 404, "SignInNotFound");
}

TEST_F(SignInReportFileTest, SignInByCodeCountsWrongAttemptsAndMakesTheAccountOnce) {
    auto mail = requestSignIn("bob@example.org");
    ASSERT_EQ(mail.code.size(), 6u);
    std::string wrong = mail.code == "000000" ? "111111" : "000000";
    expectError(postCode(mail.uuid, wrong), 400, "WrongCode");
    expectError(postCode(mail.uuid, "12ab"), 400, "BadRequest");
    expectSignedIn(*client_, postCode(mail.uuid, mail.code), "bob@example.org");

    // A second sign-in of the same address is the same account.
    auto again = requestSignIn("bob@example.org");
    auto second = postCode(again.uuid, again.code);
    ASSERT_TRUE(second);
    EXPECT_EQ(server_->accounts().authenticate(json::parse(second->body)["token"])->email, "bob@example.org");

    // Attempts exhausted: even the right code and the link are refused afterwards.
    auto third = requestSignIn("carol@example.org");
    wrong = third.code == "000000" ? "111111" : "000000";
    expectError(postCode(third.uuid, wrong), 400, "WrongCode");
    expectError(postCode(third.uuid, wrong), 400, "WrongCode");
    expectError(postCode(third.uuid, wrong), 429, "TooManyAttempts");
    expectError(postCode(third.uuid, third.code), 429, "TooManyAttempts");
    auto page = client_->Get(third.link.substr(server_->url().size()).c_str());
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 429);

    expectError(client_->Get("/auth/request?email=not-an-address"), 400, "BadRequest");
    expectError(client_->Post("/auth/request/code", "{", "application/json"), 400, "BadRequest");
}

TEST(SignInExpiry, AnExpiredRequestRefusesCodeAndWait) {
    platform::test::RecordingLogSink logs;
    TempFolder data;
    auto config = loopbackConfig(data.path());
    config.signInValidSeconds = 0; // expired the moment it is made
    BackendServer server(config);
    server.start();
    httplib::Client client("127.0.0.1", server.port());
    auto started = client.Get("/auth/request?email=dan@example.org");
    ASSERT_TRUE(started);
    auto uuid = json::parse(started->body)["uuid"].get<std::string>();
    expectError(client.Post("/auth/request/code", json{{"uuid", uuid}, {"code", "123456"}}.dump(), "application/json"),
                410, "SignInExpired");
    expectError(client.Get(("/auth/request/wait?uuid=" + uuid).c_str()), 410, "SignInExpired");
    server.stop();
}

TEST(SignInShutdown, StoppingTheServerAnswersAWaitingPoll) {
    platform::test::RecordingLogSink logs;
    TempFolder data;
    auto config = loopbackConfig(data.path());
    config.signInWaitSeconds = 600;
    BackendServer server(config);
    server.start();
    httplib::Client client("127.0.0.1", server.port());
    client.set_read_timeout(60, 0);
    auto started = client.Get("/auth/request?email=erin@example.org");
    ASSERT_TRUE(started);
    auto uuid = json::parse(started->body)["uuid"].get<std::string>();
    auto wait = std::async(std::launch::async, [&] { return client.Get(("/auth/request/wait?uuid=" + uuid).c_str()); });
    ASSERT_TRUE(waitFor([&] { return server.signIn().waiting() == 1; }));
    server.stop();
    expectError(wait.get(), 503, "ServerStopping");
}

std::string multipartReport(const std::string& boundary, const std::vector<std::pair<std::string, std::string>>& parts) {
    std::string body;
    for (const auto& [name, content] : parts) {
        bool data = name == "data";
        body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" +
                (data ? "data.json" : name + ".zip") + "\"\r\nContent-Type: " +
                (data ? "application/json" : "application/zip") + "\r\n\r\n" + content + "\r\n";
    }
    return body + "--" + boundary + "--\r\n";
}

TEST_F(SignInReportFileTest, ReportIsStoredWithItsThreeParts) {
    std::string boundary = "Boundary-0F6B1C2E-3A4B-4C5D-8E9F-A0B1C2D3E4F5";
    std::string data = R"({"text":"It crashed","phone":"+1","user":{"email":"a@b.c"},"app":"linux-0.1.0"})";
    // With a NUL byte inside, counted: 30 bytes of the literal's 31 (its own terminator left out).
    const char logsBytes[] = "PK\x03\x04logs\r\n--not-a-boundary\0x";
    std::string logsZip(logsBytes, sizeof logsBytes - 1);
    std::string configZip = "PK\x03\x04config";
    auto body = multipartReport(boundary, {{"data", data}, {"logs", logsZip}, {"config", configZip}});
    httplib::Headers auth{{"Authorization", "Bearer " + token_}};
    auto type = "multipart/form-data; boundary=" + boundary;
    auto result = client_->Post("/users/report", auth, body, type.c_str());
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200) << result->body;
    auto id = json::parse(result->body)["uuid"].get<std::string>();
    auto folder = server_->reportFolder() / id;
    EXPECT_EQ(readFile(folder / "data.json"), data);
    EXPECT_EQ(readFile(folder / "logs.zip"), logsZip);
    EXPECT_EQ(readFile(folder / "config.zip"), configZip);
    // The operator finds it from the log.
    EXPECT_TRUE(logs_.contains("BackendServer.handleReport() - problem report " + id + " stored in " + folder.string()));

    expectError(client_->Post("/users/report", body, type.c_str()), 401, "Unauthorized");
    httplib::Client fresh("127.0.0.1", server_->port());
    expectError(fresh.Post("/users/report", auth, multipartReport(boundary, {{"data", data}, {"logs", logsZip}}),
                           type.c_str()),
                400, "BadRequest");
    httplib::Client other("127.0.0.1", server_->port());
    expectError(other.Post("/users/report", auth,
                           multipartReport(boundary, {{"data", data}, {"logs", std::string(70 * 1024, 'x')},
                                                      {"config", configZip}}),
                           type.c_str()),
                413, "PayloadTooLarge");
    // Only the one complete report is kept.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(server_->reportFolder()),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(SignInReportFileTest, LongFileIsUploadedThenStreamedAsProgressLinesAndText) {
    TempFolder speech;
    auto wav = speak("Please call me tomorrow morning at the office. The weather is nice today. "
                     "We will meet the whole team next week.",
                     speech.path(), "long");
    ASSERT_FALSE(wav.empty()) << "festival's text2wave could not make speech";
    auto uuid = Uuid::random().string();
    httplib::Headers auth{{"Authorization", "Bearer " + token_}};
    auto upload = client_->Post(("/transcribe/file/" + uuid + "?diarization=false&file_hash=ab&device_id=x").c_str(),
                                auth, readFile(wav), "");
    ASSERT_TRUE(upload);
    ASSERT_EQ(upload->status, 200) << upload->body;
    EXPECT_EQ(json::parse(upload->body)["uuid"], uuid);

    std::vector<json> lines;
    std::string pending;
    auto result = client_->Get(("/transcribe/file/" + uuid + "?diarization=false&languages=en").c_str(), auth,
                               [&](const char* data, std::size_t length) {
                                   pending.append(data, length);
                                   for (auto end = pending.find('\n'); end != std::string::npos;
                                        end = pending.find('\n')) {
                                       lines.push_back(json::parse(pending.substr(0, end)));
                                       pending.erase(0, end + 1);
                                   }
                                   return true;
                               });
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    ASSERT_GE(lines.size(), 3u);
    double lastDuration = -1;
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        ASSERT_TRUE(lines[i].contains("progress_text")) << lines[i];
        ASSERT_TRUE(lines[i]["duration"].is_number());
        EXPECT_GT(lines[i]["duration"].get<double>(), lastDuration);
        lastDuration = lines[i]["duration"].get<double>();
    }
    ASSERT_TRUE(lines.back().contains("text")) << lines.back();
    auto text = lines.back()["text"].get<std::string>();
    std::cout << "[ measured ] long file in " << lines.size() - 1 << " progress lines, text: \"" << text << "\"\n";
    for (const char* word : {"tomorrow", "office", "weather"})
        EXPECT_NE(text.find(word), std::string::npos) << word << " missing from: " << text;

    // Transcribed files are not kept; an unknown id is a clear error.
    expectError(client_->Get(("/transcribe/file/" + uuid).c_str(), auth), 404, "FileNotFound");
    expectError(client_->Get("/transcribe/file/not-a-uuid", auth), 404, "FileNotFound");
}

TEST_F(SignInReportFileTest, OversizeOrUnauthorisedFileUploadIsRefused) {
    httplib::Headers auth{{"Authorization", "Bearer " + token_}};
    auto uuid = Uuid::random().string();
    expectError(client_->Post(("/transcribe/file/" + uuid).c_str(), std::string(16, 'x'), ""), 401, "Unauthorized");
    // Refused from the announced length alone, before any of the body is read.
    const std::string refused = answerToAnnouncedBody(server_->port(), "/transcribe/file/" + uuid, token_, 5u << 20);
    ASSERT_EQ(refused.rfind("HTTP/1.1 413", 0), 0u) << refused;
    auto refusedBody = json::parse(refused.substr(refused.find("\r\n\r\n") + 4), nullptr, false);
    ASSERT_TRUE(refusedBody.is_object()) << refused;
    EXPECT_EQ(refusedBody.value("error", ""), "PayloadTooLarge");
    EXPECT_TRUE(refusedBody.value("stop", false));
    httplib::Client odd("127.0.0.1", server_->port());
    expectError(odd.Post("/transcribe/file/nope", auth, "x", ""), 400, "BadRequest");
    EXPECT_FALSE(std::filesystem::exists(server_->uploadFolder() / (uuid + ".upload")));
    // Another method on a file path names the two it takes.
    expectError(client_->Put(("/transcribe/file/" + uuid).c_str(), auth, "x", ""), 405, "MethodNotAllowed");
}

} // namespace
} // namespace sprelio::server::test
