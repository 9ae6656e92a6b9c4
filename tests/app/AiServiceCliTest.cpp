// The embedded server's AI service as a user sets it up: the settings name a service and the key sits in its own
// file, or a local runner is found by itself, or there is none and the user is told what to do. The real binary
// with a fresh home, scripted OpenAI-compatible services on loopback.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "CliTestSupport.h"
#include "platform/Folders.h"
#include "platform/test/TemporaryFolder.h"
#include "server/ScriptedOpenAiService.h"
#include "store/AppConstants.h"
#include "store/Settings.h"
#include "store/SettingsStore.h"

namespace {

namespace fs = std::filesystem;
using clitest::quote;
using clitest::readFile;
using sprelio::server::test::ScriptedOpenAiService;

// The folders of the binary's runs, so that this process writes where the binary reads.
class HomeFolders final : public sprelio::platform::Folders {
public:
    explicit HomeFolders(fs::path home) : home_(std::move(home)) {}
    fs::path home() const override { return home_; }
    fs::path dataHome() const override { return home_ / ".local/share"; }
    fs::path configHome() const override { return home_ / ".config"; }

private:
    fs::path home_;
};

// A loopback address nothing listens on.
std::string nothingListens() { return "http://127.0.0.1:" + std::to_string(sprelio::server::test::closedPort()); }

class AiServiceCli : public clitest::CliFixture {
protected:
    // What the settings' own API does for the user: the key goes into its file, never into the settings.
    void storeKey(const std::string& key) {
        HomeFolders folders(root_);
        sprelio::store::AppConstants constants(folders);
        sprelio::store::MemorySettingsStore store;
        sprelio::store::Settings settings(store, constants);
        ASSERT_EQ(settings.setAiServiceKey(key), "");
        keyFile_ = settings.aiServiceKeyFile();
    }
    fs::path keyFile_;
};

TEST_F(AiServiceCli, TheNamedServiceGetsTheModelAndTheKeyWhichNeverShowsElsewhere) {
    const std::string key = "sk-cli-5e1f2a3b4c";
    ScriptedOpenAiService chat;
    chat.onChat([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::chatAnswer(response, "The text, fixed.");
    });
    // A runner at the local address would not be asked: a service is named.
    environment = {{"SPRELIO_LOCAL_AI_URL", nothingListens()}};
    ASSERT_EQ(run({"settings", "set", "aiServiceURL", chat.url() + "/v1"}).status, 0);
    ASSERT_EQ(run({"settings", "set", "aiServiceModel", "chat-test"}).status, 0);
    storeKey(key);

    auto r = run({"ai", "fixGrammar", "teh text"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "The text, fixed.\n");
    ASSERT_EQ(chat.chats().size(), 1u);
    EXPECT_EQ(chat.chats()[0].authorization, "Bearer " + key);
    EXPECT_EQ(chat.chats()[0].json()["model"], "chat-test");

    struct stat info {};
    ASSERT_EQ(::stat(keyFile_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(readFile(keyFile_), key + "\n");
    const auto list = run({"settings", "list"});
    ASSERT_EQ(list.status, 0);
    EXPECT_NE(list.out.find("aiServiceURL"), std::string::npos) << list.out;
    EXPECT_EQ(list.out.find(key), std::string::npos) << list.out;
    EXPECT_EQ(readFile(settingsFile()).find(key), std::string::npos);
    ASSERT_TRUE(fs::exists(logFile()));
    EXPECT_EQ(readFile(logFile()).find(key), std::string::npos) << "the key never reaches the log";
}

TEST_F(AiServiceCli, WithNothingNamedALocalRunnerIsFoundAndUsed) {
    ScriptedOpenAiService runner;
    runner.onModels([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::modelList(response, {"llama3.2:latest", "qwen2.5:7b"});
    });
    runner.onChat([](const httplib::Request&, httplib::Response& response) {
        ScriptedOpenAiService::chatAnswer(response, "Fixed by the local model.");
    });
    environment = {{"SPRELIO_LOCAL_AI_URL", runner.url()}};

    auto r = run({"ai", "fixGrammar", "teh text"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Fixed by the local model.\n");
    ASSERT_EQ(runner.chats().size(), 1u);
    EXPECT_EQ(runner.chats()[0].json()["model"], "llama3.2:latest");
    EXPECT_FALSE(runner.modelLists().empty());

    // The model named in the settings, when the runner has it.
    ASSERT_EQ(run({"settings", "set", "aiServiceModel", "qwen2.5:7b"}).status, 0);
    ASSERT_EQ(run({"ai", "fixGrammar", "teh text"}).status, 0);
    ASSERT_EQ(runner.chats().size(), 2u);
    EXPECT_EQ(runner.chats()[1].json()["model"], "qwen2.5:7b");
}

TEST_F(AiServiceCli, WithNoServiceTheTranscriptComesWithWhatToSetUp) {
    const auto folder = root_ / "speech";
    fs::create_directories(folder);
    const auto text = folder / "speech.txt";
    const auto wav = folder / "speech.wav";
    std::ofstream(text) << "Please call me tomorrow morning at the office.\n";
    ASSERT_EQ(std::system(("text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " + quote(wav.string()) + " " +
                           quote(text.string()) + " >/dev/null 2>&1")
                              .c_str()),
              0)
        << "festival's text2wave could not make speech";
    const std::string address = nothingListens();
    environment = {{"SPRELIO_LOCAL_AI_URL", address}};

    auto r = run({"transcribe", wav.string(), "--item", "fixGrammar", "--language", "en"});
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(r.out.empty()) << "the transcript is still delivered";
    EXPECT_NE(r.err.find("No AI service is set up: name an OpenAI-compatible service in Sprelio's AI settings (URL, "
                         "model, key), or start a local one on " +
                         address.substr(std::string("http://").size()) + "."),
              std::string::npos)
        << r.err;
}

} // namespace
