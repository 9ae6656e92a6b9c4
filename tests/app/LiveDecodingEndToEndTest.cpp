// Decoding while the user speaks, through the desktop application and its embedded server: a festival dictation of
// a sentence and of a minute gives the text with live decoding on and off, and a live stream that the server ends
// half-way still delivers the text by the ordinary upload, with one history entry.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "SprelioAppProcess.h"
#include "helpers/WordAccuracy.h"
#include "platform/X11TestSupport.h"
#include "platform/test/TemporaryFolder.h"
#include "store/Entities.h"
#include "store/Persistence.h"

namespace sprelio {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using apptest::SprelioApp;
using audio_test::FifoFeeder;
using audio_test::PulseDaemon;
using x11test::TestClient;
using x11test::XServer;

constexpr const char* kSentence = "hello this is a test of dictation";
// About sixty seconds of festival's speech.
constexpr const char* kMinute =
    "the weather today is sunny with a light wind from the west. we will meet at the office tomorrow morning at "
    "nine o clock. please bring the report and the list of questions for the new project. after the meeting we can "
    "have lunch at the small restaurant near the river. the train to the city leaves every hour from the main "
    "station. i would like to order two coffees and a glass of water please. the children are playing in the "
    "garden behind the house. my brother bought a new car last week and he drives it to work every day. the "
    "library opens at ten and closes at six in the evening. remember to call your mother before the end of the "
    "week. the music was loud but the people were happy and danced all night. we need more paper for the printer "
    "in the second room. the old bridge over the river was closed for repairs in the spring. our neighbours have "
    "two dogs and a black cat that sleeps on the wall. the shop on the corner sells fresh bread and cheese every "
    "morning. we watched a film about the history of the city and its people.";
constexpr std::int64_t kRate = 16000;
constexpr const char* kRecordingStarted = "- preparing finished in";

struct Row {
    const char* name;
    const char* text;
    std::vector<std::string> environment;
    // Which path answered, as the embedded server reports it in the shared log.
    bool answeredLive;
    // The live stream was ended by the server before the key's release.
    bool brokenMidWay;
    // Of the words spoken, at least this share is in the delivered text (festival's voice, pocketsphinx's ear).
    double accuracy;
};

class LiveDecodingEndToEnd : public ::testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << "Xvfb did not start";
        ASSERT_TRUE(server.startWindowManager()) << "openbox did not start";
        ASSERT_NO_THROW(pulse.start());
        ASSERT_FALSE(speech(GetParam().text).empty()) << "festival's text2wave or ffmpeg could not make speech";
        feeder = std::make_unique<FifoFeeder>(pulse.fifo());
    }
    void TearDown() override {
        if (HasFailure() && app) {
            fs::create_directories(apptest::screenshotFolder());
            std::ofstream(apptest::screenshotFolder() / (std::string("live-") + GetParam().name + ".log")) << app->log();
        }
        if (app) {
            EXPECT_EQ(app->stop(), 0) << app->output();
        }
        app.reset();
        client.reset();
        pulse.kill();
        feeder.reset();
        server.stop();
    }
    // Made once per text and process.
    static const std::vector<float>& speech(const std::string& text) {
        static std::map<std::string, std::vector<float>> made;
        auto found = made.find(text);
        if (found == made.end()) found = made.emplace(text, apptest::festivalSentence(text)).first;
        return found->second;
    }
    std::vector<std::shared_ptr<store::LogEntry>> history() const {
        store::PersistentContainer other("Persistence", app->dataFolder() / store::PersistenceController::kStoreFileName);
        if (other.loadPersistentStores()) return {};
        return other.viewContext().fetchAll<store::LogEntry>();
    }

    XServer server;
    PulseDaemon pulse;
    std::unique_ptr<FifoFeeder> feeder;
    platform::test::TemporaryFolder home{"sprelio-live"};
    std::unique_ptr<SprelioApp> app;
    std::unique_ptr<TestClient> client;
};

TEST_P(LiveDecodingEndToEnd, AHeldKeyDictationDeliversTheSameTextOnce) {
    const auto& row = GetParam();
    apptest::storeRightAltShortcut(home.path(), true);
    app = std::make_unique<SprelioApp>(server, pulse, home.path(), false, row.environment);
    ASSERT_TRUE(app->waitForCount("Desktop.launch() - ready: the hotkeys are live", 1, 30000ms)) << app->output();
    client = std::make_unique<TestClient>(server, TestClient::Options{});
    ASSERT_TRUE(client->waitUntilFocused()) << client->describe();

    ASSERT_TRUE(server.run("xdotool keydown Alt_R"));
    ASSERT_TRUE(app->waitForCount(kRecordingStarted, 1)) << "the recording did not start";
    const auto& spoken = speech(row.text);
    const auto seconds = std::chrono::milliseconds(static_cast<std::int64_t>(spoken.size()) * 1000 / kRate);
    const std::int64_t at = feeder->play(spoken);
    const std::int64_t end = at + static_cast<std::int64_t>(spoken.size()) + kRate * 3 / 10;
    ASSERT_TRUE(x11test::waitFor([&] { return feeder->framesWritten() >= end; }, seconds + 15000ms));
    if (row.brokenMidWay) {
        ASSERT_TRUE(app->waitForCount("ended without a live decoding", 1)) << "the server did not end the stream";
    }
    ASSERT_TRUE(server.run("xdotool keyup Alt_R"));

    // Without the live stream a long dictation is decoded after the release, at about real time.
    ASSERT_TRUE(x11test::waitFor([&] { return testhelpers::wordAccuracy(row.text, client->text()) >= row.accuracy; },
                                 seconds + 30000ms))
        << "the test application shows: " << client->text();
    ASSERT_TRUE(x11test::waitFor([&] { return history().size() == 1; }));
    EXPECT_EQ(history()[0]->level(), 4) << "success";
    const bool live = app->log().find("answered from the live stream") != std::string::npos;
    EXPECT_EQ(live, row.answeredLive);
    EXPECT_EQ(app->count("- answered from the live stream") + app->count("BackendServer.handleTranscribe() - caf/opus"),
              1u)
        << "one answer, by one path";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LiveDecodingEndToEnd,
    ::testing::Values(Row{"On", kSentence, {}, true, false, 0.8},
                      Row{"Off", kSentence, {"SPRELIO_LIVE_DECODING=off"}, false, false, 0.8},
                      Row{"EndedByTheServer", kSentence, {"SPRELIO_LIVE_DECODING_MAX_SECONDS=1"}, false, true, 0.8},
                      Row{"MinuteOn", kMinute, {}, true, false, 0.7},
                      Row{"MinuteOff", kMinute, {"SPRELIO_LIVE_DECODING=off"}, false, false, 0.7}),
    [](const ::testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

} // namespace
} // namespace sprelio
