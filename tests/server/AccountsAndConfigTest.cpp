// The local account and its token across starts, and the configuration the binary reads; the binary itself
// started, asked and stopped by SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include <nlohmann/json.hpp>

#include "ServerTestSupport.h"
#include "base/Digest.h"

namespace sprelio::server::test {
namespace {

TEST(LocalAccount, TheTokenFileIsPrivateTheDatabaseHoldsOnlyItsHashAndARestartKeepsIt) {
    TempFolder data;
    auto tokenFile = data.path() / "local-token";
    std::string token;
    {
        AccountStore store(data.path());
        auto local = store.ensureLocalAccount(tokenFile);
        EXPECT_TRUE(local.tokenIsNew);
        token = local.token;
        EXPECT_EQ(token.size(), 64u);
        EXPECT_EQ(readFile(tokenFile), token + "\n");
        struct stat info {};
        ASSERT_EQ(::stat(tokenFile.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        ASSERT_TRUE(store.authenticate(token));
        EXPECT_EQ(store.authenticate(token)->email, AccountStore::kLocalEmail);
        EXPECT_FALSE(store.authenticate(sha256Hex(token)));
    }
    for (const auto& entry : std::filesystem::directory_iterator(data.path())) {
        if (entry.path().filename() == "local-token") continue;
        EXPECT_EQ(readFile(entry.path()).find(token), std::string::npos) << entry.path();
    }
    {
        AccountStore store(data.path());
        auto again = store.ensureLocalAccount(tokenFile);
        EXPECT_FALSE(again.tokenIsNew);
        EXPECT_EQ(again.token, token);
    }
    // A lost token file: a new token is issued; the account stays the same.
    std::filesystem::remove(tokenFile);
    AccountStore store(data.path());
    auto before = store.authenticate(token);
    auto renewed = store.ensureLocalAccount(tokenFile);
    EXPECT_TRUE(renewed.tokenIsNew);
    EXPECT_NE(renewed.token, token);
    ASSERT_TRUE(before);
    EXPECT_EQ(renewed.account.guid, before->guid);
    EXPECT_EQ(readFile(tokenFile), renewed.token + "\n");
}

TEST(LocalAccount, TokensAreRandomAndTheServerIdentityIsStable) {
    EXPECT_NE(AccountStore::generateToken(), AccountStore::generateToken());
    TempFolder data;
    std::string first;
    {
        AccountStore store(data.path());
        first = store.serverUuid();
    }
    AccountStore store(data.path());
    EXPECT_EQ(store.serverUuid(), first);
}

TEST(ServerConfiguration, FlagsOverrideTheJsonFileAndMistakesAreReported) {
    TempFolder folder;
    auto file = folder.path() / "server.json";
    std::ofstream(file) << R"({"host":"0.0.0.0","port":9000,"engineSlots":3,"dataFolder":"/srv/sprelio",
        "peers":[{"name":"b","url":"https://b.example.org"}]})";
    std::vector<std::string> args{"sprelio-server", "--config", file.string(), "--port", "0", "--peer",
                                  "c=https://c.example.org", "--max-upload-mb", "5"};
    std::vector<const char*> argv;
    for (auto& a : args) argv.push_back(a.c_str());
    auto parsed = parseServerCommandLine(static_cast<int>(argv.size()), argv.data());
    ASSERT_TRUE(parsed.config) << parsed.error;
    EXPECT_EQ(parsed.config->host, "0.0.0.0");
    EXPECT_EQ(parsed.config->port, 0);
    EXPECT_EQ(parsed.config->engineSlots, 3u);
    EXPECT_EQ(parsed.config->dataFolder, "/srv/sprelio");
    EXPECT_EQ(parsed.config->maxUploadBytes, 5u * 1024 * 1024);
    ASSERT_EQ(parsed.config->peers.size(), 1u);
    EXPECT_EQ(parsed.config->peers[0].name, "c");
    EXPECT_EQ(parsed.config->peers[0].uuid, uuidFromText("https://c.example.org"));

    auto parse = [](std::vector<const char*> a) { return parseServerCommandLine(static_cast<int>(a.size()), a.data()); };
    EXPECT_FALSE(parse({"s", "--port", "70000"}).config);
    EXPECT_FALSE(parse({"s", "--slots", "0"}).config);
    EXPECT_FALSE(parse({"s", "--peer", "nourl"}).config);
    EXPECT_FALSE(parse({"s", "--bogus", "1"}).config);
    EXPECT_FALSE(parse({"s", "--port"}).config);
    EXPECT_TRUE(parse({"s", "--help"}).help);

    ServerConfig config;
    std::string error;
    EXPECT_FALSE(applyServerConfigJson(R"({"prot":1})", config, error));
    EXPECT_NE(error.find("prot"), std::string::npos);
    EXPECT_FALSE(applyServerConfigJson(R"({"port":"high"})", config, error));
    EXPECT_FALSE(applyServerConfigJson("[1]", config, error));
}

TEST(ServerConfiguration, TheShippedExampleConfigurationIsAccepted) {
    // The file the service unit points self-hosters to must never drift from what the server reads.
    const auto example = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "packaging" /
                         "server.example.json";
    ASSERT_TRUE(std::filesystem::exists(example)) << example;
    std::ifstream in(example);
    std::ostringstream contents;
    contents << in.rdbuf();
    const std::string text = contents.str();
    ServerConfig config;
    std::string error;
    ASSERT_TRUE(applyServerConfigJson(text, config, error)) << error;
    EXPECT_EQ(config.host, "0.0.0.0");
    EXPECT_EQ(config.engine, "pocketsphinx");
    EXPECT_FALSE(config.smtpUrl.empty());
}

TEST(ServerConfiguration, AnUnknownEngineIsRefusedAtConstruction) {
    TempFolder data;
    auto config = loopbackConfig(data.path());
    config.engine = "whisper-of-the-wind";
    EXPECT_THROW(BackendServer server(config), std::invalid_argument);
}

// The binary: serves once started, announces its port on the log, and exits 0 after SIGTERM.
TEST(ServerBinary, ServesAndExitsCleanlyOnSigterm) {
    TempFolder data;
    auto logFile = data.path() / "server.log";
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::FILE* out = std::freopen(logFile.c_str(), "w", stderr);
        (void)out;
        ::execl(SPRELIO_SERVER_BINARY, SPRELIO_SERVER_BINARY, "--port", "0", "--data", data.path().c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    } reaper{pid};

    std::smatch match;
    std::regex listening("listening on 127\\.0\\.0\\.1:([0-9]+)");
    std::string log;
    ASSERT_TRUE(waitFor([&] {
        log = readFile(logFile);
        return std::regex_search(log, match, listening);
    })) << log;
    int port = std::stoi(match[1].str());
    auto token = readFile(data.path() / "local-token");
    ASSERT_FALSE(token.empty());
    token.pop_back();

    httplib::Client client("127.0.0.1", port);
    auto result = client.Get("/users/info", {{"Authorization", "Bearer " + token}});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);

    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    reaper.pid = 0;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(readFile(logFile).find("main() - received SIGTERM"), std::string::npos);
}

} // namespace
} // namespace sprelio::server::test
