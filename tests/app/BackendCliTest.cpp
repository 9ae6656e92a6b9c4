// `sprelio transcribe`, `ai`, `account`, `login`, `logout` and `history` as a user runs them: the real binary with a fresh
// home; the embedded server by default, a scripted server where an answer must be exactly so, and a real server in
// this process for the sign-in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <regex>
#include <set>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "CliTestSupport.h"
#include "audio/CafOpusWriter.h"
#include "backend/ScriptedServer.h"
#include "helpers/WordAccuracy.h"
#include "platform/test/TemporaryFolder.h"
#include "platform/test/TestPlatform.h"
#include "server/BackendServer.h"

namespace {

namespace fs = std::filesystem;
using clitest::readFile;
using clitest::quote;
using nlohmann::json;

const std::string kSentence = "Please call me tomorrow morning at the office. The weather is nice today.";

// The share of the sentence's words that were recognised.
double wordsFound(const std::string& reference, const std::string& hypothesis) {
    const auto ref = sprelio::testhelpers::words(reference);
    const auto hyp = sprelio::testhelpers::words(hypothesis);
    const std::set<std::string> heard(hyp.begin(), hyp.end());
    const auto found = std::count_if(ref.begin(), ref.end(), [&](const std::string& w) { return heard.count(w) > 0; });
    return ref.empty() ? 0.0 : static_cast<double>(found) / static_cast<double>(ref.size());
}

// Festival's speech as a WAV file, and the same speech as a recording of our own Opus/CAF writer; made once.
struct Speech {
    static const Speech& get() {
        static const Speech speech;
        return speech;
    }
    sprelio::platform::test::TemporaryFolder folder{"sprelio-cli-speech"};
    fs::path wav;
    fs::path caf;

private:
    Speech() {
        const auto text = folder.path() / "speech.txt";
        std::ofstream(text) << kSentence << "\n";
        const auto candidate = folder.path() / "speech.wav";
        const auto raw = folder.path() / "speech.f32";
        const std::string command = "text2wave -eval '(voice_cmu_us_slt_arctic_hts)' -o " + quote(candidate.string()) +
                                    " " + quote(text.string()) + " >/dev/null 2>&1 && ffmpeg -nostdin -loglevel error -i " +
                                    quote(candidate.string()) + " -f f32le -ac 1 -ar 16000 " + quote(raw.string());
        if (std::system(command.c_str()) != 0) return;
        wav = candidate;
        const std::string bytes = readFile(raw);
        std::vector<float> samples(bytes.size() / sizeof(float));
        std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
        caf = folder.path() / "speech.caf";
        sprelio::CafOpusWriter writer;
        writer.open(caf);
        writer.appendSamples(samples.data(), samples.size());
        writer.finish();
    }
};

struct ListedEntry {
    long id = 0;
    std::string level;
    std::string recording;
    std::string text;
};

// Parses `sprelio history list`: "[ID] level  date, duration  recording" and the indented text below.
std::vector<ListedEntry> parseList(const std::string& output) {
    std::vector<ListedEntry> entries;
    std::istringstream in(output);
    std::string line;
    const std::regex head(R"(^\[(\d+)\] (\S+)  (.*), (\d+:\d\d(:\d\d)?)  (.*)$)");
    while (std::getline(in, line)) {
        std::smatch match;
        if (std::regex_match(line, match, head)) {
            entries.push_back({std::stol(match[1]), match[2], match[6], {}});
        } else if (!entries.empty() && line.rfind("    ", 0) == 0) {
            entries.back().text += (entries.back().text.empty() ? "" : "\n") + line.substr(4);
        }
    }
    return entries;
}

class BackendCli : public clitest::CliFixture {
protected:
    fs::path recordingsFolder() const { return root_ / ".local/share/Sprelio/recordings"; }

    // A scripted account API and backend in one: /users/info names the server itself as the only backend.
    void useScriptedServer(sprelio::backendtest::ScriptedServer& server) {
        sprelio::backendtest::Script info;
        info.body = json{{"flags", json::object()},
                         {"ai", {{"models", json::array()}, {"servers", json::array()}}},
                         {"balancers", json::array({{{"uuid", "B1"}, {"name", "scripted"}, {"url", server.url("")}}})},
                         {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "tok-ann"}}}}
                        .dump();
        server.script("/users/info", info);
        environment = {{"SPRELIO_API_BASE_URL", server.url("")}};
    }

    static std::vector<sprelio::backendtest::RecordedRequest> posts(const sprelio::backendtest::ScriptedServer& server,
                                                                     const std::string& path) {
        std::vector<sprelio::backendtest::RecordedRequest> found;
        for (const auto& request : server.requests()) {
            if (request.method == "POST" && request.target.rfind(path, 0) == 0) found.push_back(request);
        }
        return found;
    }
};

TEST_F(BackendCli, TranscribesSpeechWithTheEmbeddedServerAndKeepsOneSuccessEntryEach) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.wav.empty()) << "festival's text2wave or ffmpeg could not make speech";

    for (const auto& file : {speech.wav, speech.caf}) {
        const auto before = readFile(file);
        auto r = run({"transcribe", file.string()});
        ASSERT_EQ(r.status, 0) << r.err;
        const double found = wordsFound(kSentence, r.out);
        std::cout << "[ measured ] " << file.extension() << " words found " << found << " (\"" << r.out << "\")\n";
        EXPECT_GE(found, 0.6) << r.out;
        EXPECT_EQ(readFile(file), before) << "the user's file is left as it was";
    }

    auto list = run({"history", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out.rfind("2 entries\n", 0), 0u) << list.out;
    const auto entries = parseList(list.out);
    ASSERT_EQ(entries.size(), 2u) << list.out;
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.level, "success");
        EXPECT_GE(wordsFound(kSentence, entry.text), 0.6);
        // The history's own name for the recording, in the recordings folder.
        EXPECT_EQ(entry.recording.rfind(recordingsFolder().string(), 0), 0u) << entry.recording;
        EXPECT_TRUE(fs::exists(entry.recording));
    }
    EXPECT_EQ(fs::path(entries[0].recording).extension(), ".caf") << "newest first";
    EXPECT_NE(list.out.find(", 0:0"), std::string::npos) << "the duration of a few seconds: " << list.out;

    // Removing an entry removes the history's recording, never the user's file.
    auto removed = run({"history", "remove", std::to_string(entries[0].id)});
    ASSERT_EQ(removed.status, 0) << removed.err;
    EXPECT_FALSE(fs::exists(entries[0].recording));
    EXPECT_TRUE(fs::exists(speech.caf));
    EXPECT_EQ(parseList(run({"history", "list"}).out).size(), 1u);
}

TEST_F(BackendCli, LongFileShowsProgressAndGivesTheText) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.wav.empty()) << "festival's text2wave or ffmpeg could not make speech";
    auto r = run({"transcribe", "--long", speech.wav.string()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_GE(wordsFound(kSentence, r.out), 0.6) << r.out;
    EXPECT_NE(r.err.find("Uploading file... (100%)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Transcribing file..."), std::string::npos) << r.err;
    const auto entries = parseList(run({"history", "list"}).out);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, "success");

    const auto notes = root_ / "notes.txt";
    std::ofstream(notes) << "not audio";
    auto refused = run({"transcribe", "--long", notes.string()});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("Only audio and video files are supported."), std::string::npos) << refused.err;
}

TEST_F(BackendCli, StreamedAnswerPrintsTheCompletionOfTheItemThatRodeAlong) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.caf.empty());
    sprelio::backendtest::ScriptedServer server;
    useScriptedServer(server);
    sprelio::backendtest::Script stream;
    stream.headers = {{"Content-Type", "text/event-stream"}};
    stream.stream = {sprelio::backendtest::StreamStep::write(R"({"text":"hello world","language":"en"})" "\n"),
                     sprelio::backendtest::StreamStep::write(R"({"completion":"Hello, world!"})" "\n")};
    server.script("/transcribe", stream);

    auto r = run({"transcribe", speech.caf.string(), "--item", "fixGrammar", "--language", "en"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Hello, world!\n");

    const auto uploads = posts(server, "/transcribe");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_NE(uploads[0].target.find("languages=en&"), std::string::npos) << uploads[0].target;
    EXPECT_EQ(uploads[0].header("Authorization"), "Bearer tok-ann") << "the token of the account's refresh";
    const auto& body = uploads[0].body;
    const auto ai = body.find("name=\"ai\"");
    ASSERT_NE(ai, std::string::npos);
    const auto aiJson = json::parse(body.substr(body.find("{", ai), body.find("\r\n", body.find("{", ai)) - body.find("{", ai)));
    EXPECT_EQ(aiJson["prompt_id"], "fix_grammar");
    EXPECT_FALSE(aiJson.contains("text"));

    // The transcript is the history's entry; the AI result is not.
    const auto entries = parseList(run({"history", "list"}).out);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, "success");
    EXPECT_EQ(entries[0].text, "hello world");
    EXPECT_EQ(run({"settings", "get", "lastDetectedLanguageCode"}).out, "en\n");

    auto unknown = run({"transcribe", speech.caf.string(), "--item", "noSuchItem"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("--item noSuchItem"), std::string::npos) << unknown.err;
}

TEST_F(BackendCli, FailurePrintsTheServersTextWritesTheEntriesAndCanBeRetried) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.wav.empty());
    sprelio::backendtest::ScriptedServer server;
    useScriptedServer(server);
    sprelio::backendtest::Script refused;
    refused.status = 402;
    refused.reason = "Payment Required";
    refused.body = R"({"error":"QuotaExceeded","message":"Your monthly minutes are used up."})";
    server.script("/transcribe", refused);

    auto r = run({"transcribe", speech.wav.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "sprelio: Your monthly minutes are used up.\n");

    // One entry from the upload, one from the end of the chain (the only backend is the last), one from the result.
    auto entries = parseList(run({"history", "list"}).out);
    ASSERT_EQ(entries.size(), 3u);
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.level, "error");
        EXPECT_EQ(entry.text, "Your monthly minutes are used up.");
        EXPECT_EQ(entry.recording, entries[0].recording);
    }
    const fs::path recording = entries[0].recording;
    ASSERT_TRUE(fs::exists(recording));

    // Transcribe again once the server answers.
    sprelio::backendtest::Script answer;
    answer.body = R"({"text":"second try","language":"en"})";
    server.script("/transcribe", answer);
    auto retried = run({"history", "retry", std::to_string(entries.back().id)});
    ASSERT_EQ(retried.status, 0) << retried.err;
    EXPECT_EQ(retried.out, "second try\n");
    entries = parseList(run({"history", "list"}).out);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].level, "success");
    EXPECT_EQ(entries[0].text, "second try");
    EXPECT_EQ(entries[0].recording, recording.string());

    auto wiped = run({"history", "wipe"});
    ASSERT_EQ(wiped.status, 0) << wiped.err;
    EXPECT_FALSE(fs::exists(recording));
    EXPECT_EQ(run({"history", "list"}).out, "No history data available.\n");

    auto missing = run({"history", "remove", "12345"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("no entry 12345"), std::string::npos);
}

TEST_F(BackendCli, AnAccountWithoutBackendsEndsAtOnceWithTheMissingBackend) {
    const auto& speech = Speech::get();
    ASSERT_FALSE(speech.wav.empty());
    sprelio::backendtest::ScriptedServer server;
    useScriptedServer(server);
    sprelio::backendtest::Script info;
    info.body = R"({"balancers":[],"user":{"user":{"email":"ann@example.org"},"requests":0,"token":"tok-ann"}})";
    server.script("/users/info", info);

    auto r = run({"transcribe", speech.wav.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "sprelio: No balancers available. Try again later.\n");
    EXPECT_TRUE(posts(server, "/transcribe").empty());
    std::size_t infoRequests = 0;
    for (const auto& request : server.requests()) infoRequests += request.target.rfind("/users/info", 0) == 0;
    EXPECT_EQ(infoRequests, 1u) << "the account API is asked once, not again and again";
    const auto entries = parseList(run({"history", "list"}).out);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, "error");
    EXPECT_EQ(entries[0].text, "No balancers available. Try again later.");
}

TEST_F(BackendCli, AccountShowsTheEmbeddedServersAccountAndKeepsTheAiLists) {
    auto r = run({"account"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Account API: http://127.0.0.1:"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(embedded server)"), std::string::npos);
    EXPECT_NE(r.out.find("Signed in as: "), std::string::npos);
    EXPECT_EQ(r.out.find("not signed in"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Backends:\n  1. "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  online\n"), std::string::npos);
    for (const char* name : {"AIServerItems", "AIModelItems"}) {
        const auto text = readFile(root_ / ".local/share/Sprelio" / name);
        const auto list = json::parse(text, nullptr, false);
        EXPECT_TRUE(list.is_array()) << name << ": " << text;
    }

    // The embedded server has only its local account.
    auto login = run({"login", "bob@example.org"});
    EXPECT_EQ(login.status, 1);
    EXPECT_NE(login.err.find("embedded"), std::string::npos) << login.err;
}

TEST_F(BackendCli, AccountWritesTheAiListsOfTheAnswer) {
    sprelio::backendtest::ScriptedServer server;
    useScriptedServer(server);
    sprelio::backendtest::Script info;
    info.body = json{{"ai",
                      {{"models", json::array({{{"name", "Small"}, {"model", "small-1"}, {"languages", {"en", "de"}}}})},
                       {"servers", json::array({{{"uuid", "S1"}, {"name", "ai-1"}, {"url", "https://ai.example.org"},
                                                 {"models", {"small-1"}}}})}}},
                     {"balancers", json::array()},
                     {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "tok-ann"}}}}
                        .dump();
    server.script("/users/info", info);
    auto r = run({"account"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Signed in as: ann@example.org\nRequests: 3\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("AI servers:\n  ai-1  https://ai.example.org  models: small-1\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("AI models:\n  Small (small-1)  languages: en, de\n"), std::string::npos) << r.out;
    const auto servers = json::parse(readFile(root_ / ".local/share/Sprelio/AIServerItems"));
    EXPECT_EQ(servers, json::parse(R"([{"uuid":"S1","name":"ai-1","url":"https://ai.example.org","models":["small-1"]}])"));
    const auto models = json::parse(readFile(root_ / ".local/share/Sprelio/AIModelItems"));
    EXPECT_EQ(models, json::parse(R"([{"name":"Small","model":"small-1","languages":["en","de"]}])"));
}

TEST_F(BackendCli, AiRunsAnItemOnATextThroughTheAccountsAiServers) {
    sprelio::backendtest::ScriptedServer server;
    useScriptedServer(server);
    sprelio::backendtest::Script info;
    info.body = json{{"ai",
                      {{"models", json::array({{{"name", "Small"}, {"model", "small-1"}}})},
                       {"servers", json::array({{{"uuid", "S1"}, {"name", "ai-1"}, {"url", server.url("")},
                                                 {"models", {"small-1"}}}})}}},
                     {"balancers", json::array()},
                     {"user", {{"user", {{"email", "ann@example.org"}}}, {"requests", 3}, {"token", "tok-ann"}}}}
                        .dump();
    server.script("/users/info", info);
    sprelio::backendtest::Script answer;
    answer.body = json{{"completion", "Hola, mundo."}}.dump();
    server.script("/completions", answer);

    // Spanish is in no list of the user's: any language of the table is a target.
    auto r = run({"ai", "es", "Hello, world.", "--language", "en"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Hola, mundo.\n");
    const auto sent = posts(server, "/completions");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].target.rfind("/completions?app=", 0), 0u) << sent[0].target;
    EXPECT_EQ(sent[0].header("Authorization"), "Bearer tok-ann");
    const auto body = json::parse(sent[0].body);
    EXPECT_EQ(body["prompt_id"], "translate");
    EXPECT_EQ(body["prompt_param"], "es");
    EXPECT_EQ(body["text"], "Hello, world.");
    EXPECT_EQ(body["text_lang"], "en");
    EXPECT_EQ(readFile(logFile()).find("Hello, world."), std::string::npos)
        << "the text never reaches the log";

    // A local step needs no server.
    auto local = run({"ai", "uppercaseAll", "straße"});
    ASSERT_EQ(local.status, 0) << local.err;
    EXPECT_EQ(local.out, "STRASSE\n");
    EXPECT_EQ(posts(server, "/completions").size(), 1u);

    // The server's failure is the command's, in the completion service's words.
    sprelio::backendtest::Script refused;
    refused.status = 429;
    refused.body = json{{"error", "RateLimited"}, {"message", "Slow down, please."}, {"stop", true}}.dump();
    server.script("/completions", refused);
    auto failed = run({"ai", "fixGrammar", "teh text"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_TRUE(failed.out.empty()) << failed.out;
    EXPECT_NE(failed.err.find("Request error during AI processing: Slow down, please."), std::string::npos)
        << failed.err;

    auto unknown = run({"ai", "noSuchItem", "text"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("noSuchItem is no item"), std::string::npos) << unknown.err;
}

class SignInCli : public BackendCli {
protected:
    void SetUp() override {
        BackendCli::SetUp();
        sprelio::server::ServerConfig config;
        config.host = "127.0.0.1";
        config.port = 0;
        config.dataFolder = data_.path();
        config.workerThreads = 4;
        server_ = std::make_unique<sprelio::server::BackendServer>(config);
        server_->start();
        environment = {{"SPRELIO_API_BASE_URL", server_->url()}};
    }
    void TearDown() override {
        server_->stop();
        BackendCli::TearDown();
    }

    // The server has no mail server: the link and the code go to its console log, which is this process's log.
    std::optional<std::string> mailed(int part) const {
        const std::regex pattern("sign-in for (\\S+): link (\\S+) code (\\d{6})");
        for (const auto& line : logs_.lines()) {
            std::smatch match;
            if (std::regex_search(line.message, match, pattern)) return match[part];
        }
        return std::nullopt;
    }
    std::optional<std::string> mailedCode() const { return mailed(3); }
    std::optional<std::string> mailedLink() const { return mailed(2); }

    json settings() const { return json::parse(readFile(settingsFile())); }

    sprelio::platform::test::RecordingLogSink logs_;
    sprelio::platform::test::TemporaryFolder data_{"sprelio-cli-server"};
    std::unique_ptr<sprelio::server::BackendServer> server_;
};

TEST_F(SignInCli, CodeSignsInWhileTheLinkIsAwaitedAndLogoutSignsOut) {
    clitest::BackgroundRun waiting(commandLine({"login", "bob@example.org"}, root_ / "login.out", root_ / "login.err"),
                                   root_ / "login.out", root_ / "login.err");
    ASSERT_TRUE(waiting.started());
    ASSERT_TRUE(clitest::waitFor([&] { return mailedCode() && server_->signIn().waiting() == 1; }))
        << "the sign-in was not asked for: " << waiting.err();
    EXPECT_NE(waiting.out().find("sprelio login --code CODE"), std::string::npos) << waiting.out();
    const std::string code = *mailedCode();

    auto wrong = run({"login", "--code", code == "000000" ? "111111" : "000000"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_FALSE(wrong.err.empty());

    auto typed = run({"login", "--code", code});
    ASSERT_EQ(typed.status, 0) << typed.err;
    EXPECT_EQ(typed.out, "Signed in as bob@example.org.\n");

    // The waiting command sees the request used up and finds the sign-in made by the code.
    const auto ended = waiting.wait(std::chrono::seconds(60));
    ASSERT_TRUE(ended) << "the waiting sign-in did not end";
    EXPECT_EQ(ended->status, 0) << ended->err;
    EXPECT_NE(ended->out.find("Signed in as bob@example.org (with the code)."), std::string::npos) << ended->out;

    auto stored = settings();
    ASSERT_TRUE(stored.contains("token"));
    EXPECT_NE(stored["token"], server_->localAccount().token);
    EXPECT_EQ(stored["userEmail"], "bob@example.org");
    EXPECT_EQ(stored["lastKnownLoginState"], "loggedIn");
    EXPECT_FALSE(fs::exists(root_ / ".local/share/Sprelio/sign-in-request"));

    auto account = run({"account"});
    ASSERT_EQ(account.status, 0) << account.err;
    EXPECT_NE(account.out.find("Signed in as: bob@example.org\n"), std::string::npos) << account.out;

    auto out = run({"logout"});
    ASSERT_EQ(out.status, 0) << out.err;
    EXPECT_EQ(out.out, "Signed out.\n");
    stored = settings();
    EXPECT_FALSE(stored.contains("token"));
    EXPECT_FALSE(stored.contains("userEmail"));
    EXPECT_EQ(stored["lastKnownLoginState"], "logout");

    auto after = run({"account"});
    ASSERT_EQ(after.status, 0) << after.err;
    EXPECT_NE(after.out.find("not signed in"), std::string::npos) << after.out;

    auto noRequest = run({"login", "--code", code});
    EXPECT_EQ(noRequest.status, 1);
    EXPECT_NE(noRequest.err.find("run sprelio login EMAIL first"), std::string::npos) << noRequest.err;
}

TEST_F(SignInCli, OpeningTheLinkEndsTheWaitSignedIn) {
    clitest::BackgroundRun waiting(commandLine({"login", "carol@example.org"}, root_ / "login.out", root_ / "login.err"),
                                   root_ / "login.out", root_ / "login.err");
    ASSERT_TRUE(clitest::waitFor([&] { return mailedLink() && server_->signIn().waiting() == 1; }))
        << "the sign-in was not asked for: " << waiting.err();
    // The user opens the link from the mail.
    const std::string link = *mailedLink();
    const auto pathStart = link.find('/', link.find("://") + 3);
    httplib::Client browser("127.0.0.1", server_->port());
    auto opened = browser.Get(link.substr(pathStart).c_str());
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->status, 200) << opened->body;

    const auto ended = waiting.wait(std::chrono::seconds(60));
    ASSERT_TRUE(ended) << "the waiting sign-in did not end";
    EXPECT_EQ(ended->status, 0) << ended->err;
    EXPECT_NE(ended->out.find("Signed in as carol@example.org.\n"), std::string::npos) << ended->out;
    auto stored = settings();
    EXPECT_EQ(stored["userEmail"], "carol@example.org");
    EXPECT_EQ(stored["lastKnownLoginState"], "loggedIn");
    // The refresh after signing in brought the account's details.
    ASSERT_TRUE(stored.contains("userDetailsResponse"));
    EXPECT_EQ(stored["userDetailsResponse"]["email"], "carol@example.org");
}

TEST_F(SignInCli, BadAddressIsRefusedBeforeAnyRequest) {
    auto r = run({"login", "not-an-address"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no e-mail address"), std::string::npos);
    EXPECT_FALSE(mailedCode());
}

} // namespace
